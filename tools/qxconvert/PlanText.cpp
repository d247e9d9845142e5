#include "PlanText.h"

#include <cstdio>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXVisualTrack.h"

namespace {

const char* action(const QXTrackJob& line)
{
    switch (line.type) {
    case QXTrackJobTypeRemux: return "copy";
    case QXTrackJobTypeEncode: return "encode";
    default: return "keep";
    }
}

const char* kind(const QXTrack& track)
{
    const QXMediaType type = track.mediaType();
    if (type == AVMediaTypeVideo) return "video";
    if (type == AVMediaTypeAudio) return "audio";
    if (type == AVMediaTypeSubtitle) return "subtitle";
    return "other";
}

std::string size(const QXTrack& track)
{
    char text[64] = "-";
    if (const auto* audio = dynamic_cast<const QXAudioTrack*>(&track)) {
        std::snprintf(text, sizeof text, "%d ch %u Hz", audio->channels, audio->sample_rate);
    } else if (const auto* visual = dynamic_cast<const QXVisualTrack*>(&track); visual && visual->width) {
        std::snprintf(text, sizeof text, "%llux%llu", static_cast<unsigned long long>(visual->width),
                      static_cast<unsigned long long>(visual->height));
    }
    return text;
}

std::string bitRate(const QXTrack& track)
{
    if (track.bitrate < 1000) return "-";
    return std::to_string(track.bitrate / 1000) + " kb/s";
}

} // namespace

std::string describePlanLine(const QXTrackJob& line)
{
    const QXTrack& out = *line.destination;
    char text[512];
    std::snprintf(text, sizeof text, "from #%-2d  %-6s  %-8s  %-28s  %-16s  %-9s  %-3s  group %llu%s%s",
                  line.source ? line.source->streamIndex : -1, action(line), kind(out),
                  out.format().c_str(), size(out).c_str(), bitRate(out).c_str(), out.language.c_str(),
                  static_cast<unsigned long long>(out.alternate_group), out.enabled ? "  enabled" : "",
                  line.type != QXTrackJobTypeKeep && !line.muxerInput ? "  (left out: no writer for it yet)" : "");
    return text;
}

void printPlan(const QXJob& job)
{
    std::printf("preset %s (%s)\n", job.preset ? job.preset->identifier.c_str() : "-",
                job.preset ? job.preset->name.c_str() : "-");
    int number = 0;
    for (const QXTrackJobRef& line : job.tracks) {
        if (line && line->destination) std::printf("%2d  %s\n", ++number, describePlanLine(*line).c_str());
    }
}
