// Editing a job's plan between planning and start: taking lines out and
// attaching subtitle tracks of other files. The plan is replaced as a whole
// on every edit, so a reader always sees a complete list.

#include <algorithm>
#include <cstdint>
#include <cstring>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

template <class T, class Container>
void appendOnce(Container& list, const std::shared_ptr<T>& item)
{
    if (std::find(list.begin(), list.end(), item) == list.end()) list.push_back(item);
}

bool isSubtitle(const QXTrackRef& track)
{
    return track && track->mediaType() == AVMediaTypeSubtitle;
}

} // namespace

std::vector<QXTrackJobRef> QXJob::tracksOfType(QXMediaType mediaType) const
{
    std::vector<QXTrackJobRef> matching;
    for (const QXTrackJobRef& trackJob : tracks) {
        const QXMediaType type = trackJob->source ? trackJob->source->mediaType() : nullptr;
        if (type && mediaType && std::strcmp(type, mediaType) == 0) matching.push_back(trackJob);
    }
    return matching;
}

void QXJob::removeTrackJob(const QXTrackJobRef& trackJob)
{
    std::vector<QXTrackJobRef> plan = tracks;
    std::erase(plan, trackJob);
    if (!trackJob) {
        tracks = std::move(plan);
        return;
    }

    if (auto removed = std::dynamic_pointer_cast<QXAudioTrack>(trackJob->destination)) {
        std::shared_ptr<QXAudioTrack> firstAudio;
        for (const QXTrackJobRef& line : plan) {
            auto audio = std::dynamic_pointer_cast<QXAudioTrack>(line->destination);
            if (!audio) continue;
            if (!firstAudio) firstAudio = audio;
            if (audio->fallback_track == removed) audio->fallback_track.reset();
        }
        // The output keeps one enabled audio track.
        if (removed->enabled && firstAudio) firstAudio->enabled = true;
    }
    if (auto removed = std::dynamic_pointer_cast<QXSubtitleTrack>(trackJob->destination)) {
        for (const QXTrackJobRef& line : plan) {
            if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(line->destination)) {
                if (audio->subtitle_track == removed) audio->subtitle_track.reset();
            } else if (auto text = std::dynamic_pointer_cast<QXSubtitleTrack>(line->destination)) {
                if (text->forced_track == removed) text->forced_track.reset();
            } else if (auto bitmap = std::dynamic_pointer_cast<QXBitmapSubtitleTrack>(line->destination)) {
                if (bitmap->forced_track == removed) bitmap->forced_track.reset();
            }
        }
    }

    removedTracks.push_back(trackJob->source);
    tracks = std::move(plan);
}

std::shared_ptr<QXTrackJob> QXJob::subtitleTrackJob(const QXTrackRef& track,
                                                    const std::shared_ptr<QXVideoTrack>& videoTrack)
{
    if (!track) return nullptr;
    // Whatever the source, bitmap or text, the output is a timed-text track.
    auto destination = QXSubtitleTrack::initWithTrack(*track);
    destination->codec_id = AV_CODEC_ID_MOV_TEXT;
    if (videoTrack) destination->adjustForVideoTrack(*videoTrack);
    const int64_t type = track->codec_id == destination->codec_id ? QXTrackJobTypeRemux : QXTrackJobTypeEncode;
    return QXTrackJob::initWithSource(track, destination, type);
}

void QXJob::attachTrack(const QXTrackRef& track)
{
    if (!track) return;
    // The job keeps the track's movie alive for the run.
    if (std::shared_ptr<QXMovie> source = track->source.lock()) {
        std::vector<std::shared_ptr<QXMovie>> movies = attachedMovies;
        appendOnce(movies, source);
        attachedMovies = std::move(movies);
    }
    std::vector<QXTrackRef> attached = attachedTracks;
    attached.push_back(track);
    attachedTracks = std::move(attached);

    // The subtitle is fitted to the output's video, the first line of a plan.
    std::shared_ptr<QXVideoTrack> video =
        tracks.empty() ? nullptr : std::dynamic_pointer_cast<QXVideoTrack>(tracks.front()->destination);
    if (!video) {
        QXLogWarning("Could not attach subtitle track!");
        return;
    }

    std::shared_ptr<QXTrackJob> trackJob = subtitleTrackJob(track, video);
    const bool subtitleEnabled = std::any_of(tracks.begin(), tracks.end(), [](const QXTrackJobRef& line) {
        return isSubtitle(line->destination) && line->destination->enabled;
    });
    if (!subtitleEnabled) trackJob->destination->enabled = true;

    std::vector<QXTrackJobRef> plan = tracks;
    plan.push_back(trackJob);
    tracks = std::move(plan);
}

void QXJob::attachSubtitleTracksWithURLs(const std::vector<QXURL>& urls)
{
    for (const QXURL& url : urls) {
        std::shared_ptr<QXMovie> subtitles = QXMovie::initWithURL(url);
        if (!subtitles) continue;
        for (const QXTrackRef& track : subtitles->tracks) {
            auto text = std::dynamic_pointer_cast<QXSubtitleTrack>(track);
            if (!text) continue;
            text->setObeySubtitleFormatting(true);
            attachTrack(text);
        }
    }
}
