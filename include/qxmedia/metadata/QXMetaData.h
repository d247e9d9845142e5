#pragma once
// QXMetaData: the one record of tags of a media item. Every reader and writer
// of metadata (MP4 tags, container dictionaries, recordings, library tracks)
// works on it. Besides its typed fields it offers generic access through a
// table of 81 keys, a free-form dictionary for every other key, and change
// detection against the state the record had when it was made, which is what
// lets one record be laid over another.

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

// The keys of the record.
#pragma GCC visibility push(default) // the names below are exported
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
extern const char QXAbsoluteEpisodeNumber[];
extern const char QXActors[];
extern const char QXAdvisoryRating[];
extern const char QXAlbum[];
extern const char QXAlbumArtist[];
extern const char QXAlbumRating[];
extern const char QXArtist[];
extern const char QXArtistID[];
extern const char QXArtworks[];
extern const char QXCategory[];
extern const char QXCoDirectors[];
extern const char QXComment[];
extern const char QXComposer[];
extern const char QXComposerID[];
extern const char QXContentID[];
extern const char QXContentRating[];
extern const char QXContentRatingAnnotation[];
extern const char QXCopyright[];
extern const char QXCountryCode[];
extern const char QXCreationDate[];
extern const char QXDetailURL[];
extern const char QXDirectors[];
extern const char QXDiscCount[];
extern const char QXDiscNumber[];
extern const char QXDVDEpisodeNumber[];
extern const char QXDVDSeasonNumber[];
extern const char QXEncodedBy[];
extern const char QXEncodingTool[];
extern const char QXEpisodeID[];
extern const char QXEpisodeNumber[];
extern const char QXGapless[];
extern const char QXGenre[];
extern const char QXGenreID[];
extern const char QXGenreType[];
extern const char QXGrouping[];
extern const char QXHD[];
extern const char QXIncludeAdultContent[];
extern const char QXITunesAccount[];
extern const char QXITunesCountry[];
extern const char QXKeywords[];
extern const char QXLanguageCode[];
extern const char QXLongDescription[];
extern const char QXLyrics[];
extern const char QXName[];
extern const char QXShortDescription[];
extern const char QXPlaylistID[];
extern const char QXPodcast[];
extern const char QXProducers[];
extern const char QXPurchaseDate[];
extern const char QXRating[];
extern const char QXReleaseDate[];
extern const char QXScreenwriters[];
extern const char QXSeasonDescription[];
extern const char QXSeasonNumber[];
extern const char QXShow[];
extern const char QXSortAlbum[];
extern const char QXSortAlbumArtist[];
extern const char QXSortArtist[];
extern const char QXSortComposer[];
extern const char QXSortName[];
extern const char QXSortShow[];
extern const char QXStudio[];
extern const char QXTags[];
extern const char QXTrackCount[];
extern const char QXTrackNumber[];
extern const char QXTVNetwork[];
extern const char QXUseDVDOrder[];
extern const char QXPreferredArtworkType[]; // "useSquareArtwork"
extern const char QXVideoKind[];
extern const char QXWhereFrom[];
extern const char QXXID[];
// Keys of derived values and of values outside the table.
extern const char QXArtwork[];
extern const char QXCompilation[];
extern const char QXContentRatingString[];
extern const char QXHDString[];
extern const char QXDatabaseForTVShow[];
#pragma GCC visibility pop

// The absence of a content rating.
inline constexpr uint64_t QXNoContentRating = 2147483647;

using QXStringList = std::vector<std::string>;
// Artwork images, best first. A null element is the explicit "no image"
// marker that setArtwork(nullptr) puts in front.
using QXArtworkList = std::vector<QXImageRef>;

class QX_EXPORT QXMetaData : public QXCoding {
    struct Private {};

public:
    // A record with the defaults of the key table; "countryCode",
    // "languageCode" and "includeAdultContent" come from the user defaults.
    static std::shared_ptr<QXMetaData> init();
    // A new record on which addEntriesFromDictionary ran.
    static std::shared_ptr<QXMetaData> metaDataFromDictionary(const QXDictionary& entries);
    // The record of an FFmpeg container dictionary.
    static std::shared_ptr<QXMetaData> initWithDictionary(const AVDictionary* dictionary);
    // The record of an EyeTV programme file (.eyetvp) or recording file
    // (.eyetvr). An unreadable file gives a record with nothing set.
    static std::shared_ptr<QXMetaData> initWithFromURLEyeTVp(const QXURL& url);
    static std::shared_ptr<QXMetaData> initWithFromURLEyeTVr(const QXURL& url);
    // The record of a keyed archive: every key of the table (a missing one
    // is nil: texts absent, numbers 0) and the free-form keys.
    static std::shared_ptr<QXMetaData> initWithCoder(QXKeyedUnarchiver& coder);

