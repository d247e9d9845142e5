#pragma once
// Support for the reading-pipeline tests: outputs that record what reaches
// them (and can be held shut), samples made from times, and waiting.

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXTrack.h"

namespace readertest {

// An output that keeps every sample it is given, in order, and notes the end
// marker. While closed, processSample waits, as a slow encoder would.
class RecordingOutput : public QXTrackReaderOutput {
public:
    static std::shared_ptr<RecordingOutput> attach(const QXTrackRef& track, bool open = true);
    using QXTrackReaderOutput::QXTrackReaderOutput;

    void processSample(const qx::CMSampleBufferRef& sample) override;

    void open();
    std::vector<qx::CMSampleBufferRef> received() const;
    size_t count() const;
    bool ended() const;
    // Waits for the end marker; false on timeout.
    bool waitForEnd(std::chrono::milliseconds limit = std::chrono::seconds(60)) const;

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    bool open_ = true;
    bool ended_ = false;
    std::vector<qx::CMSampleBufferRef> received_;
};

// A sample of `bytes` bytes; times in milliseconds unless a timescale is
// given; nullopt is an invalid time.
qx::CMSampleBufferRef makeSample(std::optional<int64_t> pts, std::optional<int64_t> dts, bool key = true,
                                 int32_t timescale = 1000, size_t bytes = 16);

qx::CMTime pts(const qx::CMSampleBufferRef& sample);
qx::CMTime dts(const qx::CMSampleBufferRef& sample);
// "value/timescale" or "invalid", for readable failures.
std::string text(qx::CMTime time);
bool same(qx::CMTime a, qx::CMTime b);

// Polls `condition` until it holds; false on timeout.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(60));
// Waits until `value` has not changed for `quiet`; answers the last value.
size_t waitUntilSteady(const std::function<size_t()>& value,
                       std::chrono::milliseconds quiet = std::chrono::milliseconds(300));

// Packets per stream as ffprobe counts them, in stream order.
std::vector<uint64_t> ffprobePacketCounts(const std::filesystem::path& file);
// Stream index and key flag of every packet, in demuxing order.
struct ProbedPacket {
    int stream;
    bool key;
};
std::vector<ProbedPacket> ffprobePackets(const std::filesystem::path& file);
// The MD5 of every packet's bytes (lowercase hex), per stream, in order.
std::vector<std::vector<std::string>> ffprobePacketHashes(const std::filesystem::path& file);
// The MD5 of a sample's bytes, in the same form.
std::string md5Of(const qx::CMSampleBufferRef& sample);

} // namespace readertest
