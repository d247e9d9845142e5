#pragma once
/// @file
/// Types shared by the CoreMedia and CoreVideo stand-ins: status codes,
/// four-character codes and the allocator argument that the platform's
/// functions take first. Allocators are accepted for the sake of the call
/// shape; memory always comes from the C heap or from FFmpeg.

#include <cstddef>
#include <cstdint>

namespace qx {

using OSStatus = int32_t;     ///< A call's status: 0 for success, a negative code of the called family else.
using OSType = uint32_t;       ///< A four-character code naming a type (a pixel format).
using FourCharCode = uint32_t; ///< Four ASCII characters, the first in the high byte.
using CMItemCount = long;      ///< A count of samples or entries.

/// An allocator argument: null is the default allocator. kCFAllocatorNull
/// says "do not free this memory" where a function takes over a memory block.
using CFAllocatorRef = const void*;
inline constexpr CFAllocatorRef kCFAllocatorDefault = nullptr; ///< The C heap.
extern const CFAllocatorRef kCFAllocatorNull; ///< Memory the caller keeps: never freed by the callee.

/// The code of four characters, as in QXFourCC("avc1").
constexpr FourCharCode QXFourCC(const char (&code)[5])
{
    return FourCharCode(uint8_t(code[0])) << 24 | FourCharCode(uint8_t(code[1])) << 16 |
           FourCharCode(uint8_t(code[2])) << 8 | FourCharCode(uint8_t(code[3]));
}

} // namespace qx
