// AAC encoded through the AudioConverter made of FFmpeg's encoder: real
// files that decode to the source's length, the bit rate held within the
// applicable rates, and the decoder configuration taken from the cookie.

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <thread>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "MuxerSupport.h"
#include "qxmedia/muxer/QXMuxerAACInput.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

fs::path surroundSource()
{
    return qxtest::generate("aac-in-ac3-51.mkv", "-f lavfi -i testsrc2=size=64x48:rate=10:duration=3 "
                                                 "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 "
                                                 "-c:v libx264 -preset ultrafast -pix_fmt yuv420p "
                                                 "-af aformat=channel_layouts=5.1 -c:a ac3 -b:a 384k");
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line != ",") result.push_back(line);
    }
    return result;
}

// Stereo planar float of `frames` frames, in blocks of `block`.
std::vector<CMSampleBufferRef> tone(int frames, int block, int32_t rate)
{
    std::vector<CMSampleBufferRef> samples;
    for (int done = 0; done < frames; done += block) {
        const int count = std::min(block, frames - done);
        std::vector<float> pcm(size_t(count) * 2);
        for (int i = 0; i < count; ++i) pcm[size_t(i)] = pcm[size_t(count + i)] = float(0.3 * std::sin((done + i) * 0.05));
        const size_t length = pcm.size() * sizeof(float);
        CMBlockBufferRef data;
        CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, length, nullptr, nullptr, 0, length, 1, &data);
        CMBlockBufferReplaceDataBytes(pcm.data(), data, 0, length);
        const CMSampleTimingInfo timing {CMTimeMake(count, rate), CMTimeMake(done, rate), kCMTimeInvalid};
        CMSampleBufferRef sample;
        CMSampleBufferCreate(nullptr, data, true, nullptr, nullptr, nullptr, 1, 1, &timing, 0, nullptr, &sample);
        samples.push_back(sample);
    }
    return samples;
}

std::shared_ptr<QXAudioTrack> plannedAAC(uint32_t rate, uint32_t bitrate)
{
    auto track = QXAudioTrack::init();
    track->codec_id = AV_CODEC_ID_AAC;
    track->sample_rate = rate;
    track->channels = 2;
    track->bitrate = bitrate;
    return track;
}

// Encodes the samples into `output`; false when the run fails.
bool encodeInto(const fs::path& output, const std::shared_ptr<QXAudioTrack>& track,
                const std::vector<CMSampleBufferRef>& samples)
{
    auto input = QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, true);
    if (!std::dynamic_pointer_cast<QXMuxerAACInput>(input)) return false;
    MuxerRun run(output);
    run.muxer->addInput(input);
    if (!run.start()) return false;
    Feeder feeder(input, samples);
    return run.waitForCompletion() && run.muxer->status == QXMuxerStatusCompleted;
}

} // namespace

TEST(AACInput, MixedDownSurroundDecodesToTheSourcesLength)
{
    const fs::path source = surroundSource();
    ASSERT_FALSE(source.empty());
    auto movie = QXMovie::initWithURL(source);
    ASSERT_TRUE(movie);
    ASSERT_EQ(movie->tracks.size(), 2u);
    const QXTrackRef audio = movie->tracks[1];
    auto destination = std::dynamic_pointer_cast<QXAudioTrack>(audio->copy());
    destination->codec_id = AV_CODEC_ID_AAC;
    destination->channels = 2;
    destination->channel_layout = 3;
    destination->bitrate = 128000;

    auto pictures = QXTrackReaderOutput::initWithSource(movie->tracks[0]);
    movie->tracks[0]->addOutput(pictures);
    std::thread drain([pictures] {
        while (pictures->copyNextSample()) {
        }
    });
    const auto dir = qxtest::makeTempDir("aac-encode");
    const fs::path output = dir / "aac.m4v";
    MuxerRun run(output);
    auto readerOutput = QXTrackReaderOutput::initWithSource(audio, destination, true);
    audio->addOutput(readerOutput);
    auto input = QXMuxerInput::initWithSource(readerOutput, destination, true);
    ASSERT_TRUE(std::dynamic_pointer_cast<QXMuxerAACInput>(input));
    run.muxer->addInput(input);
    auto channel = QXSampleBufferChannel::initWithReaderOutput(readerOutput, input);
    channel->startWithDelegate(nullptr, {});
    ASSERT_TRUE(run.start());
    ASSERT_TRUE(movie->startReading());
    ASSERT_TRUE(run.waitForCompletion());
    drain.join();
    for (const QXTrackRef& track : movie->tracks) {
        dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    movie->releaseReaders();
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);

    EXPECT_EQ(ffprobe("-show_entries stream=codec_name,profile,sample_rate,channels -of csv=p=0", output).substr(0, 20),
              "aac,LC,48000,2");
    const auto durations = lines(ffprobe("-show_entries packet=duration -of csv=p=0", output));
    EXPECT_EQ(durations, std::vector<std::string>(durations.size(), "1024"));
    // The source's 3 s (in whole AC-3 frames), the encoder's priming frame
    // and the padding of the last one.
    const double length = double(durations.size()) * 1024 / 48000;
    EXPECT_GT(length, 3.0);
    EXPECT_LT(length, 3.0 + 3 * 1024.0 / 48000 + 1536.0 / 48000);
    std::string errors;
    qxtest::run("ffmpeg -v error -i '" + output.string() + "' -f null - 2>&1", &errors);
    EXPECT_EQ(errors, "");
}

