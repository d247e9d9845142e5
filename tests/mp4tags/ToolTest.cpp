// qxmp4 tags / set / chapters, run as a user would (skipped when the tool
// has not been built beside the tests).

#include <gtest/gtest.h>

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

    std::string out;
    EXPECT_NE(runTool("set " + file, &out), 0);
    EXPECT_NE(runTool("tags '" + (dir / "missing.m4v").string() + "'", &out), 0);
    qxtest::writeFile(dir / "text.mp4", "not a movie at all");
    EXPECT_NE(runTool("set '" + (dir / "text.mp4").string() + "' '\xc2\xa9nam=x'", &out), 0);
    EXPECT_EQ(qxtest::readFile(dir / "text.mp4"), "not a movie at all");
}
