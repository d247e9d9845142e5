#include "qxmedia/reader/QXMovieReader.h"

#include <algorithm>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

std::string describe(CMTime time)
{
    return CMTimeCopyDescription(time);
}

bool isNotSync(const CMSampleBufferRef& sample)
{
    CMSampleAttachmentDictionaryRef attachments = CMSampleBufferGetFirstSampleAttachments(sample, false);
    return attachments && attachments->isTrue(kCMSampleAttachmentKey_NotSync);
}

} // namespace

std::shared_ptr<QXMovieReader> QXMovieReader::init()
{
    return std::make_shared<QXMovieReader>();
}

QXMovieReader::QXMovieReader()
{
    const OSStatus status = CMBufferQueueCreate(nullptr, 0, CMBufferQueueGetCallbacksForUnsortedSampleBuffers(),
                                                &startup_buffer_queue);
    if (status != 0) QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
}

bool QXMovieReader::acceptBeforeStart(const CMSampleBufferRef& sample, QXTrack& track)
{
    const CMTime pts = CMSampleBufferGetPresentationTimeStamp(sample);
    const CMTime dts = CMSampleBufferGetDecodeTimeStamp(sample);
    if (isNotSync(sample)) {
        QXLogInfo("drop none key video frame at id 0x%x dts %s pts %s", track.streamIndex, describe(dts).c_str(),
                  describe(pts).c_str());
        return false;
    }
    // A key frame shortly before zero belongs to a preroll that an edit list
    // cuts away.
    const CMTime t = CMTIME_IS_VALID(pts) ? pts : dts;
    if (CMTIME_IS_VALID(t) && CMTimeCompare(t, CMTimeMakeWithSeconds(-10, 1000)) >= 0 &&
        CMTimeCompare(t, CMTimeMakeWithSeconds(-0.5, 1000)) <= 0) {
        QXLogInfo("dismiss sample as first key frame at id 0x%x dts %s pts %s", track.streamIndex,
                  describe(dts).c_str(), describe(pts).c_str());
        return false;
    }
    return true;
}

bool QXMovieReader::writesVideo(const QXTrack& track)
{
    auto movie = track.source.lock();
    if (!movie) return true;
    return std::any_of(movie->tracks.begin(), movie->tracks.end(), [](const QXTrackRef& candidate) {
        return std::dynamic_pointer_cast<QXVideoTrack>(candidate) && candidate->hasOutputs();
    });
}

void QXMovieReader::holdUntilStart(const CMSampleBufferRef& sample, QXTrack& track)
{
    CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_StreamIndex,
                                                                    QXValue(track.streamIndex));
    if (OSStatus status = CMBufferQueueEnqueue(startup_buffer_queue, sample); status != 0) {
        QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
    }
    auto movie = track.source.lock();
    const size_t trackCount = movie ? movie->tracks.size() : 1;
    while (size_t(CMBufferQueueGetBufferCount(startup_buffer_queue)) > kStartupSamplesPerTrack * trackCount) {
        CMBufferQueueDequeueAndRetain(startup_buffer_queue);
    }
}

