#pragma once
// Bit-level reading and writing, most significant bit first, as the AC-3,
// H.264 and HEVC bit streams are laid out.
//
// BitReader stands in for FFmpeg's GetBitContext: it never reads outside its
// buffer. A read past the end yields zero bits and the position stays at the
// end, so a parser of damaged data runs on with zeros and checks
// overread() (or bitsLeft()) where it matters.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace qx {

class BitReader {
public:
    BitReader() = default;
    BitReader(const uint8_t* data, size_t size) : data_(data), sizeInBits_(size * 8) {}
    explicit BitReader(std::span<const uint8_t> bytes) : BitReader(bytes.data(), bytes.size()) {}

    // Up to 32 bits as an unsigned number.
    uint32_t read(unsigned bits);
    uint64_t read64(unsigned bits);
    bool readBit() { return read(1) != 0; }
    // The next bits without moving.
    uint32_t peek(unsigned bits) const;
    void skip(size_t bits);
    // Exp-Golomb codes (H.264 / HEVC ue(v) and se(v)). A code longer than
    // 32 bits is damage: it counts as an overread and gives 0.
    uint32_t readUE();
    int32_t readSE();

    size_t position() const { return position_; }
    void seek(size_t bitPosition);
    void alignToByte() { skip((8 - position_ % 8) % 8); }
    size_t bitsLeft() const { return sizeInBits_ - position_; }
    size_t sizeInBits() const { return sizeInBits_; }
    // True once any read or skip wanted more bits than there were.
    bool overread() const { return overread_; }

private:
    const uint8_t* data_ = nullptr;
    size_t sizeInBits_ = 0;
    size_t position_ = 0;
    bool overread_ = false;
};

class BitWriter {
public:
    // Appends the low `bits` bits of value (up to 64).
    void write(unsigned bits, uint64_t value);
    void writeBit(bool bit) { write(1, bit ? 1 : 0); }
    void writeBytes(std::span<const uint8_t> bytes);
    // Pads with zero bits to a whole byte.
    void flush();
    // The bytes written so far, the last one padded with zeros.
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    std::vector<uint8_t> take();

private:
    std::vector<uint8_t> bytes_;
    unsigned pending_ = 0; // bits used in the last byte, 0 when it is full
};

} // namespace qx
