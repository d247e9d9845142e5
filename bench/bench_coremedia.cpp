// Costs of the sample carrier against FFmpeg's own packet references, which
// do the same job for FFmpeg's pipeline, measured in one binary so the ratios
// are comparable. All data are 64 KiB, a large video packet.
//   copy:   CMSampleBufferCreateCopyWithNewTiming and its release; against
//           av_packet_ref and av_packet_unref of a reference-counted packet.
//   wrap:   a sample over a block buffer that exists already, and its release.
//   ingest: what the read loop does per packet: a new block, the bytes copied
//           in, a sample, the sync attachment; against av_packet_ref alone
//           and against av_packet_ref of a packet that is not reference
//           counted, which copies the bytes as well.

#include <benchmark/benchmark.h>

#include <cstring>

extern "C" {
#include <libavcodec/packet.h>
}

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"

using namespace qx;

namespace {

constexpr size_t kPacketSize = 64 * 1024;

const CMSampleTimingInfo kTiming {CMTimeMake(1001, 30000), CMTimeMake(3003, 30000), CMTimeMake(2002, 30000)};

CMBlockBufferRef makeBlock(const uint8_t* bytes)
{
    CMBlockBufferRef block;
    CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, kPacketSize, nullptr, nullptr, 0, kPacketSize,
                                       kCMBlockBufferAssureMemoryNowFlag, &block);
    CMBlockBufferReplaceDataBytes(bytes, block, 0, kPacketSize);
    return block;
}

CMSampleBufferRef makeSample(const CMBlockBufferRef& block)
{
    CMSampleBufferRef sample;
    const size_t size = kPacketSize;
    CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &kTiming, 1, &size, &sample);
    return sample;
}

struct PacketSource {
    PacketSource()
    {
        packet = av_packet_alloc();
        av_new_packet(packet, int(kPacketSize));
        std::memset(packet->data, 0x5A, kPacketSize);
    }
    ~PacketSource() { av_packet_free(&packet); }
    AVPacket* packet;
};

void BM_SampleCopyWithNewTiming(benchmark::State& state)
{
    PacketSource source;
    CMSampleBufferRef sample = makeSample(makeBlock(source.packet->data));
    CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
    const CMSampleTimingInfo timing {kCMTimeInvalid, CMTimeMake(3003, 30000), CMTimeMake(2002, 30000)};
    for (auto _ : state) {
        CMSampleBufferRef copy;
        CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy);
        benchmark::DoNotOptimize(copy.get());
    }
}
BENCHMARK(BM_SampleCopyWithNewTiming);

void BM_PeerPacketRef(benchmark::State& state)
{
    PacketSource source;
    AVPacket* reference = av_packet_alloc();
    for (auto _ : state) {
        av_packet_ref(reference, source.packet);
        benchmark::DoNotOptimize(reference->data);
        av_packet_unref(reference);
    }
    av_packet_free(&reference);
}
BENCHMARK(BM_PeerPacketRef);

void BM_SampleOverExistingBlock(benchmark::State& state)
{
    PacketSource source;
    const CMBlockBufferRef block = makeBlock(source.packet->data);
    for (auto _ : state) {
        CMSampleBufferRef sample = makeSample(block);
        benchmark::DoNotOptimize(sample.get());
    }
}
BENCHMARK(BM_SampleOverExistingBlock);

void BM_SampleFromPacketBytes(benchmark::State& state)
{
    PacketSource source;
    for (auto _ : state) {
        CMSampleBufferRef sample = makeSample(makeBlock(source.packet->data));
        CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
        benchmark::DoNotOptimize(sample.get());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kPacketSize));
}
BENCHMARK(BM_SampleFromPacketBytes);

void BM_PeerPacketRefWithCopy(benchmark::State& state)
{
    // A packet without a buffer reference: av_packet_ref has to copy.
    PacketSource source;
    AVPacket borrowed {};
    borrowed.data = source.packet->data;
    borrowed.size = source.packet->size;
    AVPacket* reference = av_packet_alloc();
    for (auto _ : state) {
        av_packet_ref(reference, &borrowed);
        benchmark::DoNotOptimize(reference->data);
        av_packet_unref(reference);
    }
    av_packet_free(&reference);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kPacketSize));
}
BENCHMARK(BM_PeerPacketRefWithCopy);

} // namespace

BENCHMARK_MAIN();
