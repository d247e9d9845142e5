#include "OutputSupport.h"

#include <future>
#include <sstream>
#include <thread>

extern "C" {
#include <libavformat/avformat.h>
}

#include "qxmedia/platform/coremedia/CMBufferQueue.h"
#include "qxmedia/source/QXTrack.h"
#include "support/TestMedia.h"

using namespace qx;

namespace outputtest {

PipelineRun::PipelineRun(const std::filesystem::path& path, bool encode)
{
    if (path.empty()) return;
    movie = QXMovie::initWithURL(path);
    if (!movie) return;
    for (const QXTrackRef& track : movie->tracks) {
        auto output = QXTrackReaderOutput::initWithSource(track, track->copy(), encode);
        track->addOutput(output);
        outputs.push_back(output);
    }
    delivered.resize(outputs.size());
}

PipelineRun::~PipelineRun()
{
    if (!movie) return;
    for (const QXTrackRef& track : movie->tracks) {
        dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    for (const auto& output : outputs) dispatch_sync(output->processQueue, [] {});
    movie->releaseReaders();
}

bool PipelineRun::run(std::chrono::seconds limit)
{
    if (!movie) return false;
    std::vector<std::future<std::vector<CMSampleBufferRef>>> drains;
    for (const auto& output : outputs) {
        drains.push_back(std::async(std::launch::async, [output] {
            std::vector<CMSampleBufferRef> samples;
            while (CMSampleBufferRef sample = output->copyNextSample()) samples.push_back(sample);
            return samples;
        }));
    }
    if (!movie->startReading()) return false;
    bool ended = true;
    for (size_t i = 0; i < drains.size(); ++i) {
        if (drains[i].wait_for(limit) != std::future_status::ready) {
            ended = false;
            continue;
        }
        delivered[i] = drains[i].get();
    }
    return ended;
}

std::vector<CMSampleBufferRef> readPackets(const std::filesystem::path& path, int streamIndex)
{
    std::vector<CMSampleBufferRef> samples;
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return samples;
    if (avformat_find_stream_info(context, nullptr) >= 0 && streamIndex < int(context->nb_streams)) {
        const AVRational base = context->streams[streamIndex]->time_base;
        const auto time = [base](int64_t value) {
            return value == AV_NOPTS_VALUE ? kCMTimeInvalid : CMTimeMake(value * base.num, base.den);
        };
        AVPacket* packet = av_packet_alloc();
        while (av_read_frame(context, packet) >= 0) {
            if (packet->stream_index == streamIndex) {
                const size_t size = size_t(packet->size);
                CMBlockBufferRef block;
                CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                                   kCMBlockBufferAssureMemoryNowFlag, &block);
                CMBlockBufferReplaceDataBytes(packet->data, block, 0, size);
                const CMSampleTimingInfo timing {kCMTimeInvalid, time(packet->pts), time(packet->dts)};
                CMSampleBufferRef sample;
                CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size, &sample);
                if (!(packet->flags & AV_PKT_FLAG_KEY)) {
                    CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
                }
                samples.push_back(sample);
            }
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
    }
    avformat_close_input(&context);
    return samples;
}

std::vector<std::vector<std::string>> packetHashes(const std::filesystem::path& file)
{
    // One key a line: side data of a packet cannot split its entry.
    std::string output;
    qxtest::run("ffprobe -v error -show_data_hash MD5 -show_entries packet=stream_index,data_hash "
                "-of default=noprint_wrappers=1 '" + file.string() + "' 2>/dev/null",
                &output);
    std::vector<std::vector<std::string>> hashes;
    size_t stream = 0;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("stream_index=", 0) == 0) {
            stream = size_t(std::stoul(line.substr(13)));
        } else if (line.rfind("data_hash=MD5:", 0) == 0) {
            if (hashes.size() <= stream) hashes.resize(stream + 1);
            hashes[stream].push_back(line.substr(14));
        }
    }
    return hashes;
}

void feed(QXTrackReaderOutput& output, const std::vector<CMSampleBufferRef>& samples, bool end)
{
    for (const auto& sample : samples) output.processSample(sample);
    if (end) output.processSample(nullptr);
}

std::vector<CMSampleBufferRef> takeReady(QXTrackReaderOutput& output)
{
    std::vector<CMSampleBufferRef> taken;
    while (!CMBufferQueueIsEmpty(output.samples)) taken.push_back(output.copyNextSample());
    return taken;
}

CMTime copiedTime(int64_t value, int32_t timescale)
{
    CMTime time = CMTimeMake(value, timescale);
    time.flags |= kCMTimeFlags_Indefinite;
    return time;
}

} // namespace outputtest
