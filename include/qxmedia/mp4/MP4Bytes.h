#pragma once
/// @file
/// Big-endian reading and writing of box payloads. The reader never reads
/// past the range it was given: a read beyond it returns zeros and clears
/// ok(), so a damaged box is noticed once, after its fields are parsed.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qx::mp4 {

/// A cursor over a byte range that it does not own (the bytes must outlive
/// it). Reads are big-endian; a read that does not fit gives zero, moves to
/// the end and clears ok() for good. Copies are independent cursors.
class ByteReader {
public:
    /// An empty range: every read fails.
    ByteReader() = default;
    /// A reader over `size` bytes at `data`.
    ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    /// A reader over `bytes`.
    explicit ByteReader(std::span<const uint8_t> bytes) : data_(bytes.data()), size_(bytes.size()) {}

    /// Length of the whole range in bytes.
    size_t size() const { return size_; }
    /// Bytes consumed so far, from the start of the range.
    size_t position() const { return pos_; }
    /// Bytes left to read.
    size_t remaining() const { return size_ - pos_; }
    /// False once any read went past the end of the range.
    bool ok() const { return ok_; }
    /// The next unread byte (the end of the range when nothing is left).
    const uint8_t* current() const { return data_ + pos_; }

    ///@{
    /// An unsigned big-endian value of 1, 2, 3, 4 or 8 bytes; 0 when it does not fit.
    uint8_t u8();
    uint16_t u16();
    uint32_t u24();
    uint32_t u32();
    uint64_t u64();
    ///@}
    ///@{
    /// A signed (two's complement) big-endian value of 2, 4 or 8 bytes; 0 when it does not fit.
    int16_t i16() { return static_cast<int16_t>(u16()); }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    int64_t i64() { return static_cast<int64_t>(u64()); }
    ///@}
    /// Unsigned with 4 or 8 bytes depending on `wide` (the version 0/1 fields of a full box).
    uint64_t uvar(bool wide) { return wide ? u64() : u32(); }

    /// Copies `count` bytes; fewer (and ok() false) when the range ends first.
    std::vector<uint8_t> bytes(size_t count);
    /// Copies everything that is left.
    std::vector<uint8_t> rest() { return bytes(remaining()); }
    /// `count` bytes as a string, taken as they are (no terminator looked for);
    /// fewer (and ok() false) when the range ends first.
    std::string string(size_t count);
    /// A zero-terminated string (the zero is consumed, not returned), or up to
    /// the end of the range; a missing terminator is not an error.
    std::string cstring();
    /// A string preceded by its 8-bit length (Pascal style).
    std::string pstring();
    /// Moves `count` bytes ahead; past the end it moves to the end and clears ok().
    void skip(size_t count);
    /// A reader over the next `count` bytes, advancing this one. When fewer are
    /// left, the new reader covers what is left and this one's ok() is cleared.
    ByteReader sub(size_t count);

private:
    bool take(size_t count);

    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t pos_ = 0;
    bool ok_ = true;
};

/// Appends big-endian values to a growing buffer that it owns.
class ByteWriter {
public:
    ///@{
    /// The bytes written so far; the caller may take them with std::move.
    std::vector<uint8_t>& buffer() { return buffer_; }
    const std::vector<uint8_t>& buffer() const { return buffer_; }
    ///@}
    /// Bytes written so far.
    size_t size() const { return buffer_.size(); }

    ///@{
    /// Appends an unsigned big-endian value of 1, 2, 3 (low 24 bits of `v`), 4 or 8 bytes.
    void u8(uint8_t v) { buffer_.push_back(v); }
    void u16(uint16_t v);
    void u24(uint32_t v);
    void u32(uint32_t v);
    void u64(uint64_t v);
    ///@}
    /// Appends `v` as 8 bytes when `wide`, else its low 32 bits as 4 bytes.
    void uvar(uint64_t v, bool wide) { wide ? u64(v) : u32(static_cast<uint32_t>(v)); }
    ///@{
    /// Appends bytes as they are.
    void bytes(std::span<const uint8_t> data) { buffer_.insert(buffer_.end(), data.begin(), data.end()); }
    void bytes(const void* data, size_t size);
    ///@}
    /// Appends the characters of `text`, without a terminator.
    void string(const std::string& text) { bytes(text.data(), text.size()); }
    /// Appends `count` zero bytes (reserved fields, padding).
    void zeros(size_t count) { buffer_.insert(buffer_.end(), count, 0); }
    /// Overwrites a 32-bit value at `offset` (used to patch box sizes); the
    /// four bytes must already have been written.
    void patch32(size_t offset, uint32_t v);
    /// Overwrites a 64-bit value at `offset`; the eight bytes must already have been written.
    void patch64(size_t offset, uint64_t v);

private:
    std::vector<uint8_t> buffer_;
};

///@{
/// Free-standing big-endian helpers for fixed buffers: read or write a 32- or
/// 64-bit value at `p`, which must hold 4 or 8 bytes (not checked).
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
///@}

} // namespace qx::mp4
