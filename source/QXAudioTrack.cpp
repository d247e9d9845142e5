#include "qxmedia/source/QXAudioTrack.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXTimeFormat.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "qxmedia/source/QXSubtitleTrack.h"

using namespace qx;

namespace {

bool containsIgnoringCase(const std::string& text, const char* word)
{
    return strcasestr(text.c_str(), word) != nullptr;
}

bool isDolby(int32_t codec)
{
    return codec == AV_CODEC_ID_AC3 || codec == AV_CODEC_ID_EAC3;
}

} // namespace

QXAudioTrack::QXAudioTrack()
{
    name = QXLocalizedString("Audio Track");
    alternate_group = 1;
}

std::shared_ptr<QXAudioTrack> QXAudioTrack::init()
{
    return makeNew<QXAudioTrack>();
}

std::shared_ptr<QXAudioTrack> QXAudioTrack::initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                  QXErrorRef* error)
{
    return importNew<QXAudioTrack>(context, streamIndex, error);
}

std::shared_ptr<QXAudioTrack> QXAudioTrack::initWithTrack(const QXTrack& track)
{
    return copyNew<QXAudioTrack>(track);
}

std::shared_ptr<QXTrack> QXAudioTrack::copy() const
{
    return copyNew<QXAudioTrack>(*this);
}

bool QXAudioTrack::importStream(AVFormatContext* context, int index, QXErrorRef* error)
{
    if (!QXTrack::importStream(context, index, error)) return false;
    AVStream* stream = context->streams[index];
    AVCodecParameters* parameters = stream->codecpar;

    channels = parameters->ch_layout.nb_channels;
    channel_layout = parameters->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? parameters->ch_layout.u.mask : 0;
    if (auto entry = av_dict_get(stream->metadata, "volume", nullptr, 0)) {
        // The MP4 8.8 fixed-point value.
        if (int value = std::atoi(entry->value)) volume = float(value) / 256.0f;
    }
    sample_rate = uint32_t(std::max(0, parameters->sample_rate));
    samples_per_frame = parameters->frame_size >= 1 ? uint64_t(parameters->frame_size) : UINT64_MAX;
    profile = parameters->profile;
    detectAudioServiceType();
    readServiceTypeSideData(context, index);
    return true;
}

void QXAudioTrack::readServiceTypeSideData(const AVFormatContext* context, int index)
{
    const AVStream* stream = context->streams[index];
    for (int i = 0; i < stream->nb_side_data; ++i) {
        const AVPacketSideData& side = stream->side_data[i];
        if (side.type != AV_PKT_DATA_AUDIO_SERVICE_TYPE) {
            QXLogInfo("Unknwon side data type: %d", int(side.type));
        } else if (side.size >= 4) {
            int32_t value;
            std::memcpy(&value, side.data, sizeof value);
            audio_service_type = value;
        } else {
            QXLogWarning("Invalid data!");
        }
    }
}

void QXAudioTrack::copyFrom(const QXTrack& other)
{
    QXTrack::copyFrom(other);
    const auto* audio = dynamic_cast<const QXAudioTrack*>(&other);
    if (!audio) return;
    channels = audio->channels;
    volume = audio->volume;
    sample_rate = audio->sample_rate;
    audio_service_type = audio->audio_service_type;
    profile = audio->profile;
    channel_layout = audio->channel_layout;
    samples_per_frame = audio->samples_per_frame;
    fallback_track = audio->fallback_track;
    subtitle_track = audio->subtitle_track;
}

void QXAudioTrack::detectAudioServiceType()
{
    if (containsIgnoringCase(name, "comment")) {
        audio_service_type = AV_AUDIO_SERVICE_TYPE_COMMENTARY;
    } else if (containsIgnoringCase(name, "karaoke")) {
        audio_service_type = AV_AUDIO_SERVICE_TYPE_KARAOKE;
    }
}

bool QXAudioTrack::isMuxable() const
{
    return codec_id == AV_CODEC_ID_AAC && channels <= 2 && !extradata.empty() && sample_rate <= 48000;
}

bool QXAudioTrack::isEncodable() const
{
    return sample_rate != 0;
}

std::string QXAudioTrack::displayDescription() const
{
    std::string text = format();
    if (profile != -99) {
        if (const char* profileName = avcodec_profile_name(AVCodecID(codec_id), profile)) {
            text += " (" + std::string(profileName) + ")";
        }
    }
    if (!isDolby(codec_id)) {
        if (channel_layout != 0) {
            char buffer[64] = {};
            AVChannelLayout layout {};
            av_channel_layout_from_mask(&layout, channel_layout);
            av_channel_layout_describe(&layout, buffer, sizeof buffer);
            av_channel_layout_uninit(&layout);
            text += ", " + std::string(buffer);
        } else {
            text += ", " + std::to_string(channels) + " ch";
        }
    }
    if (CMTIME_IS_VALID(duration)) text += ", " + CMTimeCopySmpteDescription(duration);
    if (bitrate >= 1000) text += ", " + std::to_string(bitrate / 1000) + "kbps";
    if (naturalTimeScale != 0) text += ", " + std::to_string(sample_rate) + "Hz";
    return text;
}

bool QXAudioTrack::writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error)
{
    if (isDolby(codec_id) &&
        !writeTrackAssociation(AVTrackAssociationTypeAudioFallback, fallback_track.get(), file, error)) {
        return false;
    }
    return writeTrackAssociation(AVTrackAssociationTypeSelectionFollower, subtitle_track.get(), file, error);
}
