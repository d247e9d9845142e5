// The walk through an E-AC-3 frame header to the object-audio mark in its additional bsi.

#include <gtest/gtest.h>

#include "qxmedia/platform/codecs/AC3Header.h"
#include "qxmedia/platform/codecs/BitStream.h"
#include "qxmedia/source/QXAC3AudioTrack.h"

using namespace qx;

namespace {

// An E-AC-3 independent frame, 3/2 + LFE, six blocks, bsid 16, with mixing
// metadata (mixdef 3) and the additional bsi given.
std::vector<uint8_t> eac3Frame(bool withMixing, std::vector<uint8_t> addbsi)
{
    BitWriter bits;
    bits.write(16, 0x0B77);
    bits.write(2, 0);   // strmtyp: independent
    bits.write(3, 0);   // substreamid
    bits.write(11, 99); // frmsiz: 200 bytes
    bits.write(2, 0);   // fscod: 48 kHz
    bits.write(2, 3);   // numblkscod: 6 blocks
    bits.write(3, 7);   // acmod 3/2
    bits.write(1, 1);   // lfeon
    bits.write(5, 16);  // bsid
    bits.write(5, 27);  // dialnorm
    bits.write(1, 0);   // compre
    bits.write(1, withMixing);
    if (withMixing) {
        bits.write(2, 1);       // dmixmod
        bits.write(6, 0);       // centre levels
        bits.write(6, 0);       // surround levels
        bits.write(1, 0);       // lfemixlevcode
        bits.write(1, 0);       // pgmscle
        bits.write(1, 0);       // extpgmscle
        bits.write(2, 3);       // mixdef
        bits.write(5, 1);       // mixdeflen
        bits.write(1, 0);       // mixdata2e
        bits.write(1, 0);       // mixdata3e
        bits.write(8 * 1 + 16, 0);
        bits.flush();           // to the next byte
        bits.write(1, 0);       // frmmixcfginfoe
    }
    bits.write(1, 0); // infomdate
    bits.write(1, !addbsi.empty());
    if (!addbsi.empty()) {
        bits.write(6, addbsi.size() - 1);
        for (uint8_t byte : addbsi) bits.write(8, byte);
    }
    bits.flush();
    std::vector<uint8_t> frame = bits.take();
    frame.resize(200, 0);
    return frame;
}

struct Mark {
    uint8_t flag = 0;
    uint8_t complexity = 0;
};

Mark walk(const std::vector<uint8_t>& frame)
{
    BitReader reader(frame.data(), frame.size());
    AC3HeaderInfo header;
    EXPECT_EQ(parseAC3Header(reader, header), 0);
    Mark mark;
    EXPECT_EQ(qx_eac3_parse_addbsi(reader, header, &mark.flag, &mark.complexity), 0);
    return mark;
}

} // namespace

TEST(EAC3BitstreamWalk, FindsTheObjectAudioMarkInTheAdditionalBsi)
{
    struct Case {
        bool mixing;
        std::vector<uint8_t> addbsi;
        uint8_t flag, complexity;
    };
    // The lowest bit of the first byte is the mark; mixing metadata is stepped over.
    const Case cases[] = {{false, {0x01, 16}, 1, 16}, {false, {0x00, 16}, 0, 0}, {false, {}, 0, 0},
                          {true, {0x01, 12}, 1, 12}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "mixing " << c.mixing << ", " << c.addbsi.size() << " bytes");
        const Mark mark = walk(eac3Frame(c.mixing, c.addbsi));
        EXPECT_EQ(mark.flag, c.flag);
        if (c.flag) {
            EXPECT_EQ(mark.complexity, c.complexity);
        }
    }
}

TEST(EAC3BitstreamWalk, TruncatedFrameSetsNothing)
{
    std::vector<uint8_t> frame = eac3Frame(false, {0x01, 16});
    frame.resize(7);
    Mark mark;
    BitReader reader(frame.data(), frame.size());
    AC3HeaderInfo header;
    parseAC3Header(reader, header);
    header.bitstream_id = 16;
    header.num_blocks = 6;
    EXPECT_EQ(qx_eac3_parse_addbsi(reader, header, &mark.flag, &mark.complexity), 0);
    EXPECT_EQ(mark.flag, 0) << "reads past the end give zeros";
}
