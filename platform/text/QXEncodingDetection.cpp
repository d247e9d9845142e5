// Detection of a text's encoding: byte order marks, the zero-byte pattern of
// UTF-16 and UTF-32 without a mark, strict UTF-8, then ICU's detector.

#include <unicode/ucsdet.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "qxmedia/platform/text/QXStringEncoding.h"

namespace {

bool startsWith(const uint8_t* bytes, size_t size, std::initializer_list<uint8_t> prefix)
{
    return size >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes);
}

NSStringEncoding encodingFromByteOrderMark(const uint8_t* bytes, size_t size)
{
    if (startsWith(bytes, size, {0xEF, 0xBB, 0xBF})) return NSUTF8StringEncoding;
    if (startsWith(bytes, size, {0xFF, 0xFE, 0x00, 0x00})) return NSUTF32LittleEndianStringEncoding;
    if (startsWith(bytes, size, {0x00, 0x00, 0xFE, 0xFF})) return NSUTF32BigEndianStringEncoding;
    if (startsWith(bytes, size, {0xFF, 0xFE})) return NSUTF16LittleEndianStringEncoding;
    if (startsWith(bytes, size, {0xFE, 0xFF})) return NSUTF16BigEndianStringEncoding;
    return QXUnknownStringEncoding;
}

// True when decoded text reads as text: few control characters, no NUL,
// no replacement characters. Binary data decoded in some 8-bit encoding
// fails this.
bool looksLikeText(std::string_view utf8)
{
    size_t characters = 0;
    size_t suspicious = 0;
    int32_t offset = 0;
    const int32_t length = int32_t(utf8.size());
    while (offset < length) {
        UChar32 c;
        U8_NEXT(utf8.data(), offset, length, c);
        ++characters;
        if (c == 0 || c == 0xFFFD || c < 0) return false;
        const bool control = (c < 0x20 && c != '\t' && c != '\n' && c != '\r' && c != '\f' && c != '\v') ||
                             (c >= 0x7F && c <= 0x9F) || (c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFE) == 0xFFFE;
        if (control) ++suspicious;
    }
    return suspicious * 50 <= characters;
}

// UTF-32 without a mark: every unit is a Unicode scalar value, so one byte
// of four is always zero and the next never exceeds 0x10.
NSStringEncoding guessUTF32(const uint8_t* bytes, size_t size)
{
    if (size < 4 || size % 4 != 0) return QXUnknownStringEncoding;
    bool littleEndian = true;
    bool bigEndian = true;
    for (size_t i = 0; i < size && (littleEndian || bigEndian); i += 4) {
        const uint32_t le = bytes[i] | bytes[i + 1] << 8 | bytes[i + 2] << 16 | uint32_t(bytes[i + 3]) << 24;
        const uint32_t be = bytes[i + 3] | bytes[i + 2] << 8 | bytes[i + 1] << 16 | uint32_t(bytes[i]) << 24;
        auto scalar = [](uint32_t c) { return c != 0 && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); };
        littleEndian = littleEndian && scalar(le);
        bigEndian = bigEndian && scalar(be);
    }
    if (littleEndian && !bigEndian) return NSUTF32LittleEndianStringEncoding;
    if (bigEndian && !littleEndian) return NSUTF32BigEndianStringEncoding;
    return QXUnknownStringEncoding;
}

// UTF-16 without a mark. In text of one script the high bytes of the units
// take very few values (0x00 for Latin, 0x04 for Cyrillic, ...) while the low
// bytes vary; in 8-bit text and in binary data both halves vary alike.
NSStringEncoding guessUTF16(const uint8_t* bytes, size_t size)
{
    if (size < 4 || size % 2 != 0) return QXUnknownStringEncoding;
    const size_t units = size / 2;
    std::array<size_t, 256> even {};
    std::array<size_t, 256> odd {};
    for (size_t i = 0; i < size; i += 2) {
        ++even[bytes[i]];
        ++odd[bytes[i + 1]];
    }
    auto topThreeShare = [units](std::array<size_t, 256> histogram) {
        std::partial_sort(histogram.begin(), histogram.begin() + 3, histogram.end(), std::greater<>());
        return double(histogram[0] + histogram[1] + histogram[2]) / double(units);
    };
    const double evenShare = topThreeShare(even);
    const double oddShare = topThreeShare(odd);
    // Zero bytes on one side only are the strongest sign; a text of one
    // script also qualifies when its high bytes hardly vary.
    const bool zeroHighOdd = odd[0] * 2 >= units && even[0] * 20 < units;
    const bool zeroHighEven = even[0] * 2 >= units && odd[0] * 20 < units;
    if (zeroHighOdd || (oddShare >= 0.9 && evenShare < 0.6 && odd[0] > 0)) return NSUTF16LittleEndianStringEncoding;
    if (zeroHighEven || (evenShare >= 0.9 && oddShare < 0.6 && even[0] > 0)) return NSUTF16BigEndianStringEncoding;
    return QXUnknownStringEncoding;
}

bool isValidUTF8(const uint8_t* bytes, size_t size)
{
    int32_t offset = 0;
    const int32_t length = int32_t(size);
    while (offset < length) {
        UChar32 c;
        U8_NEXT(bytes, offset, length, c);
        if (c < 0) return false;
    }
    return true;
}

