#pragma once
// Support for the muxer tests: inputs that create real MP4 tracks, samples
// made from times, a muxer run that counts its completion handler, and
// readers of the written file.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/muxer/QXMuxer.h"
#include "qxmedia/muxer/QXMuxerInput.h"

namespace muxertest {

enum class Kind { Video, Audio, Subtitle };

// An input with a track of its own kind: H.264 (a real parameter set,
// invented picture bytes), AAC or tx3g. Samples come in the track's
// timescale. It can set `offset` from its first sample, refuse to create its
// track, or put each sample into a chunk of its own so that the file's
// sample order is the order of the writes.
class TestInput : public QXMuxerInput {
public:
    static std::shared_ptr<TestInput> make(Kind kind, int32_t timescale);
    using QXMuxerInput::QXMuxerInput;

    bool initWritingToFileHandle(QXErrorRef* error) override;
    using QXMuxerInput::initWritingToFileHandle;
    void processSample(const qx::CMSampleBufferRef& sample) override;

    Kind kind = Kind::Video;
    int32_t timescale = 1000;
    bool offsetFromFirstSample = false;
    bool refuse = false;
    bool chunkPerSample = false;
};

// A sample of `bytes` bytes with times in `timescale`; nullopt is an invalid
// time. Not a key frame when key is false. The bytes are `fill` after the
// head of one length-prefixed H.264 NAL unit (IDR for a key frame), so that
// readers that look into video see the key frames.
qx::CMSampleBufferRef makeSample(std::optional<int64_t> pts, std::optional<int64_t> dts,
                                 std::optional<int64_t> duration, int32_t timescale, size_t bytes = 100,
                                 bool key = true, uint8_t fill = 0);

// One muxer run: the completion handler counts its calls and wakes waiters.
class MuxerRun {
public:
    explicit MuxerRun(qx::mp4::MP4File* borrowed = nullptr);
    explicit MuxerRun(const std::filesystem::path& output);

    std::shared_ptr<QXMuxer> muxer;
    bool start(QXErrorRef* error = nullptr);
    // Waits for the completion handler; false on timeout.
    bool waitForCompletion(std::chrono::milliseconds limit = std::chrono::seconds(60));
    int handlerCalls() const { return calls_; }
    // Runs `block` on the muxer's queue and waits for it.
    void onMuxerQueue(const std::function<void()>& block) const;
    size_t samplesInWindow() const;

private:
    mutable std::mutex lock_;
    std::condition_variable done_;
    std::atomic<int> calls_ {0};
};

// Appends samples to an input from a thread of its own, then marks it
// finished (unless told not to); counts the appends that returned.
class Feeder {
public:
    Feeder(std::shared_ptr<QXMuxerInput> input, std::vector<qx::CMSampleBufferRef> samples, bool finish = true);
    ~Feeder();
    void join();
    std::atomic<size_t> appended {0};
    std::atomic<bool> refused {false};

private:
    std::thread thread_;
};

// A sample as the project's MP4 reader sees it, with its track.
struct WrittenSample {
    uint32_t trackId;
    qx::mp4::SampleInfo info;
    double decodeSeconds;
};
// Every sample of the file, in file order (sorted by offset).
std::vector<WrittenSample> samplesInFileOrder(const std::filesystem::path& file);
std::vector<qx::mp4::SampleInfo> samplesOfTrack(const std::filesystem::path& file, uint32_t trackId);

// Per stream, in stream order: the packet `fields` ("dts,size") and the MD5
// of each packet as ffprobe reads it, comma-separated.
std::vector<std::vector<std::string>> ffprobePackets(const std::filesystem::path& file, const std::string& fields);
// A value of ffprobe's format section ("format_tags=major_brand" etc.).
std::string ffprobeFormat(const std::filesystem::path& file, const std::string& entry);

// Polls `condition` until it holds; false on timeout.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(30));

} // namespace muxertest
