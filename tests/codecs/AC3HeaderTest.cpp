// AC-3 and E-AC-3 frame headers, bit-stream info and the dac3/dec3 records, against FFmpeg's encoders and muxer.

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/channel_layout.h>
}

#include "qxmedia/platform/codecs/AC3Header.h"
#include "qxmedia/platform/codecs/EAC3Configuration.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

std::filesystem::path makeAudio(const std::string& name, const std::string& layout, int rate,
                                 const std::string& codecArguments)
{
    return qxtest::generate(name, "-f lavfi -i sine=frequency=440:sample_rate=" + std::to_string(rate) +
                                      ":duration=1 -af 'aformat=channel_layouts=" + layout + "' " + codecArguments);
}

// An AC-3 sync frame header up to lfeon, then zeros to the frame's size.
std::vector<uint8_t> makeAC3Frame(uint8_t fscod, uint8_t frmsizecod, uint8_t bsid, uint8_t bsmod, uint8_t acmod,
                                  uint8_t lfeon, size_t size = 64)
{
    BitWriter writer;
    writer.write(16, 0x0B77);
    writer.write(16, 0x1234); // crc1
    writer.write(2, fscod);
    writer.write(6, frmsizecod);
    writer.write(5, bsid);
    writer.write(3, bsmod);
    writer.write(3, acmod);
    if (acmod == 2) writer.write(2, 2); // dsurmod
    if ((acmod & 1) && acmod != 1) writer.write(2, 1);
    if (acmod & 4) writer.write(2, 2);
    writer.write(1, lfeon);
    auto bytes = writer.take();
    bytes.resize(size, 0);
    return bytes;
}

struct EAC3Frame {
    uint8_t strmtyp = 0;
    uint8_t substreamid = 0;
    uint8_t fscod = 0;
    uint8_t numblkscod = 3;
    uint8_t acmod = 7;
    uint8_t lfeon = 1;
    bool chanmape = false;
    uint16_t chanmap = 0;
    bool mixmdate = false;
    bool infomdate = false;
    uint8_t bsmod = 0;
    std::vector<uint8_t> addbsi {};
    size_t size = 256;
};

std::vector<uint8_t> makeEAC3Frame(const EAC3Frame& frame)
{
    BitWriter writer;
    writer.write(16, 0x0B77);
    writer.write(2, frame.strmtyp);
    writer.write(3, frame.substreamid);
    writer.write(11, frame.size / 2 - 1);
    writer.write(2, frame.fscod);
    writer.write(2, frame.numblkscod);
    writer.write(3, frame.acmod);
    writer.write(1, frame.lfeon);
    writer.write(5, 16);
    writer.write(5, 27); // dialnorm
    writer.write(1, 1);  // compre
    writer.write(8, 0xAA);
    if (frame.acmod == 0) writer.write(6, 0);
    if (frame.strmtyp == 1) {
        writer.write(1, frame.chanmape);
        if (frame.chanmape) writer.write(16, frame.chanmap);
    }
    writer.write(1, frame.mixmdate);
    if (frame.mixmdate) {
        if (frame.acmod > 2) writer.write(2, 1);
        if ((frame.acmod & 1) && frame.acmod > 2) writer.write(6, 0x3F);
        if (frame.acmod & 4) writer.write(6, 0x3F);
        if (frame.lfeon) writer.write(6, 0x3F); // lfemixlevcode set, 5 bits
        if (frame.strmtyp == 0) {
            writer.write(7, 0x7F); // pgmscle, pgmscl
            if (frame.acmod == 0) writer.write(1, 0);
            writer.write(1, 0); // extpgmscle
            writer.write(2, 3);    // mixdef: mixdeflen 1, then 3 bytes of mixdata
            writer.write(5, 1);
            writer.write(24, 0xFFFFFF);
            if (frame.acmod < 2) writer.write(1, 0);
            if (frame.acmod == 0) writer.write(1, 0);
            writer.write(1, 1); // frmmixcfginfoe, 6 blocks: one flag a block
            for (int block = 0; block < 6; ++block) {
                writer.write(1, block == 2);
                if (block == 2) writer.write(5, 0x1F);
            }
        }
    }
    writer.write(1, frame.infomdate);
    if (frame.infomdate) {
        writer.write(3, frame.bsmod);
        writer.write(2, 3);
        if (frame.acmod == 2) writer.write(4, 0xF);
        if (frame.acmod >= 6) writer.write(2, 3);
        writer.write(1, 0); // audprodie
        if (frame.acmod == 0) writer.write(1, 0);
        writer.write(1, 1); // sourcefscod
    }
    if (frame.strmtyp == 0 && frame.numblkscod != 3) writer.write(1, 0);
    writer.write(1, !frame.addbsi.empty());
    if (!frame.addbsi.empty()) {
        writer.write(6, frame.addbsi.size() - 1);
        writer.writeBytes(frame.addbsi);
    }
    auto bytes = writer.take();
    bytes.resize(frame.size, 0);
    return bytes;
}

