// Records imported from a demuxer's tag dictionary and from EyeTV's programme and recording files.

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/dict.h>
}

#include "qxmedia/metadata/QXMetaData.h"
#include "support/TestMedia.h"

namespace {

struct Dictionary {
    AVDictionary* dict = nullptr;
    Dictionary(std::initializer_list<std::pair<const char*, const char*>> entries)
    {
        // AV_DICT_MULTIKEY keeps repeated keys, in order, as a demuxer does.
        for (const auto& [key, value] : entries) av_dict_set(&dict, key, value, AV_DICT_MULTIKEY);
    }
    ~Dictionary() { av_dict_free(&dict); }
};

const char creditsList[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>cast</key><array><dict><key>name</key><string>Ann</string></dict><dict><key>role</key><string>x</string></dict></array>
<key>directors</key><string>not a list</string>
<key>studio</key><string>Big Studio</string>
</dict></plist>)";

} // namespace

TEST(MetaDataImport, DictionaryKeysAndConversions)
{
    qxtest::LogCapture log;
    Dictionary d {{"title", "First"},
                  {"MOVIE/TITLE", "Second"},
                  {"description", "short"},
                  {"synopsis", "long"},
                  {"track", "3/12"},
                  {"disc", "2"},
                  {"rating", "4"},
                  {"media_type", "10"},
                  {"hd_video", "2"},
                  {"compilation", "1"},
                  {"gapless_playback", "yes"},
                  {"podcast", "0"},
                  {"season_number", "x"},
                  {"storefront_id", "143441"},
                  {"release_date", "2019-07-04T07:00:00Z"},
                  {"purchase_date", "garbage"},
                  {"iTunEXTC", "mpaa|R|400|Language"},
                  {"iTunMOVI", creditsList},
                  {"creation_time", "2020-01-01T00:00:00.000000Z"},
                  {"major_brand", "M4V "},
                  {"mystery", "value"}};
    auto record = QXMetaData::initWithDictionary(d.dict);

    EXPECT_EQ(*record->name.get(), "Second"); // the later of two keys wins
    EXPECT_EQ(*record->longDescription.get(), "long");
    EXPECT_EQ(record->trackNumber, 3u);
    EXPECT_EQ(record->trackCount, 12u);
    EXPECT_EQ(record->discNumber, 0u); // no "/": nothing
    EXPECT_EQ(record->advisoryRating, 4);
    EXPECT_EQ(record->rating, 0u);
    EXPECT_EQ(record->hd, 2);
    EXPECT_TRUE(record->gapless);
    EXPECT_FALSE(record->podcast);
    EXPECT_EQ(record->seasonNumber, 0u);
    EXPECT_EQ(record->iTunesCountry, 143441u);
    ASSERT_TRUE(record->releaseDate.get());
    EXPECT_EQ(QXMetaData::formattedDate(*record->releaseDate.get()), "2019-07-04T10:00:00Z");
    EXPECT_TRUE(record->purchaseDate.isNull());
    EXPECT_EQ(*record->contentRatingAnnotation.get(), "Language");
    EXPECT_EQ(*record->actors.get(), QXStringList {"Ann"});
    EXPECT_TRUE(record->directors.isNull()); // not a list: passed over

    EXPECT_TRUE(log.contains("Unknown metadata item mystery: value", 4));
    EXPECT_FALSE(log.contains("creation_time"));
    // Unknown keys do not become free-form keys of the record.
    EXPECT_EQ(record->allKeys().size(), 81u);
}

TEST(MetaDataImport, RepeatedKeysAndBadPairs)
{
    Dictionary d {{"track", "3/12/1"}, {"artist", "A"}, {"author", "B"}, {"disc", "1/2"}, {"disc", "x/"}};
    auto record = QXMetaData::initWithDictionary(d.dict);
    EXPECT_EQ(record->trackNumber, 0u);
    EXPECT_EQ(record->trackCount, 0u);
    EXPECT_EQ(*record->artist.get(), "B");
    EXPECT_EQ(record->discNumber, 0u); // "x/" has two parts: 0 and 0
    EXPECT_EQ(record->discCount, 0u);

    Dictionary single {{"track", "3"}, {"disc", "1/2"}};
    record = QXMetaData::initWithDictionary(single.dict);
    EXPECT_EQ(record->trackNumber, 0u);
    EXPECT_EQ(record->discNumber, 1u);
    EXPECT_EQ(record->discCount, 2u);
    EXPECT_TRUE(QXMetaData::init()->readFromDictionary(nullptr));
}

TEST(MetaDataImport, EyeTVProgrammeAndRecordingFiles)
{
    const auto dir = qxtest::makeTempDir("eyetv");
    const auto plist = [](const std::string& body) {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + body + "</dict></plist>";
    };
    qxtest::writeFile(dir / "a.eyetvp",
                      plist("<key>epg info</key><dict><key>SEASONID</key><integer>3</integer>"
                            "<key>EPISODENUM</key><string>7</string><key>ABSTRACT</key><string></string>"
                            "<key>DESCRIPTION</key><string>Desc</string><key>TITLE</key><string>Ep</string>"
                            "</dict>"));
    auto programme = QXMetaData::initWithFromURLEyeTVp(dir / "a.eyetvp");
    EXPECT_EQ(programme->seasonNumber, 3u);
    EXPECT_EQ(programme->episodeNumber, 7u);
    EXPECT_EQ(*programme->longDescription.get(), "Desc");
    EXPECT_EQ(*programme->shortDescription.get(), "Ep");
    EXPECT_EQ(*programme->name.get(), "");

    qxtest::writeFile(dir / "b.eyetvp",
                      plist("<key>epg info</key><dict><key>EPISODENUM</key><integer>7</integer>"
                            "<key>ABSTRACT</key><string>Abs</string><key>TITLE</key><integer>1</integer></dict>"));
    auto noSeason = QXMetaData::initWithFromURLEyeTVp(dir / "b.eyetvp");
    EXPECT_EQ(noSeason->episodeNumber, 0u);
    EXPECT_EQ(*noSeason->longDescription.get(), "Abs");
    EXPECT_EQ(*noSeason->shortDescription.get(), "");

    qxtest::writeFile(dir / "c.eyetvr", plist("<key>info</key><dict><key>recording title</key><string>Rec</string>"
                                              "<key>description</key><string>About</string></dict>"));
    auto recording = QXMetaData::initWithFromURLEyeTVr(dir / "c.eyetvr");
    EXPECT_EQ(*recording->name.get(), "Rec");
    EXPECT_EQ(*recording->longDescription.get(), "About");

    auto missing = QXMetaData::initWithFromURLEyeTVr(dir / "none.eyetvr");
    ASSERT_TRUE(missing);
    EXPECT_TRUE(missing->changedMetadata().empty());
}
