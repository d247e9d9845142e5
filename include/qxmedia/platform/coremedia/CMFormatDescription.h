#pragma once
// CMFormatDescription: what kind of media a sample holds (media type and
// subtype as four-character codes), the picture size of video, and a
// dictionary of extensions such as the codec configuration atoms.
// Immutable once made, so it is shared freely between threads.

#include <memory>

#include "qxmedia/platform/coremedia/CMBase.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/platform/foundation/QXValue.h"

namespace qx {

using CMMediaType = FourCharCode;
enum : CMMediaType {
    kCMMediaType_Video = QXFourCC("vide"),
    kCMMediaType_Audio = QXFourCC("soun"),
    kCMMediaType_Muxed = QXFourCC("muxx"),
    kCMMediaType_Text = QXFourCC("text"),
    kCMMediaType_ClosedCaption = QXFourCC("clcp"),
    kCMMediaType_Subtitle = QXFourCC("sbtl"),
    kCMMediaType_TimeCode = QXFourCC("tmcd"),
    kCMMediaType_Metadata = QXFourCC("meta"),
};

using CMVideoCodecType = FourCharCode;
enum : CMVideoCodecType {
    kCMVideoCodecType_H264 = QXFourCC("avc1"),
    kCMVideoCodecType_HEVC = QXFourCC("hvc1"),
    kCMVideoCodecType_JPEG = QXFourCC("jpeg"),
};

enum : OSStatus {
    kCMFormatDescriptionError_InvalidParameter = -12710,
    kCMFormatDescriptionError_AllocationFailed = -12711,
    kCMFormatDescriptionError_ValueNotAvailable = -12718,
};

// Extension keys. The atoms entry is a dictionary from atom type ("avcC",
// "hvcC") to the atom's payload bytes.
extern const char kCMFormatDescriptionExtension_SampleDescriptionExtensionAtoms[];
extern const char kCMFormatDescriptionExtension_ColorPrimaries[];
extern const char kCMFormatDescriptionExtension_TransferFunction[];
extern const char kCMFormatDescriptionExtension_YCbCrMatrix[];
extern const char kCMFormatDescriptionExtension_PixelAspectRatio[];
extern const char kCMFormatDescriptionExtension_FullRangeVideo[];

struct CMVideoDimensions {
    int32_t width = 0;
    int32_t height = 0;
};

class CMFormatDescription {
public:
    CMFormatDescription(CMMediaType mediaType, FourCharCode mediaSubType, CMVideoDimensions dimensions,
                        QXDictionary extensions)
        : mediaType_(mediaType), mediaSubType_(mediaSubType), dimensions_(dimensions),
          extensions_(std::move(extensions))
    {
    }

    CMMediaType mediaType() const { return mediaType_; }
    FourCharCode mediaSubType() const { return mediaSubType_; }
    CMVideoDimensions dimensions() const { return dimensions_; }
    const QXDictionary& extensions() const { return extensions_; }

private:
    CMMediaType mediaType_;
    FourCharCode mediaSubType_;
    CMVideoDimensions dimensions_;
    QXDictionary extensions_;
};

using CMFormatDescriptionRef = std::shared_ptr<const CMFormatDescription>;
using CMVideoFormatDescriptionRef = CMFormatDescriptionRef;

OSStatus CMFormatDescriptionCreate(CFAllocatorRef allocator, CMMediaType mediaType, FourCharCode mediaSubType,
                                   const QXDictionary* extensions, CMFormatDescriptionRef* formatDescriptionOut);
OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef allocator, CMVideoCodecType codecType, int32_t width,
                                        int32_t height, const QXDictionary* extensions,
                                        CMVideoFormatDescriptionRef* formatDescriptionOut);
// A video description of the buffer's size with its pixel format as
// subtype; the buffer's propagating colour attachments become extensions.
OSStatus CMVideoFormatDescriptionCreateForImageBuffer(CFAllocatorRef allocator, const CVImageBufferRef& imageBuffer,
                                                      CMVideoFormatDescriptionRef* formatDescriptionOut);
// True when the description fits the buffer: video, same subtype and size.
bool CMVideoFormatDescriptionMatchesImageBuffer(const CMVideoFormatDescriptionRef& desc,
                                                const CVImageBufferRef& imageBuffer);

CMMediaType CMFormatDescriptionGetMediaType(const CMFormatDescriptionRef& desc);
FourCharCode CMFormatDescriptionGetMediaSubType(const CMFormatDescriptionRef& desc);
CMVideoDimensions CMVideoFormatDescriptionGetDimensions(const CMVideoFormatDescriptionRef& desc);
// Null when the description has no extensions.
const QXDictionary* CMFormatDescriptionGetExtensions(const CMFormatDescriptionRef& desc);
// Null when absent.
const QXValue* CMFormatDescriptionGetExtension(const CMFormatDescriptionRef& desc, std::string_view extensionKey);
bool CMFormatDescriptionEqual(const CMFormatDescriptionRef& desc1, const CMFormatDescriptionRef& desc2);

} // namespace qx
