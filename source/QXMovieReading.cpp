// Reading a movie: the read loop that demuxes the source on a thread of its
// own and hands every packet, as a sample, to the movie reader; pause,
// cancel and finish; and what is derived from the track list.

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/time.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/coremedia/CMBlockBuffer.h"
#include "qxmedia/reader/QXMovieReader.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXReadErrorBudget.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

// Packets of this size and more are damage, not media.
constexpr int kMaxPacketSize = 32 << 20;
// Progress is reported at most this often.
constexpr double kProgressInterval = 0.25;
constexpr size_t kHashBlock = 65536;

std::string errorText(int code)
{
    char buffer[64] = {};
    av_strerror(code, buffer, sizeof buffer);
    return buffer;
}

CMTime streamTime(int64_t value, AVRational timeBase)
{
    if (value == AV_NOPTS_VALUE) return kCMTimeInvalid;
    return CMTimeMake(value * timeBase.num, timeBase.den);
}

CMTime markedAsCopied(CMTime time)
{
    time.flags |= kCMTimeFlags_Indefinite;
    return time;
}

std::string sampleDescription(const CMSampleBufferRef& sample)
{
    return "{pts " + CMTimeCopyDescription(CMSampleBufferGetPresentationTimeStamp(sample)) + ", dts " +
           CMTimeCopyDescription(CMSampleBufferGetDecodeTimeStamp(sample)) + ", " +
           std::to_string(CMSampleBufferGetTotalSampleSize(sample)) + " bytes}";
}

// A block over the packet's bytes. A reference-counted packet hands its
// buffer over, so the bytes are not copied and go back to FFmpeg when the
// last sample over them is gone; a packet without one is copied.
OSStatus blockBufferTakingPacketData(AVPacket* packet, CMBlockBufferRef* blockOut)
{
    const size_t size = size_t(packet->size);
    AVBufferRef* buffer = packet->buf;
    if (!buffer || size == 0) {
        OSStatus status = CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                                             kCMBlockBufferAssureMemoryNowFlag, blockOut);
        if (status == 0 && size != 0) status = CMBlockBufferReplaceDataBytes(packet->data, *blockOut, 0, size);
        return status;
    }
    CMBlockBufferCustomBlockSource source;
    source.FreeBlock = [](void* refCon, void*, size_t) {
        auto* doomed = static_cast<AVBufferRef*>(refCon);
        av_buffer_unref(&doomed);
    };
    source.refCon = buffer;
    const OSStatus status =
        CMBlockBufferCreateWithMemoryBlock(nullptr, buffer->data, buffer->size, nullptr, &source,
                                           size_t(packet->data - buffer->data), size, 0, blockOut);
    if (status == 0) packet->buf = nullptr; // the block holds the reference now
    return status;
}

// Packets are read in runs and then handed on one after the other. The
// stages behind the read loop then get their work in bursts: each wakes once
// for a run and finds the next sample waiting while it works, instead of
// parking and being woken for every packet. That saves a third of the
// processor time of a remux and keeps wake-ups off the read loop's thread.
// A run also ends at 4 MiB, so raw video does not hold 64 big frames.
class PacketRun {
public:
    static constexpr int kCapacity = 64;
    static constexpr size_t kMaxBytes = 4 << 20;

    PacketRun()
    {
        for (AVPacket*& packet : packets_) packet = av_packet_alloc();
    }
    ~PacketRun()
    {
        for (AVPacket*& packet : packets_) av_packet_free(&packet);
    }
    PacketRun(const PacketRun&) = delete;
    PacketRun& operator=(const PacketRun&) = delete;

    bool allocated() const
    {
        return std::all_of(packets_.begin(), packets_.end(), [](const AVPacket* packet) { return packet; });
    }
    // Reads until the run is full or av_read_frame fails, and answers the
    // last result: a failure or the end comes after the packets before it.
    int read(AVFormatContext* context)
    {
        while (count_ < kCapacity && bytes_ < kMaxBytes) {
            AVPacket* packet = packets_[size_t(count_)];
            if (const int rc = av_read_frame(context, packet); rc < 0) return rc;
            bytes_ += size_t(std::max(packet->size, 0));
            ++count_;
        }
        return 0;
    }
    void clear()
    {
        for (int i = 0; i < count_; ++i) av_packet_unref(packets_[size_t(i)]);
        count_ = 0;
        bytes_ = 0;
    }
    AVPacket* const* begin() const { return packets_.data(); }
    AVPacket* const* end() const { return packets_.data() + count_; }

private:
    std::array<AVPacket*, kCapacity> packets_ {};
    int count_ = 0;
    size_t bytes_ = 0;
};

