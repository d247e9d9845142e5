#pragma once
/// @file
/// CMSampleBuffer: the carrier of one sample through the pipeline, with its
/// timing (duration, presentation and decode time; any may be invalid), its
/// bytes (a CMBlockBuffer) or its picture (a CVPixelBuffer), an optional
/// format description, and one attachment dictionary per sample.
///
/// A copy with new timing shares the data, the picture, the format and the
/// attachment dictionaries of its source: setting an attachment on either is
/// seen by both. Its output presentation time starts unset.
///
/// Attachment dictionaries are guarded: one thread may write while another
/// reads. Timing and the output presentation time are set before a sample is
/// handed to another thread and only read afterwards.

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/platform/coremedia/CMBase.h"
#include "qxmedia/platform/coremedia/CMBlockBuffer.h"
#include "qxmedia/platform/coremedia/CMFormatDescription.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXValue.h"

namespace qx {

class CMSampleBuffer;
/// Samples are shared: every stage that holds one holds a reference.
using CMSampleBufferRef = std::shared_ptr<CMSampleBuffer>;

/// The status codes of the sample buffer calls (0 is success).
enum : OSStatus {
    kCMSampleBufferError_AllocationFailed = -12730,
    kCMSampleBufferError_RequiredParameterMissing = -12731,
    kCMSampleBufferError_AlreadyHasDataBuffer = -12732,
    kCMSampleBufferError_BufferNotReady = -12733,
    kCMSampleBufferError_SampleIndexOutOfRange = -12734,
    kCMSampleBufferError_BufferHasNoSampleSizes = -12735,
    kCMSampleBufferError_BufferHasNoSampleTimingInfo = -12736,
    kCMSampleBufferError_ArrayTooSmall = -12737,
    kCMSampleBufferError_InvalidEntryCount = -12738,
    kCMSampleBufferError_CannotSubdivide = -12739,
    kCMSampleBufferError_SampleTimingInfoInvalid = -12740,
    kCMSampleBufferError_InvalidMediaTypeForOperation = -12741,
    kCMSampleBufferError_InvalidSampleData = -12742,
    kCMSampleBufferError_InvalidMediaFormat = -12743,
};

/// The times of a sample; any may be invalid (unknown).
struct CMSampleTimingInfo {
    CMTime duration = kCMTimeInvalid;              ///< How long the sample lasts.
    CMTime presentationTimeStamp = kCMTimeInvalid; ///< When it is shown or heard.
    CMTime decodeTimeStamp = kCMTimeInvalid;       ///< When it is decoded.
};
/// All three times invalid.
inline constexpr CMSampleTimingInfo kCMTimingInfoInvalid {kCMTimeInvalid, kCMTimeInvalid, kCMTimeInvalid};

///@{
/// Per-sample attachment keys (boolean values).
extern const char kCMSampleAttachmentKey_NotSync[];
extern const char kCMSampleAttachmentKey_PartialSync[];
extern const char kCMSampleAttachmentKey_DependsOnOthers[];
extern const char kCMSampleAttachmentKey_IsDependedOnByOthers[];
extern const char kCMSampleAttachmentKey_HasRedundantCoding[];
extern const char kCMSampleAttachmentKey_EarlierDisplayTimesAllowed[];
extern const char kCMSampleAttachmentKey_DisplayImmediately[];
extern const char kCMSampleAttachmentKey_DoNotDisplay[];
///@}
/// The framework's own key: the demuxer stream of a held sample (32-bit integer).
extern const char kCMSampleAttachmentKey_StreamIndex[];
/// The framework's own key: the muxer input a held subtitle goes to (an object).
extern const char kCMSampleAttachmentKey_Muxer[];
/// The framework's own key: the MP4 track of a queued sample (32-bit signed integer).
extern const char kCMSampleAttachmentKey_TrackId[];

/// The attachments of one sample: plain values (QXValue) and object
/// references (held strongly, read back by their exact type). Every operation
/// takes the dictionary's lock. A key holds one thing: setting a value
/// replaces an object of that name and the other way round.
class CMSampleAttachmentDictionary {
public:
    /// The plain value of a key; nullopt when absent or holding an object.
    std::optional<QXValue> value(std::string_view key) const;
    /// True when the key holds a value that reads as true (a true boolean or
    /// a non-zero number).
    bool isTrue(std::string_view key) const;
    /// Whether the key holds a value or an object.
    bool contains(std::string_view key) const;
    /// The number of keys, values and objects together.
    size_t count() const;
    /// Sets a plain value (null included: it is kept as a value).
    void setValue(std::string_view key, QXValue value);

