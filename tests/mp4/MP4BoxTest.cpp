// The box model: parsing, serialising, lookups, damage handling.

#include "MP4TestSupport.h"
#include "qxmedia/mp4/MP4Box.h"
#include "qxmedia/mp4/MP4MovieBoxes.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/MP4SampleTables.h"

#include <gtest/gtest.h>

using namespace qx::mp4;

namespace {

std::vector<uint8_t> box(const char* type, std::vector<uint8_t> payload)
{
    ByteWriter out;
    out.u32(uint32_t(payload.size() + 8));
    out.u32(fourcc(std::string_view(type, 4)));
    out.bytes(payload);
    return out.buffer();
}

std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

std::vector<uint8_t> serialise(const Box& parent)
{
    ByteWriter out;
    for (const auto& child : parent.children()) child->write(out);
    return out.buffer();
}

} // namespace

TEST(MP4Bytes, ReaderStopsAtTheEndAndRemembersIt)
{
    const uint8_t data[] = {0x12, 0x34, 0x56, 0x78, 0x9A};
    ByteReader in(data, sizeof data);
    EXPECT_EQ(in.u32(), 0x12345678u);
    EXPECT_TRUE(in.ok());
    EXPECT_EQ(in.u16(), 0); // one byte left: no partial read
    EXPECT_FALSE(in.ok());
    EXPECT_EQ(in.remaining(), 0u);

    ByteReader strings(reinterpret_cast<const uint8_t*>("\x03" "abcxyz\0rest"), 12);
    EXPECT_EQ(strings.pstring(), "abc");
    EXPECT_EQ(strings.cstring(), "xyz");
    EXPECT_EQ(strings.cstring(), "rest"); // unterminated: up to the end
}

TEST(MP4Box, UnknownBoxesRoundTripByteForByte)
{
    // A udta child nobody knows, a uuid box and QuickTime's zero terminator.
    auto udta = box("udta", concat({box("XYZW", {1, 2, 3, 4, 5}), box("uuid", std::vector<uint8_t>(16, 7)), {0, 0, 0, 0}}));
    auto moov = box("moov", concat({udta, box("abcd", {})}));
    RootBox root;
    ASSERT_TRUE(BoxParser::parseChildren(ByteReader(moov), 0, root));
    EXPECT_EQ(serialise(root), moov);
    Box* unknown = root.findPath("moov.udta.XYZW");
    ASSERT_NE(unknown, nullptr);
    EXPECT_EQ(unknown->fileOffset, 16u);
}

TEST(MP4Box, DamagedSizesAreLoggedAndNeverReadBeyond)
{
    mp4test::LogLines log;
    // The child claims more bytes than its parent has.
    auto bad = box("moov", concat({box("mvhd", std::vector<uint8_t>(100, 0)), {0, 0, 0x10, 0, 'f', 'r', 'e', 'e'}}));
    RootBox root;
    EXPECT_FALSE(BoxParser::parseChildren(ByteReader(bad), 0, root));
    EXPECT_TRUE(log.has(MP4_LOG_ERROR, "invalid atom size"));
    EXPECT_NE(root.findPath("moov.mvhd"), nullptr) << "what could be read is kept";

    // A size smaller than its header.
    log.lines.clear();
    std::vector<uint8_t> tiny = {0, 0, 0, 4, 'f', 'r', 'e', 'e'};
    RootBox root2;
    EXPECT_FALSE(BoxParser::parseChildren(ByteReader(tiny), 0, root2));
    EXPECT_TRUE(log.has(MP4_LOG_ERROR, "invalid atom size"));

    // An unprintable type is suspect, printed empty.
    log.lines.clear();
    auto odd = box("\x01\x02\x03\x04", {1});
    RootBox root3;
    BoxParser::parseChildren(ByteReader(odd), 0, root3);
    EXPECT_TRUE(log.has(MP4_LOG_WARNING, "atom type  is suspect"));

    // An mvhd cut short keeps its bytes and does not pretend to be typed.
    auto cut = box("mvhd", {0, 0, 0, 0, 1, 2});
    RootBox root4;
    BoxParser::parseChildren(ByteReader(cut), 0, root4);
    EXPECT_EQ(root4.findChild<MvhdBox>(), nullptr);
    EXPECT_EQ(serialise(root4), cut);
}

namespace {
// A box registered by a test, as another part of the project would.
class TestNoteBox : public Box {
public:
    static constexpr FourCC kType = fourcc("note");
    TestNoteBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override
    {
        text = in.string(in.remaining());
        return true;
    }
    void writeFields(ByteWriter& out) const override { out.string(text); }
    std::string text;
};
} // namespace
