#include "MuxerSupport.h"

#include <algorithm>
#include <cstring>
#include <sstream>

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

// A baseline 320x240 parameter set made by libx264.
const uint8_t kSPS[] = {0x67, 0x42, 0xc0, 0x0d, 0xd9, 0x01, 0x41, 0xfb, 0x01, 0x10, 0x00, 0x00,
                        0x03, 0x00, 0x10, 0x00, 0x00, 0x03, 0x03, 0x20, 0xf1, 0x42, 0xa4, 0x80};
const uint8_t kPPS[] = {0x68, 0xcb, 0x83, 0xcb, 0x20};
// AAC LC, 48 kHz, stereo.
const uint8_t kAudioSpecificConfig[] = {0x11, 0x90};

std::string quoted(const std::filesystem::path& path)
{
    return "'" + path.string() + "'";
}

} // namespace

// ---------------------------------------------------------------------------
// TestInput

std::shared_ptr<TestInput> TestInput::make(Kind kind, int32_t timescale)
{
    QXTrackRef track;
    switch (kind) {
    case Kind::Video: {
        auto video = QXVideoTrack::init();
        video->codec_id = AV_CODEC_ID_H264;
        video->frameRate = {25, 1};
        video->width = 320;
        video->height = 240;
        track = video;
        break;
    }
    case Kind::Audio: {
        auto audio = QXAudioTrack::init();
        audio->codec_id = AV_CODEC_ID_AAC;
        audio->sample_rate = 48000;
        track = audio;
        break;
    }
    case Kind::Subtitle: {
        auto subtitle = QXSubtitleTrack::init();
        subtitle->codec_id = AV_CODEC_ID_MOV_TEXT;
        track = subtitle;
        break;
    }
    }
    auto input = QXMuxerInput::initWithSource<TestInput>(QXTrackReaderOutput::initWithSource(track), track);
    input->kind = kind;
    input->timescale = timescale;
    return input;
}

bool TestInput::initWritingToFileHandle(QXErrorRef* error)
{
    uint32_t id = 0;
    if (!refuse) {
        switch (kind) {
        case Kind::Video:
            id = file->addH264VideoTrack(uint32_t(timescale), -1, 320, 240, 0x42, 0xc0, 0x0d);
            file->addH264SequenceParameterSet(id, kSPS, sizeof kSPS);
            file->addH264PictureParameterSet(id, kPPS, sizeof kPPS);
            break;
        case Kind::Audio:
            id = file->addAudioTrack(uint32_t(timescale), -1);
            file->setTrackESConfiguration(id, kAudioSpecificConfig, sizeof kAudioSpecificConfig);
            break;
        case Kind::Subtitle: id = file->addSubtitleTrack(uint32_t(timescale), 320, 60); break;
        }
    }
    destination->trackID = int32_t(id);
    if (id == 0) {
        if (error) {
            QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011,
                                                       {{AVErrorPersistentTrackIDKey, QXValue(0)}}));
        }
        return false;
    }
    if (chunkPerSample) {
        file->setTrackDurationPerChunk(id, 1);
    } else {
        tuneTrackDurationPerChunk();
    }
    return destination->writeToFile(*file, error);
}

void TestInput::processSample(const CMSampleBufferRef& sample)
{
    if (sample && offsetFromFirstSample && !CMTIME_IS_VALID(offset)) {
        offset = CMSampleBufferGetPresentationTimeStamp(sample);
    }
    QXMuxerInput::processSample(sample);
}

// ---------------------------------------------------------------------------
// Samples

CMSampleBufferRef makeSample(std::optional<int64_t> pts, std::optional<int64_t> dts, std::optional<int64_t> duration,
                             int32_t timescale, size_t bytes, bool key, uint8_t fill)
{
    auto time = [timescale](std::optional<int64_t> value) {
        return value ? CMTimeMake(*value, timescale) : kCMTimeInvalid;
    };
    CMBlockBufferRef block;
    CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, bytes, nullptr, nullptr, 0, bytes, 0, &block);
    if (bytes) {
        std::vector<uint8_t> data(bytes, fill);
        if (bytes >= 6) {
            // One length-prefixed NAL unit: an IDR slice for a key frame.
            const size_t length = bytes - 4;
            for (int i = 0; i < 4; ++i) data[size_t(i)] = uint8_t(length >> (24 - 8 * i));
            data[4] = key ? 0x65 : 0x41;
        }
        CMBlockBufferReplaceDataBytes(data.data(), block, 0, bytes);
    }
    CMSampleTimingInfo timing {time(duration), time(pts), time(dts)};
    CMSampleBufferRef sample;
    CMSampleBufferCreate(nullptr, block, true, {}, nullptr, nullptr, 1, 1, &timing, 1, &bytes, &sample);
    if (!key) CMSampleBufferGetFirstSampleAttachments(sample, true)->setValue(kCMSampleAttachmentKey_NotSync, true);
    return sample;
}

