#pragma once
// QXMuxerChapterInput: the base of the video inputs. It rides along with the
// video samples that pass through it and writes the chapter text track and
// the chapter image track as the film advances, so each chapter lasts as long
// as the video actually written for it, not the distance between the
// chapters' timestamps.
//
// A subclass creates its video track first (destination->trackID set), then
// calls QXMuxerChapterInput::initWritingToFileHandle, and hands every sample
// it finishes, and the null that ends the track, to
// QXMuxerChapterInput::processSample.

#include <cstdint>
#include <memory>

#include "qxmedia/muxer/QXMuxerInput.h"
#include "qxmedia/source/QXChapterTrack.h"

class QXMuxerChapterInput : public QXMuxerInput {
public:
    QXMuxerChapterInput(std::shared_ptr<QXTrackReaderOutput> source, std::shared_ptr<QXTrack> destination);

    using QXMuxerInput::initWritingToFileHandle;
    // Adds the chapter tracks when there are chapters; true without any.
    bool initWritingToFileHandle(QXErrorRef* error) override;
    // Closes the running chapter when decode times reach the next one's
    // time (it then ends where the first picture of the next one shows),
    // and the last one at the end; then hands the sample to the base.
    void processSample(const qx::CMSampleBufferRef& sample) override;
    // Writes one chapter title (and its picture) of the given length, on the
    // muxer's queue.
    void writeChapter(const QXChapterRef& chapter, qx::CMTime duration);

    // Fields, in declared order.
    int32_t chapterTrack = 0;      // 0: no chapters are written
    int32_t chapterImageTrack = 0; // the JPEG track, 0 if none
    QXChapterTrackRef chapters;    // set by the job before writing starts
    uint64_t width = 0;
    uint64_t height = 0;
    QXChapterRef chapter;     // the chapter that runs now
    QXChapterRef nextChapter; // may be null
    qx::CMTime nextChapterTimestamp = qx::kCMTimeInvalid;
    qx::CMTime chapterDuration = qx::kCMTimeZero; // length of the chapters written
    qx::CMTime sumDuration = qx::kCMTimeZero;     // length of the samples seen
    // The earliest presentation time at or after the next chapter's time
    // among the pictures seen; invalid while none has come.
    qx::CMTime firstPictureOfNextChapter = qx::kCMTimeInvalid;

private:
    void advanceChapter();

    uint32_t timeScale_ = 0; // the video track's, shared by both chapter tracks
};
