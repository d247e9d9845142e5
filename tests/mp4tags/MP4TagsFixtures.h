#pragma once
// Small generated movies and helpers shared by the tag and chapter tests.

#include <filesystem>
#include <string>
#include <vector>

#include "qxmedia/mp4/tags/MP4Itmf.h"
#include "support/TestMedia.h"

namespace mp4tagstest {

// 4 s of 320x240 H.264 and AAC as MP4, without tags or chapters.
std::filesystem::path plainMovie();
// The same as an M4V from ffmpeg's ipod muxer with tags (title "Film Title",
// artist "Some Artist", comment "Hello", media type 9) and two chapters,
// "Opening" at 0 and "Middle part" at 1.5 s.
std::filesystem::path taggedMovie();
std::filesystem::path coverPath(); // a 64x64 JPEG
std::vector<uint8_t> coverJpeg();

std::filesystem::path copyTo(const std::filesystem::path& source, const std::filesystem::path& dir,
                             const std::string& name);
std::vector<uint8_t> readBytes(const std::filesystem::path& path);
// stdout of a shell command (stderr dropped).
std::string output(const std::string& command);
// The first data entry of an item as text.
std::string text(const qx::mp4::MP4ItmfItem& item);

} // namespace mp4tagstest
