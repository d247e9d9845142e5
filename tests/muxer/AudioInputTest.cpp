// The audio inputs in real files: copied AAC, AC-3 and E-AC-3 tracks read
// through the pipeline keep every packet; encoded AAC, AC-3 and E-AC-3
// decode to the source's length.

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "MuxerSupport.h"
#include "qxmedia/muxer/QXMuxerRawAudioInput.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// A small picture track first: the reader starts its timeline at the first
// video key frame (time 0 here), so the audio keeps its own times.
const std::string kPicture = "-f lavfi -i testsrc2=size=64x48:rate=10:duration=3 ";
const std::string kTone = kPicture + "-f lavfi -i sine=frequency=440:sample_rate=";
const std::string kVideoCodec = " -c:v libx264 -preset ultrafast -pix_fmt yuv420p ";

fs::path aacStereo()
{
    return qxtest::generate("ain-aac-stereo.mp4",
                            kTone + "44100:duration=3" + kVideoCodec + "-ac 2 -c:a aac -b:a 96k -use_editlist 0");
}
fs::path aacSurround()
{
    return qxtest::generate("ain-aac-51.mp4", kTone + "48000:duration=3" + kVideoCodec +
                                                  "-af aformat=channel_layouts=5.1 -c:a aac -b:a 256k -use_editlist 0");
}
fs::path ac3Surround()
{
    return qxtest::generate("ain-ac3-51.mkv", kTone + "48000:duration=3" + kVideoCodec +
                                                  "-af aformat=channel_layouts=5.1 -c:a ac3 -b:a 384k");
}
fs::path ac3Stereo()
{
    return qxtest::generate("ain-ac3-stereo.mkv", kTone + "44100:duration=3" + kVideoCodec + "-ac 2 -c:a ac3 -b:a 192k");
}
fs::path eac3Surround()
{
    return qxtest::generate("ain-eac3-51.mkv", kTone + "48000:duration=3" + kVideoCodec +
                                                   "-af aformat=channel_layouts=5.1 -c:a eac3 -b:a 256k");
}

// Reads the audio track of `source` through the output and input the
// factories choose into `output`; `plan` shapes the destination. The
// picture track is read and thrown away. Null input when anything fails.
std::shared_ptr<QXMuxerInput> muxAudio(const fs::path& source, const fs::path& output, bool encode,
                                       const std::function<void(QXAudioTrack&)>& plan = {})
{
    auto movie = QXMovie::initWithURL(source);
    if (!movie || movie->tracks.size() != 2) return nullptr;
    const QXTrackRef picture = movie->tracks[0];
    const QXTrackRef track = movie->tracks[1];
    if (track->mediaType() != AVMediaTypeAudio) return nullptr;
    const QXTrackRef destination = track->copy();
    if (plan) plan(dynamic_cast<QXAudioTrack&>(*destination));

    auto pictureOutput = QXTrackReaderOutput::initWithSource(picture);
    picture->addOutput(pictureOutput);
    std::thread drain([pictureOutput] {
        while (pictureOutput->copyNextSample()) {
        }
    });
    MuxerRun run(output);
    auto readerOutput = QXTrackReaderOutput::initWithSource(track, destination, encode);
    track->addOutput(readerOutput);
    auto input = QXMuxerInput::initWithSource(readerOutput, destination, encode);
    bool ran = false;
    if (input) {
        run.muxer->addInput(input);
        auto channel = QXSampleBufferChannel::initWithReaderOutput(readerOutput, input);
        channel->startWithDelegate(nullptr, {});
        ran = run.start() && movie->startReading() && run.waitForCompletion() &&
              run.muxer->status == QXMuxerStatusCompleted;
    }
    if (!ran) pictureOutput->processSample(nullptr);
    drain.join();
    for (const QXTrackRef& each : movie->tracks) {
        dispatch_sync(each->outQueue, [] {});
        each->outputs.clear();
    }
    movie->releaseReaders();
    return ran ? input : nullptr;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

std::string streamFields(const fs::path& file)
{
    // The first line, without the empty fields of side data.
    std::string fields = lines(ffprobe("-select_streams a:0 -show_entries stream=codec_name,channels,sample_rate "
                                       "-of csv=p=0",
                                       file))
                             .front();
    while (!fields.empty() && fields.back() == ',') fields.pop_back();
    return fields;
}

// Size and MD5 of each packet of the first audio stream.
std::vector<std::string> packetBytes(const fs::path& file)
{
    // A packet with side data (skipped samples) has its hash on a line of
    // its own.
    std::vector<std::string> packets;
    for (const std::string& line :
         lines(ffprobe("-select_streams a:0 -show_data_hash md5 -show_entries packet=size,data_hash -of csv=p=0", file))) {
        if (line.starts_with(",") && !packets.empty()) {
            packets.back() += line;
        } else if (!line.empty()) {
            packets.push_back(line);
        }
    }
    for (std::string& packet : packets) {
        if (const size_t doubled = packet.find(",,"); doubled != std::string::npos) packet.erase(doubled, 1);
    }
    return packets;
}

std::vector<int64_t> packetDurations(const fs::path& file)
{
    std::vector<int64_t> durations;
    for (const std::string& line :
         lines(ffprobe("-select_streams a:0 -show_entries packet=duration -of csv=p=0", file))) {
        if (!line.empty()) durations.push_back(std::stoll(line));
    }
    return durations;
}

// What FFmpeg says when it decodes the whole file; empty when clean.
std::string decodeErrors(const fs::path& file)
{
    std::string output;
    qxtest::run("ffmpeg -v error -i '" + file.string() + "' -f null - 2>&1", &output);
    return output;
}

double seconds(const std::string& entry, const fs::path& file);

// Seconds of audio FFmpeg decodes from the file.
double decodedLength(const fs::path& file)
{
    double frames = 0;
    for (const std::string& line : lines(ffprobe("-select_streams a:0 -show_entries frame=nb_samples -of csv=p=0", file))) {
        if (!line.empty() && line != ",") frames += std::stod(line);
    }
    return frames / seconds("stream=sample_rate", file);
}

double seconds(const std::string& entry, const fs::path& file)
{
    return std::stod(ffprobe("-select_streams a:0 -show_entries " + entry + " -of csv=p=0", file));
}

} // namespace

