#pragma once
// QXMuxer: one MP4 output. It creates the file (or borrows an open one),
// lets each input create its track, then takes the samples of all inputs,
// puts them into decode order across tracks within a window of 2.5 seconds
// of presentation time, and writes them from one serial queue. At the end
// the inputs write their edit lists, the file is closed and gets its date
// and tags.
//
//   auto muxer = QXMuxer::initWithURL(path);
//   muxer->addInput(input);                       // one per output track
//   muxer->startWritingWithCompletionHandler([] { ... }, &error);
//   ... the handler runs once; then read status and error.
//
// Every call into the MP4 file after the start runs on serializationQueue
// (the inputs' muxerQueue), which is what keeps the file single-threaded.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qxmedia/muxer/QXMuxerInput.h"
#include "qxmedia/platform/coremedia/CMBufferQueue.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

namespace qx::mp4 {
class MP4File;
}
class QXMetaData;

enum QXMuxerStatus : int64_t {
    QXMuxerStatusIdle = 0,
    QXMuxerStatusWriting = 1,
    QXMuxerStatusCompleted = 2,
    QXMuxerStatusFailed = 3,
    QXMuxerStatusCancelled = 4,
};

class QXMuxer : public std::enable_shared_from_this<QXMuxer> {
public:
    static std::shared_ptr<QXMuxer> init();
    // Writes into a file opened elsewhere: it is neither created, given a
    // timescale, nor closed here.
    static std::shared_ptr<QXMuxer> initWithFileHandle(std::shared_ptr<qx::mp4::MP4File> handle);
    // The file type is decided by the extension at the start; neither it nor
    // the error is used here.
    static std::shared_ptr<QXMuxer> initWithURL(const QXURL& url, const std::string& fileType = {},
                                                QXErrorRef* error = nullptr);

    QXMuxer();
    ~QXMuxer();
    QXMuxer(const QXMuxer&) = delete;
    QXMuxer& operator=(const QXMuxer&) = delete;

    // Appends while the muxer is idle; otherwise does nothing.
    void addInput(const std::shared_ptr<QXMuxerInput>& input);
    bool canAddInput(const std::shared_ptr<QXMuxerInput>& input) const;

    // Creates the file and the tracks and starts the inputs. False (status
    // failed, the handler called once) when a step fails.
    bool startWritingWithCompletionHandler(std::function<void()> handler, QXErrorRef* error = nullptr);
    bool cancelWriting();

    // From the inputs, on serializationQueue: a finished sample of MP4 track
    // `trackId` into the interleaving window.
    void writeSample(const qx::CMSampleBufferRef& sample, int32_t trackId);
    // Writes one sample into the file; on failure the muxer fails with
    // -11807 and takes no more samples.
    bool writeSample(const qx::CMSampleBufferRef& sample);

    std::string description() const;

    // Fields, in declared order.
    bool use64BitData = true;
    bool isFileOwner = true;
    QXURL outputURL;
    std::atomic<int64_t> status {QXMuxerStatusIdle};
    QXErrorRef error; // the failed write
    std::shared_ptr<QXMetaData> metadata;
    std::vector<std::shared_ptr<QXMuxerInput>> inputs;
    std::shared_ptr<qx::mp4::MP4File> handle;
    qx::CMBufferQueueRef outputQueue;
    qx::dispatch_queue_t serializationQueue;
    // Greatest presentation time seen, and the decode time of the last
    // sample out of the window; on serializationQueue only.
    qx::CMTime maxPresentationTimeStamp = qx::kCMTimeNegativeInfinity;
    qx::CMTime previousTimestamp = qx::kCMTimeNegativeInfinity;

    static constexpr double kWindowSeconds = 2.5;

private:
    bool cleanupOnError();
    bool createFile(QXErrorRef* error);
    void flush();
    void finish();
    void setFileAttributes();
    void callCompletionHandler();

    std::mutex handlerLock_;
    std::function<void()> completionHandler_;
    bool flushPending_ = false; // on serializationQueue
};

using QXMuxerRef = std::shared_ptr<QXMuxer>;
