#include "qxmedia/reader/QXTrackReaderH264Output.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/reader/QXTrackReader.h"

using namespace qx;

namespace {

constexpr CMTimeFlags kCopiedTimeFlags = kCMTimeFlags_Valid | kCMTimeFlags_Indefinite;

CMBufferQueueRef makeQueue(const CMBufferCallbacks* callbacks)
{
    CMBufferQueueRef queue;
    if (OSStatus status = CMBufferQueueCreate(nullptr, 0, callbacks, &queue); status != 0) {
        QXLogWarning("Failed to create buffer queue: %d", int(status));
    }
    return queue;
}

CMItemCount countOf(const CMBufferQueueRef& queue) { return queue ? CMBufferQueueGetBufferCount(queue) : 0; }

// The spacing the track reader has seen, for samples whose next time is
// unknown; 1/30 s without a reader.
CMTime readerAverage(const QXTrack* track)
{
    return track && track->reader ? track->reader->filtered_average : CMTimeMake(1, 30);
}

CMTime inTimescale(CMTime time, int32_t timescale)
{
    if (timescale <= 0) return time;
    return CMTimeConvertScale(time, timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero);
}

void handOn(QXTrackReaderOutput& output, const CMSampleBufferRef& sample, const CMSampleTimingInfo& timing,
            CMTime outputPresentationTime)
{
    CMSampleBufferRef copy;
    if (CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy) != 0) return;
    CMSampleBufferSetOutputPresentationTimeStamp(copy, outputPresentationTime);
    output.QXTrackReaderOutput::processSample(copy);
}

// The number of the coded picture a frame came from, counted from 0 in
// decode order.
int64_t codedPictureNumber(const AVFrame* frame)
{
#if LIBAVCODEC_VERSION_MAJOR >= 60
    return int64_t(reinterpret_cast<intptr_t>(frame->opaque));
#else
    return frame->coded_picture_number;
#endif
}

int slotOf(int64_t number, int64_t size) { return int(((number % size) + size) % size); }

} // namespace

// QXTrackReaderH264Output

std::shared_ptr<QXTrackReaderH264Output> QXTrackReaderH264Output::initWithSource(
    const std::shared_ptr<QXTrack>& source, const std::shared_ptr<QXTrack>& destination)
{
    return makeFinished<QXTrackReaderH264Output>(source, destination);
}

QXTrackReaderH264Output::QXTrackReaderH264Output(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>&)
    : QXTrackReaderOutput(std::move(source)),
      queue(makeQueue(CMBufferQueueGetCallbacksForUnsortedSampleBuffers())),
      tsQueue(makeQueue(CMBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS()))
{
    timestamps.fill(kCMTimeInvalid);
}

std::string QXTrackReaderH264Output::description() const
{
    return "<QXTrackReaderH264Output " + (track ? track->description() : std::string("(no track)")) + ">";
}

void QXTrackReaderH264Output::processSample(const CMSampleBufferRef& sample)
{
    if (sample) {
        if (queue) CMBufferQueueEnqueue(queue, sample);
        if (tsQueue) CMBufferQueueEnqueue(tsQueue, sample);
        const CMTime d = CMSampleBufferGetDecodeTimeStamp(sample);
        // A decode time the read loop copied from the presentation time is
        // no decode time of the sample's own.
        if (startup && (d.flags & kCopiedTimeFlags) == kCopiedTimeFlags) {
            ++startupSamples;
        } else {
            startup = 0;
        }
        timestamps[size_t(slotOf(readSampleId, kTimestamps))] = CMTIME_IS_VALID(d) ? d : kCMTimeInvalid;
        ++readSampleId;
    }
    // The window keeps 31 samples behind until the end drains it.
    while (countOf(queue) == kWindow || (!sample && countOf(queue) > 0)) emitNext();
    if (!sample) QXTrackReaderOutput::processSample(nullptr);
}

CMTime QXTrackReaderH264Output::positiveTimestamp(int32_t n) const
{
    int32_t found = 0;
    for (const CMTime& t : timestamps) {
        if (!CMTIME_IS_NUMERIC(t) || CMTimeCompare(t, kCMTimeZero) <= 0) continue;
        if (++found == n) return t;
    }
    return kCMTimeInvalid;
}

bool QXTrackReaderH264Output::beyondNewest(CMTime time) const
{
    if (!CMTIME_IS_NUMERIC(time)) return false;
    for (const CMTime& t : timestamps) {
        if (CMTIME_IS_NUMERIC(t) && CMTimeCompare(t, time) >= 0) return false;
    }
    return true;
}

bool QXTrackReaderH264Output::isJitter(CMTime difference) const
{
    const CMTime frame = averageDuration(difference);
    if (!CMTIME_IS_NUMERIC(frame) || CMTimeCompare(frame, kCMTimeZero) <= 0) return true;
    return CMTimeCompare(CMTimeMultiply(CMTimeAbsoluteValue(difference), 2), frame) <= 0;
}