struct InputCloser {
    AVFormatContext* context = nullptr;
    ~InputCloser() { avformat_close_input(&context); }
};

} // namespace

bool QXMovie::startReading()
{
    int rc = AVERROR_UNKNOWN;
    std::error_code failed;
    const uint64_t total = std::filesystem::file_size(fileURL, failed);
    if (failed) {
        if (!error()) {
            setError(QXMedia::errorWithDomain(NSPOSIXErrorDomain, failed.value(), {{NSURLErrorKey, fileURL}}));
            status = QXMovieStatusFailed;
        }
    }
    progress = QXProgress::progressWithTotalUnitCount(failed ? 0 : int64_t(total));
    status = QXMovieStatusReading;

    AVFormatContext* context = nullptr;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "advanced_editlist", "0", 0);
    rc = avformat_open_input(&context, avPath.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (rc >= 0) {
        rc = avformat_find_stream_info(context, nullptr);
        if (rc < 0) avformat_close_input(&context);
    }
    if (rc < 0) {
        setError(QXMedia::errorWithDomain(QXMediaErrorDomain, rc, {{NSURLErrorKey, fileURL}}));
        status = QXMovieStatusFailed;
    }

    auto self = shared_from_this();
    dispatch_group_enter(readLoopGroup);
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [self, context] {
        self->readLoop(context);
        dispatch_group_leave(self->readLoopGroup);
    });
    return rc >= 0;
}

void QXMovie::readLoop(AVFormatContext* openedContext)
{
    InputCloser input {openedContext};
    AVFormatContext* context = input.context;
    lastDTS_ = kCMTimeInvalid;
    jumpDTS_ = kCMTimeInvalid;
    QXReadErrorBudget errors;
    PacketRun run;
    QXTrackReaderOutput::Run handOver;
    double lastProgress = double(av_gettime_relative()) / 1e6;
    while (context && run.allocated() && status <= QXMovieStatusReading) {
        // The pause gate: a paused movie holds the semaphore's only count.
        dispatch_semaphore_wait(progressSemaphore, DISPATCH_TIME_FOREVER);
        dispatch_semaphore_signal(progressSemaphore);

        const int rc = run.read(context);
        for (AVPacket* packet : run) {
            if (status > QXMovieStatusReading) break;
            if (acceptPacket(packet)) {
                deliverPacket(context, packet);
                const double now = double(av_gettime_relative()) / 1e6;
                if (now - lastProgress > kProgressInterval) {
                    if (context->pb) progress->setCompletedUnitCount(context->pb->pos);
                    lastProgress = now;
                }
            }
        }
        handOver.handOn();
        run.clear();
        if (rc == AVERROR_EOF) break;
        if (rc < 0) {
            QXLogWarning("%s Error reading frame: %s", __func__, errorText(rc).c_str());
            const QXReadErrorBudget::Answer answer = errors.answer(rc);
            if (answer == QXReadErrorBudget::Answer::RetryAfterPause) {
                QXLogWarning("Resource temporarily unavailable!");
                av_usleep(10000);
            }
            if (answer == QXReadErrorBudget::Answer::Retry || answer == QXReadErrorBudget::Answer::RetryAfterPause) {
                continue;
            }
            if (answer == QXReadErrorBudget::Answer::StopKeepingRead) {
                QXLogWarning("Ignoring Input/output error!");
            } else {
                status = QXMovieStatusFailed;
            }
            setError(QXMedia::errorWithDomain(QXMediaErrorDomain, rc, {{NSURLErrorKey, fileURL}}));
            break;
        }
    }
    avformat_close_input(&input.context);
    if (progress) progress->setCompletedUnitCount(progress->totalUnitCount());
    handOver.handOn();
    finishReading();
}

bool QXMovie::acceptPacket(const AVPacket* packet) const
{
    const int size = packet->size;
    const int index = packet->stream_index;
    if (size <= 0) QXLogWarning("null frame: %d bytes", size);
    if (size >= kMaxPacketSize) {
        QXLogWarning("packet too big: %d bytes", size);
        return false;
    }
    if (index < 0 || size_t(index) >= streams.size()) {
        QXLogWarning("Sample for unknown track %d", index);
        return false;
    }
    return true;
}