    /// Holds an object under a key; read it back with object<T>() of the same T.
    template <class T>
    void setObject(std::string_view key, std::shared_ptr<T> object)
    {
        setAny(key, std::any(std::move(object)));
    }
    /// Null when absent or held as another type.
    template <class T>
    std::shared_ptr<T> object(std::string_view key) const
    {
        std::any held = getAny(key);
        auto* object = std::any_cast<std::shared_ptr<T>>(&held);
        return object ? *object : nullptr;
    }

    /// Removes the key's value or object; objects are released outside the lock.
    void removeValue(std::string_view key);
    /// Removes every value and object.
    void removeAllValues();
    /// The plain values; objects are left out.
    QXDictionary copyValues() const;
    /// Copies every value and object of `other` into this dictionary.
    void addEntriesFrom(const CMSampleAttachmentDictionary& other);

private:
    void setAny(std::string_view key, std::any object);
    std::any getAny(std::string_view key) const;

    mutable std::mutex lock_;
    QXDictionary values_;
    std::map<std::string, std::any, std::less<>> objects_;
};

/// A sample's attachments, shared with the copies of the sample.
using CMSampleAttachmentDictionaryRef = std::shared_ptr<CMSampleAttachmentDictionary>;
/// One dictionary per sample; the array itself never changes once made.
using CMSampleAttachmentsArray = std::vector<CMSampleAttachmentDictionaryRef>;
/// The attachments array as a sample holds it.
using CMSampleAttachmentsArrayRef = std::shared_ptr<const CMSampleAttachmentsArray>;

/// Called to make not-ready data ready; samples here are made ready, so it is
/// kept for the call shape and never called.
using CMSampleBufferMakeDataReadyCallback = std::function<OSStatus(const CMSampleBufferRef&, void* refcon)>;

/// numSampleTimingEntries is 0 or 1 (one entry covers every sample);
/// numSampleSizeEntries is 0, 1 (all samples that size) or numSamples.
OSStatus CMSampleBufferCreate(CFAllocatorRef allocator, const CMBlockBufferRef& dataBuffer, bool dataReady,
                              CMSampleBufferMakeDataReadyCallback makeDataReadyCallback, void* makeDataReadyRefcon,
                              const CMFormatDescriptionRef& formatDescription, CMItemCount numSamples,
                              CMItemCount numSampleTimingEntries, const CMSampleTimingInfo* sampleTimingArray,
                              CMItemCount numSampleSizeEntries, const size_t* sampleSizeArray,
                              CMSampleBufferRef* sampleBufferOut);

/// One picture; the description must match the buffer (video, its pixel
/// format and size).
OSStatus CMSampleBufferCreateForImageBuffer(CFAllocatorRef allocator, const CVImageBufferRef& imageBuffer,
                                            bool dataReady, CMSampleBufferMakeDataReadyCallback makeDataReadyCallback,
                                            void* makeDataReadyRefcon,
                                            const CMVideoFormatDescriptionRef& formatDescription,
                                            const CMSampleTimingInfo* sampleTiming,
                                            CMSampleBufferRef* sampleBufferOut);

/// A sample that shares everything with the original but its timing (0 entries: no timing).
OSStatus CMSampleBufferCreateCopyWithNewTiming(CFAllocatorRef allocator, const CMSampleBufferRef& originalSBuf,
                                               CMItemCount numSampleTimingEntries,
                                               const CMSampleTimingInfo* sampleTimingArray,
                                               CMSampleBufferRef* sampleBufferOut);

///@{
/// A time of the sample's timing; invalid for a null sample or one without that time.
CMTime CMSampleBufferGetPresentationTimeStamp(const CMSampleBufferRef& sbuf);
CMTime CMSampleBufferGetDecodeTimeStamp(const CMSampleBufferRef& sbuf);
CMTime CMSampleBufferGetDuration(const CMSampleBufferRef& sbuf);
///@}
/// The output presentation time once set, else the presentation time. The
/// output decode time moves with it by the same distance.
CMTime CMSampleBufferGetOutputPresentationTimeStamp(const CMSampleBufferRef& sbuf);
/// Sets the output presentation time (see above); set it before the sample goes to another thread.
OSStatus CMSampleBufferSetOutputPresentationTimeStamp(const CMSampleBufferRef& sbuf,
                                                      CMTime outputPresentationTimeStamp);
/// The decode time moved by as much as the output presentation time moved the presentation.
CMTime CMSampleBufferGetOutputDecodeTimeStamp(const CMSampleBufferRef& sbuf);
/// The duration: output times do not stretch.
CMTime CMSampleBufferGetOutputDuration(const CMSampleBufferRef& sbuf);
/// The timing that covers every sample of the buffer; an error for a sample
/// index out of range or a buffer made without timing.
OSStatus CMSampleBufferGetSampleTimingInfo(const CMSampleBufferRef& sbuf, CMItemCount sampleIndex,
                                           CMSampleTimingInfo* timingInfoOut);

/// The sample's bytes; null for a picture sample.
CMBlockBufferRef CMSampleBufferGetDataBuffer(const CMSampleBufferRef& sbuf);
/// The sample's picture; null for a sample of bytes.
CVImageBufferRef CMSampleBufferGetImageBuffer(const CMSampleBufferRef& sbuf);
/// The format; null when the sample was made without one.
CMFormatDescriptionRef CMSampleBufferGetFormatDescription(const CMSampleBufferRef& sbuf);
/// The number of samples the buffer holds; 0 for a null sample.
CMItemCount CMSampleBufferGetNumSamples(const CMSampleBufferRef& sbuf);
/// The sum of the sample sizes; 0 when the buffer has no size entries.
size_t CMSampleBufferGetTotalSampleSize(const CMSampleBufferRef& sbuf);
/// The size of one sample in bytes; 0 for an index out of range or without size entries.
size_t CMSampleBufferGetSampleSize(const CMSampleBufferRef& sbuf, CMItemCount sampleIndex);
/// Whether the data are ready; false for a null sample.
bool CMSampleBufferDataIsReady(const CMSampleBufferRef& sbuf);
/// 0 when the data are ready, else kCMSampleBufferError_BufferNotReady: nothing is made ready here.
OSStatus CMSampleBufferMakeDataReady(const CMSampleBufferRef& sbuf);

/// The per-sample attachment dictionaries, made on the first call with
/// createIfNecessary (one per sample, at least one); null before that.
CMSampleAttachmentsArrayRef CMSampleBufferGetSampleAttachmentsArray(const CMSampleBufferRef& sbuf,
                                                                    bool createIfNecessary);
/// The first sample's dictionary, by the same rule: the one every stage uses.
CMSampleAttachmentDictionaryRef CMSampleBufferGetFirstSampleAttachments(const CMSampleBufferRef& sbuf,
                                                                        bool createIfNecessary);

/// One sample (or a run of samples of one size and timing) as the pipeline carries it; made by the
/// CMSampleBufferCreate functions and read through the CMSampleBufferGet functions.
class CMSampleBuffer {
public:
    struct Shared;

