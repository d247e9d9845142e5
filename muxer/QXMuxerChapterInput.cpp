#include "qxmedia/muxer/QXMuxerChapterInput.h"

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/source/QXVisualTrack.h"

using namespace qx;

namespace {

// tkhd flags of the chapter image track: in the movie, not enabled. With
// layer 1 these are what marks a chapter image track when it is read back.
constexpr uint32_t kChapterImageTrackFlags = 2;
constexpr int16_t kChapterImageTrackLayer = 1;

// A last chapter this short or shorter gets no entry of its own.
const CMTime kShortestLastChapter = CMTimeMake(500, 1000);

} // namespace

QXMuxerChapterInput::QXMuxerChapterInput(std::shared_ptr<QXTrackReaderOutput> sourceOutput,
                                         std::shared_ptr<QXTrack> destinationTrack)
    : QXMuxerInput(std::move(sourceOutput), std::move(destinationTrack))
{
    if (auto visual = std::dynamic_pointer_cast<QXVisualTrack>(destination)) {
        width = visual->width;
        height = visual->height;
    }
}

bool QXMuxerChapterInput::initWritingToFileHandle(QXErrorRef* error)
{
    if (!chapters || chapters->chapters.empty()) return true;
    const uint32_t videoTrackId = uint32_t(destination->trackID);
    const mp4::MP4Track* video = file->track(videoTrackId);
    timeScale_ = video ? video->timeScale() : 0;

    chapterTrack = int32_t(file->addChapterTextTrack(videoTrackId, timeScale_));
    if (chapterTrack == 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13010));
        return false;
    }
    file->track(uint32_t(chapterTrack))->setName("Chapter Titles");

    chapterImageTrack = int32_t(file->addJpegVideoTrack(timeScale_, -1, uint16_t(width), uint16_t(height)));
    if (mp4::MP4Track* images = file->track(uint32_t(chapterImageTrack))) {
        images->setName("Chapter Images");
        images->setLayer(kChapterImageTrackLayer);
        images->setFlags(kChapterImageTrackFlags);
        // The video refers to both chapter tracks: titles first, then pictures.
        if (mp4::MP4Track* referring = file->track(videoTrackId)) {
            referring->addReference(mp4::fourcc("chap"), uint32_t(chapterImageTrack));
        }
    }

    chapter = chapters->chapters.front();
    nextChapter = chapters->chapters.size() > 1 ? chapters->chapters[1] : nullptr;
    nextChapterTimestamp = nextChapter ? nextChapter->timestamp : kCMTimeInvalid;
    return true;
}

void QXMuxerChapterInput::processSample(const CMSampleBufferRef& sample)
{
    if (chapterTrack == 0) {
        QXMuxerInput::processSample(sample);
        return;
    }
    // A chapter starts with the first picture shown at or after its time.
    // Pictures come in decode order, so that picture is known once decode
    // times reach the chapter's time: every later picture shows later still.
    // (Closing at the first picture that shows after the time, with the
    // summed durations as length, put the start a reordering delay early.)
    const CMTime pts = sample ? CMSampleBufferGetPresentationTimeStamp(sample) : kCMTimeInvalid;
    const CMTime dts = sample ? CMSampleBufferGetDecodeTimeStamp(sample) : kCMTimeInvalid;
    if (nextChapter && CMTIME_IS_NUMERIC(pts) && CMTimeCompare(pts, nextChapterTimestamp) >= 0 &&
        (!CMTIME_IS_NUMERIC(firstPictureOfNextChapter) || CMTimeCompare(pts, firstPictureOfNextChapter) < 0)) {
        firstPictureOfNextChapter = pts;
    }
    const bool decodeTimeReached = CMTIME_IS_NUMERIC(dts) ? CMTimeCompare(dts, nextChapterTimestamp) >= 0
                                                          : CMTIME_IS_NUMERIC(firstPictureOfNextChapter);
    // An absent sample (the end) closes the running chapter too.
    if (nextChapter && (!sample || decodeTimeReached)) {
        const CMTime start = CMTIME_IS_NUMERIC(firstPictureOfNextChapter) ? firstPictureOfNextChapter : sumDuration;
        const CMTime length = CMTimeMaximum(CMTimeSubtract(start, chapterDuration), kCMTimeZero);
        // At the end a chapter of no length means no sample came at all.
        if (sample || CMTimeCompare(length, kCMTimeZero) > 0) writeChapter(chapter, length);
        chapterDuration = CMTimeAdd(chapterDuration, length);
        advanceChapter();
        firstPictureOfNextChapter = kCMTimeInvalid;
        if (nextChapter && CMTIME_IS_NUMERIC(pts) && CMTimeCompare(pts, nextChapterTimestamp) >= 0) {
            firstPictureOfNextChapter = pts;
        }
    }
    if (sample) {
        // A sample without a duration adds nothing rather than spoiling the sum.
        const CMTime duration = CMSampleBufferGetDuration(sample);
        if (CMTIME_IS_NUMERIC(duration)) sumDuration = CMTimeAdd(sumDuration, duration);
    } else if (CMTimeCompare(sumDuration, chapterDuration) > 0) {
        const CMTime rest = CMTimeSubtract(sumDuration, chapterDuration);
        if (CMTimeCompare(rest, kShortestLastChapter) > 0) writeChapter(chapter, rest);
        // Counted as written, so that an end reported twice (by the channel
        // and by markAsFinished) writes nothing more.
        chapterDuration = sumDuration;
    }
    QXMuxerInput::processSample(sample);
}

// The next chapter becomes the running one; the one after it is the first
// in the list that starts later, so chapters at the same time are skipped.
void QXMuxerChapterInput::advanceChapter()
{
    chapter = nextChapter;
    for (const QXChapterRef& candidate : chapters->chapters) {
        if (CMTimeCompare(candidate->timestamp, nextChapterTimestamp) > 0) {
            nextChapter = candidate;
            nextChapterTimestamp = candidate->timestamp;
            break;
        }
    }
    if (chapter == nextChapter) {
        nextChapter = nullptr;
        nextChapterTimestamp = kCMTimeInvalid;
    }
}

void QXMuxerChapterInput::writeChapter(const QXChapterRef& written, CMTime duration)
{
    auto self = std::static_pointer_cast<QXMuxerChapterInput>(shared_from_this());
    performOutputBlock([self, written, duration] {
        const int64_t length =
            CMTimeConvertScale(duration, int32_t(self->timeScale_), kCMTimeRoundingMethod_RoundHalfAwayFromZero).value;
        self->file->addChapter(uint32_t(self->chapterTrack), uint64_t(length), written->title.value_or(""));
        if (self->chapterImageTrack != 0) {
            // A chapter without a picture gets an empty one, so both tracks
            // keep the same rhythm.
            const QXData image = written->imageDataWithSize(double(self->width), double(self->height));
            self->file->writeSample(uint32_t(self->chapterImageTrack), image.data(), image.size(), length, 0, true);
        }
    });
}
