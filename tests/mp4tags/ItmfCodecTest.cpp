// The iTunes item codec: tags to items and back, their byte layout, rewrites that keep what they do not change, damage.

#include <gtest/gtest.h>

#include "qxmedia/mp4/tags/MP4Itmf.h"
#include "qxmedia/mp4/tags/MP4Tags.h"

using namespace qx::mp4;

namespace {

std::vector<uint8_t> bytes(std::initializer_list<int> values)
{
    std::vector<uint8_t> out;
    for (int v : values) out.push_back(uint8_t(v));
    return out;
}

void append(std::vector<uint8_t>& out, const std::vector<uint8_t>& more) { out.insert(out.end(), more.begin(), more.end()); }

} // namespace

TEST(MP4TagsCodec, ToleratesOddValues)
{
    MP4ItmfItemList items;
    MP4ItmfItem wideStik;
    wideStik.code = "stik";
    wideStik.dataList.push_back({0, MP4_ITMF_BT_INTEGER, 0, {0, 0, 0, 10}}); // 32-bit where 8 are usual
    items.push_back(wideStik);
    MP4ItmfItem shortTrack;
    shortTrack.code = "trkn";
    shortTrack.dataList.push_back({0, 0, 0, {0, 0, 0, 4}}); // index only
    items.push_back(shortTrack);
    MP4ItmfItem brokenDisk;
    brokenDisk.code = "disk";
    brokenDisk.dataList.push_back({0, 0, 0, {0, 1}});
    items.push_back(brokenDisk);
    MP4ItmfItem untypedCover;
    untypedCover.code = "covr";
    untypedCover.dataList.push_back({0, 0, 0, {'B', 'M', 0, 0}});
    items.push_back(untypedCover);

    MP4Tags tags;
    MP4TagsFetch(tags, items);
    EXPECT_EQ(tags.mediaType, 10);
    EXPECT_EQ(tags.track, (MP4TagTrack {4, 0}));
    EXPECT_FALSE(tags.disk.has_value());
    ASSERT_EQ(tags.artwork.size(), 1u);
    EXPECT_EQ(tags.artwork[0].type, MP4_ART_BMP);

    // A store of what was fetched leaves the unreadable disk item alone.
    MP4ItmfItemList stored = items;
    MP4TagsStore(tags, stored);
    EXPECT_EQ(stored.size(), 4u);
    EXPECT_EQ(stored[2].dataList[0].value, brokenDisk.dataList[0].value);
}

TEST(MP4ItmfCodec, DamagedTailIsKeptAsItWas)
{
    std::vector<uint8_t> ilst = bytes({0, 0, 0, 26, 0xA9, 'n', 'a', 'm', 0, 0, 0, 18, 'd', 'a', 't', 'a', 0, 0, 0, 1, 0,
                                       0, 0, 0, 'H', 'i'});
    // An item that claims more bytes than there are.
    append(ilst, bytes({0, 0, 1, 0, 'b', 'a', 'd', '!', 1, 2, 3}));
    const MP4ItmfItemList items = MP4ItmfParseItems(ilst);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_TRUE(items[1].code.empty());
    EXPECT_EQ(MP4ItmfSerializeItems(items), ilst);

    // Zero padding after the items is dropped quietly.
    std::vector<uint8_t> padded(ilst.begin(), ilst.begin() + 26);
    padded.resize(40, 0);
    EXPECT_EQ(MP4ItmfParseItems(padded).size(), 1u);

    // A data box too short for its type and locale makes the item damaged.
    const auto shortData = bytes({0, 0, 0, 20, 'c', 'p', 'i', 'l', 0, 0, 0, 12, 'd', 'a', 't', 'a', 0, 0, 0, 21});
    EXPECT_FALSE(MP4ItmfParseItem(shortData).has_value());
}