    explicit QXMetaData(Private);
    ~QXMetaData() override;
    QXMetaData(const QXMetaData&) = delete;
    QXMetaData& operator=(const QXMetaData&) = delete;

    // --- Identifiers of outside databases.
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

    // --- Flags. `compilation` is a field but none of the 81 keys: it is not
    // archived, copied, merged or reported as changed.
    bool compilation = false;
    bool includeAdultContent = false;
    bool useDVDOrder = false;
    bool gapless = false;
    bool podcast = false;

    // --- Lists.
    QXAtomicObject<QXStringList> actors;
    QXAtomicObject<QXArtworkList> artworks;
    QXAtomicObject<QXStringList> codirectors;
    QXAtomicObject<QXStringList> directors;
    QXAtomicObject<QXStringList> producers;
    QXAtomicObject<QXStringList> screenwriters;
    QXAtomicObject<QXStringList> tags; // file-system tag names for the output file

    // --- Dates.
    QXAtomicObject<QXDate> purchaseDate;
    QXAtomicObject<QXDate> releaseDate;
    QXAtomicObject<QXDate> creationDate;

    // --- Texts; they start as the empty string, imdbId and imdbSeriesId absent.
    QXAtomicObject<std::string> album;
    QXAtomicObject<std::string> albumArtist;
    QXAtomicObject<std::string> artist;
    QXAtomicObject<std::string> category;
    QXAtomicObject<std::string> comment;
    QXAtomicObject<std::string> composer;
    QXAtomicObject<std::string> contentRatingAnnotation;
    QXAtomicObject<std::string> copyright;
    QXAtomicObject<std::string> countryCode;
    QXAtomicObject<std::string> encodedBy;
    QXAtomicObject<std::string> encodingTool;
    QXAtomicObject<std::string> episodeID;
    QXAtomicObject<std::string> genre;
    QXAtomicObject<std::string> grouping;
    QXAtomicObject<std::string> iTunesAccount;
    QXAtomicObject<std::string> keywords;
    QXAtomicObject<std::string> languageCode;
    QXAtomicObject<std::string> longDescription;
    QXAtomicObject<std::string> lyrics;
    QXAtomicObject<std::string> name;
    QXAtomicObject<std::string> seasonDescription;
    QXAtomicObject<std::string> shortDescription;
    QXAtomicObject<std::string> show;
    QXAtomicObject<std::string> sortAlbum;
    QXAtomicObject<std::string> sortAlbumArtist;
    QXAtomicObject<std::string> sortArtist;
    QXAtomicObject<std::string> sortComposer;
    QXAtomicObject<std::string> sortName;
    QXAtomicObject<std::string> sortShow;
    QXAtomicObject<std::string> studio;
    QXAtomicObject<std::string> tvNetwork;
    QXAtomicObject<std::string> whereFrom;
    QXAtomicObject<std::string> xid;

    QXAtomicObject<QXURL> detailURL;

    // --- Numbers.
    uint64_t absoluteEpisodeNumber = 0;
    uint64_t albumRating = 0;
    uint64_t artistID = 0;
    uint64_t composerID = 0;
    uint64_t contentID = 0;
    uint64_t contentRating = QXNoContentRating; // a number of the country's rating table
    uint64_t discCount = 0;
    uint64_t discNumber = 0;
    uint64_t dvdEpisodeNumber = 0;
    uint64_t dvdSeasonNumber = 0;
    uint64_t episodeNumber = 0;
    uint64_t genreID = 0;   // store genre number
    uint64_t genreType = 0; // MP4 gnre value
    uint64_t iTunesCountry = 0;
    uint64_t playlistID = 0;
    uint64_t rating = 0;
    uint64_t seasonNumber = 0;
    uint64_t trackCount = 0;
    uint64_t trackNumber = 0;
    int64_t artworkType = 0;    // 2: square artwork for TV shows; key "useSquareArtwork"
    int64_t advisoryRating = 0; // MP4 rtng value
    int64_t hd = 0;             // 0 SD, 1 HD, 2 HD 1080p, 3 4K
    int64_t videoKind = 0;      // MP4 stik value: 6 music video, 9 movie, 10 TV show

