// qxconvert remux FILE... -o OUT: copies every track that can go into an
// MP4 as it is: the reading pipeline with the copying outputs, one sync for
// the timeline, the copying muxer inputs and the muxer. Tracks that cannot
// be copied are left out with a note. Ctrl-C cancels and removes the file.

#include <atomic>
#include <cstdio>
#include <optional>
#include <unistd.h>

#include "Commands.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/muxer/QXMuxer.h"
#include "qxmedia/muxer/QXMuxerInput.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/reader/QXSync.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXMovie.h"

using namespace qx;

namespace {

struct RemuxArguments {
    std::vector<QXURL> urls;
    QXURL output;
};

std::optional<RemuxArguments> parse(const Arguments& arguments)
{
    RemuxArguments parsed;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "-o" && i + 1 < arguments.size()) {
            parsed.output = arguments[++i];
        } else {
            parsed.urls.emplace_back(arguments[i]);
        }
    }
    if (parsed.urls.empty() || parsed.output.empty()) {
        std::fprintf(stderr, "usage: qxconvert remux FILE... -o OUT.m4v\n");
        return std::nullopt;
    }
    return parsed;
}

} // namespace

int runRemux(const Arguments& arguments)
{
    const auto parsed = parse(arguments);
    if (!parsed) return 2;
    auto movie = openMovie(parsed->urls);
    if (!movie) return 1;

    auto muxer = QXMuxer::initWithURL(parsed->output);
    muxer->metadata = movie->metadata;
    auto sync = QXSync::init();
    std::vector<std::shared_ptr<QXSampleBufferChannel>> channels;
    for (const QXTrackRef& track : movie->tracks) {
        auto destination = track->copy();
        auto output = QXTrackReaderOutput::initWithSource(track, destination, false);
        auto input = QXMuxerInput::initWithSource(output, destination, false);
        if (!input) {
            std::fprintf(stderr, "qxconvert: left out %s\n", track->description().c_str());
            continue;
        }
        track->addOutput(output);
        muxer->addInput(input);
        auto channel = QXSampleBufferChannel::initWithReaderOutput(output, input, sync);
        channel->startWithDelegate(nullptr, {});
        channels.push_back(channel);
    }
    if (channels.empty()) {
        std::fprintf(stderr, "qxconvert: no track of %s can be copied into an MP4\n", parsed->urls.front().c_str());
        return 1;
    }

    dispatch_semaphore_t written = dispatch_semaphore_create(0);
    QXErrorRef error;
    if (!muxer->startWritingWithCompletionHandler([written] { dispatch_semaphore_signal(written); }, &error)) {
        std::fprintf(stderr, "qxconvert: cannot write %s: %s\n", parsed->output.c_str(),
                     error ? error->localizedDescription().c_str() : "unknown error");
        endRun(*movie);
        return 1;
    }
    const bool showProgress = ::isatty(STDERR_FILENO);
    bool started = false;
    auto done = [&](dispatch_time_t timeout) { return dispatch_semaphore_wait(written, timeout) == 0; };
    const bool cancelled = readAndWait(*movie, done, showProgress, &started);
    endRun(*movie);

    if (cancelled) {
        std::filesystem::remove(parsed->output);
        return 130;
    }
    if (!started || movie->status == QXMovieStatusFailed || muxer->status != QXMuxerStatusCompleted) {
        const QXErrorRef failure = muxer->error ? muxer->error : movie->error();
        std::fprintf(stderr, "qxconvert: remux failed: %s\n",
                     failure ? failure->localizedDescription().c_str() : "unknown error");
        std::filesystem::remove(parsed->output);
        return 1;
    }
    std::printf("wrote %s: %zu of %zu tracks copied\n", parsed->output.c_str(), channels.size(),
                movie->tracks.size());
    return 0;
}
