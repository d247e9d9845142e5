#include "qxmedia/platform/coremedia/CVPixelBuffer.h"

#include <cstring>

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixfmt.h>
}

namespace qx {

const char kCVPixelBufferPixelFormatTypeKey[] = "PixelFormatType";
const char kCVPixelBufferWidthKey[] = "Width";
const char kCVPixelBufferHeightKey[] = "Height";

const char kCVImageBufferColorPrimariesKey[] = "CVImageBufferColorPrimaries";
const char kCVImageBufferColorPrimaries_ITU_R_709_2[] = "ITU_R_709_2";
const char kCVImageBufferColorPrimaries_EBU_3213[] = "EBU_3213";
const char kCVImageBufferColorPrimaries_SMPTE_C[] = "SMPTE_C";
const char kCVImageBufferColorPrimaries_ITU_R_2020[] = "ITU_R_2020";
const char kCVImageBufferColorPrimaries_DCI_P3[] = "DCI_P3";
const char kCVImageBufferColorPrimaries_P3_D65[] = "P3_D65";
const char kCVImageBufferColorPrimaries_P22[] = "P22";

const char kCVImageBufferTransferFunctionKey[] = "CVImageBufferTransferFunction";
const char kCVImageBufferTransferFunction_ITU_R_709_2[] = "ITU_R_709_2";
const char kCVImageBufferTransferFunction_UseGamma[] = "UseGamma";
const char kCVImageBufferTransferFunction_SMPTE_240M_1995[] = "SMPTE_240M_1995";
const char kCVImageBufferTransferFunction_Linear[] = "Linear";
const char kCVImageBufferTransferFunction_sRGB[] = "IEC_sRGB";
const char kCVImageBufferTransferFunction_ITU_R_2020[] = "ITU_R_2020";
const char kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ[] = "SMPTE_ST_2084_PQ";
const char kCVImageBufferTransferFunction_SMPTE_ST_428_1[] = "SMPTE_ST_428_1";
const char kCVImageBufferTransferFunction_ITU_R_2100_HLG[] = "ITU_R_2100_HLG";

const char kCVImageBufferYCbCrMatrixKey[] = "CVImageBufferYCbCrMatrix";
const char kCVImageBufferYCbCrMatrix_ITU_R_709_2[] = "ITU_R_709_2";
const char kCVImageBufferYCbCrMatrix_ITU_R_601_4[] = "ITU_R_601_4";
const char kCVImageBufferYCbCrMatrix_SMPTE_240M_1995[] = "SMPTE_240M_1995";
const char kCVImageBufferYCbCrMatrix_ITU_R_2020[] = "ITU_R_2020";

const char kCVImageBufferPixelAspectRatioKey[] = "CVPixelAspectRatio";
const char kCVImageBufferPixelAspectRatioHorizontalSpacingKey[] = "HorizontalSpacing";
const char kCVImageBufferPixelAspectRatioVerticalSpacingKey[] = "VerticalSpacing";

// The one place that reaches into CVPixelBuffer.
// Fills a new buffer; the only code that writes its fields.
struct CVPixelBufferAccess {
    static CVPixelBufferRef make(size_t width, size_t height, OSType format, void* dataPtr, size_t dataSize,
                                 const std::array<CVPixelBuffer::Plane, 3>& planes, AVFrame* frame,
                                 CVPixelBufferReleasePlanarBytesCallback release, void* releaseRefCon)
    {
        CVPixelBufferRef buffer(new CVPixelBuffer());
        buffer->width_ = width;
        buffer->height_ = height;
        buffer->pixelFormat_ = format;
        buffer->dataPtr_ = dataPtr;
        buffer->dataSize_ = dataSize;
        buffer->planes_ = planes;
        buffer->frame_ = frame;
        buffer->release_ = std::move(release);
        buffer->releaseRefCon_ = releaseRefCon;
        return buffer;
    }
};

namespace {

bool isPlanar420(OSType format)
{
    return format == kCVPixelFormatType_420YpCbCr8Planar || format == kCVPixelFormatType_420YpCbCr8PlanarFullRange;
}

bool validSize(size_t width, size_t height)
{
    return width > 0 && height > 0 && width <= 65536 && height <= 65536 &&
           av_image_check_size(unsigned(width), unsigned(height), 0, nullptr) == 0;
}

// Plane sizes of 4:2:0: chroma has half the luma size, rounded up.
size_t planeWidth(size_t width, size_t plane) { return plane == 0 ? width : (width + 1) / 2; }
size_t planeHeight(size_t height, size_t plane) { return plane == 0 ? height : (height + 1) / 2; }

template <size_t N>
int lookup(const std::optional<QXValue>& value, const std::pair<const char*, int> (&table)[N], int fallback)
{
    if (!value || !value->string()) return fallback;
    for (const auto& [name, number] : table) {
        if (*value->string() == name) return number;
    }
    return fallback;
}

const std::pair<const char*, int> primariesTable[] = {
    {kCVImageBufferColorPrimaries_ITU_R_709_2, AVCOL_PRI_BT709},  {kCVImageBufferColorPrimaries_EBU_3213, AVCOL_PRI_BT470BG},
    {kCVImageBufferColorPrimaries_SMPTE_C, AVCOL_PRI_SMPTE170M},  {kCVImageBufferColorPrimaries_ITU_R_2020, AVCOL_PRI_BT2020},
    {kCVImageBufferColorPrimaries_DCI_P3, AVCOL_PRI_SMPTE431},    {kCVImageBufferColorPrimaries_P3_D65, AVCOL_PRI_SMPTE432},
    {kCVImageBufferColorPrimaries_P22, AVCOL_PRI_JEDEC_P22},
};
const std::pair<const char*, int> transferTable[] = {
    {kCVImageBufferTransferFunction_ITU_R_709_2, AVCOL_TRC_BT709},
    {kCVImageBufferTransferFunction_UseGamma, AVCOL_TRC_GAMMA22},
    {kCVImageBufferTransferFunction_SMPTE_240M_1995, AVCOL_TRC_SMPTE240M},
    {kCVImageBufferTransferFunction_Linear, AVCOL_TRC_LINEAR},
    {kCVImageBufferTransferFunction_sRGB, AVCOL_TRC_IEC61966_2_1},
    {kCVImageBufferTransferFunction_ITU_R_2020, AVCOL_TRC_BT2020_10},
    {kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ, AVCOL_TRC_SMPTE2084},
    {kCVImageBufferTransferFunction_SMPTE_ST_428_1, AVCOL_TRC_SMPTE428},
    {kCVImageBufferTransferFunction_ITU_R_2100_HLG, AVCOL_TRC_ARIB_STD_B67},
};
const std::pair<const char*, int> matrixTable[] = {
    {kCVImageBufferYCbCrMatrix_ITU_R_709_2, AVCOL_SPC_BT709},
    {kCVImageBufferYCbCrMatrix_ITU_R_601_4, AVCOL_SPC_SMPTE170M},
    {kCVImageBufferYCbCrMatrix_SMPTE_240M_1995, AVCOL_SPC_SMPTE240M},
    {kCVImageBufferYCbCrMatrix_ITU_R_2020, AVCOL_SPC_BT2020_NCL},
};

void releaseFrameBuffer(void* opaque, uint8_t*) { delete static_cast<CVPixelBufferRef*>(opaque); }

} // namespace

int CVColorAttachmentToAVColor(std::string_view key, const std::optional<QXValue>& value)
{
    if (key == kCVImageBufferColorPrimariesKey) return lookup(value, primariesTable, AVCOL_PRI_UNSPECIFIED);
    if (key == kCVImageBufferTransferFunctionKey) return lookup(value, transferTable, AVCOL_TRC_UNSPECIFIED);
    if (key == kCVImageBufferYCbCrMatrixKey) return lookup(value, matrixTable, AVCOL_SPC_UNSPECIFIED);
    return 2; // unspecified in each of FFmpeg's colour enumerations
}

CVPixelBuffer::~CVPixelBuffer()
{
    if (frame_) av_frame_free(&frame_);
    if (release_) {
        const void* addresses[3] = {planes_[0].base, planes_[1].base, planes_[2].base};
        release_(releaseRefCon_, dataPtr_, dataSize_, 3, addresses);
    }
}

CVReturn CVPixelBufferCreateWithPlanarBytes(CFAllocatorRef, size_t width, size_t height, OSType pixelFormatType,
                                            void* dataPtr, size_t dataSize, size_t numberOfPlanes,
                                            void* planeBaseAddress[], size_t planeWidth[], size_t planeHeight[],
                                            size_t planeBytesPerRow[],
                                            CVPixelBufferReleasePlanarBytesCallback releaseCallback,
                                            void* releaseRefCon, const QXDictionary*,
                                            CVPixelBufferRef* pixelBufferOut)
{
    if (!pixelBufferOut) return kCVReturnInvalidArgument;
    pixelBufferOut->reset();
    if (!isPlanar420(pixelFormatType)) return kCVReturnInvalidPixelFormat;
    if (!validSize(width, height)) return kCVReturnInvalidSize;
    if (numberOfPlanes != 3 || !planeBaseAddress || !planeWidth || !planeHeight || !planeBytesPerRow) {
        return kCVReturnInvalidArgument;
    }
    for (size_t i = 0; i < 3; ++i) {
        if (!planeBaseAddress[i] || planeWidth[i] < qx::planeWidth(width, i) ||
            planeHeight[i] < qx::planeHeight(height, i) || planeBytesPerRow[i] < planeWidth[i]) {
            return kCVReturnInvalidArgument;
        }
    }
    std::array<CVPixelBuffer::Plane, 3> planes;
    for (size_t i = 0; i < 3; ++i) {
        planes[i] = {static_cast<uint8_t*>(planeBaseAddress[i]), planeWidth[i], planeHeight[i], planeBytesPerRow[i]};
    }
    *pixelBufferOut = CVPixelBufferAccess::make(width, height, pixelFormatType, dataPtr, dataSize, planes, nullptr,
                                                std::move(releaseCallback), releaseRefCon);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferCreate(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
                             const QXDictionary* pixelBufferAttributes, CVPixelBufferRef* pixelBufferOut)
{
    if (!pixelBufferOut) return kCVReturnInvalidArgument;
    pixelBufferOut->reset();
    if (!isPlanar420(pixelFormatType)) return kCVReturnInvalidPixelFormat;
    if (!validSize(width, height)) return kCVReturnInvalidSize;
    AVFrame* frame = av_frame_alloc();
    if (!frame) return kCVReturnAllocationFailed;
    frame->width = int(width);
    frame->height = int(height);
    frame->format = AV_PIX_FMT_YUV420P;
    frame->color_range =
        pixelFormatType == kCVPixelFormatType_420YpCbCr8PlanarFullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    CVReturn result = kCVReturnAllocationFailed;
    if (av_frame_get_buffer(frame, 32) == 0) {
        result = CVPixelBufferCreateWithAVFrame(allocator, frame, pixelBufferAttributes, pixelBufferOut);
    }
    av_frame_free(&frame);
    return result;
}

CVReturn CVPixelBufferCreateWithAVFrame(CFAllocatorRef, const AVFrame* frame, const QXDictionary*,
                                        CVPixelBufferRef* pixelBufferOut)
{
    if (!pixelBufferOut) return kCVReturnInvalidArgument;
    pixelBufferOut->reset();
    if (!frame) return kCVReturnInvalidArgument;
    OSType format;
    if (frame->format == AV_PIX_FMT_YUVJ420P ||
        (frame->format == AV_PIX_FMT_YUV420P && frame->color_range == AVCOL_RANGE_JPEG)) {
        format = kCVPixelFormatType_420YpCbCr8PlanarFullRange;
    } else if (frame->format == AV_PIX_FMT_YUV420P) {
        format = kCVPixelFormatType_420YpCbCr8Planar;
    } else {
        return kCVReturnInvalidPixelFormat;
    }
    if (frame->width <= 0 || frame->height <= 0 || !validSize(size_t(frame->width), size_t(frame->height))) {
        return kCVReturnInvalidSize;
    }
    for (int i = 0; i < 3; ++i) {
        if (!frame->data[i] || frame->linesize[i] <= 0) return kCVReturnInvalidArgument;
    }
    AVFrame* reference = av_frame_alloc();
    if (!reference) return kCVReturnAllocationFailed;
    if (av_frame_ref(reference, frame) < 0) {
        av_frame_free(&reference);
        return kCVReturnAllocationFailed;
    }
    const auto width = size_t(frame->width), height = size_t(frame->height);
    std::array<CVPixelBuffer::Plane, 3> planes;
    for (size_t i = 0; i < 3; ++i) {
        planes[i] = {reference->data[i], planeWidth(width, i), planeHeight(height, i), size_t(reference->linesize[i])};
    }
    *pixelBufferOut =
        CVPixelBufferAccess::make(width, height, format, reference->data[0], 0, planes, reference, nullptr, nullptr);
    return kCVReturnSuccess;
}

const AVFrame* CVPixelBufferGetAVFrame(const CVPixelBufferRef& pixelBuffer)
{
    return pixelBuffer ? pixelBuffer->frame() : nullptr;
}

AVFrame* CVPixelBufferCopyAVFrame(const CVPixelBufferRef& pixelBuffer)
{
    if (!pixelBuffer) return nullptr;
    const CVPixelBuffer& b = *pixelBuffer;
    AVFrame* frame = nullptr;
    if (b.frame()) {
        frame = av_frame_clone(b.frame());
        if (!frame) return nullptr;
    } else {
        frame = av_frame_alloc();
        if (!frame) return nullptr;
        auto* keeper = new CVPixelBufferRef(pixelBuffer);
        frame->buf[0] = av_buffer_create(b.plane(0).base, b.plane(0).bytesPerRow * b.plane(0).height,
                                         releaseFrameBuffer, keeper, AV_BUFFER_FLAG_READONLY);
        if (!frame->buf[0]) {
            delete keeper;
            av_frame_free(&frame);
            return nullptr;
        }
        for (size_t i = 0; i < 3; ++i) {
            frame->data[i] = b.plane(i).base;
            frame->linesize[i] = int(b.plane(i).bytesPerRow);
        }
        frame->width = int(b.width());
        frame->height = int(b.height());
    }
    frame->format = AV_PIX_FMT_YUV420P;
    frame->color_range =
        b.pixelFormat() == kCVPixelFormatType_420YpCbCr8PlanarFullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    frame->color_primaries = AVColorPrimaries(
        lookup(CVBufferGetAttachment(pixelBuffer, kCVImageBufferColorPrimariesKey), primariesTable,
               AVCOL_PRI_UNSPECIFIED));
    frame->color_trc = AVColorTransferCharacteristic(
        lookup(CVBufferGetAttachment(pixelBuffer, kCVImageBufferTransferFunctionKey), transferTable,
               AVCOL_TRC_UNSPECIFIED));
    frame->colorspace = AVColorSpace(lookup(CVBufferGetAttachment(pixelBuffer, kCVImageBufferYCbCrMatrixKey),
                                            matrixTable, AVCOL_SPC_UNSPECIFIED));
    return frame;
}

CVReturn CVPixelBufferLockBaseAddress(const CVPixelBufferRef& pixelBuffer, CVPixelBufferLockFlags)
{
    return pixelBuffer ? kCVReturnSuccess : kCVReturnInvalidArgument;
}

CVReturn CVPixelBufferUnlockBaseAddress(const CVPixelBufferRef& pixelBuffer, CVPixelBufferLockFlags)
{
    return pixelBuffer ? kCVReturnSuccess : kCVReturnInvalidArgument;
}

size_t CVPixelBufferGetWidth(const CVPixelBufferRef& pixelBuffer)
{
    return pixelBuffer ? pixelBuffer->width() : 0;
}

size_t CVPixelBufferGetHeight(const CVPixelBufferRef& pixelBuffer)
{
    return pixelBuffer ? pixelBuffer->height() : 0;
}

OSType CVPixelBufferGetPixelFormatType(const CVPixelBufferRef& pixelBuffer)
{
    return pixelBuffer ? pixelBuffer->pixelFormat() : 0;
}

bool CVPixelBufferIsPlanar(const CVPixelBufferRef& pixelBuffer) { return pixelBuffer != nullptr; }

size_t CVPixelBufferGetPlaneCount(const CVPixelBufferRef& pixelBuffer) { return pixelBuffer ? 3 : 0; }

void* CVPixelBufferGetBaseAddress(const CVPixelBufferRef& pixelBuffer)
{
    if (!pixelBuffer) return nullptr;
    return pixelBuffer->dataPtr() ? pixelBuffer->dataPtr() : pixelBuffer->plane(0).base;
}

size_t CVPixelBufferGetDataSize(const CVPixelBufferRef& pixelBuffer)
{
    return pixelBuffer ? pixelBuffer->dataSize() : 0;
}

void* CVPixelBufferGetBaseAddressOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex)
{
    return pixelBuffer && planeIndex < 3 ? pixelBuffer->plane(planeIndex).base : nullptr;
}

size_t CVPixelBufferGetBytesPerRowOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex)
{
    return pixelBuffer && planeIndex < 3 ? pixelBuffer->plane(planeIndex).bytesPerRow : 0;
}

size_t CVPixelBufferGetWidthOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex)
{
    return pixelBuffer && planeIndex < 3 ? pixelBuffer->plane(planeIndex).width : 0;
}

size_t CVPixelBufferGetHeightOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex)
{
    return pixelBuffer && planeIndex < 3 ? pixelBuffer->plane(planeIndex).height : 0;
}

void CVPixelBuffer::setAttachment(std::string_view key, const QXValue& value, CVAttachmentMode mode)
{
    std::lock_guard lock(attachmentsLock_);
    auto it = attachments_.find(key);
    if (it != attachments_.end()) {
        it->second = {value, mode};
    } else {
        attachments_.emplace(std::string(key), Attachment {value, mode});
    }
}

std::optional<QXValue> CVPixelBuffer::attachment(std::string_view key, CVAttachmentMode* modeOut) const
{
    std::lock_guard lock(attachmentsLock_);
    auto it = attachments_.find(key);
    if (it == attachments_.end()) return std::nullopt;
    if (modeOut) *modeOut = it->second.mode;
    return it->second.value;
}

void CVPixelBuffer::removeAttachment(std::string_view key)
{
    std::lock_guard lock(attachmentsLock_);
    auto it = attachments_.find(key);
    if (it != attachments_.end()) attachments_.erase(it);
}