int QXTrackReaderH264Output::closestSlot(CMTime time, bool* exact) const
{
    int best = -1;
    CMTime bestDifference = kCMTimeInvalid;
    for (int slot = 0; slot < int(kTimestamps); ++slot) {
        const CMTime t = timestamps[size_t(slot)];
        if (CMTIME_IS_NUMERIC(t) && CMTimeCompare(t, time) == 0) {
            *exact = true;
            return slot;
        }
        const CMTime difference = CMTimeAbsoluteValue(CMTimeSubtract(time, t));
        if (!CMTIME_IS_NUMERIC(difference)) continue;
        if (best < 0 || CMTimeCompare(difference, bestDifference) < 0) {
            best = slot;
            bestDifference = difference;
        }
    }
    *exact = best >= 0 && CMTimeCompare(bestDifference, kCMTimeZero) == 0;
    return best;
}

CMTime QXTrackReaderH264Output::averageDuration(CMTime like) const
{
    const CMTime average = track && track->reader ? track->reader->filtered_average : kCMTimeZero;
    return inTimescale(average, CMTIME_IS_NUMERIC(like) ? like.timescale : (track ? track->naturalTimeScale : 0));
}

void QXTrackReaderH264Output::emitNext()
{
    const CMSampleBufferRef sample = CMBufferQueueDequeueAndRetain(queue);
    CMTime p = CMSampleBufferGetPresentationTimeStamp(sample);
    CMTime d = CMSampleBufferGetDecodeTimeStamp(sample);

    if (sampleId < startupSamples) {
        // The samples before the first real decode time take the later
        // positive times, negated and mirrored, so that they decode first.
        const CMTime t = positiveTimestamp(int32_t(startupSamples - sampleId));
        if (CMTIME_IS_VALID(t)) {
            d = CMTimeSubtract(kCMTimeZero, t);
            QXLogInfo("Use first dts: %s", CMTimeCopyDescription(d).c_str());
        }
    }

    // A presentation time is one of the stream's decode times; the one
    // after it in the table tells how long the picture stays. Only jitter
    // is snapped away: at the end of a stream (or of a part before a jump)
    // with B-frames the last pictures show after the newest decode time of
    // their own part, and keep their own times, so that no two share one
    // and the source's order stays.
    bool exact = false;
    const int slot = closestSlot(p, &exact);
    if (slot >= 0 && !exact && !beyondNewest(p) && isJitter(CMTimeSubtract(timestamps[size_t(slot)], p))) {
        p = timestamps[size_t(slot)];
    }
    const CMTime next = slot >= 0 ? timestamps[size_t(slotOf(slot + 1, kTimestamps))] : kCMTimeInvalid;
    CMTime duration;
    if (CMTIME_IS_NUMERIC(next) && CMTIME_IS_NUMERIC(p) && CMTimeCompare(next, p) > 0) {
        duration = CMTimeSubtract(next, p);
    } else {
        duration = averageDuration(p);
        QXLogInfo("Using average duration %s", CMTimeCopyDescription(duration).c_str());
    }

    // The lowest presentation time of the window rises steadily.
    const CMSampleBufferRef earliest = CMBufferQueueDequeueAndRetain(tsQueue);
    const CMTime outputTime = earliest ? CMSampleBufferGetPresentationTimeStamp(earliest) : p;
    handOn(*this, sample, CMSampleTimingInfo {duration, p, d}, outputTime);
    ++sampleId;
}

// QXTrackReaderH264DecoderOutput

std::shared_ptr<QXTrackReaderH264DecoderOutput> QXTrackReaderH264DecoderOutput::initWithSource(
    const std::shared_ptr<QXTrack>& source, const std::shared_ptr<QXTrack>& destination)
{
    return makeFinished<QXTrackReaderH264DecoderOutput>(source, destination);
}

QXTrackReaderH264DecoderOutput::QXTrackReaderH264DecoderOutput(std::shared_ptr<QXTrack> source,
                                                               const std::shared_ptr<QXTrack>& destination)
    : QXTrackReaderOutput(std::move(source)), queue(makeQueue(CMBufferQueueGetCallbacksForUnsortedSampleBuffers()))
{
#if LIBAVCODEC_VERSION_MAJOR >= 60
    const int flags = AV_CODEC_FLAG_COPY_OPAQUE;
#else
    const int flags = 0;
#endif
    if (track) avctx_ = QXOpenTrackDecoder(*track, __func__, flags);
    naturalTimeScale = destination && destination->naturalTimeScale > 0 ? destination->naturalTimeScale
                       : track                                          ? track->naturalTimeScale
                                                                        : 0;
    pts.fill(kCMTimeInvalid);
}

QXTrackReaderH264DecoderOutput::~QXTrackReaderH264DecoderOutput() = default;

std::string QXTrackReaderH264DecoderOutput::description() const
{
    return "<QXTrackReaderH264DecoderOutput " + (track ? track->description() : std::string("(no track)")) + ">";
}

void QXTrackReaderH264DecoderOutput::processSample(const CMSampleBufferRef& sample)
{
    if (sample && queue) CMBufferQueueEnqueue(queue, sample);
    decode(sample);
    while (countOf(queue) == kWindow || (!sample && countOf(queue) > 0)) emitNext();
    if (!sample) QXTrackReaderOutput::processSample(nullptr);
}

