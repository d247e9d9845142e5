#pragma once
// The first decode time of every stream of an open input.
//
// FFmpeg keeps a stream's first DTS to itself. After avformat_find_stream_info
// the packets it read while probing are still buffered in the context, so
// reading packets now returns those first, without touching the file again,
// and the first packet of each stream carries the value. Reading stops when
// every stream has one or after a bound; the input is then rewound. The
// probe lives in the context's opaque pointer while the movie opens, so a
// track's import can ask for it with nothing but the context.

#include <cstdint>
#include <vector>

struct AVFormatContext;

class QXStreamProbe {
public:
    // Reads the first DTS of every stream and attaches the probe to the
    // context (context->opaque) until it is destroyed.
    explicit QXStreamProbe(AVFormatContext* context);
    ~QXStreamProbe();
    QXStreamProbe(const QXStreamProbe&) = delete;
    QXStreamProbe& operator=(const QXStreamProbe&) = delete;

    // AV_NOPTS_VALUE when the stream showed no packet with a DTS, or when no
    // probe is attached.
    static int64_t firstDTS(const AVFormatContext* context, int streamIndex);

private:
    AVFormatContext* context_;
    void* previousOpaque_;
    std::vector<int64_t> firstDTS_;
};
