#pragma once
// The text form of times in chapters and descriptions: HH:MM:SS.mmm.

#include <string>
#include <string_view>

#include "qxmedia/platform/foundation/CMTime.h"

// Reads hours, minutes, seconds and an optional decimal fraction of a
// second; ":" and "." separate the fields. Timescale 1000; invalid (and a
// warning) when one of the first three numbers is missing.
qx::CMTime CMTimeFromSmpteString(std::string_view text);
// Hours wrap at 24; milliseconds are rounded while seconds are cut off.
std::string CMTimeCopySmpteDescription(const void* allocator, qx::CMTime time);
inline std::string CMTimeCopySmpteDescription(qx::CMTime time) { return CMTimeCopySmpteDescription(nullptr, time); }
