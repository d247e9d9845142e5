#pragma once
/// @file
/// QXProgress, the nesting counter of work that jobs report progress with.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "qxmedia/core/QXExport.h"

/// A counter of work in units that nests: a child progress stands for a
/// number of its parent's units (its pending unit count), so the parent's
/// fractionCompleted moves smoothly while the child runs. When the child
/// finishes, those units become completed units of the parent and the child
/// is let go.
///
/// A phase lends a part of a progress to code that knows nothing of it:
/// becomeCurrentWithPendingUnitCount makes the progress the calling thread's
/// current one, and the next progressWithTotalUnitCount on that thread becomes
/// its child. resignCurrent ends that; units that no child took are counted
/// as completed then.
///
/// Counts are atomic: one thread may update while others read. Observers are
/// called on the thread that made the change, one call at a time per
/// progress, whenever fractionCompleted has changed. Always held in a shared
/// pointer (make it with the static functions): parents hold their children,
/// children their parent weakly.
class QX_EXPORT QXProgress : public std::enable_shared_from_this<QXProgress> {
public:
    /// Called with the new fractionCompleted(); it may add or remove observers of the same progress.
    using Observer = std::function<void(double fractionCompleted)>;
    /// Names an observer for removeObserver(); never 0.
    using ObserverToken = uint64_t;

    /// A progress with no parent and a total of 0.
    static std::shared_ptr<QXProgress> init();
    /// A progress of `unitCount` units, the child of the calling thread's
    /// current progress if there is one and no child has taken its pending
    /// units yet.
    static std::shared_ptr<QXProgress> progressWithTotalUnitCount(int64_t unitCount);
    /// A progress of `unitCount` units that never attaches by itself.
    static std::shared_ptr<QXProgress> discreteProgressWithTotalUnitCount(int64_t unitCount);
    /// A progress of `unitCount` units, a child of `parent` for `pendingUnitCount` of its units
    /// (none when parent is null).
    static std::shared_ptr<QXProgress> progressWithTotalUnitCount(int64_t unitCount,
                                                                  const std::shared_ptr<QXProgress>& parent,
                                                                  int64_t pendingUnitCount);
    /// The calling thread's current progress, or null.
    static std::shared_ptr<QXProgress> currentProgress();

    /// For std::make_shared; hosts call init() or the other makers, as a progress must live in a shared pointer.
    QXProgress() = default;
    QXProgress(const QXProgress&) = delete;
    QXProgress& operator=(const QXProgress&) = delete;

    ///@{
    /// The units of the whole work. -1 (any negative value) means not known: the progress is indeterminate.
    /// Setting it tells the observers and the parent.
    int64_t totalUnitCount() const { return total_.load(std::memory_order_acquire); }
    void setTotalUnitCount(int64_t unitCount);
    ///@}
    ///@{
    /// The units done so far, finished children's pending units included. Setting it tells the observers and
    /// the parent; reaching the total with a parent pays this progress's units to it.
    int64_t completedUnitCount() const { return completed_.load(std::memory_order_acquire); }
    void setCompletedUnitCount(int64_t unitCount);
    ///@}

    /// completed / total plus the share of unfinished children; 0 while the
    /// total is not positive. It may pass 1 when completed passes the total.
    double fractionCompleted() const { return fraction_.load(std::memory_order_acquire); }
    /// Whether the total or the completed count is negative, meaning not known.
    bool isIndeterminate() const { return totalUnitCount() < 0 || completedUnitCount() < 0; }
    /// Whether the total is positive and the completed count has reached it.
    bool isFinished() const;

    /// Makes this the calling thread's current progress, lending `unitCount` of its units to the next
    /// progressWithTotalUnitCount() made on this thread. Calls nest; each needs its resignCurrent().
    void becomeCurrentWithPendingUnitCount(int64_t unitCount);
    /// Ends the innermost becomeCurrentWithPendingUnitCount() of this thread; the lent units count as completed
    /// when no child took them. On a progress that is not the thread's current one it only logs an error.
    void resignCurrent();

    /// `child` stands for `pendingUnitCount` units of this progress. A child
    /// that already has a parent is moved. A null child or this progress itself is ignored.
    void addChild(const std::shared_ptr<QXProgress>& child, int64_t pendingUnitCount);

    /// Adds an observer; see the class comment for when it is called.
    ObserverToken addObserver(Observer observer);
    /// Removes an observer; an unknown token is ignored.
    void removeObserver(ObserverToken token);

private:
    struct Child {
        std::shared_ptr<QXProgress> progress;
        int64_t pendingUnitCount;
    };

    // After any change: recompute the fraction, tell observers, tell the parent.
    void changed();
    void recompute();
    void notifyObservers();
    void childFinished(const QXProgress* child);
    std::shared_ptr<QXProgress> parent() const;

    std::atomic<int64_t> total_ {0};
    std::atomic<int64_t> completed_ {0};
    std::atomic<double> fraction_ {0.0};

    mutable std::mutex lock_; // children_ and parent_
    std::vector<Child> children_;
    std::weak_ptr<QXProgress> parent_;

    std::recursive_mutex observerLock_; // also keeps the calls of one progress in order
    std::vector<std::pair<ObserverToken, std::shared_ptr<Observer>>> observers_;
    ObserverToken nextToken_ = 1;
    double lastNotified_ = 0.0;
};
