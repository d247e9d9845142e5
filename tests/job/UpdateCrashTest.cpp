// `qxconvert update` killed at random moments and run on a full disk: the
// file always decodes, keeps every packet, and holds the old or the new
// tags. The update adds tracks and chapters to a file without room after
// its movie box, so the box has to move to the end.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <thread>

#include "support/TestMedia.h"

namespace fs = std::filesystem;

namespace {

fs::path tool()
{
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "qxconvert";
}

class UpdateCrash : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(tool()) || !qxtest::haveTool("AtomicParsley")) GTEST_SKIP() << "needs qxconvert and AtomicParsley";
        original = qxtest::generate("update-crash.mp4",
                                    "-f lavfi -i testsrc2=size=320x180:rate=25:duration=6"
                                    " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=6 -metadata title=Before"
                                    " -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -b:a 64k");
        ASSERT_FALSE(original.empty());
        folder = qxtest::makeTempDir("update-crash");
        qxtest::writeFile(folder / "extra.srt", "1\n00:00:01,000 --> 00:00:02,000\nHello\n");
        qxtest::writeFile(folder / "chapters.txt", "00:00:00.000 One\n00:00:02.000 Two\n00:00:04.000 Three\n");
        packets = hashes(original);
    }

    std::vector<std::string> arguments(const fs::path& file) const
    {
        return {tool().string(), "update",      file.string(), "--set", "name=After",
                "--chapters",    (folder / "chapters.txt").string(), "--subtitles", (folder / "extra.srt").string()};
    }

    static pid_t spawn(const std::vector<std::string>& arguments)
    {
        std::vector<char*> argv;
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            ::freopen("/dev/null", "w", stdout);
            ::freopen("/dev/null", "w", stderr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        return child;
    }

    static int waitFor(pid_t child)
    {
        int status = 0;
        ::waitpid(child, &status, 0);
        return status;
    }

    // The packets of the streams the source had, in its order.
    std::string hashes(const fs::path& file) const
    {
        std::string text;
        qxtest::run("ffmpeg -v error -i '" + file.string() + "' -map 0:0 -map 0:1 -c copy -f streamhash -", &text);
        return text;
    }

    // Decodes cleanly, same packets, and AtomicParsley reads the old or the new title.
    void expectIntact(const fs::path& file, const std::string& when) const
    {
        std::string text;
        EXPECT_EQ(qxtest::run("ffmpeg -v error -i '" + file.string() + "' -f null - 2>&1", &text), 0) << when;
        EXPECT_EQ(text, "") << when;
        EXPECT_EQ(hashes(file), packets) << when;
        EXPECT_EQ(qxtest::run("AtomicParsley '" + file.string() + "' -t", &text), 0) << when;
        const bool before = text.find("Before") != std::string::npos, after = text.find("After") != std::string::npos;
        EXPECT_TRUE(before != after) << when << ": " << text;
    }

    fs::path original, folder;
    std::string packets;
};

// Waits until the file starts to grow (the first write of the edit) or the
// child ends; true in the first case.
bool waitForFirstWrite(pid_t child, const fs::path& file, uintmax_t size)
{
    while (fs::file_size(file) == size) {
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) == child) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

TEST_F(UpdateCrash, KilledAtAnyMomentLeavesTheOldOrTheNewFile)
{
    const fs::path file = folder / "killed.mp4";
    fs::copy_file(original, file);
    const uintmax_t size = fs::file_size(file);
    // How long the writes of a complete update take, from the first one.
    pid_t child = spawn(arguments(file));
    ASSERT_TRUE(waitForFirstWrite(child, file, size));
    const auto firstWrite = std::chrono::steady_clock::now();
    ASSERT_EQ(waitFor(child), 0);
    const auto span = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - firstWrite);
    expectIntact(file, "after a complete update");

    // Each kill lands somewhere between the first write and the end.
    std::mt19937 random(20261123);
    std::uniform_int_distribution<int64_t> moment(0, span.count());
    for (int round = 0; round < 20; ++round) {
        fs::copy_file(original, file, fs::copy_options::overwrite_existing);
        child = spawn(arguments(file));
        const auto delay = std::chrono::microseconds(moment(random));
        if (waitForFirstWrite(child, file, size)) {
            std::this_thread::sleep_for(delay);
            ::kill(child, SIGKILL);
        }
        waitFor(child);
        const std::string when = "killed " + std::to_string(delay.count()) + " us after the first write";
        expectIntact(file, when);
        // The next edit clears what the killed one left and completes.
        EXPECT_EQ(waitFor(spawn(arguments(file))), 0) << when;
        expectIntact(file, when + ", then updated");
    }
}

TEST_F(UpdateCrash, AFullDiskLeavesTheOldFile)
{
    const fs::path mountPoint = folder / "small";
    fs::create_directories(mountPoint);
    // Room for the file and one more page: not for the added samples and
    // the moved movie box.
    const uint64_t pages = (fs::file_size(original) + 4095) / 4096 + 1;
    const std::string options = "size=" + std::to_string(pages * 4096);
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, options.c_str()) != 0) GTEST_SKIP() << "cannot mount a tmpfs";
    const std::unique_ptr<const char, void (*)(const char*)> unmount(mountPoint.c_str(), [](const char* p) { ::umount(p); });
    const fs::path file = mountPoint / "full.mp4";
    fs::copy_file(original, file);
    const int status = waitFor(spawn(arguments(file)));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    expectIntact(file, "on a full disk");
    std::string text;
    qxtest::run("AtomicParsley '" + file.string() + "' -t", &text);
    EXPECT_NE(text.find("Before"), std::string::npos) << text;
    EXPECT_EQ(fs::file_size(file), fs::file_size(original));
}

} // namespace
