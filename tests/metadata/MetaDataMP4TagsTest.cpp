// The record against the iTunes tags of a real M4V: what a write leaves in
// the file (seen through the MP4 layer and through ffprobe), what a read
// brings back, and the rules for empty values, artwork and the two
// free-form items.

#include <gtest/gtest.h>

#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Tags.h"
#include "qxmedia/platform/image/QXImage.h"
#include "support/TestMedia.h"

using namespace qx::mp4;

namespace {

std::filesystem::path baseMovie()
{
    return qxtest::generate("metadata-base.m4v", "-f lavfi -i testsrc2=size=160x120:rate=10:duration=1 "
                                                 "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -f ipod");
}

// A fresh copy of the base movie in a folder of the test's own.
std::filesystem::path copyOfBase(const std::string& name)
{
    const auto dir = qxtest::makeTempDir("metadata-mp4-" + name);
    const auto path = dir / (name + ".m4v");
    std::filesystem::copy_file(baseMovie(), path, std::filesystem::copy_options::overwrite_existing);
    return path;
}

void writeRecord(const QXMetaData& record, const std::filesystem::path& path)
{
    auto file = MP4File::modify(path);
    ASSERT_TRUE(file);
    EXPECT_TRUE(record.writeToFile(*file));
    ASSERT_TRUE(file->close());
}

MP4Tags tagsOf(const std::filesystem::path& path)
{
    MP4Tags tags;
    auto file = MP4File::read(path);
    EXPECT_TRUE(file && MP4TagsFetch(tags, *file));
    return tags;
}

std::shared_ptr<QXMetaData> recordOf(const std::filesystem::path& path)
{
    auto file = MP4File::read(path);
    return QXMetaData::initWithFile(file.get());
}

size_t freeFormCount(const std::filesystem::path& path, const std::string& name)
{
    auto file = MP4File::read(path);
    return file ? MP4ItmfGetItemsByMeaning(*file, "com.apple.iTunes", name).size() : 0;
}

void addFreeForm(const std::filesystem::path& path, const std::string& name, const std::string& text)
{
    auto file = MP4File::modify(path);
    ASSERT_TRUE(file);
    MP4ItmfAddItem(*file, MP4ItmfItemAlloc("com.apple.iTunes", name, text));
    ASSERT_TRUE(file->close());
}

QXDate dayAt(int year, int month, int day, int hour)
{
    std::tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&tm));
}

} // namespace

