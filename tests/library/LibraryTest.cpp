// The local library: filing, queries, rollback, migration, two writers.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <set>
#include <thread>

#include "support/TestMedia.h"
#include "qxmedia/library/QXLibraryLayout.h"
#include "qxmedia/library/QXLibraryMetadata.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"

namespace fs = std::filesystem;

namespace {

fs::path taggedEpisode()
{
    return qxtest::generate("library-episode.m4v",
                            "-f lavfi -i testsrc2=size=64x36:rate=10:duration=1 -c:v libx264 -preset ultrafast"
                            " -metadata title=Pilot -metadata show=Lost -metadata season_number=2"
                            " -metadata episode_sort=5 -metadata media_type=10 -metadata date=2004 -f ipod");
}

void execute(const fs::path& database, const std::string& sql)
{
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(database.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
}

size_t filesBelow(const fs::path& folder)
{
    size_t count = 0;
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(folder, ignored); it != fs::recursive_directory_iterator(); ++it) {
        count += it->is_regular_file();
    }
    return count;
}

class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = qxtest::makeTempDir("library");
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
        source = dir / "in" / "episode.m4v";
        fs::create_directories(source.parent_path());
        fs::copy_file(taggedEpisode(), source);
        library = QXMediaManagerApplication::applicationWithBundleIdentifier(QXLibraryTVIdentifier);
    }
    fs::path folder() { return library->database()->folder(); }

    fs::path dir, source;
    std::shared_ptr<QXMediaManagerApplication> library;
};

TEST(LibraryLayout, FilesByKind)
{
    struct Case {
        int64_t videoKind;
        std::string name, show;
        int year;
        const char* expected;
    } cases[] = {
        {9, "Heat", "", 1995, "Movies/Heat (1995)/Heat (1995).m4v"},
        {9, "AC/DC Live", "", 0, "Movies/AC-DC Live/AC-DC Live.m4v"},
        {10, "Pilot", "Lost", 0, "TV Shows/Lost/Season 02/Lost - S02E05 - Pilot.m4v"},
        {10, "Pilot", "", 0, "Home Videos/Pilot.m4v"},
        {0, "", "", 0, "Home Videos/source.m4v"},
        {9, "..hidden", "", 0, "Movies/hidden/hidden.m4v"},
    };
    for (const Case& c : cases) {
        auto record = QXMetaData::init();
        record->videoKind = c.videoKind;
        record->name.set(c.name);
        record->show.set(c.show);
        record->seasonNumber = 2;
        record->episodeNumber = 5;
        if (c.year) record->releaseDate.set(*QXMetaData::dateFromMetadata((std::to_string(c.year) + "-06-01").c_str()));
        EXPECT_EQ(QXLibraryRelativePath(*record, "/x/source.m4v"), c.expected) << c.name;
    }
}

TEST_F(LibraryTest, AddFilesACopyUnderTheShowAndFindsItByID)
{
    QXErrorRef error;
    auto track = library->add(source, &error);
    ASSERT_TRUE(track) << (error ? error->description() : "");
    const fs::path expected = folder() / "TV Shows/Lost/Season 02/Lost - S02E05 - Pilot.m4v";
    EXPECT_EQ(*track->location(), expected);
    EXPECT_TRUE(fs::exists(expected));
    EXPECT_TRUE(fs::exists(source)) << "the caller removes the source, not the library";
    EXPECT_EQ(track->track.mediaKind, "kVdT");
    EXPECT_EQ(track->reveal(), expected.parent_path());

    auto found = library->trackWithPersistentID(track->track.persistentID);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->track.location, expected);
    EXPECT_EQ(found->metadata()->show.valueOr(""), "Lost");
    EXPECT_EQ(found->metadata()->episodeNumber, 5u);
    EXPECT_FALSE(library->trackWithPersistentID("0123456789ABCDEF"));

    // The copy is in the library already: adding it gives the same track.
    auto again = library->add(expected);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->track.persistentID, track->track.persistentID);
    EXPECT_EQ(library->fileTracks().size(), 1u);

    // The file's tags change: refresh reads them again.
    {
        auto file = qx::mp4::MP4File::modify(expected);
        ASSERT_TRUE(file);
        auto tags = QXMetaData::initWithFile(file.get());
        tags->name.set("Pilot, Part 2");
        ASSERT_TRUE(tags->writeToFile(*file) && file->close());
    }
    found->refresh();
    EXPECT_EQ(library->trackWithPersistentID(track->track.persistentID)->track.text("name"), "Pilot, Part 2");
    EXPECT_TRUE(library->remove(track->track.persistentID, true));
    EXPECT_FALSE(fs::exists(expected.parent_path().parent_path()));
    EXPECT_TRUE(library->fileTracks().empty());
}

TEST_F(LibraryTest, LocationsAreStoredRelativeToTheFolder)
{
    library->copiesFiles = false;
    auto track = library->add(source);
    ASSERT_TRUE(track);
    EXPECT_EQ(*track->location(), source);
    ASSERT_TRUE(library->database()->setFolder(dir / "moved"));
    sqlite3_stmt* query = nullptr;
    sqlite3_prepare_v2(library->database()->handle(), "SELECT location FROM tracks", -1, &query, nullptr);
    ASSERT_EQ(sqlite3_step(query), SQLITE_ROW);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(sqlite3_column_text(query, 0))), "../in/episode.m4v");
    sqlite3_finalize(query);
    EXPECT_EQ(library->trackWithPersistentID(track->track.persistentID)->track.location, source);
}

