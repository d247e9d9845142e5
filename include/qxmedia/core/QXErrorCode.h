#pragma once
/// @file
/// Every error code the framework reports, by name. The numbers are those the
/// errors carry; which domain a code belongs to is said per group (an error's
/// domain and code together identify it: QXErrorCodeName() takes both).
/// QXMediaErrorDomain also carries FFmpeg's negative return values as they
/// are (AVERROR(...)); those are FFmpeg's and have no constant here.

#include <cstdint>

/// Error codes of the framework.
enum QXErrorCode : int64_t {
    // QXMediaErrorDomain: the framework's own failures.
    QXErrorFailedToOpenFile = -13001,            ///< A source or MP4 file could not be opened.
    QXErrorFailedToCreateFile = -13002,          ///< The output file could not be created.
    QXErrorCorruptedFileStructure = -13003,      ///< The MP4 is damaged; editing it in place is refused.
    QXErrorFailedToOptimize = -13004,            ///< Moving the movie box to the front failed.
    QXErrorLibraryReturnedAnotherItem = -13005,  ///< The media library answered with another item.
    QXErrorLibraryRejectedFile = -13006,         ///< The media library did not accept the file.
    QXErrorFailedToAddTrack = -13010,            ///< A track could not be added to the output.
    QXErrorInvalidPersistentTrackID = -13011,    ///< A track ID that names no track.
    QXErrorUnexpectedPersistentTrackID = -13012, ///< A track ID that was not expected here.
    QXErrorFailedToEditTrackProperty = -13013,   ///< A track's setting could not be written.
    QXErrorEncoderNotFound = -11834,             ///< No encoder for the requested format.
    QXErrorDiskFull = -11807,                    ///< Writing stopped because the disk is full.

    // AVFoundationErrorDomain.
    QXErrorNoImageAtTime = -11832, ///< No picture could be made at the requested time.

    // NSCocoaErrorDomain: files, property lists, archives, cancellation.
    QXErrorFileNoSuchFile = 4,                         ///< The file or folder does not exist.
    QXErrorFileReadUnknown = 256,                      ///< Reading failed for an unknown reason.
    QXErrorFileReadNoPermission = 257,                 ///< Reading is not permitted.
    QXErrorFileReadCorruptFile = 259,                  ///< The file is not in the expected format.
    QXErrorFileReadNoSuchFile = 260,                   ///< The file to read does not exist.
    QXErrorFileReadInapplicableStringEncoding = 261,   ///< The text is not in the expected encoding.
    QXErrorFileReadUnknownStringEncoding = 264,        ///< The text's encoding could not be found.
    QXErrorFileWriteUnknown = 512,                     ///< Writing failed for an unknown reason.
    QXErrorFileWriteNoPermission = 513,                ///< Writing is not permitted.
    QXErrorFileWriteInvalidFileName = 514,             ///< The name or its folder is not usable.
    QXErrorFileWriteFileExists = 516,                  ///< The destination exists (or is the source).
    QXErrorFileWriteInapplicableStringEncoding = 517,  ///< The text cannot be written in that encoding.
    QXErrorFileWriteOutOfSpace = 640,                  ///< No space left on the volume.
    QXErrorFileWriteVolumeReadOnly = 642,              ///< The volume is read-only.
    QXErrorFormatting = 2048,                          ///< A pattern or format is invalid.
    QXErrorUserCancelled = 3072,                       ///< The operation was cancelled.
    QXErrorFeatureUnsupported = 3328,                  ///< The file system does not offer this.
    QXErrorPropertyListReadCorrupt = 3840,             ///< A property list could not be parsed.
    QXErrorPropertyListWriteInvalid = 3851,            ///< A value cannot be written to a property list.
    QXErrorCoderReadCorrupt = 4864,                    ///< A keyed archive could not be decoded.

    // NSOSStatusErrorDomain: the media platform layers.
    // Block buffers.
    QXErrorCMBlockBufferStructureAllocationFailed = -12700, ///< Structure allocation failed.
    QXErrorCMBlockBufferBlockAllocationFailed = -12701, ///< Block allocation failed.
    QXErrorCMBlockBufferBadCustomBlockSource = -12702, ///< Bad custom block source.
    QXErrorCMBlockBufferBadOffsetParameter = -12703, ///< Bad offset parameter.
    QXErrorCMBlockBufferBadLengthParameter = -12704, ///< Bad length parameter.
    QXErrorCMBlockBufferBadPointerParameter = -12705, ///< Bad pointer parameter.
    QXErrorCMBlockBufferEmpty = -12706, ///< The buffer holds no data.
    QXErrorCMBlockBufferUnallocatedBlock = -12707, ///< Unallocated block.
    QXErrorCMBlockBufferInsufficientSpace = -12708, ///< Insufficient space.

