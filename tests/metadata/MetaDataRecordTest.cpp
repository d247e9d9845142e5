// The metadata record: its key table, defaults, generic access, change tracking, merge, copy, archive, artwork.

#include <gtest/gtest.h>

#include <algorithm>

#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "qxmedia/platform/foundation/QXUserDefaults.h"
#include "qxmedia/platform/image/QXImage.h"
#include "support/TestMedia.h"

namespace {

bool hasKey(const QXDictionary& dict, const char* key)
{
    return dict.find(key) != dict.end();
}

} // namespace

TEST(MetaDataKeys, DisplayNamesPassThroughTheTranslator)
{
    EXPECT_EQ(QXMetaData::displayValueForKey("whatever"), "whatever");
    QXSetTranslator([](std::string_view key) -> std::string { return key == "Tagline" ? "Slogan" : ""; });
    EXPECT_EQ(QXMetaData::displayValueForKey(QXShortDescription), "Slogan");
    EXPECT_EQ(QXMetaData::displayValueForKey(QXName), "Name") << "no translation: the English name";
    QXSetTranslator(nullptr);
}

TEST(MetaDataRecord, FreshRecordDefaults)
{
    auto& defaults = QXUserDefaults::standardUserDefaults();
    defaults.setObject("DE", QXUserDefaultsCountryCodeKey);
    defaults.setObject(true, QXUserDefaultsIncludeAdultContentKey);
    auto record = QXMetaData::init();
    defaults.removeObject(QXUserDefaultsCountryCodeKey);
    defaults.removeObject(QXUserDefaultsIncludeAdultContentKey);

    EXPECT_EQ(*record->countryCode.get(), "DE");
    EXPECT_EQ(*record->languageCode.get(), "en");
    EXPECT_TRUE(record->includeAdultContent);
    EXPECT_TRUE(record->changedMetadata().empty());
    EXPECT_FALSE(record->contentRatingStringMP4());
    EXPECT_FALSE(record->iTunMOVI());
    EXPECT_TRUE(record->imdbId.isNull());
    ASSERT_TRUE(record->name.get());
    EXPECT_EQ(record->contentRating, QXNoContentRating);
    EXPECT_EQ(QXMetaData::init()->valueForKey(QXCountryCode), QXValue("US"));
}

TEST(MetaDataRecord, GenericAccessReachesFieldsAndFreeFormKeys)
{
    auto record = QXMetaData::init();
    record->setValue(QXValue(uint64_t(7)), QXSeasonNumber);
    record->setValue(QXValue("Pilot"), QXName);
    record->setValue(QXValue(QXArray {QXValue("A"), QXValue("B")}), QXActors);
    record->setValue(QXValue(2), QXPreferredArtworkType);
    record->setValue(QXValue(true), QXCompilation);
    record->setValue(QXValue(int64_t(603)), QXTmdbMovieId);
    record->setValue(QXValue("custom"), "myKey");

    EXPECT_EQ(record->seasonNumber, 7u);
    EXPECT_EQ(*record->actors.get(), (QXStringList {"A", "B"}));
    EXPECT_EQ(record->artworkType, 2);
    EXPECT_TRUE(record->compilation);
    EXPECT_EQ(record->valueForKey(QXTmdbMovieId), QXValue(int64_t(603)));
    EXPECT_EQ(record->valueForKey("myKey"), QXValue("custom"));
    EXPECT_TRUE(record->valueForKey("unknown").isNull());

    auto keys = record->allKeys();
    ASSERT_EQ(keys.size(), 82u);
    EXPECT_EQ(keys.back(), "myKey");

    // Nil on a scalar is 0, not the scalar's default.
    record->setValue(QXValue(), QXContentRating);
    EXPECT_EQ(record->contentRating, 0u);
    record->removeObjectsForKeys({QXSeasonNumber, QXName, "myKey"});
    EXPECT_EQ(record->seasonNumber, 0u);
    EXPECT_TRUE(record->name.isNull());
    EXPECT_EQ(record->allKeys().size(), 81u);
}

