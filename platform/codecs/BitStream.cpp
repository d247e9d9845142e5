#include "qxmedia/platform/codecs/BitStream.h"

namespace qx {

uint32_t BitReader::peek(unsigned bits) const
{
    uint32_t value = 0;
    size_t position = position_;
    for (unsigned i = 0; i < bits; ++i, ++position) {
        uint32_t bit = 0;
        if (position < sizeInBits_) bit = (data_[position >> 3] >> (7 - (position & 7))) & 1;
        value = (value << 1) | bit;
    }
    return value;
}

uint32_t BitReader::read(unsigned bits)
{
    if (bits > 32) bits = 32;
    const uint32_t value = peek(bits);
    skip(bits);
    return value;
}

uint64_t BitReader::read64(unsigned bits)
{
    if (bits > 64) bits = 64;
    if (bits <= 32) return read(bits);
    const uint64_t high = read(bits - 32);
    return (high << 32) | read(32);
}

void BitReader::skip(size_t bits)
{
    if (bits > sizeInBits_ - position_) {
        overread_ = true;
        position_ = sizeInBits_;
        return;
    }
    position_ += bits;
}

void BitReader::seek(size_t bitPosition)
{
    if (bitPosition > sizeInBits_) {
        overread_ = true;
        bitPosition = sizeInBits_;
    }
    position_ = bitPosition;
}

uint32_t BitReader::readUE()
{
    unsigned leadingZeros = 0;
    while (!readBit()) {
        if (++leadingZeros > 31 || overread_) {
            overread_ = true;
            return 0;
        }
    }
    if (leadingZeros == 0) return 0;
    return uint32_t((uint64_t(1) << leadingZeros) - 1 + read(leadingZeros));
}

int32_t BitReader::readSE()
{
    const uint32_t code = readUE();
    // 1, 2, 3, 4 ... map to 1, -1, 2, -2 ...
    const int64_t magnitude = (int64_t(code) + 1) / 2;
    return int32_t((code & 1) ? magnitude : -magnitude);
}

void BitWriter::write(unsigned bits, uint64_t value)
{
    for (unsigned i = bits; i > 0; --i) {
        const uint8_t bit = (value >> (i - 1)) & 1;
        if (pending_ == 0) bytes_.push_back(0);
        bytes_.back() |= uint8_t(bit << (7 - pending_));
        pending_ = (pending_ + 1) % 8;
    }
}

void BitWriter::writeBytes(std::span<const uint8_t> bytes)
{
    if (pending_ == 0) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return;
    }
    for (uint8_t byte : bytes) write(8, byte);
}

void BitWriter::flush()
{
    pending_ = 0;
}

std::vector<uint8_t> BitWriter::take()
{
    pending_ = 0;
    return std::move(bytes_);
}

} // namespace qx
