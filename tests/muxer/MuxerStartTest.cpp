// Finishing the file: the record's tags, date and names.

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

TEST(MuxerFinish, TheRecordsTagsDateAndNamesGoToTheFileAndLateInputsAreIgnored)
{
    auto dir = qxtest::makeTempDir("muxer-attributes");
    qxtest::LogCapture log;
    const fs::path path = dir / "x.m4v";
    MuxerRun run(path);
    run.muxer->metadata = QXMetaData::init();
    const QXDate date = std::chrono::sys_days(std::chrono::year(2001) / 2 / 3);
    run.muxer->metadata->creationDate.set(date);
    run.muxer->metadata->tags.set(QXStringList {"Red", "Holiday"});
    run.muxer->metadata->name.set(std::string("Written Title"));
    auto input = TestInput::make(Kind::Subtitle, 1000);
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    run.muxer->addInput(TestInput::make(Kind::Audio, 48000));
    EXPECT_EQ(run.muxer->inputs.size(), 1u);
    input->markAsFinished();
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    EXPECT_EQ(std::chrono::file_clock::to_sys(fs::last_write_time(path)), date);
    std::string probed;
    qxtest::run("ffprobe -v error -show_entries format_tags=title -of csv=p=0 '" + path.string() + "'", &probed);
    EXPECT_EQ(probed, "Written Title\n") << "the record's tags are in the file";
    char tags[64] = {};
    const ssize_t size = ::getxattr(path.c_str(), "user.xdg.tags", tags, sizeof tags - 1);
    if (size >= 0) {
        EXPECT_EQ(std::string(tags, size_t(size)), "Red,Holiday");
    } else {
        EXPECT_TRUE(log.contains("Failed to set tags: ", QXLogFlagWarning)); // no user attributes here
    }
}
