// The record and the iTunes tags of an MP4 file: the typed tags of ilst, and
// the two free-form items "iTunEXTC" (content rating) and "iTunMOVI"
// (credits). The file is open already; these calls neither open nor close it.

#include <unicode/ustring.h>

#include "QXMetaDataText.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Tags.h"
#include "qxmedia/platform/image/QXImage.h"

using namespace qx::mp4;
using namespace qx::metadata;

namespace {

const char kITunesMeaning[] = "com.apple.iTunes";
const char kContentRatingItem[] = "iTunEXTC";
const char kCreditsItem[] = "iTunMOVI";

// The text fields of the record and their tags; an empty text removes the tag.
struct TextTag {
    QXAtomicObject<std::string> QXMetaData::*field;
    std::optional<std::string> MP4Tags::*tag;
};
const TextTag kTextTags[] = {
    {&QXMetaData::name, &MP4Tags::name},
    {&QXMetaData::artist, &MP4Tags::artist},
    {&QXMetaData::albumArtist, &MP4Tags::albumArtist},
    {&QXMetaData::album, &MP4Tags::album},
    {&QXMetaData::grouping, &MP4Tags::grouping},
    {&QXMetaData::composer, &MP4Tags::composer},
    {&QXMetaData::comment, &MP4Tags::comments},
    {&QXMetaData::genre, &MP4Tags::genre},
    {&QXMetaData::show, &MP4Tags::tvShow},
    {&QXMetaData::tvNetwork, &MP4Tags::tvNetwork},
    {&QXMetaData::episodeID, &MP4Tags::tvEpisodeID},
    {&QXMetaData::shortDescription, &MP4Tags::description},
    {&QXMetaData::longDescription, &MP4Tags::longDescription},
    {&QXMetaData::lyrics, &MP4Tags::lyrics},
    {&QXMetaData::seasonDescription, &MP4Tags::seasonDescription},
    {&QXMetaData::sortName, &MP4Tags::sortName},
    {&QXMetaData::sortArtist, &MP4Tags::sortArtist},
    {&QXMetaData::sortAlbumArtist, &MP4Tags::sortAlbumArtist},
    {&QXMetaData::sortAlbum, &MP4Tags::sortAlbum},
    {&QXMetaData::sortComposer, &MP4Tags::sortComposer},
    {&QXMetaData::sortShow, &MP4Tags::sortTVShow},
    {&QXMetaData::copyright, &MP4Tags::copyright},
    {&QXMetaData::encodingTool, &MP4Tags::encodingTool},
    {&QXMetaData::encodedBy, &MP4Tags::encodedBy},
    {&QXMetaData::keywords, &MP4Tags::keywords},
    {&QXMetaData::category, &MP4Tags::category},
    {&QXMetaData::xid, &MP4Tags::xid},
};

// A text field: an empty text removes the tag.
std::optional<std::string> textTag(const QXAtomicObject<std::string>& field)
{
    std::string text = field.valueOr(std::string());
    if (text.empty()) return std::nullopt;
    return text;
}

// A number field: zero removes the tag; a wider value is cut to the tag's
// low bits.
template <class Tag>
std::optional<Tag> numberTag(uint64_t value)
{
    if (value == 0) return std::nullopt;
    return Tag(value);
}

std::optional<std::string> dateTag(const QXAtomicObject<QXDate>& field)
{
    auto date = field.get();
    if (!date) return std::nullopt;
    return QXMetaData::formattedDate(*date);
}

// trkn and disk: both numbers zero removes the tag.
std::optional<MP4TagTrack> pairTag(uint64_t index, uint64_t total)
{
    if (index == 0 && total == 0) return std::nullopt;
    return MP4TagTrack {uint16_t(index), uint16_t(total)};
}

bool isValidUTF8(const std::vector<uint8_t>& bytes)
{
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, reinterpret_cast<const char*>(bytes.data()), int32_t(bytes.size()), &status);
    return status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status);
}

// Every data entry of every free-form item of that name, as bytes.
std::vector<std::vector<uint8_t>> freeFormValues(MP4File& file, const char* name)
{
    std::vector<std::vector<uint8_t>> values;
    for (const MP4ItmfItem& item : MP4ItmfGetItemsByMeaning(file, kITunesMeaning, name)) {
        for (const MP4ItmfData& data : item.dataList) values.push_back(data.value);
    }
    return values;
}

// Removes every free-form item of that name, then adds one with the text
// (as UTF-8) unless there is none.
void replaceFreeFormItem(MP4File& file, const char* name, const std::optional<std::string>& text)
{
    for (const MP4ItmfItem& item : MP4ItmfGetItemsByMeaning(file, kITunesMeaning, name)) MP4ItmfRemoveItem(file, item);
    if (text && !text->empty()) MP4ItmfAddItem(file, MP4ItmfItemAlloc(kITunesMeaning, name, *text));
}

} // namespace

