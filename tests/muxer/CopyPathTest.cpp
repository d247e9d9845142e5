// Sources copied end to end as a job copies them (movie, read loop, copying
// outputs, one sync, copying inputs, muxer), read back with ffprobe and
// ffmpeg: video keeps every picture in the source's order with rising
// decode times, and references name the output's own tracks.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

#include "MuxerSupport.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/MP4Track.h"
#include "qxmedia/platform/codecs/NALUnits.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/reader/QXSync.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

constexpr char kVideo[] = "-f lavfi -i testsrc2=size=160x120:rate=25:duration=3 ";
constexpr char kTone[] = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 ";
constexpr char kH264[] = "-c:v libx264 -preset veryfast -bf 2 -g 25 -pix_fmt yuv420p ";

// Copies every track that has a copying input; `prepare` may edit the
// source's tracks first, as a host edits a plan.
bool copyThroughPipeline(const fs::path& source, const fs::path& output, const std::function<void(QXMovie&)>& prepare = {})
{
    auto movie = QXMovie::initWithURL(source);
    if (!movie) return false;
    if (prepare) prepare(*movie);
    MuxerRun run(output);
    auto sync = QXSync::init();
    std::vector<std::shared_ptr<QXSampleBufferChannel>> channels;
    for (const QXTrackRef& track : movie->tracks) {
        auto destination = track->copy();
        auto readerOutput = QXTrackReaderOutput::initWithSource(track, destination, false);
        auto input = QXMuxerInput::initWithSource(readerOutput, destination, false);
        if (!input) continue;
        track->addOutput(readerOutput);
        run.muxer->addInput(input);
        channels.push_back(QXSampleBufferChannel::initWithReaderOutput(readerOutput, input, sync));
        channels.back()->startWithDelegate(nullptr, {});
    }
    const bool done = run.start() && movie->startReading() && run.waitForCompletion();
    for (const QXTrackRef& track : movie->tracks) {
        dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    movie->releaseReaders();
    return done && run.muxer->status == QXMuxerStatusCompleted;
}

struct Packet {
    long pts;
    long dts;
    std::string hash;
    bool key;
};

std::vector<Packet> videoPackets(const fs::path& file)
{
    // One "key=value" a line: side data of transport streams breaks CSV.
    std::vector<Packet> packets;
    std::istringstream lines(
        ffprobe("-select_streams v:0 -show_data_hash md5 -show_entries packet=pts,dts,flags,data_hash -of default=nw=1", file));
    Packet packet {};
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string key = line.substr(0, equals);
        const std::string value = line.substr(equals + 1);
        if (key == "pts") packet.pts = std::stol(value);
        if (key == "dts") packet.dts = std::stol(value);
        if (key == "flags") packet.key = value[0] == 'K';
        if (key == "data_hash") {
            packet.hash = value;
            packets.push_back(packet);
        }
    }
    return packets;
}

// Samples that are not a whole number of NAL units behind four-byte lengths.
size_t malformedSamples(const mp4::MP4Track& track)
{
    size_t malformed = 0;
    std::vector<uint8_t> data;
    for (uint32_t i = 0; i < track.sampleCount(); ++i) {
        std::vector<NALUnit> units;
        if (!track.readSample(i, data) || !splitLengthPrefixed(data.data(), data.size(), 4, units) || units.empty()) {
            ++malformed;
        }
    }
    return malformed;
}

// The display rank of each packet, in decode order. A decode time that goes
// back starts a new part (sources joined from parts whose clocks restart),
// which shows after the parts before it.
std::vector<size_t> displayRanks(const std::vector<Packet>& packets)
{
    std::vector<std::pair<int, long>> keys;
    int part = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        if (i > 0 && packets[i].dts < packets[i - 1].dts) ++part;
        keys.emplace_back(part, packets[i].pts);
    }
    std::vector<size_t> order(keys.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return keys[a] < keys[b]; });
    std::vector<size_t> ranks(keys.size());
    for (size_t rank = 0; rank < order.size(); ++rank) ranks[order[rank]] = rank;
    return ranks;
}

