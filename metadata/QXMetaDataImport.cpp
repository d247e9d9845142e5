// Records from an FFmpeg container dictionary and from the two property
// lists EyeTV keeps beside a recording.

extern "C" {
#include <libavutil/dict.h>
}

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "QXMetaDataText.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"

using namespace qx::metadata;

struct QXMetaDataImport {
    using Reader = std::function<void(QXMetaData&, const char*)>;

    static Reader text(QXAtomicObject<std::string> QXMetaData::*field)
    {
        return [field](QXMetaData& m, const char* v) { (m.*field).set(QXMetaData::stringFromMetadata(v)); };
    }
    static Reader date(QXAtomicObject<QXDate> QXMetaData::*field)
    {
        return [field](QXMetaData& m, const char* v) {
            auto date = QXMetaData::dateFromMetadata(v);
            if (date) (m.*field).set(*date);
            else (m.*field).clear();
        };
    }
    static Reader number(uint64_t QXMetaData::*field)
    {
        return [field](QXMetaData& m, const char* v) { m.*field = uint64_t(integerValue(v)); };
    }
    static Reader number(int64_t QXMetaData::*field)
    {
        return [field](QXMetaData& m, const char* v) { m.*field = integerValue(v); };
    }
    static Reader flag(bool QXMetaData::*field)
    {
        return [field](QXMetaData& m, const char* v) { m.*field = boolValue(v); };
    }
    // "index/total": both or nothing.
    static Reader pair(uint64_t QXMetaData::*index, uint64_t QXMetaData::*total)
    {
        return [index, total](QXMetaData& m, const char* v) {
            const auto parts = split(v, '/');
            if (parts.size() != 2) return;
            m.*index = uint64_t(integerValue(parts[0]));
            m.*total = uint64_t(integerValue(parts[1]));
        };
    }

