#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>

#include "Commands.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/source/QXMovie.h"

std::unique_ptr<MovieArguments> parseMovieArguments(const Arguments& arguments, const char* command)
{
    auto parsed = std::make_unique<MovieArguments>();
    for (const std::string& argument : arguments) {
        if (argument == "--json") {
            parsed->asJson = true;
        } else {
            parsed->urls.emplace_back(argument);
        }
    }
    if (parsed->urls.empty()) {
        std::fprintf(stderr, "usage: qxconvert %s FILE... [--json]\n", command);
        return nullptr;
    }
    return parsed;
}

std::shared_ptr<QXMovie> openMovie(const std::vector<QXURL>& urls)
{
    QXErrorRef error;
    auto movie = QXMovie::initWithURLs(urls, &error);
    if (!movie) {
        std::fprintf(stderr, "qxconvert: cannot open %s: %s\n", urls.front().c_str(),
                     error ? error->localizedDescription().c_str() : "unknown error");
    }
    return movie;
}

void endRun(QXMovie& movie)
{
    for (const QXTrackRef& track : movie.tracks) {
        qx::dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    movie.releaseReaders();
}

namespace {

std::atomic<bool> gInterrupted {false};

void onInterrupt(int)
{
    gInterrupted = true;
}

// "[#####     ]  42.0%" on stderr, redrawn in place.
void drawProgress(double fraction)
{
    const int width = 40;
    const int filled = int(fraction * width);
    std::fprintf(stderr, "\r[%s%s] %5.1f%%", std::string(size_t(filled), '#').c_str(),
                 std::string(size_t(width - filled), ' ').c_str(), fraction * 100);
    std::fflush(stderr);
}

} // namespace

bool readAndWait(QXMovie& movie, const std::function<bool(qx::dispatch_time_t)>& finished, bool showProgress,
                 bool* started)
{
    gInterrupted = false;
    std::signal(SIGINT, onInterrupt);
    *started = movie.startReading();
    bool cancelled = false;
    while (!finished(qx::dispatch_time(qx::DISPATCH_TIME_NOW, 100 * 1000 * 1000))) {
        if (gInterrupted && !cancelled) {
            cancelled = true;
            if (movie.isPaused) movie.togglePause();
            movie.cancelReading();
        }
        if (showProgress && movie.progress) drawProgress(movie.progress->fractionCompleted());
    }
    if (showProgress) std::fprintf(stderr, "\n");
    std::signal(SIGINT, SIG_DFL);
    return cancelled;
}