struct CopiedSource {
    const char* name;
    std::function<fs::path()> make;
    bool annexB; // the bytes are re-packed with lengths
};

fs::path joinedTransportStream()
{
    // Two parts made alike: the second's clock starts again where the
    // first's did.
    const fs::path part = qxtest::generate("copy-part.ts", std::string(kVideo) + kTone + kH264 + "-c:a aac");
    if (part.empty()) return part;
    const fs::path joined = qxtest::mediaDir() / "copy-joined.ts";
    if (!fs::exists(joined)) qxtest::run("cat '" + part.string() + "' '" + part.string() + "' > '" + joined.string() + "'");
    return joined;
}

const CopiedSource kSources[] = {
    {"H264WithBFrames", [] { return qxtest::generate("copy-bframes.mp4", std::string(kVideo) + kTone + kH264 + "-c:a aac"); }, false},
    {"HEVCWithBFrames",
     [] {
         return qxtest::generate("copy-hevc.mp4", std::string(kVideo) +
                                                      "-c:v libx265 -preset ultrafast -x265-params "
                                                      "log-level=error:bframes=3 -tag:v hvc1 -pix_fmt yuv420p");
     },
     false},
    {"JoinedTransportStreams", joinedTransportStream, true},
};

void PrintTo(const CopiedSource& source, std::ostream* out) { *out << source.name; }

class CopiedVideo : public ::testing::TestWithParam<CopiedSource> {};

// ADTS whose last frame is cut in half, so that it does not decode, beside
// a second of video.
fs::path videoWithUndecodableLastAudioPacket()
{
    const fs::path adts = qxtest::generate("copy-tone.aac", std::string(kTone) + "-c:a aac -f adts");
    const fs::path cut = qxtest::mediaDir() / "copy-cut.aac";
    if (adts.empty()) return adts;
    std::ifstream in(adts, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() < 7) return {};
    const auto* header = reinterpret_cast<const uint8_t*>(bytes.data());
    const size_t frame = size_t((header[3] & 3) << 11 | header[4] << 3 | header[5] >> 5);
    std::ofstream(cut, std::ios::binary) << bytes << bytes.substr(frame, frame / 2);
    return qxtest::generate("copy-cut.mkv", std::string(kVideo) + "-i '" + cut.string() + "' " + kH264 + "-c:a copy");
}

struct AudioCase {
    const char* name;
    std::function<fs::path()> make;
    size_t droppedAtStart; // the encoder's priming packet, before the first picture
};

const AudioCase kAudioCases[] = {
    {"PrimingPacketBeforeTheFirstPicture",
     [] { return qxtest::generate("copy-bframes.mp4", std::string(kVideo) + kTone + kH264 + "-c:a aac"); }, 1},
    {"LastPacketThatDoesNotDecode", videoWithUndecodableLastAudioPacket, 0},
};

std::vector<std::string> audioHashes(const fs::path& file)
{
    std::vector<std::string> hashes;
    std::istringstream lines(ffprobe("-select_streams a:0 -show_data_hash md5 -show_entries packet=data_hash -of default=nw=1", file));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("data_hash=", 0) == 0) hashes.push_back(line.substr(10));
    }
    return hashes;
}

} // namespace

