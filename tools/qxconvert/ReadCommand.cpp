// qxconvert read FILE [--json]: reads the whole source through the reading
// pipeline (read loop, movie reader, one pass-through output and one channel per
// track) into counting sinks, and prints per track what arrived.

#include <atomic>
#include <cstdio>
#include <mutex>
#include <unistd.h>

#include "Commands.h"
#include "Interrupts.h"
#include "JsonWriter.h"
#include "Report.h"
#include "qxmedia/muxer/QXMuxerInputProtocol.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXMovie.h"

using namespace qx;

namespace {

// The end of a channel: counts what arrives instead of muxing it.
class CountingSink : public QXMuxerInputProtocol {
public:
    bool isReadyForMoreMediaData() const override { return true; }
    void requestMediaDataWhenReadyOnQueue(dispatch_queue_t queue, std::function<void()> block) override
    {
        dispatch_async(queue, std::move(block));
    }
    bool appendSampleBuffer(const CMSampleBufferRef& sample) override
    {
        processSample(sample);
        return true;
    }
    void processSample(const CMSampleBufferRef& sample) override
    {
        if (!sample) return;
        std::lock_guard guard(lock_);
        ++samples;
        bytes += CMSampleBufferGetTotalSampleSize(sample);
        const CMTime pts = CMSampleBufferGetPresentationTimeStamp(sample);
        if (CMTIME_IS_VALID(pts)) {
            if (!CMTIME_IS_VALID(firstPTS)) firstPTS = pts;
            lastPTS = pts;
        }
        auto attachments = CMSampleBufferGetFirstSampleAttachments(sample, false);
        if (!attachments || !attachments->isTrue(kCMSampleAttachmentKey_NotSync)) ++syncSamples;
    }
    void markAsFinished() override {}

    std::mutex lock_;
    uint64_t samples = 0;
    uint64_t bytes = 0;
    uint64_t syncSamples = 0;
    CMTime firstPTS = kCMTimeInvalid;
    CMTime lastPTS = kCMTimeInvalid;
};

} // namespace

int runRead(const Arguments& arguments)
{
    const std::unique_ptr<MovieArguments> parsed = parseMovieArguments(arguments, "read");
    if (!parsed) return 2;
    const bool asJson = parsed->asJson;
    auto movie = openMovie(parsed->urls);
    if (!movie) return 1;

    struct Line {
        QXTrackRef track;
        std::shared_ptr<CountingSink> sink;
        std::shared_ptr<QXSampleBufferChannel> channel;
    };
    std::vector<Line> lines;
    dispatch_group_t group = dispatch_group_create();
    for (const QXTrackRef& track : movie->tracks) {
        // The pass-through base: this command measures the pipeline itself, not
        // what a copying or converting output does to the samples.
        auto output = QXTrackReaderOutput::initWithSource(track);
        track->addOutput(output);
        auto sink = std::make_shared<CountingSink>();
        auto channel = QXSampleBufferChannel::initWithReaderOutput(output, sink);
        dispatch_group_enter(group);
        channel->startWithDelegate(nullptr, [group] { dispatch_group_leave(group); });
        lines.push_back({track, sink, channel});
    }

    const bool showProgress = ::isatty(STDERR_FILENO) && !asJson;
    const bool started = movie->startReading();
    // Registered once the loop reads: a cancel before would be lost.
    interrupts::onInterrupt([movie] {
        if (movie->isPaused) movie->togglePause();
        movie->cancelReading();
    });
    while (dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, 100 * 1000 * 1000)) != 0) {
        if (showProgress && movie->progress) {
            std::fprintf(stderr, "\r%5.1f%%", movie->progress->fractionCompleted() * 100);
            std::fflush(stderr);
        }
    }
    if (showProgress) std::fprintf(stderr, "\n");
    // Every channel ended; the read loop may still be leaving.
    movie->endRun();
    const bool cancelled = interrupts::received() != 0;

    if (asJson) {
        JsonWriter json;
        json.beginObject();
        json.key("status").number(movie->status.load());
        json.key("tracks");
        json.beginArray();
        for (const Line& line : lines) {
            json.beginObject();
            json.key("streamIndex").number(int64_t(line.track->streamIndex));
            json.key("class").string(line.track->className());
            json.key("samples").unsignedNumber(line.sink->samples);
            json.key("bytes").unsignedNumber(line.sink->bytes);
            json.key("syncSamples").unsignedNumber(line.sink->syncSamples);
            json.key("firstPTS").number(CMTimeGetSeconds(line.sink->firstPTS));
            json.key("lastPTS").number(CMTimeGetSeconds(line.sink->lastPTS));
            json.endObject();
        }
        json.endArray();
        json.endObject();
        std::printf("%s\n", json.text().c_str());
    } else {
        for (const Line& line : lines) {
            std::printf("#%d %-22s %8llu samples %12llu bytes %6llu sync  first %s  last %s\n",
                        line.track->streamIndex, line.track->className().c_str(),
                        static_cast<unsigned long long>(line.sink->samples),
                        static_cast<unsigned long long>(line.sink->bytes),
                        static_cast<unsigned long long>(line.sink->syncSamples),
                        CMTimeCopyDescription(line.sink->firstPTS).c_str(),
                        CMTimeCopyDescription(line.sink->lastPTS).c_str());
        }
    }
    if (cancelled) return interrupts::exitStatus();
    if (!started || movie->status == QXMovieStatusFailed) {
        report::failure("cannot read", parsed->urls.front(), movie->error());
        return 1;
    }
    return 0;
}
