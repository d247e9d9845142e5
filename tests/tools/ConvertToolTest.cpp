// `qxconvert` run as a user runs it, in a child process: outputs checked
// with ffprobe, signals, outputs that are inputs, one-line failures.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/TestMedia.h"

namespace fs = std::filesystem;

namespace {

fs::path tool()
{
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "qxconvert";
}

struct Outcome {
    int status = -1; // the exit status, or 128 + the signal that ended it
    std::string out, err;

    size_t errorLines() const { return size_t(std::count(err.begin(), err.end(), '\n')); }
};

// Starts the tool in `folder` with stdout and stderr going to files there.
pid_t spawnTool(const std::vector<std::string>& arguments, const fs::path& folder, const fs::path& capture)
{
    std::vector<std::string> words {tool().string()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (capture.string() + ".out").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (capture.string() + ".err").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    // The signals at their defaults, as from a terminal, even when this test
    // runs in the background (where a shell ignores SIGINT).
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&defaults, signal);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ) != 0) pid = -1;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

Outcome waitFor(pid_t pid, const fs::path& capture)
{
    Outcome outcome;
    int raw = 0;
    if (pid > 0 && ::waitpid(pid, &raw, 0) == pid) {
        outcome.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
    outcome.out = qxtest::readFile(capture.string() + ".out");
    outcome.err = qxtest::readFile(capture.string() + ".err");
    fs::remove(capture.string() + ".out");
    fs::remove(capture.string() + ".err");
    return outcome;
}

// Captures go beside the folder the tool works in, so that its listing
// shows only what the tool made.
Outcome runTool(const std::vector<std::string>& arguments, const fs::path& folder)
{
    const fs::path capture = folder.parent_path() / (folder.filename().string() + "-capture");
    return waitFor(spawnTool(arguments, folder, capture), capture);
}

std::vector<std::string> listing(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string probe(const fs::path& file, const std::string& entries)
{
    std::string text;
    qxtest::run("ffprobe -v error " + entries + " -of csv=p=0 '" + file.string() + "'", &text);
    return text;
}

// Video, two audio tracks that both say "default", and two chapters.
fs::path chaptersSource()
{
    const fs::path chapters = qxtest::mediaDir() / "tool-chapters.ffmeta";
    qxtest::writeFile(chapters, ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1500\ntitle=First\n"
                                "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1500\nEND=3000\ntitle=Second\n");
    return qxtest::generate("tool-chapters.mkv",
                            "-f lavfi -i testsrc2=size=160x90:rate=25:duration=3 -f lavfi -i sine=duration=3"
                            " -f lavfi -i sine=frequency=880:duration=3 -i '" + chapters.string() +
                                "' -map 0 -map 1 -map 2 -map_chapters 3 -c:v libx264 -preset ultrafast"
                                " -c:a:0 aac -c:a:1 aac -disposition:a:0 default -disposition:a:1 default");
}

// Long enough (about 40 MB) that a run is still writing when a signal comes.
fs::path longSource()
{
    const fs::path base = qxtest::generate("tool-base.mkv", "-f lavfi -i testsrc2=size=320x180:rate=25:duration=120"
                                                            " -f lavfi -i sine=duration=120"
                                                            " -c:v libx264 -preset ultrafast -c:a aac");
    return qxtest::generate("tool-long.mkv", "-stream_loop 3 -i '" + base.string() + "' -c copy");
}

// The hidden file a run writes before the output gets its name.
std::optional<fs::path> partialIn(const fs::path& folder)
{
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path().filename().string().find(".part-") != std::string::npos) return entry.path();
    }
    return std::nullopt;
}

} // namespace

TEST(ConvertTool, RemuxKeepsTheChaptersAndOneEnabledAudioTrack)
{
    const fs::path source = chaptersSource();
    ASSERT_FALSE(source.empty());
    const fs::path dir = qxtest::makeTempDir("tool-remux");
    const Outcome outcome = runTool({"remux", source.string(), "-o", "out.m4v"}, dir);
    ASSERT_EQ(outcome.status, 0) << outcome.err;

    const fs::path output = dir / "out.m4v";
    EXPECT_EQ(probe(output, "-show_entries chapter_tags=title"), "First\nSecond\n");
    const std::string audio = probe(output, "-select_streams a -show_entries stream_disposition=default");
    EXPECT_EQ(std::count(audio.begin(), audio.end(), '\n'), 2) << audio;
    EXPECT_EQ(audio, "1\n0\n") << "only the first audio track stays enabled";
    const std::string pictures = "-select_streams v:0 -count_packets -show_entries stream=nb_read_packets";
    EXPECT_EQ(probe(output, pictures), probe(source, pictures)) << "every picture is copied";
    std::string errors;
    EXPECT_EQ(qxtest::run("ffmpeg -v error -i '" + output.string() + "' -f null - 2>&1", &errors), 0);
    EXPECT_EQ(errors, "");
}

class ConvertToolSignal : public ::testing::TestWithParam<int> {};

