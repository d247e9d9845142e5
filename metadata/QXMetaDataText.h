#pragma once
// Small text conversions shared by the record's readers, with the lenient
// rules of tag texts: leading blanks are skipped and a text that is no
// number reads as 0.

#include <cstdint>
#include <string>
#include <string_view>
#include <optional>
#include <vector>

#include "qxmedia/platform/foundation/QXValue.h"

namespace qx::metadata {

// The integer at the start of text (after blanks, with an optional sign),
// saturated to the 64-bit range; 0 when there is none.
int64_t integerValue(std::string_view text);
// True when text starts (after blanks, a sign and zeros) with Y, y, T, t or
// a digit 1 to 9.
bool boolValue(std::string_view text);
// Parts of text between separators; "a|b|" gives "a", "b", "".
std::vector<std::string> split(std::string_view text, char separator);
bool isValidUTF8(std::string_view text);

// The property list in a file (XML or binary); nullopt when there is none.
std::optional<QXValue> propertyListFromFile(const QXURL& url);
// The property list in text; nullopt when it is none.
std::optional<QXValue> propertyListFromText(std::string_view text);
// The XML property list of a value, as text.
std::optional<std::string> xmlPropertyList(const QXValue& value);

} // namespace qx::metadata
