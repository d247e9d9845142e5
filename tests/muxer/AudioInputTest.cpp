// The audio inputs in real files: copied AAC, AC-3 and E-AC-3 tracks read
// through the pipeline keep every packet; encoded AAC, AC-3 and E-AC-3
// decode to the source's length; the Dolby track fields follow the rates,
// the AAC bit rate stays within what the converter offers.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <thread>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "MuxerSupport.h"
#include "qxmedia/muxer/QXMuxerAACInput.h"
#include "qxmedia/muxer/QXMuxerAC3Input.h"
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

std::shared_ptr<QXAudioTrack> plannedTrack(int32_t codec, uint32_t rate, int32_t channels, uint32_t bitrate)
{
    auto track = QXAudioTrack::init();
    track->codec_id = codec;
    track->sample_rate = rate;
    track->channels = channels;
    track->bitrate = bitrate;
    return track;
}

// Planar float of a tone, `frames` frames in samples of up to `block`.
std::vector<CMSampleBufferRef> pcmSamples(int frames, int block, int channels, int32_t rate)
{
    std::vector<CMSampleBufferRef> samples;
    for (int done = 0; done < frames; done += block) {
        const int count = std::min(block, frames - done);
        std::vector<float> pcm(size_t(count) * size_t(channels));
        for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = float(0.3 * std::sin(double(done + int(i) % count) * 0.05));
        const size_t length = pcm.size() * sizeof(float);
        CMBlockBufferRef block;
        CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, length, nullptr, nullptr, 0, length, 1, &block);
        CMBlockBufferReplaceDataBytes(pcm.data(), block, 0, length);
        const CMSampleTimingInfo timing {CMTimeMake(count, rate), CMTimeMake(done, rate), kCMTimeInvalid};
        CMSampleBufferRef sample;
        CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 0, nullptr, &sample);
        samples.push_back(sample);
    }
    return samples;
}

// Encodes the samples through the factory's input into `output`.
bool encodeInto(const fs::path& output, const std::shared_ptr<QXAudioTrack>& track,
                const std::vector<CMSampleBufferRef>& samples)
{
    auto input = QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, true);
    if (!input) return false;
    MuxerRun run(output);
    run.muxer->addInput(input);
    if (!run.start()) return false;
    Feeder feeder(input, samples);
    return run.waitForCompletion() && run.muxer->status == QXMuxerStatusCompleted;
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

TEST(AudioInputs, CopiedDolbyTracksGetTheSetupFFmpegWritesForThem)
{
    // FFmpeg's own MP4 writer as the reference for dac3 and dec3.
    const auto dir = qxtest::makeTempDir("audio-dolby-setup");
    for (const auto& [source, box] : {std::pair {ac3Surround(), "dac3"}, std::pair {ac3Stereo(), "dac3"},
                                      std::pair {eac3Surround(), "dec3"}}) {
        SCOPED_TRACE(source.filename().string());
        const fs::path reference = dir / (source.stem().string() + "-ffmpeg.mp4");
        ASSERT_EQ(qxtest::run("ffmpeg -y -v error -i '" + source.string() + "' -c copy '" + reference.string() + "'"),
                  0);
        const fs::path output = dir / (source.stem().string() + ".m4v");
        ASSERT_TRUE(muxAudio(source, output, false));
        EXPECT_FALSE(qxtest::boxPayload(output, box).empty());
        EXPECT_EQ(qxtest::boxPayload(output, box), qxtest::boxPayload(reference, box));
    }
}

