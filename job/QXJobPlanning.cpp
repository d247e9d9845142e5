// Planning a job from its preset: which source tracks go into the output,
// in which order, copied or encoded, which audio gets a stereo companion,
// which track is enabled and how the planned tracks refer to each other.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "qxmedia/core/QXLocale.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

constexpr uint64_t kSurroundLayout = 0x60F; // 5.1: FL FR FC LFE BL BR
constexpr uint32_t kSurroundBitrate = 640000;
constexpr int32_t kMaxVideoTimeScale = 90000;

bool isUpdatePreset(const QXPreset& preset)
{
    return preset.identifier == QXPresetUpdate || preset.identifier == QXPresetUpdateRename;
}

bool isSurroundCodec(int32_t codecId)
{
    return codecId == AV_CODEC_ID_AC3 || codecId == AV_CODEC_ID_EAC3;
}

int mediaTypeNumber(const QXTrack& track)
{
    return avcodec_get_type(AVCodecID(track.codec_id));
}

// Unknown languages get the largest index, so they sort last.
size_t languageRank(const std::string& language)
{
    const std::vector<std::string>& preferred = QXLocale::preferredLanguageCodes();
    return size_t(std::find(preferred.begin(), preferred.end(), language) - preferred.begin());
}

// AAC, then DTS, then AC-3, then every other audio codec by its id.
int64_t audioCodecRank(int32_t codecId)
{
    if (codecId == AV_CODEC_ID_DTS) return AV_CODEC_ID_AC3;
    if (codecId == AV_CODEC_ID_AC3) return AV_CODEC_ID_DTS;
    return codecId;
}

// Negative when a goes first, positive when b does, 0 when either may.
int64_t compareTracks(const QXTrack& a, const QXTrack& b)
{
    const int typeA = mediaTypeNumber(a), typeB = mediaTypeNumber(b);
    if (typeA != typeB) return typeA - typeB;
    const auto* audioA = dynamic_cast<const QXAudioTrack*>(&a);
    const auto* audioB = dynamic_cast<const QXAudioTrack*>(&b);
    const bool bothAudio = audioA && audioB;
    if (bothAudio && audioA->audio_service_type != audioB->audio_service_type) {
        return int64_t(audioA->audio_service_type) - audioB->audio_service_type;
    }
    if ((bothAudio || typeA == AVMEDIA_TYPE_SUBTITLE) && a.language != b.language) {
        const size_t rankA = languageRank(a.language), rankB = languageRank(b.language);
        return rankA == rankB ? 0 : (rankA < rankB ? -1 : 1);
    }
    if (bothAudio) return audioCodecRank(a.codec_id) - audioCodecRank(b.codec_id);
    return int64_t(a.codec_id) - b.codec_id;
}

uint32_t halvedSampleRate(uint32_t sampleRate)
{
    while (sampleRate > 48000) sampleRate >>= 1;
    return sampleRate;
}

QXTrackJobRef findLineWithSource(const std::vector<QXTrackJobRef>& plan, const QXTrack* source)
{
    if (!source) return nullptr;
    for (const QXTrackJobRef& line : plan) {
        if (line->source.get() == source) return line;
    }
    return nullptr;
}

// The planned track that stands for `source`, or null when it has no line.
template <class T>
std::shared_ptr<T> plannedTrackFor(const std::vector<QXTrackJobRef>& plan, const QXTrack* source)
{
    QXTrackJobRef line = findLineWithSource(plan, source);
    return line ? std::dynamic_pointer_cast<T>(line->destination) : nullptr;
}

bool hasForcedFlag(const QXTrack& track)
{
    if (const auto* text = dynamic_cast<const QXSubtitleTrack*>(&track)) return text->forcedFlag() != 0;
    if (const auto* bitmap = dynamic_cast<const QXBitmapSubtitleTrack*>(&track)) return bitmap->forcedFlag != 0;
    return false;
}

