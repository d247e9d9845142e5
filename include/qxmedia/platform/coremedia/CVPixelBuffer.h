#pragma once
/// @file
/// CVPixelBuffer: a reference-counted picture of planar 8-bit YUV 4:2:0
/// (three planes, Y then Cb then Cr) with string-keyed attachments. Its planes
/// are either the caller's memory, handed back by a release callback once the
/// last reference goes, or an AVFrame whose reference the buffer holds.
/// Attachments may be read and written from several threads at once.

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "qxmedia/platform/coremedia/CMBase.h"
#include "qxmedia/platform/foundation/QXValue.h"

struct AVFrame;

namespace qx {

class CVPixelBuffer;
/// A picture, shared by every holder; the planes go back when the last reference goes.
using CVPixelBufferRef = std::shared_ptr<CVPixelBuffer>;
///@{
/// Pixel buffers are the only image buffers here.
using CVImageBufferRef = CVPixelBufferRef;
using CVBufferRef = CVPixelBufferRef;
///@}

/// The status of the CVPixelBuffer calls; kCVReturnSuccess (0) or one of the errors below.
using CVReturn = int32_t;
/// The status codes of the CVPixelBuffer calls.
enum : CVReturn {
    kCVReturnSuccess = 0,
    kCVReturnError = -6660,
    kCVReturnInvalidArgument = -6661,
    kCVReturnAllocationFailed = -6662,
    kCVReturnUnsupported = -6663,
    kCVReturnInvalidPixelFormat = -6680,
    kCVReturnInvalidSize = -6681,
};

/// The pixel formats a buffer may have: 8-bit YUV 4:2:0 in three planes.
enum : OSType {
    kCVPixelFormatType_420YpCbCr8Planar = QXFourCC("y420"),          ///< Video range (Y 16-235).
    kCVPixelFormatType_420YpCbCr8PlanarFullRange = QXFourCC("f420"), ///< Full range (0-255).
};

/// A set of lock options; locking changes nothing here.
using CVPixelBufferLockFlags = uint64_t;
/// The lock option of the platform call.
enum : CVPixelBufferLockFlags { kCVPixelBufferLock_ReadOnly = 1 };

/// Whether an attachment is copied to buffers made from this one.
using CVAttachmentMode = uint32_t;
/// The two attachment modes.
enum : CVAttachmentMode {
    kCVAttachmentMode_ShouldNotPropagate = 0, ///< Stays with this buffer.
    kCVAttachmentMode_ShouldPropagate = 1,    ///< Copied on by CVBufferPropagateAttachments() and format descriptions.
};

///@{
/// Pixel buffer attribute keys; the create calls accept attributes for the call shape and read none.
extern const char kCVPixelBufferPixelFormatTypeKey[];
extern const char kCVPixelBufferWidthKey[];
extern const char kCVPixelBufferHeightKey[];
///@}

// Colour attachment keys and their values.
/// Attachment key of the colour primaries; its value is one of the texts below.
extern const char kCVImageBufferColorPrimariesKey[];
///@{
/// A value (text) of kCVImageBufferColorPrimariesKey.
extern const char kCVImageBufferColorPrimaries_ITU_R_709_2[];
extern const char kCVImageBufferColorPrimaries_EBU_3213[];
extern const char kCVImageBufferColorPrimaries_SMPTE_C[];
extern const char kCVImageBufferColorPrimaries_ITU_R_2020[];
extern const char kCVImageBufferColorPrimaries_DCI_P3[];
extern const char kCVImageBufferColorPrimaries_P3_D65[];
extern const char kCVImageBufferColorPrimaries_P22[];
///@}

/// Attachment key of the transfer function; its value is one of the texts below.
extern const char kCVImageBufferTransferFunctionKey[];
///@{
/// A value (text) of kCVImageBufferTransferFunctionKey.
extern const char kCVImageBufferTransferFunction_ITU_R_709_2[];
extern const char kCVImageBufferTransferFunction_UseGamma[];
extern const char kCVImageBufferTransferFunction_SMPTE_240M_1995[];
extern const char kCVImageBufferTransferFunction_Linear[];
extern const char kCVImageBufferTransferFunction_sRGB[];
extern const char kCVImageBufferTransferFunction_ITU_R_2020[];
extern const char kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ[];
extern const char kCVImageBufferTransferFunction_SMPTE_ST_428_1[];
extern const char kCVImageBufferTransferFunction_ITU_R_2100_HLG[];
///@}

/// Attachment key of the YCbCr matrix; its value is one of the texts below.
extern const char kCVImageBufferYCbCrMatrixKey[];
///@{
/// A value (text) of kCVImageBufferYCbCrMatrixKey.
extern const char kCVImageBufferYCbCrMatrix_ITU_R_709_2[];
extern const char kCVImageBufferYCbCrMatrix_ITU_R_601_4[];
extern const char kCVImageBufferYCbCrMatrix_SMPTE_240M_1995[];
extern const char kCVImageBufferYCbCrMatrix_ITU_R_2020[];
///@}

/// Attachment key of the pixel aspect ratio: a dictionary of the two spacing keys below.
extern const char kCVImageBufferPixelAspectRatioKey[];
///@{
/// A number in the pixel aspect ratio dictionary: the ratio is horizontal / vertical spacing.
extern const char kCVImageBufferPixelAspectRatioHorizontalSpacingKey[];
extern const char kCVImageBufferPixelAspectRatioVerticalSpacingKey[];
///@}

/// Called once, when the last reference to the buffer goes, with the values
/// given at creation.
using CVPixelBufferReleasePlanarBytesCallback =
    std::function<void(void* releaseRefCon, const void* dataPtr, size_t dataSize, size_t numberOfPlanes,
                       const void* planeAddresses[])>;

/// Wraps three planes of the caller's memory. The pixel format must be 'y420'
/// or 'f420', the planes at least as large as 4:2:0 needs for width x height.
/// On failure the release callback is not called: the memory stays the
/// caller's.
CVReturn CVPixelBufferCreateWithPlanarBytes(CFAllocatorRef allocator, size_t width, size_t height,
                                            OSType pixelFormatType, void* dataPtr, size_t dataSize,
                                            size_t numberOfPlanes, void* planeBaseAddress[], size_t planeWidth[],
                                            size_t planeHeight[], size_t planeBytesPerRow[],
                                            CVPixelBufferReleasePlanarBytesCallback releaseCallback,
                                            void* releaseRefCon, const QXDictionary* pixelBufferAttributes,
                                            CVPixelBufferRef* pixelBufferOut);

/// A buffer with planes of its own (uninitialised), aligned for SIMD use.
CVReturn CVPixelBufferCreate(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
                             const QXDictionary* pixelBufferAttributes, CVPixelBufferRef* pixelBufferOut);

/// Takes a new reference to a YUV420P or YUVJ420P frame (the frame itself
/// stays the caller's) and drops it with the buffer. The format is 'f420' for
/// full-range frames, 'y420' otherwise.
CVReturn CVPixelBufferCreateWithAVFrame(CFAllocatorRef allocator, const AVFrame* frame,
                                        const QXDictionary* pixelBufferAttributes, CVPixelBufferRef* pixelBufferOut);

/// The frame behind a buffer made from one, else null. Lent, not owned.
const AVFrame* CVPixelBufferGetAVFrame(const CVPixelBufferRef& pixelBuffer);
/// A new frame (the caller frees it with av_frame_free) that shows the
/// buffer's planes without copying them and keeps them alive while any
/// reference to the frame's data exists. Its colour range follows the pixel
/// format, its primaries, transfer and matrix the colour attachments. Null on
/// failure.
AVFrame* CVPixelBufferCopyAVFrame(const CVPixelBufferRef& pixelBuffer);

/// FFmpeg's number for a colour attachment (primaries, transfer function or
/// matrix key), 2 (unspecified) for an absent or unknown value.
int CVColorAttachmentToAVColor(std::string_view key, const std::optional<QXValue>& value);

///@{
/// The planes stay where they are: locking is a formality here.
CVReturn CVPixelBufferLockBaseAddress(const CVPixelBufferRef& pixelBuffer, CVPixelBufferLockFlags lockFlags);
CVReturn CVPixelBufferUnlockBaseAddress(const CVPixelBufferRef& pixelBuffer, CVPixelBufferLockFlags unlockFlags);
///@}

///@{
/// The picture's size in pixels and its pixel format; 0 for a null buffer.
size_t CVPixelBufferGetWidth(const CVPixelBufferRef& pixelBuffer);
size_t CVPixelBufferGetHeight(const CVPixelBufferRef& pixelBuffer);
OSType CVPixelBufferGetPixelFormatType(const CVPixelBufferRef& pixelBuffer);
///@}
/// True for every buffer (all are planar); false for null.
bool CVPixelBufferIsPlanar(const CVPixelBufferRef& pixelBuffer);
/// 3 (Y, Cb, Cr); 0 for a null buffer.
size_t CVPixelBufferGetPlaneCount(const CVPixelBufferRef& pixelBuffer);
/// The first plane for planar buffers (the dataPtr given at creation, when one was).
void* CVPixelBufferGetBaseAddress(const CVPixelBufferRef& pixelBuffer);
/// The dataSize given to CVPixelBufferCreateWithPlanarBytes(); 0 for other buffers.
size_t CVPixelBufferGetDataSize(const CVPixelBufferRef& pixelBuffer);
///@{
/// A plane's first byte, row stride in bytes, and size in samples; null or 0 for an index past 2.
void* CVPixelBufferGetBaseAddressOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex);
size_t CVPixelBufferGetBytesPerRowOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex);
size_t CVPixelBufferGetWidthOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex);
size_t CVPixelBufferGetHeightOfPlane(const CVPixelBufferRef& pixelBuffer, size_t planeIndex);
///@}

