#pragma once
/// @file
/// CMFormatDescription: what kind of media a sample holds (media type and
/// subtype as four-character codes), the picture size of video, and a
/// dictionary of extensions such as the codec configuration atoms.
/// Immutable once made, so it is shared freely between threads.

#include <memory>

#include "qxmedia/platform/coremedia/CMBase.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/platform/foundation/QXValue.h"

namespace qx {

/// The kind of media, as a four-character code.
using CMMediaType = FourCharCode;
/// The media types; each value is the four-character code of its name ('vide', 'soun', ...).
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

/// A video format's subtype, as a four-character code.
using CMVideoCodecType = FourCharCode;
/// The video subtypes the framework names: 'avc1' (H.264), 'hvc1' (HEVC), 'jpeg'.
enum : CMVideoCodecType {
    kCMVideoCodecType_H264 = QXFourCC("avc1"),
    kCMVideoCodecType_HEVC = QXFourCC("hvc1"),
    kCMVideoCodecType_JPEG = QXFourCC("jpeg"),
};

/// The status codes of the format description calls (0 is success).
enum : OSStatus {
    kCMFormatDescriptionError_InvalidParameter = -12710,
    kCMFormatDescriptionError_AllocationFailed = -12711,
    kCMFormatDescriptionError_ValueNotAvailable = -12718,
};

/// Extension key: a dictionary from atom type ("avcC",
/// "hvcC") to the atom's payload bytes.
extern const char kCMFormatDescriptionExtension_SampleDescriptionExtensionAtoms[];
///@{
/// Extension key with the value of the pixel buffer attachment of the same name (see CVPixelBuffer.h).
extern const char kCMFormatDescriptionExtension_ColorPrimaries[];
extern const char kCMFormatDescriptionExtension_TransferFunction[];
extern const char kCMFormatDescriptionExtension_YCbCrMatrix[];
extern const char kCMFormatDescriptionExtension_PixelAspectRatio[];
///@}
/// Extension key: a boolean, true for full-range video.
extern const char kCMFormatDescriptionExtension_FullRangeVideo[];

/// A picture size in pixels; 0 x 0 for media that has none.
struct CMVideoDimensions {
    int32_t width = 0;  ///< Pixels per row.
    int32_t height = 0; ///< Rows.
};

/// What kind of media a sample holds, made by the create functions below;
/// immutable, so shared freely between threads.
class CMFormatDescription {
public:
    /// A description of these values as they are; the create functions check them first.
    CMFormatDescription(CMMediaType mediaType, FourCharCode mediaSubType, CMVideoDimensions dimensions,
                        QXDictionary extensions)
        : mediaType_(mediaType), mediaSubType_(mediaSubType), dimensions_(dimensions),
          extensions_(std::move(extensions))
    {
    }

    /// The media type ('vide', 'soun', ...).
    CMMediaType mediaType() const { return mediaType_; }
    /// The format within the media type ('avc1', 'y420', 'aac '...).
    FourCharCode mediaSubType() const { return mediaSubType_; }
    /// The picture size; 0 x 0 for media that has none.
    CMVideoDimensions dimensions() const { return dimensions_; }
    /// The extensions; empty when there are none.
    const QXDictionary& extensions() const { return extensions_; }

private:
    CMMediaType mediaType_;
    FourCharCode mediaSubType_;
    CMVideoDimensions dimensions_;
    QXDictionary extensions_;
};

/// A shared, immutable description.
using CMFormatDescriptionRef = std::shared_ptr<const CMFormatDescription>;
/// A description of video; the same type.
using CMVideoFormatDescriptionRef = CMFormatDescriptionRef;

/// A description of any media, without picture size; extensions may be null.
OSStatus CMFormatDescriptionCreate(CFAllocatorRef allocator, CMMediaType mediaType, FourCharCode mediaSubType,
                                   const QXDictionary* extensions, CMFormatDescriptionRef* formatDescriptionOut);
/// A video description; a negative size is kCMFormatDescriptionError_InvalidParameter.
OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef allocator, CMVideoCodecType codecType, int32_t width,
                                        int32_t height, const QXDictionary* extensions,
                                        CMVideoFormatDescriptionRef* formatDescriptionOut);
/// A video description of the buffer's size with its pixel format as
/// subtype; the buffer's propagating colour attachments become extensions.
OSStatus CMVideoFormatDescriptionCreateForImageBuffer(CFAllocatorRef allocator, const CVImageBufferRef& imageBuffer,
                                                      CMVideoFormatDescriptionRef* formatDescriptionOut);
/// True when the description fits the buffer: video, same subtype and size.
bool CMVideoFormatDescriptionMatchesImageBuffer(const CMVideoFormatDescriptionRef& desc,
                                                const CVImageBufferRef& imageBuffer);

///@{
/// The description's media type, subtype or picture size; 0 for a null description.
CMMediaType CMFormatDescriptionGetMediaType(const CMFormatDescriptionRef& desc);
FourCharCode CMFormatDescriptionGetMediaSubType(const CMFormatDescriptionRef& desc);
CMVideoDimensions CMVideoFormatDescriptionGetDimensions(const CMVideoFormatDescriptionRef& desc);
///@}
/// Null when the description has no extensions.
const QXDictionary* CMFormatDescriptionGetExtensions(const CMFormatDescriptionRef& desc);
/// One extension; null when absent. Lives as long as the description.
const QXValue* CMFormatDescriptionGetExtension(const CMFormatDescriptionRef& desc, std::string_view extensionKey);
/// True for the same object or equal type, subtype, size and extensions; false when one is null.
bool CMFormatDescriptionEqual(const CMFormatDescriptionRef& desc1, const CMFormatDescriptionRef& desc2);

} // namespace qx