    /// Used by the CMSampleBufferCreate functions: Shared is opaque outside the library.
    CMSampleBuffer(std::shared_ptr<Shared> shared, const CMSampleTimingInfo& timing, bool hasTiming);
    ~CMSampleBuffer();
    CMSampleBuffer(const CMSampleBuffer&) = delete;
    CMSampleBuffer& operator=(const CMSampleBuffer&) = delete;

    /// The sample's times (all invalid when made without timing).
    const CMSampleTimingInfo& timing() const { return timing_; }
    /// Whether the sample was made with a timing entry.
    bool hasTiming() const { return hasTiming_; }
    ///@{
    /// The output presentation time as set; invalid until set (see CMSampleBufferGetOutputPresentationTimeStamp()).
    CMTime outputPresentationTimeStamp() const { return outputPresentationTimeStamp_; }
    void setOutputPresentationTimeStamp(CMTime time) { outputPresentationTimeStamp_ = time; }
    ///@}
    ///@{
    /// What the sample shares with its copies (data, picture, format, attachments); opaque outside the library.
    const Shared& shared() const { return *shared_; }
    const std::shared_ptr<Shared>& sharedRef() const { return shared_; }
    ///@}

    /// A readable form for log lines: times, size, picture and sync flag.
    std::string description() const;

private:
    std::shared_ptr<Shared> shared_;
    CMSampleTimingInfo timing_;
    bool hasTiming_;
    CMTime outputPresentationTimeStamp_ = kCMTimeInvalid;
};

} // namespace qx
