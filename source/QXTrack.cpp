#include "qxmedia/source/QXTrack.h"

#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXLocale.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXTimeFormat.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXStreamProbe.h"

using namespace qx;

const char AVMediaTypeVideo[] = "vide";
const char AVMediaTypeAudio[] = "soun";
const char AVMediaTypeSubtitle[] = "sbtl";
const char AVTrackAssociationTypeChapterList[] = "chap";
const char AVTrackAssociationTypeAudioFallback[] = "fall";
const char AVTrackAssociationTypeSelectionFollower[] = "folw";
const char AVTrackAssociationTypeForcedSubtitlesOnly[] = "forc";

namespace {

// The fan-out only smooths hand-overs: the outputs behind it hold the
// read-ahead. A deep fan-out in front of an encoder would let the read loop
// run seconds ahead of it, with the copied video waiting in the muxer.
constexpr long kOutputsInFlight = 32;

bool isValidUTF8(std::string_view text)
{
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t extra = lead < 0x80 ? 0 : (lead >> 5) == 6 ? 1 : (lead >> 4) == 14 ? 2 : (lead >> 3) == 30 ? 3 : 9;
        if (extra == 9 || text.size() - i <= extra) return false;
        for (size_t k = 1; k <= extra; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
        }
        i += extra + 1;
    }
    return true;
}

// Stream metadata keys that the import knows; anything else is logged.
bool isKnownMetadataKey(std::string_view key)
{
    static const std::set<std::string_view> known = {
        "alternate_group", "chap", "codec_id", "creation_time", "encoder", "fall", "folw", "forc", "flags",
        "handler_name", "language", "layer", "rotate", "title", "volume"};
    static const std::set<std::string_view> statistics = {
        "BPS", "DURATION", "NUMBER_OF_FRAMES", "NUMBER_OF_BYTES", "_STATISTICS_WRITING_APP",
        "_STATISTICS_WRITING_DATE_UTC", "_STATISTICS_TAGS"};
    if (known.count(key) || statistics.count(key)) return true;
    constexpr std::string_view suffix = "-eng";
    return key.size() > suffix.size() && key.substr(key.size() - suffix.size()) == suffix &&
           statistics.count(key.substr(0, key.size() - suffix.size()));
}

const char* sideDataName(int type)
{
    switch (type) {
    case 0: return "AV_PKT_DATA_PALETTE";
    case 1: return "AV_PKT_DATA_NEW_EXTRADATA";
    case 2: return "AV_PKT_DATA_PARAM_CHANGE";
    case 3: return "AV_PKT_DATA_H263_MB_INFO";
    case 4: return "AV_PKT_DATA_REPLAYGAIN";
    case 6: return "AV_PKT_DATA_STEREO3D";
    case 11: return "AV_PKT_DATA_SKIP_SAMPLES";
    case 12: return "AV_PKT_DATA_JP_DUALMONO";
    case 13: return "AV_PKT_DATA_STRINGS_METADATA";
    case 14: return "AV_PKT_DATA_SUBTITLE_POSITION";
    case 15: return "AV_PKT_DATA_MATROSKA_BLOCKADDITIONAL";
    case 16: return "AV_PKT_DATA_WEBVTT_IDENTIFIER";
    case 17: return "AV_PKT_DATA_WEBVTT_SETTINGS";
    case 18: return "AV_PKT_DATA_METADATA_UPDATE";
    default: return nullptr;
    }
}

std::string errorText(int code)
{
    char buffer[64] = {};
    av_strerror(code, buffer, sizeof buffer);
    return buffer;
}

} // namespace

void QXTrack::CodecParametersDeleter::operator()(AVCodecParameters* parameters) const
{
    avcodec_parameters_free(&parameters);
}

QXTrack::QXTrack()
    : outSemaphore(dispatch_semaphore_create_batched(kOutputsInFlight, kOutputsInFlight / 4)), codecParameters_(avcodec_parameters_alloc())
{
}

QXTrack::~QXTrack() = default;

std::shared_ptr<QXTrack> QXTrack::init()
{
    return makeNew<QXTrack>();
}

