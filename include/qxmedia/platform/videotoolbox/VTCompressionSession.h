#pragma once
// VTCompressionSession: an H.264 / HEVC encoder session over libavcodec with
// the shape of VideoToolbox's. Properties are set before
// VTCompressionSessionPrepareToEncodeFrames, which opens the encoder: a
// hardware one first (VAAPI on each /dev/dri/renderD*, then NVENC, then QSV)
// when the specification asks for hardware, otherwise, or when none opens,
// libx264 / libx265. Encoded samples leave through the frame's handler in
// decode order: length-prefixed NAL units, presentation and decode times,
// the duration of the picture, the dependency attachments, and a format
// description whose extension atoms hold the avcC or hvcC record.
//
// Handlers run on the thread that calls EncodeFrame or CompleteFrames.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxmedia/platform/coremedia/CMBase.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXValue.h"

namespace qx {

class VTCompressionSession;
using VTCompressionSessionRef = std::shared_ptr<VTCompressionSession>;
using VTSessionRef = VTCompressionSessionRef;

using VTEncodeInfoFlags = uint32_t;
enum : VTEncodeInfoFlags { kVTEncodeInfo_Asynchronous = 1, kVTEncodeInfo_FrameDropped = 2 };

enum : OSStatus {
    kVTPropertyNotSupportedErr = -12900,
    kVTPropertyReadOnlyErr = -12901,
    kVTParameterErr = -12902,
    kVTInvalidSessionErr = -12903,
    kVTAllocationFailedErr = -12904,
    kVTCouldNotFindVideoEncoderErr = -12908,
    kVTVideoEncoderMalfunctionErr = -12912,
};

// Encoder specification keys. EncoderID names an FFmpeg encoder to try
// first; Device is the device it opens (a render node for VAAPI).
extern const char kVTVideoEncoderSpecification_EnableHardwareAcceleratedVideoEncoder[];
extern const char kVTVideoEncoderSpecification_EncoderID[];
extern const char kQXVideoEncoderSpecification_Device[];

// Session properties.
extern const char kVTCompressionPropertyKey_RealTime[];
extern const char kVTCompressionPropertyKey_MaxKeyFrameInterval[];
extern const char kVTCompressionPropertyKey_AllowFrameReordering[];
extern const char kVTCompressionPropertyKey_AllowTemporalCompression[];
extern const char kVTCompressionPropertyKey_AllowOpenGOP[];
extern const char kVTCompressionPropertyKey_MaximizePowerEfficiency[];
extern const char kVTCompressionPropertyKey_AverageBitRate[];
extern const char kVTCompressionPropertyKey_ProfileLevel[];
extern const char kVTCompressionPropertyKey_PixelAspectRatio[];
extern const char kVTCompressionPropertyKey_ExpectedFrameRate[];
extern const char kVTCompressionPropertyKey_YCbCrMatrix[];
extern const char kVTCompressionPropertyKey_TransferFunction[];
extern const char kVTCompressionPropertyKey_ColorPrimaries[];
extern const char kVTCompressionPropertyKey_EncoderID[];
extern const char kVTCompressionPropertyKey_UsingHardwareAcceleratedVideoEncoder[];
// The software encoder's speed, 0 (ultrafast) to 9 (placebo): see
// kQXEncoderSpeedPresets. Other values leave the encoder's default.
extern const char kQXCompressionPropertyKey_EncoderSpeedPreset[];
// A dictionary of encoder options, passed through by name: FFmpeg options
// of the encoder first, the rest as x264 / x265 parameters.
extern const char kQXCompressionPropertyKey_EncoderOptions[];

// Profile levels are "<codec>_<profile>_<level>" strings, as VideoToolbox's
// constants read: "H264_High_4_1", "H264_Main_AutoLevel", "HEVC_Main10_AutoLevel".
std::string VTProfileLevelName(bool hevc, const std::string& profile, const std::string& level);

// The speed presets of x264 and x265 by encoderPreset number.
extern const char* const kQXEncoderSpeedPresets[10];

using VTCompressionOutputHandler =
    std::function<void(OSStatus status, VTEncodeInfoFlags infoFlags, const CMSampleBufferRef& sampleBuffer)>;

OSStatus VTCompressionSessionCreate(CFAllocatorRef allocator, int32_t width, int32_t height,
                                    CMVideoCodecType codecType, const QXDictionary* encoderSpecification,
                                    const QXDictionary* sourceImageBufferAttributes,
                                    CFAllocatorRef compressedDataAllocator, VTCompressionSessionRef* sessionOut);
OSStatus VTSessionSetProperty(const VTSessionRef& session, std::string_view key, const QXValue& value);
// After PrepareToEncodeFrames: EncoderID and UsingHardwareAcceleratedVideoEncoder.
OSStatus VTSessionCopyProperty(const VTSessionRef& session, std::string_view key, QXValue* valueOut);
OSStatus VTSessionCopySupportedPropertyDictionary(const VTSessionRef& session, QXDictionary* dictionaryOut);
OSStatus VTCompressionSessionPrepareToEncodeFrames(const VTCompressionSessionRef& session);
OSStatus VTCompressionSessionEncodeFrameWithOutputHandler(const VTCompressionSessionRef& session,
                                                          const CVImageBufferRef& imageBuffer,
                                                          CMTime presentationTimeStamp, CMTime duration,
                                                          const QXDictionary* frameProperties,
                                                          VTEncodeInfoFlags* infoFlagsOut,
                                                          VTCompressionOutputHandler outputHandler);
// Drains the encoder (up to completeUntilPresentationTimeStamp; indefinite
// means all), calling the handlers of the frames still inside.
OSStatus VTCompressionSessionCompleteFrames(const VTCompressionSessionRef& session,
                                            CMTime completeUntilPresentationTimeStamp);
void VTCompressionSessionInvalidate(const VTCompressionSessionRef& session);

class VTCompressionSession {
public:
    class Encoder;
    ~VTCompressionSession();

    // The state of the functions above; hosts go through those.
    int32_t width = 0;
    int32_t height = 0;
    bool hevc = false;
    bool fullRange = false;
    QXDictionary specification;
    QXDictionary properties;
    std::unique_ptr<Encoder> encoder;

private:
    VTCompressionSession() = default;
    friend struct VTCompressionSessionAccess;
};

} // namespace qx
