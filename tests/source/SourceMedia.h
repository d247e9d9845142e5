#pragma once
// Sources for the source-model tests, generated with ffmpeg once per build.

#include <filesystem>
#include <memory>
#include <string>

#include "qxmedia/reader/QXTrackReader.h"

struct AVFormatContext;
struct AVStream;

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

// Matroska H.264 with B-frames in the Video-for-Windows form (through AVI
// and mkvmerge); empty if mkvmerge is missing.
std::filesystem::path vfwMatroska();

// An input opened and probed with FFmpeg for importing tracks by hand;
// context is null when the file could not be opened.
struct OpenedInput {
    explicit OpenedInput(const std::filesystem::path& path);
    ~OpenedInput();
    OpenedInput(const OpenedInput&) = delete;
    OpenedInput& operator=(const OpenedInput&) = delete;
    AVFormatContext* context = nullptr;
    AVStream* stream(int index) const;
};

// Imports one stream by hand. A track and its reader hold each other until a
// run ends, and a movie breaks that when it goes; without a movie the test
// breaks it at once.
template <class Track>
std::shared_ptr<Track> importTrack(AVFormatContext* context, int streamIndex)
{
    auto track = Track::initWithFormatContext(context, streamIndex);
    if (track && track->reader) track->reader->releaseTrack();
    return track;
}

} // namespace sourcemedia
