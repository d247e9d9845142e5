// The input of copied H.264 and HEVC: Annex B samples leave length-prefixed,
// the sample entry carries the source's parameter sets, and sources read by
// the real pipeline come out playable, with their chapters.

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/muxer/QXMuxerRawH264Input.h"
#include "qxmedia/platform/codecs/NALUnits.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

CMSampleBufferRef sampleOf(const std::vector<uint8_t>& bytes, bool key)
{
    return makeSampleWithBytes(bytes, 3600, 1800, 3600, 90000, key);
}

std::vector<uint8_t> bytesOf(const CMSampleBufferRef& sample)
{
    CMBlockBufferRef block = CMSampleBufferGetDataBuffer(sample);
    std::vector<uint8_t> bytes(CMBlockBufferGetDataLength(block));
    CMBlockBufferCopyDataBytes(block, 0, bytes.size(), bytes.data());
    return bytes;
}

// The video tracks of `source`, read by the real pipeline into the inputs
// the factory chooses for copying; the movie's chapters go with them.
bool copyVideo(const fs::path& source, const fs::path& output)
{
    QXErrorRef error;
    auto movie = QXMovie::initWithURLs({source}, &error);
    if (!movie) return false;
    MuxerRun run(output);
    std::vector<std::shared_ptr<QXSampleBufferChannel>> channels;
    std::vector<QXTrackRef> used;
    for (const QXTrackRef& track : movie->tracks) {
        if (track->mediaType() != AVMediaTypeVideo) continue;
        auto readerOutput = QXTrackReaderOutput::initWithSource(track, track, false);
        auto input = std::dynamic_pointer_cast<QXMuxerRawH264Input>(
            QXMuxerInput::initWithSource(readerOutput, track->copy(), false));
        if (!input) return false;
        input->chapters = movie->chapters;
        track->addOutput(readerOutput);
        run.muxer->addInput(input);
        auto channel = QXSampleBufferChannel::initWithReaderOutput(readerOutput, input);
        channel->startWithDelegate(nullptr, {});
        channels.push_back(channel);
        used.push_back(track);
    }
    const bool ran = run.start(&error) && movie->startReading() && run.waitForCompletion();
    // Tracks and their outputs hold each other until the run is over.
    for (const QXTrackRef& track : used) {
        dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    movie->releaseReaders();
    return ran && run.muxer->status == QXMuxerStatusCompleted;
}

// Sizes and MD5s of the packets of the first video stream.
std::vector<std::string> videoPackets(const fs::path& file)
{
    std::vector<std::string> packets;
    std::istringstream lines(
        ffprobe("-select_streams v:0 -show_data_hash md5 -show_entries packet=size,data_hash -of csv=p=0", file));
    for (std::string line; std::getline(lines, line);) packets.push_back(line);
    return packets;
}

// Every sample of the track is a whole number of four-byte length-prefixed
// NAL units.
size_t malformedSamples(const fs::path& path, uint32_t trackId)
{
    auto file = mp4::MP4File::read(path);
    mp4::MP4Track* track = file ? file->track(trackId) : nullptr;
    if (!track) return SIZE_MAX;
    size_t malformed = 0;
    std::vector<uint8_t> data;
    for (uint32_t i = 0; i < track->sampleCount(); ++i) {
        std::vector<NALUnit> units;
        if (!track->readSample(i, data) || !splitLengthPrefixed(data.data(), data.size(), 4, units) || units.empty()) {
            ++malformed;
        }
    }
    return malformed;
}

// How many frames ffmpeg decodes from the first video stream.
std::string decodedFrames(const fs::path& file)
{
    return ffprobe("-select_streams v:0 -count_frames -show_entries stream=nb_read_frames -of csv=p=0", file);
}

fs::path chapterFile()
{
    const fs::path path = qxtest::mediaDir() / "video-input-chapters.ffmeta";
    qxtest::writeFile(path, ";FFMETADATA1\n"
                            "[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1600\ntitle=Opening\n"
                            "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1600\nEND=3200\ntitle=Middle\n"
                            "[CHAPTER]\nTIMEBASE=1/1000\nSTART=3200\nEND=4000\ntitle=Ende \xc3\xa4\n");
    return path;
}

const char kX264[] = "-c:v libx264 -preset veryfast -g 25 -pix_fmt yuv420p ";

} // namespace

