#pragma once
// QXSubtitleTrack: a text subtitle track and, at the same time, the model of
// a 3GPP timed-text (tx3g) sample description. QXBitmapSubtitleTrack: a
// bitmap subtitle stream, which has no such description.

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXVisualTrack.h"

class QXVideoTrack;

// Bits of a tx3g description's display flags.
constexpr uint32_t QXSubtitleObeyFormattingFlag = 0x20000000;
constexpr uint32_t QXSubtitleSomeSamplesForced = 0x40000000;
constexpr uint32_t QXSubtitleAllSamplesForced = 0x80000000;

class QX_EXPORT QXSubtitleTrack : public QXVisualTrack {
public:
    QXSubtitleTrack();
    static std::shared_ptr<QXSubtitleTrack> init();
    static std::shared_ptr<QXSubtitleTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                  QXErrorRef* error = nullptr);
    static std::shared_ptr<QXSubtitleTrack> initWithTrack(const QXTrack& track);
    std::shared_ptr<QXTrack> copy() const override;
    std::string className() const override { return "QXSubtitleTrack"; }
    static std::shared_ptr<QXSubtitleTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXSubtitleTrack>(coder); }

    uint8_t horizontal_justification = 1;
    uint8_t vertical_justification = 255;
    uint8_t bg_color_red = 0, bg_color_green = 0, bg_color_blue = 0, bg_color_alpha = 0;
    uint8_t font_size = 24;
    uint8_t font_color_red = 255, font_color_green = 255, font_color_blue = 255, font_color_alpha = 255;
    uint16_t defTextBoxTop = 0, defTextBoxLeft = 0, defTextBoxBottom = 0, defTextBoxRight = 0;
    uint16_t font_id = 1;
    uint32_t displayFlags = 0;
    uint64_t encoding = 4; // UTF-8
    std::shared_ptr<QXSubtitleTrack> forced_track;

    bool obeySubtitleFormatting() const { return displayFlags & QXSubtitleObeyFormattingFlag; }
    void setObeySubtitleFormatting(bool obey);
    uint32_t forcedFlag() const;
    void setForcedFlag(uint32_t flag);

    // Reads a tx3g sample description (at least 30 bytes).
    void parseExtradata(const uint8_t* data, uint32_t size);
    // Covers the picture (obeying formatting) or a strip at its bottom.
    void adjustForVideoTrack(const QXVideoTrack& video);

    bool isMuxable() const override;
    bool isEncodable() const override;
    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;
    bool writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    void copyFrom(const QXTrack& other) override;
};

class QX_EXPORT QXBitmapSubtitleTrack : public QXVisualTrack {
public:
    QXBitmapSubtitleTrack();
    static std::shared_ptr<QXBitmapSubtitleTrack> init();
    static std::shared_ptr<QXBitmapSubtitleTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                        QXErrorRef* error = nullptr);
    static std::shared_ptr<QXBitmapSubtitleTrack> initWithTrack(const QXTrack& track);
    std::shared_ptr<QXTrack> copy() const override;
    std::string className() const override { return "QXBitmapSubtitleTrack"; }
    static std::shared_ptr<QXBitmapSubtitleTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXBitmapSubtitleTrack>(coder); }

    std::shared_ptr<QXSubtitleTrack> forced_track;
    uint64_t forcedFlag = 0;
    bool obeySubtitleFormatting() const { return false; }

protected:
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    void copyFrom(const QXTrack& other) override;
};