TEST_F(LibraryTest, AFailedAddLeavesNeitherRowNorFile)
{
    // The row cannot be written: the copy goes with it.
    execute(library->database()->path(),
            "CREATE TRIGGER refuse BEFORE INSERT ON tracks BEGIN SELECT RAISE(ABORT, 'disk full'); END");
    QXErrorRef error;
    EXPECT_FALSE(library->add(source, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(filesBelow(folder()), 0u);
    EXPECT_FALSE(fs::exists(folder() / "TV Shows"));
    execute(library->database()->path(), "DROP TRIGGER refuse");

    // The copy cannot be made: no row.
    qxtest::writeFile(dir / "blocker", "a file where a folder should be");
    ASSERT_TRUE(library->database()->setFolder(dir / "blocker" / "library"));
    EXPECT_FALSE(library->add(source));
    EXPECT_TRUE(library->fileTracks().empty());
}

TEST_F(LibraryTest, OpensAnOldDatabaseAndKeepsItsTracks)
{
    const fs::path path = QXLibraryDatabase::defaultDirectory() / (std::string(QXLibraryTVIdentifier) + ".sqlite");
    ASSERT_TRUE(QXLibraryDatabase::openAtPath(path, nullptr, 1));
    execute(path, "INSERT INTO tracks(persistentID, location, dateAdded, mediaKind, name) VALUES"
                  " ('00000000000000AA', '" + source.string() + "', 1000, 'kVdM', 'Old')");
    auto database = QXLibraryDatabase::openAtPath(path);
    ASSERT_TRUE(database);
    EXPECT_EQ(database->schemaVersion(), QXLibraryDatabase::kSchemaVersion);

    auto track = library->trackWithPersistentID("00000000000000AA");
    ASSERT_TRUE(track);
    EXPECT_EQ(track->track.location, source);
    EXPECT_EQ(track->track.text("name"), "Old");
    EXPECT_EQ(track->track.number("trackCount"), 0);
    auto record = track->metadata();
    record->sortName.set("Old, The");
    track->setMetadata(*record);
    EXPECT_EQ(library->trackWithPersistentID("00000000000000AA")->track.text("sortName"), "Old, The");
}

TEST_F(LibraryTest, TwoConnectionsAddingAtOnceFileEverything)
{
    constexpr int kEach = 6;
    auto addAll = [&](int writer) {
        auto own = QXMediaManagerApplication::applicationWithBundleIdentifier(QXLibraryTVIdentifier);
        for (int i = 0; i < kEach; ++i) {
            const fs::path copy = dir / "in" / ("w" + std::to_string(writer) + "-" + std::to_string(i) + ".m4v");
            fs::copy_file(source, copy);
            EXPECT_TRUE(own->add(copy));
        }
    };
    std::thread first(addAll, 1), second(addAll, 2);
    first.join();
    second.join();
    // All carry the same tags, so they compete for one name.
    std::set<fs::path> locations;
    for (const auto& track : library->fileTracks()) locations.insert(track->track.location);
    EXPECT_EQ(locations.size(), size_t(2 * kEach));
    EXPECT_EQ(filesBelow(folder()), size_t(2 * kEach));
}

TEST(LibraryMetadata, KindAndRatingRules)
{
    struct Case {
        QXLibraryKind kind;
        int64_t videoKind;
        const char* trackKind;
        bool retried;
        const char* finalKind;
    } cases[] = {
        {QXLibraryKind::TV, 6, "kUnk", false, "kUnk"},
        {QXLibraryKind::TV, 9, "kVdH", true, "kVdM"},
        {QXLibraryKind::iTunes, 6, "kVdH", true, "kVdV"},
        {QXLibraryKind::Music, 9, "kUnk", false, "kUnk"},
        {QXLibraryKind::Music, 6, "kVdH", true, "kVdV"},
    };
    for (const Case& c : cases) {
        qxtest::LogCapture log;
        auto record = QXMetaData::init();
        record->videoKind = c.videoKind;
        QXLibraryTrackFields track;
        track.mediaKind = c.trackKind;
        QXLibraryMetadataWriter(c.kind).writeRatingsAndKind(*record, track);
        EXPECT_EQ(track.mediaKind, c.finalKind) << c.videoKind;
        EXPECT_EQ(log.contains("Try setting again"), c.retried) << c.videoKind;
    }

    QXLibraryTrackFields track;
    track.mediaKind = "kUnk";
    track.numbers = {{"rating", 60}, {"albumRating", 80}, {"year", 1999}};
    track.texts = {{"ratingKind", "kRtU"}, {"albumRatingKind", "kRtC"}, {"lyrics", "la"}};
    const QXLibraryMetadataWriter tv(QXLibraryKind::TV);
    auto record = QXMetaData::init();
    record->videoKind = 9;
    tv.read(*record, track);
    EXPECT_EQ(record->videoKind, 9) << "an unknown kind leaves the record's";
    EXPECT_EQ(record->rating, 60u);
    EXPECT_EQ(record->albumRating, 0u) << "a computed rating is not read";
    EXPECT_TRUE(record->lyrics.valueOr("").empty()) << "lyrics are written only";
    tv.write(*record, track);
    EXPECT_EQ(track.number("year"), 0) << "no release date clears the year";
}

} // namespace
