// The input of copied H.264 and HEVC: Annex B samples leave length-prefixed,
// the sample entry carries the source's parameter sets, and sources read by
// the real pipeline come out playable, with their chapters.

#include <gtest/gtest.h>

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
    }
    const bool ran = run.start(&error) && movie->startReading() && run.waitForCompletion();
    // Tracks and their outputs hold each other until the run is over.
    for (const QXTrackRef& track : movie->tracks) {
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

// How many packets ffprobe reads from the first video stream, or frames it
// decodes (a transport stream lists the stream twice: under its program too).
std::string countOf(const std::string& what, const fs::path& file)
{
    const std::string entry = what == "frames" ? "nb_read_frames" : "nb_read_packets";
    const std::string count =
        ffprobe("-select_streams v:0 -count_" + what + " -show_entries stream=" + entry + " -of csv=p=0", file);
    return count.substr(0, count.find('\n'));
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
    using Bytes = std::vector<uint8_t>;
    // Already length-prefixed: the very sample goes on, untouched.
    const Bytes prefixed {0, 0, 0, 2, 0x65, 0x88};
    CMSampleBufferRef sample = makeSampleWithBytes(prefixed, 0, 0, 1, 25);
    EXPECT_EQ(QXMuxerRawH264Input::copyLengthPrefixedSample(sample), sample);
    EXPECT_EQ(bytesOf(sample), prefixed);
    // Four-byte start codes only: rewritten where they are.
    sample = makeSampleWithBytes({0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x65, 0x88, 0x84}, 0, 0, 1, 25);
    EXPECT_EQ(QXMuxerRawH264Input::copyLengthPrefixedSample(sample), sample);
    EXPECT_EQ(bytesOf(sample), (Bytes {0, 0, 0, 2, 0x09, 0xf0, 0, 0, 0, 3, 0x65, 0x88, 0x84}));

    // A three-byte start code inside: a longer sample with the same times,
    // format and attachments.
    CMSampleBufferRef threeByte =
        makeSampleWithBytes({0, 0, 0, 1, 0x09, 0xf0, 0, 0, 1, 0x41, 0x9a, 0x02}, 3600, 1800, 3600, 90000, false);
    CMSampleBufferRef rewritten = QXMuxerRawH264Input::copyLengthPrefixedSample(threeByte);
    ASSERT_NE(rewritten, threeByte);
    EXPECT_EQ(bytesOf(rewritten), (Bytes {0, 0, 0, 2, 0x09, 0xf0, 0, 0, 0, 3, 0x41, 0x9a, 0x02}));
    CMSampleTimingInfo before, after;
    CMSampleBufferGetSampleTimingInfo(threeByte, 0, &before);
    CMSampleBufferGetSampleTimingInfo(rewritten, 0, &after);
    EXPECT_EQ(CMTimeCompare(after.presentationTimeStamp, before.presentationTimeStamp), 0);
    EXPECT_EQ(CMTimeCompare(after.decodeTimeStamp, before.decodeTimeStamp), 0);
    EXPECT_EQ(CMTimeCompare(after.duration, before.duration), 0);
    auto attachments = CMSampleBufferGetFirstSampleAttachments(rewritten, false);
    EXPECT_TRUE(attachments && attachments->isTrue(kCMSampleAttachmentKey_NotSync));
}

TEST(RawH264Input, CopiedSourcesKeepTheirFramesAndParameterSets)
{
    struct Source {
        const char* name;
        std::string arguments;
        bool annexB; // the packets change: start codes become lengths
    };
    const Source sources[] = {
        {"video-input.mkv", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=3 -bf 2 " + std::string(kX264), false},
        {"video-input.ts", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=3 -bf 2 -f mpegts " + std::string(kX264),
         true},
        {"video-input-hevc.mp4",
         "-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -c:v libx265 -preset ultrafast -pix_fmt yuv420p "
         "-tag:v hvc1 -x265-params log-level=error",
         false},
    };
    auto dir = qxtest::makeTempDir("video-input");
    for (const Source& source : sources) {
        const fs::path input = qxtest::generate(source.name, source.arguments);
        ASSERT_FALSE(input.empty()) << source.name;
        const fs::path output = dir / (std::string(source.name) + ".m4v");
        ASSERT_TRUE(copyVideo(input, output)) << source.name;

        const std::string packets = countOf("packets", input);
        EXPECT_EQ(countOf("packets", output), packets) << source.name;
        EXPECT_EQ(countOf("frames", output), packets) << source.name;
        if (!source.annexB) {
            EXPECT_EQ(videoPackets(output), videoPackets(input)) << source.name;
        }
        auto file = mp4::MP4File::read(output);
        ASSERT_TRUE(file && file->trackCount() == 1) << source.name << ": no chapters, no chapter tracks";
        EXPECT_EQ(malformedSamples(*file->track(1)), 0u) << source.name;
        if (auto* avcC = file->track(1)->sampleEntryChild<mp4::AvcCBox>()) {
            EXPECT_EQ(avcC->lengthSizeMinusOne, 3);
            EXPECT_EQ(avcC->sps.size() + avcC->pps.size(), 2u) << source.name;
        } else {
            // A record with complete arrays of the stream's parameter sets.
            std::vector<uint8_t> record;
            file->getTrackBytesProperty(1, "mdia.minf.stbl.stsd.hvc1.hvcC.content", record);
            ParameterSets sets = readParameterSets(NALCodec::HEVC, record.data(), record.size());
            EXPECT_EQ(sets.vps.size() + sets.sps.size() + sets.pps.size(), 3u) << source.name;
            EXPECT_EQ(ffprobe("-show_entries stream=codec_tag_string -of csv=p=0", output), "hvc1");
        }
    }

    // HEVC without extradata, or with extradata no record can be made of:
    // the track is made all the same, with no record or the bytes as given.
    qxtest::LogCapture log;
    for (const QXData& extradata : {QXData {}, QXData {1, 2, 3}}) {
        auto track = QXVideoTrack::init();
        track->codec_id = AV_CODEC_ID_HEVC;
        track->naturalTimeScale = 25;
        track->extradata = extradata;
        auto input = QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, false);
        MuxerRun run(dir / "bare.m4v");
        run.muxer->addInput(input);
        ASSERT_TRUE(run.start());
        input->markAsFinished();
        ASSERT_TRUE(run.waitForCompletion());
        auto file = mp4::MP4File::read(dir / "bare.m4v");
        std::vector<uint8_t> record {9};
        ASSERT_TRUE(file && file->getTrackBytesProperty(1, "mdia.minf.stbl.stsd.hvc1.hvcC.content", record));
        EXPECT_EQ(record, extradata);
        EXPECT_EQ(log.contains("Failed to modifiy extradata", QXLogFlagWarning), !extradata.empty());
    }
}

TEST(RawH264Input, TheSourcesChaptersBecomeTitleAndPictureTracks)
{
    const fs::path source = qxtest::generate(
        "video-input-chapters-ipp.mkv", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=4 -i '" +
                                            chapterFile().string() + "' -map 0:v -map_chapters 1 -bf 0 " + kX264);
    ASSERT_FALSE(source.empty());
    auto dir = qxtest::makeTempDir("video-input-chapters");
    const fs::path output = dir / "copy.m4v";
    ASSERT_TRUE(copyVideo(source, output));
    auto file = mp4::MP4File::read(output);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->trackCount(), 3u);
    EXPECT_EQ(file->track(1)->references(mp4::fourcc("chap")), (std::vector<uint32_t> {2, 3}));

    // Each title lasts as long as the video written for it: the marks fall
    // on frames, and without B-frames the frame at a mark closes the chapter
    // before it. The last runs to the end of the video as the reader timed
    // it (the track's own durations come from decode times: a frame apart
    // at most).
    std::vector<mp4::MP4Chapter> chapters;
    EXPECT_EQ(mp4::MP4GetChapters(*file, chapters, mp4::MP4ChapterTypeQt), mp4::MP4ChapterTypeQt);
    ASSERT_EQ(chapters.size(), 3u);
    EXPECT_EQ(chapters[0], (mp4::MP4Chapter {1600, "Opening"}));
    EXPECT_EQ(chapters[1], (mp4::MP4Chapter {1600, "Middle"}));
    EXPECT_EQ(chapters[2].title, "Ende \xc3\xa4");
    EXPECT_NEAR(double(chapters[2].duration), double(file->track(1)->duration()) - 3200, 40);
    EXPECT_EQ(ffprobe("-show_entries chapter=start_time -of csv=p=0", output), "0.000000\n1.600000\n3.200000");

    // A picture per title, in a JPEG track in the movie but not enabled.
    mp4::MP4Track* images = file->track(3);
    EXPECT_EQ(images->mediaDataName(), mp4::fourcc("jpeg"));
    EXPECT_EQ(images->flags(), 2u);
    EXPECT_EQ(images->layer(), 1);
    ASSERT_EQ(images->sampleCount(), 3u);
    std::vector<uint8_t> jpeg;
    ASSERT_TRUE(images->readSample(0, jpeg));
    EXPECT_TRUE(jpeg.size() > 2 && jpeg[0] == 0xff && jpeg[1] == 0xd8) << "a JPEG picture";
}
