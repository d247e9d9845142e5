// Record to platform items and back.

#include "qxmedia/metadata/QXMetadataItem.h"

#include <cstdlib>
#include <functional>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/platform/image/QXImage.h"

const char QXMetadataKeySpaceiTunes[] = "itsk";
const char QXMetadataKeySpaceiTunesLong[] = "itlk";

namespace {

constexpr int64_t kSignedBigEndian = 21;

// How a record key becomes an item.
enum class Form { Text, Signed, Unsigned, Low16, Boolean, Date, None };

struct ItemRow {
    const char* recordKey;
    const char* itemKey;
    Form form;
    int dataLength; // 0: no extra attributes
};

// Keys with special items (credits, content rating, artwork, disc and
// track pairs) are handled in QXMetadataItemForKey.
constexpr ItemRow kItems[] = {
    {"advisoryRating", "rtng", Form::Signed, 1},
    {"album", "\xC2\xA9" "alb", Form::Text, 0},
    {"albumArtist", "aART", Form::Text, 0},
    {"artist", "\xC2\xA9" "ART", Form::Text, 0},
    {"artistID", "atID", Form::Unsigned, 4},
    {"category", "catg", Form::Text, 0},
    {"comment", "\xC2\xA9" "cmt", Form::Text, 0},
    {"composer", "\xC2\xA9" "wrt", Form::Text, 0},
    {"composerID", "cmID", Form::Unsigned, 4},
    {"contentID", "cnID", Form::Low16, 0},
    {"copyright", "cprt", Form::Text, 0},
    {"encodedBy", "\xC2\xA9" "enc", Form::Text, 0},
    {"encodingTool", "\xC2\xA9" "too", Form::Text, 0},
    {"episodeID", "tven", Form::Text, 0},
    {"episodeNumber", "tves", Form::Low16, 0},
    {"gapless", "pgap", Form::Boolean, 0},
    {"genre", "\xC2\xA9" "gen", Form::Text, 0},
    {"genreID", "geID", Form::Unsigned, 0},
    {"genreType", "gnre", Form::Unsigned, 0},
    {"grouping", "\xC2\xA9" "grp", Form::Text, 0},
    {"hd", "hdvd", Form::Signed, 1},
    {"iTunesAccount", "apID", Form::Text, 0},
    {"iTunesCountry", "sfID", Form::Unsigned, 4},
    {"keywords", "keyw", Form::Text, 0},
    {"longDescription", "ldes", Form::Text, 0},
    {"lyrics", "\xC2\xA9" "lyr", Form::Text, 0},
    {"name", "\xC2\xA9" "nam", Form::Text, 0},
    {"playlistID", "plID", Form::Unsigned, 0},
    {"podcast", "pcst", Form::Boolean, 0},
    {"purchaseDate", "purd", Form::Date, 0},
    {"releaseDate", "\xC2\xA9" "day", Form::Date, 0},
    {"seasonDescription", "sdes", Form::Text, 0},
    {"seasonNumber", "tvsn", Form::Low16, 0},
    {"shortDescription", "desc", Form::Text, 0},
    {"show", "tvsh", Form::Text, 0},
    {"sortAlbum", "soal", Form::Text, 0},
    {"sortAlbumArtist", "soaa", Form::Text, 0},
    {"sortArtist", "soar", Form::Text, 0},
    {"sortComposer", "soco", Form::Text, 0},
    {"sortName", "sonm", Form::Text, 0},
    {"sortShow", "sosn", Form::Text, 0},
    {"tvNetwork", "tvnn", Form::Text, 0},
    {"videoKind", "stik", Form::Signed, 1},
    {"xid", "xid ", Form::Text, 0},
    // Keys that travel inside another item.
    {"absoluteEpisodeNumber", nullptr, Form::None, 0}, {"albumRating", nullptr, Form::None, 0},
    {"codirectors", nullptr, Form::None, 0}, {"contentRatingAnnotation", nullptr, Form::None, 0},
    {"countryCode", nullptr, Form::None, 0}, {"creationDate", nullptr, Form::None, 0},
    {"detailURL", nullptr, Form::None, 0}, {"directors", nullptr, Form::None, 0},
    {"discNumber", nullptr, Form::None, 0}, {"dvdEpisodeNumber", nullptr, Form::None, 0},
    {"dvdSeasonNumber", nullptr, Form::None, 0}, {"imdbId", nullptr, Form::None, 0},
    {"imdbSeriesId", nullptr, Form::None, 0}, {"languageCode", nullptr, Form::None, 0},
    {"producers", nullptr, Form::None, 0}, {"rating", nullptr, Form::None, 0},
    {"screenwriters", nullptr, Form::None, 0}, {"studio", nullptr, Form::None, 0},
    {"tags", nullptr, Form::None, 0}, {"tmdbMovieId", nullptr, Form::None, 0},
    {"tmdbEpisodeId", nullptr, Form::None, 0}, {"tmdbSeasonId", nullptr, Form::None, 0},
    {"tmdbSeriesId", nullptr, Form::None, 0}, {"trackNumber", nullptr, Form::None, 0},
    {"tvdbEpisodeId", nullptr, Form::None, 0}, {"tvdbSeasonId", nullptr, Form::None, 0},
    {"tvdbSeriesId", nullptr, Form::None, 0}, {"useDVDOrder", nullptr, Form::None, 0},
    {"useSquareArtwork", nullptr, Form::None, 0}, {"whereFrom", nullptr, Form::None, 0},
};

const ItemRow* rowOf(std::string_view recordKey)
{
    for (const ItemRow& row : kItems) {
        if (recordKey == row.recordKey) return &row;
    }
    return nullptr;
}

QXDictionary typedInteger(int length)
{
    if (length == 0) return {};
    return {{"dataLength", QXValue(int64_t(length))}, {"dataType", QXValue(kSignedBigEndian)}};
}

std::optional<QXMetadataItem> item(std::string key, QXValue value, QXDictionary extra = {})
{
    return QXMetadataItem::metadataItemWithKey(QXValue(std::move(key)), QXMetadataKeySpaceiTunes, std::move(value),
                                               std::move(extra));
}

// Two numbers of 16 bits behind two zero bytes, and `tail` zero bytes.
QXData numberPair(uint64_t first, uint64_t second, size_t tail)
{
    QXData bytes {0, 0, uint8_t(first >> 8), uint8_t(first), uint8_t(second >> 8), uint8_t(second)};
    bytes.resize(bytes.size() + tail, 0);
    return bytes;
}

std::optional<QXMetadataItem> rowItem(const QXMetaData& metadata, const ItemRow& row)
{
    const QXValue value = metadata.valueForKey(row.recordKey);
    switch (row.form) {
    case Form::Text: {
        const std::string* text = value.string();
        if (!text || text->empty()) return std::nullopt;
        return item(row.itemKey, *text, typedInteger(row.dataLength));
    }
    case Form::Signed: {
        const int64_t number = value.int64().value_or(0);
        if (number == 0 || (row.recordKey == std::string_view("videoKind") && number < 0)) return std::nullopt;
        return item(row.itemKey, QXValue(number), typedInteger(row.dataLength));
    }
    case Form::Unsigned:
    case Form::Low16: {
        uint64_t number = value.uint64().value_or(0);
        if (number == 0) return std::nullopt;
        if (row.form == Form::Low16) number &= 0xFFFF;
        return item(row.itemKey, QXValue(number), typedInteger(row.dataLength));
    }
    case Form::Boolean:
        if (!value.truth().value_or(false)) return std::nullopt;
        return item(row.itemKey, QXValue(true));
    case Form::Date:
        if (!value.date()) return std::nullopt;
        return item(row.itemKey, QXMetaData::formattedDate(*value.date()));
    case Form::None: break;
    }
    return std::nullopt;
}

enum class FieldType { Text, Number, Date, Other };

FieldType fieldTypeOf(const QXMetaData& record, const std::string& key)
{
    if (key == QXPurchaseDate || key == QXReleaseDate) return FieldType::Date;
    if (key == "artwork" || key == "contentRatingStringMP4" || key == "iTunMOVI") return FieldType::Other;
    const QXValue present = record.valueForKey(key);
    if (present.isNumber()) return FieldType::Number;
    return FieldType::Text;
}

// The value in the form the field takes, or null when it cannot be had:
// the value itself, else its number, its text, its date.
QXValue fitted(FieldType type, const QXValue& value)
{
    switch (type) {
    case FieldType::Other: return value;
    case FieldType::Number:
        if (value.isNumber()) return value;
        if (const std::string* text = value.string(); text && !text->empty()) {
            char* end = nullptr;
            const long long number = std::strtoll(text->c_str(), &end, 10);
            if (*end == '\0') return QXValue(int64_t(number));
        }
        return {};
    case FieldType::Text:
        if (value.isString()) return value;
        if (value.int64()) return QXValue(std::to_string(*value.int64()));
        return {};
    case FieldType::Date:
        if (value.date()) return value;
        if (const std::string* text = value.string()) {
            if (auto date = QXMetaData::dateFromMetadata(text->c_str())) return QXValue(*date);
        }
        return {};
    }
    return {};
}

} // namespace

