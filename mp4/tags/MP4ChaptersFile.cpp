// Chapters on an open file: QuickTime chapter tracks and the Nero chpl box.

#include <algorithm>

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Log.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/mp4/tags/MP4TagBoxes.h"

namespace qx::mp4 {

namespace {

constexpr FourCC kChap = fourcc("chap");

bool includes(MP4ChapterType set, MP4ChapterType type) { return set == MP4ChapterTypeAny || set == type; }

uint64_t rescale(uint64_t value, uint64_t from, uint64_t to)
{
    if (from == 0) return 0;
    // value * to / from, rounded half up, without overflow for real sizes.
    const unsigned __int128 scaled = (static_cast<unsigned __int128>(value) * to + from / 2) / from;
    return static_cast<uint64_t>(std::min<unsigned __int128>(scaled, UINT64_MAX));
}

uint64_t movieDurationMs(const MP4File& file) { return rescale(file.duration(), file.timeScale(), 1000); }

// Text tracks that some track refers to through tref/chap, in track order.
std::vector<MP4Track*> chapterTracks(const MP4File& file)
{
    std::vector<uint32_t> referenced;
    for (MP4Track* track : file.tracks()) {
        for (uint32_t id : track->references(kChap)) referenced.push_back(id);
    }
    std::vector<MP4Track*> found;
    for (MP4Track* track : file.tracks()) {
        const bool isReferenced = std::find(referenced.begin(), referenced.end(), track->id()) != referenced.end();
        if (isReferenced && track->type() == kTextTrack) found.push_back(track);
    }
    return found;
}

bool readQtChapters(MP4Track& track, std::vector<MP4Chapter>& chapters)
{
    const uint32_t timescale = track.timeScale();
    std::vector<uint8_t> sample;
    uint64_t start = 0; // track timescale, so that rounding does not add up
    for (uint32_t i = 0; i < track.sampleCount(); ++i) {
        SampleInfo info;
        if (!track.sampleInfo(i, info) || !track.readSample(i, sample)) {
            MP4Log(MP4_LOG_WARNING, "chapter track %u: sample %u cannot be read", track.id(), i + 1);
            break;
        }
        const auto title = MP4ChapterTitleFromSample(sample);
        const uint64_t end = start + info.duration;
        MP4Chapter chapter;
        chapter.duration = rescale(end, timescale, 1000) - rescale(start, timescale, 1000);
        chapter.title = title.value_or(std::string());
        chapters.push_back(std::move(chapter));
        start = end;
    }
    return !chapters.empty();
}

// The track chapter titles hang from: the first video track, else the first.
MP4Track* chapterReferenceTrack(const MP4File& file)
{
    for (MP4Track* track : file.tracks()) {
        if (track->type() == kVideoTrack && track->sampleEntry() && track->sampleEntry()->type() != fourcc("jpeg"))
            return track;
    }
    for (MP4Track* track : file.tracks()) {
        if (track->type() != kTextTrack) return track;
    }
    return nullptr;
}

bool writeQtChapters(MP4File& file, const std::vector<MP4Chapter>& chapters)
{
    MP4Track* reference = chapterReferenceTrack(file);
    if (!reference) {
        MP4Log(MP4_LOG_ERROR, "MP4SetChapters: no track to hang chapters from");
        return false;
    }
    const uint32_t timescale = reference->timeScale() ? reference->timeScale() : 1000;
    const uint32_t chapterTrackId = file.addChapterTextTrack(reference->id(), timescale);
    if (!chapterTrackId) return false;

    // Starts in the track timescale. Each chapter runs to the next start and
    // the last to the end of the movie; chapters that start at or after the
    // end are left out. A movie without a duration keeps the given lengths.
    const uint64_t end = rescale(file.duration(), file.timeScale(), timescale);
    std::vector<uint64_t> starts;
    uint64_t startMs = 0;
    for (const MP4Chapter& chapter : chapters) {
        const uint64_t start = rescale(startMs, 1000, timescale);
        if (end > 0 && !starts.empty() && start >= end) break;
        starts.push_back(start);
        startMs += chapter.duration;
    }
    for (size_t i = 0; i < starts.size(); ++i) {
        uint64_t next = 0;
        if (i + 1 < starts.size()) {
            next = starts[i + 1];
        } else if (end > starts[i]) {
            next = end;
        } else {
            next = starts[i] + std::max<uint64_t>(rescale(chapters[i].duration, 1000, timescale), 1);
        }
        const uint64_t duration = next > starts[i] ? next - starts[i] : 0;
        if (!file.addChapter(chapterTrackId, duration, MP4TruncateUTF8(chapters[i].title, 1023))) return false;
    }
    return true;
}

} // namespace

MP4ChapterType MP4GetChapters(MP4File& file, std::vector<MP4Chapter>& chapters, MP4ChapterType fromType)
{
    chapters.clear();
    if (!file.moov()) return MP4ChapterTypeNone;
    if (includes(fromType, MP4ChapterTypeQt)) {
        for (MP4Track* track : chapterTracks(file)) {
            if (readQtChapters(*track, chapters)) return MP4ChapterTypeQt;
            chapters.clear();
        }
    }
    if (includes(fromType, MP4ChapterTypeNero)) {
        if (ChplBox* chpl = MP4FindChpl(*file.moov()); chpl && !chpl->chapters.empty()) {
            chapters = MP4ChaptersFromNero(chpl->chapters, movieDurationMs(file));
            return MP4ChapterTypeNero;
        }
    }
    return MP4ChapterTypeNone;
}

MP4ChapterType MP4DeleteChapters(MP4File& file, MP4ChapterType type, uint32_t chapterTrackId)
{
    if (file.mode() == MP4File::Mode::Read || !file.moov()) return MP4ChapterTypeNone;
    bool deletedQt = false;
    bool deletedNero = false;
    if (includes(type, MP4ChapterType(MP4ChapterTypeQt))) {
        std::vector<uint32_t> ids;
        if (chapterTrackId) {
            ids.push_back(chapterTrackId);
        } else {
            for (MP4Track* track : chapterTracks(file)) ids.push_back(track->id());
        }
        // deleteTrack also drops every reference to the track.
        for (uint32_t id : ids) deletedQt = file.deleteTrack(id) || deletedQt;
    }
    if (includes(type, MP4ChapterTypeNero)) {
        if (Box* udta = file.moov()->findChild(kUdta)) {
            deletedNero = udta->removeChildren(ChplBox::kType) > 0;
            if (udta->children().empty() && udta->trailing.empty()) file.moov()->removeChild(udta);
        }
    }
    if (deletedQt && deletedNero) return MP4ChapterTypeAny;
    if (deletedQt) return MP4ChapterTypeQt;
    if (deletedNero) return MP4ChapterTypeNero;
    return MP4ChapterTypeNone;
}

MP4ChapterType MP4SetChapters(MP4File& file, const std::vector<MP4Chapter>& chapters, MP4ChapterType toType)
{
    if (file.mode() == MP4File::Mode::Read || !file.moov()) {
        MP4Log(MP4_LOG_ERROR, "MP4SetChapters: %s is not open for writing", file.path().c_str());
        return MP4ChapterTypeNone;
    }
    if (toType == MP4ChapterTypeNone) return MP4ChapterTypeNone;
    MP4DeleteChapters(file, toType);
    if (chapters.empty()) return toType;

    bool wroteQt = false;
    bool wroteNero = false;
    if (includes(toType, MP4ChapterTypeQt)) wroteQt = writeQtChapters(file, chapters);
    if (includes(toType, MP4ChapterTypeNero)) {
        Box* udta = file.movieUserData(true);
        auto chpl = std::make_unique<ChplBox>();
        chpl->chapters = MP4ChaptersToNero(chapters);
        udta->addChild(std::move(chpl));
        wroteNero = true;
    }
    if (wroteQt && wroteNero) return MP4ChapterTypeAny;
    if (wroteQt) return MP4ChapterTypeQt;
    if (wroteNero) return MP4ChapterTypeNero;
    return MP4ChapterTypeNone;
}

} // namespace qx::mp4
