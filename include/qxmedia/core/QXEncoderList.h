#pragma once
// The machine's H.264 and HEVC encoders, as FFmpeg lists them, and the one
// lock that serialises every avcodec_open2 of the process.

#include <mutex>
#include <string>
#include <vector>

struct AVCodec;
struct AVCodecContext;
struct AVDictionary;

struct QXEncoderInfo {
    std::string encoderID;   // FFmpeg's short name, e.g. "hevc_vaapi"
    std::string displayName; // FFmpeg's long name
    std::string encoderName; // the wrapped library or API, or "libavcodec"
    bool isHEVC = false;
    bool isHardware = false;
};

class QXEncoderList {
public:
    // Every H.264 and HEVC encoder FFmpeg was built with.
    static std::vector<QXEncoderInfo> copyVideoEncoderList();
    // Logs "Available encoders:" and each encoder, then answers whether a
    // hardware HEVC encoder actually opens here. The whole list is logged.
    static bool logAndFindHardwareHEVCEncoder();
    // True when the encoder opens a session on this machine's devices.
    static bool encoderOpens(const std::string& encoderID);
};

// avcodec_open2 under the process-wide codec lock; hardware encoders open
// outside it, so that probing a device does not hold the others.
int QXAvcodecOpen(AVCodecContext* context, const AVCodec* codec, AVDictionary** options);
