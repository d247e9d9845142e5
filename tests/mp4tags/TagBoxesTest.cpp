// The tag boxes in udta: which meta holds the tags, and boxes typed after parsing.

#include <gtest/gtest.h>

#include "qxmedia/mp4/MP4MovieBoxes.h"
#include "qxmedia/mp4/tags/MP4TagBoxes.h"

using namespace qx::mp4;

namespace {

std::unique_ptr<Box> metaWithHandler(const char (&handler)[5])
{
    auto meta = std::make_unique<MetaBox>();
    auto hdlr = std::make_unique<HdlrBox>();
    hdlr->handlerType = fourcc(handler);
    meta->addChild(std::move(hdlr));
    return meta;
}

} // namespace

TEST(MP4TagBoxes, FindsTheTagIlstOnly)
{
    ContainerBox moov(kMoov);
    Box* udta = moov.addChild(std::make_unique<ContainerBox>(kUdta));
    // A QuickTime keyed meta: its ilst items are key indices, not tags.
    Box* keyed = udta->addChild(metaWithHandler("mdta"));
    auto keyedIlst = std::make_unique<IlstBox>();
    MP4ItmfItem indexed;
    indexed.code = std::string("\0\0\0\1", 4);
    indexed.dataList.push_back({0, MP4_ITMF_BT_UTF8, 0, {'x'}});
    keyedIlst->items.push_back(indexed);
    keyed->addChild(std::move(keyedIlst));

    EXPECT_EQ(MP4FindIlst(moov), nullptr);
    IlstBox& made = MP4MakeIlst(moov);
    ASSERT_EQ(udta->findChildren(MetaBox::kType).size(), 2u);
    auto* hdlr = made.parent()->findChild<HdlrBox>();
    ASSERT_TRUE(hdlr);
    EXPECT_EQ(hdlr->handlerType, fourcc("mdir"));
    EXPECT_EQ(hdlr->reserved[0], fourcc("appl"));
    EXPECT_EQ(MP4FindIlst(moov), &made);
    EXPECT_EQ(&MP4MakeIlst(moov), &made);
}

TEST(MP4TagBoxes, UntypedBoxesAreReadAgainInPlace)
{
    // An ilst and a chpl that were parsed as plain boxes (payload kept as bytes).
    ContainerBox moov(kMoov);
    Box* udta = moov.addChild(std::make_unique<ContainerBox>(kUdta));
    Box* meta = udta->addChild(metaWithHandler("mdir"));
    auto plainIlst = std::make_unique<Box>(IlstBox::kType);
    MP4ItmfItemList items {MP4ItmfItemAlloc("com.apple.iTunes", "iTunEXTC", "mpaa|R|400|")};
    plainIlst->trailing = MP4ItmfSerializeItems(items);
    meta->addChild(std::move(plainIlst));
    auto plainChpl = std::make_unique<Box>(ChplBox::kType);
    plainChpl->trailing = MP4ChplEncode({{0, "A"}, {50'000'000, "B"}});
    udta->addChild(std::move(plainChpl));
    const std::vector<uint8_t> before = moov.toBytes();

    IlstBox* ilst = MP4FindIlst(moov);
    ASSERT_TRUE(ilst);
    EXPECT_EQ(ilst->items.size(), 1u);
    ChplBox* chpl = MP4FindChpl(moov);
    ASSERT_TRUE(chpl);
    EXPECT_EQ(chpl->chapters.size(), 2u);
    EXPECT_EQ(meta->children().size(), 2u) << "replaced, not added";
    EXPECT_EQ(moov.toBytes(), before) << "typed boxes write the same bytes";
}
