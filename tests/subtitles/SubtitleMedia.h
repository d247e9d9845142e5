#pragma once
// Subtitle sources made at test time: lines of known text rendered as
// pictures (white with a black outline, DejaVu Sans), PGS streams written
// from such pictures, VobSub made by spumux, and text subtitle files.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace subtitletest {

struct GreyPicture {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels; // white text on black
};

// One line of text as a picture; cached in the media folder.
GreyPicture renderLine(const std::string& text);

struct PictureEvent {
    int64_t startMs, endMs;
    GreyPicture picture; // no pixels: an event that shows nothing
    bool forced = false;
};

// A Blu-ray subtitle stream (.sup): for each event a display set with its
// picture in 16 grey levels, and one that clears the screen at its end.
void writeSup(const std::filesystem::path& path, const std::vector<PictureEvent>& events, int width, int height);

// A few seconds of H.264 video of that size in Matroska, the base of the
// sources below.
std::filesystem::path videoSource(int width, int height, int seconds);

// Character error rate: edit distance over the reference's length.
double characterErrorRate(const std::string& recognised, const std::string& reference);

} // namespace subtitletest
