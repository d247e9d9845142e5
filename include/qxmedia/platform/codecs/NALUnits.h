#pragma once
// H.264 / HEVC NAL unit framing: Annex B byte streams (start codes) and the
// length-prefixed form of MP4 samples (ISO/IEC 14496-15), the avcC record,
// and reading parameter sets out of codec extradata in either form.
//
// Stand-ins for FFmpeg's internal helpers:
//   ff_avc_find_startcode        -> qx::avcFindStartCode
//   ff_avc_parse_nal_units_buf   -> qx::annexBToLengthPrefixed
//   ff_isom_write_avcc           -> qx::createAvcC

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace qx {

using NALUnit = std::span<const uint8_t>;
using NALUnitBytes = std::vector<uint8_t>;

enum class NALCodec { H264, HEVC };

// The first start code (00 00 01) at or after begin. A zero byte right
// before it is taken as part of it (the four-byte form 00 00 00 01), so
// the result points at the first zero of the start code. end if none.
const uint8_t* avcFindStartCode(const uint8_t* begin, const uint8_t* end);

// True if the data begins with a three- or four-byte start code.
bool isAnnexB(const uint8_t* data, size_t size);

// The NAL units of an Annex B buffer, without start codes and without the
// zero bytes that may trail a unit. Bytes before the first start code are
// not a NAL unit and are dropped.
std::vector<NALUnit> splitAnnexB(const uint8_t* data, size_t size);

// Annex B to NAL units each behind a four-byte big-endian length.
std::vector<uint8_t> annexBToLengthPrefixed(const uint8_t* data, size_t size);

// The NAL units of length-prefixed data (lengthSize 1, 2 or 4). False, with
// the units read so far, when a length runs past the end.
bool splitLengthPrefixed(const uint8_t* data, size_t size, unsigned lengthSize, std::vector<NALUnit>& units);

// Writes units behind start codes of four bytes.
std::vector<uint8_t> createAnnexB(const std::vector<NALUnit>& units);

// NAL unit types.
uint8_t h264NALType(NALUnit unit);
uint8_t hevcNALType(NALUnit unit);
enum : uint8_t {
    H264NALSEI = 6,
    H264NALSPS = 7,
    H264NALPPS = 8,
    HEVCNALVPS = 32,
    HEVCNALSPS = 33,
    HEVCNALPPS = 34,
    HEVCNALSEIPrefix = 39,
    HEVCNALSEISuffix = 40,
};

// Parameter sets as stored in extradata: with emulation prevention bytes,
// without start codes or lengths.
struct ParameterSets {
    std::vector<NALUnitBytes> vps; // HEVC only
    std::vector<NALUnitBytes> sps;
    std::vector<NALUnitBytes> pps;
    std::vector<NALUnitBytes> sei; // HEVC prefix and suffix SEI of an hvcC or Annex B header
    unsigned lengthSize = 4;       // NAL length size the record declares
    bool empty() const { return sps.empty() && pps.empty() && vps.empty(); }
};

// Reads an avcC / hvcC record, or Annex B extradata. Damaged records give
// what could be read.
ParameterSets readParameterSets(NALCodec codec, const uint8_t* extradata, size_t size);

// The payload of an avcC box for four-byte NAL lengths. The profile
// indications come from the first SPS; beyond Baseline, Main and Extended
// the chroma format and bit depths of the SPS follow the PPS list. Empty without a valid SPS.
std::vector<uint8_t> createAvcC(const std::vector<NALUnitBytes>& sps, const std::vector<NALUnitBytes>& pps);

// NAL payload without emulation prevention bytes (00 00 03 -> 00 00).
std::vector<uint8_t> removeEmulationPrevention(NALUnit unit);

} // namespace qx
