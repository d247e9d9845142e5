#include "qxmedia/platform/codecs/HEVCConfiguration.h"

#include <algorithm>

#include "qxmedia/platform/codecs/BitStream.h"
#include "qxmedia/platform/codecs/ParameterSetParser.h"

namespace qx {

std::vector<uint8_t> createHvcC(const std::vector<NALUnit>& units, bool arrayCompleteness)
{
    ParameterSets sets;
    for (NALUnit unit : units) {
        NALUnitBytes bytes(unit.begin(), unit.end());
        switch (hevcNALType(unit)) {
        case HEVCNALVPS: sets.vps.push_back(std::move(bytes)); break;
        case HEVCNALSPS: sets.sps.push_back(std::move(bytes)); break;
        case HEVCNALPPS: sets.pps.push_back(std::move(bytes)); break;
        case HEVCNALSEIPrefix:
        case HEVCNALSEISuffix: sets.sei.push_back(std::move(bytes)); break;
        default: break;
        }
    }
    return createHvcC(sets, arrayCompleteness);
}

std::vector<uint8_t> createHvcCFromExtradata(const uint8_t* data, size_t size, bool arrayCompleteness)
{
    return createHvcC(readParameterSets(NALCodec::HEVC, data, size), arrayCompleteness);
}

namespace {

struct Record {
    HEVCProfileTierLevel ptl;
    uint32_t minSpatialSegmentation = 0;
    uint8_t parallelismType = 0;
    uint8_t chromaFormat = 1;
    uint8_t bitDepthLumaMinus8 = 0;
    uint8_t bitDepthChromaMinus8 = 0;
    uint8_t numTemporalLayers = 1;
    bool temporalIdNested = true;
};

// Several SPS describe one stream: the record names a profile, tier and
// level that covers them all.
void mergeProfileTierLevel(HEVCProfileTierLevel& into, const HEVCProfileTierLevel& from, bool first)
{
    if (first) {
        into = from;
        return;
    }
    if (from.tier_flag > into.tier_flag) {
        into.tier_flag = from.tier_flag;
        into.level_idc = from.level_idc;
    } else if (from.tier_flag == into.tier_flag) {
        into.level_idc = std::max(into.level_idc, from.level_idc);
    }
    into.profile_idc = std::max(into.profile_idc, from.profile_idc);
    into.profile_compatibility_flags &= from.profile_compatibility_flags;
    into.constraint_indicator_flags &= from.constraint_indicator_flags;
}

bool buildRecord(const ParameterSets& sets, Record& record)
{
    unsigned layers = 1;
    for (const auto& unit : sets.vps) {
        HEVCVideoParameterSet vps;
        if (parseHEVCVPS(unit, vps)) layers = std::max<unsigned>(layers, vps.vps_max_sub_layers_minus1 + 1u);
    }
    bool first = true;
    uint32_t minSpatial = UINT32_MAX;
    for (const auto& unit : sets.sps) {
        HEVCSequenceParameterSet sps;
        if (!parseHEVCSPS(unit, sps)) {
            if (first) return false;
            continue;
        }
        mergeProfileTierLevel(record.ptl, sps.ptl, first);
        if (first) {
            record.chromaFormat = uint8_t(sps.chroma_format_idc);
            record.bitDepthLumaMinus8 = uint8_t(std::min<uint32_t>(sps.bit_depth_luma_minus8, 7));
            record.bitDepthChromaMinus8 = uint8_t(std::min<uint32_t>(sps.bit_depth_chroma_minus8, 7));
        }
        first = false;
        layers = std::max<unsigned>(layers, sps.sps_max_sub_layers_minus1 + 1u);
        record.temporalIdNested = record.temporalIdNested && sps.sps_temporal_id_nesting_flag;
        // Without bitstream restrictions the value is inferred to be 0.
        minSpatial = std::min(minSpatial, sps.vui.min_spatial_segmentation_idc);
    }
    if (first) return false;
    record.minSpatialSegmentation = std::min<uint32_t>(minSpatial, 4095);
    record.numTemporalLayers = uint8_t(std::min(layers, 7u));

    // 1 slices, 2 tiles, 3 wavefronts; 0 mixed or unknown.
    int parallelism = -1;
    for (const auto& unit : sets.pps) {
        HEVCPictureParameterSet pps;
        if (!parseHEVCPPS(unit, pps)) {
            parallelism = 0;
            break;
        }
        int type = 1;
        if (pps.tiles_enabled_flag && pps.entropy_coding_sync_enabled_flag)
            type = 0;
        else if (pps.entropy_coding_sync_enabled_flag)
            type = 3;
        else if (pps.tiles_enabled_flag)
            type = 2;
        parallelism = parallelism < 0 || parallelism == type ? type : 0;
    }
    // The type only means something together with a segmentation limit.
    record.parallelismType = record.minSpatialSegmentation == 0 || parallelism < 0 ? 0 : uint8_t(parallelism);
    return true;
}

void writeArray(BitWriter& writer, uint8_t type, bool complete, const std::vector<NALUnitBytes>& units)
{
    writer.write(1, complete);
    writer.write(1, 0);
    writer.write(6, type);
    writer.write(16, units.size());
    for (const auto& unit : units) {
        writer.write(16, unit.size());
        writer.writeBytes(unit);
    }
}

} // namespace

std::vector<uint8_t> createHvcC(const ParameterSets& sets, bool arrayCompleteness)
{
    if (sets.vps.empty() || sets.sps.empty() || sets.pps.empty()) return {};
    Record record;
    if (!buildRecord(sets, record)) return {};

    std::vector<NALUnitBytes> prefixSEI, suffixSEI;
    for (const auto& unit : sets.sei) {
        if (unit.size() > 0xFFFF) continue;
        (hevcNALType(unit) == HEVCNALSEISuffix ? suffixSEI : prefixSEI).push_back(unit);
    }
    for (const auto* list : {&sets.vps, &sets.sps, &sets.pps}) {
        if (list->size() > 0xFFFF) return {};
        for (const auto& unit : *list) {
            if (unit.size() > 0xFFFF) return {};
        }
    }

    BitWriter writer;
    writer.write(8, 1); // configurationVersion
    writer.write(2, record.ptl.profile_space);
    writer.write(1, record.ptl.tier_flag);
    writer.write(5, record.ptl.profile_idc);
    writer.write(32, record.ptl.profile_compatibility_flags);
    writer.write(48, record.ptl.constraint_indicator_flags);
    writer.write(8, record.ptl.level_idc);
    writer.write(4, 0xF);
    writer.write(12, record.minSpatialSegmentation);
    writer.write(6, 0x3F);
    writer.write(2, record.parallelismType);
    writer.write(6, 0x3F);
    writer.write(2, record.chromaFormat);
    writer.write(5, 0x1F);
    writer.write(3, record.bitDepthLumaMinus8);
    writer.write(5, 0x1F);
    writer.write(3, record.bitDepthChromaMinus8);
    writer.write(16, 0); // avgFrameRate: unknown
    writer.write(2, 0);  // constantFrameRate: unknown
    writer.write(3, record.numTemporalLayers);
    writer.write(1, record.temporalIdNested);
    writer.write(2, 3); // lengthSizeMinusOne
    const unsigned arrays = 3 + !prefixSEI.empty() + !suffixSEI.empty();
    writer.write(8, arrays);
    writeArray(writer, HEVCNALVPS, arrayCompleteness, sets.vps);
    writeArray(writer, HEVCNALSPS, arrayCompleteness, sets.sps);
    writeArray(writer, HEVCNALPPS, arrayCompleteness, sets.pps);
    // SEI messages may also come in the samples: never complete.
    if (!prefixSEI.empty()) writeArray(writer, HEVCNALSEIPrefix, false, prefixSEI);
    if (!suffixSEI.empty()) writeArray(writer, HEVCNALSEISuffix, false, suffixSEI);
    return writer.take();
}

} // namespace qx