/// Sets an attachment with its mode, replacing the key's earlier one.
void CVBufferSetAttachment(const CVBufferRef& buffer, std::string_view key, const QXValue& value,
                           CVAttachmentMode attachmentMode);
/// An attachment's value, and its mode through attachmentModeOut; nullopt for an absent key.
std::optional<QXValue> CVBufferGetAttachment(const CVBufferRef& buffer, std::string_view key,
                                             CVAttachmentMode* attachmentModeOut = nullptr);
/// Removes one attachment.
void CVBufferRemoveAttachment(const CVBufferRef& buffer, std::string_view key);
/// Removes every attachment.
void CVBufferRemoveAllAttachments(const CVBufferRef& buffer);
/// Sets every entry of the dictionary as an attachment of the mode.
void CVBufferSetAttachments(const CVBufferRef& buffer, const QXDictionary& theAttachments,
                            CVAttachmentMode attachmentMode);
/// The attachments of one mode; an empty dictionary when there are none.
QXDictionary CVBufferCopyAttachments(const CVBufferRef& buffer, CVAttachmentMode attachmentMode);
/// Copies the propagating attachments of one buffer to another.
void CVBufferPropagateAttachments(const CVBufferRef& sourceBuffer, const CVBufferRef& destinationBuffer);

/// Reference counting for code written in the platform's manner: a Ref holds
/// a reference already, so release simply lets go of it.
inline void CVPixelBufferRelease(CVPixelBufferRef& pixelBuffer) { pixelBuffer.reset(); }

