#pragma once
/// @file
/// QXMetaData, the record of tags of a media item, and the keys that name its values in generic access
/// (valueForKey(), setValue(), dictionaries, archives). Each key's comment gives the kind of QXValue it takes:
/// a text is a string, a number an integer (a text is read by its leading integer), a flag a boolean (or a
/// number, non-zero being true), a date a QXDate, a list a QXArray.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/metadata/QXAtomicObject.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

struct AVDictionary;
class QXMetaDataBarrier;
namespace qx::mp4 {
class MP4File;
}

#pragma GCC visibility push(default) // the names below are exported
///@{
/// Identifiers in outside databases (IMDb, TMDb, TVDB, IMVDb): the two IMDb keys take a text ("tt0111161"),
/// the others a number.
extern const char QXImdbId[];
extern const char QXImdbSeriesId[];
extern const char QXTmdbMovieId[];
extern const char QXTmdbEpisodeId[];
extern const char QXTmdbSeasonId[];
extern const char QXTmdbSeriesId[];
extern const char QXTvdbEpisodeId[];
extern const char QXTvdbSeasonId[];
extern const char QXTvdbSeriesId[];
extern const char QXImvdbId[];
///@}
extern const char QXAbsoluteEpisodeNumber[]; ///< Number: the episode's place counted over all seasons.
extern const char QXActors[]; ///< List of texts: the cast, stored in the credits item.
extern const char QXAdvisoryRating[]; ///< Number: the MP4 rtng value (0 none, 2 clean, 1 or 4 explicit).
extern const char QXAlbum[]; ///< Text.
extern const char QXAlbumArtist[]; ///< Text.
extern const char QXAlbumRating[]; ///< Number: the user's album rating in the media library; no MP4 tag.
extern const char QXArtist[]; ///< Text.
extern const char QXArtistID[]; ///< Number: the store's artist ID (atID).
extern const char QXArtworks[]; ///< List of images (QXImageRef), best first; a null is the "no image" marker.
extern const char QXCategory[]; ///< Text: the podcast category (catg).
extern const char QXCoDirectors[]; ///< List of texts, stored in the credits item.
extern const char QXComment[]; ///< Text.
extern const char QXComposer[]; ///< Text.
extern const char QXComposerID[]; ///< Number: the store's composer ID (cmID).
extern const char QXContentID[]; ///< Number: the store's content ID (cnID).
extern const char QXContentRating[]; ///< Number: a rating of the country's table, QXNoContentRating for none.
extern const char QXContentRatingAnnotation[]; ///< Text: the reason shown with the content rating.
extern const char QXCopyright[]; ///< Text.
extern const char QXCountryCode[]; ///< Text: the country whose rating tables apply ("US", "DE").
extern const char QXCreationDate[]; ///< Date (QXDate).
extern const char QXDetailURL[]; ///< URL (a text is taken as one): a page with more about the item.
extern const char QXDirectors[]; ///< List of texts, stored in the credits item.
extern const char QXDiscCount[]; ///< Number.
extern const char QXDiscNumber[]; ///< Number.
extern const char QXDVDEpisodeNumber[]; ///< Number: the episode in the DVD's order.
extern const char QXDVDSeasonNumber[]; ///< Number: the season in the DVD's order.
extern const char QXEncodedBy[]; ///< Text: the person or company that made the file.
extern const char QXEncodingTool[]; ///< Text: the program that made the file.
extern const char QXEpisodeID[]; ///< Text: the episode's production code (tven).
extern const char QXEpisodeNumber[]; ///< Number.
extern const char QXGapless[]; ///< Flag: play on without a pause into the next track.
extern const char QXGenre[]; ///< Text.
extern const char QXGenreID[]; ///< Number: the store's genre number (geID).
extern const char QXGenreType[]; ///< Number: the MP4 gnre value (ID3v1 genre + 1).
extern const char QXGrouping[]; ///< Text.
extern const char QXHD[]; ///< Number: 0 SD, 1 HD, 2 HD 1080p, 3 4K.
extern const char QXIncludeAdultContent[]; ///< Flag; starts as the user default of the same name.
extern const char QXITunesAccount[]; ///< Text: the store account that bought the item (apID).
extern const char QXITunesCountry[]; ///< Number: the store front the item was bought in (sfID).
extern const char QXKeywords[]; ///< Text.
extern const char QXLanguageCode[]; ///< Text: a language code; starts as the user default, else "en".
extern const char QXLongDescription[]; ///< Text: the full description (ldes).
extern const char QXLyrics[]; ///< Text.
extern const char QXName[]; ///< Text: the title.
extern const char QXShortDescription[]; ///< Text: the short description (desc), shown as the tagline.
extern const char QXPlaylistID[]; ///< Number: the store's playlist ID (plID).
extern const char QXPodcast[]; ///< Flag.
extern const char QXProducers[]; ///< List of texts, stored in the credits item.
extern const char QXPurchaseDate[]; ///< Date (QXDate).
extern const char QXRating[]; ///< Number: the user's rating in the media library; no MP4 tag.
extern const char QXReleaseDate[]; ///< Date (QXDate).
extern const char QXScreenwriters[]; ///< List of texts, stored in the credits item.
extern const char QXSeasonDescription[]; ///< Text.
extern const char QXSeasonNumber[]; ///< Number.
extern const char QXShow[]; ///< Text: the TV show's name.
///@{
/// Texts: the forms of the names that lists sort by ("Beatles" for "The Beatles").
extern const char QXSortAlbum[];
extern const char QXSortAlbumArtist[];
extern const char QXSortArtist[];
extern const char QXSortComposer[];
extern const char QXSortName[];
extern const char QXSortShow[];
///@}
extern const char QXStudio[]; ///< Text, stored in the credits item.
extern const char QXTags[]; ///< List of texts: file-system tag names for the output file.
extern const char QXTrackCount[]; ///< Number.
extern const char QXTrackNumber[]; ///< Number.
extern const char QXTVNetwork[]; ///< Text.
extern const char QXUseDVDOrder[]; ///< Flag: the episodes count in the DVD's order.
/// "useSquareArtwork". Number: 2 asks for square artwork for a TV show (see QXMetaData::artworkData()).
extern const char QXPreferredArtworkType[];
extern const char QXVideoKind[]; ///< Number: the MP4 stik value (6 music video, 9 movie, 10 TV show).
extern const char QXWhereFrom[]; ///< Text: where the item came from.
extern const char QXXID[]; ///< Text: the vendor's identifier of the item (xid).
// Keys of derived values and of values outside the table:
extern const char QXArtwork[]; ///< Image or null: the first of the artworks; setting it puts the image first.
extern const char QXCompilation[]; ///< Flag: part of a compilation; a field, but none of the table's keys.
extern const char QXContentRatingString[]; ///< Text, read only: the rating's name in the country's table.
extern const char QXHDString[]; ///< Text, read only: "SD", "HD", "HD 1080p" or "4K".
extern const char QXDatabaseForTVShow[]; ///< Free-form: kept in the dictionary of other keys.
#pragma GCC visibility pop

