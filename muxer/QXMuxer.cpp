#include "qxmedia/muxer/QXMuxer.h"

#include <sys/xattr.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXSubtitleTrack.h"

using namespace qx;
using qx::mp4::fourcc;
using qx::mp4::FourCC;
using qx::mp4::MP4File;

namespace {

constexpr int64_t kNoParentErrorCode = 514;   // NSFileWriteInvalidFileNameError
constexpr int64_t kCreateFileErrorCode = -13002;
constexpr int64_t kDiskFullErrorCode = -11807;

// The freedesktop.org attribute that file managers read tags from.
constexpr char kTagsAttribute[] = "user.xdg.tags";

// A destination copied from its source still names the source's tracks
// (whose ids are the source's); each such reference is pointed at the
// destination made from that track, or dropped when none is written.
template <class T>
void retarget(std::shared_ptr<T>& reference, const std::vector<std::shared_ptr<QXMuxerInput>>& inputs)
{
    if (!reference) return;
    for (const auto& input : inputs) {
        if (input->destination == reference) return;
    }
    for (const auto& input : inputs) {
        const QXTrackRef source = input->source ? input->source->track : nullptr;
        if (source == reference) {
            reference = std::dynamic_pointer_cast<T>(input->destination);
            return;
        }
    }
    reference = nullptr;
}

void retargetAssociations(const std::vector<std::shared_ptr<QXMuxerInput>>& inputs)
{
    for (const auto& input : inputs) {
        if (auto* audio = dynamic_cast<QXAudioTrack*>(input->destination.get())) {
            retarget(audio->fallback_track, inputs);
            retarget(audio->subtitle_track, inputs);
        } else if (auto* text = dynamic_cast<QXSubtitleTrack*>(input->destination.get())) {
            retarget(text->forced_track, inputs);
        } else if (auto* bitmap = dynamic_cast<QXBitmapSubtitleTrack*>(input->destination.get())) {
            retarget(bitmap->forced_track, inputs);
        }
    }
}

CMTime decodeTimeOrPresentationTime(const CMSampleBufferRef& sample)
{
    CMTime time = CMSampleBufferGetDecodeTimeStamp(sample);
    return CMTIME_IS_VALID(time) ? time : CMSampleBufferGetPresentationTimeStamp(sample);
}

// The window is sorted by decode time, or presentation time where a sample
// has no decode time.
int32_t sortByDts(const CMBufferRef& a, const CMBufferRef& b)
{
    return CMTimeCompare(decodeTimeOrPresentationTime(a), decodeTimeOrPresentationTime(b));
}

const CMBufferCallbacks& windowCallbacks()
{
    static const CMBufferCallbacks callbacks = [] {
        CMBufferCallbacks c;
        c.version = 0;
        c.getDecodeTimeStamp = [](const CMBufferRef& buf) { return CMSampleBufferGetDecodeTimeStamp(buf); };
        c.getPresentationTimeStamp = [](const CMBufferRef& buf) { return CMSampleBufferGetPresentationTimeStamp(buf); };
        c.getDuration = [](const CMBufferRef& buf) { return CMSampleBufferGetDuration(buf); };
        c.compare = sortByDts;
        return c;
    }();
    return callbacks;
}

// The file manager's codes for a folder that cannot be made.
int64_t cocoaCodeForErrno(int error)
{
    switch (error) {
    case EACCES:
    case EPERM: return 513;   // NSFileWriteNoPermissionError
    case EEXIST:
    case ENOTDIR: return 516; // NSFileWriteFileExistsError
    case ENOSPC:
    case EDQUOT: return 640;  // NSFileWriteOutOfSpaceError
    case EROFS: return 642;   // NSFileWriteVolumeReadOnlyError
    case ENAMETOOLONG: return 514;
    default: return 512;      // NSFileWriteUnknownError
    }
}

struct Brands {
    FourCC major;
    std::vector<FourCC> compatible;
};

// ".mp4" (exactly, case matters) is a plain MP4; anything else an M4V.
Brands brandsForURL(const QXURL& url)
{
    if (url.extension() == ".mp4") return {fourcc("mp42"), {fourcc("mp42"), fourcc("isom"), fourcc("avc1")}};
    return {fourcc("M4V "), {fourcc("M4V "), fourcc("M4A "), fourcc("mp42"), fourcc("isom"), fourcc("avc1")}};
}

// The handler type is "vide" in any case of its letters.
bool isVideoTrack(const MP4File& file, uint32_t trackId)
{
    const mp4::MP4Track* track = file.track(trackId);
    return track && (track->type() | 0x20202020u) == mp4::kVideoTrack;
}

// The sync flag and the sample dependency bits from a sample's attachments.
void readDependencies(const CMSampleAttachmentDictionaryRef& attachments, bool& isSync, uint8_t& dependency)
{
    isSync = true;
    dependency = 0;
    if (!attachments) return;
    auto flag = [&](const char* key) -> std::optional<bool> {
        std::optional<QXValue> value = attachments->value(key);
        if (!value) return std::nullopt;
        return value->truth().value_or(false);
    };
    if (auto notSync = flag(kCMSampleAttachmentKey_NotSync)) isSync = !*notSync;
    if (auto redundant = flag(kCMSampleAttachmentKey_HasRedundantCoding))
        dependency |= *redundant ? mp4::kSampleHasRedundancy : mp4::kSampleHasNoRedundancy;
    if (auto dependedOn = flag(kCMSampleAttachmentKey_IsDependedOnByOthers))
        dependency |= *dependedOn ? mp4::kSampleIsDependedOn : mp4::kSampleIsNotDependedOn;
    if (auto dependsOn = flag(kCMSampleAttachmentKey_DependsOnOthers))
        dependency |= *dependsOn ? mp4::kSampleDependsOnOthers : mp4::kSampleDependsOnNone;
    if (flag(kCMSampleAttachmentKey_EarlierDisplayTimesAllowed).value_or(false))
        dependency |= mp4::kSampleEarlierDisplayTimesAllowed;
}

// The same sample in a buffer of its own, with copies of its attachments:
// for a sample object that two inputs hand over (two uses of one source
// track), so that each keeps its own track id.
CMSampleBufferRef copyWithOwnAttachments(const CMSampleBufferRef& sample)
{
    CMSampleTimingInfo timing;
    CMSampleBufferGetSampleTimingInfo(sample, 0, &timing);
    CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    const size_t size = data ? CMBlockBufferGetDataLength(data) : 0;
    CMSampleBufferRef copy;
    if (CMSampleBufferCreate(nullptr, data, true, {}, nullptr, CMSampleBufferGetFormatDescription(sample), 1, 1,
                             &timing, 1, &size, &copy) != 0) {
        return nullptr;
    }
    if (auto attachments = CMSampleBufferGetFirstSampleAttachments(sample, false)) {
        CMSampleBufferGetFirstSampleAttachments(copy, true)->addEntriesFrom(*attachments);
    }
    return copy;
}

} // namespace

