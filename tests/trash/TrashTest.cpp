// Moving files to the home trash: info files and name collisions.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "qxmedia/platform/trash/QXTrash.h"
#include "support/TestMedia.h"

namespace fs = std::filesystem;

namespace {

// A private HOME and XDG_DATA_HOME for each test, restored afterwards.
class TrashTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        root = qxtest::makeTempDir(std::string("trash-") +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
        environment.set("HOME", (root / "home").c_str());
        environment.set("XDG_DATA_HOME", (root / "data").c_str());
        fs::create_directories(root / "home");
    }
    fs::path makeFile(const fs::path& path, const std::string& text = "content")
    {
        fs::create_directories(path.parent_path());
        qxtest::writeFile(path, text);
        return path;
    }
    static std::string infoFor(const fs::path& trashed)
    {
        return qxtest::readFile(trashed.parent_path().parent_path() / "info" /
                                (trashed.filename().string() + ".trashinfo"));
    }

    fs::path root;
    qxtest::ScopedEnvironment environment;
};

} // namespace

TEST_F(TrashTest, HomeTrashKeepsTheOriginalPathAndTime)
{
    const fs::path item = makeFile(root / "media" / "Größe 100%.mkv");
    QXURL trashed;
    QXErrorRef error;
    ASSERT_TRUE(qx::trashItemAtURL(item, &trashed, &error)) << (error ? error->description() : "");
    EXPECT_EQ(trashed, root / "data" / "Trash" / "files" / "Größe 100%.mkv");
    EXPECT_FALSE(fs::exists(item));
    EXPECT_EQ(qxtest::readFile(trashed), "content");

    const std::string info = infoFor(trashed);
    const std::string expectedPath = "Path=" + QXTrashPercentEncode(item.string()) + "\n";
    EXPECT_EQ(info.rfind("[Trash Info]\n", 0), 0u) << info;
    EXPECT_NE(info.find(expectedPath), std::string::npos) << info;
    EXPECT_NE(info.find("Gr%C3%B6%C3%9Fe%20100%25.mkv"), std::string::npos) << info;
    std::smatch match;
    const std::regex date("DeletionDate=(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d)\n");
    ASSERT_TRUE(std::regex_search(info, match, date));
    // Local time of now, to the minute.
    std::tm tm {};
    strptime(match[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    tm.tm_isdst = -1;
    EXPECT_LE(std::abs(std::difftime(std::mktime(&tm), std::time(nullptr))), 60.0);

    // The trash folders are private.
    struct stat trashInfo {};
    ASSERT_EQ(stat((root / "data" / "Trash").c_str(), &trashInfo), 0);
    EXPECT_EQ(trashInfo.st_mode & 0777, 0700u);
}

TEST_F(TrashTest, NameCollisionsGetNumberedNames)
{
    QXURL first, second, third, folder1, folder2;
    ASSERT_TRUE(qx::trashItemAtURL(makeFile(root / "a" / "Film.mkv", "1"), &first));
    ASSERT_TRUE(qx::trashItemAtURL(makeFile(root / "b" / "Film.mkv", "2"), &second));
    // A leftover in files/ without its info file is not overwritten.
    makeFile(root / "data" / "Trash" / "files" / "Film.3.mkv", "stray");
    ASSERT_TRUE(qx::trashItemAtURL(makeFile(root / "c" / "Film.mkv", "3"), &third));
    EXPECT_EQ(first.filename(), "Film.mkv");
    EXPECT_EQ(second.filename(), "Film.2.mkv");
    EXPECT_EQ(third.filename(), "Film.4.mkv");
    EXPECT_EQ(qxtest::readFile(root / "data" / "Trash" / "files" / "Film.3.mkv"), "stray");
    EXPECT_NE(infoFor(second).find(QXTrashPercentEncode((root / "b" / "Film.mkv").string())), std::string::npos);

    // Folders, with their contents, and a trailing slash in the URL.
    makeFile(root / "x" / "Season 1" / "e1.mkv");
    makeFile(root / "y" / "Season 1" / "e2.mkv");
    ASSERT_TRUE(qx::trashItemAtURL(root / "x" / "Season 1", &folder1));
    ASSERT_TRUE(qx::trashItemAtURL((root / "y" / "Season 1").string() + "/", &folder2));
    EXPECT_EQ(folder2.filename(), "Season 1.2");
    EXPECT_TRUE(fs::exists(folder2 / "e2.mkv"));
}