std::shared_ptr<QXTrack> QXTrack::initWithFormatContext(AVFormatContext* context, int streamIndex, QXErrorRef* error)
{
    return importNew<QXTrack>(context, streamIndex, error);
}

std::shared_ptr<QXTrack> QXTrack::copy() const
{
    return copyNew<QXTrack>(*this);
}

void QXTrack::finishInit()
{
    outQueue = dispatch_queue_create((description() + " output queue").c_str(), DISPATCH_QUEUE_SERIAL);
}

bool QXTrack::importStream(AVFormatContext* context, int index, QXErrorRef*)
{
    AVStream* stream = context->streams[index];
    AVCodecParameters* parameters = stream->codecpar;

    if (avcodec_find_decoder(parameters->codec_id)) {
        if (int rc = avcodec_parameters_copy(codecParameters_.get(), parameters); rc < 0) {
            QXLogWarning("%s Failed to copy codec parameters: %s", __func__, errorText(rc).c_str());
        }
    } else {
        QXLogWarning("Could not find necessary decoder for codec id %d (%s, type: %d)!", parameters->codec_id,
                     avcodec_get_name(parameters->codec_id), avcodec_get_type(parameters->codec_id));
    }

    streamIndex = stream->index;
    trackID = stream->id;
    codec_id = parameters->codec_id;
    reader = QXTrackReader::initWithTrack(shared_from_this());

    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(stream->metadata, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        if (!isKnownMetadataKey(entry->key)) {
            QXLogInfo("%s: unknown metadata item %s: %s", description().c_str(), entry->key, entry->value);
        }
    }
    if (auto title = av_dict_get(stream->metadata, "title", nullptr, 0); title && isValidUTF8(title->value)) {
        name = title->value;
    }
    if (auto lang = av_dict_get(stream->metadata, "language", nullptr, 0)) {
        if (std::string code = ff_convert_lang_to(lang->value, AV_LANG_ISO639_1); !code.empty()) {
            language = code;
        }
    }
    auto integer = [&](const char* key) -> int {
        auto found = av_dict_get(stream->metadata, key, nullptr, 0);
        return found ? std::atoi(found->value) : 0;
    };
    if (int value = integer("flags")) setFlags(uint32_t(value));
    if (int value = integer("layer")) layer = value;
    if (int value = integer("alternate_group")) alternate_group = uint64_t(value);
    if (stream->disposition & AV_DISPOSITION_DEFAULT) enabled = true;

    const int64_t firstDTS = QXStreamProbe::firstDTS(context, index);
    if (firstDTS != AV_NOPTS_VALUE) offset = firstDTS;
    if (stream->start_time != AV_NOPTS_VALUE) offset -= stream->start_time;

    if (stream->duration != AV_NOPTS_VALUE) {
        duration = CMTimeMake(stream->duration * stream->time_base.num, stream->time_base.den);
    } else if (context->duration != AV_NOPTS_VALUE) {
        duration = CMTimeMake(context->duration, AV_TIME_BASE);
    }

    naturalTimeScale = stream->time_base.den;
    bitrate = uint32_t(parameters->bit_rate);
    if (parameters->extradata_size > 0) {
        extradata.assign(parameters->extradata, parameters->extradata + parameters->extradata_size);
    }

    for (int i = 0; i < stream->nb_side_data; ++i) {
        const int type = stream->side_data[i].type;
        if (type == AV_PKT_DATA_DISPLAYMATRIX || type == AV_PKT_DATA_AUDIO_SERVICE_TYPE) continue;
        if (const char* known = sideDataName(type)) {
            QXLogVerbose("%s", known);
        } else {
            QXLogInfo("Unknwon side data type: %d", type);
        }
    }
    return true;
}

void QXTrack::copyFrom(const QXTrack& other)
{
    codec_id = other.codec_id;
    name = other.name;
    language = other.language;
    enabled = other.enabled;
    in_movie = other.in_movie;
    in_preview = other.in_preview;
    layer = other.layer;
    alternate_group = other.alternate_group;
    offset = other.offset;
    duration = other.duration;
    naturalTimeScale = other.naturalTimeScale;
    bitrate = other.bitrate;
    extradata = other.extradata;
}

uint32_t QXTrack::flags() const
{
    return uint32_t(enabled) | uint32_t(in_movie) << 1 | uint32_t(in_preview) << 2;
}

