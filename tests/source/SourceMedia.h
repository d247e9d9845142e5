#pragma once
// Sources for the source-model tests, generated with ffmpeg once per build.

#include <filesystem>
#include <string>

namespace sourcemedia {

// Matroska: H.264, AC-3 5.1 (eng), AAC stereo (fra), SRT (eng), ASS (fra),
// three chapters, a title.
std::filesystem::path matroska();
// MP4: HEVC tagged hvc1 and E-AC-3 5.1.
std::filesystem::path hevcEac3();
// Transport stream: H.264 and MP2.
std::filesystem::path transportStream();
// M4V from the ipod muxer: H.264, AAC, tx3g, chapter track, tags.
std::filesystem::path m4v();
// MP4: H.264 with a cover picture stream only.
std::filesystem::path coverOnly();
// MP4: H.264, AC-3, AAC, two mov_text tracks (references added by tests).
std::filesystem::path multiTrackMP4();

std::string srtText();

} // namespace sourcemedia
