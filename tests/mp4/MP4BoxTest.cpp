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

TEST(MP4Box, TypedBoxesReadAndWriteTheirFields)
{
    TkhdBox tkhd;
    tkhd.trackId = 7;
    tkhd.layer = -1;
    tkhd.width = 1920u << 16;
    tkhd.duration = 5'000'000'000ull; // needs version 1
    auto bytes = tkhd.toBytes();
    EXPECT_EQ(bytes.size(), 8u + 4 + 92);
    EXPECT_EQ(bytes[8], 1); // version

    RootBox root;
    ASSERT_TRUE(BoxParser::parseChildren(ByteReader(bytes), 0, root));
    auto parsed = root.findChild<TkhdBox>();
    ASSERT_NE(parsed, nullptr);
    EXPECT_EQ(parsed->layer, -1);
    EXPECT_EQ(parsed->duration, 5'000'000'000ull);
    EXPECT_EQ(parsed->toBytes(), bytes);
}

TEST(MP4Box, SampleTablesAreRunLengthAndPickTheirForm)
{
    SttsBox stts;
    for (uint32_t d : {1001u, 1001u, 1001u, 2002u, 1001u}) stts.append(d);
    ASSERT_EQ(stts.runs.size(), 3u);
    EXPECT_EQ(stts.totalDuration(), 6006u);

    CttsBox ctts;
    ctts.append(0);
    ctts.append(-1001);
    EXPECT_EQ(ctts.toBytes()[8], 1) << "negative offsets need version 1";

    ChunkOffsetBox stco;
    stco.offsets = {100, 200};
    stco.chooseType();
    EXPECT_EQ(stco.type(), ChunkOffsetBox::kType);
    stco.shift(int64_t(1) << 32);
    EXPECT_EQ(stco.type(), ChunkOffsetBox::kType64);
    RootBox root;
    ASSERT_TRUE(BoxParser::parseChildren(ByteReader(stco.toBytes()), 0, root));
    auto co64 = dynamic_cast<ChunkOffsetBox*>(root.findChild(ChunkOffsetBox::kType64));
    ASSERT_NE(co64, nullptr);
    EXPECT_EQ(co64->offsets[1], (uint64_t(1) << 32) + 200);

    StszBox stsz;
    stsz.append(10);
    stsz.append(10);
    auto constant = stsz.toBytes();
    EXPECT_EQ(constant.size(), 20u) << "equal sizes are written as one";
    RootBox again;
    BoxParser::parseChildren(ByteReader(constant), 0, again);
    auto read = again.findChild<StszBox>();
    ASSERT_NE(read, nullptr);
    read->append(11);
    EXPECT_EQ(read->sampleSize(1), 10u) << "a constant table turns into a list";
    EXPECT_EQ(read->sampleSize(2), 11u);
}

TEST(MP4Box, PathsAndTypedLookups)
{
    auto trak = concat({box("tkhd", std::vector<uint8_t>(84, 0)),
                        box("tref", concat({box("chap", {0, 0, 0, 3}), box("fall", {0, 0, 0, 2, 0, 0, 0, 4})}))});
    auto moov = box("moov", concat({box("trak", trak), box("trak", trak)}));
    RootBox root;
    ASSERT_TRUE(BoxParser::parseChildren(ByteReader(moov), 0, root));
    EXPECT_NE(root.findPath("moov.trak[1].tref.fall"), nullptr);
    EXPECT_EQ(root.findPath("moov.trak[2]"), nullptr);
    EXPECT_NE(root.findPath("moov.*.tkhd"), nullptr);
    auto fall = dynamic_cast<TrackReferenceTypeBox*>(root.findPath("moov.trak.tref.fall"));
    ASSERT_NE(fall, nullptr);
    EXPECT_EQ(fall->trackIds, (std::vector<uint32_t> {2, 4}));
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

TEST(MP4Box, RegistrationByFourCCAndRetyping)
{
    auto udta = box("udta", box("note", {'h', 'i'}));
    RootBox before;
    BoxParser::parseChildren(ByteReader(udta), 0, before);
    Box* plain = before.findPath("udta.note");
    ASSERT_NE(plain, nullptr);
    BoxRegistry::add(TestNoteBox::kType, &createBox<TestNoteBox>, kUdta);
    auto typed = dynamic_cast<TestNoteBox*>(BoxParser::retype(plain));
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->text, "hi");
    EXPECT_EQ(before.findPath<TestNoteBox>("udta.note"), typed) << "the tree holds the typed box now";

    RootBox after;
    BoxParser::parseChildren(ByteReader(udta), 0, after);
    EXPECT_NE(after.findPath<TestNoteBox>("udta.note"), nullptr);
    // Only below udta.
    RootBox elsewhere;
    BoxParser::parseChildren(ByteReader(box("note", {})), 0, elsewhere);
    EXPECT_EQ(elsewhere.findChild<TestNoteBox>(), nullptr);
}

TEST(MP4Box, NamesKeepTheirTerminatorOrItsAbsence)
{
    std::vector<uint8_t> unterminated(24, 0); // version, flags, component, handler, reserved
    std::copy_n("vide", 4, unterminated.begin() + 8);
    for (char c : std::string("Video")) unterminated.push_back(uint8_t(c));
    auto terminated = unterminated;
    terminated.push_back(0);
    auto bytes = concat({box("hdlr", unterminated), box("udta", concat({box("name", {'A', 0}), box("name", {'B'})}))});
    bytes = concat({box("hdlr", terminated), bytes});
    RootBox root;
    ASSERT_TRUE(BoxParser::parseChildren(ByteReader(bytes), 0, root));
    EXPECT_EQ(root.findChild<HdlrBox>()->name, "Video");
    EXPECT_EQ(root.findPath<TrackNameBox>("udta.name")->name, "A");
    EXPECT_EQ(serialise(root), bytes);
}
