// The chapter list of an updated file: the old chapter tracks go, and an
// edited list that is not empty comes back as a text track of titles and a
// JPEG track of images, both referred to by the video track and timed in
// its timescale. Chapters end at the end of the video; one that starts
// after it is dropped with everything after it.

#include <algorithm>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

constexpr mp4::FourCC kChapterReference = mp4::fourcc("chap");
// tkhd of the image track: in the movie but not enabled, layer 1; that is
// what marks a chapter image track when the file is read back.
constexpr uint32_t kChapterImageTrackFlags = 2;
constexpr int16_t kChapterImageTrackLayer = 1;

void updateTracksCount(mp4::MP4File& file)
{
    uint32_t greatest = 0;
    for (const mp4::MP4Track* track : file.tracks()) greatest = std::max(greatest, track->id());
    if (mp4::MvhdBox* header = file.mvhd()) header->nextTrackId = greatest + 1;
}

void removeAllChapterTrackReferences(mp4::MP4File& file)
{
    for (mp4::MP4Track* track : file.tracks()) track->removeReferences(kChapterReference);
}

// Picture tracks that a video track names as its chapters: the image tracks.
std::vector<uint32_t> chapterImageTracks(const mp4::MP4File& file)
{
    std::vector<uint32_t> found;
    for (const mp4::MP4Track* track : file.tracks()) {
        if (track->type() != mp4::kVideoTrack) continue;
        for (uint32_t id : track->references(kChapterReference)) {
            const mp4::MP4Track* target = file.track(id);
            if (target && target->type() == mp4::kVideoTrack) found.push_back(id);
        }
    }
    return found;
}

// The first video track that is not a chapter image track.
mp4::MP4Track* mainVideoTrack(const mp4::MP4File& file)
{
    const std::vector<uint32_t> images = chapterImageTracks(file);
    for (mp4::MP4Track* track : file.tracks()) {
        if (track->type() == mp4::kVideoTrack && std::find(images.begin(), images.end(), track->id()) == images.end())
            return track;
    }
    return nullptr;
}

struct ChapterSpan {
    const QXChapter* chapter;
    CMTime length;
};

// Each chapter lasts up to the next one, the last up to `end`; a chapter
// that starts after `end` and all that follow are left out.
std::vector<ChapterSpan> chapterSpans(const std::vector<QXChapterRef>& chapters, CMTime end)
{
    std::vector<ChapterSpan> spans;
    const QXChapter* reached = nullptr;
    for (const QXChapterRef& next : chapters) {
        if (!next) continue;
        if (reached) {
            if (next->timestamp > end) break;
            spans.push_back({reached, CMTimeSubtract(CMTimeMinimum(next->timestamp, end), reached->timestamp)});
        }
        reached = next.get();
    }
    if (reached && end > reached->timestamp) spans.push_back({reached, CMTimeSubtract(end, reached->timestamp)});
    return spans;
}

} // namespace

void QXJob::replaceChapters(mp4::MP4File& file)
{
    if (!chapters || !chapters->isModified()) return;
    QXLogDebug("Updating Chapters!");
    if (!mp4::MP4DeleteChapters(file, mp4::MP4ChapterTypeAny, movie && movie->chapters ? movie->chapters->trackID : 0))
        QXLogDebug("No existing chapters deleted");
    std::vector<uint32_t> images = chapterImageTracks(file);
    if (movie && movie->chapterImageTrack && movie->chapterImageTrack->trackID != 0)
        images.push_back(uint32_t(movie->chapterImageTrack->trackID));
    for (uint32_t id : images) {
        if (file.track(id) && !file.deleteTrack(id)) QXLogWarning("Failed to delete existing chapter images!");
    }
    updateTracksCount(file);
    removeAllChapterTrackReferences(file);

    mp4::MP4Track* video = mainVideoTrack(file);
    if (chapters->chapters.empty() || !video) return;
    progress->becomeCurrentWithPendingUnitCount(10);
    auto child = QXProgress::progressWithTotalUnitCount(int64_t(chapters->chapters.size()));
    const auto timescale = int32_t(video->timeScale());
    const CMTime end = CMTimeMake(int64_t(video->duration()), timescale);

    const uint32_t titles = file.addChapterTextTrack(video->id(), uint32_t(timescale));
    if (titles == 0) {
        fail(QXMedia::errorWithDomain(QXMediaErrorDomain, QXErrorFailedToAddTrack, {{NSURLErrorKey, QXValue(file.path())}}));
        progress->resignCurrent();
        return;
    }
    file.track(titles)->setName("Chapter Titles");
    // The picture size of the planned video line, else of the track header.
    double width = video->width(), height = video->height();
    for (const QXTrackJobRef& line : tracks) {
        auto planned = line ? std::dynamic_pointer_cast<QXVideoTrack>(line->destination) : nullptr;
        if (!planned || planned->trackID != int32_t(video->id())) continue;
        width = planned->width;
        height = planned->height;
    }
    const uint32_t pictures = file.addJpegVideoTrack(uint32_t(timescale), -1, uint16_t(width), uint16_t(height));
    if (mp4::MP4Track* imageTrack = file.track(pictures)) {
        imageTrack->setName("Chapter Images");
        imageTrack->setLayer(kChapterImageTrackLayer);
        imageTrack->setFlags(kChapterImageTrackFlags);
        video->addReference(kChapterReference, pictures);
    }

    for (const ChapterSpan& span : chapterSpans(chapters->chapters, end)) {
        const CMTime length = CMTimeConvertScale(span.length, timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero);
        const auto duration = uint64_t(std::max<int64_t>(length.value, 0));
        file.addChapter(titles, duration, span.chapter->title.value_or(""));
        if (pictures != 0) {
            const QXData jpeg = span.chapter->imageDataWithSize(width, height);
            file.writeSample(pictures, jpeg.data(), jpeg.size(), int64_t(duration), 0, true);
        }
        child->setCompletedUnitCount(child->completedUnitCount() + 1);
    }
    progress->resignCurrent();
}