/// A picture made by the CVPixelBufferCreate functions; the free functions
/// above are the usual way in, and they accept null buffers.
class CVPixelBuffer {
public:
    /// One plane of the picture: Y at full size, Cb and Cr at (at least) half width and height, rounded up.
    struct Plane {
        uint8_t* base = nullptr; ///< The first byte of the first row.
        size_t width = 0;        ///< Samples per row.
        size_t height = 0;       ///< Rows.
        size_t bytesPerRow = 0;  ///< The stride: bytes from one row to the next, at least width.
    };

    ~CVPixelBuffer();
    CVPixelBuffer(const CVPixelBuffer&) = delete;
    CVPixelBuffer& operator=(const CVPixelBuffer&) = delete;

    ///@{
    /// The picture's size in pixels.
    size_t width() const { return width_; }
    size_t height() const { return height_; }
    ///@}
    /// 'y420' or 'f420'.
    OSType pixelFormat() const { return pixelFormat_; }
    /// Plane 0 (Y), 1 (Cb) or 2 (Cr); the index is not checked.
    const Plane& plane(size_t index) const { return planes_[index]; }
    ///@{
    /// The dataPtr and dataSize given to CVPixelBufferCreateWithPlanarBytes(); null and 0 otherwise.
    void* dataPtr() const { return dataPtr_; }
    size_t dataSize() const { return dataSize_; }
    ///@}
    /// The frame behind the planes, held by the buffer; null for the caller's memory.
    const AVFrame* frame() const { return frame_; }

    ///@{
    /// Attachment access, under the buffer's lock; see the CVBuffer functions above.
    void setAttachment(std::string_view key, const QXValue& value, CVAttachmentMode mode);
    std::optional<QXValue> attachment(std::string_view key, CVAttachmentMode* modeOut) const;
    void removeAttachment(std::string_view key);
    void removeAllAttachments();
    QXDictionary copyAttachments(CVAttachmentMode mode) const;
    ///@}

private:
    CVPixelBuffer() = default;
    friend struct CVPixelBufferAccess;

    size_t width_ = 0;
    size_t height_ = 0;
    OSType pixelFormat_ = 0;
    void* dataPtr_ = nullptr;
    size_t dataSize_ = 0;
    std::array<Plane, 3> planes_ {};
    CVPixelBufferReleasePlanarBytesCallback release_;
    void* releaseRefCon_ = nullptr;
    AVFrame* frame_ = nullptr;

    struct Attachment {
        QXValue value;
        CVAttachmentMode mode;
    };
    mutable std::mutex attachmentsLock_;
    std::map<std::string, Attachment, std::less<>> attachments_;
};

} // namespace qx
