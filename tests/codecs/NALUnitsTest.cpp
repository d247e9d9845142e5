// NAL unit framing (Annex B and length-prefixed), avcC and hvcC records, and
// sequence parameter sets, against what FFmpeg's encoders and muxer make.

#include <gtest/gtest.h>

#include "qxmedia/platform/codecs/HEVCConfiguration.h"
#include "qxmedia/platform/codecs/NALUnits.h"
#include "qxmedia/platform/codecs/ParameterSetParser.h"
#include "support/TestMedia.h"

using namespace qx;
using Bytes = std::vector<uint8_t>;

namespace {

const std::string kSource = "-f lavfi -i testsrc2=size=320x180:rate=25:duration=0.6 ";

std::vector<Bytes> unitsOf(const std::vector<NALUnit>& units)
{
    std::vector<Bytes> out;
    for (NALUnit unit : units) out.emplace_back(unit.begin(), unit.end());
    return out;
}

// The NAL units of the first access unit that come before its first picture.
std::vector<NALUnit> headerUnits(NALCodec codec, const Bytes& accessUnit)
{
    std::vector<NALUnit> units;
    for (NALUnit unit : splitAnnexB(accessUnit.data(), accessUnit.size())) {
        const bool picture = codec == NALCodec::HEVC ? hevcNALType(unit) < 32 : h264NALType(unit) <= 5;
        if (picture) break;
        units.push_back(unit);
    }
    return units;
}

struct HEVCCase {
    std::string name, arguments;
};
const HEVCCase kHEVCCases[] = {
    {"hvcc-main10", "-pix_fmt yuv420p10le -x265-params log-level=error"},
    {"hvcc-422-nowpp", "-pix_fmt yuv422p -x265-params log-level=error:wpp=0"},
    {"hvcc-vui", "-pix_fmt yuv420p -color_primaries bt709 -color_trc bt709 -colorspace bt709 -color_range pc "
                 "-x265-params log-level=error:hrd=1:vbv-bufsize=500:vbv-maxrate=400"},
};

// The same encoding as an MP4 with an hvcC, or as a raw Annex B stream.
std::filesystem::path makeHEVC(const HEVCCase& c, bool raw)
{
    return qxtest::generate(c.name + (raw ? ".hevc" : ".mp4"), kSource + "-c:v libx265 -preset ultrafast " +
                                                                   c.arguments + (raw ? " -f hevc" : " -tag:v hvc1"));
}

} // namespace

TEST(NALUnits, AnnexBToLengthPrefixed)
{
    // Leading junk, mixed start codes, trailing zeros before a start code,
    // an empty unit and trailing zeros at the end.
    const Bytes annexB = {0xAA, 0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0x00, 0x00, 0x01, 0x68, 0xCE, 0x00, 0x00,
                          0x00, 0x00, 0x01, 0x00, 0x00, 0x01, 0x65, 0x88, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00};
    const auto units = unitsOf(splitAnnexB(annexB.data(), annexB.size()));
    const Bytes prefixed = annexBToLengthPrefixed(annexB.data(), annexB.size());
    EXPECT_EQ(prefixed, (Bytes {0, 0, 0, 2, 0x67, 0x42, 0, 0, 0, 2, 0x68, 0xCE, 0, 0, 0, 6, 0x65, 0x88, 0, 0, 3, 1}));
    std::vector<NALUnit> back;
    ASSERT_TRUE(splitLengthPrefixed(prefixed.data(), prefixed.size(), 4, back));
    EXPECT_EQ(unitsOf(back), units);

    // Lengths that run past the end, or a cut length field.
    std::vector<NALUnit> partial;
    EXPECT_FALSE(splitLengthPrefixed(prefixed.data(), prefixed.size() - 1, 4, partial));
    EXPECT_EQ(partial.size(), 2u);
    const Bytes short2 = {0x00, 0x02, 0x67, 0x42, 0x00, 0x01, 0x68};
    partial.clear();
    EXPECT_TRUE(splitLengthPrefixed(short2.data(), short2.size(), 2, partial));
    EXPECT_EQ(partial.size(), 2u);
    EXPECT_FALSE(splitLengthPrefixed(short2.data(), short2.size(), 3, partial));
}

// Samples of an MP4 written by FFmpeg, turned into Annex B with both kinds of
// start code, come back byte for byte.
TEST(NALUnits, RoundTripOfEncodedSamples)
{
    const auto h264 = qxtest::generate("nal-h264.mp4", kSource + "-c:v libx264 -preset veryfast -bf 2");
    for (const auto& path : {h264, makeHEVC(kHEVCCases[0], false)}) {
        SCOPED_TRACE(path.string());
        ASSERT_FALSE(path.empty());
        const auto stream = qxtest::readStream(path);
        for (const qxtest::Packet& sample : stream.packets) {
            const Bytes& packet = sample.data;
            std::vector<NALUnit> units;
            ASSERT_TRUE(splitLengthPrefixed(packet.data(), packet.size(), 4, units));
            Bytes annexB;
            for (size_t i = 0; i < units.size(); ++i) {
                annexB.insert(annexB.end(), {0, 0});
                if (i % 2 == 0) annexB.push_back(0);
                annexB.push_back(1);
                annexB.insert(annexB.end(), units[i].begin(), units[i].end());
            }
            EXPECT_EQ(annexBToLengthPrefixed(annexB.data(), annexB.size()), packet);
        }
    }
}

