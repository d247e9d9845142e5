// Tags on real files, checked against AtomicParsley, mediainfo and ffprobe.

#include <gtest/gtest.h>

#include "MP4TagsFixtures.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4TagBoxes.h"
#include "qxmedia/mp4/tags/MP4Tags.h"

using namespace qx::mp4;
using namespace mp4tagstest;

namespace {

const std::string kMovi = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>cast</key>"
                          "<array><dict><key>name</key><string>Jane Doe</string></dict></array><key>studio</key>"
                          "<string>ACME</string></dict></plist>\n";

MP4Tags richTags(const std::vector<uint8_t>& cover)
{
    MP4Tags tags;
    tags.name = "The \xc3\x9c" "bertitle";
    tags.artist = "Some Artist";
    tags.album = "Album";
    tags.comments = "Comment";
    tags.genre = "Drama";
    tags.releaseDate = "2020-05-01T10:00:00Z";
    tags.track = MP4TagTrack {3, 12};
    tags.disk = MP4TagDisk {1, 2};
    tags.tvShow = "Show";
    tags.tvSeason = 2;
    tags.tvEpisode = 5;
    tags.mediaType = 10;
    tags.hdVideo = 1;
    tags.contentRating = 0;
    tags.compilation = false;
    tags.gapless = false;
    tags.longDescription = "A long description.";
    tags.playlistID = 0x100000001ull;
    tags.artwork = {{cover, MP4_ART_JPEG}};
    return tags;
}

void writeRichTags(const std::filesystem::path& path, const std::vector<uint8_t>& cover)
{
    auto file = MP4File::modify(path);
    ASSERT_TRUE(file);
    MP4Tags tags;
    ASSERT_TRUE(MP4TagsFetch(tags, *file));
    const MP4Tags wanted = richTags(cover);
    ASSERT_TRUE(MP4TagsStore(wanted, *file));
    ASSERT_TRUE(MP4ItmfAddItem(*file, MP4ItmfItemAlloc("com.apple.iTunes", "iTunEXTC", "mpaa|PG-13|300|")));
    ASSERT_TRUE(MP4ItmfAddItem(*file, MP4ItmfItemAlloc("com.apple.iTunes", "iTunMOVI", kMovi)));
    ASSERT_TRUE(file->close());
}

} // namespace

TEST(MP4TagFiles, TagsWrittenHereAreReadByOtherTools)
{
    const auto dir = qxtest::makeTempDir("mp4tags-written");
    const auto path = copyTo(plainMovie(), dir, "tagged.m4v");
    const auto cover = coverJpeg();
    ASSERT_FALSE(cover.empty());
    writeRichTags(path, cover);

    // The layer itself.
    {
        auto file = MP4File::read(path);
        ASSERT_TRUE(file);
        MP4Tags back;
        ASSERT_TRUE(MP4TagsFetch(back, *file));
        MP4Tags expected = richTags(cover);
        expected.encodingTool = back.encodingTool; // ffmpeg's own, kept
        EXPECT_EQ(back, expected);
        const auto extc = MP4ItmfGetItemsByMeaning(*file, "com.apple.iTunes", "iTunEXTC");
        ASSERT_EQ(extc.size(), 1u);
        EXPECT_EQ(text(extc[0]), "mpaa|PG-13|300|");
    }

    if (qxtest::haveTool("AtomicParsley")) {
        const std::string ap = output("AtomicParsley '" + path.string() + "' -t");
        EXPECT_EQ(ap.rfind("\xef\xbb\xbf", 0), 0u) << "AtomicParsley's output starts with a byte order mark";
        EXPECT_NE(ap.find("Atom \"\xc2\xa9nam\" contains: The \xc3\x9c" "bertitle"), std::string::npos) << ap;
        EXPECT_NE(ap.find("Atom \"trkn\" contains: 3 of 12"), std::string::npos) << ap;
        EXPECT_NE(ap.find("Atom \"disk\" contains: 1 of 2"), std::string::npos) << ap;
        EXPECT_NE(ap.find("Atom \"stik\" contains: TV Show"), std::string::npos) << ap;
        EXPECT_NE(ap.find("[com.apple.iTunes;iTunEXTC] contains: mpaa|PG-13|300|"), std::string::npos) << ap;

        // -E writes the artwork next to the file, named after it.
        output("cd '" + dir.string() + "' && AtomicParsley tagged.m4v -E");
        EXPECT_EQ(readBytes(dir / "tagged_artwork_1.jpg"), cover);
    }

    if (qxtest::haveTool("mediainfo")) {
        const std::string info = output("mediainfo --Output=JSON '" + path.string() + "'");
        EXPECT_NE(info.find("\"Title\": \"The \xc3\x9c" "bertitle\""), std::string::npos) << info;
        EXPECT_NE(info.find("\"Track_Position_Total\": \"12\""), std::string::npos);
        EXPECT_NE(info.find("\"Actor\": \"Jane Doe\""), std::string::npos) << "iTunMOVI cast list";
        EXPECT_NE(info.find("\"Cover\": \"Yes\""), std::string::npos);
    }

    const std::string probe = output("ffprobe -v error -show_format -of json '" + path.string() + "'");
    EXPECT_NE(probe.find("\"title\": \"The \xc3\x9c" "bertitle\""), std::string::npos) << probe;
    EXPECT_NE(probe.find("\"disc\": \"1/2\""), std::string::npos) << probe;
    EXPECT_NE(probe.find("\"date\": \"2020-05-01T10:00:00Z\""), std::string::npos) << probe;
}

