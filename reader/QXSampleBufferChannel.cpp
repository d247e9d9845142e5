#include "qxmedia/reader/QXSampleBufferChannel.h"

#include "qxmedia/reader/QXSync.h"

using namespace qx;

std::shared_ptr<QXSampleBufferChannel>
QXSampleBufferChannel::initWithReaderOutput(std::shared_ptr<QXTrackReaderOutput> output,
                                            std::shared_ptr<QXMuxerInputProtocol> input, std::shared_ptr<QXSync> sync)
{
    return std::make_shared<QXSampleBufferChannel>(std::move(output), std::move(input), std::move(sync));
}

QXSampleBufferChannel::QXSampleBufferChannel(std::shared_ptr<QXTrackReaderOutput> output,
                                             std::shared_ptr<QXMuxerInputProtocol> input, std::shared_ptr<QXSync> sync)
    : readerOutput(std::move(output)), muxerInput(std::move(input)), sync(std::move(sync))
{
    serializationQueue = dispatch_queue_create((description() + " serialization queue").c_str(), DISPATCH_QUEUE_SERIAL);
}

std::string QXSampleBufferChannel::description() const
{
    return "<QXSampleBufferChannel " + (readerOutput ? readerOutput->description() : std::string()) + ">";
}

void QXSampleBufferChannel::startWithDelegate(const void*, std::function<void()> completionHandler)
{
    {
        std::lock_guard guard(handlerLock_);
        completionHandler_ = std::move(completionHandler);
    }
    std::weak_ptr<QXSampleBufferChannel> weak = shared_from_this();
    muxerInput->requestMediaDataWhenReadyOnQueue(serializationQueue, [weak] {
        if (auto channel = weak.lock()) channel->pump();
    });
}

void QXSampleBufferChannel::pump()
{
    if (finished.load() || !muxerInput->isReadyForMoreMediaData()) return;
    for (;;) {
        // Blocks until the output has a sample or has ended.
        CMSampleBufferRef sample = readerOutput->copyNextSample();
        bool ok = true;
        if (sync) {
            ok = sync->processSample(sample, *readerOutput, muxerInput);
        } else {
            muxerInput->processSample(sample); // past the input's flow control, as nothing is held back here
        }
        if (!sample || !ok) {
            callCompletionHandlerIfNecessary();
            return;
        }
        if (!muxerInput->isReadyForMoreMediaData()) return;
    }
}

void QXSampleBufferChannel::cancel()
{
    auto self = shared_from_this();
    dispatch_async(serializationQueue, [self] { self->callCompletionHandlerIfNecessary(); });
}

void QXSampleBufferChannel::callCompletionHandlerIfNecessary()
{
    if (finished.exchange(true)) return;
    muxerInput->markAsFinished();
    std::function<void()> handler;
    {
        std::lock_guard guard(handlerLock_);
        handler = std::move(completionHandler_);
        completionHandler_ = nullptr;
    }
    if (handler) handler();
}
