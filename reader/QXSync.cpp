#include "qxmedia/reader/QXSync.h"

#include <vector>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/reader/QXTrackReaderAudioOutputProtocol.h"

using namespace qx;

namespace {

// Audio that lies more than this before the timeline's place is dropped.
constexpr double kLateAudio = 0.015;
// Gaps from this size on are filled with silence or repeated samples.
constexpr double kAudioGapToFill = 0.07;

std::string describe(CMTime time)
{
    return CMTimeCopyDescription(time);
}

std::string describe(const CMSampleBufferRef& sample)
{
    return sample ? sample->description() : std::string("(null)");
}

CMSampleBufferRef copyWithTiming(const CMSampleBufferRef& sample, CMTime duration, CMTime pts, CMTime dts)
{
    const CMSampleTimingInfo timing {duration, pts, dts};
    CMSampleBufferRef copy;
    if (OSStatus status = CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy); status != 0) {
        QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
        return nullptr;
    }
    return copy;
}

bool forwardTo(const QXSync::Input& input, const CMSampleBufferRef& sample)
{
    return input && input->appendSampleBuffer(sample);
}

uint32_t trackIDOf(const QXTrackReaderOutput& output)
{
    return output.track ? uint32_t(output.track->trackID) : 0;
}

} // namespace

std::shared_ptr<QXSync> QXSync::init()
{
    return std::make_shared<QXSync>();
}

QXSync::QXSync()
{
    if (OSStatus status = CMBufferQueueCreate(nullptr, 0, CMBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(),
                                              &subtitleQueue_);
        status != 0) {
        QXLogWarning("Failed to create buffer queue: %d", int(status));
    }
}

CMTime QXSync::ptsOffset() const
{
    if (settled_.load(std::memory_order_acquire)) return ptsOffset_;
    std::lock_guard guard(offsetLock_);
    return ptsOffset_;
}

bool QXSync::processSample(const CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward)
{
    // The end of a track needs no offset and passes at once: it must not
    // keep a channel waiting for a start that may never come.
    // A subtitle that waited in vain is held all the same: the video frames
    // that release subtitles may still come (the copying video output keeps
    // its first frames back), and a lost first line would stay lost.
    const QXMediaType type = from.mediaType();
    if (sample && !settled_.load(std::memory_order_acquire) && !settleOffset(sample, from) &&
        type != AVMediaTypeSubtitle) {
        return true;
    }
    if (type == AVMediaTypeVideo) return processVideoSample(sample, from, forward);
    if (type == AVMediaTypeAudio) return processAudioSample(sample, from, forward);
    if (type == AVMediaTypeSubtitle) return processSubtitleSample(sample, from, forward);
    return sample ? forwardTo(forward, sample) : true;
}

bool QXSync::settleOffset(const CMSampleBufferRef& sample, const QXTrackReaderOutput& from)
{
    std::unique_lock settle(settleLock_);
    const CMTime pts = CMSampleBufferGetOutputPresentationTimeStamp(sample);
    {
        std::lock_guard guard(offsetLock_);
        if (CMTimeCompare(pts, minPts_) < 0) minPts_ = pts;
    }
    const QXMediaType type = from.mediaType();
    while (!settled_.load(std::memory_order_acquire)) {
        if (type == AVMediaTypeVideo) {
            // The first video sample decides.
            std::lock_guard guard(offsetLock_);
            settleLocked(pts);
            break;
        }
        if (offsetChanged_.wait_for(settle, kOffsetWait) == std::cv_status::no_timeout) continue;
        if (type != AVMediaTypeAudio) {
            QXLogInfo("sync: not woken for: %s", describe(sample).c_str());
            return false;
        }
        // No video came: the earliest time any channel has seen starts the
        // output, and the video will start later than zero.
        std::lock_guard guard(offsetLock_);
        if (!settled_.load(std::memory_order_relaxed)) {
            settleLocked(minPts_);
            QXLogInfo("sync: using pts offset from audio: %s", describe(ptsOffset_).c_str());
        }
    }
    return true;
}

void QXSync::settleLocked(CMTime offset)
{
    ptsOffset_ = offset;
    settled_.store(true, std::memory_order_release);
    offsetChanged_.notify_all();
}

void QXSync::wakeWaiters()
{
    std::lock_guard settle(settleLock_);
    offsetChanged_.notify_all();
}