void QXMovie::deliverPacket(AVFormatContext* context, AVPacket* packet)
{
    const AVStream* stream = context->streams[packet->stream_index];
    QXTrackRef track = streams[size_t(packet->stream_index)].lock();

    CMBlockBufferRef block;
    OSStatus status = blockBufferTakingPacketData(packet, &block);
    if (status != 0) {
        QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
        return;
    }

    CMTime pts = streamTime(packet->pts, stream->time_base);
    CMTime dts = streamTime(packet->dts, stream->time_base);
    if (!CMTIME_IS_VALID(pts) && !CMTIME_IS_VALID(dts) && track && track->reader) {
        pts = dts = track->reader->last;
    }
    if (!CMTIME_IS_VALID(pts) && CMTimeCompare(dts, kCMTimeZero) >= 0) {
        pts = markedAsCopied(dts);
    } else if (!CMTIME_IS_VALID(dts) && CMTimeCompare(pts, kCMTimeZero) >= 0) {
        dts = markedAsCopied(pts);
    }
    CMTime sampleDuration = kCMTimeInvalid;
    if (stream->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE && packet->duration != 0) {
        sampleDuration = CMTimeMake(packet->duration * stream->time_base.num, stream->time_base.den);
    }

    const CMSampleTimingInfo timing {sampleDuration, pts, dts};
    const size_t sampleSize = CMBlockBufferGetDataLength(block);
    CMSampleBufferRef sample;
    status = CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &sampleSize, &sample);
    if (status != 0) {
        QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
        return;
    }
    if (!(packet->flags & AV_PKT_FLAG_KEY)) {
        CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
    }

    if (!CMTIME_IS_VALID(pts) && !CMTIME_IS_VALID(dts)) {
        QXLogError("Dropping sample for %s without valid timing information: %s",
                   track ? track->description().c_str() : "(no track)", sampleDescription(sample).c_str());
        return;
    }
    if (!track) return; // the stream has no track: its samples go nowhere
    if (!reader) {
        track->processSample(sample);
        return;
    }
    const bool discontinuousFormat = context->iformat && (context->iformat->flags & AVFMT_TS_DISCONT);
    if (discontinuousFormat && CMTIME_IS_VALID(dts) && !passesDiscontinuityCheck(sample, packet->stream_index, dts)) {
        return;
    }
    reader->processSample(sample, track);
}

bool QXMovie::passesDiscontinuityCheck(const CMSampleBufferRef&, int streamIndex, CMTime dts)
{
    const CMTime tolerance = CMTimeMakeWithSeconds(0.9, 1000);
    if (!CMTIME_IS_VALID(lastDTS_)) {
        lastDTS_ = dts;
        return true;
    }
    if (CMTimeCompare(dts, CMTimeSubtract(lastDTS_, tolerance)) >= 0 &&
        CMTimeCompare(dts, CMTimeAdd(lastDTS_, tolerance)) <= 0) {
        lastDTS_ = dts;
        return true;
    }
    const std::string last = CMTimeCopyDescription(lastDTS_);
    const std::string now = CMTimeCopyDescription(dts);
    const std::string jump = CMTimeCopyDescription(CMTimeSubtract(dts, lastDTS_));
    const std::string before = CMTimeCopyDescription(jumpDTS_);
    if (CMTIME_IS_VALID(jumpDTS_) && CMTimeCompare(dts, CMTimeSubtract(jumpDTS_, tolerance)) > 0 &&
        CMTimeCompare(dts, CMTimeAdd(jumpDTS_, tolerance)) < 0) {
        // A straggler of the timeline that was left.
        QXLogInfo("demux: discontinuty sample ignored id 0x%x DTS %s --> %s (%s, %s)", streamIndex, last.c_str(),
                  now.c_str(), jump.c_str(), before.c_str());
        jumpDTS_ = dts;
        return false;
    }
    QXLogInfo("demux: discontinuty id 0x%x DTS %s --> %s (%s, %s)", streamIndex, last.c_str(), now.c_str(),
              jump.c_str(), before.c_str());
    reader->demux_scr_changes += 1;
    jumpDTS_ = lastDTS_;
    lastDTS_ = dts;
    return true;
}

void QXMovie::togglePause()
{
    if (status != QXMovieStatusReading) return;
    if (isPaused) {
        dispatch_semaphore_signal(progressSemaphore);
    } else {
        dispatch_semaphore_wait(progressSemaphore, DISPATCH_TIME_FOREVER);
    }
    isPaused = !isPaused;
}

