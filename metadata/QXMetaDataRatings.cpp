// The record's two item texts: the content rating (iTunEXTC) and the
// credits property list (iTunMOVI).

#include <cinttypes>
#include <cstdio>

#include "QXMetaDataText.h"
#include "qxmedia/metadata/QXContentRatings.h"
#include "qxmedia/metadata/QXMetaData.h"

using namespace qx::metadata;

namespace {

// Credits keys of the iTunMOVI list and the fields they fill.
struct CreditsKey {
    const char* key;
    QXAtomicObject<QXStringList> QXMetaData::*field;
};
const CreditsKey creditsKeys[] = {
    {"cast", &QXMetaData::actors},
    {"directors", &QXMetaData::directors},
    {"codirectors", &QXMetaData::codirectors},
    {"producers", &QXMetaData::producers},
    {"screenwriters", &QXMetaData::screenwriters},
};

} // namespace

std::optional<std::string> QXMetaData::contentRatingString() const
{
    return QXContentRatings().ratingNameFor(contentRating, videoKind, countryCode.valueOr(std::string()));
}

std::optional<std::string> QXMetaData::contentRatingStringMP4() const
{
    auto country = countryCode.get();
    if (contentRating == QXNoContentRating || videoKind == 0 || !country) return std::nullopt;
    const QXContentRatings ratings;
    auto standard = ratings.ratingStandardForVideoKind(videoKind, *country);
    auto ratingName = ratings.ratingNameFor(contentRating, videoKind, *country);
    if (!standard || !ratingName) return std::nullopt;
    const uint64_t number = ratings.ratingForString(*ratingName, videoKind, *country);
    char digits[32];
    std::snprintf(digits, sizeof digits, "%03" PRIu64, number);
    std::string text = *standard + "|" + *ratingName + "|" + digits + "|";
    if (auto annotation = contentRatingAnnotation.get()) text += *annotation;
    return text;
}

void QXMetaData::setContentRatingStringMP4(std::string_view text)
{
    const auto parts = split(text, '|');
    if (parts.size() >= 3) contentRating = uint64_t(integerValue(parts[2]));
    if (parts.size() >= 4) contentRatingAnnotation.set(parts[3]);
}

namespace {

// The list of each credits field that is set, under its key.
QXDictionary creditsLists(const QXMetaData& record)
{
    QXDictionary credits;
    for (const auto& entry : creditsKeys) {
        auto names = (record.*entry.field).get();
        if (!names) continue;
        QXArray list;
        for (const auto& person : *names) list.emplace_back(QXDictionary {{"name", QXValue(person)}});
        credits.emplace(entry.key, std::move(list));
    }
    return credits;
}

} // namespace

std::optional<std::string> QXMetaData::iTunMOVI() const
{
    QXDictionary credits = creditsLists(*this);
    if (auto held = studio.get(); held && !held->empty()) credits.emplace("studio", *held);
    if (credits.empty()) return std::nullopt;
    return xmlPropertyList(QXValue(std::move(credits)));
}

std::optional<std::string> QXMetaData::creditsPropertyList() const
{
    QXDictionary credits = creditsLists(*this);
    if (credits.empty()) return std::nullopt; // a studio alone is no reason for the item
    if (auto held = studio.get()) credits.emplace("studio", *held);
    return xmlPropertyList(QXValue(std::move(credits)));
}

void QXMetaData::setITunMOVI(std::string_view text)
{
    auto plist = propertyListFromText(text);
    if (plist) setCredits(*plist, false);
}

// Fills the credits from an iTunMOVI list. With checkTypes, values that are
// not a list (or, for the studio, not a text) are passed over; without, a
// present key always sets its field.
void QXMetaData::setCredits(const QXValue& plist, bool checkTypes)
{
    if (!plist.dictionary()) return;
    for (const auto& entry : creditsKeys) {
        const QXValue* value = plist.find(entry.key);
        if (!value || (checkTypes && !value->array())) continue;
        auto names = value->array() ? nameArrayFromPropertyList(*value->array()) : std::nullopt;
        if (names) (this->*entry.field).set(std::move(*names));
        else (this->*entry.field).clear();
    }
    if (const QXValue* value = plist.find("studio")) {
        if (value->string()) studio.set(*value->string());
        else if (!checkTypes) studio.clear();
    }
}

std::optional<QXStringList> QXMetaData::nameArrayFromPropertyList(const QXArray& list)
{
    QXStringList names;
    for (const auto& element : list) {
        const QXValue* name = element.find("name");
        if (name && name->string()) names.push_back(*name->string());
    }
    if (names.empty()) return std::nullopt;
    return names;
}
