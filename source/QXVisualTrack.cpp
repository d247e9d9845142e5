#include "qxmedia/source/QXVisualTrack.h"

#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXMedia.h"

bool QXVisualTrack::importStream(AVFormatContext* context, int index, QXErrorRef* error)
{
    if (!QXTrack::importStream(context, index, error)) return false;
    AVStream* stream = context->streams[index];
    width = uint64_t(std::max(0, stream->codecpar->width));
    height = uint64_t(std::max(0, stream->codecpar->height));

    size_t size = 0;
    const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (!matrix || size == 0) return true;
    if (size != 36) {
        QXLogWarning("Invalid display matrix size: %d", int(size));
        return true;
    }
    // Words 0, 1, 3, 4, 6, 7 of the tkhd matrix. FFmpeg hands them over as
    // native 32-bit integers (it has already converted the file's big-endian
    // words). Their upper halves are the integer parts, taken unsigned; the
    // writing side undoes exactly this, so a matrix passes through unchanged
    // in its integer part.
    auto upper = [&](int word) {
        int32_t value;
        std::memcpy(&value, matrix + 4 * word, sizeof value);
        return double(uint32_t(value) >> 16);
    };
    transform = QXAffineTransform {upper(0), upper(1), upper(3), upper(4), upper(6), upper(7)};
    return true;
}

void QXVisualTrack::copyFrom(const QXTrack& other)
{
    QXTrack::copyFrom(other);
    if (const auto* visual = dynamic_cast<const QXVisualTrack*>(&other)) {
        width = visual->width;
        height = visual->height;
        transform = visual->transform;
    }
}
