#pragma once
// Reading generated media for the bit-stream tests: packets and stream
// parameters through libavformat (box payloads are in support/TestMedia.h).

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/TestMedia.h"

namespace qxtest {

struct StreamPackets {
    int sampleRate = 0;
    int channels = 0;
    uint64_t channelMask = 0;
    int64_t bitRate = 0;
    int width = 0, height = 0, profile = 0, level = 0;
    int sarNum = 0, sarDen = 0;
    int colorPrimaries = 0, colorTrc = 0, colorSpace = 0, colorRange = 0;
    std::vector<uint8_t> extradata;
    std::vector<std::vector<uint8_t>> packets;
};

// The first stream's parameters and up to maxPackets of its packets.
StreamPackets readStream(const std::filesystem::path& path, size_t maxPackets = 1000);

std::vector<uint8_t> bytesOf(const std::string& text);
std::string hex(const std::vector<uint8_t>& bytes);

} // namespace qxtest
