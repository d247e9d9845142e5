// The bounded queues between the read loop and the channels: a stalled
// output stalls its track's other outputs.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ReaderSupport.h"
#include "qxmedia/muxer/QXMuxerInputProtocol.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/source/QXAudioTrack.h"

using namespace qx;
using namespace readertest;

namespace {

// Calls outputSample of the track for `total` samples on a thread of its
// own, counting the calls that returned.
class Feeder {
public:
    Feeder(QXTrackRef track, int total, size_t bytes = 16) : track_(std::move(track))
    {
        thread_ = std::thread([this, total, bytes] {
            for (int k = 0; k < total; ++k) {
                track_->outputSample(makeSample(k, k, true, 1000, bytes));
                ++fed;
            }
            track_->outputSample(nullptr);
        });
    }
    ~Feeder() { thread_.join(); }
    std::atomic<size_t> fed {0};

private:
    QXTrackRef track_;
    std::thread thread_;
};

// The end of a channel, counting what arrives.
class CountingInput : public QXMuxerInputProtocol {
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
        if (sample) {
            if (CMSampleBufferGetDecodeTimeStamp(sample).value != int64_t(samples)) outOfOrder = true;
            ++samples;
        } else {
            ++ends;
        }
    }
    void markAsFinished() override { ++finishes; }

    std::atomic<size_t> samples {0};
    std::atomic<int> ends {0};
    std::atomic<int> finishes {0};
    std::atomic<bool> outOfOrder {false};
};

void clearOutputs(const QXTrackRef& track)
{
    dispatch_sync(track->outQueue, [] {});
    track->outputs.clear();
}

} // namespace

TEST(BackPressure, StalledOutputStallsItsSiblingAfterItsQueueAndTheFanOut)
{
    auto track = QXAudioTrack::init();
    auto stalled = RecordingOutput::attach(track, false);
    auto sibling = RecordingOutput::attach(track);
    const int total = 2000;
    {
        Feeder feeder(track, total);
        // The stalled output takes 256 (one in processSample, 255 waiting)
        // and the fan-out blocks on the 257th; 32 more wait for the fan-out.
        EXPECT_TRUE(waitUntil([&] { return sibling->count() >= 256 && feeder.fed >= 288; }));
        EXPECT_EQ(waitUntilSteady([&] { return sibling->count() + feeder.fed; }), 256u + 288u);
        EXPECT_EQ(sibling->count(), 256u);
        EXPECT_EQ(feeder.fed, 288u);
        EXPECT_EQ(stalled->count(), 0u);

        stalled->open();
        EXPECT_TRUE(stalled->waitForEnd());
        EXPECT_TRUE(sibling->waitForEnd());
    }
    for (const auto& output : {stalled, sibling}) {
        const auto samples = output->received();
        ASSERT_EQ(samples.size(), size_t(total));
        for (int k = 0; k < total; ++k) ASSERT_EQ(dts(samples[size_t(k)]).value, k) << "order lost at " << k;
    }
    clearOutputs(track);
}

TEST(BackPressure, CodedSamplesAreBoundedByTheirBytesInBothStages)
{
    // 1 MiB samples nobody takes: each stage holds its byte bound, far
    // below the count bound, and the read loop waits.
    auto track = QXAudioTrack::init();
    auto output = QXTrackReaderOutput::initWithSource(track);
    track->addOutput(output);
    const size_t sample = size_t(1) << 20;
    const size_t perStage = QXTrackReaderOutput::kQueuedCodedBytes / sample;
    const int total = 64;
    {
        Feeder feeder(track, total, sample);
        // The sample in processSample, waiting for room, is still counted
        // in the first stage.
        EXPECT_EQ(waitUntilSteady([&] { return size_t(feeder.fed); }), 2 * perStage);
        EXPECT_EQ(output->queuedBytes(), perStage * sample);
        EXPECT_EQ(output->processingBytes(), perStage * sample);
        for (int k = 0; k < total; ++k) {
            CMSampleBufferRef taken = output->copyNextSample();
            ASSERT_TRUE(taken);
            ASSERT_EQ(dts(taken).value, k);
        }
        EXPECT_FALSE(output->copyNextSample());
    }
    EXPECT_EQ(output->queuedBytes() + output->processingBytes(), 0u);
    clearOutputs(track);
}
