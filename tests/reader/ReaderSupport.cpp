#include "ReaderSupport.h"

extern "C" {
#include <libavutil/md5.h>
}

#include <sstream>
#include <thread>

#include "qxmedia/platform/coremedia/CMBlockBuffer.h"
#include "support/TestMedia.h"

using namespace qx;

namespace readertest {

std::shared_ptr<RecordingOutput> RecordingOutput::attach(const QXTrackRef& track, bool open)
{
    auto output = std::make_shared<RecordingOutput>(track);
    output->open_ = open;
    output->finishInit();
    track->addOutput(output);
    return output;
}

void RecordingOutput::processSample(const CMSampleBufferRef& sample)
{
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this] { return open_; });
    if (sample) {
        received_.push_back(sample);
    } else {
        ended_ = true;
    }
    changed_.notify_all();
}

void RecordingOutput::open()
{
    std::lock_guard guard(lock_);
    open_ = true;
    changed_.notify_all();
}

std::vector<CMSampleBufferRef> RecordingOutput::received() const
{
    std::lock_guard guard(lock_);
    return received_;
}

size_t RecordingOutput::count() const
{
    std::lock_guard guard(lock_);
    return received_.size();
}

bool RecordingOutput::ended() const
{
    std::lock_guard guard(lock_);
    return ended_;
}

bool RecordingOutput::waitForEnd(std::chrono::milliseconds limit) const
{
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit, [this] { return ended_; });
}

CMSampleBufferRef makeSample(std::optional<int64_t> pts, std::optional<int64_t> dts, bool key, int32_t timescale,
                             size_t bytes)
{
    CMBlockBufferRef block;
    CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, bytes, nullptr, nullptr, 0, bytes,
                                       kCMBlockBufferAssureMemoryNowFlag, &block);
    const CMSampleTimingInfo timing {kCMTimeInvalid, pts ? CMTimeMake(*pts, timescale) : kCMTimeInvalid,
                                     dts ? CMTimeMake(*dts, timescale) : kCMTimeInvalid};
    CMSampleBufferRef sample;
    CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &bytes, &sample);
    if (!key) CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
    return sample;
}

CMTime pts(const CMSampleBufferRef& sample)
{
    return CMSampleBufferGetPresentationTimeStamp(sample);
}

CMTime dts(const CMSampleBufferRef& sample)
{
    return CMSampleBufferGetDecodeTimeStamp(sample);
}

std::string text(CMTime time)
{
    if (!CMTIME_IS_VALID(time)) return "invalid";
    return std::to_string(time.value) + "/" + std::to_string(time.timescale);
}

bool same(CMTime a, CMTime b)
{
    if (!CMTIME_IS_VALID(a) || !CMTIME_IS_VALID(b)) return CMTIME_IS_VALID(a) == CMTIME_IS_VALID(b);
    return CMTimeCompare(a, b) == 0;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

size_t waitUntilSteady(const std::function<size_t()>& value, std::chrono::milliseconds quiet)
{
    size_t last = value();
    auto since = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - since < quiet) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const size_t now = value();
        if (now != last) {
            last = now;
            since = std::chrono::steady_clock::now();
        }
    }
    return last;
}

std::vector<uint64_t> ffprobePacketCounts(const std::filesystem::path& file)
{
    std::string output;
    qxtest::run("ffprobe -v error -count_packets -show_entries stream=index,nb_read_packets -of csv=p=0 '" +
                    file.string() + "' 2>/dev/null",
                &output);
    // A transport stream lists its streams twice, under its program too.
    std::vector<uint64_t> counts;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const size_t comma = line.find(',');
        if (comma == std::string::npos) continue;
        const auto index = size_t(std::stoul(line.substr(0, comma)));
        if (counts.size() <= index) counts.resize(index + 1);
        counts[index] = std::stoull(line.substr(comma + 1));
    }
    return counts;
}

std::vector<ProbedPacket> ffprobePackets(const std::filesystem::path& file)
{
    std::string output;
    qxtest::run("ffprobe -v error -show_entries packet=stream_index,flags -of csv=p=0 '" + file.string() + "' 2>/dev/null",
                &output);
    std::vector<ProbedPacket> packets;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const size_t comma = line.find(',');
        if (comma == std::string::npos) continue;
        packets.push_back({std::stoi(line.substr(0, comma)), line.find('K', comma) != std::string::npos});
    }
    return packets;
}

std::vector<std::vector<std::string>> ffprobePacketHashes(const std::filesystem::path& file)
{
    std::string output;
    qxtest::run("ffprobe -v error -show_data_hash MD5 -show_entries packet=stream_index,data_hash -of csv=p=0 '" +
                    file.string() + "' 2>/dev/null",
                &output);
    std::vector<std::vector<std::string>> hashes;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const size_t comma = line.find(",MD5:");
        if (comma == std::string::npos) continue;
        const auto stream = size_t(std::stoi(line.substr(0, comma)));
        if (hashes.size() <= stream) hashes.resize(stream + 1);
        hashes[stream].push_back(line.substr(comma + 5));
    }
    return hashes;
}

std::string md5Of(const qx::CMSampleBufferRef& sample)
{
    char* data = nullptr;
    size_t length = 0;
    qx::CMBlockBufferGetDataPointer(qx::CMSampleBufferGetDataBuffer(sample), 0, nullptr, &length, &data);
    uint8_t digest[16];
    av_md5_sum(digest, reinterpret_cast<const uint8_t*>(data), length);
    std::string hex;
    for (uint8_t byte : digest) {
        static const char digits[] = "0123456789abcdef";
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return hex;
}

} // namespace readertest