std::shared_ptr<QXSubtitleTrack> firstForcedSubtitle(const std::vector<QXTrackJobRef>& plan,
                                                     const std::string& language, const QXTrack* except)
{
    for (const QXTrackJobRef& line : plan) {
        auto text = std::dynamic_pointer_cast<QXSubtitleTrack>(line->destination);
        if (text && text.get() != except && text->language == language && hasForcedFlag(*text)) return text;
    }
    return nullptr;
}

// Builds the plan for one preset; one instance per run of applyPreset.
class Planner {
public:
    Planner(QXJob& job, const QXPreset& preset) : job_(job), preset_(preset) {}

    std::vector<QXTrackJobRef> plan(std::vector<QXTrackRef> sources)
    {
        std::stable_sort(sources.begin(), sources.end(),
                         [](const QXTrackRef& a, const QXTrackRef& b) { return compareTracks(*a, *b) < 0; });
        for (const QXTrackRef& track : sources) planTrack(track);
        finish();
        return std::move(plan_);
    }

private:
    QXJob& job_;
    const QXPreset& preset_;
    std::vector<QXTrackJobRef> plan_;
    bool enabledAudio_ = false;
    std::shared_ptr<QXVideoTrack> outputVideo_;

    void add(const QXTrackRef& source, const QXTrackRef& destination, int64_t type)
    {
        plan_.push_back(QXTrackJob::initWithSource(source, destination, type));
    }

    // Only the first audio track that comes out enabled stays enabled.
    bool claimEnabledAudio(bool wanted)
    {
        const bool enabled = !enabledAudio_ && wanted;
        enabledAudio_ = enabledAudio_ || enabled;
        return enabled;
    }

    bool belongsToMovie(const QXTrackRef& track) const
    {
        return job_.movie && std::find(job_.movie->tracks.begin(), job_.movie->tracks.end(), track) !=
                                 job_.movie->tracks.end();
    }

    void planTrack(const QXTrackRef& track)
    {
        if (track->codec_id == 0) {
            QXLogWarning("Ignoring unknown track %s", track->description().c_str());
            return;
        }
        if (isUpdatePreset(preset_) && belongsToMovie(track)) {
            keep(track);
        } else if (shouldRemux(*track)) {
            remux(track);
        } else {
            encode(track);
        }
    }

    void keep(const QXTrackRef& track)
    {
        auto video = std::dynamic_pointer_cast<QXVideoTrack>(track);
        if (video && video->isChapterImageTrack()) return;
        auto audio = std::dynamic_pointer_cast<QXAudioTrack>(track);
        if (audio && audio->codec_id == AV_CODEC_ID_AAC && audio->enabled) enabledAudio_ = true;

        QXTrackRef copy = track->copy();
        if (video && !outputVideo_) outputVideo_ = std::dynamic_pointer_cast<QXVideoTrack>(copy);
        if (audio && audio->fallback_track) {
            std::static_pointer_cast<QXAudioTrack>(copy)->fallback_track =
                plannedTrackFor<QXAudioTrack>(plan_, audio->fallback_track.get());
        }
        copy->trackID = track->trackID;
        add(track, copy, QXTrackJobTypeKeep);
    }

    bool shouldRemux(const QXTrack& track) const
    {
        if (!track.isMuxable()) return false;
        if (const auto* video = dynamic_cast<const QXVideoTrack*>(&track)) {
            return preset_.allowPassthroughForVideoTrack(*video);
        }
        if (const auto* audio = dynamic_cast<const QXAudioTrack*>(&track)) {
            if (preset_.allowSurroundAudio && audio->channels > 2) return true;
            return audio->channels <= 2 && audio->bitrate <= preset_.audioBitrate;
        }
        return false;
    }

