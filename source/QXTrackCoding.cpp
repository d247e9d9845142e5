// Keyed archives of the track tree. Every class archives the same keys, the
// base track's; an archived track of any class keeps only these fields.

#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"

QX_REGISTER_CODING_CLASS(QXTrack);
QX_REGISTER_CODING_CLASS(QXVideoTrack);
QX_REGISTER_CODING_CLASS(QXAudioTrack);
QX_REGISTER_CODING_CLASS(QXAC3AudioTrack);
QX_REGISTER_CODING_CLASS(QXEAC3AudioTrack);
QX_REGISTER_CODING_CLASS(QXSubtitleTrack);
QX_REGISTER_CODING_CLASS(QXBitmapSubtitleTrack);

void QXTrack::encodeWithCoder(QXKeyedArchiver& coder) const
{
    coder.encodeInt(streamIndex, "streamIndex");
    coder.encodeInt(trackID, "trackID");
    if (!sourceURL.empty()) coder.encodeObject(QXValue(sourceURL), "sourceURL");
    coder.encodeInt64(codec_id, "codec_id");
    coder.encodeObject(QXValue(name), "name");
    coder.encodeObject(QXValue(language), "language");
    coder.encodeInteger(flags(), "flags");
    coder.encodeInteger(layer, "layer");
    coder.encodeInteger(int64_t(alternate_group), "alternate_group");
    coder.encodeInteger(offset, "offset");
    coder.encodeCMTime(duration, "duration");
    coder.encodeInteger(naturalTimeScale, "naturalTimeScale");
    coder.encodeInteger(bitrate, "bitrate");
    if (!extradata.empty()) coder.encodeObject(QXValue(extradata), "extradata");
}

std::shared_ptr<QXTrack> QXTrack::initWithCoder(QXKeyedUnarchiver& coder)
{
    return decodeNew<QXTrack>(coder);
}

void QXTrack::decodeFrom(QXKeyedUnarchiver& coder)
{
    streamIndex = coder.decodeInt("streamIndex", streamIndex);
    trackID = coder.decodeInt("trackID");
    if (const QXValue url = coder.decodeObject("sourceURL"); url.url()) sourceURL = *url.url();
    codec_id = int32_t(coder.decodeInt64("codec_id"));
    if (const QXValue text = coder.decodeObject("name"); text.string()) name = *text.string();
    if (const QXValue text = coder.decodeObject("language"); text.string()) language = *text.string();
    setFlags(uint32_t(coder.decodeInteger("flags", flags())));
    layer = coder.decodeInteger("layer");
    alternate_group = uint64_t(coder.decodeInteger("alternate_group", int64_t(alternate_group)));
    offset = coder.decodeInteger("offset");
    duration = coder.decodeCMTime("duration");
    naturalTimeScale = coder.decodeInt("naturalTimeScale");
    bitrate = uint32_t(coder.decodeInteger("bitrate"));
    if (const QXValue data = coder.decodeObject("extradata"); data.data()) extradata = *data.data();
}