TEST(MP4TagFiles, TagsWrittenByOtherToolsAreReadHere)
{
    // ffmpeg's ipod muxer.
    {
        auto file = MP4File::read(taggedMovie());
        ASSERT_TRUE(file);
        MP4Tags tags;
        ASSERT_TRUE(MP4TagsFetch(tags, *file));
        EXPECT_EQ(tags.name, "Film Title");
        EXPECT_EQ(tags.comments, "Hello");
        EXPECT_EQ(tags.mediaType, 9);
        EXPECT_FALSE(tags.album.has_value());
    }

    if (!qxtest::haveTool("AtomicParsley")) GTEST_SKIP() << "AtomicParsley is not installed";
    const auto dir = qxtest::makeTempDir("mp4tags-ap");
    const auto path = dir / "ap.m4v";
    const auto cover = coverJpeg();
    const std::string cmd = "AtomicParsley '" + taggedMovie().string() + "' --rDNSatom '" + kMovi +
                            "' name=iTunMOVI domain=com.apple.iTunes --artwork '" + coverPath().string() +
                            "' --tracknum 3/12 --disk 2/3 --bpm 120 --genre Drama --TVShowName Show --TVSeasonNum 4"
                            " --TVEpisodeNum 7 --hdvideo 1 --compilation true --gapless true --contentRating R"
                            " --rDNSatom 'x' name=Custom domain=org.example -o '" + path.string() + "'";
    ASSERT_EQ(qxtest::run(cmd + " >/dev/null 2>&1"), 0) << cmd;

    auto file = MP4File::read(path);
    ASSERT_TRUE(file);
    MP4Tags tags;
    ASSERT_TRUE(MP4TagsFetch(tags, *file));
    EXPECT_EQ(tags.track, (MP4TagTrack {3, 12}));
    EXPECT_EQ(tags.disk, (MP4TagDisk {2, 3}));
    EXPECT_EQ(tags.tempo, 120);
    EXPECT_EQ(tags.genre, "Drama");
    EXPECT_EQ(tags.tvSeason, 4u);
    EXPECT_EQ(tags.hdVideo, 1);
    EXPECT_EQ(tags.gapless, true);
    ASSERT_EQ(tags.artwork.size(), 1u);
    EXPECT_EQ(tags.artwork[0].data, cover);
    const auto movi = MP4ItmfGetItemsByMeaning(*file, "com.apple.iTunes", "iTunMOVI");
    ASSERT_EQ(movi.size(), 1u);
    EXPECT_EQ(text(movi[0]), kMovi);
    EXPECT_EQ(MP4ItmfGetItemsByMeaning(*file, "org.example").size(), 1u);
}

