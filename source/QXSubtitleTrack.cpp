#include "qxmedia/source/QXSubtitleTrack.h"

#include <strings.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

// What text and bitmap subtitle imports share: forced marks from the
// disposition or the title, then the common name.
template <class Track>
void importSubtitleCommon(Track& track, const AVStream* stream, auto setForced)
{
    if (stream->disposition & AV_DISPOSITION_FORCED) setForced(QXSubtitleAllSamplesForced);
    if (strcasestr(track.name.c_str(), "forced")) setForced(QXSubtitleAllSamplesForced);
    track.name = QXLocalizedString("Subtitle Track");
    track.offset = 0;
}

void initSubtitleDefaults(QXVisualTrack& track)
{
    track.name = QXLocalizedString("Subtitle Track");
    track.codec_id = AV_CODEC_ID_MOV_TEXT;
    track.enabled = false;
    track.alternate_group = 2;
}

uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }

} // namespace

QXSubtitleTrack::QXSubtitleTrack()
{
    initSubtitleDefaults(*this);
}

std::shared_ptr<QXSubtitleTrack> QXSubtitleTrack::init()
{
    return makeNew<QXSubtitleTrack>();
}

std::shared_ptr<QXSubtitleTrack> QXSubtitleTrack::initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                        QXErrorRef* error)
{
    return importNew<QXSubtitleTrack>(context, streamIndex, error);
}

std::shared_ptr<QXSubtitleTrack> QXSubtitleTrack::initWithTrack(const QXTrack& track)
{
    return copyNew<QXSubtitleTrack>(track);
}

std::shared_ptr<QXTrack> QXSubtitleTrack::copy() const
{
    return copyNew<QXSubtitleTrack>(*this);
}

bool QXSubtitleTrack::importStream(AVFormatContext* context, int index, QXErrorRef* error)
{
    if (!QXVisualTrack::importStream(context, index, error)) return false;
    importSubtitleCommon(*this, context->streams[index], [this](uint32_t flag) { setForcedFlag(flag); });
    if (codec_id == AV_CODEC_ID_MOV_TEXT && !extradata.empty()) {
        parseExtradata(extradata.data(), uint32_t(extradata.size()));
    }
    return true;
}

void QXSubtitleTrack::copyFrom(const QXTrack& other)
{
    QXVisualTrack::copyFrom(other);
    const auto* subtitle = dynamic_cast<const QXSubtitleTrack*>(&other);
    if (!subtitle) return;
    horizontal_justification = subtitle->horizontal_justification;
    vertical_justification = subtitle->vertical_justification;
    bg_color_red = subtitle->bg_color_red;
    bg_color_green = subtitle->bg_color_green;
    bg_color_blue = subtitle->bg_color_blue;
    bg_color_alpha = subtitle->bg_color_alpha;
    font_size = subtitle->font_size;
    font_color_red = subtitle->font_color_red;
    font_color_green = subtitle->font_color_green;
    font_color_blue = subtitle->font_color_blue;
    font_color_alpha = subtitle->font_color_alpha;
    defTextBoxTop = subtitle->defTextBoxTop;
    defTextBoxLeft = subtitle->defTextBoxLeft;
    defTextBoxBottom = subtitle->defTextBoxBottom;
    defTextBoxRight = subtitle->defTextBoxRight;
    font_id = subtitle->font_id;
    displayFlags = subtitle->displayFlags;
    encoding = subtitle->encoding;
    forced_track = subtitle->forced_track;
}

void QXSubtitleTrack::setObeySubtitleFormatting(bool obey)
{
    displayFlags = obey ? (displayFlags | QXSubtitleObeyFormattingFlag) : (displayFlags & ~QXSubtitleObeyFormattingFlag);
}

uint32_t QXSubtitleTrack::forcedFlag() const
{
    if (displayFlags & QXSubtitleAllSamplesForced) return QXSubtitleAllSamplesForced;
    return displayFlags & QXSubtitleSomeSamplesForced;
}

void QXSubtitleTrack::setForcedFlag(uint32_t flag)
{
    displayFlags &= ~(QXSubtitleAllSamplesForced | QXSubtitleSomeSamplesForced);
    if (flag == QXSubtitleAllSamplesForced) {
        displayFlags |= QXSubtitleAllSamplesForced | QXSubtitleSomeSamplesForced;
    } else if (flag == QXSubtitleSomeSamplesForced) {
        displayFlags |= QXSubtitleSomeSamplesForced;
    }
}

