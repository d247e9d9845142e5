#pragma once
// QXVisualTrack: a track with picture geometry (video and subtitles).

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXTrack.h"

// An affine transform as the platform describes it: [a b; c d] plus (tx, ty).
struct QXAffineTransform {
    double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
    bool operator==(const QXAffineTransform&) const = default;
};

class QX_EXPORT QXVisualTrack : public QXTrack {
public:
    uint64_t width = 0;
    uint64_t height = 0;
    QXAffineTransform transform;

    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    void copyFrom(const QXTrack& other) override;
};
