#pragma once
// QXVideoTrack: what decides whether a video stream can be copied into an
// MP4 unchanged, and what an encoder must be told.

#include <cstdint>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXVisualTrack.h"

struct QXRational {
    int32_t num = 0;
    int32_t den = 1;
};

class QX_EXPORT QXVideoTrack : public QXVisualTrack {
public:
    QXVideoTrack();
    static std::shared_ptr<QXVideoTrack> init();
    static std::shared_ptr<QXVideoTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                               QXErrorRef* error = nullptr);
    static std::shared_ptr<QXVideoTrack> initWithTrack(const QXTrack& track);
    std::shared_ptr<QXTrack> copy() const override;
    std::string className() const override { return "QXVideoTrack"; }
    static std::shared_ptr<QXVideoTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXVideoTrack>(coder); }

    bool brokenByMS = false;
    uint8_t profile = 66;
    uint8_t profile_compat = 0;
    uint8_t level = 20;
    uint8_t encoderPreset = 0;
    uint32_t hSpacing = 1;
    uint32_t vSpacing = 1;
    float display_width = 0;
    float display_height = 0;
    int32_t primariesIndex = 2;
    int32_t transferFunctionIndex = 2;
    int32_t matrixIndex = 2;
    int32_t colorRange = 0;
    int32_t formatFlags = 0;
    QXRational frameRate;
    std::vector<QXData> sps;
    std::vector<QXData> pps;
    QXDictionary encoderOptions;
    double encoderCRF = 0;

    float nominalFrameRate() const { return frameRate.den ? float(frameRate.num) / float(frameRate.den) : 0.f; }
    // JPEG stills on layer 1, in the movie but not enabled.
    bool isChapterImageTrack() const;

    void parseH264Extradata(const uint8_t* data, uint32_t size);

    // The platform's colour constants for the FFmpeg numbers, or null.
    const char* YCbCrMatrix() const;
    const char* transferFunction() const;
    const char* colorPrimaries() const;

    std::string displayDescription() const override;
    bool isMuxable() const override;
    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    void copyFrom(const QXTrack& other) override;
};
