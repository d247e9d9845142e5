#include "qxmedia/mp4/tags/MP4Tags.h"

#include <algorithm>
#include <type_traits>

#include "qxmedia/mp4/MP4Bytes.h"

namespace qx::mp4 {

namespace {

template <typename T>
using Opt = std::optional<T> MP4Tags::*;

// Order: as a fresh store appends new items; the usual order of the tag
// editors (titles, credits, numbering, TV, sorting, artwork, store fields).
const MP4TagField kFields[] = {
    {"\xa9nam", &MP4Tags::name},
    {"\xa9" "ART", &MP4Tags::artist},
    {"aART", &MP4Tags::albumArtist},
    {"\xa9" "alb", &MP4Tags::album},
    {"\xa9grp", &MP4Tags::grouping},
    {"\xa9wrt", &MP4Tags::composer},
    {"\xa9" "cmt", &MP4Tags::comments},
    {"\xa9gen", &MP4Tags::genre},
    {"gnre", &MP4Tags::genreType},
    {"\xa9" "day", &MP4Tags::releaseDate},
    {"trkn", &MP4Tags::track},
    {"disk", &MP4Tags::disk},
    {"tmpo", &MP4Tags::tempo},
    {"cpil", &MP4Tags::compilation},
    {"tvsh", &MP4Tags::tvShow},
    {"tvnn", &MP4Tags::tvNetwork},
    {"tven", &MP4Tags::tvEpisodeID},
    {"tvsn", &MP4Tags::tvSeason},
    {"tves", &MP4Tags::tvEpisode},
    {"desc", &MP4Tags::description},
    {"ldes", &MP4Tags::longDescription},
    {"\xa9lyr", &MP4Tags::lyrics},
    {"sdes", &MP4Tags::seasonDescription},
    {"sonm", &MP4Tags::sortName},
    {"soar", &MP4Tags::sortArtist},
    {"soaa", &MP4Tags::sortAlbumArtist},
    {"soal", &MP4Tags::sortAlbum},
    {"soco", &MP4Tags::sortComposer},
    {"sosn", &MP4Tags::sortTVShow},
    {"covr", &MP4Tags::artwork},
    {"cprt", &MP4Tags::copyright},
    {"\xa9too", &MP4Tags::encodingTool},
    {"\xa9" "enc", &MP4Tags::encodedBy},
    {"purd", &MP4Tags::purchaseDate},
    {"pcst", &MP4Tags::podcast},
    {"purl", &MP4Tags::podcastURL},
    {"egid", &MP4Tags::podcastGUID},
    {"keyw", &MP4Tags::keywords},
    {"catg", &MP4Tags::category},
    {"hdvd", &MP4Tags::hdVideo},
    {"stik", &MP4Tags::mediaType},
    {"rtng", &MP4Tags::contentRating},
    {"pgap", &MP4Tags::gapless},
    {"apID", &MP4Tags::iTunesAccount},
    {"akID", &MP4Tags::iTunesAccountType},
    {"sfID", &MP4Tags::iTunesCountry},
    {"cnID", &MP4Tags::contentID},
    {"atID", &MP4Tags::artistID},
    {"plID", &MP4Tags::playlistID},
    {"geID", &MP4Tags::genreID},
    {"cmID", &MP4Tags::composerID},
    {"xid ", &MP4Tags::xid},
};

// Integers of any stored width; nullopt for an empty or over-long value.
std::optional<uint64_t> decodeInteger(const MP4ItmfData& data)
{
    if (data.value.empty() || data.value.size() > 8) return std::nullopt;
    uint64_t value = 0;
    for (uint8_t byte : data.value) value = (value << 8) | byte;
    return value;
}

uint32_t artworkBasicType(MP4TagArtworkType type)
{
    switch (type) {
    case MP4_ART_BMP: return MP4_ITMF_BT_BMP;
    case MP4_ART_GIF: return MP4_ITMF_BT_GIF;
    case MP4_ART_JPEG: return MP4_ITMF_BT_JPEG;
    case MP4_ART_PNG: return MP4_ITMF_BT_PNG;
    default: return MP4_ITMF_BT_IMPLICIT;
    }
}

MP4TagArtworkType artworkTypeOf(const MP4ItmfData& data)
{
    switch (data.typeCode) {
    case MP4_ITMF_BT_BMP: return MP4_ART_BMP;
    case MP4_ITMF_BT_GIF: return MP4_ART_GIF;
    case MP4_ITMF_BT_JPEG: return MP4_ART_JPEG;
    case MP4_ITMF_BT_PNG: return MP4_ART_PNG;
    default: return MP4TagArtworkTypeOfData(data.value);
    }
}

// Decodes an item into the field; leaves the field alone if it cannot.
void decodeField(const MP4TagField& field, const MP4ItmfItem& item, MP4Tags& tags)
{
    if (item.dataList.empty()) return;
    const MP4ItmfData& first = item.dataList.front();
    std::visit(
        [&](auto member) {
            auto& target = tags.*member;
            using Field = std::remove_reference_t<decltype(target)>;
            if constexpr (std::is_same_v<Field, std::optional<std::string>>) {
                target = std::string(first.value.begin(), first.value.end());
            } else if constexpr (std::is_same_v<Field, std::optional<MP4TagTrack>>) {
                if (first.value.size() < 4) return;
                MP4TagTrack pair;
                pair.index = uint16_t((first.value[2] << 8) | first.value[3]);
                if (first.value.size() >= 6) pair.total = uint16_t((first.value[4] << 8) | first.value[5]);
                target = pair;
            } else if constexpr (std::is_same_v<Field, std::vector<MP4TagArtwork>>) {
                target.clear();
                for (const MP4ItmfData& data : item.dataList) target.push_back({data.value, artworkTypeOf(data)});
            } else {
                const auto value = decodeInteger(first);
                if (!value) return;
                using Value = typename Field::value_type;
                if constexpr (std::is_same_v<Value, bool>) {
                    target = *value != 0;
                } else {
                    target = static_cast<Value>(*value);
                }
            }
        },
        field.member);
}

bool fieldEquals(const MP4TagField& field, const MP4Tags& a, const MP4Tags& b)
{
    return std::visit([&](auto member) { return a.*member == b.*member; }, field.member);
}

MP4ItmfData makeData(uint32_t typeCode, std::vector<uint8_t> value)
{
    MP4ItmfData data;
    data.typeCode = typeCode;
    data.value = std::move(value);
    return data;
}

MP4ItmfData integerData(uint64_t value, size_t width, uint32_t typeCode = MP4_ITMF_BT_INTEGER)
{
    std::vector<uint8_t> bytes;
    for (size_t i = width; i-- > 0;) bytes.push_back(uint8_t(value >> (8 * i)));
    return makeData(typeCode, std::move(bytes));
}

MP4ItmfItem encodeField(const MP4TagField& field, const MP4Tags& tags)
{
    MP4ItmfItem item;
    item.code = field.code;
    std::visit(
        [&](auto member) {
            const auto& value = tags.*member;
            using Field = std::remove_cvref_t<decltype(value)>;
            if constexpr (std::is_same_v<Field, std::optional<std::string>>) {
                item.dataList.push_back(makeData(MP4_ITMF_BT_UTF8, {value->begin(), value->end()}));
            } else if constexpr (std::is_same_v<Field, std::optional<MP4TagTrack>>) {
                // trkn carries two reserved bytes more than disk.
                ByteWriter bytes;
                bytes.u16(0);
                bytes.u16(value->index);
                bytes.u16(value->total);
                if (item.code == "trkn") bytes.u16(0);
                item.dataList.push_back(makeData(MP4_ITMF_BT_IMPLICIT, std::move(bytes.buffer())));
            } else if constexpr (std::is_same_v<Field, std::vector<MP4TagArtwork>>) {
                for (const MP4TagArtwork& art : value) {
                    const MP4TagArtworkType type =
                        art.type == MP4_ART_UNDEFINED ? MP4TagArtworkTypeOfData(art.data) : art.type;
                    item.dataList.push_back(makeData(artworkBasicType(type), art.data));
                }
            } else {
                using Value = typename Field::value_type;
                // gnre is the one number stored with the implicit type.
                const uint32_t type = item.code == "gnre" ? MP4_ITMF_BT_IMPLICIT : MP4_ITMF_BT_INTEGER;
                item.dataList.push_back(integerData(uint64_t(*value), std::is_same_v<Value, bool> ? 1 : sizeof(Value),
                                                    type));
            }
        },
        field.member);
    return item;
}

} // namespace

std::span<const MP4TagField> MP4TagFields() { return kFields; }

const MP4TagField* MP4TagFieldForCode(const std::string& code)
{
    for (const MP4TagField& field : kFields) {
        if (code == field.code) return &field;
    }
    return nullptr;
}

bool MP4TagFieldIsSet(const MP4TagField& field, const MP4Tags& tags)
{
    return std::visit(
        [&](auto member) {
            const auto& value = tags.*member;
            if constexpr (std::is_same_v<std::remove_cvref_t<decltype(value)>, std::vector<MP4TagArtwork>>) {
                return !value.empty();
            } else {
                return value.has_value();
            }
        },
        field.member);
}

MP4TagArtworkType MP4TagArtworkTypeOfData(std::span<const uint8_t> data)
{
    auto startsWith = [&](std::initializer_list<uint8_t> magic) {
        return data.size() >= magic.size() && std::equal(magic.begin(), magic.end(), data.begin());
    };
    if (startsWith({0xFF, 0xD8, 0xFF})) return MP4_ART_JPEG;
    if (startsWith({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A})) return MP4_ART_PNG;
    if (startsWith({'G', 'I', 'F', '8'})) return MP4_ART_GIF;
    if (startsWith({'B', 'M'})) return MP4_ART_BMP;
    return MP4_ART_UNDEFINED;
}

void MP4TagsFetch(MP4Tags& tags, const MP4ItmfItemList& items)
{
    for (const MP4ItmfItem& item : items) {
        if (const MP4TagField* field = MP4TagFieldForCode(item.code)) decodeField(*field, item, tags);
    }
}

void MP4TagsStore(const MP4Tags& tags, MP4ItmfItemList& items)
{
    for (const MP4TagField& field : kFields) {
        auto first = std::find_if(items.begin(), items.end(), [&](const MP4ItmfItem& i) { return i.code == field.code; });
        const auto count = std::count_if(items.begin(), items.end(), [&](const MP4ItmfItem& i) { return i.code == field.code; });
        const bool set = MP4TagFieldIsSet(field, tags);
        if (count == 0 && !set) continue;
        if (count == 1) {
            MP4Tags asStored;
            decodeField(field, *first, asStored);
            // Unchanged, or an item the decoder cannot read and the caller did not set.
            if (fieldEquals(field, asStored, tags)) continue;
        }
        const size_t position = size_t(first - items.begin());
        std::erase_if(items, [&](const MP4ItmfItem& i) { return i.code == field.code; });
        if (set) items.insert(items.begin() + std::ptrdiff_t(std::min(position, items.size())), encodeField(field, tags));
    }
}

} // namespace qx::mp4