TEST(AudioInputs, CopiedTracksKeepEveryPacketWithItsDecodedDuration)
{
    struct Case {
        const char* name;
        fs::path source;
        int64_t frameSize;
    };
    const Case cases[] = {
        {"aac-stereo", aacStereo(), 1024}, {"aac-51", aacSurround(), 1024}, {"ac3-51", ac3Surround(), 1536},
        {"ac3-stereo", ac3Stereo(), 1536}, {"eac3-51", eac3Surround(), 1536},
    };
    const auto dir = qxtest::makeTempDir("audio-copy");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_FALSE(c.source.empty());
        const fs::path output = dir / (std::string(c.name) + ".m4v");
        auto input = muxAudio(c.source, output, false);
        ASSERT_TRUE(input);
        EXPECT_TRUE(std::dynamic_pointer_cast<QXMuxerRawAudioInput>(input));

        EXPECT_EQ(streamFields(output), streamFields(c.source));
        const auto bytes = packetBytes(output);
        EXPECT_GT(bytes.size(), 50u);
        EXPECT_EQ(bytes, packetBytes(c.source));
        // Each packet lasts what the decoder made of it, in the track's
        // sample-rate timescale, and the track lasts all of them.
        const auto durations = packetDurations(output);
        EXPECT_EQ(durations, std::vector<int64_t>(bytes.size(), c.frameSize));
        EXPECT_NEAR(seconds("stream=duration", output),
                    double(c.frameSize) * double(bytes.size()) / seconds("stream=sample_rate", output), 0.001);
        EXPECT_EQ(decodeErrors(output), "");
    }
}

TEST(AudioInputs, EncodedTracksDecodeToTheSourcesLength)
{
    struct Case {
        const char* name;
        fs::path source;
        int32_t codec;
        int32_t channels;
        uint32_t bitrate;
        const char* fields;
        const char* box;
        std::vector<uint8_t> setup; // empty: only there
        int64_t frameSize, priming;
    };
    const Case cases[] = {
        // Resampled from 44.1 kHz and spread from stereo to 5.1.
        {"ac3-from-aac", aacStereo(), AV_CODEC_ID_AC3, 6, 384000, "ac3,48000,6", "dac3", {0x10, 0x3D, 0xC0}, 1536, 0},
        {"eac3-from-ac3", ac3Surround(), AV_CODEC_ID_EAC3, 6, 256000, "eac3,48000,6", "dec3",
         {0x08, 0x00, 0x20, 0x0F, 0x00, 0x00}, 1536, 0},
        // Mixed down; the AAC priming is part of the track.
        {"aac-from-ac3", ac3Surround(), AV_CODEC_ID_AAC, 2, 128000, "aac,48000,2", "esds", {}, 1024, 2048},
    };
    const auto dir = qxtest::makeTempDir("audio-encode");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_FALSE(c.source.empty());
        const fs::path output = dir / (std::string(c.name) + ".m4v");
        auto input = muxAudio(c.source, output, true, [&](QXAudioTrack& planned) {
            planned.codec_id = c.codec;
            planned.sample_rate = 48000;
            planned.channels = c.channels;
            planned.channel_layout = c.channels == 6 ? 0x60F : 3;
            planned.bitrate = c.bitrate;
        });
        ASSERT_TRUE(input);

        EXPECT_EQ(streamFields(output), c.fields);
        const auto setup = qxtest::boxPayload(output, c.box);
        EXPECT_FALSE(setup.empty());
        if (!c.setup.empty()) {
            EXPECT_EQ(setup, c.setup);
        }
        // Whole frames, the last one padded: as long as the source, give or
        // take that frame and the resampler's delay.
        const auto durations = packetDurations(output);
        EXPECT_EQ(durations, std::vector<int64_t>(durations.size(), c.frameSize));
        const double length = double(int64_t(durations.size()) * c.frameSize - c.priming) / 48000;
        EXPECT_NEAR(length, decodedLength(c.source), double(c.frameSize) / 48000 + 0.005);
        EXPECT_EQ(decodeErrors(output), "");
    }
}