// ---------------------------------------------------------------------------
// Making

std::shared_ptr<QXMuxer> QXMuxer::init()
{
    return std::make_shared<QXMuxer>();
}

std::shared_ptr<QXMuxer> QXMuxer::initWithFileHandle(std::shared_ptr<MP4File> fileHandle)
{
    auto muxer = init();
    muxer->handle = std::move(fileHandle);
    muxer->isFileOwner = false;
    return muxer;
}

std::shared_ptr<QXMuxer> QXMuxer::initWithURL(const QXURL& url, const std::string&, QXErrorRef*)
{
    auto muxer = init();
    muxer->outputURL = url;
    return muxer;
}

QXMuxer::QXMuxer()
{
    if (OSStatus result = CMBufferQueueCreate(nullptr, 0, &windowCallbacks(), &outputQueue); result != 0) {
        QXLogWarning("Failed to create buffer queue: %d", int(result));
    }
    serializationQueue = dispatch_queue_create(description() + " serialization queue", DISPATCH_QUEUE_SERIAL);
}

QXMuxer::~QXMuxer()
{
    if (handle && isFileOwner) handle->close(0);
}

std::string QXMuxer::description() const
{
    char text[64];
    std::snprintf(text, sizeof text, "<QXMuxer: %p>", static_cast<const void*>(this));
    return text;
}

