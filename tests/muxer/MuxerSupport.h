#pragma once
// Support for the muxer tests: inputs that make real MP4 tracks, samples
// made from times, a muxer run that counts its completion handler, feeding
// threads, and readers of the written file.

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/muxer/QXMuxer.h"

namespace muxertest {

enum class Kind { Video, Audio, Subtitle };

// An input with an H.264 (a real parameter set), AAC or tx3g track; samples
// come in the track's timescale. It can take `offset` from its first
// sample, or give each sample a chunk of its own
// (then the file's order is the order of the writes).
class TestInput : public QXMuxerInput {
public:
    static std::shared_ptr<TestInput> make(Kind kind, int32_t timescale);
    using QXMuxerInput::QXMuxerInput;
    using QXMuxerInput::initWritingToFileHandle;
    bool initWritingToFileHandle(QXErrorRef* error) override;
    void processSample(const qx::CMSampleBufferRef& sample) override;

    Kind kind = Kind::Video;
    int32_t timescale = 1000;
    bool offsetFromFirstSample = false;
    bool chunkPerSample = false;
};

// A sample of `bytes` bytes with times in `timescale` (nullopt: invalid).
// The bytes are the head of one length-prefixed H.264 NAL unit (IDR when
// key) and then `bytes`-sized filler.
qx::CMSampleBufferRef makeSample(std::optional<int64_t> pts, std::optional<int64_t> dts,
                                 std::optional<int64_t> duration, int32_t timescale, size_t bytes = 100,
                                 bool key = true);

class MuxerRun {
public:
    explicit MuxerRun(const std::filesystem::path& output);
    explicit MuxerRun(qx::mp4::MP4File* borrowed);

    bool start(QXErrorRef* error = nullptr);
    bool waitForCompletion();
    int handlerCalls() const { return calls_; }

    std::shared_ptr<QXMuxer> muxer;

private:
    std::mutex lock_;
    std::condition_variable done_;
    std::atomic<int> calls_ {0};
};

// Appends samples on a thread of its own, then marks the input finished
// unless told not to.
class Feeder {
public:
    Feeder(std::shared_ptr<QXMuxerInput> input, std::vector<qx::CMSampleBufferRef> samples, bool finish = true);
    ~Feeder() { join(); }
    void join()
    {
        if (thread_.joinable()) thread_.join();
    }
    std::atomic<size_t> appended {0};
    std::atomic<bool> refused {false};

private:
    std::thread thread_;
};

// Every sample of the file as the project's MP4 reader sees it, in file
// order, or those of one track in track order.
struct WrittenSample {
    uint32_t trackId;
    qx::mp4::SampleInfo info;
    double decodeSeconds;
};
std::vector<WrittenSample> samplesInFileOrder(const std::filesystem::path& file);
std::vector<qx::mp4::SampleInfo> samplesOfTrack(const std::filesystem::path& file, uint32_t trackId);

// What `ffprobe -v error ARGUMENTS FILE` prints, without the last newline.
std::string ffprobe(const std::string& arguments, const std::filesystem::path& file);

bool waitUntil(const std::function<bool()>& condition);

// A sample holding exactly `bytes`, with times in `timescale`.
qx::CMSampleBufferRef makeSampleWithBytes(const std::vector<uint8_t>& bytes, int64_t pts, int64_t dts,
                                          int64_t duration, int32_t timescale, bool key = true);

} // namespace muxertest
