#pragma once
// Property lists of the record: the iTunMOVI credits, the ContentRatings
// table and EyeTV files. XML property lists are read and written here with
// pugixml; binary ones are read through libplist.

#include <optional>
#include <string>
#include <string_view>

#include "qxmedia/platform/foundation/QXValue.h"

namespace qx::metadata {

// The XML property list of a value, in the form Apple's serialiser writes
// (tab indentation, DOCTYPE, sorted dictionary keys).
std::string xmlPropertyList(const QXValue& root);
// The value of an XML or binary property list; nullopt when the bytes are
// neither.
std::optional<QXValue> propertyListFromBytes(std::string_view bytes);
std::optional<QXValue> propertyListFromFile(const QXURL& url);

} // namespace qx::metadata
