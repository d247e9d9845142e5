#include "qxmedia/source/QXStreamProbe.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {
// Enough for every stream of a normal file to show up; a stream that stays
// silent longer keeps no first DTS (its offset then comes from start_time).
constexpr int kMaxPackets = 2000;
constexpr int64_t kMaxBytes = 64 << 20;
} // namespace

QXStreamProbe::QXStreamProbe(AVFormatContext* context)
    : context_(context), previousOpaque_(context->opaque), firstDTS_(context->nb_streams, AV_NOPTS_VALUE)
{
    size_t missing = firstDTS_.size();
    AVPacket* packet = av_packet_alloc();
    int64_t bytes = 0;
    for (int count = 0; packet && missing > 0 && count < kMaxPackets && bytes < kMaxBytes; ++count) {
        if (av_read_frame(context, packet) < 0) break;
        const auto index = size_t(packet->stream_index);
        bytes += packet->size;
        if (index < firstDTS_.size() && firstDTS_[index] == AV_NOPTS_VALUE && packet->dts != AV_NOPTS_VALUE) {
            firstDTS_[index] = packet->dts;
            --missing;
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    // Back to the start for whoever reads next; a demuxer that cannot seek
    // has nobody reading after this anyway except the Dolby analysis, which
    // seeks itself.
    const int64_t start = context->start_time != AV_NOPTS_VALUE ? context->start_time : 0;
    if (avformat_seek_file(context, -1, INT64_MIN, start, start, 0) < 0) {
        av_seek_frame(context, -1, 0, AVSEEK_FLAG_BYTE);
    }
    context->opaque = this;
}

QXStreamProbe::~QXStreamProbe()
{
    context_->opaque = previousOpaque_;
}

int64_t QXStreamProbe::firstDTS(const AVFormatContext* context, int streamIndex)
{
    const auto* probe = context ? static_cast<const QXStreamProbe*>(context->opaque) : nullptr;
    if (!probe || streamIndex < 0 || size_t(streamIndex) >= probe->firstDTS_.size()) return AV_NOPTS_VALUE;
    return probe->firstDTS_[size_t(streamIndex)];
}