/// The value of QXMetaData::contentRating when the item has no content rating.
inline constexpr uint64_t QXNoContentRating = 2147483647;

/// A list of names (actors, directors, file-system tags).
using QXStringList = std::vector<std::string>;
/// Artwork images, best first. A null element is the explicit "no image"
/// marker that setArtwork(nullptr) puts in front.
using QXArtworkList = std::vector<QXImageRef>;

/// The one record of tags of a media item: every reader and writer of metadata (MP4 tags, container
/// dictionaries, recordings, library tracks) works on it. Besides its typed fields it offers generic access
/// through a table of 81 keys, a free-form dictionary for every other key, and change detection against the
/// state the record had when it was made, which is what lets one record be laid over another.
///
/// Records live in shared pointers made by the static functions below. The fields held in QXAtomicObject and
/// the free-form entries may be read and written from several threads at once; the plain number and flag fields
/// have no lock, whether reached directly or by key: while one thread changes them, no other may use them.
class QX_EXPORT QXMetaData : public QXCoding {
    struct Private {};

public:
    /// A record with the defaults of the key table: texts empty, the IMDb IDs and other objects absent, numbers
    /// 0, contentRating QXNoContentRating. countryCode, languageCode and includeAdultContent come from the user
    /// defaults ("US" and "en" when those are unset). changedMetadata() compares against this state.
    static std::shared_ptr<QXMetaData> init();
    /// A new record on which addEntriesFromDictionary ran.
    static std::shared_ptr<QXMetaData> metaDataFromDictionary(const QXDictionary& entries);
    /// The record of an FFmpeg container dictionary (see readFromDictionary()); a null dictionary gives a
    /// record with the defaults.
    static std::shared_ptr<QXMetaData> initWithDictionary(const AVDictionary* dictionary);
    ///@{
    /// The record of an EyeTV programme file (.eyetvp: season, episode, descriptions) or recording file
    /// (.eyetvr: name, description). An unreadable file gives a record with nothing set.
    static std::shared_ptr<QXMetaData> initWithFromURLEyeTVp(const QXURL& url);
    static std::shared_ptr<QXMetaData> initWithFromURLEyeTVr(const QXURL& url);
    ///@}
    /// The record of a keyed archive: every key of the table (a missing one
    /// is nil: texts absent, numbers 0) and the free-form keys.
    static std::shared_ptr<QXMetaData> initWithCoder(QXKeyedUnarchiver& coder);