    void remux(const QXTrackRef& track)
    {
        QXTrackRef destination = track->copy();
        auto source = std::dynamic_pointer_cast<QXAudioTrack>(track);
        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(destination);
            video && track->codec_id == AV_CODEC_ID_H264) {
            video->profile = std::min(video->profile, preset_.profile);
            video->level = std::min(video->level, preset_.level);
        }
        if (source && isSurroundCodec(source->codec_id)) {
            auto surround = std::static_pointer_cast<QXAudioTrack>(destination);
            surround->name = QXLocalizedString("Surround Audio");
            if (source->fallback_track) {
                surround->fallback_track = plannedTrackFor<QXAudioTrack>(plan_, source->fallback_track.get());
            } else if (source->isEncodable()) {
                surround->enabled = false;
                auto stereo = stereoTrack(*source);
                add(track, stereo, QXTrackJobTypeEncode);
                surround->fallback_track = stereo;
            }
        }
        if (source) destination->enabled = claimEnabledAudio(track->enabled);
        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(destination)) outputVideo_ = video;
        add(track, destination, QXTrackJobTypeRemux);
    }

    void encode(const QXTrackRef& track)
    {
        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(track)) {
            if (!video->isChapterImageTrack()) encodeVideo(video);
        } else if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(track); audio && audio->isEncodable()) {
            encodeAudio(audio);
        } else if (track->mediaType() == AVMediaTypeSubtitle && track->isEncodable()) {
            if (!outputVideo_) {
                QXLogWarning("Can not add subtitle track %s as video track is not available!",
                             track->description().c_str());
                return;
            }
            plan_.push_back(job_.subtitleTrackJob(track, outputVideo_));
        } else {
            QXLogWarning("Can not encode track: %s", track->description().c_str());
        }
    }

    void encodeVideo(const std::shared_ptr<QXVideoTrack>& source)
    {
        // The source is not shown beside its encoded version.
        source->enabled = false;
        auto video = QXVideoTrack::init();
        const bool hevc =
            preset_.videoCodec == QXPresetVideoCodecHVC1 || preset_.videoCodec == QXPresetVideoCodecHEVCAlias;
        video->codec_id = hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
        video->language = source->language;
        video->offset = source->offset;
        video->naturalTimeScale = std::min(source->naturalTimeScale, kMaxVideoTimeScale);
        video->width = preset_.videoWidthForTrack(*source);
        video->height = preset_.videoHeightForTrack(*source);
        video->hSpacing = preset_.sarWidthForTrack(*source);
        video->vSpacing = preset_.sarHeightForTrack(*source);
        video->display_width = preset_.videoDisplayWidthForTrack(*source);
        video->display_height = preset_.videoDisplayHeightForTrack(*source);
        video->frameRate = source->frameRate;
        video->primariesIndex = source->primariesIndex;
        video->transferFunctionIndex = source->transferFunctionIndex;
        video->matrixIndex = source->matrixIndex;
        video->colorRange = source->colorRange;
        video->profile = preset_.profile;
        video->level = preset_.level;
        video->encoderPreset = preset_.encoderPreset;
        video->encoderOptions = preset_.encoderOptions;
        video->encoderCRF = preset_.encoderCRF;
        add(source, video, QXTrackJobTypeEncode);
        outputVideo_ = video;
    }

    void encodeAudio(const std::shared_ptr<QXAudioTrack>& source)
    {
        auto stereo = stereoTrack(*source);
        add(source, stereo, QXTrackJobTypeEncode);
        if (source->channels < 3 || !preset_.allowSurroundAudio) return;

        auto surround = QXAudioTrack::init();
        surround->name = QXLocalizedString("Surround Audio");
        surround->enabled = false;
        copyAudioIdentity(*source, *surround);
        surround->channel_layout = kSurroundLayout;
        surround->channels = std::popcount(kSurroundLayout);
        surround->codec_id = AV_CODEC_ID_AC3;
        surround->bitrate = kSurroundBitrate;
        surround->fallback_track = stereo;
        add(source, surround, QXTrackJobTypeEncode);
    }

    std::shared_ptr<QXAudioTrack> stereoTrack(const QXAudioTrack& source)
    {
        auto stereo = QXAudioTrack::init();
        stereo->name = QXLocalizedString("Stereo Audio");
        stereo->enabled = claimEnabledAudio(source.enabled);
        copyAudioIdentity(source, *stereo);
        stereo->channels = 2;
        stereo->codec_id = AV_CODEC_ID_AAC;
        stereo->bitrate = preset_.audioBitrate;
        return stereo;
    }

    static void copyAudioIdentity(const QXAudioTrack& from, QXAudioTrack& to)
    {
        to.audio_service_type = from.audio_service_type;
        to.naturalTimeScale = from.naturalTimeScale;
        to.offset = from.offset;
        to.language = from.language;
        to.sample_rate = halvedSampleRate(from.sample_rate);
    }

    void finish()
    {
        if (outputVideo_) outputVideo_->enabled = true;
        if (!enabledAudio_) {
            for (const QXTrackJobRef& line : plan_) {
                if (std::dynamic_pointer_cast<QXAudioTrack>(line->destination)) {
                    line->destination->enabled = true;
                    break;
                }
            }
        }
        pointReferencesAtPlannedTracks();
        linkForcedSubtitles();
    }

    // Copies still refer to source tracks; the output needs the planned ones.
    void pointReferencesAtPlannedTracks()
    {
        for (const QXTrackJobRef& line : plan_) {
            if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(line->destination)) {
                if (auto old = std::move(audio->subtitle_track)) {
                    audio->subtitle_track = plannedTrackFor<QXSubtitleTrack>(plan_, old.get());
                }
            } else if (auto text = std::dynamic_pointer_cast<QXSubtitleTrack>(line->destination)) {
                if (auto old = std::move(text->forced_track)) {
                    text->forced_track = plannedTrackFor<QXSubtitleTrack>(plan_, old.get());
                }
            } else if (auto bitmap = std::dynamic_pointer_cast<QXBitmapSubtitleTrack>(line->destination)) {
                if (auto old = std::move(bitmap->forced_track)) {
                    bitmap->forced_track = plannedTrackFor<QXSubtitleTrack>(plan_, old.get());
                }
            }
        }
    }

    void linkForcedSubtitles()
    {
        for (const QXTrackJobRef& line : plan_) {
            const QXTrackRef& destination = line->destination;
            if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(destination)) {
                if (!audio->subtitle_track) {
                    audio->subtitle_track = firstForcedSubtitle(plan_, audio->language, nullptr);
                }
            } else if (auto text = std::dynamic_pointer_cast<QXSubtitleTrack>(destination)) {
                if (!hasForcedFlag(*text) && !text->forced_track) {
                    text->forced_track = firstForcedSubtitle(plan_, text->language, text.get());
                }
            } else if (auto bitmap = std::dynamic_pointer_cast<QXBitmapSubtitleTrack>(destination)) {
                if (!hasForcedFlag(*bitmap) && !bitmap->forced_track) {
                    bitmap->forced_track = firstForcedSubtitle(plan_, bitmap->language, bitmap.get());
                }
            }
        }
    }
};

} // namespace

void QXJob::applyPreset(const std::shared_ptr<QXPreset>& newPreset)
{
    std::shared_ptr<QXPreset> chosen = newPreset ? newPreset : QXPreset::init();
    const bool updateable = movie && movie->isUpdateable;
    const bool encodeable = movie && movie->isEncodeable();
    if (isUpdatePreset(*chosen) && !updateable) {
        QXLogWarning("Can not apply update preset, using Apple compatible instead!");
        chosen = QXPreset::initWithIdentifier(QXPresetPassthrough);
    }
    if (!isUpdatePreset(*chosen) && !encodeable) {
        QXLogWarning("Can not apply encode preset, using update metadata instead!");
        chosen = QXPreset::initWithIdentifier(QXPresetUpdate);
    }
    preset = chosen;

    std::vector<QXTrackRef> sources;
    if (movie) sources = movie->tracks;
    sources.insert(sources.end(), attachedTracks.begin(), attachedTracks.end());
    std::erase(sources, nullptr);

    std::vector<QXTrackJobRef> plan = Planner(*this, *preset).plan(std::move(sources));
    removedTracks = {};
    tracks = std::move(plan);
}
