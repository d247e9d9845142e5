#pragma once
// Big-endian helpers for the tag and chapter codecs. The payloads they read
// are small (an ilst, a chpl, a text sample), so plain vectors and spans do.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qx::mp4::tagbytes {

inline uint64_t readBE(std::span<const uint8_t> bytes, size_t at, size_t width)
{
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value = (value << 8) | bytes[at + i];
    return value;
}

inline void appendBE(std::vector<uint8_t>& out, uint64_t value, size_t width)
{
    for (size_t i = width; i-- > 0;) out.push_back(uint8_t(value >> (8 * i)));
}

inline void appendText(std::vector<uint8_t>& out, const std::string& text) { out.insert(out.end(), text.begin(), text.end()); }

inline void appendBytes(std::vector<uint8_t>& out, std::span<const uint8_t> bytes)
{
    out.insert(out.end(), bytes.begin(), bytes.end());
}

// Starts a box: writes a size placeholder and the type; returns the offset
// of the size field for endBox.
inline size_t beginBox(std::vector<uint8_t>& out, const std::string& type)
{
    const size_t at = out.size();
    appendBE(out, 0, 4);
    appendText(out, type.substr(0, 4));
    return at;
}

inline void endBox(std::vector<uint8_t>& out, size_t at)
{
    const uint64_t size = out.size() - at;
    for (size_t i = 0; i < 4; ++i) out[at + i] = uint8_t(size >> (8 * (3 - i)));
}

inline std::string fourcc(std::span<const uint8_t> bytes, size_t at)
{
    return std::string(reinterpret_cast<const char*>(bytes.data() + at), 4);
}

} // namespace qx::mp4::tagbytes
