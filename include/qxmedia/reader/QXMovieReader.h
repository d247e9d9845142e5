#pragma once
// QXMovieReader: decides where a movie's timeline starts. Until the first
// usable video key frame arrives, video before it is dropped and samples of
// the other tracks wait in a bounded startup queue; from then on every
// timestamp is rebased so that this key frame decodes at zero, and a jump of
// the timeline (counted by the read loop) is closed by a new offset. A run
// that writes none of the movie's video would wait for ever: there the first
// audio sample that has outputs starts the timeline instead.

#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

#include "qxmedia/platform/coremedia/CMBufferQueue.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/foundation/CMTime.h"

class QXTrack;
class QXVideoTrack;

class QXMovieReader {
public:
    static std::shared_ptr<QXMovieReader> init();
    QXMovieReader();

    // Called from the read loop's thread only, never with null.
    void processSample(const qx::CMSampleBufferRef& sample, const std::shared_ptr<QXTrack>& track);
    // At the end of reading: video still waiting for a new offset goes on,
    // continuing its own timeline.
    void finish();

    // Samples of non-video tracks kept before the timeline starts, per track
    // of the movie.
    static constexpr int kStartupSamplesPerTrack = 100;
    // Main video samples kept after a jump until audio sets the new offset;
    // beyond this the video sets it.
    static constexpr size_t kHeldVideoSamples = 100;

    uint8_t saw_video = 0;
    uint8_t saw_audio = 0;
    int32_t demux_scr_changes = 0;
    int32_t scr_changes = 0;
    std::weak_ptr<QXVideoTrack> videoTrack;
    qx::CMBufferQueueRef startup_buffer_queue;
    qx::CMTime scr_offset = qx::kCMTimeInvalid;

private:
    // True when the sample may go on; logs and answers false for dropped
    // video before the start.
    bool acceptBeforeStart(const qx::CMSampleBufferRef& sample, QXTrack& track);
    // True when a video track of the track's movie has outputs in this run.
    static bool writesVideo(const QXTrack& track);
    void holdUntilStart(const qx::CMSampleBufferRef& sample, QXTrack& track);
    void drainStartupQueue(QXTrack& track);
    // Sets the offset that continues the timeline one sample after the
    // track's last time, from a sample of that track decoded at `dts`.
    void continueTimeline(QXTrack& track, qx::CMTime dts);
    void releaseHeldVideo();
    // The decode time of the first held sample that has one.
    qx::CMTime firstHeldTime() const;

    std::deque<std::pair<qx::CMSampleBufferRef, std::shared_ptr<QXTrack>>> heldVideo_;
};
