#pragma once
/// @file
/// The text form of times in chapters and descriptions: HH:MM:SS.mmm.

#include <string>
#include <string_view>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/CMTime.h"

/// Reads hours, minutes, seconds and an optional decimal fraction of a
/// second; ":" and "." separate the fields. Timescale 1000; invalid (and a
/// warning) when one of the first three numbers is missing.
QX_EXPORT qx::CMTime CMTimeFromSmpteString(std::string_view text);
/// Hours wrap at 24; milliseconds are rounded while seconds are cut off.
/// The allocator is ignored.
QX_EXPORT std::string CMTimeCopySmpteDescription(const void* allocator, qx::CMTime time);
/// The same without an allocator.
inline std::string CMTimeCopySmpteDescription(qx::CMTime time) { return CMTimeCopySmpteDescription(nullptr, time); }