TEST(MetaDataRecord, ChangesAreTakenByIdentityNotContent)
{
    auto record = QXMetaData::init();
    // The same text again, as another object: changed.
    record->countryCode.set(std::string(*record->countryCode.get()));
    // An equal number: not changed; another: changed.
    record->seasonNumber = 0;
    record->episodeNumber = 4;
    // Cleared fields cannot be reported.
    record->album.clear();
    // A shared object put back is the same object.
    auto language = record->languageCode.get();
    record->languageCode.set(language);
    record->setValue(QXValue(1), "extra");

    const auto changed = record->changedMetadata();
    EXPECT_TRUE(hasKey(changed, QXCountryCode));
    EXPECT_TRUE(hasKey(changed, QXEpisodeNumber));
    EXPECT_TRUE(hasKey(changed, "extra"));
    EXPECT_FALSE(hasKey(changed, QXSeasonNumber));
    EXPECT_FALSE(hasKey(changed, QXAlbum));
    EXPECT_FALSE(hasKey(changed, QXLanguageCode));
    EXPECT_EQ(changed.size(), 3u);

    // An empty string built elsewhere is a change; compilation never is.
    auto other = QXMetaData::init();
    other->setValue(QXValue(""), QXAlbum);
    other->compilation = true;
    EXPECT_EQ(other->changedMetadata().size(), 1u);
    EXPECT_TRUE(hasKey(other->changedMetadata(), QXAlbum));
}

TEST(MetaDataRecord, MergeCarriesOnlyWhatTheOtherChanged)
{
    auto base = QXMetaData::init();
    base->name.set(std::string("Base"));
    base->show.set(std::string("Show"));
    base->seasonNumber = 2;
    base->compilation = false;

    auto later = QXMetaData::init();
    later->name.set(std::string("Later"));
    later->compilation = true;
    later->setValue(QXValue("v"), "free");
    later->artist.clear(); // cleared: not carried

    base->mergeMetaData(*later);
    EXPECT_EQ(*base->name.get(), "Later");
    EXPECT_EQ(base->seasonNumber, 2u);
    EXPECT_FALSE(base->compilation);
    EXPECT_EQ(*base->artist.get(), "");
    EXPECT_EQ(base->valueForKey("free"), QXValue("v"));
    // The merged value is a copy, not the other record's object.
    EXPECT_NE(base->name.get(), later->name.get());
}

TEST(MetaDataRecord, CopyHasAllValuesAndItsOwnSnapshot)
{
    auto record = QXMetaData::init();
    record->name.set(std::string("Name"));
    record->directors.set(QXStringList {"D"});
    record->releaseDate.set(QXDate(std::chrono::seconds(1588291200)));
    record->hd = 2;
    record->compilation = true;
    record->setValue(QXValue("x"), "free");

    auto copy = record->copy();
    EXPECT_EQ(*copy->directors.get(), QXStringList {"D"});
    EXPECT_EQ(*copy->releaseDate.get(), *record->releaseDate.get());
    EXPECT_EQ(copy->hd, 2);
    EXPECT_FALSE(copy->compilation);
    EXPECT_EQ(copy->valueForKey("free"), QXValue("x"));
    // Every copied object counts as changed against the copy's own init.
    EXPECT_TRUE(hasKey(copy->changedMetadata(), QXCountryCode));
}

