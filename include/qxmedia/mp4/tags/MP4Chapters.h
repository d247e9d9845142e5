#pragma once
/// @file
/// Chapters of an MP4 file, in the two forms players read:
///
/// - A QuickTime chapter track: a text track (handler "text") whose samples
///   are the chapter titles, each as long as its chapter, referenced from
///   the video track by tref/chap. Each sample is a 16-bit length, the UTF-8
///   title and an `encd` box naming UTF-8.
/// - A Nero `chpl` box in moov/udta: start times in 100-ns units and titles
///   of at most 255 bytes.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#pragma GCC visibility push(default) // the names below are exported
namespace qx::mp4 {

class MP4File;

/// Which form of chapters to read, write or remove, and which was found.
enum MP4ChapterType : int {
    MP4ChapterTypeNone = 0, ///< no chapters (found, written or removed); also a failure
    MP4ChapterTypeAny = 1,  ///< either form when reading, both when writing or removing
    MP4ChapterTypeQt = 2,   ///< the QuickTime chapter track
    MP4ChapterTypeNero = 4, ///< the Nero chpl list
};

/// One chapter: how long it lasts and its title. Chapters follow each other
/// from the start of the movie, so a list of durations says where each starts.
struct MP4Chapter {
    uint64_t duration = 0; ///< milliseconds
    std::string title;     ///< UTF-8

    /// Same duration and title.
    bool operator==(const MP4Chapter&) const = default;
};

/// One entry of a chpl box.
struct MP4NeroChapter {
    uint64_t start = 0; ///< 100-ns units from the start of the movie
    std::string title;  ///< UTF-8, at most 255 bytes when written

    /// Same start and title.
    bool operator==(const MP4NeroChapter&) const = default;
};

/// chpl payload (after the box header): version 1 with a reserved byte and
/// a 32-bit count, or version 0 with an 8-bit count. Titles longer than 255
/// bytes are cut at a character boundary; at most 255 entries are written
/// (readers take the count as one byte).
std::vector<uint8_t> MP4ChplEncode(const std::vector<MP4NeroChapter>& chapters);
/// Reads a chpl payload (either version); nullopt when it is too short for
/// its header. A list cut short gives the chapters that are complete (logged).
std::optional<std::vector<MP4NeroChapter>> MP4ChplDecode(std::span<const uint8_t> payload);

/// The title in a text sample of a chapter track (16-bit length, text, then
/// optional boxes such as encd). A byte order mark is honoured: UTF-16
/// titles are converted to UTF-8. Nullopt when the sample is shorter than
/// its length says.
std::optional<std::string> MP4ChapterTitleFromSample(std::span<const uint8_t> sample);

/// Between durations and start times: each start is the sum of the durations
/// before it (milliseconds turned into 100-ns units).
std::vector<MP4NeroChapter> MP4ChaptersToNero(const std::vector<MP4Chapter>& chapters);
/// Starts are turned into durations up to `totalDuration` (the movie's
/// length, milliseconds); a start past the end gives a chapter of length 0.
std::vector<MP4Chapter> MP4ChaptersFromNero(const std::vector<MP4NeroChapter>& chapters, uint64_t totalDuration);

/// Cuts UTF-8 text to at most `maxBytes` without splitting a character.
std::string MP4TruncateUTF8(const std::string& text, size_t maxBytes);

/// On an open file. Get reads the QuickTime chapter track first (when
/// `fromType` allows it), else the Nero list; returns the type found, or
/// MP4ChapterTypeNone with `chapters` empty.
MP4ChapterType MP4GetChapters(MP4File& file, std::vector<MP4Chapter>& chapters,
                              MP4ChapterType fromType = MP4ChapterTypeAny);
/// Replaces the chapters of the given type (Any: both forms). The QuickTime
/// track refers from the first video track that is not JPEG pictures (else
/// the first track that is not text) and takes its timescale; chapters that
/// start at or after the end of the movie are left out, and the last one is
/// stretched or cut to end with the movie. Returns the type(s) written, MP4ChapterTypeNone on failure
/// (and in read mode). An empty list removes the chapters of that type. The
/// file is written when it is closed.
MP4ChapterType MP4SetChapters(MP4File& file, const std::vector<MP4Chapter>& chapters,
                              MP4ChapterType toType = MP4ChapterTypeQt);
/// Removes chapters of the given type; for the QuickTime form the text track
/// `chapterTrackId` (0: every chapter text track found by tref/chap) and the
/// references to it. Returns the type(s) removed (MP4ChapterTypeNone in read mode).
MP4ChapterType MP4DeleteChapters(MP4File& file, MP4ChapterType type = MP4ChapterTypeQt, uint32_t chapterTrackId = 0);

} // namespace qx::mp4
#pragma GCC visibility pop