void QXSubtitleTrack::parseExtradata(const uint8_t* data, uint32_t size)
{
    if (size < 30) {
        QXLogWarning("Extradata too short. Expecting >= 30, but got %d", int(size));
        return;
    }
    displayFlags = uint32_t(be16(data)) << 16 | be16(data + 2);
    horizontal_justification = data[4];
    vertical_justification = data[5];
    bg_color_red = data[6];
    bg_color_green = data[7];
    bg_color_blue = data[8];
    bg_color_alpha = data[9];
    defTextBoxTop = be16(data + 10);
    defTextBoxLeft = be16(data + 12);
    defTextBoxBottom = be16(data + 14);
    defTextBoxRight = be16(data + 16);
    font_id = be16(data + 22);
    font_size = data[25];
    font_color_red = data[26];
    font_color_green = data[27];
    font_color_blue = data[28];
    font_color_alpha = data[29];
    QXLogVerbose("Display Flags: %d, HJ: %d, VJ: %d", int(displayFlags), horizontal_justification,
                 vertical_justification);
    QXLogVerbose("BG Color: %d %d %d %d", bg_color_red, bg_color_green, bg_color_blue, bg_color_alpha);
    QXLogVerbose("Defaut Text Box: %d %d %d %d", defTextBoxTop, defTextBoxLeft, defTextBoxBottom, defTextBoxRight);
    // The default style record: first and last character, font, face style, size.
    QXLogVerbose("Font: %d %d %d %d %d", be16(data + 18), be16(data + 20), font_id, data[24], font_size);
    QXLogVerbose("Font Color: %d %d %d %d", font_color_red, font_color_green, font_color_blue, font_color_alpha);
}

void QXSubtitleTrack::adjustForVideoTrack(const QXVideoTrack& video)
{
    if (obeySubtitleFormatting()) {
        width = uint16_t(video.width);
        height = uint16_t(video.height);
        defTextBoxTop = uint16_t(double(video.height) * 0.85);
        defTextBoxLeft = 0;
        defTextBoxBottom = uint16_t(video.height);
        defTextBoxRight = uint16_t(video.width);
        transform = QXAffineTransform {};
    } else {
        width = video.width;
        height = uint64_t(double(video.height) * 0.15);
        defTextBoxTop = defTextBoxLeft = defTextBoxBottom = defTextBoxRight = 0;
        transform = video.transform;
        transform.tx = 0;
        transform.ty = double(video.height) - double(height);
    }
}

bool QXSubtitleTrack::isMuxable() const
{
    return codec_id == AV_CODEC_ID_MOV_TEXT;
}

bool QXSubtitleTrack::isEncodable() const
{
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(AVCodecID(codec_id));
    return descriptor && ((descriptor->props & AV_CODEC_PROP_TEXT_SUB) || !(descriptor->props & AV_CODEC_PROP_BITMAP_SUB));
}

bool QXSubtitleTrack::writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error)
{
    return writeTrackAssociation(AVTrackAssociationTypeForcedSubtitlesOnly, forced_track.get(), file, error);
}

QXBitmapSubtitleTrack::QXBitmapSubtitleTrack()
{
    initSubtitleDefaults(*this);
}

std::shared_ptr<QXBitmapSubtitleTrack> QXBitmapSubtitleTrack::init()
{
    return makeNew<QXBitmapSubtitleTrack>();
}

std::shared_ptr<QXBitmapSubtitleTrack> QXBitmapSubtitleTrack::initWithFormatContext(AVFormatContext* context,
                                                                                    int streamIndex, QXErrorRef* error)
{
    return importNew<QXBitmapSubtitleTrack>(context, streamIndex, error);
}

std::shared_ptr<QXBitmapSubtitleTrack> QXBitmapSubtitleTrack::initWithTrack(const QXTrack& track)
{
    return copyNew<QXBitmapSubtitleTrack>(track);
}

std::shared_ptr<QXTrack> QXBitmapSubtitleTrack::copy() const
{
    return copyNew<QXBitmapSubtitleTrack>(*this);
}

bool QXBitmapSubtitleTrack::importStream(AVFormatContext* context, int index, QXErrorRef* error)
{
    if (!QXVisualTrack::importStream(context, index, error)) return false;
    importSubtitleCommon(*this, context->streams[index], [this](uint32_t flag) { forcedFlag = flag; });
    return true;
}

void QXBitmapSubtitleTrack::copyFrom(const QXTrack& other)
{
    QXVisualTrack::copyFrom(other);
    if (const auto* bitmap = dynamic_cast<const QXBitmapSubtitleTrack*>(&other)) forced_track = bitmap->forced_track;
}