    // Format descriptions.
    QXErrorCMFormatDescriptionInvalidParameter = -12710, ///< Invalid parameter.
    QXErrorCMFormatDescriptionAllocationFailed = -12711, ///< Allocation failed.
    QXErrorCMFormatDescriptionValueNotAvailable = -12718, ///< Value not available.

    // Sample buffers.
    QXErrorCMSampleBufferAllocationFailed = -12730, ///< Allocation failed.
    QXErrorCMSampleBufferRequiredParameterMissing = -12731, ///< Required parameter missing.
    QXErrorCMSampleBufferAlreadyHasDataBuffer = -12732, ///< Already has data buffer.
    QXErrorCMSampleBufferBufferNotReady = -12733, ///< Buffer not ready.
    QXErrorCMSampleBufferSampleIndexOutOfRange = -12734, ///< Sample index out of range.
    QXErrorCMSampleBufferBufferHasNoSampleSizes = -12735, ///< Buffer has no sample sizes.
    QXErrorCMSampleBufferBufferHasNoSampleTimingInfo = -12736, ///< Buffer has no sample timing info.
    QXErrorCMSampleBufferArrayTooSmall = -12737, ///< Array too small.
    QXErrorCMSampleBufferInvalidEntryCount = -12738, ///< Invalid entry count.
    QXErrorCMSampleBufferCannotSubdivide = -12739, ///< Cannot subdivide.
    QXErrorCMSampleBufferSampleTimingInfoInvalid = -12740, ///< Sample timing info invalid.
    QXErrorCMSampleBufferInvalidMediaTypeForOperation = -12741, ///< Invalid media type for operation.
    QXErrorCMSampleBufferInvalidSampleData = -12742, ///< Invalid sample data.
    QXErrorCMSampleBufferInvalidMediaFormat = -12743, ///< Invalid media format.

    // Buffer queues.
    QXErrorCMBufferQueueAllocationFailed = -12760, ///< Allocation failed.
    QXErrorCMBufferQueueRequiredParameterMissing = -12761, ///< Required parameter missing.
    QXErrorCMBufferQueueInvalidCMBufferCallbacksStruct = -12762, ///< Invalid cm buffer callbacks struct.
    QXErrorCMBufferQueueEnqueueAfterEndOfData = -12763, ///< Enqueue after end of data.
    QXErrorCMBufferQueueIsFull = -12764, ///< Is full.
    QXErrorCMBufferQueueBadTriggerDuration = -12765, ///< Bad trigger duration.
    QXErrorCMBufferQueueCannotModifyQueueFromTriggerCallback = -12766, ///< Cannot modify queue from trigger callback.
    QXErrorCMBufferQueueInvalidTriggerCondition = -12767, ///< Invalid trigger condition.
    QXErrorCMBufferQueueInvalidTriggerToken = -12768, ///< Invalid trigger token.
    QXErrorCMBufferQueueInvalidBuffer = -12769, ///< Invalid buffer.

    // The compression session.
    QXErrorVTPropertyNotSupported = -12900, ///< Property not supported.
    QXErrorVTPropertyReadOnly = -12901, ///< Property read only.
    QXErrorVTParameter = -12902, ///< Parameter.
    QXErrorVTInvalidSession = -12903, ///< Invalid session.
    QXErrorVTAllocationFailed = -12904, ///< Allocation failed.
    QXErrorVTCouldNotFindVideoEncoder = -12908, ///< Could not find video encoder.
    QXErrorVTVideoEncoderMalfunction = -12912, ///< Video encoder malfunction.

    // Pixel buffers.
    QXErrorCVFailed = -6660, ///< Unspecified failure.
    QXErrorCVInvalidArgument = -6661, ///< Invalid argument.
    QXErrorCVAllocationFailed = -6662, ///< Allocation failed.
    QXErrorCVUnsupported = -6663, ///< Unsupported.
    QXErrorCVInvalidPixelFormat = -6680, ///< Invalid pixel format.
    QXErrorCVInvalidSize = -6681, ///< Invalid size.

    // The audio converter.
    QXErrorAudioParam = -50, ///< A parameter is out of range.
    QXErrorAudioConverterFormatNotSupported = 0x666D743F, ///< Format not supported ('fmt?').
    QXErrorAudioConverterPropertyNotSupported = 0x70726F70, ///< Property not supported ('prop').
    QXErrorAudioConverterBadPropertySize = 0x2173697A, ///< Bad property size ('!siz').
    QXErrorAudioConverterUnspecified = 0x77686174, ///< Unspecified failure ('what').
};
