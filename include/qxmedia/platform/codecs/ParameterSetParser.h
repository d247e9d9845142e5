#pragma once
// Parsers of H.264 and HEVC parameter sets: what an MP4 sample entry and a
// video track need to know (profile, level, picture size, sample aspect
// ratio, colour description) and what the hvcC record is made of.
//
// Each parser takes one NAL unit as stored (header included, emulation
// prevention bytes in place) and returns false when the unit is not of its
// type or ends before the fields it needs.

#include <cstdint>
#include <span>

namespace qx {

struct VideoUsabilityInfo {
    uint16_t sar_width = 0; // 0 when not given
    uint16_t sar_height = 0;
    bool video_signal_type_present_flag = false;
    uint8_t video_format = 5;
    bool video_full_range_flag = false;
    bool colour_description_present_flag = false;
    uint8_t colour_primaries = 2; // 2: unspecified
    uint8_t transfer_characteristics = 2;
    uint8_t matrix_coeffs = 2;
    bool timing_info_present_flag = false;
    uint32_t num_units_in_tick = 0;
    uint32_t time_scale = 0;
    bool bitstream_restriction_flag = false;
    uint32_t min_spatial_segmentation_idc = 0; // HEVC
};

struct H264SequenceParameterSet {
    uint8_t profile_idc = 0;
    uint8_t constraint_flags = 0; // the byte after profile_idc
    uint8_t level_idc = 0;
    uint32_t seq_parameter_set_id = 0;
    uint32_t chroma_format_idc = 1;
    uint32_t bit_depth_luma_minus8 = 0;
    uint32_t bit_depth_chroma_minus8 = 0;
    bool frame_mbs_only_flag = true;
    uint32_t width = 0; // after cropping
    uint32_t height = 0;
    VideoUsabilityInfo vui;
};

bool parseH264SPS(std::span<const uint8_t> nal, H264SequenceParameterSet& sps);

// general_* fields of profile_tier_level().
struct HEVCProfileTierLevel {
    uint8_t profile_space = 0;
    uint8_t tier_flag = 0;
    uint8_t profile_idc = 0;
    uint32_t profile_compatibility_flags = 0;
    uint64_t constraint_indicator_flags = 0; // 48 bits
    uint8_t level_idc = 0;
};

struct HEVCVideoParameterSet {
    uint8_t vps_max_sub_layers_minus1 = 0;
    bool vps_temporal_id_nesting_flag = false;
    HEVCProfileTierLevel ptl;
};

struct HEVCSequenceParameterSet {
    uint8_t sps_max_sub_layers_minus1 = 0;
    bool sps_temporal_id_nesting_flag = false;
    HEVCProfileTierLevel ptl;
    uint32_t chroma_format_idc = 1;
    uint32_t bit_depth_luma_minus8 = 0;
    uint32_t bit_depth_chroma_minus8 = 0;
    uint32_t width = 0; // after the conformance window
    uint32_t height = 0;
    bool vui_parameters_present_flag = false;
    VideoUsabilityInfo vui;
};

struct HEVCPictureParameterSet {
    bool tiles_enabled_flag = false;
    bool entropy_coding_sync_enabled_flag = false;
};

bool parseHEVCVPS(std::span<const uint8_t> nal, HEVCVideoParameterSet& vps);
bool parseHEVCSPS(std::span<const uint8_t> nal, HEVCSequenceParameterSet& sps);
bool parseHEVCPPS(std::span<const uint8_t> nal, HEVCPictureParameterSet& pps);

} // namespace qx
