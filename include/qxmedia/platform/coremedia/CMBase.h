#pragma once
// Types shared by the CoreMedia and CoreVideo stand-ins: status codes,
// four-character codes and the allocator argument that the platform's
// functions take first. Allocators are accepted for the sake of the call
// shape; memory always comes from the C heap or from FFmpeg.

#include <cstddef>
#include <cstdint>

namespace qx {

using OSStatus = int32_t;
using OSType = uint32_t;
using FourCharCode = uint32_t;
using CMItemCount = long;

// An allocator argument: null is the default allocator. kCFAllocatorNull
// says "do not free this memory" where a function takes over a memory block.
using CFAllocatorRef = const void*;
inline constexpr CFAllocatorRef kCFAllocatorDefault = nullptr;
extern const CFAllocatorRef kCFAllocatorNull;

constexpr FourCharCode QXFourCC(const char (&code)[5])
{
    return FourCharCode(uint8_t(code[0])) << 24 | FourCharCode(uint8_t(code[1])) << 16 |
           FourCharCode(uint8_t(code[2])) << 8 | FourCharCode(uint8_t(code[3]));
}

} // namespace qx
