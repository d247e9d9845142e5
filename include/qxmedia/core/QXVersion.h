#pragma once
// The library's version and the FFmpeg it runs on.

#include <string>

const char* QXMediaVersionString();
// FFmpeg's version, its library versions and its configure line.
std::string QXMediaFFmpegDescription();
