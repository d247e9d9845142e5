// Progress trees: pending units of the current progress, children, phases, observers, threads.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "qxmedia/platform/progress/QXProgress.h"

TEST(QXProgress, OwnUnitsAndIndeterminateTotals)
{
    auto progress = QXProgress::discreteProgressWithTotalUnitCount(-1);
    EXPECT_TRUE(progress->isIndeterminate());
    progress->setCompletedUnitCount(50);
    EXPECT_EQ(progress->fractionCompleted(), 0.0) << "no fraction without a total";
    progress->setTotalUnitCount(200);
    EXPECT_FALSE(progress->isIndeterminate());
    EXPECT_DOUBLE_EQ(progress->fractionCompleted(), 0.25);
    EXPECT_FALSE(progress->isFinished());
    progress->setCompletedUnitCount(250); // a multi-file source passes its first file's size
    EXPECT_TRUE(progress->isFinished());
    EXPECT_DOUBLE_EQ(progress->fractionCompleted(), 1.25);
}

TEST(QXProgress, CurrentProgressLendsItsPendingUnitsToTheFirstChildOnly)
{
    auto job = QXProgress::init();
    job->setTotalUnitCount(100);
    job->setCompletedUnitCount(20);
    job->becomeCurrentWithPendingUnitCount(40);
    EXPECT_EQ(QXProgress::currentProgress(), job);
    auto child = QXProgress::progressWithTotalUnitCount(8);
    auto second = QXProgress::progressWithTotalUnitCount(8);       // too late: units are taken
    auto discrete = QXProgress::discreteProgressWithTotalUnitCount(8); // never attaches
    std::shared_ptr<QXProgress> otherThreadCurrent = job;
    std::thread([&] { otherThreadCurrent = QXProgress::currentProgress(); }).join();
    job->resignCurrent();
    EXPECT_EQ(QXProgress::currentProgress(), nullptr);
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

TEST(QXProgress, ResignWithoutAChildCompletesThePendingUnits)
{
    auto job = QXProgress::discreteProgressWithTotalUnitCount(100);
    job->becomeCurrentWithPendingUnitCount(70);
    job->resignCurrent();
    EXPECT_EQ(job->completedUnitCount(), 70);

    // Nested current progresses restore the outer one.
    auto outer = QXProgress::discreteProgressWithTotalUnitCount(10);
    outer->becomeCurrentWithPendingUnitCount(10);
    auto inner = QXProgress::progressWithTotalUnitCount(4);
    inner->becomeCurrentWithPendingUnitCount(2);
    auto leaf = QXProgress::progressWithTotalUnitCount(100);
    EXPECT_EQ(QXProgress::currentProgress(), inner);
    inner->resignCurrent();
    EXPECT_EQ(QXProgress::currentProgress(), outer);
    outer->resignCurrent();
    leaf->setCompletedUnitCount(50); // half of 2 of 4 units of all 10
    EXPECT_DOUBLE_EQ(outer->fractionCompleted(), 0.25);
    leaf->setCompletedUnitCount(100);
    EXPECT_EQ(inner->completedUnitCount(), 2);
    inner->setCompletedUnitCount(4);
    EXPECT_EQ(outer->completedUnitCount(), 10);
    EXPECT_TRUE(outer->isFinished());
}

TEST(QXProgress, PhasesReuseTheWholeRange)
{
    // The job's pattern: every phase runs the bar from 0 to full again.
    auto job = QXProgress::init();
    job->setTotalUnitCount(100);
    std::vector<double> seen;
    job->addObserver([&](double fraction) { seen.push_back(fraction); });

    job->setCompletedUnitCount(0);
    job->becomeCurrentWithPendingUnitCount(100);
    auto optimise = QXProgress::progressWithTotalUnitCount(-1);
    job->resignCurrent();
    EXPECT_EQ(job->fractionCompleted(), 0.0);
    optimise->setTotalUnitCount(1000);
    optimise->setCompletedUnitCount(500);
    EXPECT_DOUBLE_EQ(job->fractionCompleted(), 0.5);
    optimise->setCompletedUnitCount(1000);
    EXPECT_DOUBLE_EQ(job->fractionCompleted(), 1.0);

    job->setCompletedUnitCount(0);
    job->becomeCurrentWithPendingUnitCount(100);
    auto library = QXProgress::progressWithTotalUnitCount(2147483647);
    job->resignCurrent();
    library->setCompletedUnitCount(1);
    EXPECT_GT(job->fractionCompleted(), 0.0);
    library->setCompletedUnitCount(library->totalUnitCount());
    job->setCompletedUnitCount(job->totalUnitCount());
    EXPECT_DOUBLE_EQ(job->fractionCompleted(), 1.0);

    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ((std::vector<double> {seen[0], seen[1], seen[2], seen[4]}), (std::vector<double> {0.5, 1.0, 0.0, 1.0}));
    EXPECT_GT(seen[3], 0.0); // the library tick creeps
    EXPECT_LT(seen[3], 1e-6);
}

TEST(QXProgress, AddChildMovesAChildAndPaysAFinishedOneAtOnce)
{
    auto first = QXProgress::discreteProgressWithTotalUnitCount(10);
    auto second = QXProgress::discreteProgressWithTotalUnitCount(10);
    auto child = QXProgress::discreteProgressWithTotalUnitCount(4);
    child->setCompletedUnitCount(2);
    first->addChild(child, 10);
    EXPECT_DOUBLE_EQ(first->fractionCompleted(), 0.5);
    second->addChild(child, 4);
    EXPECT_DOUBLE_EQ(first->fractionCompleted(), 0.0);
    EXPECT_DOUBLE_EQ(second->fractionCompleted(), 0.2);

    auto done = QXProgress::discreteProgressWithTotalUnitCount(3);
    done->setCompletedUnitCount(3);
    first->addChild(done, 6);
    EXPECT_EQ(first->completedUnitCount(), 6);
}

TEST(QXProgress, ObserversSeeChangesAndCanBeRemoved)
{
    auto parent = QXProgress::discreteProgressWithTotalUnitCount(2);
    auto child = QXProgress::progressWithTotalUnitCount(10, parent, 2);
    std::vector<double> parentSeen;
    std::vector<double> childSeen;
    auto token = parent->addObserver([&](double fraction) { parentSeen.push_back(fraction); });
    child->addObserver([&](double fraction) { childSeen.push_back(fraction); });
    child->setCompletedUnitCount(5);
    child->setCompletedUnitCount(5); // no change, no call
    child->setTotalUnitCount(10);
    EXPECT_EQ(parentSeen, std::vector<double> {0.5});
    EXPECT_EQ(childSeen, std::vector<double> {0.5});
    parent->removeObserver(token);
    child->setCompletedUnitCount(10);
    EXPECT_EQ(parentSeen, std::vector<double> {0.5});
    EXPECT_EQ(childSeen, (std::vector<double> {0.5, 1.0}));
    EXPECT_EQ(parent->completedUnitCount(), 2);
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