TEST(MetaDataRecord, ArchiveRoundTripKeepsValuesFreeFormKeysAndAbsence)
{
    auto record = QXMetaData::init();
    record->name.set(std::string("Name"));
    record->imdbId.set(std::string("tt0133093"));
    record->tvdbSeriesId.set(int64_t(81189));
    record->actors.set(QXStringList {"Keanu Reeves", "Carrie-Anne Moss"});
    record->purchaseDate.set(QXDate(std::chrono::seconds(1600000000)));
    record->detailURL.set(QXURL("/tmp/detail"));
    record->contentRating = 300;
    record->videoKind = 9;
    record->gapless = true;
    record->compilation = true;
    record->album.clear();
    record->setValue(QXValue(QXDictionary {{"k", QXValue(1)}}), "free");

    auto data = QXKeyedArchiver::archivedDataWithRootObject(*record);
    ASSERT_TRUE(data);
    auto back = QXKeyedUnarchiver::unarchivedObjectOfClass<QXMetaData>(*data);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back->imdbId.get(), "tt0133093");
    EXPECT_EQ(*back->tvdbSeriesId.get(), 81189);
    EXPECT_EQ(*back->actors.get(), *record->actors.get());
    EXPECT_EQ(*back->purchaseDate.get(), *record->purchaseDate.get());
    EXPECT_EQ(*back->detailURL.get(), QXURL("/tmp/detail"));
    EXPECT_EQ(back->contentRating, 300u);
    EXPECT_TRUE(back->gapless);
    EXPECT_FALSE(back->compilation); // not one of the archived keys
    EXPECT_TRUE(back->album.isNull());
    EXPECT_EQ(back->valueForKey("free"), QXValue(QXDictionary {{"k", QXValue(1)}}));

    // A key missing from the archive decodes as nil: texts absent, numbers 0.
    QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*record);
    QXDictionary* root = (*archive.dictionary())["$top"].dictionary();
    ASSERT_TRUE(root);
    QXDictionary* object = (*root)["root"].dictionary();
    ASSERT_TRUE(object);
    EXPECT_FALSE(object->count(QXAlbum)); // absent values are not stored
    object->erase(QXContentRating);
    object->erase(QXName);
    object->erase("tagsDict");
    auto sparse = std::dynamic_pointer_cast<QXMetaData>(QXKeyedUnarchiver::unarchiveObjectWithPropertyList(archive));
    ASSERT_TRUE(sparse);
    EXPECT_EQ(sparse->contentRating, 0u);
    EXPECT_TRUE(sparse->name.isNull());
    EXPECT_EQ(sparse->allKeys().size(), 81u);
}

TEST(MetaDataRecord, ArtworkListMarkerAndPNG)
{
    auto record = QXMetaData::init();
    auto wide = std::shared_ptr<const QXImage>(QXImage::imageWithSize(300, 200));
    auto other = std::shared_ptr<const QXImage>(QXImage::imageWithSize(20, 20));
    ASSERT_TRUE(wide && other);
    EXPECT_TRUE(record->artworkData().empty());

    record->setArtwork(other);
    record->setArtwork(wide);
    record->setArtwork(other); // moves to the front, once
    EXPECT_EQ(*record->artworks.get(), (QXArtworkList {other, wide}));
    record->setArtwork(nullptr);
    EXPECT_EQ(*record->artworks.get(), (QXArtworkList {nullptr, other, wide})) << "the marker goes in front";
    record->setArtwork(wide);
    EXPECT_EQ(*record->artworks.get(), (QXArtworkList {wide, other}));

    auto sizeOf = [](const QXData& png) {
        auto image = QXImage::imageWithData(png);
        return image ? std::make_pair(image->pixelsWide(), image->pixelsHigh()) : std::make_pair(0, 0);
    };
    EXPECT_EQ(sizeOf(record->artworkData()), std::make_pair(300, 200));
    record->artworkType = 2;
    EXPECT_EQ(sizeOf(record->artworkData()), std::make_pair(300, 200)); // not a TV show
    record->videoKind = 10;
    EXPECT_EQ(sizeOf(record->artworkData()), std::make_pair(300, 300));

    // Archived artwork comes back as images, the marker as the marker.
    record->setArtwork(nullptr);
    auto data = QXKeyedArchiver::archivedDataWithRootObject(*record);
    ASSERT_TRUE(data);
    auto back = QXKeyedUnarchiver::unarchivedObjectOfClass<QXMetaData>(*data);
    ASSERT_TRUE(back && back->artworks.get());
    const auto& list = *back->artworks.get();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0], nullptr);
    ASSERT_TRUE(list[1]);
    EXPECT_EQ(list[1]->pixelsWide(), 300);
}

TEST(MetaDataRecord, TitleAndDefinition)
{
    auto record = QXMetaData::init();
    record->name.set(std::string("Episode"));
    EXPECT_EQ(record->title(), "Episode");
    record->videoKind = 10;
    EXPECT_EQ(record->title(), ""); // a TV show's title is its show, even empty
    record->show.clear();
    EXPECT_EQ(record->title(), "Episode");
    record->name.clear();
    EXPECT_EQ(record->title(), "");

    const char* names[] = {"SD", "HD", "HD 1080p", "4K", "SD"};
    for (int64_t hd = 0; hd < 5; ++hd) {
        record->hd = hd;
        EXPECT_EQ(record->hdString(), names[hd]);
    }
}
