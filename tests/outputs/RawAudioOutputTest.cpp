// The output of copied audio: coded bytes pass untouched with durations
// read from frame headers or measured by the decoder, a bad packet costs only itself, the end always
// arrives, and silentSample makes a packet that decodes to silence.

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "OutputMedia.h"
#include "OutputSupport.h"
#include "ReaderSupport.h"
#include "qxmedia/reader/QXCodedFrameLength.h"
#include "qxmedia/reader/QXTrackReaderRawAudioOutput.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace outputtest;

namespace {

constexpr int kAC3Stream = 1;
constexpr int kAACStream = 2;

std::shared_ptr<QXTrackReaderRawAudioOutput> rawOutput(const QXTrackRef& track)
{
    return QXTrackReaderRawAudioOutput::initWithSource(track, track->copy());
}

// Decodes one packet with the stream's own parameters, as a player of the
// finished file would; answers the largest magnitude of any sample, or -1
// when nothing decoded. `frames` and `channels` tell what came out.
double decodedPeak(const QXTrack& track, const CMSampleBufferRef& sample, int* frames, int* channels)
{
    const AVCodec* codec = avcodec_find_decoder(AVCodecID(track.codec_id));
    AVCodecContext* context = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(context, track.codecParameters());
    double peak = -1;
    *frames = 0;
    if (avcodec_open2(context, codec, nullptr) == 0) {
        const CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
        AVPacket* packet = av_packet_alloc();
        av_new_packet(packet, int(CMBlockBufferGetDataLength(data)));
        CMBlockBufferCopyDataBytes(data, 0, size_t(packet->size), packet->data);
        AVFrame* frame = av_frame_alloc();
        avcodec_send_packet(context, packet);
        avcodec_send_packet(context, nullptr);
        while (avcodec_receive_frame(context, frame) == 0) {
            peak = std::max(peak, 0.0);
            *frames += frame->nb_samples;
            *channels = frame->ch_layout.nb_channels;
            // Both decoders here deliver planar float.
            for (int c = 0; c < frame->ch_layout.nb_channels && frame->format == AV_SAMPLE_FMT_FLTP; ++c) {
                const auto* values = reinterpret_cast<const float*>(frame->extended_data[c]);
                for (int i = 0; i < frame->nb_samples; ++i) peak = std::max(peak, double(std::fabs(values[i])));
            }
        }
        av_frame_free(&frame);
        av_packet_free(&packet);
    }
    avcodec_free_context(&context);
    return peak;
}

} // namespace

TEST(RawAudioOutput, CopiedAudioKeepsItsBytesAndGetsDurationsInPcmFrames)
{
    const auto path = outputmedia::matroska();
    const auto hashes = packetHashes(path);
    PipelineRun run(path);
    ASSERT_TRUE(run.movie);
    ASSERT_TRUE(run.run());
    ASSERT_EQ(hashes.size(), 3u);

    struct Expected {
        int stream;
        int frames;
        int rate;
    };
    for (const Expected expected : {Expected {kAC3Stream, 1536, 48000}, Expected {kAACStream, 1024, 44100}}) {
        SCOPED_TRACE("stream " + std::to_string(expected.stream));
        const auto& output = run.outputs[size_t(expected.stream)];
        ASSERT_TRUE(std::dynamic_pointer_cast<QXTrackReaderRawAudioOutput>(output));
        const auto& samples = run.delivered[size_t(expected.stream)];
        ASSERT_EQ(samples.size(), hashes[size_t(expected.stream)].size());
        const int32_t timescale = run.movie->tracks[size_t(expected.stream)]->naturalTimeScale;
        for (size_t i = 0; i < samples.size(); ++i) {
            ASSERT_EQ(readertest::md5Of(samples[i]), hashes[size_t(expected.stream)][i]) << "sample " << i;
            const CMTime duration = CMSampleBufferGetDuration(samples[i]);
            ASSERT_EQ(duration.value, expected.frames) << "sample " << i;
            ASSERT_EQ(duration.timescale, expected.rate) << "sample " << i;
            EXPECT_FALSE(CMTIME_IS_VALID(CMSampleBufferGetDecodeTimeStamp(samples[i])));
            EXPECT_EQ(CMSampleBufferGetPresentationTimeStamp(samples[i]).timescale, timescale);
        }
        // Presentation times come from the decoder and follow the packets.
        for (size_t i = 1; i < samples.size(); ++i) {
            const double step = CMTimeGetSeconds(CMSampleBufferGetPresentationTimeStamp(samples[i])) -
                                CMTimeGetSeconds(CMSampleBufferGetPresentationTimeStamp(samples[i - 1]));
            EXPECT_NEAR(step, double(expected.frames) / expected.rate, 0.0011) << "sample " << i;
        }
    }
}

