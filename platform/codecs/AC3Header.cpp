#include "qxmedia/platform/codecs/AC3Header.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace qx {

const std::array<uint32_t, 3> kAC3SampleRates = {48000, 44100, 32000};
const std::array<uint16_t, 19> kAC3BitRatesKbps = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                                   192, 224, 256, 320, 384, 448, 512, 576, 640};
const std::array<uint8_t, 8> kAC3ChannelsByMode = {2, 1, 2, 3, 3, 4, 4, 5};

namespace {

constexpr uint16_t kSyncWord = 0x0B77;
constexpr unsigned kHeaderBytes = 7;
constexpr uint8_t kBlocksPerFrame[4] = {1, 2, 3, 6};

int parseAC3Part(BitReader& reader, AC3HeaderInfo& header)
{
    header.crc1 = uint16_t(reader.read(16));
    header.sr_code = uint8_t(reader.read(2));
    if (header.sr_code == 3) return AC3ParseErrorSampleRate;
    header.frame_size_code = uint8_t(reader.read(6));
    if (header.frame_size_code > 37) return AC3ParseErrorFrameSize;
    header.ac3_bit_rate_code = int8_t(header.frame_size_code >> 1);
    reader.skip(5); // bsid, known already
    header.bitstream_mode = uint8_t(reader.read(3));
    header.channel_mode = uint8_t(reader.read(3));
    if (header.channel_mode == AC3ChannelModeStereo) {
        header.dolby_surround_mode = uint8_t(reader.read(2));
    } else {
        // A centre channel beside the front pair, and surround channels.
        if ((header.channel_mode & 1) && header.channel_mode != AC3ChannelModeMono)
            header.center_mix_level_code = uint8_t(reader.read(2));
        if (header.channel_mode & 4) header.surround_mix_level_code = uint8_t(reader.read(2));
    }
    header.lfe_on = uint8_t(reader.read(1));

    // bsid 9 and 10 are the half and quarter sample rate versions of AC-3.
    header.sr_shift = uint8_t(header.bitstream_id > 8 ? header.bitstream_id - 8 : 0);
    header.sample_rate = kAC3SampleRates[header.sr_code] >> header.sr_shift;
    header.bit_rate = (uint32_t(kAC3BitRatesKbps[header.ac3_bit_rate_code]) * 1000) >> header.sr_shift;
    header.frame_size = ac3FrameSize(header.frame_size_code, header.sr_code);
    header.frame_type = EAC3FrameTypeAC3Convert;
    header.substreamid = 0;
    return 0;
}

int parseEAC3Part(BitReader& reader, AC3HeaderInfo& header)
{
    header.frame_type = uint8_t(reader.read(2));
    if (header.frame_type == EAC3FrameTypeReserved) return AC3ParseErrorFrameType;
    header.substreamid = uint8_t(reader.read(3));
    header.frame_size = (reader.read(11) + 1) * 2;
    if (header.frame_size < kHeaderBytes) return AC3ParseErrorFrameSize;
    header.sr_code = uint8_t(reader.read(2));
    if (header.sr_code == 3) {
        header.sr_code2 = uint8_t(reader.read(2));
        if (header.sr_code2 == 3) return AC3ParseErrorSampleRate;
        header.sample_rate = kAC3SampleRates[header.sr_code2] / 2;
        header.sr_shift = 1;
        header.num_blocks = 6;
    } else {
        header.num_blocks = kBlocksPerFrame[reader.read(2)];
        header.sample_rate = kAC3SampleRates[header.sr_code];
        header.sr_shift = 0;
    }
    header.channel_mode = uint8_t(reader.read(3));
    header.lfe_on = uint8_t(reader.read(1));
    header.bit_rate = uint32_t(8ull * header.frame_size * header.sample_rate / (header.num_blocks * 256u));
    return 0;
}

} // namespace

int parseAC3Header(BitReader& reader, AC3HeaderInfo& header)
{
    header = AC3HeaderInfo {};
    if (reader.bitsLeft() < kHeaderBytes * 8) return AC3ParseErrorTruncated;
    header.sync_word = uint16_t(reader.read(16));
    if (header.sync_word != kSyncWord) return AC3ParseErrorSync;
    // bsid sits at the same place in both syntaxes and tells them apart.
    header.bitstream_id = uint8_t(reader.peek(29) & 0x1F);
    if (header.bitstream_id > 16) return AC3ParseErrorBitstreamID;

    const int result = header.bitstream_id <= 10 ? parseAC3Part(reader, header) : parseEAC3Part(reader, header);
    if (result < 0) return result;
    header.channels = uint8_t(kAC3ChannelsByMode[header.channel_mode] + header.lfe_on);
    header.channel_layout = ac3ChannelLayout(header.channel_mode, header.lfe_on);
    return 0;
}

int parseAC3Header(const uint8_t* data, size_t size, AC3HeaderInfo& header)
{
    BitReader reader(data, size);
    return parseAC3Header(reader, header);
}

