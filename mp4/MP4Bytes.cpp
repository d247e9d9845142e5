#include "qxmedia/mp4/MP4Bytes.h"

#include <cstring>

namespace qx::mp4 {

bool ByteReader::take(size_t count)
{
    if (count > remaining()) {
        pos_ = size_;
        ok_ = false;
        return false;
    }
    return true;
}

uint8_t ByteReader::u8()
{
    if (!take(1)) return 0;
    return data_[pos_++];
}

uint16_t ByteReader::u16()
{
    if (!take(2)) return 0;
    uint16_t v = uint16_t((data_[pos_] << 8) | data_[pos_ + 1]);
    pos_ += 2;
    return v;
}

uint32_t ByteReader::u24()
{
    if (!take(3)) return 0;
    uint32_t v = (uint32_t(data_[pos_]) << 16) | (uint32_t(data_[pos_ + 1]) << 8) | data_[pos_ + 2];
    pos_ += 3;
    return v;
}

uint32_t ByteReader::u32()
{
    if (!take(4)) return 0;
    uint32_t v = readBE32(data_ + pos_);
    pos_ += 4;
    return v;
}

uint64_t ByteReader::u64()
{
    if (!take(8)) return 0;
    uint64_t v = readBE64(data_ + pos_);
    pos_ += 8;
    return v;
}

std::vector<uint8_t> ByteReader::bytes(size_t count)
{
    size_t n = count <= remaining() ? count : remaining();
    std::vector<uint8_t> out(data_ + pos_, data_ + pos_ + n);
    pos_ += n;
    if (n < count) ok_ = false;
    return out;
}

std::string ByteReader::string(size_t count)
{
    size_t n = count <= remaining() ? count : remaining();
    std::string out(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    if (n < count) ok_ = false;
    return out;
}

std::string ByteReader::cstring()
{
    size_t end = pos_;
    while (end < size_ && data_[end] != 0) ++end;
    std::string out(reinterpret_cast<const char*>(data_ + pos_), end - pos_);
    pos_ = end < size_ ? end + 1 : end;
    return out;
}

std::string ByteReader::pstring()
{
    uint8_t length = u8();
    return string(length);
}

void ByteReader::skip(size_t count)
{
    if (take(count)) pos_ += count;
}

ByteReader ByteReader::sub(size_t count)
{
    size_t n = count <= remaining() ? count : remaining();
    ByteReader r(data_ + pos_, n);
    pos_ += n;
    if (n < count) ok_ = false;
    return r;
}

void ByteWriter::u16(uint16_t v)
{
    buffer_.push_back(uint8_t(v >> 8));
    buffer_.push_back(uint8_t(v));
}

void ByteWriter::u24(uint32_t v)
{
    buffer_.push_back(uint8_t(v >> 16));
    buffer_.push_back(uint8_t(v >> 8));
    buffer_.push_back(uint8_t(v));
}

void ByteWriter::u32(uint32_t v)
{
    uint8_t b[4];
    writeBE32(b, v);
    buffer_.insert(buffer_.end(), b, b + 4);
}

void ByteWriter::u64(uint64_t v)
{
    uint8_t b[8];
    writeBE64(b, v);
    buffer_.insert(buffer_.end(), b, b + 8);
}

void ByteWriter::bytes(const void* data, size_t size)
{
    auto p = static_cast<const uint8_t*>(data);
    buffer_.insert(buffer_.end(), p, p + size);
}

void ByteWriter::patch32(size_t offset, uint32_t v) { writeBE32(buffer_.data() + offset, v); }
void ByteWriter::patch64(size_t offset, uint64_t v) { writeBE64(buffer_.data() + offset, v); }

} // namespace qx::mp4