TEST_P(ConvertToolSignal, CancelsAndLeavesNoOutput)
{
    const int signal = GetParam();
    const fs::path source = longSource();
    ASSERT_FALSE(source.empty());
    const fs::path dir = qxtest::makeTempDir("tool-signal-" + std::to_string(signal));
    const fs::path capture = dir.parent_path() / ("signal-capture-" + std::to_string(signal));
    const pid_t pid = spawnTool({"convert", source.string(), "-o", "out.m4v"}, dir, capture);
    ASSERT_GT(pid, 0);

    // Stopped while the hidden file grows; the signal waits, blocked, until
    // the tool goes on.
    std::optional<fs::path> partial;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!(partial = partialIn(dir)) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::kill(pid, SIGSTOP);
    ASSERT_TRUE(partial) << "the run never started writing";
    const bool stillWriting = fs::exists(*partial);
    ::kill(pid, signal);
    ::kill(pid, SIGCONT);
    const Outcome outcome = waitFor(pid, capture);
    if (!stillWriting) GTEST_SKIP() << "the run ended before the signal";

    EXPECT_EQ(outcome.status, 128 + signal) << outcome.err;
    EXPECT_EQ(outcome.errorLines(), 1u) << outcome.err;
    EXPECT_TRUE(listing(dir).empty()) << "neither the output nor its partial file is left";
}

INSTANTIATE_TEST_SUITE_P(Signals, ConvertToolSignal, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST(ConvertTool, AnOutputThatIsAnInputIsRefusedBeforeAnythingIsTouched)
{
    const fs::path dir = qxtest::makeTempDir("tool-same");
    fs::copy_file(chaptersSource(), dir / "A.mkv");
    qxtest::writeFile(dir / "A.srt", "1\n00:00:00,000 --> 00:00:01,000\nHello\n\n");
    fs::create_symlink("A.mkv", dir / "link.mkv");
    fs::create_hard_link(dir / "A.mkv", dir / "hard.mkv");
    const auto size = fs::file_size(dir / "A.mkv");
    const auto written = fs::last_write_time(dir / "A.mkv");
    const auto before = listing(dir);

    const std::vector<std::vector<std::string>> commands = {
        {"remux", "A.mkv", "-o", "A.mkv"},
        {"remux", "A.mkv", "-o", "./A.mkv"},
        {"convert", "./A.mkv", "-o", dir.string() + "/../" + dir.filename().string() + "/A.mkv"},
        {"convert", "A.mkv", "-o", "link.mkv"},
        {"convert", "link.mkv", "-o", "A.mkv"},
        {"convert", "A.mkv", "-o", "hard.mkv"},
        {"convert", "A.mkv", "--subtitles", "A.srt", "-o", "A.srt"},
    };
    for (const auto& command : commands) {
        const Outcome outcome = runTool(command, dir);
        EXPECT_EQ(outcome.status, 2) << command.back() << ": " << outcome.err;
        EXPECT_EQ(outcome.errorLines(), 1u) << outcome.err;
        EXPECT_NE(outcome.err.find(command.back()), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(fs::file_size(dir / "A.mkv"), size);
    EXPECT_EQ(fs::last_write_time(dir / "A.mkv"), written);
    EXPECT_EQ(listing(dir), before);
}

TEST(ConvertTool, EveryFailureIsOneLineThatNamesTheFile)
{
    const fs::path dir = qxtest::makeTempDir("tool-failures");
    const fs::path source = chaptersSource();
    qxtest::writeFile(dir / "empty.mkv", "");
    qxtest::writeFile(dir / "noise.mkv", std::string(4096, '\x5a'));
    qxtest::writeFile(dir / "plain", "x");
    fs::create_directories(dir / "folder.mkv");
    struct Case {
        std::vector<std::string> arguments;
        std::string named; // the file the line must name
        int status;
    };
    const std::vector<Case> cases = {
        {{"convert", "empty.mkv", "-o", "out.m4v"}, "empty.mkv", 1},
        {{"convert", "noise.mkv", "-o", "out.m4v"}, "noise.mkv", 1},
        {{"convert", "folder.mkv", "-o", "out.m4v"}, "folder.mkv", 1},
        {{"convert", source.string(), "-o", "plain/out.m4v"}, "plain/out.m4v", 1},
        {{"convert", source.string(), "--subtitles", "none.srt", "-o", "out.m4v"}, "none.srt", 1},
        {{"convert", source.string(), "--preset", "nonesuch", "-o", "out.m4v"}, "nonesuch", 2},
        {{"info", "missing.mkv"}, "missing.mkv", 1},
    };
    const auto before = listing(dir);
    for (const Case& test : cases) {
        const Outcome outcome = runTool(test.arguments, dir);
        EXPECT_EQ(outcome.status, test.status) << test.named << ": " << outcome.err;
        EXPECT_EQ(outcome.errorLines(), 1u) << outcome.err;
        EXPECT_NE(outcome.err.find(test.named), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(listing(dir), before) << "a failed run leaves nothing behind";
}
