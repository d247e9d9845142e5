// The facade: error texts, the log callback, FFmpeg's and the MP4 layer's log lines, and its checks.

#include <gtest/gtest.h>

#include <thread>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4Log.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "support/TestMedia.h"

namespace {

std::string descriptionOf(const QXErrorRef& error)
{
    return error->localizedDescription();
}

} // namespace

TEST(QXMediaErrors, DescriptionTable)
{
    qxtest::LogCapture capture;
    EXPECT_EQ(descriptionOf(QXMedia::errorWithDomain(QXMediaErrorDomain, -13001)), "Failed to open File");
    EXPECT_EQ(descriptionOf(QXMedia::errorWithDomain(QXMediaErrorDomain, -13011, {{AVErrorPersistentTrackIDKey, 7}})),
              "Invalid persistent track ID: 7");
    EXPECT_EQ(descriptionOf(QXMedia::errorWithDomain(QXMediaErrorDomain, -11834, {{AVErrorMediaSubTypeKey, "hvc1"}})),
              "The requested encoder for format hvc1 was not found");

    // Codes without a row of their own take FFmpeg's text.
    char text[64] = {};
    av_strerror(-13008, text, sizeof text);
    EXPECT_EQ(descriptionOf(QXMedia::errorWithDomain(QXMediaErrorDomain, -13008)), text);

    // Every error is logged as it is made, as an error line.
    EXPECT_TRUE(capture.contains("Failed to open File", QXLogFlagError));
    for (const auto& line : capture.lines()) EXPECT_FALSE(line.log);
}

TEST(QXMediaErrors, GivenDescriptionWinsAndOtherDomains)
{
    auto kept = QXMedia::errorWithDomain(QXMediaErrorDomain, -13001, {{NSLocalizedDescriptionKey, "mine"}});
    EXPECT_EQ(kept->localizedDescription(), "mine");

    // 'wha?' in the low 32 bits; the high bits are ignored.
    const int64_t code = int64_t(0x100000000LL) | 0x7768613fLL;
    auto status = QXMedia::errorWithDomain(NSOSStatusErrorDomain, code);
    EXPECT_EQ(status->localizedDescription(), "Error number " + std::to_string(code) + " (wha?) occurred");

    auto other = QXMedia::errorWithDomain(NSPOSIXErrorDomain, 2);
    EXPECT_EQ(other->userInfo().count(NSLocalizedDescriptionKey), 0u);

    // Domains are told apart by identity, not by text.
    const char lookalike[] = "QXMediaErrorDomain";
    auto foreign = QXMedia::errorWithDomain(lookalike, -13001);
    EXPECT_EQ(foreign->userInfo().count(NSLocalizedDescriptionKey), 0u);
}

TEST(QXMediaErrors, LocalisedRowsPassThroughTheTranslator)
{
    QXSetTranslator([](std::string_view key) -> std::string {
        return key.rfind("Corrupted", 0) == 0 ? "Beschädigt" : "";
    });
    EXPECT_EQ(QXMedia::errorWithDomain(QXMediaErrorDomain, -13003)->localizedDescription(), "Beschädigt");
    EXPECT_EQ(QXMedia::errorWithDomain(QXMediaErrorDomain, -13006)->localizedDescription(),
              "iTunes did not accept this video file for unknown reasons");
    QXSetTranslator(nullptr);
    EXPECT_EQ(QXMedia::errorWithDomain(QXMediaErrorDomain, -13003)->localizedDescription(),
              "Corrupted file structure detected. Editing file not possible.");
}

TEST(QXMediaLog, CallbackGetsUnexpandedFormatAndPlace)
{
    std::string format;
    std::string expanded;
    uint64_t line = 0;
    QXMedia::sharedMedia().setLogCallback([&](bool, int32_t, int32_t context, const char*, const char*, uint64_t l,
                                              const QXValue* tag, const char* f, va_list arguments) {
        EXPECT_EQ(context, 0);
        EXPECT_EQ(tag, nullptr);
        format = f;
        line = l;
        char buffer[256];
        vsnprintf(buffer, sizeof buffer, f, arguments);
        expanded = buffer;
    });
    const uint64_t here = __LINE__ + 1;
    QXLogWarning("%d%% of %s", 50, "file");
    QXMedia::sharedMedia().setLogCallback(nullptr);
    EXPECT_EQ(format, "%d%% of %s");
    EXPECT_EQ(expanded, "50% of file");
    EXPECT_EQ(line, here);
    QXLogError("nobody listens"); // no callback: nothing happens
}

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
    EXPECT_TRUE(lines[0].log);

    // Levels above the FFmpeg level are dropped before assembly.
    ffmpegLog(AV_LOG_DEBUG, "debug\n");
    // Quiet ends a line without logging it.
    ffmpegLog(AV_LOG_WARNING, "pending ");
    ffmpegLog(AV_LOG_QUIET, "quiet\n");
    ffmpegLog(AV_LOG_ERROR, "\nfresh\n\n");
    lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text, "fresh");
    EXPECT_EQ(lines[1].flag, QXLogFlagError);
    EXPECT_FALSE(lines[1].log);
}

TEST(QXMediaLog, FFmpegLinesFromManyThreadsStayWhole)
{
    QXMedia::sharedMedia();
    qxtest::LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) ffmpegLog(AV_LOG_WARNING, "thread %d line %d\n", t, i);
        });
    }
    for (auto& thread : threads) thread.join();
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 800u);
    for (const auto& line : lines) EXPECT_EQ(line.text.rfind("thread ", 0), 0u) << line.text;
}

static void mp4Log(int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    QXMp4v2LogCallback(level, format, arguments);
    va_end(arguments);
}

TEST(QXMediaLog, MP4LayerLevelsMapToFlags)
{
    qxtest::LogCapture capture;
    mp4Log(1, "%s: invalid atom size %llu", "moov", 99ull);
    mp4Log(2, "atom type %s is suspect", "");
    mp4Log(3, "info");
    mp4Log(6, "verbose");
    mp4Log(9, "ignored");
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].flag, QXLogFlagError);
    EXPECT_EQ(lines[0].text, "moov: invalid atom size 99");
    EXPECT_EQ(lines[1].flag, QXLogFlagWarning);
    EXPECT_EQ(lines[3].flag, QXLogFlagVerbose);
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

TEST(QXMediaChecks, HardwareEncoderListLoggedOnce)
{
    qxtest::LogCapture capture;
    const bool first = QXMedia::sharedMedia().hasHardwareHEVCEncoder();
    const bool second = QXMedia::sharedMedia().hasHardwareHEVCEncoder();
    EXPECT_EQ(first, second);
    size_t headers = 0;
    for (const auto& line : capture.lines()) headers += line.text == "Available encoders:";
    EXPECT_EQ(headers, 1u) << "the list is logged on the first question and not again";
    EXPECT_TRUE(capture.contains("libx264: ", QXLogFlagInfo)) << "each encoder has a line";
}
