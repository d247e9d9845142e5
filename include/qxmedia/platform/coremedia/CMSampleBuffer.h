#pragma once
// CMSampleBuffer: the carrier of one sample through the pipeline, with its
// timing (duration, presentation and decode time; any may be invalid), its
// bytes (a CMBlockBuffer) or its picture (a CVPixelBuffer), an optional
// format description, and one attachment dictionary per sample.
//
// A copy with new timing shares the data, the picture, the format and the
// attachment dictionaries of its source: setting an attachment on either is
// seen by both. Its output presentation time starts unset.
//
// Attachment dictionaries are guarded: one thread may write while another
// reads. Timing and the output presentation time are set before a sample is
// handed to another thread and only read afterwards.

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
using CMSampleBufferRef = std::shared_ptr<CMSampleBuffer>;

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

struct CMSampleTimingInfo {
    CMTime duration = kCMTimeInvalid;
    CMTime presentationTimeStamp = kCMTimeInvalid;
    CMTime decodeTimeStamp = kCMTimeInvalid;
};
inline constexpr CMSampleTimingInfo kCMTimingInfoInvalid {kCMTimeInvalid, kCMTimeInvalid, kCMTimeInvalid};

// Per-sample attachment keys (boolean values).
extern const char kCMSampleAttachmentKey_NotSync[];
extern const char kCMSampleAttachmentKey_PartialSync[];
extern const char kCMSampleAttachmentKey_DependsOnOthers[];
extern const char kCMSampleAttachmentKey_IsDependedOnByOthers[];
extern const char kCMSampleAttachmentKey_HasRedundantCoding[];
extern const char kCMSampleAttachmentKey_EarlierDisplayTimesAllowed[];
extern const char kCMSampleAttachmentKey_DisplayImmediately[];
extern const char kCMSampleAttachmentKey_DoNotDisplay[];
// The framework's own keys: the demuxer stream of a held sample (32-bit
// integer), the muxer input a held subtitle goes to (an object), the MP4
// track of a queued sample (32-bit signed integer).
extern const char kCMSampleAttachmentKey_StreamIndex[];
extern const char kCMSampleAttachmentKey_Muxer[];
extern const char kCMSampleAttachmentKey_TrackId[];

// The attachments of one sample: plain values (QXValue) and object
// references (held strongly, read back by their exact type). Every operation
// takes the dictionary's lock.
class CMSampleAttachmentDictionary {
public:
    std::optional<QXValue> value(std::string_view key) const;
    // True when the key holds a value that reads as true (a true boolean or
    // a non-zero number).
    bool isTrue(std::string_view key) const;
    bool contains(std::string_view key) const;
    size_t count() const;
    void setValue(std::string_view key, QXValue value);

    template <class T>
    void setObject(std::string_view key, std::shared_ptr<T> object)
    {
        setAny(key, std::any(std::move(object)));
    }
    // Null when absent or held as another type.
    template <class T>
    std::shared_ptr<T> object(std::string_view key) const
    {
        std::any held = getAny(key);
        auto* object = std::any_cast<std::shared_ptr<T>>(&held);
        return object ? *object : nullptr;
    }

    void removeValue(std::string_view key);
    void removeAllValues();
    // The plain values; objects are left out.
    QXDictionary copyValues() const;
    // Copies every value and object of `other` into this dictionary.
    void addEntriesFrom(const CMSampleAttachmentDictionary& other);

private:
    void setAny(std::string_view key, std::any object);
    std::any getAny(std::string_view key) const;

    mutable std::mutex lock_;
    QXDictionary values_;
    std::map<std::string, std::any, std::less<>> objects_;
};

using CMSampleAttachmentDictionaryRef = std::shared_ptr<CMSampleAttachmentDictionary>;
// One dictionary per sample; the array itself never changes once made.
using CMSampleAttachmentsArray = std::vector<CMSampleAttachmentDictionaryRef>;
using CMSampleAttachmentsArrayRef = std::shared_ptr<const CMSampleAttachmentsArray>;

// Called to make not-ready data ready; samples here are made ready, so it is
// kept for the call shape and never called.
using CMSampleBufferMakeDataReadyCallback = std::function<OSStatus(const CMSampleBufferRef&, void* refcon)>;

// numSampleTimingEntries is 0 or 1 (one entry covers every sample);
// numSampleSizeEntries is 0, 1 (all samples that size) or numSamples.
OSStatus CMSampleBufferCreate(CFAllocatorRef allocator, const CMBlockBufferRef& dataBuffer, bool dataReady,
                              CMSampleBufferMakeDataReadyCallback makeDataReadyCallback, void* makeDataReadyRefcon,
                              const CMFormatDescriptionRef& formatDescription, CMItemCount numSamples,
                              CMItemCount numSampleTimingEntries, const CMSampleTimingInfo* sampleTimingArray,
                              CMItemCount numSampleSizeEntries, const size_t* sampleSizeArray,
                              CMSampleBufferRef* sampleBufferOut);