void QXMovie::cancelReading()
{
    int64_t reading = QXMovieStatusReading;
    status.compare_exchange_strong(reading, QXMovieStatusCancelled);
}

void QXMovie::finishReading()
{
    int64_t current = status.load();
    while (current < QXMovieStatusFinished && !status.compare_exchange_weak(current, QXMovieStatusFinished)) {
    }
    // Nothing completes while paused.
    dispatch_semaphore_wait(progressSemaphore, DISPATCH_TIME_FOREVER);
    dispatch_semaphore_signal(progressSemaphore);
    if (reader) reader->finish();
    for (const QXTrackRef& track : tracks) track->markAsFinished();
}

void QXMovie::releaseReaders()
{
    for (const QXTrackRef& track : tracks) {
        if (track->reader) track->reader->releaseTrack();
    }
}

std::string QXMovie::calculateHash() const
{
    std::ifstream in(fileURL, std::ios::binary);
    if (!in) {
        QXLogWarning("Failed to open file %s: %s", fileURL.c_str(), std::strerror(errno));
        return {};
    }
    std::vector<uint64_t> head(kHashBlock / 8), tail(kHashBlock / 8);
    in.read(reinterpret_cast<char*>(head.data()), kHashBlock);
    in.clear();
    in.seekg(0, std::ios::end);
    const auto size = uint64_t(in.tellg());
    if (size < kHashBlock) return {};
    in.seekg(std::streamoff(size - kHashBlock));
    if (!in.read(reinterpret_cast<char*>(tail.data()), kHashBlock)) {
        QXLogWarning("Failed to read file %s: %s", fileURL.c_str(), "short read");
        return {};
    }
    // The words are little-endian, as the machine's.
    uint64_t hash = size;
    for (uint64_t word : head) hash += word;
    for (uint64_t word : tail) hash += word;
    char text[17];
    std::snprintf(text, sizeof text, "%016" PRIx64, hash);
    return text;
}

bool QXMovie::hasProtectedContent() const
{
    return std::any_of(tracks.begin(), tracks.end(), [](const QXTrackRef& track) {
        return track->codec_id == QXCodecIDFairPlayVideo || track->codec_id == QXCodecIDFairPlayAudio ||
               track->codec_id == QXCodecIDFairPlayText;
    });
}

bool QXMovie::isMuxable() const
{
    for (const QXTrackRef& track : tracks) {
        if (dynamic_cast<QXVideoTrack*>(track.get()) && !track->isMuxable()) {
            QXLogWarning("Not muxable: %s", track->description().c_str());
            return false;
        }
    }
    return true;
}

bool QXMovie::isEncodeable() const
{
    const bool hasVideo = std::any_of(tracks.begin(), tracks.end(),
                                      [](const QXTrackRef& track) { return dynamic_cast<QXVideoTrack*>(track.get()); });
    return hasVideo && !hasProtectedContent();
}

int32_t QXMovie::videoCodec() const
{
    for (const QXTrackRef& track : tracks) {
        if (auto* video = dynamic_cast<QXVideoTrack*>(track.get()); video && !video->isChapterImageTrack()) {
            return video->codec_id;
        }
    }
    return 0;
}

uint64_t QXMovie::width() const
{
    uint64_t widest = 0;
    for (const QXTrackRef& track : tracks) {
        if (auto* video = dynamic_cast<QXVideoTrack*>(track.get())) widest = std::max(widest, video->width);
    }
    return widest;
}

uint64_t QXMovie::height() const
{
    uint64_t highest = 0;
    for (const QXTrackRef& track : tracks) {
        if (auto* video = dynamic_cast<QXVideoTrack*>(track.get())) highest = std::max(highest, video->height);
    }
    return highest;
}

CMTime QXMovie::duration() const
{
    if (CMTIME_IS_VALID(duration_)) return duration_;
    CMTime longest = kCMTimeInvalid;
    for (const QXTrackRef& track : tracks) {
        if (CMTIME_IS_VALID(track->duration) &&
            (!CMTIME_IS_VALID(longest) || CMTimeCompare(track->duration, longest) > 0)) {
            longest = track->duration;
        }
    }
    return longest;
}

std::string QXMovie::description() const
{
    std::string text = fileURL.string();
    for (const QXTrackRef& track : tracks) text += "\n\t" + track->description();
    return text;
}
