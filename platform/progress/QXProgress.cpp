#include "qxmedia/platform/progress/QXProgress.h"

#include <algorithm>

#include "qxmedia/core/QXMedia.h"

namespace {

// What becomeCurrentWithPendingUnitCount lent on this thread, innermost last.
struct CurrentEntry {
    std::shared_ptr<QXProgress> progress;
    int64_t pendingUnitCount;
    bool taken; // a child has the pending units
};
thread_local std::vector<CurrentEntry> currentStack;

} // namespace

std::shared_ptr<QXProgress> QXProgress::init()
{
    return std::make_shared<QXProgress>();
}

std::shared_ptr<QXProgress> QXProgress::discreteProgressWithTotalUnitCount(int64_t unitCount)
{
    auto progress = init();
    progress->total_.store(unitCount, std::memory_order_release);
    return progress;
}

std::shared_ptr<QXProgress> QXProgress::progressWithTotalUnitCount(int64_t unitCount)
{
    auto progress = discreteProgressWithTotalUnitCount(unitCount);
    if (!currentStack.empty() && !currentStack.back().taken) {
        CurrentEntry& current = currentStack.back();
        current.taken = true;
        current.progress->addChild(progress, current.pendingUnitCount);
    }
    return progress;
}

std::shared_ptr<QXProgress> QXProgress::progressWithTotalUnitCount(int64_t unitCount,
                                                                   const std::shared_ptr<QXProgress>& parent,
                                                                   int64_t pendingUnitCount)
{
    auto progress = discreteProgressWithTotalUnitCount(unitCount);
    if (parent) parent->addChild(progress, pendingUnitCount);
    return progress;
}

std::shared_ptr<QXProgress> QXProgress::currentProgress()
{
    return currentStack.empty() ? nullptr : currentStack.back().progress;
}

void QXProgress::setTotalUnitCount(int64_t unitCount)
{
    total_.store(unitCount, std::memory_order_release);
    changed();
}

void QXProgress::setCompletedUnitCount(int64_t unitCount)
{
    completed_.store(unitCount, std::memory_order_release);
    changed();
}

bool QXProgress::isFinished() const
{
    const int64_t total = totalUnitCount();
    return total > 0 && completedUnitCount() >= total;
}

void QXProgress::becomeCurrentWithPendingUnitCount(int64_t unitCount)
{
    currentStack.push_back({shared_from_this(), unitCount, false});
}

void QXProgress::resignCurrent()
{
    if (currentStack.empty() || currentStack.back().progress.get() != this) {
        QXLogError("resignCurrent on a progress that is not the current one of this thread");
        return;
    }
    const CurrentEntry entry = std::move(currentStack.back());
    currentStack.pop_back();
    if (!entry.taken && entry.pendingUnitCount != 0) {
        completed_.fetch_add(entry.pendingUnitCount, std::memory_order_acq_rel);
        changed();
    }
}

void QXProgress::addChild(const std::shared_ptr<QXProgress>& child, int64_t pendingUnitCount)
{
    if (!child || child.get() == this) return;
    if (auto previous = child->parent(); previous && previous.get() != this) {
        {
            std::lock_guard guard(previous->lock_);
            std::erase_if(previous->children_, [&](const Child& c) { return c.progress == child; });
        }
        previous->changed();
    }
    {
        std::lock_guard guard(lock_);
        children_.push_back({child, pendingUnitCount});
    }
    {
        std::lock_guard guard(child->lock_);
        child->parent_ = weak_from_this();
    }
    child->changed(); // a finished child pays its units at once
}

std::shared_ptr<QXProgress> QXProgress::parent() const
{
    std::lock_guard guard(lock_);
    return parent_.lock();
}

void QXProgress::changed()
{
    recompute();
    notifyObservers();
    auto up = parent();
    if (!up) return;
    if (isFinished()) {
        up->childFinished(this);
    } else {
        up->changed();
    }
}

void QXProgress::recompute()
{
    std::lock_guard guard(lock_);
    const int64_t total = totalUnitCount();
    double fraction = 0.0;
    if (total > 0) {
        double units = static_cast<double>(completedUnitCount());
        for (const Child& child : children_) {
            const double part = std::clamp(child.progress->fractionCompleted(), 0.0, 1.0);
            units += part * static_cast<double>(child.pendingUnitCount);
        }
        fraction = units / static_cast<double>(total);
    }
    fraction_.store(fraction, std::memory_order_release);
}

void QXProgress::childFinished(const QXProgress* child)
{
    std::shared_ptr<QXProgress> finished;
    int64_t units = 0;
    {
        std::lock_guard guard(lock_);
        auto it = std::find_if(children_.begin(), children_.end(),
                               [&](const Child& c) { return c.progress.get() == child; });
        if (it == children_.end()) return; // already paid
        finished = std::move(it->progress);
        units = it->pendingUnitCount;
        children_.erase(it);
        completed_.fetch_add(units, std::memory_order_acq_rel);
    }
    {
        std::lock_guard guard(finished->lock_);
        if (finished->parent_.lock().get() == this) finished->parent_.reset();
    }
    changed();
}

QXProgress::ObserverToken QXProgress::addObserver(Observer observer)
{
    std::lock_guard guard(observerLock_);
    const ObserverToken token = nextToken_++;
    observers_.emplace_back(token, std::make_shared<Observer>(std::move(observer)));
    return token;
}

void QXProgress::removeObserver(ObserverToken token)
{
    std::lock_guard guard(observerLock_);
    std::erase_if(observers_, [&](const auto& entry) { return entry.first == token; });
}

void QXProgress::notifyObservers()
{
    std::lock_guard guard(observerLock_);
    // Read under the lock, so that the last call always carries the newest value.
    const double fraction = fractionCompleted();
    if (fraction == lastNotified_ || observers_.empty()) {
        lastNotified_ = fraction;
        return;
    }
    lastNotified_ = fraction;
    const auto observers = observers_; // an observer may remove itself
    for (const auto& entry : observers) (*entry.second)(fraction);
}
