#pragma once
/// @file
/// Subtitle tracks, text and bitmap, and the forced and formatting bits of a
/// timed-text description's display flags.

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXVisualTrack.h"

class QXVideoTrack;

/// Bits of a tx3g description's display flags.
constexpr uint32_t QXSubtitleObeyFormattingFlag = 0x20000000; ///< The text keeps its own placement and style.
constexpr uint32_t QXSubtitleSomeSamplesForced = 0x40000000;  ///< Some samples are forced: shown with subtitles off.
constexpr uint32_t QXSubtitleAllSamplesForced = 0x80000000;   ///< Every sample is forced.

/// A text subtitle track and, at the same time, the model of a 3GPP
/// timed-text (tx3g) sample description.
class QX_EXPORT QXSubtitleTrack : public QXVisualTrack {
public:
    /// A disabled 3GPP text track named "Subtitle Track" (localised) in
    /// alternate group 2, without its output queue; hosts call init().
    QXSubtitleTrack();
    /// A new subtitle track with its output queue; never null.
    static std::shared_ptr<QXSubtitleTrack> init();
    /// Imports a text subtitle stream. It is forced when the stream is marked
    /// so or its title holds "forced"; its name becomes "Subtitle Track" and
    /// its offset 0; a 3GPP text stream also gives its description. Never fails.
    static std::shared_ptr<QXSubtitleTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                  QXErrorRef* error = nullptr);
    /// A new subtitle track with the fields of `track` that carry over; of a
    /// text subtitle track also its description, encoding and forced track.
    static std::shared_ptr<QXSubtitleTrack> initWithTrack(const QXTrack& track);
    /// A new subtitle track like this one, as initWithTrack() makes it.
    std::shared_ptr<QXTrack> copy() const override;
    /// The archive name; an archive keeps the base track's keys only.
    std::string className() const override { return "QXSubtitleTrack"; }
    /// A subtitle track from an archive; the description keeps its initial values.
    static std::shared_ptr<QXSubtitleTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXSubtitleTrack>(coder); }

    ///@{
    /// Justification of the text in its box, horizontal and vertical: 0 left
    /// or top, 1 centre, 255 (-1) right or bottom.
    uint8_t horizontal_justification = 1;
    uint8_t vertical_justification = 255;
    ///@}
    ///@{
    /// Background colour, red, green, blue and alpha from 0 to 255;
    /// transparent by default.
    uint8_t bg_color_red = 0, bg_color_green = 0, bg_color_blue = 0, bg_color_alpha = 0;
    ///@}
    uint8_t font_size = 24; ///< Font size in pixels.
    ///@{
    /// Text colour, red, green, blue and alpha from 0 to 255; opaque white
    /// by default.
    uint8_t font_color_red = 255, font_color_green = 255, font_color_blue = 255, font_color_alpha = 255;
    ///@}
    ///@{
    /// The default text box in pixels of the track's area: top, left, bottom, right.
    uint16_t defTextBoxTop = 0, defTextBoxLeft = 0, defTextBoxBottom = 0, defTextBoxRight = 0;
    ///@}
    uint16_t font_id = 1;      ///< Id of the text's font in the description's font table.
    uint32_t displayFlags = 0; ///< The description's display flags, the QXSubtitle* bits among them.
    /// The encoding of the source's subtitle text, by the platform's numbers
    /// (4 is UTF-8); a subtitle file opened on its own has it detected.
    uint64_t encoding = 4; // UTF-8
    /// The track with only the forced subtitles of this one's language (an
    /// MP4 "forc" reference).
    std::shared_ptr<QXSubtitleTrack> forced_track;

    /// Whether the text keeps its own placement and style (QXSubtitleObeyFormattingFlag).
    bool obeySubtitleFormatting() const { return displayFlags & QXSubtitleObeyFormattingFlag; }
    /// Sets or clears QXSubtitleObeyFormattingFlag.
    void setObeySubtitleFormatting(bool obey);
    /// QXSubtitleAllSamplesForced, QXSubtitleSomeSamplesForced or 0.
    uint32_t forcedFlag() const;
    /// Sets the forced bits for one of those three values (all samples sets
    /// both bits); any other value clears them.
    void setForcedFlag(uint32_t flag);

    /// Reads a tx3g sample description (at least 30 bytes), from the display
    /// flags on, as FFmpeg keeps it; shorter data changes nothing.
    void parseExtradata(const uint8_t* data, uint32_t size);
    /// Covers the picture (obeying formatting) or a strip at its bottom, 15%
    /// of the picture's height, placed by the video's transform.
    void adjustForVideoTrack(const QXVideoTrack& video);

    /// 3GPP timed text only.
    bool isMuxable() const override;
    /// Text subtitle codecs, and codecs not known as bitmap subtitles.
    bool isEncodable() const override;
    /// Also the fields of the tx3g description, when the track has one.
    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;
    /// The forced-only reference; a null forced_track removes it.
    bool writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    /// Adds the forced marks and the description of a 3GPP text stream.
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    /// Adds the description, encoding and forced track when `other` is text subtitles.
    void copyFrom(const QXTrack& other) override;
};

/// A bitmap subtitle stream (DVD, Blu-ray, ...), which has no timed-text
/// description; a plan turns it into a timed-text track.
class QX_EXPORT QXBitmapSubtitleTrack : public QXVisualTrack {
public:
    /// The same defaults as a text subtitle track, without output queue;
    /// hosts call init().
    QXBitmapSubtitleTrack();
    /// A new bitmap subtitle track with its output queue; never null.
    static std::shared_ptr<QXBitmapSubtitleTrack> init();
    /// Imports a bitmap subtitle stream, forced as a text one is. Never fails.
    static std::shared_ptr<QXBitmapSubtitleTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                        QXErrorRef* error = nullptr);
    /// A new bitmap subtitle track with the fields of `track` that carry
    /// over, and its forced track; not its forcedFlag.
    static std::shared_ptr<QXBitmapSubtitleTrack> initWithTrack(const QXTrack& track);
    /// A new bitmap subtitle track like this one, as initWithTrack() makes it.
    std::shared_ptr<QXTrack> copy() const override;
    /// The archive name; an archive keeps the base track's keys only.
    std::string className() const override { return "QXBitmapSubtitleTrack"; }
    /// A bitmap subtitle track from an archive.
    static std::shared_ptr<QXBitmapSubtitleTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXBitmapSubtitleTrack>(coder); }

    /// The track with only the forced subtitles of this one's language.
    std::shared_ptr<QXSubtitleTrack> forced_track;
    uint64_t forcedFlag = 0; ///< QXSubtitleAllSamplesForced for a forced stream, else 0.
    /// Always false: a bitmap has no text placement to keep.
    bool obeySubtitleFormatting() const { return false; }

protected:
    /// Adds the forced mark.
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    /// Adds the forced track when `other` is bitmap subtitles.
    void copyFrom(const QXTrack& other) override;
};