// One picture; the description must match the buffer (video, its pixel
// format and size).
OSStatus CMSampleBufferCreateForImageBuffer(CFAllocatorRef allocator, const CVImageBufferRef& imageBuffer,
                                            bool dataReady, CMSampleBufferMakeDataReadyCallback makeDataReadyCallback,
                                            void* makeDataReadyRefcon,
                                            const CMVideoFormatDescriptionRef& formatDescription,
                                            const CMSampleTimingInfo* sampleTiming,
                                            CMSampleBufferRef* sampleBufferOut);

// A sample that shares everything with the original but its timing.
OSStatus CMSampleBufferCreateCopyWithNewTiming(CFAllocatorRef allocator, const CMSampleBufferRef& originalSBuf,
                                               CMItemCount numSampleTimingEntries,
                                               const CMSampleTimingInfo* sampleTimingArray,
                                               CMSampleBufferRef* sampleBufferOut);

CMTime CMSampleBufferGetPresentationTimeStamp(const CMSampleBufferRef& sbuf);
CMTime CMSampleBufferGetDecodeTimeStamp(const CMSampleBufferRef& sbuf);
CMTime CMSampleBufferGetDuration(const CMSampleBufferRef& sbuf);
// The output presentation time once set, else the presentation time. The
// output decode time moves with it by the same distance.
CMTime CMSampleBufferGetOutputPresentationTimeStamp(const CMSampleBufferRef& sbuf);
OSStatus CMSampleBufferSetOutputPresentationTimeStamp(const CMSampleBufferRef& sbuf,
                                                      CMTime outputPresentationTimeStamp);
CMTime CMSampleBufferGetOutputDecodeTimeStamp(const CMSampleBufferRef& sbuf);
CMTime CMSampleBufferGetOutputDuration(const CMSampleBufferRef& sbuf);
OSStatus CMSampleBufferGetSampleTimingInfo(const CMSampleBufferRef& sbuf, CMItemCount sampleIndex,
                                           CMSampleTimingInfo* timingInfoOut);

CMBlockBufferRef CMSampleBufferGetDataBuffer(const CMSampleBufferRef& sbuf);
CVImageBufferRef CMSampleBufferGetImageBuffer(const CMSampleBufferRef& sbuf);
CMFormatDescriptionRef CMSampleBufferGetFormatDescription(const CMSampleBufferRef& sbuf);
CMItemCount CMSampleBufferGetNumSamples(const CMSampleBufferRef& sbuf);
// The sum of the sample sizes; 0 when the buffer has no size entries.
size_t CMSampleBufferGetTotalSampleSize(const CMSampleBufferRef& sbuf);
size_t CMSampleBufferGetSampleSize(const CMSampleBufferRef& sbuf, CMItemCount sampleIndex);
bool CMSampleBufferDataIsReady(const CMSampleBufferRef& sbuf);
OSStatus CMSampleBufferMakeDataReady(const CMSampleBufferRef& sbuf);

// The per-sample attachment dictionaries, made on the first call with
// createIfNecessary (one per sample, at least one); null before that.
CMSampleAttachmentsArrayRef CMSampleBufferGetSampleAttachmentsArray(const CMSampleBufferRef& sbuf,
                                                                    bool createIfNecessary);
// The first sample's dictionary, by the same rule: the one every stage uses.
CMSampleAttachmentDictionaryRef CMSampleBufferGetFirstSampleAttachments(const CMSampleBufferRef& sbuf,
                                                                        bool createIfNecessary);

class CMSampleBuffer {
public:
    struct Shared;

    CMSampleBuffer(std::shared_ptr<Shared> shared, const CMSampleTimingInfo& timing, bool hasTiming);
    ~CMSampleBuffer();
    CMSampleBuffer(const CMSampleBuffer&) = delete;
    CMSampleBuffer& operator=(const CMSampleBuffer&) = delete;

    const CMSampleTimingInfo& timing() const { return timing_; }
    bool hasTiming() const { return hasTiming_; }
    CMTime outputPresentationTimeStamp() const { return outputPresentationTimeStamp_; }
    void setOutputPresentationTimeStamp(CMTime time) { outputPresentationTimeStamp_ = time; }
    const Shared& shared() const { return *shared_; }
    const std::shared_ptr<Shared>& sharedRef() const { return shared_; }

    // A readable form for log lines: times, size, picture and sync flag.
    std::string description() const;

private:
    std::shared_ptr<Shared> shared_;
    CMSampleTimingInfo timing_;
    bool hasTiming_;
    CMTime outputPresentationTimeStamp_ = kCMTimeInvalid;
};

} // namespace qx
