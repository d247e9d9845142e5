#include "qxmedia/platform/text/QXLanguageDetection.h"

#include <cstdio> // CLD2's header needs it and does not include it
#include <cld2/public/compact_lang_det.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <climits>

#include "qxmedia/core/QXLocale.h"

namespace {

// Byte offset of the given character index, clamped to the text.
size_t byteOffsetOfCharacter(std::string_view utf8, int64_t characters)
{
    int32_t offset = 0;
    const int32_t length = int32_t(std::min<size_t>(utf8.size(), INT32_MAX));
    for (int64_t i = 0; i < characters && offset < length; ++i) U8_FWD_1(utf8.data(), offset, length);
    return size_t(offset);
}

// CLD2 codes are ISO 639-1 where one exists, with a few old or extended
// forms: "iw" for Hebrew, "zh-Hant", "sr-ME", three-letter codes.
std::string normalisedCode(const char* cld2Code)
{
    std::string code = cld2Code ? cld2Code : "";
    code = code.substr(0, code.find('-'));
    if (code == "iw") return "he";
    if (code == "in") return "id";
    if (code == "ji") return "yi";
    if (code == "jw") return "jv";
    return qx::ff_convert_lang_to(code, qx::AV_LANG_ISO639_1);
}

} // namespace

int64_t QXCharacterCount(std::string_view utf8)
{
    int64_t count = 0;
    int32_t offset = 0;
    const int32_t length = int32_t(std::min<size_t>(utf8.size(), INT32_MAX));
    while (offset < length) {
        U8_FWD_1(utf8.data(), offset, length);
        ++count;
    }
    return count;
}

std::string QXBestLanguageForText(std::string_view utf8)
{
    if (utf8.empty() || utf8.size() > size_t(INT_MAX)) return "und";
    bool reliable = false;
    int validPrefix = 0;
    const CLD2::Language language =
        CLD2::DetectLanguageCheckUTF8(utf8.data(), int(utf8.size()), true, &reliable, &validPrefix);
    if (!reliable || language == CLD2::UNKNOWN_LANGUAGE) return "und";
    std::string code = normalisedCode(CLD2::LanguageCode(language));
    return code.empty() ? "und" : code;
}

namespace qx {

std::string CFStringTokenizerCopyBestStringLanguage(std::string_view utf8, CFRange range)
{
    if (range.location < 0 || range.length <= 0) return {};
    const size_t begin = byteOffsetOfCharacter(utf8, range.location);
    const size_t end = begin + byteOffsetOfCharacter(utf8.substr(begin), range.length);
    std::string code = QXBestLanguageForText(utf8.substr(begin, end - begin));
    return code == "und" ? std::string() : code;
}

} // namespace qx