    /// For std::make_shared only (Private cannot be named outside): hosts call init() or the other makers.
    explicit QXMetaData(Private);
    ~QXMetaData() override;
    QXMetaData(const QXMetaData&) = delete;
    QXMetaData& operator=(const QXMetaData&) = delete;

    // --- Identifiers of outside databases.
    ///@{
    /// IDs in outside databases: IMDb's as text ("tt0111161"), the others as numbers; absent when unknown.
    /// Only kept and archived: no MP4 tag holds them.
    QXAtomicObject<std::string> imdbId;
    QXAtomicObject<std::string> imdbSeriesId;
    QXAtomicObject<int64_t> tmdbMovieId;
    QXAtomicObject<int64_t> tmdbEpisodeId;
    QXAtomicObject<int64_t> tmdbSeasonId;
    QXAtomicObject<int64_t> tmdbSeriesId;
    QXAtomicObject<int64_t> tvdbEpisodeId;
    QXAtomicObject<int64_t> tvdbSeasonId;
    QXAtomicObject<int64_t> tvdbSeriesId;
    QXAtomicObject<int64_t> imvdbId;
    ///@}

    // --- Flags. `compilation` is a field but none of the 81 keys: it is not
    // archived, copied, merged or reported as changed.
    /// Part of a compilation (cpil). setValue() reaches it by its key, but it is none of the table's keys: it is
    /// not archived, copied, merged or reported as changed.
    bool compilation = false;
    bool includeAdultContent = false; ///< Starts as the user default; only kept, no MP4 tag.
    bool useDVDOrder = false;         ///< Episodes are counted in the DVD's order; only kept, no MP4 tag.
    bool gapless = false;             ///< Plays on into the next track without a pause (pgap).
    bool podcast = false;             ///< A podcast episode (pcst).

    // --- Lists.
    QXAtomicObject<QXStringList> actors;        ///< The cast ("cast" of the iTunMOVI credits item).
    QXAtomicObject<QXArtworkList> artworks;     ///< Pictures (covr), best first; see artwork() and setArtwork().
    QXAtomicObject<QXStringList> codirectors;   ///< Co-directors, in the iTunMOVI credits item.
    QXAtomicObject<QXStringList> directors;     ///< Directors, in the iTunMOVI credits item.
    QXAtomicObject<QXStringList> producers;     ///< Producers, in the iTunMOVI credits item.
    QXAtomicObject<QXStringList> screenwriters; ///< Screenwriters, in the iTunMOVI credits item.
    QXAtomicObject<QXStringList> tags; ///< File-system tag names for the output file (its user.xdg.tags attribute).

    // --- Dates.
    QXAtomicObject<QXDate> purchaseDate; ///< When the item was bought (purd); absent when unknown.
    QXAtomicObject<QXDate> releaseDate;  ///< The release day (©day); absent when unknown.
    QXAtomicObject<QXDate> creationDate; ///< Only kept and archived: no MP4 tag holds it.

