// The facade: FFmpeg's log lines and the corruption check.

#include <gtest/gtest.h>

#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "qxmedia/core/QXMedia.h"
#include "support/TestMedia.h"

// av_log with a null class goes straight to the installed callback.
static void ffmpegLog(int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    QXAvcodecLogCallback(nullptr, level, format, arguments);
    va_end(arguments);
}

TEST(QXMediaLog, FFmpegLineAssembledFromPiecesAtSeverityOfLastPiece)
{
    QXMedia::sharedMedia();
    qxtest::LogCapture capture;
    ffmpegLog(AV_LOG_ERROR, "first %s, ", "piece");
    ffmpegLog(AV_LOG_WARNING, "100%% ");
    EXPECT_TRUE(capture.lines().empty());
    ffmpegLog(AV_LOG_WARNING, "last\n");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "first piece, 100% last");
    EXPECT_EQ(lines[0].flag, QXLogFlagWarning);
    // Debug lines are dropped before assembly; quiet ends a line without logging it.
    ffmpegLog(AV_LOG_DEBUG, "debug\n");
    ffmpegLog(AV_LOG_WARNING, "pending ");
    ffmpegLog(AV_LOG_QUIET, "quiet\n");
    ffmpegLog(AV_LOG_ERROR, "\nfresh\n\n");
    lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text, "fresh");
}

TEST(QXMediaLog, FFmpegLinesFromManyThreadsStayWhole)
{
    QXMedia::sharedMedia();
    qxtest::LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) ffmpegLog(AV_LOG_WARNING, "thread %d line %d\n", t, i);
        });
    for (auto& thread : threads) thread.join();
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 800u);
    for (const auto& line : lines) EXPECT_EQ(line.text.rfind("thread ", 0), 0u) << line.text;
}

// A copy of `source` whose moov ends in a box with an empty type, a box
// the MP4 layer reads but warns about.
static std::filesystem::path withSuspectBox(const std::filesystem::path& source, const std::filesystem::path& dir)
{
    std::string bytes = qxtest::readFile(source);
    const size_t moov = bytes.find("moov") - 4;
    auto* p = reinterpret_cast<uint8_t*>(bytes.data() + moov);
    uint32_t size = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
    bytes.insert(moov + size, std::string("\0\0\0\x08\0\0\0\0", 8));
    size += 8;
    p = reinterpret_cast<uint8_t*>(bytes.data() + moov);
    p[0] = uint8_t(size >> 24), p[1] = uint8_t(size >> 16), p[2] = uint8_t(size >> 8), p[3] = uint8_t(size);
    const auto path = dir / "suspect.mp4";
    qxtest::writeFile(path, bytes);
    return path;
}

TEST(QXMediaChecks, CorruptionCheckTellsDamagedFromIntact)
{
    const auto intact = qxtest::generate("core-intact.mp4", "-f lavfi -i testsrc=size=64x48:rate=5:d=0.4 "
                                                            "-pix_fmt yuv420p -movflags +faststart");
    ASSERT_FALSE(intact.empty());
    const auto dir = qxtest::makeTempDir("core-corruption");
    const std::pair<std::filesystem::path, bool> cases[] = {
        {intact, false},
        {withSuspectBox(intact, dir), true},
        {dir / "missing.mp4", true},
    };
    for (const auto& [path, damaged] : cases) {
        EXPECT_EQ(QXMedia::sharedMedia().checkMP4FileForCorruption(path), damaged) << path;
    }
}