TEST(MP4TagFiles, ReadModifyWriteKeepsWhatItDoesNotChange)
{
    const auto dir = qxtest::makeTempDir("mp4tags-rmw");
    const auto path = copyTo(taggedMovie(), dir, "rmw.m4v");

    // Items a tag editor does not know, and one it knows but stores oddly
    // (tmpo in one byte, with a locale).
    MP4ItmfItem unknown;
    unknown.code = "zzzz";
    unknown.dataList.push_back({0, MP4_ITMF_BT_UTF8, 0x00010002, {'a', 'b'}});
    MP4ItmfItem tempo;
    tempo.code = "tmpo";
    tempo.dataList.push_back({0, MP4_ITMF_BT_INTEGER, 0x12345678, {90}});
    MP4ItmfItem account;
    account.code = "akID";
    account.dataList.push_back({0, MP4_ITMF_BT_INTEGER, 0, {1}});
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        ASSERT_TRUE(MP4ItmfAddItem(*file, unknown));
        ASSERT_TRUE(MP4ItmfAddItem(*file, tempo));
        ASSERT_TRUE(MP4ItmfAddItem(*file, account));
        ASSERT_TRUE(MP4ItmfAddItem(*file, MP4ItmfItemAlloc("org.example", "thing", MP4_ITMF_BT_IMPLICIT,
                                                           std::vector<uint8_t> {0, 1, 2, 255})));
        ASSERT_TRUE(file->close());
    }
    auto rawOf = [](const std::filesystem::path& p) {
        auto file = MP4File::read(p);
        std::map<std::string, std::vector<uint8_t>> raw;
        for (const MP4ItmfItem& item : MP4ItmfGetItems(*file)) raw[item.code + ":" + item.name] = item.raw;
        return raw;
    };
    const auto before = rawOf(path);
    ASSERT_EQ(before.size(), 9u);

    // The edit of a tag editor: fetch, change one field, store.
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        MP4Tags tags;
        ASSERT_TRUE(MP4TagsFetch(tags, *file));
        EXPECT_EQ(tags.tempo, 90);
        tags.name = "Changed";
        tags.comments.reset();
        ASSERT_TRUE(MP4TagsStore(tags, *file));
        ASSERT_TRUE(file->close());
    }
    const auto after = rawOf(path);
    EXPECT_EQ(after.size(), 8u);
    for (const auto& [key, raw] : before) {
        if (key == "\xa9nam:" || key == "\xa9" "cmt:") continue;
        ASSERT_TRUE(after.count(key)) << key;
        EXPECT_EQ(after.at(key), raw) << key << " is written back byte for byte";
    }
    EXPECT_FALSE(after.count("\xa9" "cmt:"));
    EXPECT_NE(after.at("\xa9nam:"), before.at("\xa9nam:"));

    // Storing an empty set removes the typed items and keeps the others.
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(MP4TagsStore(MP4Tags {}, *file));
        ASSERT_TRUE(file->close());
    }
    const auto emptied = rawOf(path);
    EXPECT_EQ(emptied.size(), 2u);
    EXPECT_TRUE(emptied.count("zzzz:") && emptied.count("----:thing"));

    // With nothing left, the tag boxes go too.
    {
        auto file = MP4File::modify(path);
        for (const MP4ItmfItem& item : MP4ItmfGetItems(*file)) ASSERT_TRUE(MP4ItmfRemoveItem(*file, item));
        ASSERT_TRUE(file->close());
    }
    auto file = MP4File::read(path);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->moov()->findPath("udta.meta"), nullptr);
    EXPECT_NE(file->moov()->findPath("udta.chpl"), nullptr) << "other udta content stays";
}