    // --- Texts; they start as the empty string, imdbId and imdbSeriesId absent.
    ///@{
    /// The text of the MP4 tag of the same name (©alb, aART, ©ART, catg, ©cmt, ©wrt); empty when the item has
    /// none. Writing an empty text removes the tag.
    QXAtomicObject<std::string> album;
    QXAtomicObject<std::string> albumArtist;
    QXAtomicObject<std::string> artist;
    QXAtomicObject<std::string> category;
    QXAtomicObject<std::string> comment;
    QXAtomicObject<std::string> composer;
    ///@}
    QXAtomicObject<std::string> contentRatingAnnotation; ///< The reason given with the rating (in iTunEXTC).
    QXAtomicObject<std::string> copyright;    ///< The copyright notice (cprt).
    QXAtomicObject<std::string> countryCode;  ///< The country whose rating tables apply ("US"); no tag of its own.
    QXAtomicObject<std::string> encodedBy;    ///< The person or company that made the file (©enc).
    QXAtomicObject<std::string> encodingTool; ///< The program that made the file (©too).
    QXAtomicObject<std::string> episodeID;    ///< The episode's production code (tven).
    QXAtomicObject<std::string> genre;        ///< The genre as text (©gen); genreType is the numbered one.
    QXAtomicObject<std::string> grouping;     ///< The grouping (©grp).
    QXAtomicObject<std::string> iTunesAccount; ///< The buyer's store account (apID); an empty text is written.
    QXAtomicObject<std::string> keywords;     ///< Keywords, as one text (keyw).
    QXAtomicObject<std::string> languageCode; ///< A language code from the user defaults ("en"); no MP4 tag.
    QXAtomicObject<std::string> longDescription; ///< The full description (ldes).
    QXAtomicObject<std::string> lyrics;       ///< The lyrics (©lyr).
    QXAtomicObject<std::string> name;         ///< The title (©nam); see title().
    QXAtomicObject<std::string> seasonDescription; ///< The season's description (sdes).
    QXAtomicObject<std::string> shortDescription;  ///< The short description (desc).
    QXAtomicObject<std::string> show;         ///< The TV show (tvsh).
    ///@{
    /// The sort form of the name of the same field (soal, soaa, soar, soco, sonm, sosn).
    QXAtomicObject<std::string> sortAlbum;
    QXAtomicObject<std::string> sortAlbumArtist;
    QXAtomicObject<std::string> sortArtist;
    QXAtomicObject<std::string> sortComposer;
    QXAtomicObject<std::string> sortName;
    QXAtomicObject<std::string> sortShow;
    ///@}
    QXAtomicObject<std::string> studio;    ///< Written in the iTunMOVI credits item, and only with a credits list.
    QXAtomicObject<std::string> tvNetwork; ///< The TV network (tvnn).
    QXAtomicObject<std::string> whereFrom; ///< Where the item came from; only kept and archived.
    QXAtomicObject<std::string> xid;       ///< The vendor's identifier of the item ("xid ").

    QXAtomicObject<QXURL> detailURL; ///< A page with more about the item; only kept and archived.

    // --- Numbers.
    uint64_t absoluteEpisodeNumber = 0; ///< The episode counted over all seasons; only kept and archived.
    uint64_t albumRating = 0;           ///< The user's album rating in the media library; no MP4 tag.
    uint64_t artistID = 0;              ///< Store artist ID (atID); 0 removes the tag.
    uint64_t composerID = 0;            ///< Store composer ID (cmID); 0 removes the tag.
    uint64_t contentID = 0;             ///< Store content ID (cnID); 0 removes the tag.
    uint64_t contentRating = QXNoContentRating; ///< A number of the country's rating table; QXNoContentRating for none
    ///@{
    /// Disc number and count (disk); written when either is not 0. The tag holds 16 bits.
    uint64_t discCount = 0;
    uint64_t discNumber = 0;
    ///@}
    uint64_t dvdEpisodeNumber = 0; ///< The episode in the DVD's order; only kept and archived.
    uint64_t dvdSeasonNumber = 0;  ///< The season in the DVD's order; only kept and archived.
    uint64_t episodeNumber = 0;    ///< The episode number (tves); 0 removes the tag.
    uint64_t genreID = 0;   ///< Store genre number (geID); 0 removes the tag.
    uint64_t genreType = 0; ///< MP4 gnre value (ID3v1 genre + 1); 0 removes the tag.
    uint64_t iTunesCountry = 0; ///< The store front of the purchase (sfID); 0 removes the tag.
    uint64_t playlistID = 0;    ///< Store playlist ID (plID); 0 removes the tag.
    uint64_t rating = 0;        ///< The user's rating in the media library; no MP4 tag.
    uint64_t seasonNumber = 0;  ///< The season number (tvsn); 0 removes the tag.
    ///@{
    /// Track number and count (trkn); written when either is not 0. The tag holds 16 bits.
    uint64_t trackCount = 0;
    uint64_t trackNumber = 0;
    ///@}
    int64_t artworkType = 0;    ///< 2: square artwork for TV shows; key "useSquareArtwork"
    int64_t advisoryRating = 0; ///< MP4 rtng value (0 none, 2 clean, 1 or 4 explicit)
    int64_t hd = 0;             ///< 0 SD, 1 HD, 2 HD 1080p, 3 4K (hdvd; 4K is not written)
    int64_t videoKind = 0;      ///< MP4 stik value: 6 music video, 9 movie, 10 TV show

