// The two item texts against independent tools: AtomicParsley writes them
// into an M4V, mediainfo and FFmpeg's demuxer read them back.

#include <gtest/gtest.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include "qxmedia/metadata/QXMetaData.h"
#include "support/TestMedia.h"

namespace {

std::string shellQuoted(const std::string& text)
{
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::filesystem::path baseMovie()
{
    return qxtest::generate("metadata-base.m4v", "-f lavfi -i testsrc2=size=160x120:rate=10:duration=1 "
                                                 "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -f ipod");
}

// The record FFmpeg's demuxer gives for a file's container tags.
std::shared_ptr<QXMetaData> recordOfFile(const std::filesystem::path& path)
{
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return nullptr;
    auto record = QXMetaData::initWithDictionary(context->metadata);
    avformat_close_input(&context);
    return record;
}

bool haveTools()
{
    return qxtest::haveTool("AtomicParsley") && qxtest::haveTool("mediainfo") && qxtest::haveTool("ffmpeg");
}

} // namespace

TEST(MetaDataInterop, TextsWrittenHereAreReadByMediainfo)
{
    if (!haveTools()) GTEST_SKIP() << "AtomicParsley, mediainfo or ffmpeg missing";
    const auto base = baseMovie();
    ASSERT_FALSE(base.empty());
    const auto dir = qxtest::makeTempDir("metadata-interop-out");

    auto record = QXMetaData::init();
    record->actors.set(QXStringList {"Anna Actor", "Ben O'Player"});
    record->directors.set(QXStringList {"Dora Director"});
    record->studio.set(std::string("Studio & Sons"));
    record->videoKind = 10;
    record->contentRating = 600;
    const std::string movi = *record->iTunMOVI();
    const std::string extc = *record->contentRatingStringMP4();
    EXPECT_EQ(extc, "us-tv|TV-MA|600|");

    const auto out = dir / "out.m4v";
    const std::string command = "AtomicParsley " + shellQuoted(base.string()) + " --rDNSatom " + shellQuoted(movi) +
                                " name=iTunMOVI domain=com.apple.iTunes --rDNSatom " + shellQuoted(extc) +
                                " name=iTunEXTC domain=com.apple.iTunes -o " + shellQuoted(out.string()) +
                                " >/dev/null 2>&1";
    ASSERT_EQ(qxtest::run(command), 0);

    std::string json;
    ASSERT_EQ(qxtest::run("mediainfo --Output=JSON " + shellQuoted(out.string()), &json), 0);
    EXPECT_NE(json.find("\"Actor\": \"Anna Actor / Ben O'Player\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"Director\": \"Dora Director\""), std::string::npos);
    EXPECT_NE(json.find("\"ProductionStudio\": \"Studio & Sons\""), std::string::npos);
    EXPECT_NE(json.find("\"ContentRating\": \"us-tv|TV-MA|600|\""), std::string::npos);

    // And the file's texts come back into a record.
    auto back = recordOfFile(out);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back->actors.get(), *record->actors.get());
    EXPECT_EQ(*back->studio.get(), "Studio & Sons");
    EXPECT_EQ(back->contentRating, 600u);
}

TEST(MetaDataInterop, TextsWrittenByAtomicParsleyAreReadHere)
{
    if (!haveTools()) GTEST_SKIP() << "AtomicParsley, mediainfo or ffmpeg missing";
    const auto base = baseMovie();
    ASSERT_FALSE(base.empty());
    const auto dir = qxtest::makeTempDir("metadata-interop-in");

    // A credits list in another hand's layout: no DOCTYPE, no indentation,
    // an element without a name.
    const std::string movi = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                             "<key>screenwriters</key><array><dict><key>name</key><string>Walt Writer</string>"
                             "</dict><dict/></array><key>producers</key><array><dict><key>name</key>"
                             "<string>Pat Producer</string></dict></array></dict></plist>";
    const auto out = dir / "ap.m4v";
    const std::string command = "AtomicParsley " + shellQuoted(base.string()) + " --contentRating 'PG-13'" +
                                " --rDNSatom " + shellQuoted(movi) + " name=iTunMOVI domain=com.apple.iTunes -o " +
                                shellQuoted(out.string()) + " >/dev/null 2>&1";
    ASSERT_EQ(qxtest::run(command), 0);

    auto record = recordOfFile(out);
    ASSERT_TRUE(record);
    EXPECT_EQ(*record->screenwriters.get(), QXStringList {"Walt Writer"});
    EXPECT_EQ(*record->producers.get(), QXStringList {"Pat Producer"});
    EXPECT_TRUE(record->actors.isNull());
    EXPECT_EQ(record->contentRating, 300u);
    record->videoKind = 9;
    EXPECT_EQ(record->contentRatingStringMP4(), "mpaa|PG-13|300|");
}
