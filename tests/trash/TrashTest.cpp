// Moving files to the trash: home and volume trashes, info files, name collisions, errors.

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
    static std::string uid() { return std::to_string(getuid()); }

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

TEST_F(TrashTest, HomeTrashLocationAndSymbolicLinks)
{
    // Without XDG_DATA_HOME (or with a relative one) the trash is in HOME.
    environment.set("XDG_DATA_HOME", "relative/data");
    const fs::path target = makeFile(root / "target.txt");
    fs::create_symlink(target, root / "link.txt");
    QXURL trashed;
    ASSERT_TRUE(qx::trashItemAtURL(root / "link.txt", &trashed));
    EXPECT_EQ(trashed, root / "home" / ".local" / "share" / "Trash" / "files" / "link.txt");
    // The link moved; what it pointed to stayed.
    EXPECT_TRUE(fs::is_symlink(trashed));
    EXPECT_TRUE(fs::exists(target));

    QXErrorRef error;
    EXPECT_FALSE(qx::trashItemAtURL(root / "missing.txt", nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSFileNoSuchFileError);
}

TEST_F(TrashTest, VolumeTrashes)
{
    // No .Trash: the personal .Trash-$uid is made, private.
    const fs::path volume = root / "volume";
    fs::create_directories(volume);
    auto trash = QXVolumeTrashDirectory(volume);
    ASSERT_TRUE(trash);
    EXPECT_EQ(trash->path, volume / (".Trash-" + uid()));
    struct stat info {};
    ASSERT_EQ(stat(trash->path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);

    // Entries of a volume trash hold the path relative to the volume.
    const fs::path item = makeFile(volume / "Movies" / "a b.mp4");
    QXURL trashed;
    ASSERT_TRUE(QXMoveItemToTrashDirectory(item, *trash, &trashed));
    EXPECT_EQ(trashed, trash->path / "files" / "a b.mp4");
    EXPECT_NE(infoFor(trashed).find("\nPath=Movies/a%20b.mp4\n"), std::string::npos) << infoFor(trashed);

    // A shared .Trash counts only as a real directory with the sticky bit.
    const fs::path shared = root / "shared";
    fs::create_directories(shared / ".Trash");
    EXPECT_EQ(QXVolumeTrashDirectory(shared)->path, shared / (".Trash-" + uid())); // no sticky bit
    chmod((shared / ".Trash").c_str(), 01777);
    EXPECT_EQ(QXVolumeTrashDirectory(shared)->path, shared / ".Trash" / uid());
    const fs::path linked = root / "linked";
    fs::create_directories(linked);
    fs::create_directory_symlink(shared / ".Trash", linked / ".Trash");
    EXPECT_EQ(QXVolumeTrashDirectory(linked)->path, linked / (".Trash-" + uid()));

    // A .Trash-$uid that is no directory makes the volume trash unusable.
    const fs::path blocked = root / "blocked";
    makeFile(blocked / (".Trash-" + uid()), "not a folder");
    EXPECT_FALSE(QXVolumeTrashDirectory(blocked));

    EXPECT_EQ(QXTrashPercentEncode("/a b/ü%#?"), "/a%20b/%C3%BC%25%23%3F");
}

TEST_F(TrashTest, OtherDeviceUsesItsOwnTrashOrIsUnsupported)
{
    // /dev/shm is a separate tmpfs on Linux: a volume of its own.
    const fs::path shm = "/dev/shm";
    struct stat shmInfo {}, homeInfo {};
    if (stat(shm.c_str(), &shmInfo) != 0 || stat(root.c_str(), &homeInfo) != 0 || shmInfo.st_dev == homeInfo.st_dev ||
        access(shm.c_str(), W_OK) != 0) {
        GTEST_SKIP() << "no writable second file system";
    }
    const fs::path topdir = QXMountPointOfPath(shm);
    const fs::path personal = topdir / (".Trash-" + uid());
    if (fs::exists(fs::symlink_status(personal)) || fs::exists(fs::symlink_status(topdir / ".Trash"))) {
        GTEST_SKIP() << "the volume has a trash already";
    }
    const fs::path dir = shm / ("qx-trash-test-" + std::to_string(getpid()));
    fs::create_directories(dir);

    // Unsupported: the personal trash name is taken by a plain file.
    makeFile(personal, "blocker");
    const fs::path item = makeFile(dir / "item.txt");
    QXErrorRef error;
    EXPECT_FALSE(qx::trashItemAtURL(item, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSFeatureUnsupportedError);
    EXPECT_TRUE(fs::exists(item));
    fs::remove(personal);

    // With the name free, the item goes to the volume's own trash.
    QXURL trashed;
    EXPECT_TRUE(qx::trashItemAtURL(item, &trashed));
    EXPECT_EQ(trashed, personal / "files" / "item.txt");
    EXPECT_FALSE(fs::exists(item));
    fs::remove_all(personal);
    fs::remove_all(dir);
}
