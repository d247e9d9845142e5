#pragma once
// AC-3 (ATSC A/52) and E-AC-3 (ETSI TS 102 366 Annex E) sync-frame headers.
//
// parseAC3Header stands in for FFmpeg's internal ff_ac3_parse_header: it
// reads the sync information and the start of the bit stream information,
// fills an AC3HeaderInfo with the same field names and values, and leaves
// the reader where FFmpeg's leaves it: right after `lfeon`. For AC-3 that is
// inside the bsi after the mix levels; for E-AC-3 it is bit 40 of the frame,
// just before `bsid`.
//
// parseAC3BitstreamInfo goes on through the whole bsi (mixing and
// informational metadata) to reach what the header alone does not give:
// `bsmod` of an E-AC-3 frame, the custom channel map of a dependent
// substream, and the additional bsi that carries the object-audio (JOC,
// "Atmos") mark.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qxmedia/platform/codecs/BitStream.h"

namespace qx {

// Negative results of the parsers.
enum AC3ParseError : int {
    AC3ParseErrorSync = -1,
    AC3ParseErrorBitstreamID = -2,
    AC3ParseErrorSampleRate = -3,
    AC3ParseErrorFrameSize = -4,
    AC3ParseErrorFrameType = -5,
    AC3ParseErrorTruncated = -6,
};

// `strmtyp` of E-AC-3; plain AC-3 frames report AC3Convert, as FFmpeg does.
enum EAC3FrameType : uint8_t {
    EAC3FrameTypeIndependent = 0,
    EAC3FrameTypeDependent = 1,
    EAC3FrameTypeAC3Convert = 2,
    EAC3FrameTypeReserved = 3,
};

// Channel modes (`acmod`).
enum AC3ChannelMode : uint8_t {
    AC3ChannelModeDualMono = 0,
    AC3ChannelModeMono = 1,
    AC3ChannelModeStereo = 2,
    AC3ChannelMode3F = 3,
    AC3ChannelMode2F1R = 4,
    AC3ChannelMode3F1R = 5,
    AC3ChannelMode2F2R = 6,
    AC3ChannelMode3F2R = 7,
};

struct AC3HeaderInfo {
    uint16_t sync_word = 0;
    uint16_t crc1 = 0;                   // AC-3 only
    uint8_t sr_code = 0;                 // fscod
    uint8_t sr_code2 = 0;                // E-AC-3 fscod2, when sr_code is 3
    uint8_t frame_size_code = 0;         // AC-3 frmsizecod
    int8_t ac3_bit_rate_code = -1;       // frmsizecod >> 1; -1 for E-AC-3
    uint8_t bitstream_id = 0;            // bsid
    uint8_t bitstream_mode = 0;          // bsmod (E-AC-3: only from parseAC3BitstreamInfo)
    uint8_t channel_mode = 0;            // acmod
    uint8_t lfe_on = 0;                  // lfeon
    uint8_t frame_type = 0;              // EAC3FrameType
    uint8_t substreamid = 0;
    uint8_t center_mix_level_code = 0;   // cmixlev as coded (AC-3)
    uint8_t surround_mix_level_code = 0; // surmixlev as coded (AC-3)
    uint8_t dolby_surround_mode = 0;     // dsurmod (AC-3 stereo)
    uint8_t num_blocks = 6;              // audio blocks of 256 samples
    uint8_t sr_shift = 0;                // reduced sample rates: bsid 9, 10, or E-AC-3 fscod2
    uint32_t sample_rate = 0;
    uint32_t bit_rate = 0;               // bits per second
    uint8_t channels = 0;                // of this frame, LFE included
    uint32_t frame_size = 0;             // bytes
    uint64_t channel_layout = 0;         // FFmpeg channel mask of this frame
};

// Reads a sync frame header at the reader's position. 0 on success.
int parseAC3Header(BitReader& reader, AC3HeaderInfo& header);
int parseAC3Header(const uint8_t* data, size_t size, AC3HeaderInfo& header);

struct AC3BitstreamInfo {
    AC3HeaderInfo header;                // bitstream_mode filled for E-AC-3 too
    uint8_t dialnorm = 0;
    bool chanmape = false;               // E-AC-3 dependent substreams
    uint16_t chanmap = 0;
    bool infomdate = false;
    bool addbsie = false;
    std::vector<uint8_t> addbsi;         // at most 64 bytes are kept
    // Dolby's E-AC-3 extension (object audio, JOC) in the first addbsi bytes.
    bool flag_ec3_extension_type_a = false;
    uint8_t complexity_index_type_a = 0;
    size_t bsiEndBit = 0;                // bit position after the bsi
};

// Parses the header and the whole bsi of the frame at data. 0 on success.
int parseAC3BitstreamInfo(const uint8_t* data, size_t size, AC3BitstreamInfo& info);
// Goes on from where parseAC3Header left the reader, with its result.
int parseAC3BitstreamInfo(BitReader& reader, const AC3HeaderInfo& header, AC3BitstreamInfo& info);

// Tables of A/52.
extern const std::array<uint32_t, 3> kAC3SampleRates;      // by fscod
extern const std::array<uint16_t, 19> kAC3BitRatesKbps;    // by frmsizecod >> 1
extern const std::array<uint8_t, 8> kAC3ChannelsByMode;    // by acmod, LFE not counted
// Bytes of an AC-3 sync frame; 0 for codes out of range.
uint32_t ac3FrameSize(uint8_t frameSizeCode, uint8_t srCode);
// FFmpeg channel mask for a channel mode.
uint64_t ac3ChannelLayout(uint8_t channelMode, bool lfeOn);
// FFmpeg channel mask of the channels a custom channel map (`chanmap`) names.
uint64_t eac3ChannelLayoutFromChanmap(uint16_t chanmap);
// The 9-bit `chan_loc` of the dec3 box for the channels of a chanmap.
uint16_t eac3ChanLocFromChanmap(uint16_t chanmap);

// The 3-byte payload of the `dac3` box (ETSI TS 102 366 F.4) for an AC-3 frame.
std::array<uint8_t, 3> createDac3Payload(const AC3HeaderInfo& header);

} // namespace qx
