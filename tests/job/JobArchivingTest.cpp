#include <gtest/gtest.h>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXMovie.h"

// A job's archive is its status: what comes back can report how the job
// ended and nothing more, and it does not run.
TEST(JobArchiving, OnlyTheStatusComesBack)
{
    auto job = QXJob::initWithMovie(std::make_shared<QXMovie>(std::vector<QXURL> {"/tmp/in.mkv"}),
                                    QXPreset::initWithIdentifier(QXPresetApple1080p));
    job->destination = "/tmp/out.m4v";
    job->optimize = true;
    job->status = QXJobStatusProcessing;

    const QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*job);
    const QXDictionary& root = *archive.dictionary()->at("$top").dictionary()->at("root").dictionary();
    EXPECT_EQ(root.size(), 2u); // "$class" and "status"
    EXPECT_EQ(root.at("status").int64(), std::optional<int64_t>(QXJobStatusProcessing));

    const auto data = QXKeyedArchiver::archivedDataWithRootObject(*job);
    ASSERT_TRUE(data);
    auto restored = QXKeyedUnarchiver::unarchivedObjectOfClass<QXJob>(*data);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->status, QXJobStatusProcessing);
    EXPECT_FALSE(restored->movie || restored->preset || restored->progress || restored->processing_semaphore);
    EXPECT_TRUE(restored->destination.empty());
    EXPECT_FALSE(restored->optimize);
    EXPECT_FALSE(restored->waitUntilFinished()) << "returns at once: nothing runs";
    restored->togglePause();
    EXPECT_EQ(restored->status, QXJobStatusProcessing);
}
