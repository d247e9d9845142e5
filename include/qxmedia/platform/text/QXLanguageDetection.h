#pragma once
// The language of a stretch of text, through CLD2.

#include <cstdint>
#include <string>
#include <string_view>

namespace qx {

// A range of characters (Unicode code points), as CFRange counts them.
struct CFRange {
    int64_t location = 0;
    int64_t length = 0;
};

inline CFRange CFRangeMake(int64_t location, int64_t length) { return {location, length}; }

// The most likely language of the given range of UTF-8 text as an ISO 639-1
// code; empty when the detector is not sure or the language has no
// two-letter code. A range beyond the text is cut to the text.
std::string CFStringTokenizerCopyBestStringLanguage(std::string_view utf8, CFRange range);

} // namespace qx

// The most likely language of UTF-8 text: an ISO 639-1 code, or "und" when
// the text is too short, mixed or not a language the detector knows.
std::string QXBestLanguageForText(std::string_view utf8);
// The number of characters (code points) of UTF-8 text; an invalid byte
// counts as one.
int64_t QXCharacterCount(std::string_view utf8);
