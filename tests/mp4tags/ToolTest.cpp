// qxmp4 tags / set / chapters, run as a user would (skipped when the tool
// has not been built beside the tests).

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "MP4TagsFixtures.h"

using namespace mp4tagstest;

namespace {

std::filesystem::path qxmp4()
{
    const auto self = std::filesystem::read_symlink("/proc/self/exe");
    return self.parent_path().parent_path() / "tools" / "qxmp4";
}

int runTool(const std::string& arguments, std::string* out = nullptr)
{
    return qxtest::run("'" + qxmp4().string() + "' " + arguments + " 2>&1", out);
}

} // namespace

TEST(MP4TagTool, SetThenReadBack)
{
    if (!std::filesystem::exists(qxmp4())) GTEST_SKIP() << "qxmp4 is not built";
    const auto dir = qxtest::makeTempDir("mp4tags-tool");
    const auto path = copyTo(taggedMovie(), dir, "tool.m4v");
    const std::string file = "'" + path.string() + "'";

    ASSERT_EQ(runTool("set " + file + " '\xc2\xa9nam=Neu \"quoted\"' '\\xa9" "ART=' trkn=4/9 cpil=true tvsn=70000 covr='" +
                      coverPath().string() + "' '----:com.apple.iTunes:iTunEXTC=mpaa|R|400|'"),
              0);
    std::string json;
    ASSERT_EQ(runTool("tags " + file, &json), 0);
    EXPECT_NE(json.find("\"\xc2\xa9nam\": \"Neu \\\"quoted\\\"\""), std::string::npos) << json;
    EXPECT_EQ(json.find("\xc2\xa9" "ART"), std::string::npos) << "an empty value removes";
    EXPECT_NE(json.find("\"trkn\": {\"index\": 4, \"total\": 9}"), std::string::npos) << json;
    EXPECT_NE(json.find("\"cpil\": true"), std::string::npos) << json;
    EXPECT_NE(json.find("\"tvsn\": 70000"), std::string::npos) << json;
    EXPECT_NE(json.find("\"covr\": [{\"type\": \"jpeg\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"name\": \"iTunEXTC\", \"type\": 1, \"value\": \"mpaa|R|400|\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"stik\": 9"), std::string::npos) << "untouched tags stay";

    std::string chapters;
    ASSERT_EQ(runTool("chapters " + file, &chapters), 0);
    EXPECT_NE(chapters.find("\"type\": \"qt\""), std::string::npos) << chapters;
    EXPECT_NE(chapters.find("{\"start_ms\": 1500, \"duration_ms\": 2500, \"title\": \"Middle part\"}"),
              std::string::npos)
        << chapters;
}

TEST(MP4TagTool, BadInputLeavesTheFileAlone)
{
    if (!std::filesystem::exists(qxmp4())) GTEST_SKIP() << "qxmp4 is not built";
    const auto dir = qxtest::makeTempDir("mp4tags-tool-bad");
    const auto path = copyTo(taggedMovie(), dir, "bad.m4v");
    const std::string file = "'" + path.string() + "'";
    const auto before = readBytes(path);

    struct Case {
        std::string arguments;
        std::string message;
    };
    const Case cases[] = {
        {"stik=256", "expected a number from 0 to 255"},
        {"nope=1", "unknown tag \"nope\""},
        {"toolong=1", "is not a four-character code"},
        {"trkn=3/x", "INDEX/TOTAL"},
        {"cpil=maybe", "expected true or false"},
        {"covr=/nonexistent.jpg", "cannot read the image"},
        {"----:onlymean=1", "----:MEAN:NAME"},
        {"novalue", "expected KEY=VALUE"},
    };
    for (const Case& c : cases) {
        std::string out;
        // A valid assignment first: nothing at all may be written.
        EXPECT_EQ(runTool("set " + file + " '\xc2\xa9nam=x' '" + c.arguments + "'", &out), 1) << c.arguments;
        EXPECT_NE(out.find(c.message), std::string::npos) << c.arguments << ": " << out;
    }
    EXPECT_EQ(readBytes(path), before);
}

// Files the tool must refuse: one line on stderr naming the file, status 1,
// the file as it was and no output left behind.
TEST(MP4TagTool, RefusalsSayOneLineAndWriteNothing)
{
    if (!std::filesystem::exists(qxmp4())) GTEST_SKIP() << "qxmp4 is not built";
    const auto dir = qxtest::makeTempDir("mp4tags-tool-refuse");
    const auto work = dir / "work";
    ASSERT_EQ(runTool("optimize '" + plainMovie().string() + "' '" + (dir / "fast.mp4").string() + "'"), 0);
    auto damaged = readBytes(dir / "fast.mp4"); // moov first, the end of mdat cut off
    damaged.resize(damaged.size() - 1000);
    std::vector<uint8_t> noise(4096);
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 7919 + 13);
    const std::string mkv = qxtest::readFile(qxtest::generate("mp4tags-tool.mkv", "-f lavfi -i testsrc2=duration=0.2 -c:v mpeg4"));
    struct Case {
        std::string command; // run in `work` on f.mp4
        std::vector<uint8_t> bytes;
    };
    const Case cases[] = {
        {"set f.mp4 '\xa9nam=x'", {}},
        {"set f.mp4 '\xa9nam=x'", {0x42}},
        {"set f.mp4 '\xa9nam=x'", noise},
        {"set f.mp4 '\xa9nam=x'", {mkv.begin(), mkv.end()}},
        {"set f.mp4 '\xa9nam=x'", damaged},
        {"tags f.mp4", damaged},
        {"chapters f.mp4", damaged},
        {"optimize f.mp4 out.mp4", damaged},
        {"optimize f.mp4 ./f.mp4", readBytes(dir / "fast.mp4")},
    };
    for (const Case& c : cases) {
        std::filesystem::remove_all(work);
        std::filesystem::create_directories(work);
        std::ofstream(work / "f.mp4", std::ios::binary)
            .write(reinterpret_cast<const char*>(c.bytes.data()), std::streamsize(c.bytes.size()));
        std::string out;
        EXPECT_EQ(qxtest::run("cd '" + work.string() + "' && '" + qxmp4().string() + "' " + c.command + " 2>&1", &out), 1)
            << c.command << ": " << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
        EXPECT_NE(out.find("f.mp4"), std::string::npos) << out;
        EXPECT_EQ(readBytes(work / "f.mp4"), c.bytes) << c.command;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(work), {}), 1) << c.command;
    }
    std::ofstream(work / "f.mp4", std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(damaged.data()), std::streamsize(damaged.size()));
    std::string out;
    qxtest::run("'" + qxmp4().string() + "' --verbose tags '" + (work / "f.mp4").string() + "' 2>&1 >/dev/null", &out);
    EXPECT_GT(std::count(out.begin(), out.end(), '\n'), 1) << "--verbose tells every step";
}
