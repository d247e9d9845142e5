#pragma once
// Python's view of a movie: tracks (shared with the job's plan) and
// chapters as plain values.

#include <memory>
#include <string>
#include <vector>

#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXTrack.h"

namespace qxpy {

// A chapter as Python holds it: a title and a start in seconds.
struct Chapter {
    std::string title;
    double start = 0;
    bool operator==(const Chapter&) const = default;
};

std::vector<Chapter> chaptersOf(const std::shared_ptr<QXChapterTrack>& track);
// A new chapter list in the order given.
std::shared_ptr<QXChapterTrack> chapterTrackFrom(const std::vector<Chapter>& chapters);

} // namespace qxpy
