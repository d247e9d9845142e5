// A record as platform metadata items and back.

#include <gtest/gtest.h>

#include "support/TestMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/metadata/QXMetadataItem.h"

namespace {

const QXMetadataItem* find(const std::vector<QXMetadataItem>& items, const std::string& key)
{
    for (const auto& item : items) {
        if (item.textKey() == key) return &item;
    }
    return nullptr;
}

TEST(MetadataItems, RoundTripKeepsEveryTranslatedField)
{
    const std::pair<const char*, QXValue> fields[] = {
        {"name", QXValue("Heat")},         {"album", QXValue("OST")},        {"artist", QXValue("Moby")},
        {"show", QXValue("Lost")},         {"episodeID", QXValue("S2E5")},   {"longDescription", QXValue("Long")},
        {"sortName", QXValue("Heat, A")},  {"grouping", QXValue("Crime")},   {"comment", QXValue("Nice")},
        {"videoKind", QXValue(int64_t(9))}, {"hd", QXValue(int64_t(2))},     {"seasonNumber", QXValue(uint64_t(2))},
        {"episodeNumber", QXValue(uint64_t(5))}, {"artistID", QXValue(uint64_t(77))}, {"gapless", QXValue(true)},
        {"releaseDate", QXValue(*QXMetaData::dateFromMetadata("1995-12-15T00:00:00Z"))},
    };
    auto record = QXMetaData::init();
    for (const auto& [key, value] : fields) record->setValue(value, key);
    auto back = QXMetaDataWithMetadataItems(QXMetadataItemsOfMetaData(*record));
    for (const auto& [key, value] : fields) {
        EXPECT_EQ(back->valueForKey(key).description(), value.description()) << key;
    }
}

TEST(MetadataItems, PackedAndCutValues)
{
    auto record = QXMetaData::init();
    record->trackNumber = 3;
    record->trackCount = 12;
    record->contentID = 70000;
    record->studio.set("Warner");
    const auto items = QXMetadataItemsOfMetaData(*record);
    ASSERT_TRUE(find(items, "trkn"));
    EXPECT_EQ(*find(items, "trkn")->value.data(), (QXData {0, 0, 0, 3, 0, 12, 0, 0}));
    EXPECT_EQ(find(items, "cnID")->value.uint64(), 4464u);
    const QXMetadataItem* credits = find(items, "com.apple.iTunes.iTunMOVI");
    ASSERT_TRUE(credits);
    EXPECT_EQ(credits->keySpace, QXMetadataKeySpaceiTunesLong);
    EXPECT_NE(credits->value.string()->find("studio"), std::string::npos);
}

TEST(MetadataItems, ItemsToRecordByKey)
{
    const uint32_t stik = 's' << 24 | 't' << 16 | 'i' << 8 | 'k';
    const uint32_t name = 0xA9u << 24 | 'n' << 16 | 'a' << 8 | 'm';
    const std::vector<QXMetadataItem> items = {
        {QXValue(uint64_t(stik)), QXMetadataKeySpaceiTunes, QXValue(int64_t(10)), {}},
        {QXValue(uint64_t(name)), QXMetadataKeySpaceiTunes, QXValue("Pilot"), {}},
        {QXValue("tvsn"), QXMetadataKeySpaceiTunes, QXValue("3"), {}},          // text on a number
        {QXValue("disk"), QXMetadataKeySpaceiTunes, QXValue(QXData(6, 1)), {}}, // bytes: no number
        {QXValue("zzzz"), QXMetadataKeySpaceiTunes, QXValue("ignored"), {}},
    };
    auto record = QXMetaDataWithMetadataItems(items);
    EXPECT_EQ(record->videoKind, 10);
    EXPECT_EQ(record->name.valueOr(""), "Pilot");
    EXPECT_EQ(record->seasonNumber, 3u);
    EXPECT_EQ(record->discNumber, 0u);
}

TEST(MetadataItems, AFreshRecordGivesNoItems)
{
    qxtest::LogCapture log;
    EXPECT_TRUE(QXMetadataItemsOfMetaData(*QXMetaData::init()).empty());
    EXPECT_TRUE(log.contains("Missing selector imvdbIdMetadataItem"));
    EXPECT_TRUE(log.contains("Missing selector includeAdultContentMetadataItem"));
    EXPECT_FALSE(QXMetadataItem::metadataItemWithKey(QXValue("name"), QXMetadataKeySpaceiTunes, QXValue()));
}

} // namespace
