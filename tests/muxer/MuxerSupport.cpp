#include "MuxerSupport.h"

#include <algorithm>
#include <chrono>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;

namespace muxertest {

namespace {

// Baseline 320x240, as libx264 makes it; AAC LC 48 kHz stereo.
const uint8_t kSPS[] = {0x67, 0x42, 0xc0, 0x0d, 0xd9, 0x01, 0x41, 0xfb, 0x01, 0x10, 0x00, 0x00,
                        0x03, 0x00, 0x10, 0x00, 0x00, 0x03, 0x03, 0x20, 0xf1, 0x42, 0xa4, 0x80};
const uint8_t kPPS[] = {0x68, 0xcb, 0x83, 0xcb, 0x20};
const uint8_t kAudioSpecificConfig[] = {0x11, 0x90};

} // namespace

std::shared_ptr<TestInput> TestInput::make(Kind kind, int32_t timescale)
{
    QXTrackRef track;
    if (kind == Kind::Video) {
        auto video = QXVideoTrack::init();
        video->codec_id = AV_CODEC_ID_H264;
        video->frameRate = {25, 1};
        track = video;
    } else if (kind == Kind::Audio) {
        track = QXAudioTrack::init();
        track->codec_id = AV_CODEC_ID_AAC;
    } else {
        track = QXSubtitleTrack::init();
        track->codec_id = AV_CODEC_ID_MOV_TEXT;
    }
    auto input = QXMuxerInput::initWithSource<TestInput>(QXTrackReaderOutput::initWithSource(track), track);
    input->kind = kind;
    input->timescale = timescale;
    return input;
}

bool TestInput::initWritingToFileHandle(QXErrorRef* error)
{
    uint32_t id = 0;
    if (kind == Kind::Video) {
        id = file->addH264VideoTrack(uint32_t(timescale), -1, 320, 240, 0x42, 0xc0, 0x0d);
        file->addH264SequenceParameterSet(id, kSPS, sizeof kSPS);
        file->addH264PictureParameterSet(id, kPPS, sizeof kPPS);
    } else if (kind == Kind::Audio) {
        id = file->addAudioTrack(uint32_t(timescale), -1);
        file->setTrackESConfiguration(id, kAudioSpecificConfig, sizeof kAudioSpecificConfig);
    } else {
        id = file->addSubtitleTrack(uint32_t(timescale), 320, 60);
    }
    destination->trackID = int32_t(id);
    if (id == 0) {
        if (error) QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011));
        return false;
    }
    if (chunkPerSample) file->setTrackDurationPerChunk(id, 1);
    else tuneTrackDurationPerChunk();
    return destination->writeToFile(*file, error);
}

void TestInput::processSample(const CMSampleBufferRef& sample)
{
    if (sample && offsetFromFirstSample && !CMTIME_IS_VALID(offset)) {
        offset = CMSampleBufferGetPresentationTimeStamp(sample);
    }
    QXMuxerInput::processSample(sample);
}

CMSampleBufferRef makeSample(std::optional<int64_t> pts, std::optional<int64_t> dts, std::optional<int64_t> duration,
                             int32_t timescale, size_t bytes, bool key)
{
    auto time = [timescale](std::optional<int64_t> value) {
        return value ? CMTimeMake(*value, timescale) : kCMTimeInvalid;
    };
    std::vector<uint8_t> data(bytes, 0);
    for (size_t i = 0; i < 4 && bytes >= 6; ++i) data[i] = uint8_t((bytes - 4) >> (24 - 8 * i));
    if (bytes >= 6) data[4] = key ? 0x65 : 0x41;
    CMBlockBufferRef block;
    CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, bytes, nullptr, nullptr, 0, bytes, 0, &block);
    if (bytes) CMBlockBufferReplaceDataBytes(data.data(), block, 0, bytes);
    CMSampleTimingInfo timing {time(duration), time(pts), time(dts)};
    CMSampleBufferRef sample;
    CMSampleBufferCreate(nullptr, block, true, {}, nullptr, nullptr, 1, 1, &timing, 1, &bytes, &sample);
    if (!key) CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
    return sample;
}

MuxerRun::MuxerRun(const std::filesystem::path& output) : muxer(QXMuxer::initWithURL(output)) {}

// The test keeps the file; the muxer only borrows it.
MuxerRun::MuxerRun(mp4::MP4File* borrowed)
    : muxer(QXMuxer::initWithFileHandle(std::shared_ptr<mp4::MP4File>(borrowed, [](mp4::MP4File*) {})))
{
}

bool MuxerRun::start(QXErrorRef* error)
{
    auto handler = [this] {
        std::lock_guard guard(lock_);
        ++calls_;
        done_.notify_all();
    };
    return muxer->startWritingWithCompletionHandler(handler, error);
}

bool MuxerRun::waitForCompletion()
{
    std::unique_lock guard(lock_);
    return done_.wait_for(guard, std::chrono::seconds(60), [this] { return calls_ > 0; });
}

Feeder::Feeder(std::shared_ptr<QXMuxerInput> input, std::vector<CMSampleBufferRef> samples, bool finish)
    : thread_([this, input = std::move(input), samples = std::move(samples), finish] {
          for (const auto& sample : samples) {
              if (!input->appendSampleBuffer(sample)) refused = true;
              ++appended;
          }
          if (finish) input->markAsFinished();
      })
{
}

std::vector<WrittenSample> samplesInFileOrder(const std::filesystem::path& path)
{
    std::vector<WrittenSample> samples;
    auto file = mp4::MP4File::read(path);
    for (mp4::MP4Track* track : file ? file->tracks() : std::vector<mp4::MP4Track*> {}) {
        for (uint32_t i = 0; i < track->sampleCount(); ++i) {
            mp4::SampleInfo info;
            track->sampleInfo(i, info);
            samples.push_back({track->id(), info, double(info.decodeTime) / track->timeScale()});
        }
    }
    std::stable_sort(samples.begin(), samples.end(),
                     [](const WrittenSample& a, const WrittenSample& b) { return a.info.offset < b.info.offset; });
    return samples;
}

std::vector<mp4::SampleInfo> samplesOfTrack(const std::filesystem::path& path, uint32_t trackId)
{
    // A track's chunks are in decode order in the file.
    std::vector<WrittenSample> all = samplesInFileOrder(path);
    std::vector<mp4::SampleInfo> samples;
    for (const WrittenSample& sample : all) {
        if (sample.trackId == trackId) samples.push_back(sample.info);
    }
    return samples;
}

std::string ffprobe(const std::string& arguments, const std::filesystem::path& file)
{
    std::string output;
    qxtest::run("ffprobe -v error " + arguments + " '" + file.string() + "' 2>/dev/null", &output);
    if (!output.empty() && output.back() == '\n') output.pop_back();
    return output;
}

bool waitUntil(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

CMSampleBufferRef makeSampleWithBytes(const std::vector<uint8_t>& bytes, int64_t pts, int64_t dts, int64_t duration,
                                      int32_t timescale, bool key)
{
    size_t size = bytes.size();
    CMBlockBufferRef block;
    CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                       kCMBlockBufferAssureMemoryNowFlag, &block);
    CMBlockBufferReplaceDataBytes(bytes.data(), block, 0, size);
    CMSampleTimingInfo timing {CMTimeMake(duration, timescale), CMTimeMake(pts, timescale), CMTimeMake(dts, timescale)};
    CMSampleBufferRef sample;
    CMSampleBufferCreate(nullptr, block, true, {}, nullptr, nullptr, 1, 1, &timing, 1, &size, &sample);
    if (!key) CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
    return sample;
}

} // namespace muxertest