// The last resort for UTF-16 of scripts with many high bytes (Chinese,
// Japanese): exactly one byte order decodes, and the text has the line
// breaks and spaces of real text. Binary data rarely decodes strictly (lone
// surrogates) and almost never has that many separators.
NSStringEncoding guessUTF16ByDecoding(const uint8_t* bytes, size_t size, std::string* text)
{
    if (size < 4 || size % 2 != 0) return QXUnknownStringEncoding;
    NSStringEncoding found = QXUnknownStringEncoding;
    for (NSStringEncoding encoding : {NSUTF16LittleEndianStringEncoding, NSUTF16BigEndianStringEncoding}) {
        std::optional<std::string> decoded = QXStringFromData(bytes, size, encoding);
        if (!decoded || !looksLikeText(*decoded)) continue;
        size_t characters = 0, separators = 0, privateUse = 0;
        int32_t offset = 0;
        const int32_t length = int32_t(decoded->size());
        while (offset < length) {
            UChar32 c;
            U8_NEXT(decoded->data(), offset, length, c);
            ++characters;
            separators += c == '\n' || c == '\r' || c == ' ' || c == 0x3000;
            privateUse += c >= 0xE000 && c <= 0xF8FF;
        }
        if (separators * 100 < characters || privateUse * 100 > characters) continue;
        if (found != QXUnknownStringEncoding) return QXUnknownStringEncoding; // both orders read: undecidable
        found = encoding;
        *text = std::move(*decoded);
    }
    return found;
}

struct DetectorCloser {
    void operator()(UCharsetDetector* detector) const { ucsdet_close(detector); }
};

NSStringEncoding detectStatistically(const uint8_t* bytes, size_t size, std::string* text)
{
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<UCharsetDetector, DetectorCloser> detector(ucsdet_open(&status));
    if (U_FAILURE(status)) return QXUnknownStringEncoding;
    ucsdet_setText(detector.get(), reinterpret_cast<const char*>(bytes), int32_t(size), &status);
    int32_t count = 0;
    const UCharsetMatch** matches = ucsdet_detectAll(detector.get(), &count, &status);
    if (U_FAILURE(status)) return QXUnknownStringEncoding;
    for (int32_t i = 0; i < count; ++i) {
        UErrorCode matchStatus = U_ZERO_ERROR;
        const char* name = ucsdet_getName(matches[i], &matchStatus);
        const int32_t confidence = ucsdet_getConfidence(matches[i], &matchStatus);
        if (U_FAILURE(matchStatus) || !name || confidence < 10) continue;
        const NSStringEncoding encoding = QXStringEncodingForName(name);
        // The wide encodings were ruled out already; ICU names them only by
        // their marks, and a guess without one here would be wrong.
        if (encoding == QXUnknownStringEncoding || QXIsWideUnicodeEncoding(encoding)) continue;
        std::optional<std::string> decoded = QXStringFromData(bytes, size, encoding);
        if (decoded && looksLikeText(*decoded)) {
            *text = std::move(*decoded);
            return encoding;
        }
    }
    return QXUnknownStringEncoding;
}

} // namespace

NSStringEncoding QXStringEncodingForData(const void* data, size_t size, std::string* convertedString,
                                         bool* usedLossyConversion)
{
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (usedLossyConversion) *usedLossyConversion = false;
    if (size > size_t(INT32_MAX)) return QXUnknownStringEncoding;
    std::string text;
    auto accept = [&](NSStringEncoding encoding) {
        if (convertedString) *convertedString = std::move(text);
        return encoding;
    };

    if (NSStringEncoding marked = encodingFromByteOrderMark(bytes, size); marked != QXUnknownStringEncoding) {
        if (std::optional<std::string> decoded = QXStringFromData(bytes, size, marked)) {
            text = std::move(*decoded);
            return accept(marked);
        }
        // A damaged file that still carries its mark: take what decodes.
        if (std::optional<std::string> decoded = QXStringFromData(bytes, size, marked, true)) {
            text = std::move(*decoded);
            if (usedLossyConversion) *usedLossyConversion = true;
            return accept(marked);
        }
        return QXUnknownStringEncoding;
    }
    if (size == 0) return accept(NSUTF8StringEncoding);

    for (NSStringEncoding wide : {guessUTF32(bytes, size), guessUTF16(bytes, size)}) {
        if (wide == QXUnknownStringEncoding) continue;
        std::optional<std::string> decoded = QXStringFromData(bytes, size, wide);
        if (decoded && looksLikeText(*decoded)) {
            text = std::move(*decoded);
            return accept(wide);
        }
    }

    if (isValidUTF8(bytes, size)) {
        text.assign(reinterpret_cast<const char*>(bytes), size);
        return looksLikeText(text) ? accept(NSUTF8StringEncoding) : QXUnknownStringEncoding;
    }
    // Zero bytes do not occur in 8-bit or multi-byte text.
    if (!std::memchr(bytes, 0, size)) {
        if (NSStringEncoding detected = detectStatistically(bytes, size, &text); detected != QXUnknownStringEncoding) {
            return accept(detected);
        }
    }
    const NSStringEncoding wide = guessUTF16ByDecoding(bytes, size, &text);
    return wide == QXUnknownStringEncoding ? wide : accept(wide);
}