TEST_P(CopiedVideo, KeepsEveryPictureInOrderWithRisingDecodeTimesAndDecodesCleanly)
{
    const fs::path source = GetParam().make();
    ASSERT_FALSE(source.empty());
    const fs::path output = qxtest::makeTempDir("copy-path") / "out.m4v";
    ASSERT_TRUE(copyThroughPipeline(source, output));

    const auto before = videoPackets(source);
    const auto after = videoPackets(output);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        ASSERT_EQ(after[i].key, before[i].key) << "picture " << i;
        if (!GetParam().annexB) {
            ASSERT_EQ(after[i].hash, before[i].hash) << "picture " << i;
        }
    }
    for (size_t i = 1; i < after.size(); ++i) EXPECT_LT(after[i - 1].dts, after[i].dts) << "picture " << i;
    EXPECT_EQ(displayRanks(after), displayRanks(before));

    std::string errors;
    qxtest::run("ffmpeg -v error -i '" + output.string() + "' -f null - 2>&1", &errors);
    EXPECT_EQ(errors, "");

    // Whole NAL units behind four-byte lengths, and a record with complete
    // arrays of the stream's parameter sets.
    auto file = mp4::MP4File::read(output);
    ASSERT_TRUE(file && file->track(1));
    EXPECT_EQ(malformedSamples(*file->track(1)), 0u);
    if (auto* avcC = file->track(1)->sampleEntryChild<mp4::AvcCBox>()) {
        EXPECT_EQ(avcC->lengthSizeMinusOne, 3);
        EXPECT_EQ(avcC->sps.size() + avcC->pps.size(), 2u);
    } else {
        std::vector<uint8_t> record;
        file->getTrackBytesProperty(1, "mdia.minf.stbl.stsd.hvc1.hvcC.content", record);
        const ParameterSets sets = readParameterSets(NALCodec::HEVC, record.data(), record.size());
        EXPECT_EQ(sets.vps.size() + sets.sps.size() + sets.pps.size(), 3u);
        EXPECT_EQ(ffprobe("-select_streams v:0 -show_entries stream=codec_tag_string -of csv=p=0", output), "hvc1");
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, CopiedVideo, ::testing::ValuesIn(kSources),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(CopiedAudio, LosesNoPacketButThePrimingOneAndStartsWithThePicture)
{
    for (const AudioCase& audioCase : kAudioCases) {
        SCOPED_TRACE(audioCase.name);
        const fs::path source = audioCase.make();
        ASSERT_FALSE(source.empty());
        const fs::path output = qxtest::makeTempDir("copy-audio") / "out.m4v";
        ASSERT_TRUE(copyThroughPipeline(source, output));
        auto before = audioHashes(source);
        before.erase(before.begin(), before.begin() + long(audioCase.droppedAtStart));
        EXPECT_EQ(audioHashes(output), before);
        EXPECT_EQ(ffprobe("-select_streams a:0 -read_intervals %+#1 -show_entries packet=pts -of csv=p=0", output), "0");
    }
}

TEST(CopiedReferences, NameTheOutputsOwnTrackIDs)
{
    // Track IDs 3, 5 and 7 in the source; the output numbers from 1. The
    // AC-3 track falls back to the AAC one.
    const fs::path source = qxtest::generate(
        "copy-refs.mp4", std::string(kVideo) + kTone + "-f lavfi -i sine=frequency=880:sample_rate=48000:duration=3 " +
                            "-map 0 -map 1 -map 2 " + kH264 + "-c:a:0 aac -c:a:1 ac3 -streamid 0:3 -streamid 1:5 -streamid 2:7 "
                            "-use_stream_ids_as_track_ids 1");
    ASSERT_FALSE(source.empty());
    const fs::path output = qxtest::makeTempDir("copy-refs") / "out.m4v";
    ASSERT_TRUE(copyThroughPipeline(source, output, [](QXMovie& movie) {
        ASSERT_EQ(movie.tracks.size(), 3u);
        auto first = std::dynamic_pointer_cast<QXAudioTrack>(movie.tracks[1]);
        auto second = std::dynamic_pointer_cast<QXAudioTrack>(movie.tracks[2]);
        ASSERT_TRUE(first && second);
        ASSERT_EQ(second->trackID, 7);
        second->fallback_track = first;
    }));

    auto file = mp4::MP4File::read(output);
    ASSERT_TRUE(file);
    const mp4::MP4Track* fallback = file->track(3);
    ASSERT_TRUE(fallback);
    EXPECT_EQ(fallback->references(mp4::fourcc("fall")), std::vector<uint32_t> {2});
}
