#include "QXMetaDataBarrier.h"

QXMetaDataBarrier::QXMetaDataBarrier(std::string label)
    : queue_(qx::dispatch_queue_create(label, qx::DISPATCH_QUEUE_CONCURRENT))
{
}

void QXMetaDataBarrier::read(const std::function<void()>& block) const
{
    qx::dispatch_sync(queue_, block);
}

void QXMetaDataBarrier::write(const std::function<void()>& block)
{
    qx::dispatch_barrier_sync(queue_, block);
}
