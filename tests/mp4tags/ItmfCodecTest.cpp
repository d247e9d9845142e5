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

MP4Tags fullTags()
{
    MP4Tags tags;
    tags.name = "Name \xc3\xa9";
    tags.artist = "Artist";
    tags.albumArtist = "Album Artist";
    tags.album = "Album";
    tags.grouping = "Grouping";
    tags.composer = "Composer";
    tags.comments = "Comment";
    tags.genre = "Drama";
    tags.genreType = 18;
    tags.releaseDate = "2020-05-01T10:00:00Z";
    tags.track = MP4TagTrack {3, 12};
    tags.disk = MP4TagDisk {1, 2};
    tags.tempo = 120;
    tags.compilation = true;
    tags.tvShow = "Show";
    tags.tvNetwork = "Network";
    tags.tvEpisodeID = "S01E02";
    tags.tvSeason = 70000; // needs all 32 bits
    tags.tvEpisode = 2;
    tags.description = "Short";
    tags.longDescription = std::string(3000, 'x');
    tags.lyrics = "La la";
    tags.seasonDescription = "Season";
    tags.sortName = "Name";
    tags.sortArtist = "Artist, The";
    tags.sortAlbumArtist = "AA";
    tags.sortAlbum = "SA";
    tags.sortComposer = "SC";
    tags.sortTVShow = "SS";
    tags.artwork = {{{0xFF, 0xD8, 0xFF, 0xE0, 1, 2}, MP4_ART_JPEG}, {{0x89, 'P', 'N', 'G', 13, 10, 26, 10, 0}, MP4_ART_PNG}};
    tags.copyright = "(c) someone";
    tags.encodingTool = "tool";
    tags.encodedBy = "me";
    tags.purchaseDate = "2021-01-02T10:00:00Z";
    tags.podcast = false;
    tags.podcastURL = "http://example.com/feed";
    tags.podcastGUID = "guid-1";
    tags.keywords = "k1, k2";
    tags.category = "cat";
    tags.hdVideo = 2;
    tags.mediaType = 10;
    tags.contentRating = 4;
    tags.gapless = true;
    tags.iTunesAccount = "";
    tags.iTunesAccountType = 1;
    tags.iTunesCountry = 143441;
    tags.contentID = 0xFFFFFFF0u;
    tags.artistID = 7;
    tags.playlistID = 0x0123456789ABCDEFull;
    tags.genreID = 4405;
    tags.composerID = 9;
    tags.xid = "vendor:isrc:1";
    return tags;
}

MP4ItmfItemList roundTrip(const MP4ItmfItemList& items) { return MP4ItmfParseItems(MP4ItmfSerializeItems(items)); }

} // namespace

TEST(MP4TagsCodec, EveryFieldSurvivesStoreSerializeParseFetch)
{
    const MP4Tags tags = fullTags();
    MP4ItmfItemList items;
    MP4TagsStore(tags, items);
    EXPECT_EQ(items.size(), MP4TagFields().size());

    MP4Tags back;
    MP4TagsFetch(back, roundTrip(items));
    EXPECT_EQ(back, tags);
}

TEST(MP4TagsCodec, ItemsHaveTheLayoutOtherReadersExpect)
{
    MP4Tags tags;
    tags.name = "Hi";
    tags.track = MP4TagTrack {3, 12};
    tags.disk = MP4TagDisk {1, 2};
    tags.genreType = 18;
    tags.mediaType = 9;
    tags.playlistID = 5;
    MP4ItmfItemList items;
    MP4TagsStore(tags, items);
    const std::vector<uint8_t> ilst = MP4ItmfSerializeItems(items);

    std::vector<uint8_t> expected;
    // ©nam: UTF-8 (type 1), locale 0.
    append(expected, bytes({0, 0, 0, 26, 0xA9, 'n', 'a', 'm', 0, 0, 0, 18, 'd', 'a', 't', 'a', 0, 0, 0, 1, 0, 0, 0, 0,
                            'H', 'i'}));
    // gnre: implicit type, 16 bits.
    append(expected, bytes({0, 0, 0, 26, 'g', 'n', 'r', 'e', 0, 0, 0, 18, 'd', 'a', 't', 'a', 0, 0, 0, 0, 0, 0, 0, 0,
                            0, 18}));
    // trkn: reserved, index, total, reserved; disk without the last two bytes.
    append(expected, bytes({0, 0, 0, 32, 't', 'r', 'k', 'n', 0, 0, 0, 24, 'd', 'a', 't', 'a', 0, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 3, 0, 12, 0, 0}));
    append(expected, bytes({0, 0, 0, 30, 'd', 'i', 's', 'k', 0, 0, 0, 22, 'd', 'a', 't', 'a', 0, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 1, 0, 2}));
    // stik: integer type 21, one byte.
    append(expected, bytes({0, 0, 0, 25, 's', 't', 'i', 'k', 0, 0, 0, 17, 'd', 'a', 't', 'a', 0, 0, 0, 21, 0, 0, 0, 0,
                            9}));
    // plID: integer type 21, eight bytes.
    append(expected, bytes({0, 0, 0, 32, 'p', 'l', 'I', 'D', 0, 0, 0, 24, 'd', 'a', 't', 'a', 0, 0, 0, 21, 0, 0, 0, 0,
                            0, 0, 0, 0, 0, 0, 0, 5}));
    EXPECT_EQ(ilst, expected);
}

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

TEST(MP4ItmfCodec, FreeFormItemsByMeaningAndName)
{
    MP4ItmfItemList items;
    items.push_back(MP4ItmfItemAlloc("com.apple.iTunes", "iTunEXTC", "mpaa|PG-13|300|"));
    items.push_back(MP4ItmfItemAlloc("com.apple.iTunes", "iTunMOVI", "<plist/>"));
    items.push_back(MP4ItmfItemAlloc("org.example", "iTunMOVI", "other"));

    const MP4ItmfItemList parsed = roundTrip(items);
    ASSERT_EQ(parsed.size(), 3u);
    EXPECT_EQ(MP4ItmfGetItemsByMeaning(parsed, "com.apple.iTunes").size(), 2u);
    const MP4ItmfItemList movi = MP4ItmfGetItemsByMeaning(parsed, "com.apple.iTunes", "iTunMOVI");
    ASSERT_EQ(movi.size(), 1u);
    EXPECT_EQ(movi[0].dataList[0].typeCode, MP4_ITMF_BT_UTF8);
    EXPECT_EQ(std::string(movi[0].dataList[0].value.begin(), movi[0].dataList[0].value.end()), "<plist/>");

    MP4ItmfItemList edited = parsed;
    EXPECT_TRUE(MP4ItmfRemoveItem(edited, movi[0]));
    EXPECT_FALSE(MP4ItmfRemoveItem(edited, movi[0]));
    EXPECT_EQ(edited.size(), 2u);
    EXPECT_EQ(MP4ItmfGetItemsByMeaning(edited, "org.example", "iTunMOVI").size(), 1u);
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

