#include "qxmedia/platform/coremedia/CMSampleBuffer.h"

#include <algorithm>
#include <utility>

namespace qx {

const char kCMSampleAttachmentKey_NotSync[] = "NotSync";
const char kCMSampleAttachmentKey_PartialSync[] = "PartialSync";
const char kCMSampleAttachmentKey_DependsOnOthers[] = "DependsOnOthers";
const char kCMSampleAttachmentKey_IsDependedOnByOthers[] = "IsDependedOnByOthers";
const char kCMSampleAttachmentKey_HasRedundantCoding[] = "HasRedundantCoding";
const char kCMSampleAttachmentKey_EarlierDisplayTimesAllowed[] = "EarlierDisplayTimesAllowed";
const char kCMSampleAttachmentKey_DisplayImmediately[] = "DisplayImmediately";
const char kCMSampleAttachmentKey_DoNotDisplay[] = "DoNotDisplay";
const char kCMSampleAttachmentKey_StreamIndex[] = "kCMSampleAttachmentKey_StreamIndex";
const char kCMSampleAttachmentKey_Muxer[] = "kCMSampleAttachmentKey_Muxer";
const char kCMSampleAttachmentKey_TrackId[] = "kCMSampleAttachmentKey_TrackId";

// What a sample shares with its timing copies.
struct CMSampleBuffer::Shared {
    CMBlockBufferRef dataBuffer;
    CVImageBufferRef imageBuffer;
    CMFormatDescriptionRef formatDescription;
    CMItemCount numSamples = 0;
    bool dataReady = true;
    // Sizes: none, one for all samples, or one per sample.
    CMItemCount sizeEntries = 0;
    size_t commonSize = 0;
    std::vector<size_t> sizes;