void QXMovieReader::processSample(const CMSampleBufferRef& sample, const std::shared_ptr<QXTrack>& track)
{
    QXTrackReader* trackReader = track->reader.get();
    const CMTime pts = CMSampleBufferGetPresentationTimeStamp(sample);
    const CMTime dts = CMSampleBufferGetDecodeTimeStamp(sample);
    auto* video = dynamic_cast<QXVideoTrack*>(track.get());
    const bool isAudio = dynamic_cast<QXAudioTrack*>(track.get()) != nullptr;

    if (!saw_video) {
        if (video) {
            videoTrack = std::static_pointer_cast<QXVideoTrack>(track);
            if (!acceptBeforeStart(sample, *track)) return;
        } else if (!(isAudio && track->hasOutputs() && !writesVideo(*track))) {
            holdUntilStart(sample, *track);
            return;
        }
    }

    bool startsTimeline = false;
    const bool hasOutputs = track->hasOutputs();
    if (hasOutputs && !saw_video) {
        if (CMTIME_IS_VALID(pts) && CMTIME_IS_VALID(dts)) {
            scr_changes = demux_scr_changes - 1;
            if (trackReader) trackReader->valid = 1;
            saw_video = 1;
            startsTimeline = true;
            QXLogInfo("reader: first id 0x%x dts %s pts %s", track->streamIndex, describe(dts).c_str(),
                      describe(pts).c_str());
        } else {
            QXLogInfo("reader: ignore sample id 0x%x dts %s pts %s", track->streamIndex, describe(dts).c_str(),
                      describe(pts).c_str());
            return;
        }
    }

    CMTime localPTS = pts;
    CMTime localDTS = dts;
    bool offsetFromAudio = false;
    const bool isMainVideo = videoTrack.lock().get() == video && video != nullptr;
    if (hasOutputs && CMTIME_IS_VALID(pts) && scr_changes != demux_scr_changes && isMainVideo && saw_audio) {
        // The video waits for audio to set the new offset, so that its
        // pictures keep their own times and order; a source whose audio
        // does not come back lets the video set it.
        if (CMTIME_IS_VALID(dts) && heldVideo_.size() >= kHeldVideoSamples) {
            continueTimeline(*track, firstHeldTime());
            releaseHeldVideo();
        } else {
            heldVideo_.emplace_back(sample, track);
            return;
        }
    }
    if (hasOutputs && CMTIME_IS_VALID(pts) && scr_changes != demux_scr_changes) {
        if (trackReader) trackReader->valid = 0;
        if (!saw_audio && isAudio) saw_audio = 1;
        if (isAudio || (isMainVideo && !saw_audio)) {
            continueTimeline(*track, dts);
            offsetFromAudio = isAudio;
        } else {
            // Wait for audio to set the new offset; meanwhile the outputs
            // derive times from durations.
            localPTS = kCMTimeInvalid;
            localDTS = kCMTimeInvalid;
        }
    }

    if (hasOutputs) {
        if (CMTIME_IS_VALID(localPTS)) {
            localPTS = CMTimeSubtract(
                localPTS, CMTimeConvertScale(scr_offset, localPTS.timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero));
        }
        if (CMTIME_IS_VALID(localDTS)) {
            localDTS = CMTimeSubtract(
                localDTS, CMTimeConvertScale(scr_offset, localDTS.timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero));
            if (!saw_audio && isAudio) saw_audio = 1;
            if (trackReader) trackReader->update_ipt(sample);
        }
    }

    if (CMTimeCompare(scr_offset, kCMTimeZero) != 0) {
        CMSampleTimingInfo timing {CMSampleBufferGetDuration(sample), localPTS, localDTS};
        CMSampleBufferRef copy;
        if (CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy) == 0) {
            track->processSample(copy);
        }
    } else {
        track->processSample(sample);
    }

    if (startsTimeline) drainStartupQueue(*track);
    if (offsetFromAudio) releaseHeldVideo();
}

void QXMovieReader::continueTimeline(QXTrack& track, CMTime dts)
{
    // Continue the timeline one sample after the track's last time.
    QXTrackReader* trackReader = track.reader.get();
    if (trackReader) trackReader->valid = 1;
    CMTime x = trackReader ? trackReader->last : kCMTimeZero;
    if (CMTIME_IS_VALID(scr_offset)) x = CMTimeSubtract(x, scr_offset);
    if (trackReader) x = CMTimeAdd(x, trackReader->filtered_average);
    scr_offset = CMTimeSubtract(CMTimeMake(dts.value, dts.timescale), x);
    scr_changes = demux_scr_changes;
}

CMTime QXMovieReader::firstHeldTime() const
{
    for (const auto& held : heldVideo_) {
        const CMTime dts = CMSampleBufferGetDecodeTimeStamp(held.first);
        if (CMTIME_IS_VALID(dts)) return dts;
    }
    return CMSampleBufferGetPresentationTimeStamp(heldVideo_.front().first);
}

void QXMovieReader::releaseHeldVideo()
{
    auto held = std::move(heldVideo_);
    heldVideo_.clear();
    for (const auto& [sample, track] : held) processSample(sample, track);
}

void QXMovieReader::finish()
{
    if (heldVideo_.empty()) return;
    continueTimeline(*heldVideo_.front().second, firstHeldTime());
    releaseHeldVideo();
}

void QXMovieReader::drainStartupQueue(QXTrack& track)
{
    if (CMBufferQueueIsEmpty(startup_buffer_queue)) return;
    QXLogInfo("reader startup samples: %ld", long(CMBufferQueueGetBufferCount(startup_buffer_queue)));
    auto movie = track.source.lock();
    while (CMSampleBufferRef held = CMBufferQueueDequeueAndRetain(startup_buffer_queue)) {
        int32_t streamIndex = int32_t(0x80000000u);
        if (auto attachments = CMSampleBufferGetFirstSampleAttachments(held, false)) {
            if (auto index = attachments->value(kCMSampleAttachmentKey_StreamIndex)) {
                streamIndex = int32_t(index->int64().value_or(streamIndex));
            }
        }
        if (auto owner = movie ? movie->trackWithStreamIndex(streamIndex) : nullptr) processSample(held, owner);
    }
}
