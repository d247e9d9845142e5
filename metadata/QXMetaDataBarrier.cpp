#include "QXMetaDataBarrier.h"

#include <algorithm>
#include <vector>

namespace {

// The queues this thread is reading at the moment, innermost last.
thread_local std::vector<const QXMetaDataBarrier*> readingNow;

struct ReadScope {
    explicit ReadScope(const QXMetaDataBarrier* queue) { readingNow.push_back(queue); }
    ~ReadScope() { readingNow.pop_back(); }
};

} // namespace

void QXMetaDataBarrier::read(const std::function<void()>& block) const
{
    const bool nested = std::find(readingNow.begin(), readingNow.end(), this) != readingNow.end();
    {
        std::unique_lock guard(lock_);
        // New readers let a waiting writer go first; nested ones cannot wait.
        if (!nested) changed_.wait(guard, [&] { return !writing_ && writersWaiting_ == 0; });
        ++readers_;
    }
    struct Leave {
        const QXMetaDataBarrier* queue;
        ~Leave()
        {
            std::lock_guard guard(queue->lock_);
            if (--queue->readers_ == 0) queue->changed_.notify_all();
        }
    } leave {this};
    ReadScope scope(this);
    block();
}

void QXMetaDataBarrier::write(const std::function<void()>& block)
{
    {
        std::unique_lock guard(lock_);
        ++writersWaiting_;
        changed_.wait(guard, [&] { return !writing_ && readers_ == 0; });
        --writersWaiting_;
        writing_ = true;
    }
    struct Leave {
        QXMetaDataBarrier* queue;
        ~Leave()
        {
            std::lock_guard guard(queue->lock_);
            queue->writing_ = false;
            queue->changed_.notify_all();
        }
    } leave {this};
    block();
}
