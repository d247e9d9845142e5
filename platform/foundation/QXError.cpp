#include "qxmedia/platform/foundation/QXError.h"

#include <cstring>
#include <iterator>

extern "C" {
#include <libavutil/error.h>
}

const char QXMediaErrorDomain[] = "QXMediaErrorDomain";
const char NSOSStatusErrorDomain[] = "NSOSStatusErrorDomain";
const char NSPOSIXErrorDomain[] = "NSPOSIXErrorDomain";
const char NSCocoaErrorDomain[] = "NSCocoaErrorDomain";
const char AVFoundationErrorDomain[] = "AVFoundationErrorDomain";

const char NSLocalizedDescriptionKey[] = "NSLocalizedDescription";
const char NSUnderlyingErrorKey[] = "NSUnderlyingError";
const char NSFilePathErrorKey[] = "NSFilePath";
const char NSURLErrorKey[] = "NSURL";
const char AVErrorPersistentTrackIDKey[] = "AVErrorPersistentTrackIDKey";
const char AVErrorMediaSubTypeKey[] = "AVErrorMediaSubTypeKey";

namespace {

struct NamedCode {
    QXErrorDomain domain;
    int64_t code;
    const char* name;
};

// The name is the enumerator's own spelling; a code means something only in
// its domain (4 is a missing file for Cocoa, EINTR for POSIX).
#define QX_CODE(domain, name) {domain, name, #name}
constexpr NamedCode kFrameworkCodes[] = {
    // QXMediaErrorDomain
    QX_CODE(QXMediaErrorDomain, QXErrorFailedToOpenFile),
    QX_CODE(QXMediaErrorDomain, QXErrorFailedToCreateFile),
    QX_CODE(QXMediaErrorDomain, QXErrorCorruptedFileStructure),
    QX_CODE(QXMediaErrorDomain, QXErrorFailedToOptimize),
    QX_CODE(QXMediaErrorDomain, QXErrorLibraryReturnedAnotherItem),
    QX_CODE(QXMediaErrorDomain, QXErrorLibraryRejectedFile),
    QX_CODE(QXMediaErrorDomain, QXErrorFailedToAddTrack),
    QX_CODE(QXMediaErrorDomain, QXErrorInvalidPersistentTrackID),
    QX_CODE(QXMediaErrorDomain, QXErrorUnexpectedPersistentTrackID),
    QX_CODE(QXMediaErrorDomain, QXErrorFailedToEditTrackProperty),
    QX_CODE(QXMediaErrorDomain, QXErrorEncoderNotFound),
    QX_CODE(QXMediaErrorDomain, QXErrorDiskFull),
    // AVFoundationErrorDomain
    QX_CODE(AVFoundationErrorDomain, QXErrorNoImageAtTime),
    // NSCocoaErrorDomain
    QX_CODE(NSCocoaErrorDomain, QXErrorFileNoSuchFile),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileReadUnknown),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileReadNoPermission),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileReadCorruptFile),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileReadNoSuchFile),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileReadInapplicableStringEncoding),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileReadUnknownStringEncoding),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileWriteUnknown),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileWriteNoPermission),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileWriteInvalidFileName),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileWriteFileExists),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileWriteInapplicableStringEncoding),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileWriteOutOfSpace),
    QX_CODE(NSCocoaErrorDomain, QXErrorFileWriteVolumeReadOnly),
    QX_CODE(NSCocoaErrorDomain, QXErrorFormatting),
    QX_CODE(NSCocoaErrorDomain, QXErrorUserCancelled),
    QX_CODE(NSCocoaErrorDomain, QXErrorFeatureUnsupported),
    QX_CODE(NSCocoaErrorDomain, QXErrorPropertyListReadCorrupt),
    QX_CODE(NSCocoaErrorDomain, QXErrorPropertyListWriteInvalid),
    QX_CODE(NSCocoaErrorDomain, QXErrorCoderReadCorrupt),
    // NSOSStatusErrorDomain
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferStructureAllocationFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferBlockAllocationFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferBadCustomBlockSource),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferBadOffsetParameter),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferBadLengthParameter),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferBadPointerParameter),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferEmpty),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferUnallocatedBlock),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBlockBufferInsufficientSpace),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMFormatDescriptionInvalidParameter),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMFormatDescriptionAllocationFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMFormatDescriptionValueNotAvailable),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferAllocationFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferRequiredParameterMissing),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferAlreadyHasDataBuffer),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferBufferNotReady),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferSampleIndexOutOfRange),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferBufferHasNoSampleSizes),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferBufferHasNoSampleTimingInfo),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferArrayTooSmall),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferInvalidEntryCount),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferCannotSubdivide),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferSampleTimingInfoInvalid),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferInvalidMediaTypeForOperation),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferInvalidSampleData),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMSampleBufferInvalidMediaFormat),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueAllocationFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueRequiredParameterMissing),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueInvalidCMBufferCallbacksStruct),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueEnqueueAfterEndOfData),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueIsFull),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueBadTriggerDuration),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueCannotModifyQueueFromTriggerCallback),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueInvalidTriggerCondition),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueInvalidTriggerToken),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCMBufferQueueInvalidBuffer),
    QX_CODE(NSOSStatusErrorDomain, QXErrorVTPropertyNotSupported),
    QX_CODE(NSOSStatusErrorDomain, QXErrorVTPropertyReadOnly),
    QX_CODE(NSOSStatusErrorDomain, QXErrorVTParameter),
    QX_CODE(NSOSStatusErrorDomain, QXErrorVTInvalidSession),
    QX_CODE(NSOSStatusErrorDomain, QXErrorVTAllocationFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorVTCouldNotFindVideoEncoder),
    QX_CODE(NSOSStatusErrorDomain, QXErrorVTVideoEncoderMalfunction),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCVFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCVInvalidArgument),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCVAllocationFailed),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCVUnsupported),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCVInvalidPixelFormat),
    QX_CODE(NSOSStatusErrorDomain, QXErrorCVInvalidSize),
    QX_CODE(NSOSStatusErrorDomain, QXErrorAudioParam),
    QX_CODE(NSOSStatusErrorDomain, QXErrorAudioConverterFormatNotSupported),
    QX_CODE(NSOSStatusErrorDomain, QXErrorAudioConverterPropertyNotSupported),
    QX_CODE(NSOSStatusErrorDomain, QXErrorAudioConverterBadPropertySize),
    QX_CODE(NSOSStatusErrorDomain, QXErrorAudioConverterUnspecified),};