// ---------------------------------------------------------------------------
// MuxerRun

MuxerRun::MuxerRun(mp4::MP4File* borrowed)
{
    if (borrowed) {
        // The test keeps the file; the muxer only borrows it.
        muxer = QXMuxer::initWithFileHandle(std::shared_ptr<mp4::MP4File>(borrowed, [](mp4::MP4File*) {}));
    } else {
        muxer = QXMuxer::init();
    }
}

MuxerRun::MuxerRun(const std::filesystem::path& output) : muxer(QXMuxer::initWithURL(output)) {}

bool MuxerRun::start(QXErrorRef* error)
{
    return muxer->startWritingWithCompletionHandler(
        [this] {
            std::lock_guard guard(lock_);
            ++calls_;
            done_.notify_all();
        },
        error);
}

bool MuxerRun::waitForCompletion(std::chrono::milliseconds limit)
{
    std::unique_lock guard(lock_);
    return done_.wait_for(guard, limit, [this] { return calls_ > 0; });
}

void MuxerRun::onMuxerQueue(const std::function<void()>& block) const
{
    dispatch_sync(muxer->serializationQueue, block);
}

size_t MuxerRun::samplesInWindow() const
{
    size_t count = 0;
    onMuxerQueue([&] { count = size_t(CMBufferQueueGetBufferCount(muxer->outputQueue)); });
    return count;
}

// ---------------------------------------------------------------------------
// Feeder

Feeder::Feeder(std::shared_ptr<QXMuxerInput> input, std::vector<CMSampleBufferRef> samples, bool finish)
{
    thread_ = std::thread([this, input = std::move(input), samples = std::move(samples), finish] {
        for (const auto& sample : samples) {
            if (!input->appendSampleBuffer(sample)) refused = true;
            ++appended;
        }
        if (finish) input->markAsFinished();
    });
}

Feeder::~Feeder()
{
    join();
}

void Feeder::join()
{
    if (thread_.joinable()) thread_.join();
}

// ---------------------------------------------------------------------------
// Reading the file back

std::vector<mp4::SampleInfo> samplesOfTrack(const std::filesystem::path& path, uint32_t trackId)
{
    std::vector<mp4::SampleInfo> samples;
    auto file = mp4::MP4File::read(path);
    mp4::MP4Track* track = file ? file->track(trackId) : nullptr;
    if (!track) return samples;
    for (uint32_t i = 0; i < track->sampleCount(); ++i) {
        mp4::SampleInfo info;
        track->sampleInfo(i, info);
        samples.push_back(info);
    }
    return samples;
}

std::vector<WrittenSample> samplesInFileOrder(const std::filesystem::path& path)
{
    std::vector<WrittenSample> samples;
    auto file = mp4::MP4File::read(path);
    if (!file) return samples;
    for (mp4::MP4Track* track : file->tracks()) {
        for (uint32_t i = 0; i < track->sampleCount(); ++i) {
            mp4::SampleInfo info;
            track->sampleInfo(i, info);
            samples.push_back({track->id(), info, double(info.decodeTime) / track->timeScale()});
        }
    }
    std::sort(samples.begin(), samples.end(),
              [](const WrittenSample& a, const WrittenSample& b) { return a.info.offset < b.info.offset; });
    return samples;
}

std::vector<std::vector<std::string>> ffprobePackets(const std::filesystem::path& file, const std::string& fields)
{
    std::string output;
    qxtest::run("ffprobe -v error -show_data_hash md5 -show_entries packet=stream_index," + fields +
                    ",data_hash -of csv=p=0 " + quoted(file) + " 2>/dev/null",
                &output);
    std::vector<std::vector<std::string>> streams;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        // "stream,fields...,MD5:hash"
        const size_t first = line.find(',');
        if (first == std::string::npos) continue;
        const size_t stream = std::stoul(line.substr(0, first));
        if (streams.size() <= stream) streams.resize(stream + 1);
        streams[stream].push_back(line.substr(first + 1));
    }
    return streams;
}

std::string ffprobeFormat(const std::filesystem::path& file, const std::string& entry)
{
    std::string output;
    qxtest::run("ffprobe -v error -show_entries " + entry + " -of default=nw=1:nk=1 " + quoted(file) + " 2>/dev/null", &output);
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r')) output.pop_back();
    return output;
}

// ---------------------------------------------------------------------------
// Waiting

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace muxertest