    // --- Keys.
    /// The ten keys of outside databases' IDs (QXImdbId to QXImvdbId).
    static const std::vector<std::string>& idKeys();
    /// The 81 keys of the table, idKeys first.
    static const std::vector<std::string>& defaultKeys();
    /// defaultKeys followed by the free-form keys held at this moment.
    std::vector<std::string> allKeys() const;
    /// Key to current value of everything that is not the object the record
    /// held when it was made. A value set again, even to an equal text, counts as a change (numbers, flags and
    /// numeric IDs compare by value); an absent value is never reported, so clearing a field is no change.
    QXDictionary changedMetadata() const;
    /// The localised display name of a key, or the key itself.
    static std::string displayValueForKey(std::string_view key);

    // --- Generic access. Declared fields are reached through the key table,
    // every other key through the free-form dictionary.
    /// The value under a key: a field of the table, a derived value ("artwork", "title", "hdString",
    /// "contentRatingString", "artworkData", "iTunMOVI", "contentRatingStringMP4") or a free-form entry; null
    /// when absent.
    QXValue valueForKey(std::string_view key) const;
    /// Sets a key's value and tells the observers. A value of the wrong type leaves the field and logs a
    /// warning; null clears an object field, sets 0 (false) on a number or flag and removes a free-form entry.
    void setValue(const QXValue& value, std::string_view key);
    /// The free-form entry of a key; null when there is none.
    QXValue valueForUndefinedKey(std::string_view key) const;
    /// Sets a free-form entry, without telling observers; null removes it.
    void setValueForUndefinedKey(const QXValue& value, std::string_view key);
    /// A null value on a scalar key sets 0; any other key is left.
    void setNilValueForKey(std::string_view key);

    /// setValue() for every entry.
    void addEntriesFromDictionary(const QXDictionary& entries);
    /// setValue() of null for every key.
    void removeObjectsForKeys(const std::vector<std::string>& keys);
    /// Lays the other record's changes (its changedMetadata()) over this one.
    void mergeMetaData(const QXMetaData& other);
    /// A new record with a copy of every key's value (free-form keys too);
    /// its snapshot of defaults is its own.
    std::shared_ptr<QXMetaData> copy() const;

    /// The class name archives store: "QXMetaData".
    std::string className() const override { return "QXMetaData"; }
    /// Archives each key of the table under its own name, and the free-form
    /// keys under "tagsDict".
    void encodeWithCoder(QXKeyedArchiver& coder) const override;

    // --- Derived values.
    /// The first of the artworks; null when there is none or the "no image" marker comes first.
    QXImageRef artwork() const;
    /// Puts the image first in artworks (moving it there if present) and drops the "no image" markers; null
    /// puts the marker first. Tells the observers of "artworks".
    void setArtwork(QXImageRef image);
    /// PNG of artwork, squared with transparent borders for TV shows that ask
    /// for square artwork; empty when there is none.
    QXData artworkData() const;
    /// The show for a TV show (videoKind 10) that has one, else the name; empty when neither is set.
    std::string title() const;
    /// "SD", "HD", "HD 1080p" or "4K" for hd 0 (or any other value), 1, 2 and 3.
    std::string hdString() const;
    /// The name of contentRating in the country's table for the video kind ("PG-13"); nullopt when the
    /// country or kind has no table.
    std::optional<std::string> contentRatingString() const;
    /// The text of the iTunEXTC item, e.g. "mpaa|PG-13|300|"; nullopt without
    /// a rating, a video kind or a country with a table for it.
    std::optional<std::string> contentRatingStringMP4() const;
    /// Reads an iTunEXTC text: the third field sets contentRating, the fourth the annotation.
    void setContentRatingStringMP4(std::string_view text);
    /// The XML property list of the iTunMOVI item; nullopt with no credits list and no studio.
    std::optional<std::string> iTunMOVI() const;
    /// Reads an iTunMOVI property list: each credits key present sets its list, "studio" the studio. Text that
    /// is no property list changes nothing.
    void setITunMOVI(std::string_view text);
    ///@{
    /// artworkType under the name of its key: 2 asks for square TV show artwork.
    int64_t useSquareArtwork() const { return artworkType; }
    void setUseSquareArtwork(int64_t type) { artworkType = type; }
    ///@}

