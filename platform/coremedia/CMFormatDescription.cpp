#include "qxmedia/platform/coremedia/CMFormatDescription.h"

namespace qx {

const char kCMFormatDescriptionExtension_SampleDescriptionExtensionAtoms[] = "SampleDescriptionExtensionAtoms";
// The colour extensions share their keys with the image buffer attachments,
// so a buffer's attachments carry over as they are.
const char kCMFormatDescriptionExtension_ColorPrimaries[] = "CVImageBufferColorPrimaries";
const char kCMFormatDescriptionExtension_TransferFunction[] = "CVImageBufferTransferFunction";
const char kCMFormatDescriptionExtension_YCbCrMatrix[] = "CVImageBufferYCbCrMatrix";
const char kCMFormatDescriptionExtension_PixelAspectRatio[] = "CVPixelAspectRatio";
const char kCMFormatDescriptionExtension_FullRangeVideo[] = "FullRangeVideo";

OSStatus CMFormatDescriptionCreate(CFAllocatorRef, CMMediaType mediaType, FourCharCode mediaSubType,
                                   const QXDictionary* extensions, CMFormatDescriptionRef* formatDescriptionOut)
{
    if (!formatDescriptionOut) return kCMFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = std::make_shared<const CMFormatDescription>(mediaType, mediaSubType, CMVideoDimensions {},
                                                                        extensions ? *extensions : QXDictionary {});
    return 0;
}

OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef, CMVideoCodecType codecType, int32_t width, int32_t height,
                                        const QXDictionary* extensions,
                                        CMVideoFormatDescriptionRef* formatDescriptionOut)
{
    if (!formatDescriptionOut) return kCMFormatDescriptionError_InvalidParameter;
    formatDescriptionOut->reset();
    if (width < 0 || height < 0) return kCMFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = std::make_shared<const CMFormatDescription>(
        kCMMediaType_Video, codecType, CMVideoDimensions {width, height}, extensions ? *extensions : QXDictionary {});
    return 0;
}

OSStatus CMVideoFormatDescriptionCreateForImageBuffer(CFAllocatorRef allocator, const CVImageBufferRef& imageBuffer,
                                                      CMVideoFormatDescriptionRef* formatDescriptionOut)
{
    if (!formatDescriptionOut) return kCMFormatDescriptionError_InvalidParameter;
    formatDescriptionOut->reset();
    if (!imageBuffer) return kCMFormatDescriptionError_InvalidParameter;
    QXDictionary extensions = CVBufferCopyAttachments(imageBuffer, kCVAttachmentMode_ShouldPropagate);
    const OSType format = CVPixelBufferGetPixelFormatType(imageBuffer);
    extensions[kCMFormatDescriptionExtension_FullRangeVideo] = format == kCVPixelFormatType_420YpCbCr8PlanarFullRange;
    return CMVideoFormatDescriptionCreate(allocator, format, int32_t(CVPixelBufferGetWidth(imageBuffer)),
                                          int32_t(CVPixelBufferGetHeight(imageBuffer)), &extensions,
                                          formatDescriptionOut);
}

bool CMVideoFormatDescriptionMatchesImageBuffer(const CMVideoFormatDescriptionRef& desc,
                                                const CVImageBufferRef& imageBuffer)
{
    if (!desc || !imageBuffer || desc->mediaType() != kCMMediaType_Video) return false;
    const CMVideoDimensions size = desc->dimensions();
    return desc->mediaSubType() == CVPixelBufferGetPixelFormatType(imageBuffer) &&
           size_t(size.width) == CVPixelBufferGetWidth(imageBuffer) &&
           size_t(size.height) == CVPixelBufferGetHeight(imageBuffer);
}

CMMediaType CMFormatDescriptionGetMediaType(const CMFormatDescriptionRef& desc)
{
    return desc ? desc->mediaType() : 0;
}

FourCharCode CMFormatDescriptionGetMediaSubType(const CMFormatDescriptionRef& desc)
{
    return desc ? desc->mediaSubType() : 0;
}

CMVideoDimensions CMVideoFormatDescriptionGetDimensions(const CMVideoFormatDescriptionRef& desc)
{
    return desc ? desc->dimensions() : CMVideoDimensions {};
}

const QXDictionary* CMFormatDescriptionGetExtensions(const CMFormatDescriptionRef& desc)
{
    return desc && !desc->extensions().empty() ? &desc->extensions() : nullptr;
}

const QXValue* CMFormatDescriptionGetExtension(const CMFormatDescriptionRef& desc, std::string_view extensionKey)
{
    if (!desc) return nullptr;
    auto it = desc->extensions().find(extensionKey);
    return it == desc->extensions().end() ? nullptr : &it->second;
}

bool CMFormatDescriptionEqual(const CMFormatDescriptionRef& desc1, const CMFormatDescriptionRef& desc2)
{
    if (desc1 == desc2) return true;
    if (!desc1 || !desc2) return false;
    return desc1->mediaType() == desc2->mediaType() && desc1->mediaSubType() == desc2->mediaSubType() &&
           desc1->dimensions().width == desc2->dimensions().width &&
           desc1->dimensions().height == desc2->dimensions().height && desc1->extensions() == desc2->extensions();
}

} // namespace qx
