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

TEST(AudioOutput, SilenceHasThePlanesOfTheDeliveredLayout)
{
    for (const int32_t channels : {1, 2, 6, 8}) {
        SCOPED_TRACE(channels);
        auto destination = QXAudioTrack::init();
        destination->codec_id = AV_CODEC_ID_AC3;
        destination->channels = channels;
        destination->sample_rate = 32000;
        auto output = QXTrackReaderAudioOutput::initWithSource(destination, destination);
        const CMSampleBufferRef silence = output->silentSample();
        ASSERT_TRUE(silence);
        // 1024 frames of 4 bytes a plane; any count but 1 and 6 is stereo.
        const size_t planes = channels == 1 ? 1 : channels == 6 ? 6 : 2;
        const std::vector<float> values = pcm(silence);
        EXPECT_EQ(values.size(), planes * 1024);
        EXPECT_EQ(std::count(values.begin(), values.end(), 0.0f), std::ptrdiff_t(values.size()));
        EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(silence), CMTimeMake(1024, 32000)), 0);
        EXPECT_FALSE(CMTIME_IS_VALID(CMSampleBufferGetPresentationTimeStamp(silence)));
    }
}

TEST(AudioOutput, TheDecoderPrefersPlanarFloatThenItsTwin)
{
    AVCodec codec = *avcodec_find_decoder(AV_CODEC_ID_AAC);
    struct Case {
        std::vector<AVSampleFormat> offered; // without the end mark
        AVSampleFormat chosen;
    };
    const Case cases[] = {
        {{AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLT}, AV_SAMPLE_FMT_FLT},
        {{AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_S16}, AV_SAMPLE_FMT_FLTP},
        {{AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_S16}, AV_SAMPLE_FMT_S32},
    };
    for (const Case& c : cases) {
        std::vector<AVSampleFormat> list = c.offered;
        list.push_back(AV_SAMPLE_FMT_NONE);
        codec.sample_fmts = list.data();
        AVCodecContext* context = avcodec_alloc_context3(nullptr);
        qx_ff_set_sample_fmt(context, &codec, AV_SAMPLE_FMT_FLTP);
        EXPECT_EQ(context->sample_fmt, c.chosen);
        EXPECT_EQ(context->request_sample_fmt, c.chosen);
        avcodec_free_context(&context);
    }
    // A codec without a list is left alone.
    codec.sample_fmts = nullptr;
    AVCodecContext* context = avcodec_alloc_context3(nullptr);
    const AVSampleFormat before = context->sample_fmt;
    qx_ff_set_sample_fmt(context, &codec, AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(context->sample_fmt, before);
    avcodec_free_context(&context);
}
