#include "QXMetaDataText.h"

#include <fstream>
#include <iterator>
#include <limits>

#include "qxmedia/platform/plist/QXPropertyListSerialization.h"

namespace qx::metadata {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

} // namespace

int64_t integerValue(std::string_view text)
{
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    uint64_t magnitude = 0;
    const uint64_t limit = negative ? uint64_t(std::numeric_limits<int64_t>::max()) + 1
                                    : uint64_t(std::numeric_limits<int64_t>::max());
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const unsigned digit = unsigned(text[i] - '0');
        if (magnitude > (limit - digit) / 10) {
            magnitude = limit;
            break;
        }
        magnitude = magnitude * 10 + digit;
    }
    if (negative) return magnitude == limit ? std::numeric_limits<int64_t>::min() : -int64_t(magnitude);
    return int64_t(magnitude);
}

bool boolValue(std::string_view text)
{
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    while (i < text.size() && text[i] == '0') ++i;
    if (i == text.size()) return false;
    const char c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            parts.emplace_back(text.substr(start));
            return parts;
        }
        parts.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
}

bool isValidUTF8(std::string_view text)
{
    size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        size_t length;
        uint32_t code;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            length = 2;
            code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3;
            code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4;
            code = c & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) return false;
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            code = (code << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        static const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (code < smallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

std::optional<QXValue> propertyListFromText(std::string_view text)
{
    // Options 2: mutable containers and leaves, which values always are.
    return QXPropertyListSerialization::propertyListWithData(text.data(), text.size(), 2);
}

std::optional<QXValue> propertyListFromFile(const QXURL& url)
{
    std::ifstream file(url, std::ios::binary);
    if (!file) return std::nullopt;
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return propertyListFromText(bytes);
}

std::optional<std::string> xmlPropertyList(const QXValue& value)
{
    auto data = QXPropertyListSerialization::dataWithPropertyList(value, QXPropertyListFormat::XML);
    if (!data) return std::nullopt;
    return std::string(data->begin(), data->end());
}

} // namespace qx::metadata
