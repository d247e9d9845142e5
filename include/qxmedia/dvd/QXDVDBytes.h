#pragma once
// QXDVDBytes: a bounded big-endian view over the bytes of a DVD information
// file. Every read outside the view answers 0 and every slice is clipped, so
// an offset or count taken from a damaged file can never reach past the data.

#include <cstddef>
#include <cstdint>
#include <string>

class QXDVDBytes {
public:
    QXDVDBytes() = default;
    QXDVDBytes(const uint8_t* data, size_t size) : data_(data), size_(data ? size : 0) {}

    size_t size() const { return size_; }
    const uint8_t* data() const { return data_; }
    bool contains(size_t offset, size_t length) const { return offset <= size_ && length <= size_ - offset; }

    uint8_t u8(size_t offset) const { return contains(offset, 1) ? data_[offset] : 0; }
    uint16_t u16(size_t offset) const { return uint16_t(u8(offset) << 8 | u8(offset + 1)); }
    uint32_t u32(size_t offset) const { return uint32_t(u16(offset)) << 16 | u16(offset + 2); }
    uint64_t u64(size_t offset) const { return uint64_t(u32(offset)) << 32 | u32(offset + 4); }
    // Up to `length` bytes from offset, as many as there are.
    QXDVDBytes slice(size_t offset, size_t length) const;
    // Bytes up to the first NUL, at most `length`, taken as they stand.
    std::string text(size_t offset, size_t length) const;

private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

constexpr size_t kDVDSectorSize = 2048;