    // --- Change notifications. An observer hears, on the setter's thread,
    // the key of every change made through setValue (and so through
    // addEntriesFromDictionary, mergeMetaData and setArtwork), and then the
    // keys derived from it: "artwork" and "artworkData" after "artworks",
    // "title" after "name", "show" or "videoKind". Fields assigned directly
    // are not heard: a host that observes sets through setValue.
    /// Called with the key of each change, on the thread that made it, outside the record's locks: it may read
    /// the record or remove itself.
    using KeyObserver = std::function<void(const std::string& key)>;
    /// Names an observer for removeObserver(); never 0.
    using ObserverToken = uint64_t;
    /// Adds an observer of every key; see KeyObserver for what it hears.
    ObserverToken addObserver(KeyObserver observer);
    /// Removes an observer; an unknown token is ignored.
    void removeObserver(ObserverToken token);

    // --- Import.
    /// Sets the fields of the FFmpeg metadata keys it knows ("title", "artist", "track" as "3/12", "media_type",
    /// the iTunEXTC and iTunMOVI texts, Matroska's "MOVIE/TITLE" and the like); unknown keys are logged and left.
    /// Always true.
    bool readFromDictionary(const AVDictionary* dictionary);

    /// The iTunes tags of an open MP4 file; the file is neither opened
    /// nor closed here. A null file gives no record; the record is returned
    /// whether or not the file had tags.
    static std::shared_ptr<QXMetaData> initWithFile(qx::mp4::MP4File* file);
    /// Sets every field whose tag the file holds and leaves the others. False
    /// for a null file or one whose tags cannot be read.
    bool readFromFile(qx::mp4::MP4File* file);
    /// Replaces the file's tags with the record's: an empty field removes its
    /// tag, at most one picture (PNG) is stored, tags the record has no field
    /// for stay. The file must be open for writing; written when it closes.
    bool writeToFile(qx::mp4::MP4File& file) const;

    // --- Helpers for the bindings.
    /// Text of a C string: as it is when it is UTF-8 (ASCII included), else read as UTF-16 (byte order from a
    /// BOM, else big-endian); empty for null or when neither fits.
    static std::string stringFromMetadata(const char* text);
    /// A date from a tag text: "yyyy-MM-dd..." first, else a lenient parse,
    /// else the first date found anywhere in the text.
    static std::optional<QXDate> dateFromMetadata(const char* text);
    /// The "name" of each element; nullopt when there is none.
    static std::optional<QXStringList> nameArrayFromPropertyList(const QXArray& list);
    /// "yyyy-MM-ddT10:00:00Z" of the day of date in the default time zone.
    static std::string formattedDate(QXDate date);

private:
    struct Snapshot {
        QXValue value;
        std::shared_ptr<const void> identity; // null for scalars: they compare by value
    };
    Snapshot snapshotForKey(std::string_view key) const;
    std::vector<std::string> allKeysLocked() const;
    void setCredits(const QXValue& plist, bool checkTypes);
    // The credits list as a file stores it: every list that is set, and the
    // studio (an empty one too) if any list is; nothing without a list.
    std::optional<std::string> creditsPropertyList() const;
    // Archives hold artwork as PNG; installed once, on first archiving.
    static void installArtworkArchiving();
    friend struct QXMetaDataImport;

    void assignValue(const QXValue& value, std::string_view key);
    // Tells the observers of `key` and of the keys derived from it.
    void notifyChange(std::string_view key) const;

    std::unique_ptr<QXMetaDataBarrier> barrierQueue_;
    QXDictionary tagsDict_;
    mutable std::mutex observersLock_;
    std::vector<std::pair<ObserverToken, KeyObserver>> observers_;
    ObserverToken nextObserverToken_ = 1;
    std::map<std::string, Snapshot, std::less<>> defaultValues_;
};
