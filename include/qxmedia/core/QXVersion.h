#pragma once
/// @file
/// The library's version and the FFmpeg it runs on.

#include <string>

#include "qxmedia/core/QXExport.h"

/// The library's version, such as "0.1.0".
QX_EXPORT const char* QXMediaVersionString();
/// FFmpeg's version, its library versions and its configure line.
QX_EXPORT std::string QXMediaFFmpegDescription();