bool QXSync::processVideoSample(const CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward)
{
    if (!from.cur) {
        if (sample) {
            from.cur = sample;
        } else {
            // A video track that never delivered a frame.
            forwardTo(forward, nullptr);
            wakeWaiters();
        }
        return true;
    }
    const CMTime offset = ptsOffset_;
    const CMSampleBufferRef cur = from.cur;
    CMTime start = CMTimeSubtract(CMSampleBufferGetOutputPresentationTimeStamp(cur), offset);
    CMTime dts = CMSampleBufferGetDecodeTimeStamp(cur);
    if (CMTIME_IS_VALID(dts)) dts = CMTimeSubtract(dts, offset);
    const CMTime pts = CMTimeSubtract(CMSampleBufferGetPresentationTimeStamp(cur), offset);
    CMTime duration = CMSampleBufferGetDuration(cur);

    if (!sample) {
        // The last frame: without a duration of its own it gets the track's
        // usual frame spacing.
        if (CMTimeCompare(duration, kCMTimeZero) <= 0) {
            QXLogWarning("sync: invalid video duration for last sample %s, start %s", describe(duration).c_str(),
                         describe(start).c_str());
            const CMTime average = from.track && from.track->reader ? from.track->reader->filtered_average
                                                                     : kCMTimeZero;
            duration = CMTimeConvertScale(average, pts.timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero);
        }
        if (auto copy = copyWithTiming(cur, duration, pts, dts)) forwardTo(forward, copy);
        from.cur = nullptr;
        {
            std::lock_guard guard(subtitleLock_);
            videoEnded_ = true;
            releaseSubtitlesUpTo(kCMTimePositiveInfinity);
        }
        wakeWaiters();
        return true;
    }

    const CMTime next = CMTimeSubtract(CMSampleBufferGetOutputPresentationTimeStamp(sample), offset);
    if (firstFrame_.exchange(false)) {
        if (CMTimeCompare(start, kCMTimeZero) > 0) {
            QXLogInfo("sync: first pts is %s", describe(CMSampleBufferGetPresentationTimeStamp(cur)).c_str());
            start = kCMTimeZero;
        }
    }
    if (CMTimeCompare(start, next) >= 0) {
        // The video did not advance: the new frame goes, cur stays.
        if (!CMTIME_IS_VALID(from.first_drop)) from.first_drop = next;
        ++from.drop_count;
        return true;
    }
    if (CMTIME_IS_VALID(from.first_drop)) {
        QXLogInfo("sync: video time didn't advance - dropped %lu frames (delta %s, current %s, next %s, dur %s)",
                  static_cast<unsigned long>(from.drop_count), describe(CMTimeSubtract(start, from.first_drop)).c_str(),
                  describe(start).c_str(), describe(next).c_str(), describe(CMTimeSubtract(next, start)).c_str());
        from.first_drop = kCMTimeInvalid;
        from.drop_count = 0;
    }

    {
        std::lock_guard guard(subtitleLock_);
        releaseSubtitlesUpTo(pts);
    }

    if (CMTimeCompare(duration, kCMTimeZero) <= 0) {
        QXLogWarning("sync: invalid video duration %s, start %s, next %s", describe(duration).c_str(),
                     describe(start).c_str(), describe(next).c_str());
    }
    bool ok = true;
    if (auto copy = copyWithTiming(cur, duration, pts, dts)) ok = forwardTo(forward, copy);
    from.cur = sample;
    return ok;
}

void QXSync::releaseSubtitlesUpTo(CMTime presentationTime)
{
    if (!subtitleQueue_) return;
    const CMTime offset = ptsOffset();
    for (;;) {
        // An empty queue gives an invalid time, which is greater than any.
        const CMTime first = CMTimeSubtract(CMBufferQueueGetFirstPresentationTimeStamp(subtitleQueue_), offset);
        if (CMTimeCompare(first, presentationTime) > 0) return;
        forwardHeld(CMBufferQueueDequeueAndRetain(subtitleQueue_), offset);
    }
}

void QXSync::releaseSubtitlesOf(const Input& input)
{
    if (!subtitleQueue_ || !settled_.load(std::memory_order_acquire)) return;
    // The queue is short (lines waiting for the video to reach them): it is
    // emptied and refilled with the other tracks' lines.
    std::vector<CMSampleBufferRef> others;
    const CMTime offset = ptsOffset_;
    while (CMSampleBufferRef held = CMBufferQueueDequeueAndRetain(subtitleQueue_)) {
        auto attachments = CMSampleBufferGetFirstSampleAttachments(held, false);
        if (attachments && attachments->object<QXMuxerInputProtocol>(kCMSampleAttachmentKey_Muxer) == input) {
            forwardHeld(held, offset);
        } else {
            others.push_back(held);
        }
    }
    for (const CMSampleBufferRef& held : others) CMBufferQueueEnqueue(subtitleQueue_, held);
}

void QXSync::forwardHeld(const CMSampleBufferRef& held, CMTime offset)
{
    if (!held) return;
    auto attachments = CMSampleBufferGetFirstSampleAttachments(held, false);
    Input input = attachments ? attachments->object<QXMuxerInputProtocol>(kCMSampleAttachmentKey_Muxer) : nullptr;
    if (!input) return;
    attachments->removeValue(kCMSampleAttachmentKey_Muxer);
    const CMTime start = CMTimeSubtract(CMSampleBufferGetOutputPresentationTimeStamp(held), offset);
    if (auto copy = copyWithTiming(held, CMSampleBufferGetDuration(held), start, start)) forwardTo(input, copy);
}