void QXMuxer::addInput(const std::shared_ptr<QXMuxerInput>& input)
{
    if (canAddInput(input)) inputs.push_back(input);
}

bool QXMuxer::canAddInput(const std::shared_ptr<QXMuxerInput>&) const
{
    return status < QXMuxerStatusWriting;
}

bool QXMuxer::cancelWriting()
{
    status = QXMuxerStatusCancelled;
    return true;
}

// ---------------------------------------------------------------------------
// Start

bool QXMuxer::startWritingWithCompletionHandler(std::function<void()> handler, QXErrorRef* error)
{
    {
        std::lock_guard guard(handlerLock_);
        completionHandler_ = std::move(handler);
    }
    status = QXMuxerStatusWriting;

    if (!handle && !createFile(error)) return cleanupOnError();
    if (!handle) {
        if (error) {
            QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, kCreateFileErrorCode,
                                                       {{NSURLErrorKey, QXValue(outputURL)}}));
        }
        return cleanupOnError();
    }

    // Each input creates its track; associations name other tracks by id,
    // so they come once every track exists.
    for (const auto& input : inputs) {
        if (!input->initWritingToFileHandle(handle, serializationQueue, error)) return cleanupOnError();
    }
    retargetAssociations(inputs);
    for (const auto& input : inputs) {
        if (!input->destination->writeTrackAssociationsToFile(*handle, error)) return cleanupOnError();
    }
    if (metadata) metadata->writeToFile(*handle); // never fails a run

    dispatch_group_t group = dispatch_group_create();
    auto self = shared_from_this();
    for (const auto& input : inputs) input->startProcessingOnGroup(group, self);
    dispatch_group_notify(group, serializationQueue, [self] { self->finish(); });
    return true;
}

// Makes the folder and the file; false only when no folder can be had. A
// file that cannot be created leaves `handle` empty.
bool QXMuxer::createFile(QXErrorRef* error)
{
    if (outputURL.empty() || !outputURL.has_parent_path()) {
        if (error) {
            QXDictionary info;
            if (!outputURL.empty()) info.insert_or_assign(NSURLErrorKey, QXValue(outputURL));
            QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, kNoParentErrorCode, info));
        }
        return false;
    }
    const QXURL folder = outputURL.parent_path();
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    if (failure) {
        if (error) {
            QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, cocoaCodeForErrno(failure.value()),
                                                       {{NSFilePathErrorKey, QXValue(folder.string())},
                                                        {NSLocalizedDescriptionKey, QXValue(failure.message())}}));
        }
        return false;
    }

    const Brands brands = brandsForURL(outputURL);
    mp4::MP4CreateOptions options;
    options.use64BitData = use64BitData;
    options.addFtyp = true;
    options.addIods = true;
    options.majorBrand = brands.major;
    options.minorVersion = 0;
    options.compatibleBrands = brands.compatible;
    handle = MP4File::create(outputURL, options);
    if (handle) handle->setTimeScale(1000);
    return true;
}

bool QXMuxer::cleanupOnError()
{
    status = QXMuxerStatusFailed;
    callCompletionHandler();
    return false;
}

void QXMuxer::callCompletionHandler()
{
    std::function<void()> handler;
    {
        std::lock_guard guard(handlerLock_);
        handler = std::move(completionHandler_);
        completionHandler_ = nullptr;
    }
    if (handler) handler();
}

