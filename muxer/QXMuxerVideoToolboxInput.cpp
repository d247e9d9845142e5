#include "qxmedia/muxer/QXMuxerVideoToolboxInput.h"

#include <algorithm>
#include <array>
#include <cmath>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/platform/coremedia/CMFormatDescription.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

// The MPEG-4 visual profile level of a file with AVC video: none of the
// MPEG-4 part 2 profiles.
constexpr uint8_t kNoVisualProfile = 127;
constexpr int kMaxKeyFrameInterval = 60;
constexpr double kFifthRootOfTwo = 1.148698354997035;
constexpr double kFullHDPixels = 2073600.0;

// H.264 profiles the session knows, and the levels with a constant of
// their own; other levels of a known profile are AutoLevel.
struct ProfileLevels {
    int profile;
    const char* name;
    std::array<int, 10> levels; // 0 ends the list
};
const ProfileLevels kH264ProfileLevels[] = {
    {66, "Baseline", {13, 30, 31, 32, 40, 41, 42, 50, 51, 52}},
    {77, "Main", {30, 31, 32, 40, 41, 42, 50, 51, 52, 0}},
    {88, "Extended", {50, 0}},
    {100, "High", {30, 31, 32, 40, 41, 42, 50, 51, 52, 0}},
};

QXErrorRef statusError(OSStatus status) { return QXMedia::errorWithDomain(NSOSStatusErrorDomain, status); }

} // namespace

QXMuxerVideoToolboxInput::~QXMuxerVideoToolboxInput()
{
    if (session) VTCompressionSessionInvalidate(session);
}

std::shared_ptr<QXVideoTrack> QXMuxerVideoToolboxInput::video() const
{
    return std::dynamic_pointer_cast<QXVideoTrack>(destination);
}

double QXMuxerVideoToolboxInput::averageBitRate(bool hevc, double crf, int64_t width, int64_t height)
{
    if (!(crf >= 0 && crf <= 51)) return crf * 1000;
    const double k = hevc ? 100.0 : 130.0;
    const double kbits =
        k * std::pow(kFifthRootOfTwo, 51 - crf) * std::pow(double(width) * double(height) / kFullHDPixels, 0.75);
    QXLogVerbose("Bitrate for %f at %dx%d: %f", crf, int(width), int(height), kbits);
    return std::round(kbits * 1000);
}

std::optional<std::string> QXMuxerVideoToolboxInput::profileLevel(bool hevc, int profile, int level)
{
    if (hevc) return VTProfileLevelName(true, profile == 2 ? "Main10" : "Main", "AutoLevel");
    for (const ProfileLevels& row : kH264ProfileLevels) {
        if (row.profile != profile) continue;
        for (int known : row.levels) {
            if (known != 0 && known == level) {
                return VTProfileLevelName(false, row.name, std::to_string(level / 10) + "_" + std::to_string(level % 10));
            }
        }
        return VTProfileLevelName(false, row.name, "AutoLevel");
    }
    return std::nullopt;
}

bool QXMuxerVideoToolboxInput::initWritingToFileHandle(QXErrorRef* error)
{
    auto track = video();
    if (!track) return false;
    naturalTimeScale = track->naturalTimeScale;
    if (!generateExtradata(error)) return false;
    session = createEncoder(error);
    if (!session) return false;

    file->setVideoProfileLevel(kNoVisualProfile);
    uint32_t trackId = 0;
    if (track->codec_id == AV_CODEC_ID_HEVC) {
        trackId = file->addHEVCVideoTrack(uint32_t(naturalTimeScale), -1, uint16_t(track->width),
                                          uint16_t(track->height));
        if (trackId) {
            file->setTrackBytesProperty(trackId, "mdia.minf.stbl.stsd.hvc1.hvcC.content", track->extradata.data(),
                                        track->extradata.size());
        }
    } else {
        trackId = file->addH264VideoTrack(uint32_t(naturalTimeScale), -1, uint16_t(track->width),
                                          uint16_t(track->height), track->profile, track->profile_compat,
                                          track->level, 3);
        for (const QXData& sps : track->sps) file->addH264SequenceParameterSet(trackId, sps.data(), uint16_t(sps.size()));
        for (const QXData& pps : track->pps) file->addH264PictureParameterSet(trackId, pps.data(), uint16_t(pps.size()));
    }
    track->trackID = int32_t(trackId);
    if (trackId == 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011, {{AVErrorPersistentTrackIDKey, trackId}}));
        return false;
    }
    tuneTrackDurationPerChunk();
    // Colour (nclx with the full-range flag), pixel aspect and flags.
    if (!track->writeToFile(*file, error)) return false;
    return QXMuxerChapterInput::initWritingToFileHandle(error);
}

