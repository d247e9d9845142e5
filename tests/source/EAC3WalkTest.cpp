// The object-audio mark of an E-AC-3 track's analysis, found past mixing
// metadata whose mix data the walk must step over as a whole: frames made
// by hand with opaque mix data bytes, and frames of FFmpeg's encoder.

#include <gtest/gtest.h>

#include "qxmedia/platform/codecs/AC3Header.h"
#include "qxmedia/platform/codecs/BitStream.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

struct Mark {
    uint8_t flag = 0;
    uint8_t complexity = 0;
};

Mark markOf(const uint8_t* data, size_t size)
{
    BitReader reader(data, size);
    AC3HeaderInfo header;
    Mark mark;
    if (parseAC3Header(reader, header) == 0) qx_eac3_parse_addbsi(reader, header, &mark.flag, &mark.complexity);
    return mark;
}

// An independent 3/2 + LFE frame of six blocks whose mixing metadata ends in
// mixdef 3: mixdeflen, then `mixData` as it stands (mixdeflen + 2 bytes of
// whatever the producer put there), then the object-audio mark.
std::vector<uint8_t> frameWithMixData(const std::vector<uint8_t>& mixData, bool marked)
{
    BitWriter bits;
    bits.write(16, 0x0B77);
    bits.write(2, 0);   // independent
    bits.write(3, 0);   // substream 0
    bits.write(11, 99); // 200 bytes
    bits.write(2, 0);   // 48 kHz
    bits.write(2, 3);   // six blocks
    bits.write(3, 7);   // 3/2
    bits.write(1, 1);   // LFE
    bits.write(5, 16);  // bsid
    bits.write(5, 27);  // dialnorm
    bits.write(1, 0);   // no compr
    bits.write(1, 1);   // mixmdate
    bits.write(2 + 6 + 6, 0); // dmixmod, centre and surround levels
    bits.write(1, 0);         // no lfemixlevcod
    bits.write(1, 0);         // no pgmscl
    bits.write(1, 0);         // no extpgmscl
    bits.write(2, 3);         // mixdef
    bits.write(5, mixData.size() - 2);
    bits.writeBytes(mixData);
    bits.write(1, 0); // no frmmixcfginfo
    bits.write(1, 0); // no infomdate
    bits.write(1, 1); // addbsie
    bits.write(6, 1); // two bytes
    bits.write(8, marked ? 0x01 : 0x00);
    bits.write(8, 12);
    bits.flush();
    std::vector<uint8_t> frame = bits.take();
    frame.resize(200, 0);
    return frame;
}

} // namespace

TEST(EAC3Walk, StepsOverMixDataAsAWholeToTheObjectAudioMark)
{
    // Every bit set reads, to a walk into the mix data's fields, as every
    // optional field present.
    const struct {
        std::vector<uint8_t> mixData;
        bool marked;
    } cases[] = {
        {std::vector<uint8_t>(3, 0xFF), true},
        {std::vector<uint8_t>(6, 0xFF), true},
        {{0xC0, 0x00, 0x00, 0x00}, true},
        {std::vector<uint8_t>(3, 0xFF), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.mixData.size() << " bytes of mix data, marked " << c.marked);
        const auto frame = frameWithMixData(c.mixData, c.marked);
        const Mark mark = markOf(frame.data(), frame.size());
        EXPECT_EQ(mark.flag, c.marked);
        EXPECT_EQ(mark.complexity, c.marked ? 12 : 0);
        // A frame cut inside its bsi sets nothing.
        EXPECT_EQ(markOf(frame.data(), 12).flag, 0);
    }
}

TEST(EAC3Walk, FramesOfFFmpegsEncoderParseToTheirEndAndCarryNoMark)
{
    // Mixing and informational metadata asked for, so both blocks are there.
    const auto path = qxtest::generate(
        "eac3-walk.eac3", "-f lavfi -i sine=duration=0.5 -af aformat=channel_layouts=5.1 -c:a eac3 -b:a 192k "
                          "-dialnorm -20 -dmix_mode ltrt -ltrt_cmixlev 0.595 -mixing_level 100 -room_type large");
    ASSERT_FALSE(path.empty());
    const auto stream = qxtest::readStream(path, 5);
    ASSERT_FALSE(stream.packets.empty());
    for (const auto& packet : stream.packets) {
        AC3BitstreamInfo info;
        ASSERT_EQ(parseAC3BitstreamInfo(packet.data.data(), packet.data.size(), info), 0);
        EXPECT_EQ(info.dialnorm, 20);
        EXPECT_TRUE(info.infomdate);
        EXPECT_LT(info.bsiEndBit, 8 * packet.data.size());
        EXPECT_EQ(markOf(packet.data.data(), packet.data.size()).flag, 0);
    }
}
