// The Matroska walk against mkvinfo: the top-level elements of each segment
// and their sizes agree, also for a live stream whose segment and clusters
// have unknown sizes; damaged and foreign files end the walk with a log line.

#include <fstream>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/matroska/QXMatroskaWalk.h"
#include "support/TestMedia.h"

namespace {

using Parts = std::vector<std::pair<std::string, uint64_t>>;

const char* const kTopLevel = "Seek head|EBML void|Segment information|Tracks|Tags|Cluster|Cues|Attachments|Chapters";

Parts mkvinfoParts(const std::filesystem::path& file)
{
    std::string output;
    qxtest::run("mkvinfo -a -z '" + file.string() + "'", &output);
    const std::regex line(std::string(R"(^\|\+ ()") + kTopLevel + R"()\b.* size (\d+) data size \d+)");
    Parts parts;
    std::istringstream lines(output);
    std::string text;
    std::smatch m;
    while (std::getline(lines, text)) {
        if (std::regex_search(text, m, line)) parts.emplace_back(m[1], std::stoull(m[2]));
    }
    return parts;
}

Parts walkParts(const std::vector<qxtest::LogLine>& log)
{
    const std::regex line(std::string("^(") + kTopLevel + R"(): (\d+)$)");
    Parts parts;
    std::smatch m;
    for (const auto& entry : log) {
        if (std::regex_match(entry.text, m, line)) parts.emplace_back(m[1], std::stoull(m[2]));
    }
    return parts;
}

std::filesystem::path mkvmergeFile()
{
    const auto path = qxtest::mediaDir() / "walk-mkvmerge.mkv";
    if (std::filesystem::exists(path)) return path;
    const auto source = qxtest::generate("walk-source.mkv", "-f lavfi -i testsrc=size=160x120:rate=25:duration=2 "
                                                            "-f lavfi -i sine=duration=2 -c:v mpeg4 -c:a aac");
    const auto dir = qxtest::makeTempDir("walk");
    qxtest::writeFile(dir / "chapters.txt", "CHAPTER01=00:00:00.000\nCHAPTER01NAME=One\n"
                                            "CHAPTER02=00:00:01.000\nCHAPTER02NAME=Two\n");
    qxtest::writeFile(dir / "note.txt", "attached");
    qxtest::writeFile(dir / "tags.xml", "<Tags><Tag><Simple><Name>ARTIST</Name><String>Someone</String></Simple>"
                                        "</Tag></Tags>");
    const auto partial = dir / "out.mkv";
    const std::string command = "mkvmerge -q -o '" + partial.string() + "' --chapters '" +
                                (dir / "chapters.txt").string() + "' --global-tags '" + (dir / "tags.xml").string() +
                                "' --attachment-mime-type text/plain --attach-file '" + (dir / "note.txt").string() +
                                "' '" + source.string() + "'";
    if (source.empty() || qxtest::run(command) != 0) return {};
    std::filesystem::rename(partial, path);
    return path;
}

std::filesystem::path sampleFile(const std::string& kind)
{
    if (kind == "mkvmerge") return mkvmergeFile();
    const std::string input = "-f lavfi -i testsrc=size=160x120:rate=25:duration=2 -f lavfi -i sine=duration=2 "
                              "-c:v mpeg4 -c:a aac -metadata title=Walk -metadata:s:a:0 language=ger ";
    if (kind == "ffmpeg") return qxtest::generate("walk-ffmpeg.mkv", input);
    return qxtest::generate("walk-live.mkv", input + "-f matroska -live 1");
}

class MatroskaWalkAgainstMkvinfo : public testing::TestWithParam<std::string> {};

TEST_P(MatroskaWalkAgainstMkvinfo, TopLevelElementsAndSizesAgree)
{
    if (!qxtest::haveTool("mkvinfo") || !qxtest::haveTool("mkvmerge")) GTEST_SKIP() << "mkvtoolnix missing";
    const auto file = sampleFile(GetParam());
    ASSERT_FALSE(file.empty());
    qxtest::LogCapture log;
    QXMatroskaWalk::initWithMKVURL(file);
    const Parts walked = walkParts(log.lines());
    EXPECT_EQ(walked, mkvinfoParts(file));
    EXPECT_TRUE(log.contains("Document Type: matroska"));
    // Clusters are never parsed into a logged tree: no sample data reaches the log.
    for (const auto& line : log.lines()) EXPECT_EQ(line.text.find("SimpleBlock"), std::string::npos);
    EXPECT_FALSE(log.contains("", QXLogFlagWarning));
    // The small elements are logged as trees of their values.
    if (GetParam() != "mkvmerge") {
        EXPECT_TRUE(log.contains("{Title = \"Walk\"}"));
    } else {
        EXPECT_TRUE(log.contains("KaxTagSimple"));
        EXPECT_TRUE(log.contains("Attachments: "));
        EXPECT_TRUE(log.contains("Chapters: "));
    }
}

INSTANTIATE_TEST_SUITE_P(Files, MatroskaWalkAgainstMkvinfo, testing::Values("ffmpeg", "live", "mkvmerge"));

TEST(MatroskaWalk, DamagedAndForeignFilesEndWithALogLine)
{
    const auto file = sampleFile("ffmpeg");
    ASSERT_FALSE(file.empty());
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto dir = qxtest::makeTempDir("walk-damage");

    std::string flipped = bytes;
    for (size_t i = 200; i < flipped.size(); i += 997) flipped[i] = char(~flipped[i]);
    const struct {
        const char* name;
        std::string content;
        const char* logged;
    } cases[] = {
        {"not Matroska", "RIFF....WAVEfmt not a matroska file at all", "No EBML head found."},
        {"empty", "", "No EBML head found."},
        {"cut in a cluster", bytes.substr(0, bytes.size() * 2 / 3), "The file ends inside Cluster"},
        {"cut after the head", bytes.substr(0, 60), "Document Type: matroska"},
        {"bytes flipped", flipped, "EBML Version: 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = dir / "damaged.mkv";
        qxtest::writeFile(path, c.content);
        qxtest::LogCapture log;
        QXMatroskaWalk::initWithMKVURL(path);
        EXPECT_TRUE(log.contains(c.logged));
        if (std::string(c.logged).rfind("No EBML", 0) == 0) {
            EXPECT_EQ(log.lines().size(), 2u); // "OK" and the message
        }
    }

    qxtest::LogCapture log;
    QXMatroskaWalk::initWithMKVURL(dir / "missing.mkv");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].text, "Fail!");
}

} // namespace
