#pragma once
// Big-endian reading and writing of box payloads. The reader never reads
// past the range it was given: a read beyond it returns zeros and clears
// ok(), so a damaged box is noticed once, after its fields are parsed.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qx::mp4 {

class ByteReader {
public:
    ByteReader() = default;
    ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    explicit ByteReader(std::span<const uint8_t> bytes) : data_(bytes.data()), size_(bytes.size()) {}

    size_t size() const { return size_; }
    size_t position() const { return pos_; }
    size_t remaining() const { return size_ - pos_; }
    bool ok() const { return ok_; }
    const uint8_t* current() const { return data_ + pos_; }

    uint8_t u8();
    uint16_t u16();
    uint32_t u24();
    uint32_t u32();
    uint64_t u64();
    int16_t i16() { return static_cast<int16_t>(u16()); }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    int64_t i64() { return static_cast<int64_t>(u64()); }
    // Unsigned with 4 or 8 bytes depending on `wide`.
    uint64_t uvar(bool wide) { return wide ? u64() : u32(); }

    // Copies `count` bytes; fewer (and ok() false) when the range ends first.
    std::vector<uint8_t> bytes(size_t count);
    std::vector<uint8_t> rest() { return bytes(remaining()); }
    std::string string(size_t count);
    // A zero-terminated string, or up to the end of the range.
    std::string cstring();
    // A string preceded by its 8-bit length (Pascal style).
    std::string pstring();
    void skip(size_t count);
    // A reader over the next `count` bytes, advancing this one.
    ByteReader sub(size_t count);

private:
    bool take(size_t count);

    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t pos_ = 0;
    bool ok_ = true;
};

class ByteWriter {
public:
    std::vector<uint8_t>& buffer() { return buffer_; }
    const std::vector<uint8_t>& buffer() const { return buffer_; }
    size_t size() const { return buffer_.size(); }

    void u8(uint8_t v) { buffer_.push_back(v); }
    void u16(uint16_t v);
    void u24(uint32_t v);
    void u32(uint32_t v);
    void u64(uint64_t v);
    void uvar(uint64_t v, bool wide) { wide ? u64(v) : u32(static_cast<uint32_t>(v)); }
    void bytes(std::span<const uint8_t> data) { buffer_.insert(buffer_.end(), data.begin(), data.end()); }
    void bytes(const void* data, size_t size);
    void string(const std::string& text) { bytes(text.data(), text.size()); }
    void zeros(size_t count) { buffer_.insert(buffer_.end(), count, 0); }
    // Overwrites a 32-bit value at `offset` (used to patch box sizes).
    void patch32(size_t offset, uint32_t v);
    void patch64(size_t offset, uint64_t v);

private:
    std::vector<uint8_t> buffer_;
};

// Free-standing big-endian helpers for fixed buffers.
inline uint32_t readBE32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}
inline uint64_t readBE64(const uint8_t* p) { return (uint64_t(readBE32(p)) << 32) | readBE32(p + 4); }
inline void writeBE32(uint8_t* p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline void writeBE64(uint8_t* p, uint64_t v)
{
    writeBE32(p, uint32_t(v >> 32));
    writeBE32(p + 4, uint32_t(v));
}

} // namespace qx::mp4
