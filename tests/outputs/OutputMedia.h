#pragma once
// Sources for the output tests, generated with ffmpeg once per build. All
// are 2 s of small pictures at 25 fps.

#include <filesystem>

namespace outputmedia {

// Matroska: H.264 with B-frames, AC-3 5.1 at 48 kHz, AAC stereo at 44.1 kHz.
std::filesystem::path matroska();
// MP4: H.264 with B-frames (decode times of its own), AAC stereo at 44.1 kHz.
std::filesystem::path mp4();
// AVI: H.264 with two B-frames in a row; every packet's time is its index.
std::filesystem::path avi();
// MP4: HEVC.
std::filesystem::path hevc();
// Matroska: H.264 and SubRip.
std::filesystem::path subtitled();

} // namespace outputmedia