VTCompressionSessionRef QXMuxerVideoToolboxInput::createEncoder(QXErrorRef* error)
{
    auto track = video();
    if (!track) return nullptr;
    const bool hevc = track->codec_id == AV_CODEC_ID_HEVC;
    QXDictionary specification = encoderSpecification;
    specification.emplace(kVTVideoEncoderSpecification_EnableHardwareAcceleratedVideoEncoder, true);
    QXDictionary attributes {
        {kCVPixelBufferPixelFormatTypeKey, uint64_t(track->colorRange == 2 ? kCVPixelFormatType_420YpCbCr8PlanarFullRange
                                                                           : kCVPixelFormatType_420YpCbCr8Planar)},
        {kCVPixelBufferWidthKey, uint64_t(track->width)},
        {kCVPixelBufferHeightKey, uint64_t(track->height)}};
    if (const char* primaries = track->colorPrimaries()) attributes[kCVImageBufferColorPrimariesKey] = primaries;
    if (const char* transfer = track->transferFunction()) attributes[kCVImageBufferTransferFunctionKey] = transfer;
    if (const char* matrix = track->YCbCrMatrix()) attributes[kCVImageBufferYCbCrMatrixKey] = matrix;

    VTCompressionSessionRef created;
    OSStatus status = VTCompressionSessionCreate(nullptr, int32_t(track->width), int32_t(track->height),
                                                 hevc ? kCMVideoCodecType_HEVC : kCMVideoCodecType_H264,
                                                 &specification, &attributes, nullptr, &created);
    if (status != 0) {
        QXLogError("VTCompressionSessionCreate failed: %d", int(status));
        QXSetError(error, statusError(status));
        return nullptr;
    }
    QXDictionary supported;
    if (status = VTSessionCopySupportedPropertyDictionary(created, &supported); status != 0) {
        QXLogError("Failed to fetch supported properties: %d", int(status));
    } else {
        QXLogVerbose("Supported encoder properties: %s", QXValue(supported).description().c_str());
    }

    auto set = [&](const char* key, const QXValue& value, const char* failure) {
        if (OSStatus result = VTSessionSetProperty(created, key, value); result != 0) QXLogWarning(failure, int(result));
    };
    auto setIfSupported = [&](const char* key, const QXValue& value, const char* failure) {
        if (supported.contains(key)) set(key, value, failure);
    };
    set(kVTCompressionPropertyKey_RealTime, false, "Failed to disable realtime encoding: %d");
    set(kVTCompressionPropertyKey_MaxKeyFrameInterval, kMaxKeyFrameInterval, "Failed to set max key frame interval: %d");
    set(kVTCompressionPropertyKey_AllowFrameReordering, true, "Failed to enable b-frames: %d");
    set(kVTCompressionPropertyKey_AllowTemporalCompression, true, "Failed to enable temporal compression: %d");
    setIfSupported(kVTCompressionPropertyKey_AllowOpenGOP, true, "Failed to enable open GOP: %d");
    setIfSupported(kVTCompressionPropertyKey_MaximizePowerEfficiency, false,
                   "Failed to disable maximize for power efficiency: %d");
    set(kVTCompressionPropertyKey_AverageBitRate,
        averageBitRate(hevc, track->encoderCRF, int64_t(track->width), int64_t(track->height)),
        "Failed to set bitrate: %d");
    if (auto level = profileLevel(hevc, track->profile, track->level)) {
        set(kVTCompressionPropertyKey_ProfileLevel, *level, "Failed to set profile level: %d");
    }
    if (track->hSpacing != 0 && track->vSpacing != 0) {
        const QXDictionary aspect {{kCVImageBufferPixelAspectRatioHorizontalSpacingKey, int32_t(track->hSpacing)},
                                   {kCVImageBufferPixelAspectRatioVerticalSpacingKey, int32_t(track->vSpacing)}};
        set(kVTCompressionPropertyKey_PixelAspectRatio, aspect, "Failed to set par: %d");
    }
    if (track->nominalFrameRate() > 0) {
        set(kVTCompressionPropertyKey_ExpectedFrameRate, double(track->nominalFrameRate()),
            "Failed to set expected framerate: %d");
    }
    if (const char* matrix = track->YCbCrMatrix()) {
        set(kVTCompressionPropertyKey_YCbCrMatrix, matrix, "Failed to set YCbCr matrix: %d");
    }
    if (const char* transfer = track->transferFunction()) {
        set(kVTCompressionPropertyKey_TransferFunction, transfer, "Failed to set transfer function: %d");
    }
    if (const char* primaries = track->colorPrimaries()) {
        set(kVTCompressionPropertyKey_ColorPrimaries, primaries, "Failed to set color primaries: %d");
    }
    set(kQXCompressionPropertyKey_EncoderSpeedPreset, int64_t(track->encoderPreset),
        "Failed to set encoder preset: %d");
    if (!track->encoderOptions.empty()) {
        set(kQXCompressionPropertyKey_EncoderOptions, track->encoderOptions, "Failed to set encoder options: %d");
    }

    if (status = VTCompressionSessionPrepareToEncodeFrames(created); status != 0) {
        VTCompressionSessionInvalidate(created);
        QXLogError("VTCompressionSessionPrepareToEncodeFrames failed: %d", int(status));
        QXSetError(error, statusError(status));
        return nullptr;
    }
    QXValue value;
    if (status = VTSessionCopyProperty(created, kVTCompressionPropertyKey_EncoderID, &value); status == 0) {
        QXLogInfo("Using encoder: %s", value.description().c_str());
    } else {
        QXLogError("Get kVTCompressionPropertyKey_EncoderID failed: %d", int(status));
    }
    status = VTSessionCopyProperty(created, kVTCompressionPropertyKey_UsingHardwareAcceleratedVideoEncoder, &value);
    if (status == 0) {
        QXLogInfo(value.boolValue() && *value.boolValue() ? "Using Hardware encoder" : "Using Software encoder");
    } else {
        QXLogError("Get kVTCompressionPropertyKey_UsingHardwareAcceleratedVideoEncoder failed: %d", int(status));
    }
    return created;
}

