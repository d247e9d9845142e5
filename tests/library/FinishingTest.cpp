// The steps after a job's output exists: fast start, the library, failed events.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>

#include "support/TestMedia.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/library/QXLibraryMetadata.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/metadata/QXMetaData.h"

namespace fs = std::filesystem;

namespace {

// The types of the top-level boxes, in file order.
std::vector<std::string> topLevelBoxes(const fs::path& path)
{
    std::vector<std::string> types;
    const std::string bytes = qxtest::readFile(path);
    for (size_t at = 0; at + 8 <= bytes.size();) {
        uint64_t size = 0;
        for (int i = 0; i < 4; ++i) size = size << 8 | uint8_t(bytes[at + i]);
        types.push_back(bytes.substr(at + 4, 4));
        if (size < 8) break;
        at += size;
    }
    return types;
}

size_t leftovers(const fs::path& folder)
{
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder)) count += entry.path().filename().string()[0] == '.';
    return count;
}

class FinishingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = qxtest::makeTempDir("finishing");
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
        output = dir / "out.m4v";
        fs::copy_file(qxtest::generate("finishing-movie.mp4",
                                       "-f lavfi -i testsrc2=size=64x36:rate=10:duration=1 -c:v libx264"
                                       " -preset ultrafast -metadata title=Heat -metadata media_type=9 -f mp4"),
                      output);
        job = QXJob::init();
        job->metadata = QXMetaData::init();
        job->metadata->name.set("Heat");
        job->metadata->videoKind = 9;
    }
    fs::path dir, output;
    std::shared_ptr<QXJob> job;
};

TEST_F(FinishingTest, OptimizePutsTheMovieFirstAndCleansUp)
{
    ASSERT_EQ(topLevelBoxes(output).back(), "moov");
    EXPECT_TRUE(job->optimizeFile(output));
    const auto boxes = topLevelBoxes(output);
    ASSERT_GE(boxes.size(), 3u);
    EXPECT_EQ(boxes[1], "moov");
    EXPECT_EQ(job->status, QXJobStatusOptimizing);
    EXPECT_EQ(leftovers(dir), 0u);

    qxtest::writeFile(output, "not a movie");
    EXPECT_FALSE(job->optimizeFile(output));
    EXPECT_EQ(job->status, QXJobStatusFailed);
    ASSERT_TRUE(job->error());
    EXPECT_EQ(job->error()->code(), -13004);
    EXPECT_EQ(qxtest::readFile(output), "not a movie");
    EXPECT_EQ(leftovers(dir), 0u);
}

TEST_F(FinishingTest, TheLibraryTakesTheFileAndKnowsItAfterwards)
{
    auto track = job->addFileToiTunes(output);
    ASSERT_TRUE(track) << (job->error() ? job->error()->description() : "");
    EXPECT_EQ(job->status, QXJobStatusAddingToLibrary);
    EXPECT_FALSE(job->error());
    EXPECT_FALSE(fs::exists(output)) << "the library's copy replaces the output";
    EXPECT_EQ(track->location()->filename(), "Heat.m4v");
    EXPECT_EQ(track->track.mediaKind, "kVdM");

    // The library already has this file (added a minute ago): an error, and the run goes on.
    auto database = QXLibraryDatabase::open(QXLibraryTVIdentifier);
    ASSERT_EQ(sqlite3_exec(database->handle(), "UPDATE tracks SET dateAdded = dateAdded - 60", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    auto second = QXJob::init();
    second->metadata = job->metadata;
    second->status = QXJobStatusAddingToLibrary;
    ASSERT_TRUE(second->addFileToiTunes(*track->location()));
    ASSERT_TRUE(second->error());
    EXPECT_EQ(second->error()->code(), -13005);
    EXPECT_EQ(second->status, QXJobStatusAddingToLibrary);
    EXPECT_TRUE(fs::exists(*track->location()));

    auto third = QXJob::init();
    EXPECT_FALSE(third->addFileToiTunes(dir / "missing.m4v"));
    EXPECT_EQ(third->status, QXJobStatusFailed);
    EXPECT_EQ(third->error()->code(), -13006);
}

TEST_F(FinishingTest, FailedEventsAreKeptUnlessTheLibraryWasBusy)
{
    struct Case {
        const char* domain;
        int64_t code;
        bool kept;
    } cases[] = {{NSOSStatusErrorDomain, -54, false}, {NSOSStatusErrorDomain, -1743, true}, {QXMediaErrorDomain, -54, true}};
    for (const Case& c : cases) {
        job->iTunesError = nullptr;
        job->eventDidFail(QXLibraryEventAdd, std::make_shared<QXError>(c.domain, c.code));
        EXPECT_EQ(bool(job->iTunesError), c.kept) << c.code;
    }
    job->eventDidFail(QXLibraryEventAdd, nullptr);
    EXPECT_FALSE(job->iTunesError);
}

} // namespace