// ---------------------------------------------------------------------------
// The interleaving window

void QXMuxer::writeSample(const CMSampleBufferRef& given, int32_t trackId)
{
    CMSampleBufferRef sample = given;
    CMSampleAttachmentDictionaryRef attachments = CMSampleBufferGetFirstSampleAttachments(sample, true);
    if (auto held = attachments->value(kCMSampleAttachmentKey_TrackId); held && held->int64() != trackId) {
        if (CMSampleBufferRef own = copyWithOwnAttachments(sample)) {
            sample = own;
            attachments = CMSampleBufferGetFirstSampleAttachments(sample, true);
        }
    }
    attachments->setValue(kCMSampleAttachmentKey_TrackId, QXValue(trackId));

    const CMTime pts = CMSampleBufferGetPresentationTimeStamp(sample);
    bool shouldFlush;
    if (pts > maxPresentationTimeStamp) {
        maxPresentationTimeStamp = pts;
        shouldFlush = true;
    } else {
        shouldFlush = pts > CMTimeAdd(previousTimestamp, CMTimeMake(2000, 1000));
    }

    const OSStatus result = CMBufferQueueEnqueue(outputQueue, sample);
    // After a failed write the window is closed: the sample is let go.
    if (result == kCMBufferQueueError_EnqueueAfterEndOfData) return;
    if (result != 0) {
        QXMedia::errorWithDomain(NSOSStatusErrorDomain, result);
        return;
    }
    // A flush that is queued runs after this sample is in the window: one
    // is enough.
    if (shouldFlush && !flushPending_) {
        flushPending_ = true;
        auto self = shared_from_this();
        dispatch_async(serializationQueue, [self] {
            self->flushPending_ = false;
            self->flush();
        });
    }
}

void QXMuxer::flush()
{
    const CMTime window = CMTimeMake(2500, 1000);
    // After a failed write nothing more is written; the finish lets the
    // rest go.
    while (status < QXMuxerStatusFailed) {
        const CMTime first = CMBufferQueueGetFirstPresentationTimeStamp(outputQueue);
        if (CMTimeSubtract(maxPresentationTimeStamp, first) < window) return;
        CMSampleBufferRef head = CMBufferQueueGetHead(outputQueue);
        if (!head) return;
        const CMTime headTime = decodeTimeOrPresentationTime(head);
        // A video or audio input that has not yet delivered up to the head
        // could still deliver something that belongs before it. Subtitles
        // hold nothing back, nor does an input that has finished.
        for (const auto& input : inputs) {
            const QXMediaType type = input->destination->mediaType();
            if (type != AVMediaTypeVideo && type != AVMediaTypeAudio) continue;
            if (input->status == QXMuxerInputStatusFinished) continue;
            if (input->lastTimestamp < headTime) return;
        }
        CMSampleBufferRef sample = CMBufferQueueDequeueAndRetain(outputQueue);
        const CMTime time = decodeTimeOrPresentationTime(sample);
        if (time < previousTimestamp) {
            QXLogInfo("Written time of sample %s went backwards %s", sample->description().c_str(),
                      CMTimeCopyDescription(CMTimeSubtract(previousTimestamp, time)).c_str());
        } else {
            previousTimestamp = time;
        }
        writeSample(sample);
    }
}

// ---------------------------------------------------------------------------
// Writing