std::optional<QXMetadataItem> QXMetadataItem::metadataItemWithKey(QXValue key, std::string keySpace, QXValue value,
                                                                  QXDictionary extraAttributes)
{
    if (value.isNull()) return std::nullopt;
    return QXMetadataItem {std::move(key), std::move(keySpace), std::move(value), std::move(extraAttributes)};
}

std::string QXMetadataItem::textKey() const
{
    if (const std::string* text = key.string()) return *text;
    const uint32_t code = uint32_t(key.uint64().value_or(0));
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned char byte = uint8_t(code >> shift);
        if (byte == 0) break; // "%.4s" stops at a zero byte
        if (byte == 0xA9) text += "\xC2\xA9";
        else text += char(byte);
    }
    return text;
}

std::string QXMetadataItem::identifier() const
{
    return keySpace + "/" + textKey();
}

std::optional<QXMetadataItem> QXMetadataItemForKey(const QXMetaData& metadata, std::string_view recordKey)
{
    if (recordKey == QXActors) {
        auto credits = metadata.iTunMOVI();
        if (!credits) return std::nullopt;
        return QXMetadataItem::metadataItemWithKey(QXValue("com.apple.iTunes.iTunMOVI"), QXMetadataKeySpaceiTunesLong,
                                                   QXValue(*credits));
    }
    if (recordKey == QXContentRating) {
        auto text = metadata.contentRatingStringMP4();
        if (!text || text->empty()) return std::nullopt;
        return QXMetadataItem::metadataItemWithKey(QXValue("com.apple.iTunes.iTunEXTC"), QXMetadataKeySpaceiTunesLong,
                                                   QXValue(*text));
    }
    if (recordKey == QXArtworks) {
        QXData data = metadata.artworkData();
        if (data.empty()) return std::nullopt;
        return item("covr", QXValue(std::move(data)));
    }
    if (recordKey == QXDiscCount) {
        if (metadata.discNumber == 0 && metadata.discCount == 0) return std::nullopt;
        return item("disk", numberPair(metadata.discNumber, metadata.discCount, 0));
    }
    if (recordKey == QXTrackCount) {
        if (metadata.trackNumber == 0 && metadata.trackCount == 0) return std::nullopt;
        return item("trkn", numberPair(metadata.trackNumber, metadata.trackCount, 2));
    }
    const ItemRow* row = rowOf(recordKey);
    return row ? rowItem(metadata, *row) : std::nullopt;
}

