#include "qxmedia/metadata/QXContentRatings.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include <unicode/ucol.h>
#include <unicode/uloc.h>

#include "QXMetaDataText.h"
#include "qxmedia/core/QXMedia.h"

const char QXRatingsStandard[] = "standard";
const char QXRatings[] = "ratings";

namespace {

const char resourceName[] = "ContentRatings.plist";

// Case-insensitive comparison in the user's locale, as the table's keys and
// names are compared.
int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b)
{
    static UCollator* collator = [] {
        UErrorCode status = U_ZERO_ERROR;
        // The POSIX locale's collation orders case apart: the root's does not.
        const std::string_view locale = uloc_getDefault();
        UCollator* c = ucol_open(locale.substr(0, 11) == "en_US_POSIX" ? "" : nullptr, &status);
        if (U_FAILURE(status)) return static_cast<UCollator*>(nullptr);
        ucol_setStrength(c, UCOL_SECONDARY);
        return c;
    }();
    if (!collator) return a.compare(b);
    UErrorCode status = U_ZERO_ERROR;
    const UCollationResult result =
        ucol_strcollUTF8(collator, a.data(), int32_t(a.size()), b.data(), int32_t(b.size()), &status);
    return U_FAILURE(status) ? a.compare(b) : int(result);
}

// The first run of decimal digits in text, all other characters skipped.
std::optional<int64_t> firstInteger(std::string_view text)
{
    const size_t start = text.find_first_of("0123456789");
    if (start == std::string_view::npos) return std::nullopt;
    return qx::metadata::integerValue(text.substr(start));
}

std::shared_ptr<const QXArray> loadContentRatings()
{
    for (const auto& dir : QXContentRatings::resourceDirectories()) {
        const QXURL path = dir / resourceName;
        std::error_code ignored;
        if (!std::filesystem::is_regular_file(path, ignored)) continue;
        auto value = qx::metadata::propertyListFromFile(path);
        if (value && value->array()) return std::make_shared<const QXArray>(std::move(*value->array()));
        QXLogWarning("Content ratings are unreadable: %s", path.c_str());
        return nullptr;
    }
    return nullptr;
}

} // namespace

std::vector<QXURL> QXContentRatings::resourceDirectories()
{
    std::vector<QXURL> dirs;
    if (const char* env = std::getenv("QXMEDIA_RESOURCES"); env && *env) dirs.emplace_back(env);
#ifdef QX_RESOURCE_INSTALL_DIR
    dirs.emplace_back(QX_RESOURCE_INSTALL_DIR);
#endif
#ifdef QX_RESOURCE_BUILD_DIR
    dirs.emplace_back(QX_RESOURCE_BUILD_DIR);
#endif
    return dirs;
}

std::shared_ptr<const QXArray> QXContentRatings::contentRatings()
{
    static const std::shared_ptr<const QXArray> rows = loadContentRatings();
    return rows;
}

std::vector<std::string> QXContentRatings::countryCodes() const
{
    std::set<std::string> codes;
    if (auto rows = contentRatings()) {
        for (const auto& row : *rows) {
            const QXValue* country = row.find("country");
            if (country && country->string()) codes.insert(*country->string());
        }
    }
    return {codes.begin(), codes.end()};
}

const QXDictionary* QXContentRatings::ratingsForVideoKind(int64_t videoKind, std::string_view country) const
{
    if (country.empty()) country = "US";
    if (videoKind != 9 && videoKind != 10) videoKind = 9;
    auto rows = contentRatings();
    if (!rows) return nullptr;
    for (const auto& row : *rows) {
        const QXValue* kind = row.find("videoKind");
        const QXValue* code = row.find("country");
        if (kind && kind->int64() == videoKind && code && code->string() && *code->string() == country) {
            return row.dictionary();
        }
    }
    return country == "US" ? nullptr : ratingsForVideoKind(videoKind, "US");
}

std::optional<std::string> QXContentRatings::ratingStandardForVideoKind(int64_t videoKind,
                                                                        std::string_view country) const
{
    const QXDictionary* row = ratingsForVideoKind(videoKind, country);
    if (!row) return std::nullopt;
    auto it = row->find(QXRatingsStandard);
    if (it == row->end() || !it->second.string()) return std::nullopt;
    return *it->second.string();
}

std::optional<std::string> QXContentRatings::ratingNameFor(uint64_t rating, int64_t videoKind,
                                                           std::string_view country) const
{
    const QXDictionary* row = ratingsForVideoKind(videoKind, country);
    if (!row) return std::nullopt;
    auto table = row->find(QXRatings);
    if (table == row->end() || !table->second.dictionary() || table->second.dictionary()->empty()) {
        return std::nullopt;
    }
    const QXDictionary& ratings = *table->second.dictionary();
    // The keys are sorted as text, not as numbers.
    std::vector<std::string> keys;
    for (const auto& entry : ratings) keys.push_back(entry.first);
    std::stable_sort(keys.begin(), keys.end(), [](const std::string& a, const std::string& b) {
        return localizedCaseInsensitiveCompare(a, b) < 0;
    });
    auto nameOf = [&](const std::string& key) -> std::optional<std::string> {
        const QXValue& name = ratings.find(key)->second;
        return name.string() ? std::optional<std::string>(*name.string()) : std::nullopt;
    };
    for (const auto& key : keys) {
        if (qx::metadata::integerValue(key) >= int64_t(rating)) return nameOf(key);
    }
    return nameOf(keys.back());
}

uint64_t QXContentRatings::ratingForString(std::string_view text, int64_t videoKind, std::string_view country) const
{
    const QXDictionary* row = ratingsForVideoKind(videoKind, country);
    if (!row) return 0;
    auto table = row->find(QXRatings);
    if (table == row->end() || !table->second.dictionary()) return 0;
    const QXDictionary& ratings = *table->second.dictionary();
    for (const auto& [key, name] : ratings) {
        if (name.string() && localizedCaseInsensitiveCompare(*name.string(), text) == 0) {
            return uint64_t(qx::metadata::integerValue(key));
        }
    }
    for (const auto& [key, name] : ratings) {
        if (!name.string()) continue;
        auto number = firstInteger(*name.string());
        if (number && localizedCaseInsensitiveCompare(std::to_string(*number), text) == 0) {
            return uint64_t(qx::metadata::integerValue(key));
        }
    }
    return 0;
}