bool QXMuxer::writeSample(const CMSampleBufferRef& sample)
{
    // The sample's bytes are one block; only a block that is not contiguous
    // is copied out.
    CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    const size_t size = data ? CMBlockBufferGetDataLength(data) : 0;
    const uint8_t* bytes = nullptr;
    std::unique_ptr<uint8_t[]> copied;
    if (size) {
        size_t contiguous = 0;
        char* pointer = nullptr;
        if (CMBlockBufferGetDataPointer(data, 0, &contiguous, nullptr, &pointer) == 0 && contiguous == size) {
            bytes = reinterpret_cast<const uint8_t*>(pointer);
        } else {
            copied = std::make_unique_for_overwrite<uint8_t[]>(size);
            CMBlockBufferCopyDataBytes(data, 0, size, copied.get());
            bytes = copied.get();
        }
    }

    const CMTime duration = CMSampleBufferGetDuration(sample);
    const CMTime pts = CMSampleBufferGetPresentationTimeStamp(sample);
    const CMTime dts = CMSampleBufferGetDecodeTimeStamp(sample);

    uint32_t trackId = 0;
    bool isSync = true;
    uint8_t dependency = 0;
    if (auto attachments = CMSampleBufferGetFirstSampleAttachments(sample, false)) {
        trackId = uint32_t(attachments->value(kCMSampleAttachmentKey_TrackId).value_or(QXValue()).int64().value_or(0));
        readDependencies(attachments, isSync, dependency);
    }

    // Times are in the track's timescale: the inputs see to that.
    const int64_t sampleDuration = CMTIME_IS_VALID(duration) ? duration.value : -1;
    const CMTime difference = CMTimeSubtract(pts, dts);
    const int64_t renderingOffset = CMTIME_IS_VALID(difference) ? difference.value : 0;

    bool written = false;
    if (handle) {
        written = isVideoTrack(*handle, trackId)
                      ? handle->writeSampleDependency(trackId, bytes, size, sampleDuration, renderingOffset, isSync,
                                                      dependency)
                      : handle->writeSample(trackId, bytes, size, sampleDuration, renderingOffset, isSync);
    }
    if (!written) {
        error = QXMedia::errorWithDomain(QXMediaErrorDomain, kDiskFullErrorCode);
        status = QXMuxerStatusFailed;
        CMBufferQueueMarkEndOfData(outputQueue);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Finish

void QXMuxer::finish()
{
    // What is left in the window, without the window's rule.
    while (CMSampleBufferRef sample = CMBufferQueueDequeueAndRetain(outputQueue)) {
        if (status < QXMuxerStatusFailed) writeSample(sample);
    }
    if (status < QXMuxerStatusCompleted) {
        for (const auto& input : inputs) input->writeInitDelay();
    }
    if (isFileOwner && handle) {
        // The moov is written here: a disk that fills now fails the run as a
        // failed sample write would.
        if (!handle->close(0) && status < QXMuxerStatusCompleted) {
            error = QXMedia::errorWithDomain(QXMediaErrorDomain, kDiskFullErrorCode);
            status = QXMuxerStatusFailed;
        }
    }
    handle.reset();
    if (status < QXMuxerStatusCompleted) {
        setFileAttributes();
        status = QXMuxerStatusCompleted;
    }
    callCompletionHandler();
}

// The date and the tags of the record go to the file; neither can fail the
// run. Linux keeps no creation date: the modification time stands in.
void QXMuxer::setFileAttributes()
{
    if (!metadata || outputURL.empty()) return;
    if (auto date = metadata->creationDate.get()) {
        std::error_code failure;
        std::filesystem::last_write_time(outputURL, std::chrono::file_clock::from_sys(*date), failure);
        if (failure) {
            QXLogWarning("Failed to set creation date for %s: %s", outputURL.string().c_str(),
                         failure.message().c_str());
        }
    }
    if (auto tags = metadata->tags.get()) {
        std::string joined;
        for (const std::string& tag : *tags) joined += (joined.empty() ? "" : ",") + tag;
        int result = joined.empty() ? ::removexattr(outputURL.c_str(), kTagsAttribute)
                                    : ::setxattr(outputURL.c_str(), kTagsAttribute, joined.data(), joined.size(), 0);
        if (result != 0 && !(joined.empty() && errno == ENODATA)) {
            QXLogWarning("Failed to set tags: %s", std::strerror(errno));
        }
    }
}
