#pragma once
// Making 3GPP timed-text (tx3g) samples. A sample is a 16-bit byte length,
// the UTF-8 text (lines separated by one line feed), then optional boxes:
// `styl` (runs of face, size and colour, counted in UTF-16 units), `tbox`
// (the text's box in destination pixels), `frcd` (a forced subtitle).
//
// QXTX3GSampleFromDialogue turns the text of one ASS dialogue (override
// codes included) into such a sample: the codes are split by the project's
// ASS splitter; bold/italic/underline, colour, alpha and size become style
// runs, a position or alignment becomes the box when formatting is obeyed.

#include <cstdint>
#include <string_view>
#include <vector>

struct QXTX3GGeometry {
    bool obey = false;
    // Positions are given in the source's space (0: the destination's) and
    // scaled to the destination's.
    uint64_t sourceWidth = 0, sourceHeight = 0;
    uint64_t destinationWidth = 0, destinationHeight = 0;
};

// The longest text of a sample, in UTF-8 bytes.
constexpr size_t QXTX3GMaxTextLength = 2047;

std::vector<uint8_t> QXTX3GSampleFromDialogue(std::string_view dialogueText, const QXTX3GGeometry& geometry);
// Recognised text has no styles; a forced picture adds the `frcd` box.
std::vector<uint8_t> QXTX3GSampleFromString(std::string_view text, bool forced);
// The sample that clears the screen: 00 00.
std::vector<uint8_t> QXTX3GEmptySample();
