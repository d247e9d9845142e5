// Converts one file into an M4V with a progress bar; Ctrl-C cancels.
//
//   convert SOURCE DESTINATION.m4v [PRESET]      (PRESET: QXPresetPassthrough by default)
//   QXMEDIA_LOG=1 convert ...                     also shows the library's errors and warnings

#include <qxmedia/qxmedia.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: convert SOURCE DESTINATION.m4v [PRESET]\n");
        return 2;
    }
    // Ctrl-C is taken by a thread of our own (below), never by a handler:
    // block it before the library starts any thread.
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);

    // The library's own log: errors and warnings, when asked for.
    if (std::getenv("QXMEDIA_LOG")) {
        QXMedia::sharedMedia().setLogHandler([](int32_t flag, const std::string& line) {
            if (flag <= QXLogFlagWarning) std::fprintf(stderr, "\n%s\n", line.c_str());
        });
    }

    QXErrorRef error;
    auto movie = QXMovie::initWithURL(argv[1], &error);
    if (!movie) {
        std::fprintf(stderr, "cannot open %s: %s\n", argv[1], error->summary().c_str());
        return 1;
    }
    auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(argc > 3 ? argv[3] : QXPresetPassthrough));
    job->destination = argv[2];
    job->queue();
    job->start();
    // A cancel is taken once the job runs; an earlier Ctrl-C waits until now.
    std::thread([job, interrupt] {
        int signal = 0;
        if (sigwait(&interrupt, &signal) == 0) job->cancel();
    }).detach();

    auto finished = std::async(std::launch::async, [job] { return job->waitUntilFinished(); });
    while (finished.wait_for(std::chrono::milliseconds(200)) != std::future_status::ready) {
        const double fraction = job->progress ? job->progress->fractionCompleted() : 0.0;
        const int filled = int(fraction * 40);
        std::fprintf(stderr, "\r[%-40.*s] %3d%%", filled, "########################################",
                     int(fraction * 100));
    }
    const bool succeeded = finished.get();
    std::fprintf(stderr, "\n");
    if (succeeded) {
        std::printf("wrote %s\n", argv[2]);
        return 0;
    }
    const QXErrorRef failure = job->error();
    std::fprintf(stderr, "%s: %s\n", job->status == QXJobStatusCancelled ? "cancelled" : "failed",
                 failure ? failure->summary().c_str() : "no reason given");
    return 1;
}
