#pragma once
// Reading tx3g samples back: the text and the boxes behind it, as a player
// would. Shared by the sample tests and the end-to-end runs.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace subtitletest {

struct StyleRun {
    int start, end, face, size;
    uint32_t rgba;
    bool operator==(const StyleRun&) const = default;
};

struct Box {
    int top, left, bottom, right;
    bool operator==(const Box&) const = default;
};

struct TX3GSample {
    std::string text;
    bool hasStyles = false;
    std::vector<StyleRun> styles;
    std::optional<Box> box;
    bool forced = false;
    bool wellFormed = false; // the length and every box fit the bytes exactly
};

TX3GSample parseTX3G(const std::vector<uint8_t>& bytes);

} // namespace subtitletest
