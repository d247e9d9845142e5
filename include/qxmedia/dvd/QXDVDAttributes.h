#pragma once
// The attribute records of DVD information files: video, audio and
// subpicture attributes, the BCD playback time and the user-operation mask.
// Each is made from its bytes as they stand in the file; a short buffer
// reads as zeros.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qxmedia/dvd/QXDVDBytes.h"

// A playback time as stored: hours, minutes, seconds as two BCD digits
// each; frame_u holds the frame count (BCD, bits 0-5) and the frame-rate
// flags (bits 6-7: 3 for 30 frames a second, 1 for 25).
struct QXTime {
    uint8_t hour = 0, minute = 0, second = 0, frame_u = 0;

    static QXTime initWithData(const QXDVDBytes& data);
    // Milliseconds: a frame counts 33 ms at the 30 fps flags, 40 ms otherwise.
    int64_t milliseconds() const;
    double seconds() const { return double(milliseconds()) / 1000.0; }
};

// The 32 bits of prohibited user operations, kept as stored.
struct QXUserOperationFlags {
    uint32_t bits = 0;

    bool video_pres_mode_change() const { return bit(0); }
    bool resume() const { return bit(8); }
    bool title_menu_call() const { return bit(18); }
    bool stop() const { return bit(27); }
    bool next_pg_search() const { return bit(31); }
    bool bit(int index) const { return (bits >> index) & 1; }
};

struct QXVideoAttributes {
    bool allowAutomaticLetterbox = false;
    bool allowAutomaticPanAndScan = false;
    uint8_t display_aspect_ratio = 0; // 0 for 4:3, 3 for 16:9
    uint8_t video_format = 0;         // 0 NTSC, 1 PAL
    uint8_t mpeg_version = 0;
    bool film_mode = false;
    bool letterboxed = false;
    int8_t picture_size = 0; // 0-3 NTSC sizes, 4-7 PAL sizes, -1 unknown format
    bool constantBitRate = false;
    bool line21_cc_2 = false;
    bool line21_cc_1 = false;

    static QXVideoAttributes initWithData(const QXDVDBytes& data);
};

struct QXAudioAttributes {
    uint8_t application_mode = 0;
    uint8_t lang_type = 0;
    bool has_multichannel_extension = false;
    uint8_t audio_format = 0; // 0 AC-3, 2-3 MPEG, 4 LPCM, 6 DTS
    uint8_t channels = 0;
    uint8_t sample_frequency = 0;
    uint8_t quantization = 0;
    std::string lang_code; // two letters, empty when the record names none
    uint8_t lang_extension = 0;
    uint8_t code_extension = 0;
    uint8_t app_info_value = 0;

    static QXAudioAttributes initWithData(const QXDVDBytes& data);
};

struct QXSubpictureAttributes {
    uint8_t lang_type = 0;
    uint8_t code_mode = 0;
    std::string lang_code;
    uint8_t lang_extension = 0; // not stored in the record
    uint8_t code_extension = 0;

    static QXSubpictureAttributes initWithData(const QXDVDBytes& data);
};

// The two letters of a language code as they stand, or empty when the bytes
// are not letters (many discs leave them zero).
std::string QXDVDLanguageCode(const QXDVDBytes& data, size_t offset);

// The menu's attribute block (video, up to 8 audio streams, at most one
// subpicture stream), laid out alike in VIDEO_TS.IFO and VTS_nn_0.IFO.
struct QXMenuAttributes {
    QXVideoAttributes video;
    std::vector<QXAudioAttributes> audio;
    QXSubpictureAttributes subpicture;

    static QXMenuAttributes initWithData(const QXDVDBytes& data);
};