#undef QX_CODE

// FFmpeg's own codes, which QXMediaErrorDomain carries as they are.
#define QX_AVERROR(name) {QXMediaErrorDomain, name, #name}
constexpr NamedCode kFFmpegCodes[] = {
    QX_AVERROR(AVERROR_BSF_NOT_FOUND),    QX_AVERROR(AVERROR_BUG),
    QX_AVERROR(AVERROR_BUFFER_TOO_SMALL), QX_AVERROR(AVERROR_DECODER_NOT_FOUND),
    QX_AVERROR(AVERROR_DEMUXER_NOT_FOUND), QX_AVERROR(AVERROR_ENCODER_NOT_FOUND),
    QX_AVERROR(AVERROR_EOF),              QX_AVERROR(AVERROR_EXIT),
    QX_AVERROR(AVERROR_EXTERNAL),         QX_AVERROR(AVERROR_FILTER_NOT_FOUND),
    QX_AVERROR(AVERROR_INVALIDDATA),      QX_AVERROR(AVERROR_MUXER_NOT_FOUND),
    QX_AVERROR(AVERROR_OPTION_NOT_FOUND), QX_AVERROR(AVERROR_PATCHWELCOME),
    QX_AVERROR(AVERROR_PROTOCOL_NOT_FOUND), QX_AVERROR(AVERROR_STREAM_NOT_FOUND),
    QX_AVERROR(AVERROR_UNKNOWN),          QX_AVERROR(AVERROR_EXPERIMENTAL),
};
#undef QX_AVERROR

const char* lookUp(const NamedCode* first, const NamedCode* last, QXErrorDomain domain, int64_t code)
{
    for (; first != last; ++first) {
        if (first->domain == domain && first->code == code) return first->name;
    }
    return nullptr;
}

// errno's symbolic name (ENOENT), or null for a number that is none.
const char* errnoName(int64_t value)
{
    if (value <= 0 || value > 4095) return nullptr;
    return strerrorname_np(int(value));
}

} // namespace

std::string QXErrorCodeName(QXErrorDomain domain, int64_t code)
{
    if (const char* name = lookUp(std::begin(kFrameworkCodes), std::end(kFrameworkCodes), domain, code)) return name;
    if (domain == NSPOSIXErrorDomain) {
        const char* name = errnoName(code);
        return name ? name : "";
    }
    if (domain == QXMediaErrorDomain) {
        if (const char* name = lookUp(std::begin(kFFmpegCodes), std::end(kFFmpegCodes), domain, code)) return name;
        // AVERROR(e) is -e for errno values.
        if (const char* name = errnoName(-code)) return std::string("AVERROR(") + name + ")";
    }
    return "";
}

std::string QXError::localizedDescription() const
{
    if (auto it = userInfo_.find(NSLocalizedDescriptionKey); it != userInfo_.end() && it->second.isString()) {
        return *it->second.string();
    }
    return "The operation couldn't be completed. (" + std::string(domain_) + " error " + std::to_string(code_) + ".)";
}

std::string QXError::description() const
{
    std::string out = "Error Domain=" + std::string(domain_) + " Code=" + std::to_string(code_) + " \"" +
                      localizedDescription() + "\"";
    if (!userInfo_.empty()) out += " UserInfo=" + QXValue(userInfo_).description();
    return out;
}

std::string QXError::summary() const
{
    const std::string name = codeName();
    const std::string where = std::to_string(code_) + ", " + domain_;
    return (name.empty() ? "(" + where + ")" : name + " (" + where + ")") + ": " + localizedDescription();
}