TEST(AudioInputs, ACopiedTrackThatStartsLateBeginsWithAnEmptyEdit)
{
    auto track = plannedTrack(AV_CODEC_ID_AAC, 48000, 2, 0);
    track->samples_per_frame = 1024;
    track->extradata = {0x11, 0x90};
    auto input = QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, false);
    ASSERT_TRUE(std::dynamic_pointer_cast<QXMuxerRawAACInput>(input));

    // Times in milliseconds as a Matroska source has them; durations in the
    // decoder's rate.
    std::vector<CMSampleBufferRef> samples;
    for (int i = 0; i < 5; ++i) {
        const CMSampleBufferRef made = makeSample(2500 + i * 21, std::nullopt, std::nullopt, 1000, 64);
        const CMSampleTimingInfo timing {CMTimeMake(1024, 48000), CMTimeMake(2500 + i * 21, 1000), kCMTimeInvalid};
        CMSampleBufferRef sample;
        ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, made, 1, &timing, &sample), 0);
        samples.push_back(sample);
    }
    const auto dir = qxtest::makeTempDir("audio-late");
    MuxerRun run(dir / "late.m4v");
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    Feeder feeder(input, samples);
    ASSERT_TRUE(run.waitForCompletion());

    const auto written = samplesOfTrack(dir / "late.m4v", 1);
    ASSERT_EQ(written.size(), 5u);
    for (const auto& sample : written) EXPECT_EQ(sample.duration, 1024u);
    auto file = mp4::MP4File::read(dir / "late.m4v");
    ASSERT_TRUE(file && file->track(1));
    const auto edits = file->track(1)->edits();
    ASSERT_EQ(edits.size(), 2u);
    EXPECT_EQ(edits[0].mediaTime, -1);
    EXPECT_EQ(edits[0].segmentDuration, 2500u);
    EXPECT_EQ(edits[1].mediaTime, 0);
    EXPECT_EQ(edits[1].segmentDuration, 107u); // 5 x 1024 / 48 kHz
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

TEST(AudioInputs, EncodersPadOnlyAShortLastFrame)
{
    struct Case {
        int32_t codec;
        int frames;
        size_t packets;
    };
    // AC-3 makes a packet of each frame; AAC has two frames of priming and
    // gives what its encoder still holds at the end. No PCM, no packets.
    const Case cases[] = {
        {AV_CODEC_ID_AC3, 2 * 1536, 2},   {AV_CODEC_ID_AC3, 2 * 1536 + 1, 3}, {AV_CODEC_ID_AAC, 500, 3},
        {AV_CODEC_ID_AAC, 10 * 1024, 12}, {AV_CODEC_ID_AAC, 10 * 1024 + 1, 13}, {AV_CODEC_ID_AAC, 0, 0},
    };
    const auto dir = qxtest::makeTempDir("audio-pad");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.codec) + " " + std::to_string(c.frames));
        const int channels = c.codec == AV_CODEC_ID_AC3 ? 6 : 2;
        const fs::path output = dir / (std::to_string(c.codec) + "-" + std::to_string(c.frames) + ".m4v");
        ASSERT_TRUE(encodeInto(output, plannedTrack(c.codec, 48000, channels, 6 * 64000),
                               pcmSamples(c.frames, 700, channels, 48000)));
        const auto written = samplesOfTrack(output, 1);
        EXPECT_EQ(written.size(), c.packets);
        for (const auto& sample : written) EXPECT_EQ(sample.duration, c.codec == AV_CODEC_ID_AC3 ? 1536u : 1024u);
        if (c.packets) {
            EXPECT_EQ(decodeErrors(output), "");
        }
    }
}

TEST(AudioInputs, DolbyTrackFieldsFollowTheRates)
{
    struct Case {
        uint32_t sampleRate, bitRate;
        uint8_t fscod, bsid, bitRateCode;
        const char* warning;
    };
    const Case cases[] = {
        {48000, 384000, 0, 8, 14, nullptr},
        {24000, 192000, 0, 9, 14, nullptr}, // half rates: bsid and bit rates shift alike
        {44100, 640000, 1, 8, 18, nullptr},
        {8000, 64000, 2, 10, 12, nullptr},
        {22000, 384000, 0, 8, 14, "Unknown AC3 samplerate"},
        {48000, 100000, 0, 8, 0, "Unknown AC3 bitrate"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sampleRate);
        qxtest::LogCapture log;
        const auto fields = QXMuxerAC3Input::trackFields(c.sampleRate, c.bitRate);
        EXPECT_EQ(fields.fscod, c.fscod);
        EXPECT_EQ(fields.bsid, c.bsid);
        EXPECT_EQ(fields.bitRateCode, c.bitRateCode);
        EXPECT_EQ(log.contains("Unknown AC3", 2), c.warning != nullptr);
        if (c.warning) {
            EXPECT_TRUE(log.contains(c.warning, 2));
        }
    }
    EXPECT_EQ(QXMuxerEAC3Input::dec3Payload(640000), (std::array<uint8_t, 6> {0x14, 0x00, 0x20, 0x0F, 0x00, 0x00}));
    EXPECT_EQ(QXMuxerEAC3Input::dec3Payload(96000), (std::array<uint8_t, 6> {0x03, 0x00, 0x20, 0x0F, 0x00, 0x00}));
}