    mutable std::mutex attachmentsLock;
    CMSampleAttachmentsArrayRef attachments;
};

// CMSampleAttachmentDictionary

std::optional<QXValue> CMSampleAttachmentDictionary::value(std::string_view key) const
{
    std::lock_guard lock(lock_);
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

bool CMSampleAttachmentDictionary::isTrue(std::string_view key) const
{
    std::lock_guard lock(lock_);
    auto it = values_.find(key);
    return it != values_.end() && it->second.truth().value_or(false);
}

bool CMSampleAttachmentDictionary::contains(std::string_view key) const
{
    std::lock_guard lock(lock_);
    return values_.find(key) != values_.end() || objects_.find(key) != objects_.end();
}

size_t CMSampleAttachmentDictionary::count() const
{
    std::lock_guard lock(lock_);
    return values_.size() + objects_.size();
}

void CMSampleAttachmentDictionary::setValue(std::string_view key, QXValue value)
{
    std::lock_guard lock(lock_);
    // A key holds one thing: a value replaces an object of that name.
    if (auto it = objects_.find(key); it != objects_.end()) objects_.erase(it);
    if (auto it = values_.find(key); it != values_.end()) {
        it->second = std::move(value);
    } else {
        values_.emplace(std::string(key), std::move(value));
    }
}

void CMSampleAttachmentDictionary::setAny(std::string_view key, std::any object)
{
    std::any old; // released outside the lock: it may own anything
    {
        std::lock_guard lock(lock_);
        if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
        if (auto it = objects_.find(key); it != objects_.end()) {
            old = std::exchange(it->second, std::move(object));
        } else {
            objects_.emplace(std::string(key), std::move(object));
        }
    }
}

std::any CMSampleAttachmentDictionary::getAny(std::string_view key) const
{
    std::lock_guard lock(lock_);
    auto it = objects_.find(key);
    return it == objects_.end() ? std::any() : it->second;
}

void CMSampleAttachmentDictionary::removeValue(std::string_view key)
{
    std::any old;
    std::lock_guard lock(lock_);
    if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
    if (auto it = objects_.find(key); it != objects_.end()) {
        old = std::move(it->second);
        objects_.erase(it);
    }
}

void CMSampleAttachmentDictionary::removeAllValues()
{
    QXDictionary values;
    std::map<std::string, std::any, std::less<>> objects;
    std::lock_guard lock(lock_);
    values.swap(values_);
    objects.swap(objects_);
}

QXDictionary CMSampleAttachmentDictionary::copyValues() const
{
    std::lock_guard lock(lock_);
    return values_;
}

void CMSampleAttachmentDictionary::addEntriesFrom(const CMSampleAttachmentDictionary& other)
{
    if (&other == this) return;
    QXDictionary values;
    std::map<std::string, std::any, std::less<>> objects;
    {
        std::lock_guard lock(other.lock_);
        values = other.values_;
        objects = other.objects_;
    }
    for (auto& [key, value] : values) setValue(key, std::move(value));
    for (auto& [key, object] : objects) setAny(key, std::move(object));
}

// CMSampleBuffer

CMSampleBuffer::CMSampleBuffer(std::shared_ptr<Shared> shared, const CMSampleTimingInfo& timing, bool hasTiming)
    : shared_(std::move(shared)), timing_(timing), hasTiming_(hasTiming)
{
}

CMSampleBuffer::~CMSampleBuffer() = default;

std::string CMSampleBuffer::description() const
{
    std::string text = "CMSampleBuffer {pts = " + CMTimeCopyDescription(timing_.presentationTimeStamp) +
                       ", dts = " + CMTimeCopyDescription(timing_.decodeTimeStamp) +
                       ", duration = " + CMTimeCopyDescription(timing_.duration);
    if (CMTIME_IS_VALID(outputPresentationTimeStamp_)) {
        text += ", output pts = " + CMTimeCopyDescription(outputPresentationTimeStamp_);
    }
    text += ", samples = " + std::to_string(shared_->numSamples);
    if (shared_->dataBuffer) text += ", data length = " + std::to_string(CMBlockBufferGetDataLength(shared_->dataBuffer));
    if (shared_->imageBuffer) {
        text += ", image = " + std::to_string(CVPixelBufferGetWidth(shared_->imageBuffer)) + "x" +
                std::to_string(CVPixelBufferGetHeight(shared_->imageBuffer));
    }
    CMSampleAttachmentsArrayRef attachments;
    {
        std::lock_guard lock(shared_->attachmentsLock);
        attachments = shared_->attachments;
    }
    if (attachments && !attachments->empty()) {
        text += ", attachments = " + QXValue((*attachments)[0]->copyValues()).description();
    }
    return text + "}";
}

namespace {

OSStatus checkTiming(CMItemCount numSampleTimingEntries, const CMSampleTimingInfo* sampleTimingArray)
{
    if (numSampleTimingEntries < 0 || numSampleTimingEntries > 1) return kCMSampleBufferError_InvalidEntryCount;
    if (numSampleTimingEntries == 1 && !sampleTimingArray) return kCMSampleBufferError_RequiredParameterMissing;
    return 0;
}

CMSampleBufferRef makeSample(std::shared_ptr<CMSampleBuffer::Shared> shared, CMItemCount numSampleTimingEntries,
                             const CMSampleTimingInfo* sampleTimingArray)
{
    const bool hasTiming = numSampleTimingEntries == 1;
    return std::make_shared<CMSampleBuffer>(std::move(shared), hasTiming ? sampleTimingArray[0] : kCMTimingInfoInvalid,
                                            hasTiming);
}

} // namespace

OSStatus CMSampleBufferCreate(CFAllocatorRef, const CMBlockBufferRef& dataBuffer, bool dataReady,
                              CMSampleBufferMakeDataReadyCallback, void*, const CMFormatDescriptionRef& formatDescription,
                              CMItemCount numSamples, CMItemCount numSampleTimingEntries,
                              const CMSampleTimingInfo* sampleTimingArray, CMItemCount numSampleSizeEntries,
                              const size_t* sampleSizeArray, CMSampleBufferRef* sampleBufferOut)
{
    if (!sampleBufferOut) return kCMSampleBufferError_RequiredParameterMissing;
    sampleBufferOut->reset();
    if (numSamples < 0) return kCMSampleBufferError_InvalidEntryCount;
    if (const OSStatus status = checkTiming(numSampleTimingEntries, sampleTimingArray)) return status;
    if (numSampleSizeEntries < 0 || (numSampleSizeEntries > 1 && numSampleSizeEntries != numSamples)) {
        return kCMSampleBufferError_InvalidEntryCount;
    }
    if (numSampleSizeEntries > 0 && !sampleSizeArray) return kCMSampleBufferError_RequiredParameterMissing;
    // Samples without data or format are meaningless.
    if (numSamples > 0 && !dataBuffer && !formatDescription && dataReady) {
        return kCMSampleBufferError_RequiredParameterMissing;
    }

    auto shared = std::make_shared<CMSampleBuffer::Shared>();
    shared->dataBuffer = dataBuffer;
    shared->formatDescription = formatDescription;
    shared->numSamples = numSamples;
    shared->dataReady = dataReady;
    shared->sizeEntries = numSampleSizeEntries;
    if (numSampleSizeEntries == 1) shared->commonSize = sampleSizeArray[0];
    if (numSampleSizeEntries > 1) shared->sizes.assign(sampleSizeArray, sampleSizeArray + numSampleSizeEntries);
    *sampleBufferOut = makeSample(std::move(shared), numSampleTimingEntries, sampleTimingArray);
    return 0;
}

OSStatus CMSampleBufferCreateForImageBuffer(CFAllocatorRef, const CVImageBufferRef& imageBuffer, bool dataReady,
                                            CMSampleBufferMakeDataReadyCallback, void*,
                                            const CMVideoFormatDescriptionRef& formatDescription,
                                            const CMSampleTimingInfo* sampleTiming, CMSampleBufferRef* sampleBufferOut)
{
    if (!sampleBufferOut) return kCMSampleBufferError_RequiredParameterMissing;
    sampleBufferOut->reset();
    if (!imageBuffer || !formatDescription || !sampleTiming) return kCMSampleBufferError_RequiredParameterMissing;
    if (!CMVideoFormatDescriptionMatchesImageBuffer(formatDescription, imageBuffer)) {
        return kCMSampleBufferError_InvalidMediaFormat;
    }
    auto shared = std::make_shared<CMSampleBuffer::Shared>();
    shared->imageBuffer = imageBuffer;
    shared->formatDescription = formatDescription;
    shared->numSamples = 1;
    shared->dataReady = dataReady;
    *sampleBufferOut = makeSample(std::move(shared), 1, sampleTiming);
    return 0;
}

OSStatus CMSampleBufferCreateCopyWithNewTiming(CFAllocatorRef, const CMSampleBufferRef& originalSBuf,
                                               CMItemCount numSampleTimingEntries,
                                               const CMSampleTimingInfo* sampleTimingArray,
                                               CMSampleBufferRef* sampleBufferOut)
{
    if (!sampleBufferOut) return kCMSampleBufferError_RequiredParameterMissing;
    sampleBufferOut->reset();
    if (!originalSBuf) return kCMSampleBufferError_RequiredParameterMissing;
    if (const OSStatus status = checkTiming(numSampleTimingEntries, sampleTimingArray)) return status;
    *sampleBufferOut = makeSample(originalSBuf->sharedRef(), numSampleTimingEntries, sampleTimingArray);
    return 0;
}

CMTime CMSampleBufferGetPresentationTimeStamp(const CMSampleBufferRef& sbuf)
{
    return sbuf ? sbuf->timing().presentationTimeStamp : kCMTimeInvalid;
}

CMTime CMSampleBufferGetDecodeTimeStamp(const CMSampleBufferRef& sbuf)
{
    return sbuf ? sbuf->timing().decodeTimeStamp : kCMTimeInvalid;
}

CMTime CMSampleBufferGetDuration(const CMSampleBufferRef& sbuf)
{
    return sbuf ? sbuf->timing().duration : kCMTimeInvalid;
}

CMTime CMSampleBufferGetOutputPresentationTimeStamp(const CMSampleBufferRef& sbuf)
{
    if (!sbuf) return kCMTimeInvalid;
    const CMTime output = sbuf->outputPresentationTimeStamp();
    return CMTIME_IS_VALID(output) ? output : sbuf->timing().presentationTimeStamp;
}

OSStatus CMSampleBufferSetOutputPresentationTimeStamp(const CMSampleBufferRef& sbuf,
                                                      CMTime outputPresentationTimeStamp)
{
    if (!sbuf) return kCMSampleBufferError_RequiredParameterMissing;
    sbuf->setOutputPresentationTimeStamp(outputPresentationTimeStamp);
    return 0;
}

CMTime CMSampleBufferGetOutputDecodeTimeStamp(const CMSampleBufferRef& sbuf)
{
    if (!sbuf) return kCMTimeInvalid;
    const CMSampleTimingInfo& timing = sbuf->timing();
    const CMTime output = sbuf->outputPresentationTimeStamp();
    if (!CMTIME_IS_VALID(output) || !CMTIME_IS_NUMERIC(timing.presentationTimeStamp) ||
        !CMTIME_IS_NUMERIC(timing.decodeTimeStamp)) {
        return timing.decodeTimeStamp;
    }
    return CMTimeAdd(timing.decodeTimeStamp, CMTimeSubtract(output, timing.presentationTimeStamp));
}

CMTime CMSampleBufferGetOutputDuration(const CMSampleBufferRef& sbuf) { return CMSampleBufferGetDuration(sbuf); }

OSStatus CMSampleBufferGetSampleTimingInfo(const CMSampleBufferRef& sbuf, CMItemCount sampleIndex,
                                           CMSampleTimingInfo* timingInfoOut)
{
    if (!sbuf || !timingInfoOut) return kCMSampleBufferError_RequiredParameterMissing;
    if (sampleIndex < 0 || sampleIndex >= std::max<CMItemCount>(sbuf->shared().numSamples, 1)) {
        return kCMSampleBufferError_SampleIndexOutOfRange;
    }
    if (!sbuf->hasTiming()) return kCMSampleBufferError_BufferHasNoSampleTimingInfo;
    *timingInfoOut = sbuf->timing();
    return 0;
}

CMBlockBufferRef CMSampleBufferGetDataBuffer(const CMSampleBufferRef& sbuf)
{
    return sbuf ? sbuf->shared().dataBuffer : nullptr;
}

CVImageBufferRef CMSampleBufferGetImageBuffer(const CMSampleBufferRef& sbuf)
{
    return sbuf ? sbuf->shared().imageBuffer : nullptr;
}

CMFormatDescriptionRef CMSampleBufferGetFormatDescription(const CMSampleBufferRef& sbuf)
{
    return sbuf ? sbuf->shared().formatDescription : nullptr;
}

CMItemCount CMSampleBufferGetNumSamples(const CMSampleBufferRef& sbuf) { return sbuf ? sbuf->shared().numSamples : 0; }

size_t CMSampleBufferGetTotalSampleSize(const CMSampleBufferRef& sbuf)
{
    if (!sbuf) return 0;
    const auto& shared = sbuf->shared();
    if (shared.sizeEntries == 1) return shared.commonSize * size_t(shared.numSamples);
    size_t total = 0;
    for (size_t size : shared.sizes) total += size;
    return total;
}

size_t CMSampleBufferGetSampleSize(const CMSampleBufferRef& sbuf, CMItemCount sampleIndex)
{
    if (!sbuf || sampleIndex < 0 || sampleIndex >= sbuf->shared().numSamples) return 0;
    const auto& shared = sbuf->shared();
    if (shared.sizeEntries == 1) return shared.commonSize;
    return shared.sizes.empty() ? 0 : shared.sizes[size_t(sampleIndex)];
}

bool CMSampleBufferDataIsReady(const CMSampleBufferRef& sbuf) { return sbuf && sbuf->shared().dataReady; }

OSStatus CMSampleBufferMakeDataReady(const CMSampleBufferRef& sbuf)
{
    if (!sbuf) return kCMSampleBufferError_RequiredParameterMissing;
    return sbuf->shared().dataReady ? 0 : kCMSampleBufferError_BufferNotReady;
}

CMSampleAttachmentsArrayRef CMSampleBufferGetSampleAttachmentsArray(const CMSampleBufferRef& sbuf,
                                                                    bool createIfNecessary)
{
    if (!sbuf) return nullptr;
    auto& shared = *sbuf->sharedRef();
    std::lock_guard lock(shared.attachmentsLock);
    if (!shared.attachments && createIfNecessary) {
        auto array = std::make_shared<CMSampleAttachmentsArray>();
        const auto count = size_t(std::max<CMItemCount>(shared.numSamples, 1));
        array->reserve(count);
        for (size_t i = 0; i < count; ++i) array->push_back(std::make_shared<CMSampleAttachmentDictionary>());
        shared.attachments = std::move(array);
    }
    return shared.attachments;
}

CMSampleAttachmentDictionaryRef CMSampleBufferGetFirstSampleAttachments(const CMSampleBufferRef& sbuf,
                                                                        bool createIfNecessary)
{
    CMSampleAttachmentsArrayRef array = CMSampleBufferGetSampleAttachmentsArray(sbuf, createIfNecessary);
    return array && !array->empty() ? (*array)[0] : nullptr;
}

} // namespace qx
