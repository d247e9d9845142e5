#pragma once
// QXAssetImageGenerator: still pictures out of a QXMovie at given times,
// for chapter images and previews, decoded with FFmpeg. The picture shown at
// or after a time is answered (the last one for a time past the end). The
// generator keeps its own input open between calls, independent of the
// movie's read loop; calls run one at a time.

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "qxmedia/platform/dispatch/DispatchSemaphore.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"

struct AVFormatContext;
class QXImage;
class QXMovie;

enum QXAssetImageGeneratorResult : int {
    QXAssetImageGeneratorSucceeded = 0,
    QXAssetImageGeneratorFailed = 1,
    QXAssetImageGeneratorCancelled = 2,
};

// requested time, image (null unless succeeded), actual time, result, error
using QXAssetImageGeneratorCompletionHandler = std::function<void(
    qx::CMTime, std::shared_ptr<QXImage>, qx::CMTime, QXAssetImageGeneratorResult, QXErrorRef)>;

class QXAssetImageGenerator : public std::enable_shared_from_this<QXAssetImageGenerator> {
public:
    std::atomic<bool> cancelled{false};
    std::shared_ptr<QXMovie> asset;

    static std::shared_ptr<QXAssetImageGenerator> initWithAsset(std::shared_ptr<QXMovie> asset);
    ~QXAssetImageGenerator();
    QXAssetImageGenerator(const QXAssetImageGenerator&) = delete;
    QXAssetImageGenerator& operator=(const QXAssetImageGenerator&) = delete;

    // Blocking. A new packed-RGB picture of the frame's size, or null; the
    // frame's own time goes to *actualTime. Times count from the start of
    // the video stream. A multi-file source is read from its first file.
    std::shared_ptr<QXImage> copyCGImageAtTime(qx::CMTime time, qx::CMTime* actualTime = nullptr,
                                               QXErrorRef* error = nullptr);
    // Returns at once; the handler runs on background threads, once per
    // time, in no fixed order.
    void generateCGImagesAsynchronouslyForTimes(const std::vector<qx::CMTime>& times,
                                                QXAssetImageGeneratorCompletionHandler handler);
    // Times not yet started answer "cancelled"; a picture being decoded
    // finishes.
    void cancelAllCGImageGeneration() { cancelled = true; }

private:
    QXAssetImageGenerator() = default;
    std::shared_ptr<QXImage> copyImageLocked(qx::CMTime time, qx::CMTime* actualTime, QXErrorRef* error);

    AVFormatContext* formatCtx_ = nullptr;
    qx::dispatch_semaphore_t semaphore_ = qx::dispatch_semaphore_create(1);
};