void QXTrackReaderH264DecoderOutput::decode(const CMSampleBufferRef& sample)
{
    if (!avctx_) return; // the open failure was reported; the tables stay empty
    AVFramePtr frame(av_frame_alloc());
    if (!frame) return;

    if (!sample) {
        avcodec_send_packet(avctx_.get(), nullptr);
        // After the flush the decoder answers frames, then the end; an
        // EAGAIN here would only repeat, so it ends the loop too.
        for (;;) {
            const int result = avcodec_receive_frame(avctx_.get(), frame.get());
            if (result == AVERROR_EOF || result == AVERROR(EAGAIN)) break;
            if (result < 0) {
                QXLogWarning("%s Error decoding video: %s", __func__, QXAvErrorText(result).c_str());
                break;
            }
            recordFrame(frame.get());
            av_frame_unref(frame.get());
        }
        return;
    }

    if (AVPacketPtr packet = QXPacketWithSampleData(sample)) {
        packet->pts = QXPacketTime(CMSampleBufferGetPresentationTimeStamp(sample), naturalTimeScale);
        packet->dts = QXPacketTime(CMSampleBufferGetDecodeTimeStamp(sample), naturalTimeScale);
        const auto attachments = CMSampleBufferGetFirstSampleAttachments(sample, false);
        if (!attachments || !attachments->isTrue(kCMSampleAttachmentKey_NotSync)) packet->flags |= AV_PKT_FLAG_KEY;
#if LIBAVCODEC_VERSION_MAJOR >= 60
        packet->opaque = reinterpret_cast<void*>(intptr_t(packetNumber_));
#endif
        packetTimes_[size_t(slotOf(packetNumber_, kPictures))] = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
        ++packetNumber_;
        if (int result = avcodec_send_packet(avctx_.get(), packet.get()); result < 0) {
            QXLogWarning("%s Error decoding video: %s", __func__, QXAvErrorText(result).c_str());
        }
    }
    const int result = avcodec_receive_frame(avctx_.get(), frame.get());
    if (result >= 0) {
        recordFrame(frame.get());
    } else if (result != AVERROR(EAGAIN)) {
        QXLogWarning("%s Error decoding video: %s", __func__, QXAvErrorText(result).c_str());
    }
}

void QXTrackReaderH264DecoderOutput::recordFrame(const AVFrame* frame)
{
    // These streams are stamped in decode order, one time per packet, so
    // the k-th picture shown plays at the k-th packet's time. The decoder's
    // own guess (best_effort_timestamp) mixes packet times that are not
    // presentation times with the ones of later packets, and has none for
    // the pictures of the flush.
    const int slot = slotOf(decodedSampleNumber, kPictures);
    const int64_t time = decodedSampleNumber < packetNumber_
                             ? packetTimes_[size_t(slotOf(decodedSampleNumber, kPictures))]
                             : frame->best_effort_timestamp;
    pts[size_t(slot)] = time == AV_NOPTS_VALUE ? kCMTimeInvalid : CMTimeMake(time, naturalTimeScale);
    dts[size_t(slotOf(codedPictureNumber(frame), kPictures))] = slot;
    ++decodedSampleNumber;
}

void QXTrackReaderH264DecoderOutput::emitNext()
{
    // Decode times are the display times shifted by the reorder delay, so
    // the first `delay` samples decode before zero.
    const int64_t delay = avctx_ ? avctx_->has_b_frames : 0;
    const CMTime q = sampleId < delay ? CMTimeSubtract(kCMTimeZero, pts[size_t(slotOf(delay - sampleId, kPictures))])
                                      : pts[size_t(slotOf(sampleId - delay, kPictures))];
    const int slot = dts[size_t(slotOf(sampleId, kPictures))];
    const CMTime p = pts[size_t(slot)];
    const CMTime next = pts[size_t(slotOf(slot + 1, kPictures))];

    CMTime sampleDuration;
    if (CMTIME_IS_NUMERIC(p) && CMTIME_IS_NUMERIC(next) && CMTimeCompare(next, p) > 0) {
        sampleDuration = CMTimeSubtract(next, p);
    } else {
        // The mean of what went before; the very first sample has none and
        // takes the spacing the track reader saw.
        const CMTime mean = sampleId > 0 ? CMTimeMultiplyByFloat64(duration, 1.0 / double(sampleId))
                                         : readerAverage(track.get());
        sampleDuration = inTimescale(mean, naturalTimeScale);
        QXLogInfo("Using average duration: %s", CMTimeCopyDescription(sampleDuration).c_str());
    }
    if (CMTIME_IS_NUMERIC(sampleDuration)) duration = CMTimeAdd(duration, sampleDuration);

    const CMSampleBufferRef sample = CMBufferQueueDequeueAndRetain(queue);
    handOn(*this, sample, CMSampleTimingInfo {sampleDuration, p, q}, q);
    ++sampleId;
}
