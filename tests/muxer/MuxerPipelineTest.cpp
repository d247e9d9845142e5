// A source read by the real pipeline (movie, read loop, reader outputs,
// channels) into inputs that copy its H.264 and AAC into a new file.

#include <gtest/gtest.h>

#include <span>
#include <sstream>

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4Bytes.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// Copies the samples of an H.264 or AAC track as they are, in the track's
// own timescale (the audio's in its sample rate).
class CopyInput : public QXMuxerInput {
public:
    using QXMuxerInput::QXMuxerInput;
    using QXMuxerInput::initWritingToFileHandle;

    bool initWritingToFileHandle(QXErrorRef* error) override
    {
        const QXTrackRef& track = source->track;
        uint32_t id = 0;
        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(track)) {
            mp4::AvcCBox config;
            mp4::ByteReader in {std::span<const uint8_t>(track->extradata)};
            if (!config.parseFields(in) || config.sps.empty() || config.pps.empty()) return false;
            timescale_ = track->naturalTimeScale;
            id = file->addH264VideoTrack(uint32_t(timescale_), -1, uint16_t(video->width), uint16_t(video->height),
                                         config.profile, config.profileCompatibility, config.level);
            file->addH264SequenceParameterSet(id, config.sps[0].data(), uint16_t(config.sps[0].size()));
            file->addH264PictureParameterSet(id, config.pps[0].data(), uint16_t(config.pps[0].size()));
        } else if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(track)) {
            timescale_ = int32_t(audio->sample_rate);
            id = file->addAudioTrack(uint32_t(timescale_), -1);
            file->setTrackESConfiguration(id, track->extradata.data(), track->extradata.size());
        }
        destination->trackID = int32_t(id);
        if (id == 0) {
            QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011));
            return false;
        }
        tuneTrackDurationPerChunk();
        return destination->writeToFile(*file, error);
    }

    void processSample(const CMSampleBufferRef& sample) override
    {
        if (!sample) {
            QXMuxerInput::processSample(sample);
            return;
        }
        auto convert = [this](CMTime time) {
            return CMTIME_IS_VALID(time) ? CMTimeConvertScale(time, timescale_, kCMTimeRoundingMethod_RoundHalfAwayFromZero)
                                         : time;
        };
        const CMSampleTimingInfo timing {convert(CMSampleBufferGetDuration(sample)),
                                         convert(CMSampleBufferGetPresentationTimeStamp(sample)),
                                         convert(CMSampleBufferGetDecodeTimeStamp(sample))};
        // The track starts where its first sample is decoded.
        if (!CMTIME_IS_VALID(offset)) {
            offset = CMTIME_IS_VALID(timing.decodeTimeStamp) ? timing.decodeTimeStamp : timing.presentationTimeStamp;
        }
        CMSampleBufferRef timed;
        ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &timed), 0);
        QXMuxerInput::processSample(timed);
    }

private:
    int32_t timescale_ = 1000;
};

// Per stream, in order: the packet `fields` and the MD5 of its bytes.
std::vector<std::vector<std::string>> packets(const fs::path& file, const std::string& fields)
{
    std::vector<std::vector<std::string>> streams(2);
    std::istringstream lines(ffprobe("-show_data_hash md5 -show_entries packet=stream_index," + fields +
                                         ",data_hash -of csv=p=0",
                                     file));
    for (std::string line; std::getline(lines, line);) {
        const size_t stream = std::stoul(line);
        if (stream < streams.size()) streams[stream].push_back(line.substr(line.find(',') + 1));
    }
    return streams;
}

fs::path source()
{
    // B-frames in the video; no edit lists, so every packet is read as it is.
    return qxtest::generate("muxer-source.mp4",
                            "-f lavfi -i testsrc2=size=320x240:rate=25:duration=4 "
                            "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=4 "
                            "-c:v libx264 -preset veryfast -bf 2 -g 25 -pix_fmt yuv420p "
                            "-c:a aac -b:a 96k -use_editlist 0");
}

} // namespace

TEST(MuxerPipeline, ACopiedSourceComesOutWithTheSamePackets)
{
    const fs::path input = source();
    ASSERT_FALSE(input.empty());
    auto dir = qxtest::makeTempDir("pipeline-copy");
    const fs::path output = dir / "copy.mp4";

    QXErrorRef error;
    auto movie = QXMovie::initWithURLs({input}, &error);
    ASSERT_TRUE(movie);
    ASSERT_EQ(movie->tracks.size(), 2u);

    MuxerRun run(output);
    std::vector<std::shared_ptr<QXSampleBufferChannel>> channels;
    for (const QXTrackRef& track : movie->tracks) {
        auto readerOutput = QXTrackReaderOutput::initWithSource(track, track, false);
        track->addOutput(readerOutput);
        auto muxerInput = QXMuxerInput::initWithSource<CopyInput>(readerOutput, track->copy());
        run.muxer->addInput(muxerInput);
        auto channel = QXSampleBufferChannel::initWithReaderOutput(readerOutput, muxerInput);
        channel->startWithDelegate(nullptr, {});
        channels.push_back(channel);
    }
    ASSERT_TRUE(run.start(&error));
    ASSERT_TRUE(movie->startReading());
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    EXPECT_EQ(run.handlerCalls(), 1);

    // Tracks and their outputs hold each other until the run is over.
    for (const QXTrackRef& track : movie->tracks) {
        dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    movie->releaseReaders();

    // Count, size, bytes and order of the packets of each track, and the
    // decode times of the video (which the input rebuilds into durations).
    // The audio's times are left to the audio inputs.
    const auto expected = packets(input, "size");
    const auto actual = packets(output, "size");
    for (size_t stream = 0; stream < 2; ++stream) {
        EXPECT_EQ(actual[stream].size(), expected[stream].size()) << stream;
        EXPECT_FALSE(actual[stream].empty()) << stream;
        EXPECT_EQ(actual[stream], expected[stream]) << stream;
    }
    EXPECT_EQ(packets(output, "dts,flags")[0], packets(input, "dts,flags")[0]);
    // The video keeps its frame durations and its reordering.
    const auto video = samplesOfTrack(output, 1);
    ASSERT_FALSE(video.empty());
    size_t reordered = 0;
    for (size_t i = 0; i + 1 < video.size(); ++i) {
        EXPECT_EQ(video[i].duration, uint32_t(movie->tracks[0]->naturalTimeScale / 25)) << i;
        reordered += video[i].renderingOffset != video[0].renderingOffset;
    }
    EXPECT_GT(reordered, 0u);
    EXPECT_EQ(ffprobe("-show_entries stream=codec_name -of csv=p=0", output), "h264\naac");
}
