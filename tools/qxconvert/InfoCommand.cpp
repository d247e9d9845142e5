// qxconvert info FILE... [--json]: what a movie holds.

#include <cstdio>

#include "Commands.h"
#include "JsonWriter.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

void trackIDOrNull(JsonWriter& json, const QXTrack* track)
{
    if (track) {
        json.number(int64_t(track->trackID));
    } else {
        json.null();
    }
}

void writeTrack(JsonWriter& json, const QXTrack& track)
{
    json.beginObject();
    json.key("class").string(track.className());
    json.key("streamIndex").number(int64_t(track.streamIndex));
    json.key("trackID").number(int64_t(track.trackID));
    json.key("codec_id").number(int64_t(track.codec_id));
    json.key("format").string(track.format());
    json.key("name").string(track.name);
    json.key("language").string(track.language);
    json.key("enabled").boolean(track.enabled);
    json.key("alternate_group").unsignedNumber(track.alternate_group);
    json.key("layer").number(track.layer);
    json.key("isMuxable").boolean(track.isMuxable());
    json.key("isEncodable").boolean(track.isEncodable());
    json.key("duration").number(CMTimeGetSeconds(track.duration)); // null when invalid
    json.key("displayDescription").string(track.displayDescription());
    if (const auto* video = dynamic_cast<const QXVideoTrack*>(&track)) {
        json.key("width").unsignedNumber(video->width);
        json.key("height").unsignedNumber(video->height);
        json.key("profile").number(int64_t(video->profile));
        json.key("level").number(int64_t(video->level));
        json.key("hSpacing").unsignedNumber(video->hSpacing);
        json.key("vSpacing").unsignedNumber(video->vSpacing);
        json.key("display_width").number(double(video->display_width));
        json.key("display_height").number(double(video->display_height));
        json.key("frameRate");
        json.beginArray();
        json.number(int64_t(video->frameRate.num));
        json.number(int64_t(video->frameRate.den));
        json.endArray();
        json.key("isChapterImageTrack").boolean(video->isChapterImageTrack());
    } else if (const auto* audio = dynamic_cast<const QXAudioTrack*>(&track)) {
        json.key("channels").number(int64_t(audio->channels));
        json.key("sample_rate").unsignedNumber(audio->sample_rate);
        json.key("channel_layout").unsignedNumber(audio->channel_layout);
        json.key("audio_service_type").number(int64_t(audio->audio_service_type));
        json.key("fallback_track");
        trackIDOrNull(json, audio->fallback_track.get());
        json.key("subtitle_track");
        trackIDOrNull(json, audio->subtitle_track.get());
    } else if (const auto* subtitle = dynamic_cast<const QXSubtitleTrack*>(&track)) {
        json.key("forcedFlag").unsignedNumber(subtitle->forcedFlag());
        json.key("forced_track");
        trackIDOrNull(json, subtitle->forced_track.get());
    } else if (const auto* bitmap = dynamic_cast<const QXBitmapSubtitleTrack*>(&track)) {
        json.key("forcedFlag").unsignedNumber(bitmap->forcedFlag);
        json.key("forced_track");
        trackIDOrNull(json, bitmap->forced_track.get());
    }
    json.endObject();
}

void writeMovie(JsonWriter& json, const QXMovie& movie)
{
    json.beginObject();
    json.key("format").string(movie.format);
    json.key("fileSize").unsignedNumber(movie.fileSize);
    json.key("fileHash");
    if (movie.fileHash.empty()) {
        json.null();
    } else {
        json.string(movie.fileHash);
    }
    json.key("duration").number(CMTimeGetSeconds(movie.duration()));
    json.key("bitrate").number(movie.bitrate);
    json.key("isUpdateable").boolean(movie.isUpdateable);
    json.key("isMuxable").boolean(movie.isMuxable());
    json.key("isEncodeable").boolean(movie.isEncodeable());
    json.key("error");
    if (QXErrorRef error = movie.error()) {
        json.beginObject();
        json.key("domain").string(error->domain());
        json.key("code").number(error->code());
        json.key("description").string(error->localizedDescription());
        json.endObject();
    } else {
        json.null();
    }
    json.key("tracks");
    json.beginArray();
    for (const QXTrackRef& track : movie.tracks) writeTrack(json, *track);
    json.endArray();
    json.key("videoTrack");
    movie.videoTrack ? json.number(int64_t(movie.videoTrack->streamIndex)) : json.null();
    json.key("chapterImageTrack");
    movie.chapterImageTrack ? json.number(int64_t(movie.chapterImageTrack->streamIndex)) : json.null();
    json.key("chapters");
    json.beginArray();
    if (movie.chapters) {
        for (const auto& chapter : movie.chapters->chapters) {
            json.beginObject();
            json.key("title").string(chapter->title.value_or(""));
            json.key("time").number(CMTimeGetSeconds(chapter->timestamp));
            json.endObject();
        }
    }
    json.endArray();
    json.key("metadata").value(QXValue(movie.metadata->changedMetadata()));
    json.endObject();
}

void printMovie(const QXMovie& movie)
{
    std::printf("%s\n", movie.fileURL.c_str());
    std::printf("  format %s, %llu bytes, hash %s, duration %.3f s, %lld bit/s\n", movie.format.c_str(),
                static_cast<unsigned long long>(movie.fileSize), movie.fileHash.empty() ? "-" : movie.fileHash.c_str(),
                CMTimeGetSeconds(movie.duration()), static_cast<long long>(movie.bitrate));
    std::printf("  updateable %s, muxable %s, encodeable %s\n", movie.isUpdateable ? "yes" : "no",
                movie.isMuxable() ? "yes" : "no", movie.isEncodeable() ? "yes" : "no");
    if (QXErrorRef error = movie.error()) std::printf("  error: %s\n", error->description().c_str());
    for (const QXTrackRef& track : movie.tracks) {
        const bool main = movie.videoTrack.get() == track.get();
        const bool images = movie.chapterImageTrack.get() == track.get();
        std::printf("  #%d (id %d) %s [%s] %s%s%s%s\n", track->streamIndex, track->trackID, track->className().c_str(),
                    track->language.c_str(), track->displayDescription().c_str(), track->enabled ? "" : ", disabled",
                    main ? ", main video" : "", images ? ", chapter images" : "");
    }
    if (movie.chapters) {
        std::printf("  chapters:\n");
        for (const auto& chapter : movie.chapters->chapters) std::printf("    %s\n", chapter->description().c_str());
    }
    const QXDictionary tags = movie.metadata->changedMetadata();
    if (!tags.empty()) {
        std::printf("  metadata:\n");
        for (const auto& [key, value] : tags) std::printf("    %s: %s\n", key.c_str(), value.description().c_str());
    }
}

} // namespace

int runInfo(const Arguments& arguments)
{
    if (isDVDFolderArgument(arguments)) return runDVDInfo(arguments);
    const std::unique_ptr<MovieArguments> parsed = parseMovieArguments(arguments, "info");
    if (!parsed) return 2;
    const bool asJson = parsed->asJson;
    auto movie = openMovie(parsed->urls);
    if (!movie) return 1;
    if (asJson) {
        JsonWriter json;
        writeMovie(json, *movie);
        std::printf("%s\n", json.text().c_str());
    } else {
        printMovie(*movie);
    }
    return 0;
}
