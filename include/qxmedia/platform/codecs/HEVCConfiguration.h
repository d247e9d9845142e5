#pragma once
// The HEVC decoder configuration record (hvcC, ISO/IEC 14496-15 8.3.3) built
// from a stream's parameter sets. Stands in for FFmpeg's internal
// ff_isom_write_hvcc: the profile, tier and level, chroma format, bit
// depths, spatial segmentation, parallelism and temporal layers are read
// from the VPS, SPS and PPS; lengths are four bytes.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qxmedia/platform/codecs/NALUnits.h"

namespace qx {

// NAL units of any HEVC type: VPS, SPS, PPS and prefix/suffix SEI go into
// the record in that order, others are left out. arrayCompleteness marks the
// parameter set arrays as complete (no parameter sets in the samples), as
// an hvc1 sample entry needs. Empty unless there is at least one VPS, SPS
// and PPS and the first SPS parses.
std::vector<uint8_t> createHvcC(const std::vector<NALUnit>& units, bool arrayCompleteness = true);
std::vector<uint8_t> createHvcC(const ParameterSets& sets, bool arrayCompleteness = true);
// From codec extradata in either form (Annex B or an existing hvcC).
std::vector<uint8_t> createHvcCFromExtradata(const uint8_t* data, size_t size, bool arrayCompleteness = true);

} // namespace qx