TEST(RawAudioOutput, APacketThatDoesNotDecodeLosesOnlyItself)
{
    const auto path = outputmedia::matroska();
    auto packets = readPackets(path, kAC3Stream);
    ASSERT_GE(packets.size(), 6u);
    packets.resize(6);
    // Packet 2 keeps its size but loses its content.
    CMBlockBufferRef junk;
    const size_t size = CMBlockBufferGetDataLength(CMSampleBufferGetDataBuffer(packets[2]));
    CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                       kCMBlockBufferAssureMemoryNowFlag, &junk);
    const std::vector<uint8_t> zeros(size, 0);
    CMBlockBufferReplaceDataBytes(zeros.data(), junk, 0, size);
    const CMSampleTimingInfo timing {kCMTimeInvalid, CMSampleBufferGetPresentationTimeStamp(packets[2]), kCMTimeInvalid};
    CMSampleBufferCreate(nullptr, junk, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size, &packets[2]);

    auto movie = QXMovie::initWithURL(path);
    ASSERT_TRUE(movie);
    auto output = rawOutput(movie->tracks[kAC3Stream]);
    qxtest::LogCapture log;
    feed(*output, packets, true);
    const auto left = takeReady(*output);

    EXPECT_TRUE(log.contains("Failed to decode audio sample", 2));
    ASSERT_EQ(left.size(), 5u);
    const size_t kept[] = {0, 1, 3, 4, 5};
    for (size_t i = 0; i < left.size(); ++i) {
        EXPECT_EQ(readertest::md5Of(left[i]), readertest::md5Of(packets[kept[i]])) << "sample " << i;
        EXPECT_EQ(CMSampleBufferGetDuration(left[i]).value, 1536);
    }
    EXPECT_TRUE(output->finished());
    EXPECT_EQ(output->copyNextSample(), nullptr);
}

TEST(RawAudioOutput, TimesAreCountedInTheDestinationsTimescale)
{
    // The source counts in milliseconds; the file will count in samples.
    const auto path = outputmedia::matroska();
    auto movie = QXMovie::initWithURL(path);
    ASSERT_TRUE(movie);
    const QXTrackRef source = movie->tracks[kAC3Stream];
    ASSERT_EQ(source->naturalTimeScale, 1000);
    auto destination = source->copy();
    destination->naturalTimeScale = 48000;
    auto output = QXTrackReaderRawAudioOutput::initWithSource(source, destination);
    auto packets = readPackets(path, kAC3Stream);
    packets.resize(4);
    feed(*output, packets, true);
    const auto left = takeReady(*output);
    ASSERT_EQ(left.size(), 4u);
    for (size_t i = 0; i < left.size(); ++i) {
        const CMTime p = CMSampleBufferGetPresentationTimeStamp(left[i]);
        EXPECT_EQ(p.timescale, 48000);
        const CMTime given = CMSampleBufferGetPresentationTimeStamp(packets[i]);
        EXPECT_EQ(p.value, given.value * 48) << "sample " << i;
        if (i > 0) {
            EXPECT_EQ(p.value - CMSampleBufferGetPresentationTimeStamp(left[i - 1]).value, 1536);
        }
    }
}

TEST(RawAudioOutput, SilentSampleDecodesToSilenceInTheStreamsFormat)
{
    const auto path = outputmedia::matroska();
    auto movie = QXMovie::initWithURL(path);
    ASSERT_TRUE(movie);

    struct Expected {
        int stream;
        int frames;
        int rate;
        int channels;
    };
    for (const Expected expected : {Expected {kAC3Stream, 1536, 48000, 6}, Expected {kAACStream, 1024, 44100, 2}}) {
        SCOPED_TRACE("stream " + std::to_string(expected.stream));
        const QXTrack& track = *movie->tracks[size_t(expected.stream)];
        auto output = rawOutput(movie->tracks[size_t(expected.stream)]);
        // The format follows the decoded frames, so feed a few first.
        auto packets = readPackets(path, expected.stream);
        packets.resize(std::min<size_t>(packets.size(), 4));
        feed(*output, packets, false);

        const CMSampleBufferRef silence = output->silentSample();
        ASSERT_TRUE(silence);
        EXPECT_EQ(CMSampleBufferGetDuration(silence).value, expected.frames);
        EXPECT_EQ(CMSampleBufferGetDuration(silence).timescale, expected.rate);
        EXPECT_FALSE(CMTIME_IS_VALID(CMSampleBufferGetPresentationTimeStamp(silence)));
        int frames = 0;
        int channels = 0;
        const double peak = decodedPeak(track, silence, &frames, &channels);
        EXPECT_GE(peak, 0.0) << "decodes";
        EXPECT_LT(peak, 1e-4) << "to silence (below -80 dB)";
        EXPECT_EQ(frames, expected.frames);
        EXPECT_EQ(channels, expected.channels);

        // Each call builds its own encoder: the same packet again.
        EXPECT_EQ(readertest::md5Of(output->silentSample()), readertest::md5Of(silence));
    }
}