void QXTrack::setFlags(uint32_t flags)
{
    enabled = flags & 1;
    in_movie = flags & 2;
    in_preview = flags & 4;
}

std::string QXTrack::format() const
{
    switch (codec_id) {
    case AV_CODEC_ID_H264: return "H.264";
    case AV_CODEC_ID_HEVC: return "HEVC";
    case AV_CODEC_ID_AAC: return "AAC";
    case AV_CODEC_ID_AC3: return "Dolby Digital (AC-3)";
    case AV_CODEC_ID_EAC3: return "Dolby Digital Plus (E-AC-3)";
    case AV_CODEC_ID_MOV_TEXT: return "3GPP";
    case QXCodecIDFairPlayVideo: return "FairPlay Video";
    case QXCodecIDFairPlayAudio: return "FairPlay Audio";
    case QXCodecIDFairPlayText: return "FairPlay Text";
    case AV_CODEC_ID_NONE: return "Unknown";
    default: break;
    }
    if (const AVCodec* decoder = avcodec_find_decoder(AVCodecID(codec_id))) {
        return decoder->long_name && *decoder->long_name ? decoder->long_name : decoder->name;
    }
    return avcodec_get_name(AVCodecID(codec_id));
}

QXMediaType QXTrack::mediaType() const
{
    if (codec_id == QXCodecIDFairPlayVideo || codec_id == QXCodecIDFairPlayAudio || codec_id == QXCodecIDFairPlayText) {
        return nullptr;
    }
    switch (avcodec_get_type(AVCodecID(codec_id))) {
    case AVMEDIA_TYPE_VIDEO: return AVMediaTypeVideo;
    case AVMEDIA_TYPE_AUDIO: return AVMediaTypeAudio;
    case AVMEDIA_TYPE_SUBTITLE: return AVMediaTypeSubtitle;
    default: return nullptr;
    }
}

std::string QXTrack::displayDescription() const
{
    std::string text = format();
    if (CMTIME_IS_VALID(duration)) text += ", " + CMTimeCopySmpteDescription(duration);
    if (bitrate >= 1000) text += ", " + std::to_string(bitrate / 1000) + "kbps";
    return text;
}

std::string QXTrack::displayLanguage() const
{
    if (language.empty()) return "Unknown";
    const std::string code = ff_convert_lang_to(language, AV_LANG_ISO639_1);
    if (code.empty()) return "Unknown";
    std::string display = QXLocale::currentLocale()->localizedStringForLanguageCode(code);
    return display.empty() ? language : display;
}

std::string QXTrack::description() const
{
    return "<" + std::string(className()) + " stream " + std::to_string(streamIndex) + ", track " +
           std::to_string(trackID) + ", " + format() + ">";
}

bool QXTrack::isMuxable() const
{
    return false;
}

bool QXTrack::isEncodable() const
{
    return true;
}

void QXTrack::processSample(const CMSampleBufferRef& sample)
{
    if (reader) {
        reader->processSample(sample);
    } else {
        outputSample(sample);
    }
}

void QXTrack::outputSample(const CMSampleBufferRef& sample)
{
    // A single output needs no fan-out: its own queue (256 samples) holds
    // the read loop back, and the hop would cost a hand-over per sample.
    if (outputs.size() == 1) {
        outputs.front()->outputSample(sample);
        return;
    }
    // At most 32 samples of a track wait for the fan-out; a slow output
    // stops the read loop here.
    if (dispatch_semaphore_wait(outSemaphore, DISPATCH_TIME_NOW) != 0) {
        // Samples the read loop holds for other outputs must not wait
        // behind this one.
        QXTrackReaderOutput::Run::handOnCurrent();
        dispatch_semaphore_wait(outSemaphore, DISPATCH_TIME_FOREVER);
    }
    auto self = shared_from_this();
    dispatch_async(outQueue, [self, sample] {
        for (const auto& output : self->outputs) output->outputSample(sample);
        dispatch_semaphore_signal(self->outSemaphore);
    });
}

void QXTrack::addOutput(std::shared_ptr<QXTrackReaderOutput> output)
{
    outputs.push_back(std::move(output));
}
