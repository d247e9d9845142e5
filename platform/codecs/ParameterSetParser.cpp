#include "qxmedia/platform/codecs/ParameterSetParser.h"

#include <algorithm>

#include "qxmedia/platform/codecs/BitStream.h"
#include "qxmedia/platform/codecs/NALUnits.h"

namespace qx {
namespace {

// Sample aspect ratios of aspect_ratio_idc 1 to 16 (H.264 Table E-1, the
// same in HEVC).
const uint16_t kAspectRatios[17][2] = {
    {0, 0},   {1, 1},   {12, 11}, {10, 11}, {16, 11}, {40, 33}, {24, 11}, {20, 11}, {32, 11},
    {80, 33}, {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3},  {3, 2},   {2, 1},
};

void readAspectRatio(BitReader& reader, VideoUsabilityInfo& vui)
{
    if (!reader.readBit()) return; // aspect_ratio_info_present_flag
    const unsigned idc = reader.read(8);
    if (idc == 255) {
        vui.sar_width = uint16_t(reader.read(16));
        vui.sar_height = uint16_t(reader.read(16));
    } else if (idc < 17) {
        vui.sar_width = kAspectRatios[idc][0];
        vui.sar_height = kAspectRatios[idc][1];
    }
}

// The part of the VUI that both codecs share, up to the chroma location.
void readVideoSignal(BitReader& reader, VideoUsabilityInfo& vui)
{
    readAspectRatio(reader, vui);
    if (reader.readBit()) reader.skip(1); // overscan_appropriate_flag
    vui.video_signal_type_present_flag = reader.readBit();
    if (vui.video_signal_type_present_flag) {
        vui.video_format = uint8_t(reader.read(3));
        vui.video_full_range_flag = reader.readBit();
        vui.colour_description_present_flag = reader.readBit();
        if (vui.colour_description_present_flag) {
            vui.colour_primaries = uint8_t(reader.read(8));
            vui.transfer_characteristics = uint8_t(reader.read(8));
            vui.matrix_coeffs = uint8_t(reader.read(8));
        }
    }
    if (reader.readBit()) { // chroma_loc_info_present_flag
        reader.readUE();
        reader.readUE();
    }
}

void skipH264ScalingList(BitReader& reader, unsigned size)
{
    int last = 8, next = 8;
    for (unsigned j = 0; j < size && !reader.overread(); ++j) {
        if (next != 0) next = (last + reader.readSE() + 256) % 256;
        last = next == 0 ? last : next;
    }
}

bool isH264HighProfile(unsigned profile)
{
    switch (profile) {
    case 100: case 110: case 122: case 244: case 44: case 83:
    case 86: case 118: case 128: case 138: case 139: case 134: case 135:
        return true;
    default:
        return false;
    }
}

} // namespace

bool parseH264SPS(std::span<const uint8_t> nal, H264SequenceParameterSet& sps)
{
    sps = H264SequenceParameterSet {};
    if (nal.size() < 4 || h264NALType(nal) != H264NALSPS) return false;
    const auto rbsp = removeEmulationPrevention(nal.subspan(1));
    BitReader reader(rbsp);
    sps.profile_idc = uint8_t(reader.read(8));
    sps.constraint_flags = uint8_t(reader.read(8));
    sps.level_idc = uint8_t(reader.read(8));
    sps.seq_parameter_set_id = reader.readUE();
    bool separateColourPlanes = false;
    if (isH264HighProfile(sps.profile_idc)) {
        sps.chroma_format_idc = reader.readUE();
        if (sps.chroma_format_idc == 3) separateColourPlanes = reader.readBit();
        sps.bit_depth_luma_minus8 = reader.readUE();
        sps.bit_depth_chroma_minus8 = reader.readUE();
        reader.skip(1); // qpprime_y_zero_transform_bypass_flag
        if (reader.readBit()) { // seq_scaling_matrix_present_flag
            const unsigned lists = sps.chroma_format_idc == 3 ? 12 : 8;
            for (unsigned i = 0; i < lists; ++i) {
                if (reader.readBit()) skipH264ScalingList(reader, i < 6 ? 16 : 64);
            }
        }
    }
    if (sps.chroma_format_idc > 3) return false;
    reader.readUE(); // log2_max_frame_num_minus4
    const uint32_t pocType = reader.readUE();
    if (pocType == 0) {
        reader.readUE();
    } else if (pocType == 1) {
        reader.skip(1);
        reader.readSE();
        reader.readSE();
        const uint32_t cycle = reader.readUE();
        if (cycle > 255) return false;
        for (uint32_t i = 0; i < cycle; ++i) reader.readSE();
    }
    reader.readUE(); // max_num_ref_frames
    reader.skip(1);  // gaps_in_frame_num_value_allowed_flag
    const uint64_t widthInMbs = uint64_t(reader.readUE()) + 1;
    const uint64_t heightInMapUnits = uint64_t(reader.readUE()) + 1;
    sps.frame_mbs_only_flag = reader.readBit();
    if (!sps.frame_mbs_only_flag) reader.skip(1); // mb_adaptive_frame_field_flag
    reader.skip(1);                               // direct_8x8_inference_flag
    uint64_t cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0;
    if (reader.readBit()) {
        cropLeft = reader.readUE();
        cropRight = reader.readUE();
        cropTop = reader.readUE();
        cropBottom = reader.readUE();
    }
    const unsigned chromaArrayType = separateColourPlanes ? 0 : sps.chroma_format_idc;
    const unsigned cropUnitX = chromaArrayType == 0 ? 1 : (chromaArrayType == 3 ? 1 : 2);
    const unsigned cropUnitY = (chromaArrayType == 1 ? 2 : 1) * (sps.frame_mbs_only_flag ? 1 : 2);
    const uint64_t width = widthInMbs * 16, height = heightInMapUnits * 16 * (sps.frame_mbs_only_flag ? 1 : 2);
    const uint64_t cropX = (cropLeft + cropRight) * cropUnitX, cropY = (cropTop + cropBottom) * cropUnitY;
    if (cropX >= width || cropY >= height) return false;
    sps.width = uint32_t(width - cropX);
    sps.height = uint32_t(height - cropY);
    if (reader.readBit()) { // vui_parameters_present_flag
        readVideoSignal(reader, sps.vui);
        sps.vui.timing_info_present_flag = reader.readBit();
        if (sps.vui.timing_info_present_flag) {
            sps.vui.num_units_in_tick = reader.read(32);
            sps.vui.time_scale = reader.read(32);
        }
    }
    return !reader.overread();
}

namespace {

bool readProfileTierLevel(BitReader& reader, unsigned maxSubLayersMinus1, HEVCProfileTierLevel& ptl)
{
    ptl.profile_space = uint8_t(reader.read(2));
    ptl.tier_flag = uint8_t(reader.read(1));
    ptl.profile_idc = uint8_t(reader.read(5));
    ptl.profile_compatibility_flags = reader.read(32);
    ptl.constraint_indicator_flags = reader.read64(48);
    ptl.level_idc = uint8_t(reader.read(8));
    bool profilePresent[8] = {}, levelPresent[8] = {};
    for (unsigned i = 0; i < maxSubLayersMinus1; ++i) {
        profilePresent[i] = reader.readBit();
        levelPresent[i] = reader.readBit();
    }
    if (maxSubLayersMinus1 > 0) {
        for (unsigned i = maxSubLayersMinus1; i < 8; ++i) reader.skip(2); // reserved_zero_2bits
    }
    for (unsigned i = 0; i < maxSubLayersMinus1; ++i) {
        if (profilePresent[i]) reader.skip(88);
        if (levelPresent[i]) reader.skip(8);
    }
    return !reader.overread();
}

void skipSubLayerHrd(BitReader& reader, unsigned cpbCount, bool subPicParameters)
{
    for (unsigned i = 0; i < cpbCount && !reader.overread(); ++i) {
        reader.readUE(); // bit_rate_value_minus1
        reader.readUE(); // cpb_size_value_minus1
        if (subPicParameters) {
            reader.readUE();
            reader.readUE();
        }
        reader.skip(1); // cbr_flag
    }
}

bool skipHrdParameters(BitReader& reader, unsigned maxSubLayersMinus1)
{
    // With commonInfPresentFlag 1, as in the VUI.
    const bool nal = reader.readBit();
    const bool vcl = reader.readBit();
    bool subPic = false;
    if (nal || vcl) {
        subPic = reader.readBit();
        if (subPic) reader.skip(8 + 5 + 1 + 5);
        reader.skip(4 + 4); // bit_rate_scale, cpb_size_scale
        if (subPic) reader.skip(4);
        reader.skip(5 + 5 + 5);
    }
    for (unsigned i = 0; i <= maxSubLayersMinus1; ++i) {
        const bool fixedGeneral = reader.readBit();
        const bool fixedWithinCvs = fixedGeneral ? true : reader.readBit();
        bool lowDelay = false;
        if (fixedWithinCvs)
            reader.readUE(); // elemental_duration_in_tc_minus1
        else
            lowDelay = reader.readBit();
        unsigned cpbCount = 1;
        if (!lowDelay) {
            const uint32_t minus1 = reader.readUE();
            if (minus1 > 31) return false;
            cpbCount = minus1 + 1;
        }
        if (nal) skipSubLayerHrd(reader, cpbCount, subPic);
        if (vcl) skipSubLayerHrd(reader, cpbCount, subPic);
    }
    return !reader.overread();
}

bool skipScalingListData(BitReader& reader)
{
    for (unsigned sizeId = 0; sizeId < 4; ++sizeId) {
        for (unsigned matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
            if (!reader.readBit()) {
                reader.readUE(); // scaling_list_pred_matrix_id_delta
                continue;
            }
            const unsigned coefficients = std::min(64u, 1u << (4 + (sizeId << 1)));
            if (sizeId > 1) reader.readSE();
            for (unsigned i = 0; i < coefficients; ++i) reader.readSE();
        }
    }
    return !reader.overread();
}

// st_ref_pic_set(index) of an SPS. deltaPocs holds NumDeltaPocs of the
// sets before.
bool skipShortTermRefPicSet(BitReader& reader, unsigned index, std::span<unsigned> deltaPocs)
{
    // In an SPS a predicted set refers to the one before it; delta_idx_minus1
    // is only coded in slice headers.
    const bool interPrediction = index != 0 && reader.readBit();
    if (interPrediction) {
        reader.skip(1);  // delta_rps_sign
        reader.readUE(); // abs_delta_rps_minus1
        const unsigned reference = index - 1;
        unsigned pocs = 0;
        for (unsigned j = 0; j <= deltaPocs[reference]; ++j) {
            const bool usedByCurrent = reader.readBit();
            const bool useDelta = usedByCurrent ? true : reader.readBit();
            if (usedByCurrent || useDelta) ++pocs;
        }
        deltaPocs[index] = pocs;
    } else {
        const uint32_t negative = reader.readUE();
        const uint32_t positive = reader.readUE();
        if (negative > 16 || positive > 16) return false;
        for (uint32_t i = 0; i < negative + positive; ++i) {
            reader.readUE(); // delta_poc_sX_minus1
            reader.skip(1);  // used_by_curr_pic_sX_flag
        }
        deltaPocs[index] = negative + positive;
    }
    return deltaPocs[index] <= 32 && !reader.overread();
}

BitReader rbspReader(std::span<const uint8_t> nal, std::vector<uint8_t>& rbsp)
{
    rbsp = removeEmulationPrevention(nal.subspan(2)); // two-byte NAL header
    return BitReader(rbsp);
}

} // namespace

bool parseHEVCVPS(std::span<const uint8_t> nal, HEVCVideoParameterSet& vps)
{
    vps = HEVCVideoParameterSet {};
    if (nal.size() < 3 || hevcNALType(nal) != HEVCNALVPS) return false;
    std::vector<uint8_t> rbsp;
    BitReader reader = rbspReader(nal, rbsp);
    reader.skip(4 + 1 + 1 + 6); // vps id, base layer flags, vps_max_layers_minus1
    vps.vps_max_sub_layers_minus1 = uint8_t(reader.read(3));
    vps.vps_temporal_id_nesting_flag = reader.readBit();
    reader.skip(16);
    return readProfileTierLevel(reader, vps.vps_max_sub_layers_minus1, vps.ptl);
}

bool parseHEVCSPS(std::span<const uint8_t> nal, HEVCSequenceParameterSet& sps)
{
    sps = HEVCSequenceParameterSet {};
    if (nal.size() < 3 || hevcNALType(nal) != HEVCNALSPS) return false;
    std::vector<uint8_t> rbsp;
    BitReader reader = rbspReader(nal, rbsp);
    reader.skip(4); // sps_video_parameter_set_id
    sps.sps_max_sub_layers_minus1 = uint8_t(reader.read(3));
    sps.sps_temporal_id_nesting_flag = reader.readBit();
    if (sps.sps_max_sub_layers_minus1 > 6) return false;
    if (!readProfileTierLevel(reader, sps.sps_max_sub_layers_minus1, sps.ptl)) return false;
    reader.readUE(); // sps_seq_parameter_set_id
    sps.chroma_format_idc = reader.readUE();
    if (sps.chroma_format_idc > 3) return false;
    bool separateColourPlanes = false;
    if (sps.chroma_format_idc == 3) separateColourPlanes = reader.readBit();
    const uint64_t width = reader.readUE(), height = reader.readUE();
    uint64_t left = 0, right = 0, top = 0, bottom = 0;
    if (reader.readBit()) { // conformance_window_flag
        left = reader.readUE();
        right = reader.readUE();
        top = reader.readUE();
        bottom = reader.readUE();
    }
    const unsigned chromaArrayType = separateColourPlanes ? 0 : sps.chroma_format_idc;
    const unsigned subWidth = chromaArrayType == 1 || chromaArrayType == 2 ? 2 : 1;
    const unsigned subHeight = chromaArrayType == 1 ? 2 : 1;
    const uint64_t cropX = (left + right) * subWidth, cropY = (top + bottom) * subHeight;
    if (cropX > width || cropY > height) return false;
    sps.width = uint32_t(width - cropX);
    sps.height = uint32_t(height - cropY);
    sps.bit_depth_luma_minus8 = reader.readUE();
    sps.bit_depth_chroma_minus8 = reader.readUE();
    const uint32_t log2MaxPocLsb = reader.readUE() + 4;
    if (log2MaxPocLsb > 16) return false;
    const bool orderingForAll = reader.readBit();
    for (unsigned i = orderingForAll ? 0 : sps.sps_max_sub_layers_minus1; i <= sps.sps_max_sub_layers_minus1; ++i) {
        reader.readUE();
        reader.readUE();
        reader.readUE();
    }
    for (int i = 0; i < 6; ++i) reader.readUE(); // block sizes and transform hierarchy depths
    if (reader.readBit() && reader.readBit()) {  // scaling_list_enabled_flag, sps_scaling_list_data_present_flag
        if (!skipScalingListData(reader)) return false;
    }
    reader.skip(2); // amp_enabled_flag, sample_adaptive_offset_enabled_flag
    if (reader.readBit()) { // pcm_enabled_flag
        reader.skip(8);
        reader.readUE();
        reader.readUE();
        reader.skip(1);
    }
    const uint32_t shortTermSets = reader.readUE();
    if (shortTermSets > 64) return false;
    unsigned deltaPocs[64] = {};
    for (unsigned i = 0; i < shortTermSets; ++i) {
        if (!skipShortTermRefPicSet(reader, i, deltaPocs)) return false;
    }
    if (reader.readBit()) { // long_term_ref_pics_present_flag
        const uint32_t longTerm = reader.readUE();
        if (longTerm > 32) return false;
        for (uint32_t i = 0; i < longTerm; ++i) reader.skip(log2MaxPocLsb + 1);
    }
    reader.skip(2); // sps_temporal_mvp_enabled_flag, strong_intra_smoothing_enabled_flag
    sps.vui_parameters_present_flag = reader.readBit();
    if (sps.vui_parameters_present_flag) {
        VideoUsabilityInfo& vui = sps.vui;
        readVideoSignal(reader, vui);
        reader.skip(3); // neutral_chroma_indication_flag, field_seq_flag, frame_field_info_present_flag
        if (reader.readBit()) { // default_display_window_flag
            for (int i = 0; i < 4; ++i) reader.readUE();
        }
        vui.timing_info_present_flag = reader.readBit();
        if (vui.timing_info_present_flag) {
            vui.num_units_in_tick = reader.read(32);
            vui.time_scale = reader.read(32);
            if (reader.readBit()) reader.readUE(); // num_ticks_poc_diff_one_minus1
            if (reader.readBit() && !skipHrdParameters(reader, sps.sps_max_sub_layers_minus1)) return false;
        }
        vui.bitstream_restriction_flag = reader.readBit();
        if (vui.bitstream_restriction_flag) {
            reader.skip(3);
            vui.min_spatial_segmentation_idc = reader.readUE();
        }
    }
    return !reader.overread();
}

bool parseHEVCPPS(std::span<const uint8_t> nal, HEVCPictureParameterSet& pps)
{
    pps = HEVCPictureParameterSet {};
    if (nal.size() < 3 || hevcNALType(nal) != HEVCNALPPS) return false;
    std::vector<uint8_t> rbsp;
    BitReader reader = rbspReader(nal, rbsp);
    reader.readUE(); // pps_pic_parameter_set_id
    reader.readUE(); // pps_seq_parameter_set_id
    reader.skip(1 + 1 + 3 + 1 + 1);
    reader.readUE(); // num_ref_idx_l0_default_active_minus1
    reader.readUE();
    reader.readSE(); // init_qp_minus26
    reader.skip(2);  // constrained_intra_pred_flag, transform_skip_enabled_flag
    if (reader.readBit()) reader.readUE(); // cu_qp_delta_enabled_flag, diff_cu_qp_delta_depth
    reader.readSE();                       // pps_cb_qp_offset
    reader.readSE();
    reader.skip(4); // slice chroma offsets, weighted prediction, transquant bypass
    pps.tiles_enabled_flag = reader.readBit();
    pps.entropy_coding_sync_enabled_flag = reader.readBit();
    return !reader.overread();
}

} // namespace qx