    // Keys are matched without regard to case: the Matroska demuxer hands
    // over "ARTIST" and "DATE" where the MP4 one says "artist" and "date".
    static std::string folded(std::string_view key)
    {
        std::string lower(key);
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return char(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
        return lower;
    }

    static const std::unordered_map<std::string, Reader>& readers()
    {
        static const std::unordered_map<std::string, Reader> folded = [] {
            std::unordered_map<std::string, Reader> byFoldedKey;
            for (const auto& [key, reader] : table()) byFoldedKey.emplace(QXMetaDataImport::folded(key), reader);
            return byFoldedKey;
        }();
        return folded;
    }

    static std::vector<std::pair<std::string_view, Reader>> table()
    {
        using M = QXMetaData;
        return {
            {"title", text(&M::name)},
            {"MOVIE/TITLE", text(&M::name)},
            {"EPISODE/TITLE", text(&M::name)},
            {"author", text(&M::artist)},
            {"artist", text(&M::artist)},
            {"album_artist", text(&M::albumArtist)},
            {"compilation", flag(&M::compilation)},
            {"composer", text(&M::composer)},
            {"copyright", text(&M::copyright)},
            {"grouping", text(&M::grouping)},
            {"lyrics", text(&M::lyrics)},
            {"category", text(&M::category)},
            {"comment", text(&M::comment)},
            {"album", text(&M::album)},
            {"release_date", date(&M::releaseDate)},
            {"date", date(&M::releaseDate)}, // what FFmpeg names the MP4 release date
            {"MOVIE/DATE_RELEASED", date(&M::releaseDate)},
            {"EPISODE/DATE_RELEASED", date(&M::releaseDate)},
            {"genre", text(&M::genre)},
            {"genre_type", number(&M::genreType)},
            {"encoding_tool", text(&M::encodingTool)},
            {"encoder", text(&M::encodingTool)},
            {"encoded_by", text(&M::encodedBy)},
            {"keywords", text(&M::keywords)},
            {"description", text(&M::shortDescription)},
            {"MOVIE/DESCRIPTION", text(&M::shortDescription)},
            {"EPISODE/DESCRIPTION", text(&M::shortDescription)},
            {"synopsis", text(&M::longDescription)},
            {"MOVIE/SYNOPSIS", text(&M::longDescription)},
            {"EPISODE/SYNOPSIS", text(&M::longDescription)},
            {"show", text(&M::show)},
            {"COLLECTION/TITLE", text(&M::show)},
            {"episode_id", text(&M::episodeID)},
            {"network", text(&M::tvNetwork)},
            {"track", pair(&M::trackNumber, &M::trackCount)},
            {"disc", pair(&M::discNumber, &M::discCount)},
            {"episode_number", number(&M::episodeNumber)},
            {"episode_sort", number(&M::episodeNumber)}, // what FFmpeg names the MP4 episode number
            {"EPISODE/PART_NUMBER", number(&M::episodeNumber)},
            {"season_number", number(&M::seasonNumber)},
            {"SEASON/PART_NUMBER", number(&M::seasonNumber)},
            {"media_type", number(&M::videoKind)},
            {"hd_video", number(&M::hd)},
            {"gapless_playback", flag(&M::gapless)},
            {"podcast", flag(&M::podcast)},
            {"sort_name", text(&M::sortName)},
            {"sort_artist", text(&M::sortArtist)},
            {"sort_album_artist", text(&M::sortAlbumArtist)},
            {"sort_album", text(&M::sortAlbum)},
            {"sort_composer", text(&M::sortComposer)},
            {"sort_show", text(&M::sortShow)},
            {"season_description", text(&M::seasonDescription)},
            {"SEASON/DESCRIPTION", text(&M::seasonDescription)},
            {"purchase_date", date(&M::purchaseDate)},
            {"MOVIE/DATE_PURCHASED", date(&M::purchaseDate)},
            {"EPISODE/DATE_PURCHASED", date(&M::purchaseDate)},
            {"account_id", text(&M::iTunesAccount)},
            {"storefront_id", number(&M::iTunesCountry)},
            {"content_id", number(&M::contentID)},
            {"artist_id", number(&M::artistID)},
            {"playlist_id", number(&M::playlistID)},
            {"genre_id", number(&M::genreID)},
            {"composer_id", number(&M::composerID)},
            {"xid", text(&M::xid)},
            {"rating", number(&M::advisoryRating)},
            {"iTunEXTC",
             [](QXMetaData& m, const char* v) { m.setContentRatingStringMP4(QXMetaData::stringFromMetadata(v)); }},
            {"iTunMOVI",
             [](QXMetaData& m, const char* v) {
                 if (auto plist = propertyListFromText(QXMetaData::stringFromMetadata(v))) m.setCredits(*plist, true);
             }},
            // Known and of no use to the record.
            {"creation_time", nullptr},
            {"name", nullptr},
            {"major_brand", nullptr},
            {"minor_version", nullptr},
            {"compatible_brands", nullptr},
        };
    }
};

std::shared_ptr<QXMetaData> QXMetaData::initWithDictionary(const AVDictionary* dictionary)
{
    auto record = init();
    record->readFromDictionary(dictionary);
    return record;
}

bool QXMetaData::readFromDictionary(const AVDictionary* dictionary)
{
    const auto& readers = QXMetaDataImport::readers();
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(dictionary, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        auto found = readers.find(QXMetaDataImport::folded(entry->key));
        if (found == readers.end()) {
            QXLogInfo("Unknown metadata item %s: %s", entry->key, entry->value);
        } else if (found->second) {
            found->second(*this, entry->value);
        }
    }
    return true;
}

// --- EyeTV

namespace {

std::optional<uint64_t> unsignedNumber(const QXValue* value)
{
    return value && value->isNumber() ? value->uint64() : std::nullopt;
}

// A number as it is, or a text by its integer value.
std::optional<uint64_t> numberOrText(const QXValue* value)
{
    if (auto number = unsignedNumber(value)) return number;
    if (value && value->string()) return uint64_t(integerValue(*value->string()));
    return std::nullopt;
}

const QXValue* section(const std::optional<QXValue>& plist, std::string_view key)
{
    if (!plist || !plist->dictionary()) return nullptr;
    const QXValue* found = plist->find(key);
    return found && found->dictionary() ? found : nullptr;
}

} // namespace

std::shared_ptr<QXMetaData> QXMetaData::initWithFromURLEyeTVp(const QXURL& url)
{
    auto record = init();
    const auto plist = propertyListFromFile(url);
    const QXValue* epg = section(plist, "epg info");
    if (!epg) return record;

    if (auto season = unsignedNumber(epg->find("SEASONID"))) record->seasonNumber = *season;
    // The episode counts only for a programme that belongs to a season.
    if (epg->find("SEASONID")) {
        auto episode = numberOrText(epg->find("EPISODENUM"));
        if (!episode) episode = numberOrText(epg->find("EPISODECOUNT"));
        if (episode) record->episodeNumber = *episode;
    }
    const QXValue* abstract = epg->find("ABSTRACT");
    const QXValue* description = epg->find("DESCRIPTION");
    if (abstract && abstract->string() && !abstract->string()->empty()) {
        record->longDescription.set(*abstract->string());
    } else if (description && description->string()) {
        record->longDescription.set(*description->string());
    }
    // The episode's own title; the record's name comes from the recording.
    if (const QXValue* title = epg->find("TITLE"); title && title->string()) {
        record->shortDescription.set(*title->string());
    }
    return record;
}

std::shared_ptr<QXMetaData> QXMetaData::initWithFromURLEyeTVr(const QXURL& url)
{
    auto record = init();
    const auto plist = propertyListFromFile(url);
    const QXValue* info = section(plist, "info");
    if (!info) return record;
    if (const QXValue* title = info->find("recording title"); title && title->string()) {
        record->name.set(*title->string());
    }
    if (const QXValue* description = info->find("description"); description && description->string()) {
        record->longDescription.set(*description->string());
    }
    return record;
}