bool QXSync::processAudioSample(const CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward)
{
    if (!sample) return true;
    const CMTime start = CMTimeSubtract(CMSampleBufferGetPresentationTimeStamp(sample), ptsOffset_);
    const int32_t timescale = start.timescale;

    const CMTime late = CMTimeSubtract(from.next_start, start);
    if (CMTimeCompare(late, CMTimeMakeWithSeconds(kLateAudio, timescale)) > 0) {
        if (!CMTIME_IS_VALID(from.first_drop)) from.first_drop = start;
        ++from.drop_count;
        return true;
    }
    if (CMTIME_IS_VALID(from.first_drop)) {
        QXLogInfo("sync: audio 0x%x time went backwards %s, dropped %lu frames (start %s, next %s)", trackIDOf(from),
                  describe(CMTimeSubtract(from.next_start, from.first_drop)).c_str(),
                  static_cast<unsigned long>(from.drop_count), describe(from.first_drop).c_str(),
                  describe(from.next_start).c_str());
        from.first_drop = kCMTimeInvalid;
        from.drop_count = 0;
    }

    auto* silenceMaker = dynamic_cast<QXTrackReaderAudioOutputProtocol*>(&from);
    CMTime gap = CMTimeSubtract(start, from.next_start);
    if (CMTimeCompare(from.next_start, kCMTimeZero) == 0 && !silenceMaker) {
        // An output that cannot make silence starts the timeline where its
        // first sample lies.
        from.next_start = start;
        QXLogInfo("sync: audio 0x%x start %s", trackIDOf(from), describe(start).c_str());
        return outputAudioSample(sample, from, forward);
    }
    if (CMTimeCompare(gap, CMTimeMakeWithSeconds(kAudioGapToFill, timescale)) < 0) {
        return outputAudioSample(sample, from, forward);
    }

    CMSampleBufferRef silence = silenceMaker ? silenceMaker->silentSample() : nullptr;
    if (silence) {
        QXLogInfo("sync: adding %s silence to audio 0x%x start %s, next %s", describe(gap).c_str(), trackIDOf(from),
                  describe(start).c_str(), describe(from.next_start).c_str());
    } else {
        QXLogInfo("sync: duplicating %s audio samples of audio 0x%x start %s, next %s", describe(gap).c_str(),
                  trackIDOf(from), describe(start).c_str(), describe(from.next_start).c_str());
    }
    // The threshold stays half of the real sample's duration, whatever the
    // length of the silence put in.
    const CMTime duration = CMSampleBufferGetDuration(sample);
    const CMTime half = CMTimeMultiplyByFloat64(duration, 0.5);
    const CMSampleBufferRef& filler = silence ? silence : sample;
    const CMTime step = CMSampleBufferGetDuration(filler);
    while (CMTimeCompare(gap, half) > 0) {
        outputAudioSample(filler, from, forward);
        gap = CMTimeSubtract(gap, step);
        if (CMTimeCompare(step, kCMTimeZero) <= 0) break; // a filler without length would never close the gap
    }
    return outputAudioSample(sample, from, forward);
}

bool QXSync::outputAudioSample(const CMSampleBufferRef& sample, QXTrackReaderOutput& from, const Input& forward)
{
    const CMTime duration = CMSampleBufferGetDuration(sample);
    if (!CMTIME_IS_VALID(duration)) QXLogInfo("Missing audio sample duration!");
    bool ok = true;
    if (auto copy = copyWithTiming(sample, duration, from.next_start, kCMTimeInvalid)) ok = forwardTo(forward, copy);
    from.next_start = CMTimeAdd(from.next_start, duration);
    return ok;
}

bool QXSync::processSubtitleSample(const CMSampleBufferRef& sample, QXTrackReaderOutput&, const Input& forward)
{
    std::lock_guard guard(subtitleLock_);
    if (!sample) {
        // The channel tells the input of the end right after this: the lines
        // still waiting for the video go first, or the finished input would
        // lose them. The muxer's window puts them in their place.
        releaseSubtitlesOf(forward);
        return true;
    }
    CMSampleBufferGetFirstSampleAttachments(sample, true)->setObject(kCMSampleAttachmentKey_Muxer, forward);
    if (!subtitleQueue_) return true;
    if (OSStatus status = CMBufferQueueEnqueue(subtitleQueue_, sample); status != 0) {
        QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
    }
    if (videoEnded_) releaseSubtitlesUpTo(kCMTimePositiveInfinity);
    return true;
}
