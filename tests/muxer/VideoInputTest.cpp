// The input of copied H.264 and HEVC: Annex B samples leave length-prefixed,
// HEVC without a usable record keeps what it has.

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
