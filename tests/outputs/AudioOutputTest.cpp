// The decoded audio output: planar float in the destination's rate and
// layout, converted only where the decoder does not already deliver that,
// and silence of the same shape.

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "OutputMedia.h"
#include "qxmedia/reader/QXTrackReaderAudioOutput.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

struct Decoded {
    std::shared_ptr<QXTrackReaderAudioOutput> output;
    std::vector<CMSampleBufferRef> samples;
};

// Reads the movie with a decoded audio output on track `index` that
// delivers `channels` channels at `rate`; the other tracks are read and
// thrown away.
Decoded decode(const std::filesystem::path& path, size_t index, int32_t channels, uint32_t rate)
{
    Decoded result;
    auto movie = QXMovie::initWithURL(path);
    if (!movie || index >= movie->tracks.size()) return result;
    std::vector<std::shared_ptr<QXTrackReaderOutput>> outputs;
    for (size_t i = 0; i < movie->tracks.size(); ++i) {
        const QXTrackRef& track = movie->tracks[i];
        if (i == index) {
            auto destination = std::dynamic_pointer_cast<QXAudioTrack>(track->copy());
            destination->channels = channels;
            destination->sample_rate = rate;
            result.output = std::dynamic_pointer_cast<QXTrackReaderAudioOutput>(
                QXTrackReaderOutput::initWithSource(track, destination, true));
            if (!result.output) return result;
            outputs.push_back(result.output);
        } else {
            outputs.push_back(QXTrackReaderOutput::initWithSource(track));
        }
        track->addOutput(outputs.back());
    }
    std::vector<std::thread> drains;
    for (size_t i = 0; i < outputs.size(); ++i) {
        drains.emplace_back([&, i] {
            while (CMSampleBufferRef sample = outputs[i]->copyNextSample()) {
                if (i == index) result.samples.push_back(sample);
            }
        });
    }
    if (!movie->startReading()) {
        for (const auto& output : outputs) output->processSample(nullptr);
    }
    for (auto& drain : drains) drain.join();
    for (const QXTrackRef& track : movie->tracks) {
        dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    movie->releaseReaders();
    return result;
}

std::vector<float> pcm(const CMSampleBufferRef& sample)
{
    const CMBlockBufferRef block = CMSampleBufferGetDataBuffer(sample);
    std::vector<float> values(CMBlockBufferGetDataLength(block) / sizeof(float));
    CMBlockBufferCopyDataBytes(block, 0, values.size() * sizeof(float), values.data());
    return values;
}

} // namespace

TEST(AudioOutput, DeliversPlanarFloatInTheDestinationsRateAndLayout)
{
    // Track 1: AC-3 5.1 at 48 kHz; track 2: AAC stereo at 44.1 kHz; 2 s of tone.
    struct Case {
        const char* name;
        size_t track;
        int32_t channels;
        uint32_t rate;
        bool converts;
    };
    const Case cases[] = {
        {"5.1 as it is", 1, 6, 48000, false},
        {"5.1 matrixed to stereo", 1, 2, 48000, true},
        {"stereo resampled and spread to 5.1", 2, 6, 48000, true},
        {"stereo to mono", 2, 1, 44100, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        qxtest::LogCapture log;
        Decoded decoded = decode(outputmedia::matroska(), c.track, c.channels, c.rate);
        ASSERT_TRUE(decoded.output);
        ASSERT_TRUE(decoded.output->hasDecoder());
        EXPECT_EQ(decoded.output->hasConverter(), c.converts);
        EXPECT_EQ(log.contains("Created sample rate converter for conversion of ", 4), c.converts);
        ASSERT_GT(decoded.samples.size(), 20u);

        size_t frames = 0;
        double duration = 0;
        double loudest = 0;
        for (const CMSampleBufferRef& sample : decoded.samples) {
            const std::vector<float> values = pcm(sample);
            ASSERT_EQ(values.size() % size_t(c.channels), 0u);
            frames += values.size() / size_t(c.channels);
            duration += CMTimeGetSeconds(CMSampleBufferGetDuration(sample));
            for (const float value : values) loudest = std::max(loudest, double(std::fabs(value)));
        }
        // 2 s of source, give or take a coded frame and the converter's delay.
        EXPECT_NEAR(double(frames) / c.rate, 2.0, 0.06);
        EXPECT_NEAR(duration, 2.0, 0.06);
        EXPECT_GT(loudest, 0.05);
        EXPECT_LE(loudest, 1.0);
    }
}
