#include "qxmedia/platform/dispatch/DispatchGroup.h"

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "DispatchThreads.h"

namespace qx {

class DispatchGroup {
public:
    void enter()
    {
        std::lock_guard guard(lock_);
        ++count_;
    }

    void leave()
    {
        std::vector<Notification> due;
        {
            std::lock_guard guard(lock_);
            if (count_ == 0) detail::dispatchFatal("dispatch_group_leave without a matching dispatch_group_enter");
            if (--count_ > 0) return;
            ++emptied_;
            due.swap(notifications_);
            empty_.notify_all();
        }
        for (auto& [queue, block] : due) dispatch_async(queue, std::move(block));
    }

    void notify(const dispatch_queue_t& queue, dispatch_block_t block)
    {
        {
            std::lock_guard guard(lock_);
            if (count_ > 0) {
                notifications_.emplace_back(queue, std::move(block));
                return;
            }
        }
        dispatch_async(queue, std::move(block));
    }

    long wait(dispatch_time_t timeout)
    {
        std::unique_lock lock(lock_);
        if (count_ == 0) return 0;
        // Done once the count has been back at zero, even if new work entered since.
        const uint64_t emptied = emptied_;
        auto done = [&] { return emptied_ != emptied; };
        const auto deadline = detail::deadlineOf(timeout);
        detail::BlockingScope blocking;
        if (!deadline) {
            empty_.wait(lock, done);
            return 0;
        }
        return empty_.wait_until(lock, *deadline, done) ? 0 : 1;
    }

private:
    using Notification = std::pair<dispatch_queue_t, dispatch_block_t>;

    std::mutex lock_;
    std::condition_variable empty_;
    size_t count_ = 0;
    uint64_t emptied_ = 0;
    std::vector<Notification> notifications_;
};

namespace {

void checkGroup(const dispatch_group_t& group, const char* operation)
{
    if (!group) detail::dispatchFatal("%s with a null group", operation);
}

} // namespace

dispatch_group_t dispatch_group_create()
{
    return std::make_shared<DispatchGroup>();
}

void dispatch_group_enter(const dispatch_group_t& group)
{
    checkGroup(group, "dispatch_group_enter");
    group->enter();
}

void dispatch_group_leave(const dispatch_group_t& group)
{
    checkGroup(group, "dispatch_group_leave");
    group->leave();
}

void dispatch_group_async(const dispatch_group_t& group, const dispatch_queue_t& queue, dispatch_block_t block)
{
    checkGroup(group, "dispatch_group_async");
    group->enter();
    dispatch_async(queue, [group, block = std::move(block)]() mutable {
        block();
        block = nullptr; // what the block holds is released before the group may end
        group->leave();
    });
}

void dispatch_group_notify(const dispatch_group_t& group, const dispatch_queue_t& queue, dispatch_block_t block)
{
    checkGroup(group, "dispatch_group_notify");
    group->notify(queue, std::move(block));
}

long dispatch_group_wait(const dispatch_group_t& group, dispatch_time_t timeout)
{
    checkGroup(group, "dispatch_group_wait");
    return group->wait(timeout);
}

} // namespace qx