TEST(RawH264Input, AnnexBSamplesLeaveLengthPrefixed)
{
    // Too short to be a start code and a unit, or already length-prefixed:
    // the very sample goes on, untouched.
    for (const std::vector<uint8_t>& bytes : {std::vector<uint8_t> {0, 0, 0, 1}, std::vector<uint8_t> {0, 0, 0, 2, 0x65, 0x88}}) {
        CMSampleBufferRef sample = sampleOf(bytes, true);
        EXPECT_EQ(QXMuxerRawH264Input::copyLengthPrefixedSample(sample), sample);
        EXPECT_EQ(bytesOf(sample), bytes);
    }

    // Four-byte start codes only: rewritten where they are.
    CMSampleBufferRef fourByte = sampleOf({0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x65, 0x88, 0x84, 0x00, 0x21}, true);
    EXPECT_EQ(QXMuxerRawH264Input::copyLengthPrefixedSample(fourByte), fourByte);
    EXPECT_EQ(bytesOf(fourByte),
              (std::vector<uint8_t> {0, 0, 0, 2, 0x09, 0xf0, 0, 0, 0, 5, 0x65, 0x88, 0x84, 0x00, 0x21}));

    // A three-byte start code inside: a longer sample with the same times,
    // format and attachments.
    CMSampleBufferRef threeByte = sampleOf({0, 0, 0, 1, 0x09, 0xf0, 0, 0, 1, 0x41, 0x9a, 0x02}, false);
    CMSampleBufferRef rewritten = QXMuxerRawH264Input::copyLengthPrefixedSample(threeByte);
    ASSERT_NE(rewritten, threeByte);
    EXPECT_EQ(bytesOf(rewritten), (std::vector<uint8_t> {0, 0, 0, 2, 0x09, 0xf0, 0, 0, 0, 3, 0x41, 0x9a, 0x02}));
    EXPECT_EQ(CMSampleBufferGetTotalSampleSize(rewritten), 13u);
    EXPECT_EQ(CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(rewritten), CMTimeMake(3600, 90000)), 0);
    EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDecodeTimeStamp(rewritten), CMTimeMake(1800, 90000)), 0);
    EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(rewritten), CMTimeMake(3600, 90000)), 0);
    EXPECT_EQ(CMSampleBufferGetFormatDescription(rewritten), CMSampleBufferGetFormatDescription(threeByte));
    auto attachments = CMSampleBufferGetFirstSampleAttachments(rewritten, false);
    ASSERT_TRUE(attachments);
    EXPECT_TRUE(attachments->isTrue(kCMSampleAttachmentKey_NotSync));
}

TEST(RawH264Input, MatroskaH264IsCopiedPacketForPacketWithItsChapters)
{
    const fs::path source = qxtest::generate(
        "video-input-chapters.mkv", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=4 -i '" +
                                        chapterFile().string() + "' -map 0:v -map_chapters 1 " + kX264);
    ASSERT_FALSE(source.empty());
    auto dir = qxtest::makeTempDir("video-input-mkv");
    const fs::path output = dir / "copy.m4v";
    ASSERT_TRUE(copyVideo(source, output));

    const auto packets = videoPackets(source);
    EXPECT_EQ(videoPackets(output), packets);
    EXPECT_EQ(decodedFrames(output), std::to_string(packets.size()));
    auto file = mp4::MP4File::read(output);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->trackCount(), 3u);
    auto* avcC = file->track(1)->sampleEntryChild<mp4::AvcCBox>();
    ASSERT_TRUE(avcC);
    EXPECT_EQ(avcC->lengthSizeMinusOne, 3);
    EXPECT_EQ(avcC->sps.size(), 1u);
    EXPECT_EQ(avcC->pps.size(), 1u);
    EXPECT_EQ(file->videoProfileLevel(), 127);

    // The titles, each as long as the video written for it (the marks fall
    // on frames, and without B-frames the first frame at a mark closes the
    // chapter before it), and a picture for each.
    EXPECT_EQ(file->track(1)->references(mp4::fourcc("chap")), (std::vector<uint32_t> {2, 3}));
    std::vector<mp4::MP4Chapter> chapters;
    EXPECT_EQ(mp4::MP4GetChapters(*file, chapters, mp4::MP4ChapterTypeQt), mp4::MP4ChapterTypeQt);
    // The last one runs to the end of the video as the reader timed it (the
    // track's own durations come from decode times: a frame at most apart).
    ASSERT_EQ(chapters.size(), 3u);
    EXPECT_EQ(chapters[0], (mp4::MP4Chapter {1600, "Opening"}));
    EXPECT_EQ(chapters[1], (mp4::MP4Chapter {1600, "Middle"}));
    EXPECT_EQ(chapters[2].title, "Ende \xc3\xa4");
    EXPECT_NEAR(double(chapters[2].duration), double(file->track(1)->duration()) - 3200, 40);
    EXPECT_EQ(file->track(2)->name(), "Chapter Titles");
    mp4::MP4Track* images = file->track(3);
    EXPECT_EQ(images->name(), "Chapter Images");
    EXPECT_EQ(images->mediaDataName(), mp4::fourcc("jpeg"));
    EXPECT_EQ(images->flags(), 2u);
    EXPECT_EQ(images->layer(), 1);
    ASSERT_EQ(images->sampleCount(), 3u);
    std::vector<uint8_t> jpeg;
    ASSERT_TRUE(images->readSample(0, jpeg));
    ASSERT_GT(jpeg.size(), 2u);
    EXPECT_EQ(jpeg[0], 0xff);
    EXPECT_EQ(jpeg[1], 0xd8);
    EXPECT_EQ(ffprobe("-show_entries chapter=start_time -of csv=p=0", output), "0.000000\n1.600000\n3.200000");
}