TEST(AACInput, EveryQueuedFrameComesOutAndTheLastIsPadded)
{
    // Two packets of priming, then one for each frame begun: what the
    // encoder still holds at the end comes out too.
    const auto dir = qxtest::makeTempDir("aac-frames");
    for (const auto& [frames, packets] : {std::pair {500, 3u}, std::pair {1024, 3u}, std::pair {10 * 1024, 12u},
                                          std::pair {10 * 1024 + 1, 13u}}) {
        SCOPED_TRACE(frames);
        const fs::path output = dir / (std::to_string(frames) + ".m4v");
        ASSERT_TRUE(encodeInto(output, plannedAAC(44100, 96000), tone(frames, 700, 44100)));
        const auto written = samplesOfTrack(output, 1);
        EXPECT_EQ(written.size(), packets);
        for (const auto& sample : written) EXPECT_EQ(sample.duration, 1024u);
        EXPECT_FALSE(qxtest::boxPayload(output, "esds").empty());
    }
    // Nothing in, nothing out.
    ASSERT_TRUE(encodeInto(dir / "empty.m4v", plannedAAC(44100, 96000), {}));
    EXPECT_TRUE(samplesOfTrack(dir / "empty.m4v", 1).empty());
}

TEST(AACInput, TheBitRateIsHeldWithinTheApplicableRates)
{
    struct Case {
        uint32_t requested;
        const char* logged; // null: kept as it is
    };
    // Stereo at 48 kHz: 32 to 320 kbit/s.
    const Case cases[] = {
        {8000, "Sanitizing AAC audio bitrate 8000 to 32000"},
        {900000, "Sanitizing AAC audio bitrate 900000 to 320000"},
        {128000, nullptr},
    };
    const auto dir = qxtest::makeTempDir("aac-rates");
    std::vector<double> rates;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.requested);
        qxtest::LogCapture log;
        const fs::path output = dir / (std::to_string(c.requested) + ".m4v");
        ASSERT_TRUE(encodeInto(output, plannedAAC(48000, c.requested), tone(48000, 4096, 48000)));
        EXPECT_EQ(log.contains("Sanitizing AAC audio bitrate", 4), c.logged != nullptr);
        if (c.logged) {
            EXPECT_TRUE(log.contains(c.logged, 4));
        }
        rates.push_back(std::stod(ffprobe("-show_entries stream=bit_rate -of csv=p=0", output)));
    }
    // What the encoder makes of a plain tone follows the rate it was given.
    EXPECT_NEAR(rates[0], 32000, 3200);
    EXPECT_GT(rates[1], rates[2]);
    EXPECT_NEAR(rates[2], 128000, 12800);
}

TEST(AACInput, TheCookieGivesItsDecoderSpecificInfo)
{
    // Version and flags, then ES (3), decoder config (4) with its 13 fixed
    // bytes, specific info (5) of two bytes; lengths short or in four bytes.
    const std::vector<uint8_t> fixed(13, 0x40);
    auto cookie = [&](bool longLengths, uint8_t configTag) {
        std::vector<uint8_t> out {0, 0, 0, 0, 0x03};
        auto length = [&](uint8_t value) {
            if (longLengths) out.insert(out.end(), {0x80, 0x80, 0x80});
            out.push_back(value);
        };
        length(30);
        out.insert(out.end(), {0, 1, 0, configTag});
        length(20);
        out.insert(out.end(), fixed.begin(), fixed.end());
        out.push_back(0x05);
        length(2);
        out.insert(out.end(), {0x12, 0x10, 0x06, 0x01, 0x02});
        return out;
    };
    for (const bool longLengths : {false, true}) {
        const std::vector<uint8_t> bytes = cookie(longLengths, 0x04);
        uint8_t* config = nullptr;
        int size = -1;
        EXPECT_EQ(ReadESDSDescExt(bytes.data(), &config, &size, 1, bytes.size()), 0);
        ASSERT_EQ(size, 2);
        EXPECT_EQ(config[0], 0x12);
        EXPECT_EQ(config[1], 0x10);
        std::free(config);
    }
    // No decoder config where it belongs, or a cookie cut short: nothing.
    const std::vector<uint8_t> wrongTag = cookie(false, 0x07);
    const std::vector<uint8_t> whole = cookie(true, 0x04);
    for (const auto& [bytes, size] : {std::pair {wrongTag.data(), wrongTag.size()}, std::pair {whole.data(), size_t(20)},
                                      std::pair {whole.data(), whole.size() - 6}}) {
        uint8_t* config = reinterpret_cast<uint8_t*>(1);
        int length = -1;
        EXPECT_EQ(ReadESDSDescExt(bytes, &config, &length, 1, size), 0);
        EXPECT_EQ(config, nullptr);
        EXPECT_EQ(length, 0);
    }
}
