#pragma once
// QXSync: the last stage before the muxer inputs of one job. Every channel
// of the job hands its samples through processSample on its own queue. The
// sync settles one start time for all tracks (the first video sample's, or
// after 0.2 s without video the lowest time seen), puts every sample on the
// output timeline, keeps the audio gapless (drops, silence or duplicates),
// drops video frames that do not advance, holds one video frame back so
// that its successor is known, and releases subtitle samples with the video
// frame that reaches their time.
//
// Per channel the state lives in the channel's output (cur, next_start,
// first_drop, drop_count); shared are the offset, the lowest time seen, the
// first-frame flag and the held subtitles.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "qxmedia/muxer/QXMuxerInputProtocol.h"
#include "qxmedia/platform/coremedia/CMBufferQueue.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"

class QXSync {
public:
    static std::shared_ptr<QXSync> init();
    QXSync();

    using Input = std::shared_ptr<QXMuxerInputProtocol>;

    // Called on the channel's queue with each sample (null: the end of the
    // track). False stops the channel: the input refused.
    bool processSample(const qx::CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward);
    bool processVideoSample(const qx::CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward);
    bool processAudioSample(const qx::CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward);
    bool processSubtitleSample(const qx::CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward);
    // Stamps an audio sample with the channel's next_start and forwards it.
    bool outputAudioSample(const qx::CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward);

    // Invalid until settled; it never changes afterwards.
    qx::CMTime ptsOffset() const;

    // How long an audio or subtitle channel waits for a video sample to
    // settle the offset.
    static constexpr auto kOffsetWait = std::chrono::milliseconds(200);

private:
    // False when a sample that needs the offset waited for it in vain.
    bool settleOffset(const qx::CMSampleBufferRef& sample, const QXTrackReaderOutput& from);
    void settleLocked(qx::CMTime offset);
    void wakeWaiters();
    // The three below run under subtitleLock_, so that held lines leave
    // one at a time, each with its own time and in order.
    void releaseSubtitlesUpTo(qx::CMTime presentationTime);
    // Lets go of one track's held lines, at that track's end.
    void releaseSubtitlesOf(const Input& input);
    void forwardHeld(const qx::CMSampleBufferRef& held, qx::CMTime offset);

    // The settling hand-shake: waiters sleep on offsetChanged_ under
    // settleLock_; offsetLock_ guards ptsOffset_ and minPts_ inside it.
    std::mutex settleLock_;
    std::condition_variable offsetChanged_;
    mutable std::mutex offsetLock_;
    qx::CMTime ptsOffset_ = qx::kCMTimeInvalid;
    qx::CMTime minPts_ = qx::kCMTimePositiveInfinity;
    // Set once ptsOffset_ is final; read without a lock afterwards.
    std::atomic<bool> settled_ {false};

    std::atomic<bool> firstFrame_ {true};
    qx::CMBufferQueueRef subtitleQueue_;
    // Once the video has ended nothing releases held subtitles: the rest is
    // let go then, and later subtitles (a slow recognition, the closing
    // empty sample) pass at once. Guards the hand-over between the two.
    std::mutex subtitleLock_;
    bool videoEnded_ = false;
};
