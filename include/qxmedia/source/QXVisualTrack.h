#pragma once

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXTrack.h"

/// An affine transform as the platform describes it: [a b; c d] plus (tx, ty).
struct QXAffineTransform {
    ///@{
    /// The matrix [a b; c d] and the shift (tx, ty) in pixels; the identity
    /// by default.
    double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
    ///@}
    /// Equal in all six values.
    bool operator==(const QXAffineTransform&) const = default;
};

/// A track with picture geometry (video and subtitles).
class QX_EXPORT QXVisualTrack : public QXTrack {
public:
    ///@{
    /// Size of the track's picture in pixels: for video the stored size,
    /// before the pixel aspect; for subtitles the text area.
    uint64_t width = 0;
    uint64_t height = 0;
    ///@}
    /// Placement of the picture (the MP4 track matrix). Only the integer
    /// parts of its six values pass, read unsigned (a -1 in a file reads as
    /// 65535) and written back the same way, so a matrix survives unchanged.
    QXAffineTransform transform;

    /// The base fields and the matrix from `transform`; the matrix's other
    /// three words stay as they are in the file.
    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    /// Adds size and transform (from the stream's display matrix).
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    /// Adds size and transform when `other` is visual.
    void copyFrom(const QXTrack& other) override;
};