std::vector<QXMetadataItem> QXMetadataItemsOfMetaData(const QXMetaData& metadata)
{
    static const std::vector<std::string_view> special {QXActors, QXContentRating, QXArtworks, QXDiscCount,
                                                        QXTrackCount};
    std::vector<QXMetadataItem> items;
    for (const std::string& key : metadata.allKeys()) {
        if (!rowOf(key) && std::find(special.begin(), special.end(), key) == special.end()) {
            QXLogWarning("Missing selector %s for %s!", (key + "MetadataItem").c_str(), key.c_str());
            continue;
        }
        if (auto made = QXMetadataItemForKey(metadata, key)) items.push_back(std::move(*made));
    }
    return items;
}

std::map<std::string, std::string> QXMetadataMap()
{
    std::map<std::string, std::string> map;
    for (const ItemRow& row : kItems) {
        if (row.itemKey) map[row.itemKey] = row.recordKey;
    }
    map["covr"] = "artwork";
    map["disk"] = "discNumber";
    map["trkn"] = "trackNumber";
    map["com.apple.iTunes.iTunEXTC"] = "contentRatingStringMP4";
    map["com.apple.iTunes.iTunMOVI"] = "iTunMOVI";
    return map;
}

std::shared_ptr<QXMetaData> QXMetaDataWithMetadataItems(const std::vector<QXMetadataItem>& items)
{
    auto record = QXMetaData::init();
    const std::map<std::string, std::string> map = QXMetadataMap();
    for (const QXMetadataItem& each : items) {
        const std::string key = each.textKey();
        auto found = map.find(key);
        if (found == map.end()) {
            QXLogDebug("#: %s (%s) not found (value: %s)", key.c_str(), each.identifier().c_str(),
                       each.value.description().c_str());
            continue;
        }
        const std::string& recordKey = found->second;
        QXLogVerbose("#: %s %s - %s", key.c_str(), recordKey.c_str(), each.value.description().c_str());
        QXValue value = fitted(fieldTypeOf(*record, recordKey), each.value);
        if (recordKey == "artwork") {
            // Cover bytes become the picture they encode.
            const QXData* bytes = each.value.data();
            auto image = bytes ? QXImage::imageWithData(*bytes) : nullptr;
            if (image) record->setArtwork(image);
            continue;
        }
        if (!value.isNull()) record->setValue(value, recordKey);
    }
    return record;
}