namespace {

void skipIfFlag(BitReader& reader, size_t bits)
{
    if (reader.readBit()) reader.skip(bits);
}

void readAddbsi(BitReader& reader, AC3BitstreamInfo& info)
{
    info.addbsie = reader.readBit();
    if (!info.addbsie) return;
    const unsigned length = reader.read(6) + 1;
    for (unsigned i = 0; i < length; ++i) {
        const uint8_t byte = uint8_t(reader.read(8));
        if (info.addbsi.size() < 64) info.addbsi.push_back(byte);
    }
    if (!info.addbsi.empty() && (info.addbsi[0] & 1)) {
        info.flag_ec3_extension_type_a = true;
        info.complexity_index_type_a = info.addbsi.size() > 1 ? info.addbsi[1] : 0;
    }
}

// The rest of an AC-3 bsi (A/52 5.3.2), from `dialnorm` on.
void parseAC3Rest(BitReader& reader, AC3BitstreamInfo& info)
{
    const uint8_t acmod = info.header.channel_mode;
    info.dialnorm = uint8_t(reader.read(5));
    skipIfFlag(reader, 8); // compr
    skipIfFlag(reader, 8); // langcod
    skipIfFlag(reader, 7); // mixlevel, roomtyp
    if (acmod == AC3ChannelModeDualMono) {
        reader.skip(5);        // dialnorm2
        skipIfFlag(reader, 8); // compr2
        skipIfFlag(reader, 8); // langcod2
        skipIfFlag(reader, 7); // mixlevel2, roomtyp2
    }
    reader.skip(2); // copyrightb, origbs
    // timecod1/2, or xbsi1/2 in the alternate syntax of bsid 6: same widths.
    skipIfFlag(reader, 14);
    skipIfFlag(reader, 14);
    readAddbsi(reader, info);
}

// The rest of an E-AC-3 bsi (TS 102 366 E.1.2.2), from `bsid` on.
void parseEAC3Rest(BitReader& reader, AC3BitstreamInfo& info)
{
    AC3HeaderInfo& header = info.header;
    const uint8_t acmod = header.channel_mode;
    const uint8_t strmtyp = header.frame_type;
    const bool sixBlocks = header.num_blocks == 6;
    reader.skip(5); // bsid
    info.dialnorm = uint8_t(reader.read(5));
    skipIfFlag(reader, 8); // compr
    if (acmod == AC3ChannelModeDualMono) {
        reader.skip(5);        // dialnorm2
        skipIfFlag(reader, 8); // compr2
    }
    if (strmtyp == EAC3FrameTypeDependent) {
        info.chanmape = reader.readBit();
        if (info.chanmape) info.chanmap = uint16_t(reader.read(16));
    }
    if (reader.readBit()) { // mixmdate
        if (acmod > AC3ChannelModeStereo) reader.skip(2); // dmixmod
        if ((acmod & 1) && acmod > AC3ChannelModeStereo) reader.skip(6); // ltrt/loro centre levels
        if (acmod & 4) reader.skip(6);                                   // ltrt/loro surround levels
        if (header.lfe_on) skipIfFlag(reader, 5);                        // lfemixlevcod
        if (strmtyp == EAC3FrameTypeIndependent) {
            skipIfFlag(reader, 6); // pgmscl
            if (acmod == AC3ChannelModeDualMono) skipIfFlag(reader, 6); // pgmscl2
            skipIfFlag(reader, 6); // extpgmscl
            switch (reader.read(2)) { // mixdef
            case 1: reader.skip(5); break;
            case 2: reader.skip(12); break;
            case 3: {
                // mixdata is (mixdeflen + 2) bytes long, whatever it holds.
                const unsigned mixdeflen = reader.read(5);
                reader.skip(8 * (mixdeflen + 2));
                break;
            }
            default: break;
            }
            if (acmod < AC3ChannelModeStereo) {
                skipIfFlag(reader, 14); // panmean, paninfo
                if (acmod == AC3ChannelModeDualMono) skipIfFlag(reader, 14);
            }
            if (reader.readBit()) { // frmmixcfginfoe
                if (header.num_blocks == 1) {
                    reader.skip(5);
                } else {
                    for (unsigned block = 0; block < header.num_blocks; ++block) skipIfFlag(reader, 5);
                }
            }
        }
    }
    info.infomdate = reader.readBit();
    if (info.infomdate) {
        header.bitstream_mode = uint8_t(reader.read(3));
        reader.skip(2); // copyrightb, origbs
        if (acmod == AC3ChannelModeStereo) {
            header.dolby_surround_mode = uint8_t(reader.read(2));
            reader.skip(2); // dheadphonmod
        }
        if (acmod >= AC3ChannelMode2F2R) reader.skip(2); // dsurexmod
        skipIfFlag(reader, 8);                           // mixlevel, roomtyp, adconvtyp
        if (acmod == AC3ChannelModeDualMono) skipIfFlag(reader, 8);
        if (header.sr_code < 3) reader.skip(1); // sourcefscod
    }
    if (strmtyp == EAC3FrameTypeIndependent && !sixBlocks) reader.skip(1); // convsync
    if (strmtyp == EAC3FrameTypeAC3Convert) {
        const bool blkid = sixBlocks ? true : reader.readBit();
        if (blkid) reader.skip(6); // frmsizecod
    }
    readAddbsi(reader, info);
}

} // namespace

