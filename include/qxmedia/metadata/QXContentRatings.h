#pragma once
// Content ratings by country and kind of video: the rating system's name
// (the "standard" of an iTunEXTC item) and each rating's number and name.
// The table is the "ContentRatings" property list shipped with the library,
// read once on first use from $QXMEDIA_RESOURCES, the installed data folder
// (share/qxmedia) or the source tree's resources/, in that order.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/platform/foundation/QXValue.h"

// Keys of a row of the table.
extern const char QXRatingsStandard[]; // "standard"
extern const char QXRatings[];         // "ratings"

class QXContentRatings {
public:
    // The shared rows; null when the resource is missing or unreadable.
    static std::shared_ptr<const QXArray> contentRatings();
    // Sorted, without repeats.
    std::vector<std::string> countryCodes() const;
    // The row of a country (empty: "US") and kind (other than 9 or 10: 9);
    // a country without a row falls back to the US row of the kind.
    const QXDictionary* ratingsForVideoKind(int64_t videoKind, std::string_view country) const;
    std::optional<std::string> ratingStandardForVideoKind(int64_t videoKind, std::string_view country) const;
    // The name of the first rating (keys sorted as text) whose number is at
    // least `rating`; the last name when none is that high.
    std::optional<std::string> ratingNameFor(uint64_t rating, int64_t videoKind, std::string_view country) const;
    // The number of the rating called `text` (case ignored), or of the rating
    // whose name has `text` as its first number; 0 when none.
    uint64_t ratingForString(std::string_view text, int64_t videoKind, std::string_view country) const;

    // Where the resources are looked for (test and diagnostics use).
    static std::vector<QXURL> resourceDirectories();
};