TEST(MetaDataMP4Tags, EveryFieldGoesIntoItsTagAndComesBack)
{
    const auto path = copyOfBase("all");
    // Every field the file has a tag for, each with a value of its own.
    const std::pair<const char*, QXValue> fields[] = {
        {QXName, "Pilot"}, {QXArtist, "Artist"}, {QXAlbumArtist, "Album Artist"}, {QXAlbum, "Album"},
        {QXGrouping, "Grouping"}, {QXComposer, "Composer"}, {QXComment, "Comment"}, {QXGenre, "Drama"},
        {QXShow, "The Show"}, {QXTVNetwork, "Network"}, {QXEpisodeID, "S01E03"}, {QXShortDescription, "Short"},
        {QXLongDescription, "Long description, with \xc3\xa9 accents"}, {QXLyrics, "La la"},
        {QXSeasonDescription, "Season one"}, {QXSortName, "Pilot, The"}, {QXSortArtist, "Artist, The"},
        {QXSortAlbumArtist, "Album Artist, The"}, {QXSortAlbum, "Album, The"}, {QXSortComposer, "Composer, The"},
        {QXSortShow, "Show, The"}, {QXCopyright, "(c) Us"}, {QXEncodingTool, "Tool"}, {QXEncodedBy, "Encoder"},
        {QXKeywords, "k1 k2"}, {QXCategory, "Category"}, {QXITunesAccount, "me@example.com"},
        {QXXID, "vendor:isrc:1"}, {QXStudio, "Studio"}, {QXCountryCode, "US"},
        {QXDirectors, QXArray {QXValue("Dora Director")}},
        {QXGenreType, int64_t(18)}, {QXTrackNumber, int64_t(3)}, {QXTrackCount, int64_t(12)},
        {QXDiscNumber, int64_t(1)}, {QXDiscCount, int64_t(2)}, {QXSeasonNumber, int64_t(1)},
        {QXEpisodeNumber, int64_t(3)}, {QXHD, int64_t(2)}, {QXVideoKind, int64_t(10)},
        {QXAdvisoryRating, int64_t(4)}, {QXITunesCountry, int64_t(143441)}, {QXContentID, int64_t(1000)},
        {QXArtistID, int64_t(2000)}, {QXPlaylistID, int64_t((int64_t(1) << 40) + 5)}, {QXGenreID, int64_t(4005)},
        {QXComposerID, int64_t(3000)}, {QXContentRating, int64_t(600)}, {QXPodcast, true}, {QXGapless, true},
        {QXCompilation, true},
    };
    auto record = QXMetaData::init();
    for (const auto& [key, value] : fields) record->setValue(value, key);
    record->releaseDate.set(dayAt(2009, 3, 14, 22));
    record->purchaseDate.set(dayAt(2020, 1, 2, 3));
    record->setArtwork(QXImage::imageWithSize(32, 24));
    writeRecord(*record, path);

    const MP4Tags tags = tagsOf(path);
    EXPECT_EQ(tags.name, "Pilot");
    EXPECT_EQ(tags.comments, "Comment");
    EXPECT_EQ(tags.genreType, 18);
    EXPECT_EQ(tags.releaseDate, "2009-03-14T10:00:00Z") << "the time of day is always ten o'clock";
    EXPECT_EQ(tags.track, (MP4TagTrack {3, 12}));
    EXPECT_EQ(tags.disk, (MP4TagTrack {1, 2}));
    EXPECT_EQ(tags.tvShow, "The Show");
    EXPECT_EQ(tags.tvSeason, 1u);
    EXPECT_EQ(tags.description, "Short");
    EXPECT_EQ(tags.sortTVShow, "Show, The");
    ASSERT_EQ(tags.artwork.size(), 1u);
    EXPECT_EQ(tags.artwork[0].type, MP4_ART_PNG);
    EXPECT_EQ(tags.hdVideo, 2);
    EXPECT_EQ(tags.mediaType, 10);
    EXPECT_EQ(tags.playlistID, (uint64_t(1) << 40) + 5);
    EXPECT_EQ(tags.xid, "vendor:isrc:1");
    EXPECT_EQ(freeFormCount(path, "iTunEXTC"), 1u);
    EXPECT_EQ(freeFormCount(path, "iTunMOVI"), 1u);

    // FFmpeg's demuxer reads the same file.
    std::string probed;
    ASSERT_EQ(qxtest::run("ffprobe -v error -show_entries format_tags=title,show,episode_id,network,date,track "
                          "-of default=nw=1 '" + path.string() + "'",
                          &probed),
              0);
    for (const char* expected : {"TAG:title=Pilot", "TAG:show=The Show", "TAG:episode_id=S01E03",
                                 "TAG:network=Network", "TAG:date=2009-03-14T10:00:00Z", "TAG:track=3/12"}) {
        EXPECT_NE(probed.find(expected), std::string::npos) << expected << " in\n" << probed;
    }

    auto back = recordOf(path);
    ASSERT_TRUE(back);
    for (const std::string& key : QXMetaData::defaultKeys()) {
        if (key == QXArtworks || key == QXReleaseDate || key == QXPurchaseDate) continue;
        if (key == QXCountryCode || key == QXLanguageCode || key == QXIncludeAdultContent) continue; // not in the file
        const QXValue written = record->valueForKey(key);
        const QXValue read = back->valueForKey(key);
        EXPECT_EQ(read.description(), written.description()) << key;
    }
    EXPECT_TRUE(back->compilation);
    ASSERT_TRUE(back->artworks.get());
    ASSERT_EQ(back->artworks.get()->size(), 1u);
    EXPECT_EQ(back->artwork()->pixelsWide(), 32);
    EXPECT_EQ(QXMetaData::formattedDate(*back->releaseDate.get()), "2009-03-14T10:00:00Z");
}

TEST(MetaDataMP4Tags, BadInputsLeaveTheRecordAlone)
{
    // A rating text that is not UTF-8 is passed over.
    const auto path = copyOfBase("bad-utf8");
    addFreeForm(path, "iTunEXTC", std::string("mpaa|R|400|\xff\xfe"));
    auto record = recordOf(path);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->contentRating, QXNoContentRating);
    EXPECT_EQ(record->contentRatingAnnotation.valueOr("unset"), "") << "nothing of the text was taken";
    // Only the muxer's own tool tag came from the file.
    const QXDictionary changed = record->changedMetadata();
    ASSERT_EQ(changed.size(), 1u);
    EXPECT_EQ(changed.begin()->first, QXEncodingTool);
}