bool QXMuxerVideoToolboxInput::generateExtradata(QXErrorRef* error)
{
    auto track = video();
    VTCompressionSessionRef dummySession = createEncoder(error);
    if (!dummySession) return false;

    // A picture of the track's size; its content does not matter.
    AVFrame* frame = av_frame_alloc();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = int(track->width);
    frame->height = int(track->height);
    bool result = frame && av_frame_get_buffer(frame, 16) >= 0;
    CVPixelBufferRef picture;
    if (result) {
        for (int plane = 0; plane < 3; ++plane) {
            std::fill_n(frame->data[plane], frame->linesize[plane] * (plane ? (frame->height + 1) / 2 : frame->height),
                        uint8_t(plane ? 128 : 16));
        }
        if (CVReturn status = CVPixelBufferCreateWithAVFrame(nullptr, frame, nullptr, &picture); status != 0) {
            QXLogError("Failed to create pixel buffer: %d", int(status));
            QXSetError(error, statusError(status));
            result = false;
        }
    }
    av_frame_free(&frame);
    if (!result) {
        VTCompressionSessionInvalidate(dummySession);
        return false;
    }

    const bool hevc = track->codec_id == AV_CODEC_ID_HEVC;
    QXErrorRef handlerError;
    OSStatus status = VTCompressionSessionEncodeFrameWithOutputHandler(
        dummySession, picture, CMTimeMake(0, 1000), kCMTimeInvalid, nullptr, nullptr,
        [&](OSStatus encoded, VTEncodeInfoFlags flags, const CMSampleBufferRef& sample) {
            const QXValue* atoms = nullptr;
            if (encoded == 0 && sample) {
                atoms = CMFormatDescriptionGetExtension(CMSampleBufferGetFormatDescription(sample),
                                                        kCMFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
            }
            const QXValue* record = atoms ? atoms->find(hevc ? "hvcC" : "avcC") : nullptr;
            if (!record || !record->data() || record->data()->empty()) {
                QXLogWarning("Failed to encode extradata: %d %d %s", int(encoded), int(flags),
                             sample ? sample->description().c_str() : "(null)");
                handlerError = statusError(encoded ? encoded : kVTVideoEncoderMalfunctionErr);
                return;
            }
            track->extradata = *record->data();
            if (!hevc) track->parseH264Extradata(track->extradata.data(), uint32_t(track->extradata.size()));
        });
    if (status != 0) {
        QXLogWarning("VTCompressionSessionEncodeFrameWithOutputHandler failed: %d", int(status));
        QXSetError(error, statusError(status));
        result = false;
    }
    if (OSStatus completed = VTCompressionSessionCompleteFrames(dummySession, kCMTimeIndefinite); completed != 0) {
        QXLogWarning("VTCompressionSessionCompleteFrames failed: %d", int(completed));
        QXSetError(error, statusError(completed));
        result = false;
    } else if (handlerError && result) {
        QXSetError(error, handlerError);
        result = false;
    }
    VTCompressionSessionInvalidate(dummySession);
    return result;
}

bool QXMuxerVideoToolboxInput::appendSampleBuffer(const CMSampleBufferRef& sample)
{
    if (const size_t bytes = QXTrackReaderOutput::sampleBytes(sample)) {
        // One picture always fits, however large.
        std::unique_lock hold(picturesLock_);
        pictureEncoded_.wait(hold, [&] { return pictureBytes_ == 0 || pictureBytes_ + bytes <= kPictureBytesInFlight; });
        pictureBytes_ += bytes;
    }
    return QXMuxerChapterInput::appendSampleBuffer(sample);
}

void QXMuxerVideoToolboxInput::releasePicture(size_t bytes)
{
    {
        std::lock_guard hold(picturesLock_);
        pictureBytes_ -= std::min(bytes, pictureBytes_);
    }
    pictureEncoded_.notify_all();
}

void QXMuxerVideoToolboxInput::processSample(const CMSampleBufferRef& sample)
{
    // The encoder has its own copy of a picture once it has been given it.
    struct Release {
        QXMuxerVideoToolboxInput& input;
        size_t bytes;
        ~Release() { if (bytes) input.releasePicture(bytes); }
    } release {*this, QXTrackReaderOutput::sampleBytes(sample)};
    if (!sample) {
        if (session) {
            if (OSStatus status = VTCompressionSessionCompleteFrames(session, kCMTimeIndefinite); status != 0) {
                QXLogWarning("VTCompressionSessionCompleteFrames failed: %d", int(status));
            }
            VTCompressionSessionInvalidate(session);
            session.reset();
        }
        QXMuxerChapterInput::processSample(nullptr);
        return;
    }
    CVImageBufferRef picture = CMSampleBufferGetImageBuffer(sample);
    if (!picture) {
        QXLogWarning("Not a valid CVPixelBufferRef: %s", sample->description().c_str());
        return;
    }
    if (!session) return;
    std::weak_ptr<QXMuxerInput> weakSelf = weak_from_this();
    const OSStatus status = VTCompressionSessionEncodeFrameWithOutputHandler(
        session, picture, CMSampleBufferGetPresentationTimeStamp(sample), CMSampleBufferGetDuration(sample), nullptr,
        nullptr, [weakSelf](OSStatus encoded, VTEncodeInfoFlags flags, const CMSampleBufferRef& output) {
            auto self = std::static_pointer_cast<QXMuxerVideoToolboxInput>(weakSelf.lock());
            if (!self) return;
            if (!output) {
                QXLogWarning("No sample received: %d - %d", int(encoded), int(flags));
            } else if (encoded != 0) {
                QXLogWarning("Encode failed: %d", int(encoded));
            } else {
                self->finishProcessSample(output);
            }
        });
    if (status != 0) QXLogWarning("encoder VTCompressionSessionEncodeFrame failed %d", int(status));
}

void QXMuxerVideoToolboxInput::finishProcessSample(const CMSampleBufferRef& sample)
{
    // The first encoded sample decides where the track starts.
    if (!CMTIME_IS_VALID(offset)) offset = CMSampleBufferGetDecodeTimeStamp(sample);
    QXMuxerChapterInput::processSample(sample);
}
