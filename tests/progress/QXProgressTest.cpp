// Progress trees: pending units of the current progress, threads.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "qxmedia/platform/progress/QXProgress.h"

TEST(QXProgress, CurrentProgressLendsItsPendingUnitsToTheFirstChildOnly)
{
    auto job = QXProgress::init();
    job->setTotalUnitCount(100);
    job->setCompletedUnitCount(20);
    job->becomeCurrentWithPendingUnitCount(40);
    auto child = QXProgress::progressWithTotalUnitCount(8);
    auto second = QXProgress::progressWithTotalUnitCount(8);       // too late: units are taken
    auto discrete = QXProgress::discreteProgressWithTotalUnitCount(8); // never attaches
    std::shared_ptr<QXProgress> otherThreadCurrent = job;
    std::thread([&] { otherThreadCurrent = QXProgress::currentProgress(); }).join();
    job->resignCurrent();
    EXPECT_EQ(otherThreadCurrent, nullptr) << "current progress is per thread";

    second->setCompletedUnitCount(8);
    discrete->setCompletedUnitCount(8);
    EXPECT_DOUBLE_EQ(job->fractionCompleted(), 0.20);
    child->setCompletedUnitCount(2);
    EXPECT_EQ(job->completedUnitCount(), 20) << "an unfinished child only lends its fraction";

    // Finishing pays the units once; the child is let go afterwards.
    child->setCompletedUnitCount(8);
    EXPECT_EQ(job->completedUnitCount(), 60);
    child->setCompletedUnitCount(0);
    child->setCompletedUnitCount(8);
    EXPECT_EQ(job->completedUnitCount(), 60);
}

TEST(QXProgress, UpdatesFromWorkersAreReadSafelyElsewhere)
{
    // A read loop moves its child from one thread while a host reads the
    // job's fraction from another; two children race to finish.
    auto job = QXProgress::discreteProgressWithTotalUnitCount(100);
    auto reading = QXProgress::progressWithTotalUnitCount(100000, job, 50);
    auto other = QXProgress::progressWithTotalUnitCount(100000, job, 50);
    std::mutex seenLock;
    std::vector<double> notified;
    job->addObserver([&](double fraction) {
        std::lock_guard guard(seenLock);
        notified.push_back(fraction);
    });
    std::atomic<bool> stop {false};
    std::atomic<bool> inRange {true};
    std::thread host([&] {
        while (!stop) {
            const double now = job->fractionCompleted();
            if (now < 0 || now > 1) inRange = false;
        }
    });
    auto work = [](const std::shared_ptr<QXProgress>& progress) {
        for (int64_t done = 0; done <= 100000; done += 7) progress->setCompletedUnitCount(done);
        progress->setCompletedUnitCount(100000);
    };
    std::thread a(work, reading);
    std::thread b(work, other);
    a.join();
    b.join();
    stop = true;
    host.join();
    EXPECT_TRUE(inRange);
    EXPECT_EQ(job->completedUnitCount(), 100);
    std::lock_guard guard(seenLock);
    ASSERT_FALSE(notified.empty());
    EXPECT_DOUBLE_EQ(notified.back(), 1.0) << "the last call carries the final value";
}