// The avcC record rebuilt from its parameter sets equals FFmpeg's, and the
// sequence parameter set reads as FFmpeg reads it.
TEST(AvcC, RecordAndSequenceParameterSetAgreeWithFFmpeg)
{
    const struct {
        std::string name, arguments;
        bool fullRange;
    } cases[] = {
        // High profiles carry chroma format and bit depths after the sets; baseline does not.
        {"avcc-baseline.mp4", "-c:v libx264 -preset veryfast -profile:v baseline -pix_fmt yuv420p", false},
        {"avcc-422p10.mp4", "-c:v libx264 -preset veryfast -pix_fmt yuv422p10le", false},
        {"sps-cropped.mp4", "-vf scale=318:178 -c:v libx264 -preset veryfast", false},
        {"sps-sar.mp4", "-vf setsar=4/3 -c:v libx264 -preset veryfast -color_primaries bt709 -color_trc bt709 "
                        "-colorspace bt709", false},
        {"sps-full.mp4", "-vf scale=out_range=full -c:v libx264 -preset veryfast -color_range pc -pix_fmt yuvj420p",
         true},
        {"sps-interlaced.mp4", "-c:v libx264 -preset veryfast -flags +ildct -x264-params tff=1", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = qxtest::generate(c.name, kSource + c.arguments);
        ASSERT_FALSE(path.empty());
        const Bytes avcC = qxtest::boxPayload(path, "avcC");
        const auto sets = readParameterSets(NALCodec::H264, avcC.data(), avcC.size());
        ASSERT_EQ(sets.sps.size(), 1u);
        ASSERT_EQ(sets.pps.size(), 1u);
        EXPECT_EQ(qxtest::hex(createAvcC(sets.sps, sets.pps)), qxtest::hex(avcC));

        const auto stream = qxtest::readStream(path, 1);
        H264SequenceParameterSet sps;
        ASSERT_TRUE(parseH264SPS(sets.sps[0], sps));
        EXPECT_EQ(int(sps.width), stream.width);
        EXPECT_EQ(int(sps.height), stream.height);
        EXPECT_EQ(sps.level_idc, stream.level);
        if (stream.sarNum > 0 && !(stream.sarNum == 1 && stream.sarDen == 1)) {
            EXPECT_EQ(sps.vui.sar_width * stream.sarDen, sps.vui.sar_height * stream.sarNum);
        }
        EXPECT_EQ(sps.vui.video_full_range_flag, c.fullRange);
        if (sps.vui.colour_description_present_flag) { EXPECT_EQ(sps.vui.colour_primaries, stream.colorPrimaries); }
    }
    // Damaged input: a record cut inside its parameter sets gives what was
    // complete; sets that are no SPS or end inside the Exp-Golomb codes are refused.
    const Bytes cut = {1, 0x42, 0, 0x1E, 0xFF, 0xE2, 0, 2, 0x67, 0x42, 0, 9, 0x67};
    const auto partial = readParameterSets(NALCodec::H264, cut.data(), cut.size());
    EXPECT_EQ(partial.sps.size(), 1u);
    EXPECT_TRUE(partial.pps.empty());
    H264SequenceParameterSet sps;
    for (const Bytes& bad : {Bytes {0x68, 0x42, 0, 0x1E}, Bytes {0x67, 0x42, 0}, Bytes {0x67, 0x42, 0, 0x1E, 0}})
        EXPECT_FALSE(parseH264SPS(bad, sps)) << qxtest::hex(bad);
}

// The record built from the parameter sets of a raw HEVC stream equals the
// one FFmpeg's MP4 muxer writes for the same encoding.
TEST(HvcC, MatchesFFmpegMuxer)
{
    for (const auto& c : kHEVCCases) {
        SCOPED_TRACE(c.name);
        const auto mp4 = makeHEVC(c, false);
        const auto raw = makeHEVC(c, true);
        ASSERT_FALSE(mp4.empty() || raw.empty());
        const Bytes hvcC = qxtest::boxPayload(mp4, "hvcC");
        ASSERT_GT(hvcC.size(), 23u);

        // The encoder's SEI differs between the two encodings (its option
        // text, timing messages in the raw stream): take the record's own.
        const auto stream = qxtest::readStream(raw, 1);
        ASSERT_EQ(stream.packets.size(), 1u);
        std::vector<NALUnit> units;
        for (NALUnit unit : headerUnits(NALCodec::HEVC, stream.packets[0].data)) {
            if (hevcNALType(unit) < HEVCNALSEIPrefix) units.push_back(unit);
        }
        const auto recorded = readParameterSets(NALCodec::HEVC, hvcC.data(), hvcC.size());
        for (const auto& sei : recorded.sei) units.emplace_back(sei);
        EXPECT_EQ(qxtest::hex(createHvcC(units)), qxtest::hex(hvcC));

        // Reading the record back and writing it again changes nothing.
        EXPECT_EQ(qxtest::hex(createHvcCFromExtradata(hvcC.data(), hvcC.size())), qxtest::hex(hvcC));
        // Its sequence and picture parameter sets read as FFmpeg reads them.
        const auto info = qxtest::readStream(mp4, 1);
        HEVCSequenceParameterSet sps;
        ASSERT_TRUE(parseHEVCSPS(recorded.sps.at(0), sps));
        EXPECT_EQ(int(sps.width), info.width);
        EXPECT_EQ(int(sps.height), info.height);
        EXPECT_EQ(sps.ptl.profile_idc, info.profile);
        EXPECT_EQ(sps.vui.video_full_range_flag, info.colorRange == 2);
        EXPECT_EQ(sps.vui.colour_description_present_flag, c.name == "hvcc-vui");
        HEVCPictureParameterSet pps;
        ASSERT_TRUE(parseHEVCPPS(recorded.pps.at(0), pps));
        EXPECT_EQ(pps.entropy_coding_sync_enabled_flag, c.name != "hvcc-422-nowpp");
        units.erase(units.begin() + 1); // without its SPS there is no record
        EXPECT_TRUE(createHvcC(units).empty());
    }
}