TEST(RawH264Input, TransportStreamH264BecomesLengthPrefixed)
{
    const fs::path source = qxtest::generate(
        "video-input.ts", std::string("-f lavfi -i testsrc2=size=320x240:rate=25:duration=3 ") + kX264 + "-bf 2 -f mpegts");
    ASSERT_FALSE(source.empty());
    auto dir = qxtest::makeTempDir("video-input-ts");
    const fs::path output = dir / "copy.m4v";
    ASSERT_TRUE(copyVideo(source, output));

    auto file = mp4::MP4File::read(output);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->trackCount(), 1u) << "no chapters, no chapter tracks";
    EXPECT_EQ(file->track(1)->sampleCount(), 75u);
    EXPECT_EQ(malformedSamples(output, 1), 0u);
    EXPECT_EQ(decodedFrames(output), "75");
}

TEST(RawH264Input, HEVCGetsACompleteConfigurationRecord)
{
    const fs::path source = qxtest::generate("video-input-hevc.mp4",
                                             "-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -c:v libx265 "
                                             "-preset ultrafast -pix_fmt yuv420p -tag:v hvc1 -x265-params log-level=error");
    ASSERT_FALSE(source.empty());
    auto dir = qxtest::makeTempDir("video-input-hevc");
    const fs::path output = dir / "copy.m4v";
    ASSERT_TRUE(copyVideo(source, output));

    const auto packets = videoPackets(source);
    EXPECT_EQ(videoPackets(output), packets);
    EXPECT_EQ(decodedFrames(output), std::to_string(packets.size()));
    std::vector<uint8_t> record;
    auto file = mp4::MP4File::read(output);
    ASSERT_TRUE(file);
    ASSERT_TRUE(file->getTrackBytesProperty(1, "mdia.minf.stbl.stsd.hvc1.hvcC.content", record));
    ParameterSets sets = readParameterSets(NALCodec::HEVC, record.data(), record.size());
    EXPECT_EQ(sets.vps.size(), 1u);
    EXPECT_EQ(sets.sps.size(), 1u);
    EXPECT_EQ(sets.pps.size(), 1u);
    EXPECT_EQ(sets.lengthSize, 4u);
    EXPECT_EQ(ffprobe("-show_entries stream=codec_name,codec_tag_string -of csv=p=0", output), "hevc,hvc1");

    // Without extradata the track is made all the same, with no record.
    auto track = QXVideoTrack::init();
    track->codec_id = AV_CODEC_ID_HEVC;
    track->naturalTimeScale = 25;
    track->width = 320;
    track->height = 240;
    auto input = QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, false);
    ASSERT_TRUE(std::dynamic_pointer_cast<QXMuxerRawH264Input>(input));
    MuxerRun run(dir / "bare.m4v");
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    input->markAsFinished();
    ASSERT_TRUE(run.waitForCompletion());
    file = mp4::MP4File::read(dir / "bare.m4v");
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->getTrackBytesProperty(1, "mdia.minf.stbl.stsd.hvc1.hvcC.content", record));
    EXPECT_TRUE(record.empty());
}