TEST(AudioInputs, AnEncoderThatDoesNotOpenStopsTheStart)
{
    // FFmpeg's AC-3 encoder takes 32, 44.1 and 48 kHz only.
    auto track = plannedTrack(AV_CODEC_ID_AC3, 22050, 6, 384000);
    auto input = QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, true);
    const auto dir = qxtest::makeTempDir("audio-refused");
    MuxerRun run(dir / "refused.m4v");
    run.muxer->addInput(input);
    QXErrorRef error;
    EXPECT_FALSE(run.start(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), QXMediaErrorDomain);
    EXPECT_LT(error->code(), 0);
    EXPECT_NE(error->code(), -13011);
    EXPECT_EQ(run.handlerCalls(), 1);
}

TEST(AudioInputs, TheAACBitRateStaysWithinTheApplicableRates)
{
    // Stereo at 48 kHz: 32 to 320 kbit/s.
    const std::pair<uint32_t, const char*> cases[] = {
        {8000, "Sanitizing AAC audio bitrate 8000 to 32000"},
        {900000, "Sanitizing AAC audio bitrate 900000 to 320000"},
        {128000, nullptr},
    };
    const auto dir = qxtest::makeTempDir("aac-rates");
    std::vector<double> rates;
    for (const auto& [requested, logged] : cases) {
        SCOPED_TRACE(requested);
        qxtest::LogCapture log;
        const fs::path output = dir / (std::to_string(requested) + ".m4v");
        ASSERT_TRUE(encodeInto(output, plannedTrack(AV_CODEC_ID_AAC, 48000, 2, requested),
                               pcmSamples(48000, 4096, 2, 48000)));
        EXPECT_EQ(log.contains("Sanitizing AAC audio bitrate", 4), logged != nullptr);
        if (logged) {
            EXPECT_TRUE(log.contains(logged, 4));
        }
        rates.push_back(std::stod(ffprobe("-show_entries stream=bit_rate -of csv=p=0", output)));
    }
    // What the encoder makes of a plain tone follows the rate it was given.
    EXPECT_NEAR(rates[0], 32000, 3200);
    EXPECT_GT(rates[1], rates[2]);
    EXPECT_NEAR(rates[2], 128000, 12800);
}

TEST(AudioInputs, TheAACCookieGivesItsDecoderSpecificInfo)
{
    // Version and flags, ES descriptor, decoder config with its 13 fixed
    // bytes, specific info of two bytes; lengths short or in four bytes.
    auto cookie = [](bool longLengths, uint8_t configTag) {
        std::vector<uint8_t> out {0, 0, 0, 0, 0x03};
        auto length = [&](uint8_t value) {
            if (longLengths) out.insert(out.end(), {0x80, 0x80, 0x80});
            out.push_back(value);
        };
        length(30);
        out.insert(out.end(), {0, 1, 0, configTag});
        length(20);
        out.insert(out.end(), 13, 0x40);
        out.push_back(0x05);
        length(2);
        out.insert(out.end(), {0x12, 0x10, 0x06, 0x01, 0x02});
        return out;
    };
    const auto shortForm = cookie(false, 0x04), longForm = cookie(true, 0x04), wrongTag = cookie(false, 0x07);
    struct Case {
        const std::vector<uint8_t>& bytes;
        size_t size;
        bool found;
    };
    // A cookie cut short or without a decoder config gives nothing.
    const Case cases[] = {{shortForm, shortForm.size(), true}, {longForm, longForm.size(), true},
                          {wrongTag, wrongTag.size(), false}, {longForm, 20, false},
                          {longForm, longForm.size() - 6, false}};
    for (const Case& c : cases) {
        uint8_t* config = nullptr;
        int size = -1;
        EXPECT_EQ(ReadESDSDescExt(c.bytes.data(), &config, &size, 1, c.size), 0);
        EXPECT_EQ(size, c.found ? 2 : 0);
        EXPECT_EQ(config != nullptr, c.found);
        if (config) {
            EXPECT_EQ(std::vector<uint8_t>(config, config + 2), (std::vector<uint8_t> {0x12, 0x10}));
        }
        std::free(config);
    }
}
