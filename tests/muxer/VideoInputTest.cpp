// The input of copied H.264 and HEVC: Annex B samples leave length-prefixed,
// HEVC without a usable record keeps what it has, and a source's chapters
// become title and picture tracks.

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

TEST(RawH264Input, HEVCWithoutAUsableRecordKeepsWhatItHas)
{
    auto dir = qxtest::makeTempDir("video-input");
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
