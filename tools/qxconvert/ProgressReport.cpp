#include "ProgressReport.h"

#include <algorithm>
#include <cmath>

#include "JsonWriter.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/platform/progress/QXProgress.h"

namespace {

// Before this share or this time, speed and time left jump about too much
// to be worth showing.
constexpr double kSettledFraction = 0.01;
constexpr double kSettledSeconds = 0.5;

const char* stateName(int64_t status)
{
    switch (status) {
    case QXJobStatusIdle: return "idle";
    case QXJobStatusQueued: return "queued";
    case QXJobStatusProcessing: return "processing";
    case QXJobStatusOptimizing: return "optimizing";
    case QXJobStatusAddingToLibrary: return "adding";
    case QXJobStatusFinished: return "finished";
    case QXJobStatusFailed: return "failed";
    case QXJobStatusCancelled: return "cancelled";
    default: return "unknown";
    }
}

} // namespace

ProgressReport::ProgressReport(Form form, double duration, double frameRate)
    : form_(form), duration_(duration), frameRate_(frameRate), start_(qx::CACurrentMediaTime())
{
}

ProgressReport::Figures ProgressReport::figures(double fraction, double elapsed, double duration, double frameRate)
{
    Figures now;
    now.fraction = std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0.0;
    if (now.fraction < kSettledFraction || elapsed < kSettledSeconds) return now;
    if (duration > 0) now.speed = now.fraction * duration / elapsed;
    if (frameRate > 0) now.fps = now.speed * frameRate;
    now.eta = elapsed / now.fraction - elapsed;
    return now;
}

std::string ProgressReport::clock(double seconds)
{
    if (!(seconds >= 0)) return "--:--";
    const auto whole = static_cast<long long>(std::llround(seconds));
    char text[32];
    if (whole >= 3600) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
    }
    return text;
}

void ProgressReport::update(const QXJob& job)
{
    if (form_ == Form::None || !job.progress) return;
    const Figures now = figures(job.progress->fractionCompleted(), qx::CACurrentMediaTime() - start_, duration_,
                                frameRate_);
    if (form_ == Form::Json) {
        writeJson(job, now);
    } else {
        drawLine(now);
    }
}

void ProgressReport::finish(const QXJob& job)
{
    if (form_ == Form::None) return;
    // The last line gives the average speed of the whole run.
    const bool finished = job.status == QXJobStatusFinished;
    const double elapsed = qx::CACurrentMediaTime() - start_;
    Figures last;
    last.fraction = finished ? 1.0 : job.progress ? job.progress->fractionCompleted() : 0.0;
    if (elapsed > 0 && duration_ > 0) last.speed = last.fraction * duration_ / elapsed;
    last.fps = last.speed * frameRate_;
    last.eta = finished ? 0 : -1;
    if (form_ == Form::Json) {
        writeJson(job, last);
    } else {
        drawLine(last);
        std::fprintf(stderr, "\n");
    }
}

void ProgressReport::writeJson(const QXJob& job, const Figures& now)
{
    JsonWriter json(true);
    json.beginObject();
    json.key("state").string(stateName(job.status));
    json.key("progress").number(now.fraction);
    json.key("fps").number(now.fps);
    json.key("eta");
    now.eta >= 0 ? json.number(now.eta) : json.null();
    json.endObject();
    std::printf("%s\n", json.text().c_str());
    std::fflush(stdout);
}

void ProgressReport::drawLine(const Figures& now)
{
    std::string speed = "      ";
    char text[64];
    if (now.fps > 0) {
        std::snprintf(text, sizeof text, "%6.1f fps (%.1fx)", now.fps, now.speed);
        speed = text;
    } else if (now.speed > 0) {
        std::snprintf(text, sizeof text, "%.1fx realtime", now.speed);
        speed = text;
    }
    std::fprintf(stderr, "\r%5.1f%%  %-22s %s left  ", now.fraction * 100, speed.c_str(), clock(now.eta).c_str());
    std::fflush(stderr);
}