    // --- Keys.
    static const std::vector<std::string>& idKeys();
    // The 81 keys of the table, idKeys first.
    static const std::vector<std::string>& defaultKeys();
    // defaultKeys followed by the free-form keys held at this moment.
    std::vector<std::string> allKeys() const;
    // Key to current value of everything that is not the object the record
    // held when it was made.
    QXDictionary changedMetadata() const;
    // The localised display name of a key, or the key itself.
    static std::string displayValueForKey(std::string_view key);

    // --- Generic access. Declared fields are reached through the key table,
    // every other key through the free-form dictionary.
    QXValue valueForKey(std::string_view key) const;
    void setValue(const QXValue& value, std::string_view key);
    QXValue valueForUndefinedKey(std::string_view key) const;
    void setValueForUndefinedKey(const QXValue& value, std::string_view key);
    // A null value on a scalar key sets 0.
    void setNilValueForKey(std::string_view key);

    void addEntriesFromDictionary(const QXDictionary& entries);
    void removeObjectsForKeys(const std::vector<std::string>& keys);
    // Lays the other record's changes over this one.
    void mergeMetaData(const QXMetaData& other);
    // A new record with a copy of every key's value (free-form keys too);
    // its snapshot of defaults is its own.
    std::shared_ptr<QXMetaData> copy() const;

    // Archives each key of the table under its own name, and the free-form
    // keys under "tagsDict".
    std::string className() const override { return "QXMetaData"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override;

    // --- Derived values.
    QXImageRef artwork() const;
    void setArtwork(QXImageRef image);
    // PNG of artwork, squared with transparent borders for TV shows that ask
    // for square artwork; empty when there is none.
    QXData artworkData() const;
    std::string title() const;
    std::string hdString() const;
    std::optional<std::string> contentRatingString() const;
    // The text of the iTunEXTC item, e.g. "mpaa|PG-13|300|".
    std::optional<std::string> contentRatingStringMP4() const;
    void setContentRatingStringMP4(std::string_view text);
    // The XML property list of the iTunMOVI item.
    std::optional<std::string> iTunMOVI() const;
    void setITunMOVI(std::string_view text);
    int64_t useSquareArtwork() const { return artworkType; }
    void setUseSquareArtwork(int64_t type) { artworkType = type; }

    // --- Change notifications. An observer hears, on the setter's thread,
    // the key of every change made through setValue (and so through
    // addEntriesFromDictionary, mergeMetaData and setArtwork), and then the
    // keys derived from it: "artwork" and "artworkData" after "artworks",
    // "title" after "name", "show" or "videoKind". Fields assigned directly
    // are not heard: a host that observes sets through setValue.
    using KeyObserver = std::function<void(const std::string& key)>;
    using ObserverToken = uint64_t;
    ObserverToken addObserver(KeyObserver observer);
    void removeObserver(ObserverToken token);

    // --- Import.
    bool readFromDictionary(const AVDictionary* dictionary);

    // --- The iTunes tags of an open MP4 file; the file is neither opened
    // nor closed here. A null file gives no record; the record is returned
    // whether or not the file had tags.
    static std::shared_ptr<QXMetaData> initWithFile(qx::mp4::MP4File* file);
    // Sets every field whose tag the file holds and leaves the others. False
    // for a null file or one whose tags cannot be read.
    bool readFromFile(qx::mp4::MP4File* file);
    // Replaces the file's tags with the record's: an empty field removes its
    // tag, at most one picture (PNG) is stored, tags the record has no field
    // for stay. The file must be open for writing; written when it closes.
    bool writeToFile(qx::mp4::MP4File& file) const;

    // --- Helpers for the bindings.
    // Text of a C string: UTF-8, else ASCII, else UTF-16; empty when none fits.
    static std::string stringFromMetadata(const char* text);
    // A date from a tag text: "yyyy-MM-dd..." first, else a lenient parse,
    // else the first date found anywhere in the text.
    static std::optional<QXDate> dateFromMetadata(const char* text);
    // The "name" of each element; nullopt when there is none.
    static std::optional<QXStringList> nameArrayFromPropertyList(const QXArray& list);
    // "yyyy-MM-ddT10:00:00Z" of the day of date in the default time zone.
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
