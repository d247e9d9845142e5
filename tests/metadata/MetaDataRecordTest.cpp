// The metadata record: merge and archive.

#include <gtest/gtest.h>

#include <algorithm>

#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "qxmedia/platform/foundation/QXUserDefaults.h"
#include "qxmedia/platform/image/QXImage.h"
#include "support/TestMedia.h"

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