TEST(CodedFrameLength, ReadsFixedLengthsFromHeadersAndLeavesTheRestToTheDecoder)
{
    const auto movie = QXMovie::initWithURL(outputmedia::matroska());
    ASSERT_TRUE(movie);
    const auto ac3 = QXCodedFrameLength::forTrack(*movie->tracks[kAC3Stream]);
    ASSERT_TRUE(ac3);
    const CMBlockBufferRef packet = CMSampleBufferGetDataBuffer(readPackets(outputmedia::matroska(), kAC3Stream).front());
    std::vector<uint8_t> frame(CMBlockBufferGetDataLength(packet));
    CMBlockBufferCopyDataBytes(packet, 0, frame.size(), frame.data());
    const std::vector<uint8_t> zeros(frame.size(), 0);

    // E-AC-3 from FFmpeg's encoder (six blocks a frame); packets of two
    // frames, of a frame and a dependent one, of a frame and a cut one.
    const auto eac3Path = qxtest::generate("eac3-stereo.mka", "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=1 "
                                                              "-ac 2 -c:a eac3 -b:a 192k");
    const auto eac3 = QXCodedFrameLength::forTrack(*QXMovie::initWithURL(eac3Path)->tracks[0]);
    const CMBlockBufferRef eac3Packet = CMSampleBufferGetDataBuffer(readPackets(eac3Path, 0).front());
    std::vector<uint8_t> one(CMBlockBufferGetDataLength(eac3Packet));
    CMBlockBufferCopyDataBytes(eac3Packet, 0, one.size(), one.data());
    std::vector<uint8_t> two = one, dependent = one, cut = one;
    two.insert(two.end(), one.begin(), one.end());
    dependent.insert(dependent.end(), one.begin(), one.end());
    dependent[one.size() + 2] = uint8_t((dependent[one.size() + 2] & 0x3F) | 0x40); // strmtyp 1
    cut.insert(cut.end(), one.begin(), one.begin() + 40);

    auto aacTrack = [](int profile, int frameSize) {
        auto track = QXTrack::init();
        track->codecParameters()->codec_id = AV_CODEC_ID_AAC;
        track->codecParameters()->profile = profile;
        track->codecParameters()->frame_size = frameSize;
        track->codecParameters()->sample_rate = 48000;
        return QXCodedFrameLength::forTrack(*track);
    };
    // An ADTS header whose last two bits say two raw data blocks.
    const uint8_t adts[] = {0xFF, 0xF1, 0x4C, 0x80, 0x2E, 0x7F, 0xFD};
    const uint8_t raw[] = {0x21, 0x10, 0x04};
    struct Case {
        const char* name;
        std::optional<QXCodedFrameLength> length;
        const uint8_t* data;
        size_t size, packetSize;
        int32_t frames, rate; // 0: not measured
        int32_t channels = -1; // -1: not checked
    } const cases[] = {
        {"AC-3 frame", ac3, frame.data(), 32, frame.size(), 1536, 48000},
        {"AC-3 frame cut short", ac3, frame.data(), 32, frame.size() / 2, 0, 0},
        {"AC-3 packet of zeros", ac3, zeros.data(), 32, zeros.size(), 0, 0},
        {"AAC-LC", aacTrack(FF_PROFILE_AAC_LOW, 1024), raw, sizeof raw, sizeof raw, 1024, 48000},
        {"AAC-LC 960", aacTrack(FF_PROFILE_AAC_LOW, 960), raw, sizeof raw, sizeof raw, 960, 48000},
        {"ADTS of two blocks", aacTrack(FF_PROFILE_AAC_LOW, 1024), adts, sizeof adts, 400, 2048, 48000},
        {"E-AC-3 frame", eac3, one.data(), one.size(), one.size(), 1536, 48000, 2},
        {"E-AC-3 two frames", eac3, two.data(), two.size(), two.size(), 3072, 48000, 2},
        {"E-AC-3 with a dependent frame", eac3, dependent.data(), dependent.size(), dependent.size(), 1536, 48000, 0},
        {"E-AC-3 and a cut frame", eac3, cut.data(), cut.size(), cut.size(), 1536, 48000, 2},
        {"E-AC-3 frame cut short", eac3, one.data(), one.size() / 2, one.size() / 2, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.length);
        const auto measured = c.length->lengthOf(c.data, c.size, c.packetSize);
        ASSERT_EQ(measured.has_value(), c.frames != 0);
        if (measured) {
            EXPECT_EQ(std::make_pair(measured->frames, measured->rate), std::make_pair(c.frames, c.rate));
            if (c.channels >= 0) {
                EXPECT_EQ(measured->channels, c.channels);
            }
        }
    }
    // HE-AAC decodes at twice the rate of its setup: it is measured by decoding.
    EXPECT_FALSE(aacTrack(FF_PROFILE_AAC_HE, 1024));
}
