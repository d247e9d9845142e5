#pragma once
// QXSampleBufferChannel: pumps one reader output into one muxer input on its
// own serial queue, until the output ends or the input refuses. With a sync
// the samples go through it (which forwards them with appendSampleBuffer);
// without one they go straight to the input's processSample.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "qxmedia/muxer/QXMuxerInputProtocol.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"

class QXSync;

class QXSampleBufferChannel : public std::enable_shared_from_this<QXSampleBufferChannel> {
public:
    static std::shared_ptr<QXSampleBufferChannel> initWithReaderOutput(std::shared_ptr<QXTrackReaderOutput> output,
                                                                       std::shared_ptr<QXMuxerInputProtocol> input,
                                                                       std::shared_ptr<QXSync> sync = nullptr);
    QXSampleBufferChannel(std::shared_ptr<QXTrackReaderOutput> output, std::shared_ptr<QXMuxerInputProtocol> input,
                          std::shared_ptr<QXSync> sync = nullptr);

    // Hands the pump block to the input; completionHandler runs once, on
    // serializationQueue, after the input was marked finished.
    void startWithDelegate(const void* delegate, std::function<void()> completionHandler);
    void cancel();
    void callCompletionHandlerIfNecessary();

    std::string description() const;

    std::atomic<bool> finished {false};
    qx::dispatch_queue_t serializationQueue;
    std::shared_ptr<QXTrackReaderOutput> readerOutput;
    std::shared_ptr<QXMuxerInputProtocol> muxerInput;
    std::shared_ptr<QXSync> sync;

private:
    void pump();

    std::mutex handlerLock_;
    std::function<void()> completionHandler_;
};