std::shared_ptr<QXMetaData> QXMetaData::initWithFile(MP4File* file)
{
    if (!file) return nullptr;
    auto record = init();
    record->readFromFile(file);
    return record;
}

bool QXMetaData::readFromFile(MP4File* file)
{
    MP4Tags tags;
    if (!file || !MP4TagsFetch(tags, *file)) return false;

    auto text = [](QXAtomicObject<std::string>& field, const std::optional<std::string>& tag) {
        if (tag) field.set(stringFromMetadata(tag->c_str()));
    };
    auto date = [](QXAtomicObject<QXDate>& field, const std::optional<std::string>& tag) {
        if (!tag) return;
        if (auto parsed = dateFromMetadata(tag->c_str())) field.set(*parsed);
    };
    auto number = [](auto& field, const auto& tag) {
        if (tag) field = std::remove_reference_t<decltype(field)>(*tag);
    };

    for (const TextTag& entry : kTextTags) text(this->*entry.field, tags.*entry.tag);
    number(genreType, tags.genreType);
    date(releaseDate, tags.releaseDate);
    if (tags.track) {
        trackNumber = tags.track->index;
        trackCount = tags.track->total;
    }
    if (tags.disk) {
        discNumber = tags.disk->index;
        discCount = tags.disk->total;
    }
    number(compilation, tags.compilation);
    number(seasonNumber, tags.tvSeason);
    number(episodeNumber, tags.tvEpisode);
    // Every picture that decodes, whatever its type code; the others are
    // dropped without a word.
    QXArtworkList pictures;
    for (const MP4TagArtwork& picture : tags.artwork) {
        if (auto image = QXImage::imageWithData(picture.data.data(), picture.data.size())) pictures.push_back(image);
    }
    if (!pictures.empty()) artworks.set(std::move(pictures));
    date(purchaseDate, tags.purchaseDate);
    number(podcast, tags.podcast);
    number(hd, tags.hdVideo);
    number(videoKind, tags.mediaType);
    number(advisoryRating, tags.contentRating);
    number(gapless, tags.gapless);
    text(iTunesAccount, tags.iTunesAccount);
    number(iTunesCountry, tags.iTunesCountry);
    number(contentID, tags.contentID);
    number(artistID, tags.artistID);
    number(playlistID, tags.playlistID);
    number(genreID, tags.genreID);
    number(composerID, tags.composerID);

    for (const auto& value : freeFormValues(*file, kContentRatingItem)) {
        if (isValidUTF8(value)) setContentRatingStringMP4(std::string(value.begin(), value.end()));
    }
    // With several lists the last one wins, key by key.
    for (const auto& value : freeFormValues(*file, kCreditsItem)) {
        setITunMOVI(std::string_view(reinterpret_cast<const char*>(value.data()), value.size()));
    }
    return true;
}

bool QXMetaData::writeToFile(MP4File& file) const
{
    // What the file holds and the record has no field for (tempo, account
    // type, podcast addresses) stays as it is.
    MP4Tags tags;
    MP4TagsFetch(tags, file);
    for (const TextTag& entry : kTextTags) tags.*entry.tag = textTag(this->*entry.field);
    tags.genreType = numberTag<uint16_t>(genreType);
    tags.releaseDate = dateTag(releaseDate);
    tags.track = pairTag(trackNumber, trackCount);
    tags.disk = pairTag(discNumber, discCount);
    tags.compilation = compilation;
    tags.tvSeason = numberTag<uint32_t>(seasonNumber);
    tags.tvEpisode = numberTag<uint32_t>(episodeNumber);
    // One picture at most: the first artwork, as PNG.
    tags.artwork.clear();
    if (artwork()) {
        const QXData png = artworkData();
        if (!png.empty()) tags.artwork.push_back({png, MP4_ART_PNG});
    }
    tags.purchaseDate = dateTag(purchaseDate);
    tags.podcast = podcast ? std::optional<bool>(true) : std::nullopt;
    // 4K has no value of its own in the tag: it is left out.
    tags.hdVideo = hd == 3 ? std::nullopt : std::optional<uint8_t>(uint8_t(hd));
    tags.mediaType = uint8_t(videoKind);
    tags.contentRating = uint8_t(advisoryRating);
    tags.gapless = gapless;
    // An empty account text is a value; only an absent one removes the tag.
    tags.iTunesAccount = iTunesAccount.get() ? std::optional<std::string>(*iTunesAccount.get()) : std::nullopt;
    tags.iTunesCountry = numberTag<uint32_t>(iTunesCountry);
    tags.contentID = numberTag<uint32_t>(contentID);
    tags.artistID = numberTag<uint32_t>(artistID);
    tags.playlistID = numberTag<uint64_t>(playlistID);
    tags.genreID = numberTag<uint32_t>(genreID);
    tags.composerID = numberTag<uint32_t>(composerID);
    MP4TagsStore(tags, file);

    replaceFreeFormItem(file, kContentRatingItem, contentRatingStringMP4());
    replaceFreeFormItem(file, kCreditsItem, creditsPropertyList());
    return true;
}