std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

} // namespace

// Every frame of streams made by FFmpeg's encoders parses to what FFmpeg
// itself reports for the stream, and frames follow each other by frame_size.
TEST(AC3Header, AgreesWithFFmpegOnEncodedStreams)
{
    struct Case {
        std::string name, layout;
        int rate;
        std::string arguments;
        uint8_t bsid;
    };
    const Case cases[] = {
        {"ac3-51-44k.ac3", "5.1", 44100, "-c:a ac3 -b:a 448k", 8},
        {"ac3-mono-32k.ac3", "mono", 32000, "-c:a ac3 -b:a 96k", 8},
        {"ac3-quad-48k.ac3", "quad(side)", 48000, "-c:a ac3 -b:a 256k", 8},
        {"eac3-51-48k.eac3", "5.1(side)", 48000, "-c:a eac3 -b:a 256k", 16},
        {"eac3-3.0-32k.eac3", "3.0", 32000, "-c:a eac3 -b:a 128k", 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = makeAudio(c.name, c.layout, c.rate, c.arguments);
        ASSERT_FALSE(path.empty());
        const auto stream = qxtest::readStream(path);
        ASSERT_GT(stream.packets.size(), 10u);
        // The raw demuxers' packets are not frames: walk the bytes.
        std::vector<uint8_t> all;
        for (const auto& packet : stream.packets) all.insert(all.end(), packet.data.begin(), packet.data.end());
        size_t offset = 0, frames = 0;
        while (offset < all.size()) {
            AC3HeaderInfo header;
            ASSERT_EQ(parseAC3Header(all.data() + offset, all.size() - offset, header), 0) << "at " << offset;
            EXPECT_EQ(header.bitstream_id, c.bsid);
            EXPECT_EQ(int(header.sample_rate), stream.sampleRate);
            EXPECT_EQ(int(header.channels), stream.channels);
            EXPECT_EQ(header.channel_layout, stream.channelMask);
            // FFmpeg gives the first frame's rate; padded frames vary a little.
            if (frames == 0) {
                EXPECT_EQ(int64_t(header.bit_rate), stream.bitRate);
            }
            EXPECT_NEAR(double(header.bit_rate), double(stream.bitRate), stream.bitRate * 0.01);
            AC3BitstreamInfo info;
            ASSERT_EQ(parseAC3BitstreamInfo(all.data() + offset, all.size() - offset, info), 0);
            EXPECT_LE(info.bsiEndBit, header.frame_size * 8);
            offset += header.frame_size;
            ++frames;
        }
        EXPECT_EQ(offset, all.size());
        EXPECT_GT(frames, 10u);
    }
}

TEST(AC3Header, Dac3MatchesFFmpegMuxer)
{
    const auto path = makeAudio("ac3-51-44k-vi.mp4", "5.1", 44100, "-c:a ac3 -b:a 384k -audio_service_type vi");
    ASSERT_FALSE(path.empty());
    const auto stream = qxtest::readStream(path, 3);
    ASSERT_FALSE(stream.packets.empty());
    AC3HeaderInfo header;
    ASSERT_EQ(parseAC3Header(stream.packets[0].data.data(), stream.packets[0].data.size(), header), 0);
    EXPECT_EQ(header.bitstream_mode, 2); // visually impaired
    const auto dac3 = createDac3Payload(header);
    EXPECT_EQ(qxtest::hex({dac3.begin(), dac3.end()}), qxtest::hex(qxtest::boxPayload(path, "dac3")));
}

// The LFE flag moves with the optional mix level fields before it.
TEST(AC3Header, FieldsBeforeLfeDependOnChannelMode)
{
    for (uint8_t acmod = 0; acmod < 8; ++acmod) {
        for (uint8_t lfeon = 0; lfeon < 2; ++lfeon) {
            SCOPED_TRACE(int(acmod) * 10 + lfeon);
            const auto frame = makeAC3Frame(0, 28, 8, 3, acmod, lfeon);
            AC3HeaderInfo header;
            ASSERT_EQ(parseAC3Header(frame.data(), frame.size(), header), 0);
            EXPECT_EQ(header.channel_mode, acmod);
            EXPECT_EQ(header.lfe_on, lfeon);
            EXPECT_EQ(header.channels, kAC3ChannelsByMode[acmod] + lfeon);
            EXPECT_EQ(header.dolby_surround_mode, acmod == 2 ? 2 : 0);
            EXPECT_EQ(header.center_mix_level_code, (acmod & 1) && acmod != 1 ? 1 : 0);
            EXPECT_EQ(header.surround_mix_level_code, (acmod & 4) ? 2 : 0);
        }
    }
}

TEST(AC3Header, ReducedSampleRatesAndFrameSizes)
{
    AC3HeaderInfo header;
    auto half = makeAC3Frame(0, 28, 9, 0, 2, 0); // 384 kbit/s code, bsid 9
    ASSERT_EQ(parseAC3Header(half.data(), half.size(), header), 0);
    EXPECT_EQ(header.sample_rate, 24000u);
    EXPECT_EQ(header.bit_rate, 192000u);
    EXPECT_EQ(header.ac3_bit_rate_code, 14);
    auto quarter = makeAC3Frame(2, 0, 10, 0, 2, 0);
    ASSERT_EQ(parseAC3Header(quarter.data(), quarter.size(), header), 0);
    EXPECT_EQ(header.bit_rate, 8000u);

    // Words of A/52's frame size table, times two: 44.1 kHz pads odd codes.
    EXPECT_EQ(ac3FrameSize(0, 1), 138u);
    EXPECT_EQ(ac3FrameSize(1, 1), 140u);
    EXPECT_EQ(ac3FrameSize(0, 2), 192u);
    EXPECT_EQ(ac3FrameSize(37, 0), 2560u);
    EXPECT_EQ(ac3FrameSize(37, 1), 2788u);
    EXPECT_EQ(ac3FrameSize(38, 0), 0u);
}

TEST(AC3Header, RejectsDamagedHeaders)
{
    AC3HeaderInfo header;
    auto frame = makeAC3Frame(0, 14, 8, 0, 7, 1);
    auto broken = frame;
    broken[1] = 0x78;
    EXPECT_EQ(parseAC3Header(broken.data(), broken.size(), header), AC3ParseErrorSync);
    broken = makeAC3Frame(0, 14, 17, 0, 7, 1);
    EXPECT_EQ(parseAC3Header(broken.data(), broken.size(), header), AC3ParseErrorBitstreamID);
    broken = makeAC3Frame(3, 14, 8, 0, 7, 1);
    EXPECT_EQ(parseAC3Header(broken.data(), broken.size(), header), AC3ParseErrorSampleRate);
    broken = makeAC3Frame(0, 38, 8, 0, 7, 1);
    EXPECT_EQ(parseAC3Header(broken.data(), broken.size(), header), AC3ParseErrorFrameSize);
    EXPECT_EQ(parseAC3Header(frame.data(), 6, header), AC3ParseErrorTruncated);
    EXPECT_EQ(parseAC3Header(nullptr, 0, header), AC3ParseErrorTruncated);

    auto eac3 = makeEAC3Frame({});
    eac3[2] |= 0xC0; // strmtyp 3
    EXPECT_EQ(parseAC3Header(eac3.data(), eac3.size(), header), AC3ParseErrorFrameType);
    eac3 = makeEAC3Frame({.fscod = 3, .numblkscod = 3}); // fscod2 3
    EXPECT_EQ(parseAC3Header(eac3.data(), eac3.size(), header), AC3ParseErrorSampleRate);
    eac3 = makeEAC3Frame({.size = 4});
    EXPECT_EQ(parseAC3Header(eac3.data(), eac3.size(), header), AC3ParseErrorTruncated);
    eac3 = makeEAC3Frame({.size = 256});
    eac3[2] &= 0xF8; // frmsiz 0..: two-byte frame
    eac3[3] = 0;
    EXPECT_EQ(parseAC3Header(eac3.data(), eac3.size(), header), AC3ParseErrorFrameSize);
}

TEST(EAC3Header, HeaderFieldsAndReaderPosition)
{
    const auto frame = makeEAC3Frame({.substreamid = 0, .fscod = 3, .numblkscod = 1, .acmod = 2, .lfeon = 0});
    BitReader reader(frame.data(), frame.size());
    AC3HeaderInfo header;
    ASSERT_EQ(parseAC3Header(reader, header), 0);
    // fscod 3 puts the reduced-rate code where numblkscod was: 44100 / 2.
    EXPECT_EQ(header.sample_rate, 22050u);
    EXPECT_EQ(header.num_blocks, 6);
    EXPECT_EQ(header.bit_rate, 8u * 256 * 22050 / 1536);
    EXPECT_EQ(header.ac3_bit_rate_code, -1);
    // The reader stands before bsid, as callers of FFmpeg's parser expect.
    EXPECT_EQ(reader.position(), 40u);
    AC3BitstreamInfo info;
    ASSERT_EQ(parseAC3BitstreamInfo(reader, header, info), 0);
    EXPECT_EQ(info.dialnorm, 27);

    const auto oneBlock = makeEAC3Frame({.numblkscod = 0, .size = 128});
    ASSERT_EQ(parseAC3Header(oneBlock.data(), oneBlock.size(), header), 0);
    EXPECT_EQ(header.num_blocks, 1);
    EXPECT_EQ(header.bit_rate, 8u * 128 * 48000 / 256);
}

// The bsi walk reaches bsmod and the additional bsi through every optional
// block of mixing and informational metadata.
TEST(EAC3Header, BitstreamInfoReachesBsmodAndExtension)
{
    const std::vector<uint8_t> joc = {0x01, 0x10, 0x00};
    for (uint8_t acmod : {0, 1, 2, 7}) {
        for (bool mix : {false, true}) {
            SCOPED_TRACE(int(acmod) * 10 + mix);
            const auto frame =
                makeEAC3Frame({.acmod = acmod, .mixmdate = mix, .infomdate = true, .bsmod = 5, .addbsi = joc});
            AC3BitstreamInfo info;
            ASSERT_EQ(parseAC3BitstreamInfo(frame.data(), frame.size(), info), 0);
            EXPECT_EQ(info.header.bitstream_mode, 5);
            EXPECT_EQ(info.addbsi, joc);
            EXPECT_TRUE(info.flag_ec3_extension_type_a);
            EXPECT_EQ(info.complexity_index_type_a, 0x10);
        }
    }
    const auto plain = makeEAC3Frame({.addbsi = {0x02, 0x20}});
    AC3BitstreamInfo info;
    ASSERT_EQ(parseAC3BitstreamInfo(plain.data(), plain.size(), info), 0);
    EXPECT_FALSE(info.flag_ec3_extension_type_a);

    // A bsi that runs past the end of the data is an error, not a guess.
    const auto cut = makeEAC3Frame({.addbsi = std::vector<uint8_t>(40, 1), .size = 256});
    EXPECT_EQ(parseAC3BitstreamInfo(cut.data(), 20, info), AC3ParseErrorTruncated);
}

TEST(EAC3Header, ServiceTypeOfEncodedStream)
{
    const auto path = makeAudio("eac3-stereo-vi.eac3", "stereo", 48000, "-c:a eac3 -b:a 96k -audio_service_type vi");
    ASSERT_FALSE(path.empty());
    const auto stream = qxtest::readStream(path, 2);
    ASSERT_FALSE(stream.packets.empty());
    AC3BitstreamInfo info;
    ASSERT_EQ(parseAC3BitstreamInfo(stream.packets[0].data.data(), stream.packets[0].data.size(), info), 0);
    EXPECT_EQ(info.header.bitstream_mode, 2);
}

TEST(EAC3Configuration, Dec3MatchesFFmpegMuxer)
{
    const struct {
        std::string name, layout, bitrate;
    } cases[] = {{"eac3-51.mp4", "5.1(side)", "256k"}, {"eac3-stereo.mp4", "stereo", "96k"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = makeAudio(c.name, c.layout, 48000, "-c:a eac3 -b:a " + c.bitrate + " -movflags +faststart");
        ASSERT_FALSE(path.empty());
        const auto stream = qxtest::readStream(path, 10);
        EAC3ConfigurationBuilder builder;
        int used = 0;
        for (const auto& packet : stream.packets) used += builder.addPacket(packet.data.data(), packet.data.size());
        EXPECT_EQ(used, 1); // one frame a packet; the next comes round to substream 0
        EXPECT_TRUE(builder.isComplete());
        EXPECT_EQ(qxtest::hex(builder.createDec3Payload()), qxtest::hex(qxtest::boxPayload(path, "dec3")));
        EXPECT_EQ(builder.channelLayout(), stream.channelMask);
    }
}

// A 7.1 program: a 5.1 independent substream and a dependent one that adds
// the rear surround pair.
TEST(EAC3Configuration, DependentSubstreamsAndExtension)
{
    const uint16_t lsRsLrsRrs = (1u << (15 - 3)) | (1u << (15 - 4)) | (1u << (15 - 6));
    const auto independent = makeEAC3Frame({.infomdate = true, .bsmod = 1, .addbsi = {0x01, 0x07}, .size = 512});
    const auto dependent = makeEAC3Frame({.strmtyp = 1, .acmod = 6, .lfeon = 0, .chanmape = true,
                                          .chanmap = lsRsLrsRrs, .size = 256});
    const auto packet = concat({independent, dependent});

    EAC3ConfigurationBuilder builder;
    EXPECT_EQ(builder.addPacket(packet.data(), packet.size()), 2);
    EXPECT_FALSE(builder.isComplete());
    EXPECT_EQ(builder.addPacket(packet.data(), packet.size()), 0);
    EXPECT_TRUE(builder.isComplete());
    EXPECT_EQ(builder.channelLayout(), uint64_t(AV_CH_LAYOUT_7POINT1));
    // data_rate: both substreams together, (512 + 256) bytes every 1536 samples, 192 kbit/s;
    // chan_loc Lrs/Rrs. 13+3 bits, then 2+5+1, 1+3+3+1, 3+4+9 and 7+1+8.
    EXPECT_EQ(qxtest::hex(builder.createDec3Payload()), "0600" "20" "1f" "0280" "01" "07");

    // Without a channel map the dependent substream adds no location.
    const auto plainDependent = makeEAC3Frame({.strmtyp = 1, .acmod = 2, .lfeon = 0, .size = 128});
    const auto plainPacket = concat({makeEAC3Frame({}), plainDependent});
    EAC3ConfigurationBuilder plain;
    EXPECT_EQ(plain.addPacket(plainPacket.data(), plainPacket.size()), 2);
    EXPECT_EQ(plain.configuration().substreams[0].num_dep_sub, 1);
    EXPECT_EQ(plain.configuration().substreams[0].chan_loc, 0);

    // An AC-3 5.1 core with an E-AC-3 dependent substream, as 7.1 streams
    // for AC-3 decoders are made.
    const auto core = makeAC3Frame(0, 28, 8, 0, 7, 1, 1536);
    const auto corePacket = concat({core, dependent});
    EAC3ConfigurationBuilder withCore;
    EXPECT_EQ(withCore.addPacket(corePacket.data(), corePacket.size()), 2);
    EXPECT_EQ(withCore.configuration().substreams[0].bsid, 8);
    EXPECT_EQ(withCore.channelLayout(), uint64_t(AV_CH_LAYOUT_7POINT1));
    EXPECT_EQ(withCore.configuration().data_rate, 384 + 64);

    // A second program and a trailing fragment that does not parse.
    auto second = makeEAC3Frame({.substreamid = 1, .acmod = 2, .lfeon = 0, .size = 128});
    auto twoPrograms = concat({makeEAC3Frame({}), second, {0x0B, 0x77, 0x00}});
    EAC3ConfigurationBuilder programs;
    EXPECT_EQ(programs.addPacket(twoPrograms.data(), twoPrograms.size()), 2);
    EXPECT_EQ(programs.configuration().substreams[1].acmod, 2);
    EXPECT_EQ(programs.createDec3Payload().size(), 2u + 3 + 3);
    EXPECT_EQ(programs.channelLayout(), uint64_t(AV_CH_LAYOUT_5POINT1));
}

TEST(EAC3Configuration, ChannelLocationsOfChanmap)
{
    auto bit = [](unsigned location) { return uint16_t(1u << (15 - location)); };
    EXPECT_EQ(eac3ChanLocFromChanmap(bit(5)), 0x100);  // Lc/Rc
    EXPECT_EQ(eac3ChanLocFromChanmap(bit(13)), 0);     // Lts/Rts: no place
    EXPECT_EQ(eac3ChanLocFromChanmap(bit(14)), 0x001); // LFE2
    EXPECT_EQ(eac3ChanLocFromChanmap(bit(0) | bit(1) | bit(2) | bit(15)), 0);
    EXPECT_EQ(eac3ChannelLayoutFromChanmap(bit(0) | bit(2) | bit(15)), uint64_t(AV_CH_LAYOUT_2POINT1));
    EXPECT_EQ(eac3ChannelLayoutFromChanmap(bit(10)), uint64_t(AV_CH_WIDE_LEFT | AV_CH_WIDE_RIGHT));
}
