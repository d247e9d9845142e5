// Chapter images: a still of the movie's first video track at each
// chapter's start, decoded with libavcodec at the picture's own size. The
// muxer's chapter input turns them into JPEG samples.

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

// What a still that cannot be had fails with.
constexpr int64_t kNoImageAtTime = -11832;

struct FormatCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct CodecFreer {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct PacketFreer {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameFreer {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

// One open video stream that hands out the first picture shown at or after
// a time (the last picture when the time lies past the end).
class StillFrames {
public:
    static std::unique_ptr<StillFrames> open(const QXURL& url, int streamIndex)
    {
        auto stills = std::unique_ptr<StillFrames>(new StillFrames());
        AVFormatContext* context = nullptr;
        if (avformat_open_input(&context, url.c_str(), nullptr, nullptr) < 0) return nullptr;
        stills->format_.reset(context);
        if (avformat_find_stream_info(context, nullptr) < 0) return nullptr;
        if (streamIndex < 0 || unsigned(streamIndex) >= context->nb_streams) return nullptr;
        const AVStream* stream = context->streams[streamIndex];
        const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
        if (!codec) return nullptr;
        stills->codec_.reset(avcodec_alloc_context3(codec));
        if (!stills->codec_ || avcodec_parameters_to_context(stills->codec_.get(), stream->codecpar) < 0) return nullptr;
        if (avcodec_open2(stills->codec_.get(), codec, nullptr) < 0) return nullptr;
        stills->stream_ = streamIndex;
        return stills;
    }

    std::shared_ptr<QXImage> imageAt(CMTime time)
    {
        const AVStream* stream = format_->streams[stream_];
        const int64_t target =
            av_rescale_q(int64_t(CMTimeGetSeconds(time) * AV_TIME_BASE), AV_TIME_BASE_Q, stream->time_base);
        const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
        if (av_seek_frame(format_.get(), stream_, start + target, AVSEEK_FLAG_BACKWARD) < 0) {
            av_seek_frame(format_.get(), stream_, start, AVSEEK_FLAG_BACKWARD);
        }
        avcodec_flush_buffers(codec_.get());

        std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
        std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
        std::unique_ptr<AVFrame, FrameFreer> last;
        bool draining = false;
        while (true) {
            if (!draining) {
                const int read = av_read_frame(format_.get(), packet.get());
                if (read < 0) {
                    draining = true;
                    avcodec_send_packet(codec_.get(), nullptr);
                } else {
                    if (packet->stream_index == stream_) avcodec_send_packet(codec_.get(), packet.get());
                    av_packet_unref(packet.get());
                }
            }
            int received = 0;
            while ((received = avcodec_receive_frame(codec_.get(), frame.get())) == 0) {
                const int64_t pts = frame->best_effort_timestamp;
                if (pts == AV_NOPTS_VALUE || pts >= start + target) return QXImage::imageWithFrame(frame.get());
                last.reset(av_frame_clone(frame.get()));
                av_frame_unref(frame.get());
            }
            if (draining && received == AVERROR_EOF) break;
        }
        return last ? QXImage::imageWithFrame(last.get()) : nullptr;
    }

private:
    StillFrames() = default;

    std::unique_ptr<AVFormatContext, FormatCloser> format_;
    std::unique_ptr<AVCodecContext, CodecFreer> codec_;
    int stream_ = -1;
};

std::shared_ptr<QXVideoTrack> firstVideoTrack(const QXMovie& movie)
{
    for (const QXTrackRef& track : movie.tracks) {
        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(track)) return video;
    }
    return nullptr;
}

} // namespace

void QXJob::generateChapterImages()
{
    if (!chapters || chapters->chapters.empty()) return;
    auto child = QXProgress::progressWithTotalUnitCount(int64_t(chapters->chapters.size()));

    std::unique_ptr<StillFrames> stills;
    if (movie) {
        if (auto video = firstVideoTrack(*movie)) stills = StillFrames::open(movie->fileURL, video->streamIndex);
    }
    for (const QXChapterRef& chapter : chapters->chapters) {
        std::shared_ptr<QXImage> image = stills ? stills->imageAt(chapter->timestamp) : nullptr;
        if (image) {
            chapter->image = image;
        } else {
            // A missing still does not fail the job; the latest one is kept.
            setError(QXMedia::errorWithDomain(AVFoundationErrorDomain, kNoImageAtTime,
                                              {{NSURLErrorKey, QXValue(movie ? movie->fileURL : QXURL())}}));
        }
        child->setCompletedUnitCount(child->completedUnitCount() + 1);
    }
}