int parseAC3BitstreamInfo(const uint8_t* data, size_t size, AC3BitstreamInfo& info)
{
    BitReader reader(data, size);
    AC3HeaderInfo header;
    const int result = parseAC3Header(reader, header);
    if (result < 0) {
        info = AC3BitstreamInfo {};
        info.header = header;
        return result;
    }
    return parseAC3BitstreamInfo(reader, header, info);
}

int parseAC3BitstreamInfo(BitReader& reader, const AC3HeaderInfo& header, AC3BitstreamInfo& info)
{
    info = AC3BitstreamInfo {};
    info.header = header;
    if (info.header.bitstream_id <= 10)
        parseAC3Rest(reader, info);
    else
        parseEAC3Rest(reader, info);
    if (reader.overread()) return AC3ParseErrorTruncated;
    info.bsiEndBit = reader.position();
    return 0;
}

uint32_t ac3FrameSize(uint8_t frameSizeCode, uint8_t srCode)
{
    if (frameSizeCode > 37 || srCode > 2) return 0;
    const uint32_t kbps = kAC3BitRatesKbps[frameSizeCode >> 1];
    // 1536 samples a frame, counted in 16-bit words. At 44.1 kHz the size is
    // not whole, and the odd codes carry one word more.
    uint32_t words = 0;
    switch (srCode) {
    case 0: words = kbps * 2; break;
    case 1: words = kbps * 96000 / 44100 + (frameSizeCode & 1); break;
    case 2: words = kbps * 3; break;
    }
    return words * 2;
}

uint64_t ac3ChannelLayout(uint8_t channelMode, bool lfeOn)
{
    static const uint64_t layouts[8] = {
        AV_CH_LAYOUT_STEREO,  AV_CH_LAYOUT_MONO,    AV_CH_LAYOUT_STEREO, AV_CH_LAYOUT_SURROUND,
        AV_CH_LAYOUT_2_1,     AV_CH_LAYOUT_4POINT0, AV_CH_LAYOUT_2_2,    AV_CH_LAYOUT_5POINT0,
    };
    return layouts[channelMode & 7] | (lfeOn ? AV_CH_LOW_FREQUENCY : 0);
}

namespace {

// Locations of the custom channel map, bit 0 being the most significant.
const uint64_t kChanmapLocations[16] = {
    AV_CH_FRONT_LEFT,
    AV_CH_FRONT_CENTER,
    AV_CH_FRONT_RIGHT,
    AV_CH_SIDE_LEFT,
    AV_CH_SIDE_RIGHT,
    AV_CH_FRONT_LEFT_OF_CENTER | AV_CH_FRONT_RIGHT_OF_CENTER,
    AV_CH_BACK_LEFT | AV_CH_BACK_RIGHT,
    AV_CH_BACK_CENTER,
    AV_CH_TOP_CENTER,
    AV_CH_SURROUND_DIRECT_LEFT | AV_CH_SURROUND_DIRECT_RIGHT,
    AV_CH_WIDE_LEFT | AV_CH_WIDE_RIGHT,
    AV_CH_TOP_FRONT_LEFT | AV_CH_TOP_FRONT_RIGHT,
    AV_CH_TOP_FRONT_CENTER,
    AV_CH_TOP_SIDE_LEFT | AV_CH_TOP_SIDE_RIGHT,
    AV_CH_LOW_FREQUENCY_2,
    AV_CH_LOW_FREQUENCY,
};

bool chanmapHas(uint16_t chanmap, unsigned location)
{
    return (chanmap >> (15 - location)) & 1;
}

} // namespace

uint64_t eac3ChannelLayoutFromChanmap(uint16_t chanmap)
{
    uint64_t layout = 0;
    for (unsigned location = 0; location < 16; ++location) {
        if (chanmapHas(chanmap, location)) layout |= kChanmapLocations[location];
    }
    return layout;
}

uint16_t eac3ChanLocFromChanmap(uint16_t chanmap)
{
    // chan_loc bits 0 to 7 are chanmap locations 5 to 12 (Lc/Rc to Cvh);
    // bit 8 is LFE2 (location 14). Top side surrounds have no chan_loc bit.
    uint16_t chanLoc = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        if (chanmapHas(chanmap, bit + 5)) chanLoc |= uint16_t(1u << (8 - bit));
    }
    if (chanmapHas(chanmap, 14)) chanLoc |= 1;
    return chanLoc;
}

std::array<uint8_t, 3> createDac3Payload(const AC3HeaderInfo& header)
{
    BitWriter writer;
    writer.write(2, header.sr_code);
    writer.write(5, header.bitstream_id);
    writer.write(3, header.bitstream_mode);
    writer.write(3, header.channel_mode);
    writer.write(1, header.lfe_on);
    writer.write(5, header.ac3_bit_rate_code < 0 ? 0 : uint8_t(header.ac3_bit_rate_code));
    writer.write(5, 0);
    const auto& bytes = writer.bytes();
    return {bytes[0], bytes[1], bytes[2]};
}

} // namespace qx