void CVPixelBuffer::removeAllAttachments()
{
    std::lock_guard lock(attachmentsLock_);
    attachments_.clear();
}

QXDictionary CVPixelBuffer::copyAttachments(CVAttachmentMode mode) const
{
    QXDictionary result;
    std::lock_guard lock(attachmentsLock_);
    for (const auto& [key, attachment] : attachments_) {
        if (attachment.mode == mode) result.emplace(key, attachment.value);
    }
    return result;
}

void CVBufferSetAttachment(const CVBufferRef& buffer, std::string_view key, const QXValue& value,
                           CVAttachmentMode attachmentMode)
{
    if (buffer) buffer->setAttachment(key, value, attachmentMode);
}

std::optional<QXValue> CVBufferGetAttachment(const CVBufferRef& buffer, std::string_view key,
                                             CVAttachmentMode* attachmentModeOut)
{
    return buffer ? buffer->attachment(key, attachmentModeOut) : std::nullopt;
}

void CVBufferRemoveAttachment(const CVBufferRef& buffer, std::string_view key)
{
    if (buffer) buffer->removeAttachment(key);
}

void CVBufferRemoveAllAttachments(const CVBufferRef& buffer)
{
    if (buffer) buffer->removeAllAttachments();
}

void CVBufferSetAttachments(const CVBufferRef& buffer, const QXDictionary& theAttachments,
                            CVAttachmentMode attachmentMode)
{
    for (const auto& [key, value] : theAttachments) CVBufferSetAttachment(buffer, key, value, attachmentMode);
}

QXDictionary CVBufferCopyAttachments(const CVBufferRef& buffer, CVAttachmentMode attachmentMode)
{
    return buffer ? buffer->copyAttachments(attachmentMode) : QXDictionary {};
}

void CVBufferPropagateAttachments(const CVBufferRef& sourceBuffer, const CVBufferRef& destinationBuffer)
{
    if (!sourceBuffer || !destinationBuffer || sourceBuffer == destinationBuffer) return;
    CVBufferSetAttachments(destinationBuffer, CVBufferCopyAttachments(sourceBuffer, kCVAttachmentMode_ShouldPropagate),
                           kCVAttachmentMode_ShouldPropagate);
}

} // namespace qx
