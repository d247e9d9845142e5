#include "QXMetaDataKeys.h"

#include <algorithm>

const char QXImdbId[] = "imdbId";
const char QXImdbSeriesId[] = "imdbSeriesId";
const char QXTmdbMovieId[] = "tmdbMovieId";
const char QXTmdbEpisodeId[] = "tmdbEpisodeId";
const char QXTmdbSeasonId[] = "tmdbSeasonId";
const char QXTmdbSeriesId[] = "tmdbSeriesId";
const char QXTvdbEpisodeId[] = "tvdbEpisodeId";
const char QXTvdbSeasonId[] = "tvdbSeasonId";
const char QXTvdbSeriesId[] = "tvdbSeriesId";
const char QXImvdbId[] = "imvdbId";
const char QXAbsoluteEpisodeNumber[] = "absoluteEpisodeNumber";
const char QXActors[] = "actors";
const char QXAdvisoryRating[] = "advisoryRating";
const char QXAlbum[] = "album";
const char QXAlbumArtist[] = "albumArtist";
const char QXAlbumRating[] = "albumRating";
const char QXArtist[] = "artist";
const char QXArtistID[] = "artistID";
const char QXArtworks[] = "artworks";
const char QXCategory[] = "category";
const char QXCoDirectors[] = "codirectors";
const char QXComment[] = "comment";
const char QXComposer[] = "composer";
const char QXComposerID[] = "composerID";
const char QXContentID[] = "contentID";
const char QXContentRating[] = "contentRating";
const char QXContentRatingAnnotation[] = "contentRatingAnnotation";
const char QXCopyright[] = "copyright";
const char QXCountryCode[] = "countryCode";
const char QXCreationDate[] = "creationDate";
const char QXDetailURL[] = "detailURL";
const char QXDirectors[] = "directors";
const char QXDiscCount[] = "discCount";
const char QXDiscNumber[] = "discNumber";
const char QXDVDEpisodeNumber[] = "dvdEpisodeNumber";
const char QXDVDSeasonNumber[] = "dvdSeasonNumber";
const char QXEncodedBy[] = "encodedBy";
const char QXEncodingTool[] = "encodingTool";
const char QXEpisodeID[] = "episodeID";
const char QXEpisodeNumber[] = "episodeNumber";
const char QXGapless[] = "gapless";
const char QXGenre[] = "genre";
const char QXGenreID[] = "genreID";
const char QXGenreType[] = "genreType";
const char QXGrouping[] = "grouping";
const char QXHD[] = "hd";
const char QXIncludeAdultContent[] = "includeAdultContent";
const char QXITunesAccount[] = "iTunesAccount";
const char QXITunesCountry[] = "iTunesCountry";
const char QXKeywords[] = "keywords";
const char QXLanguageCode[] = "languageCode";
const char QXLongDescription[] = "longDescription";
const char QXLyrics[] = "lyrics";
const char QXName[] = "name";
const char QXShortDescription[] = "shortDescription";
const char QXPlaylistID[] = "playlistID";
const char QXPodcast[] = "podcast";
const char QXProducers[] = "producers";
const char QXPurchaseDate[] = "purchaseDate";
const char QXRating[] = "rating";
const char QXReleaseDate[] = "releaseDate";
const char QXScreenwriters[] = "screenwriters";
const char QXSeasonDescription[] = "seasonDescription";
const char QXSeasonNumber[] = "seasonNumber";
const char QXShow[] = "show";
const char QXSortAlbum[] = "sortAlbum";
const char QXSortAlbumArtist[] = "sortAlbumArtist";
const char QXSortArtist[] = "sortArtist";
const char QXSortComposer[] = "sortComposer";
const char QXSortName[] = "sortName";
const char QXSortShow[] = "sortShow";
const char QXStudio[] = "studio";
const char QXTags[] = "tags";
const char QXTrackCount[] = "trackCount";
const char QXTrackNumber[] = "trackNumber";
const char QXTVNetwork[] = "tvNetwork";
const char QXUseDVDOrder[] = "useDVDOrder";
const char QXPreferredArtworkType[] = "useSquareArtwork";
const char QXVideoKind[] = "videoKind";
const char QXWhereFrom[] = "whereFrom";
const char QXXID[] = "xid";
const char QXArtwork[] = "artwork";
const char QXCompilation[] = "compilation";
const char QXContentRatingString[] = "contentRatingString";
const char QXHDString[] = "hdString";
const char QXDatabaseForTVShow[] = "databaseForTvShow";

namespace qx::metadata {

const std::vector<KeyRow>& keyRows()
{
    using M = QXMetaData;
    static const std::vector<KeyRow> rows = {
        {QXImdbId, &M::imdbId, nullptr},
        {QXImdbSeriesId, &M::imdbSeriesId, nullptr},
        {QXTmdbMovieId, &M::tmdbMovieId, nullptr},
        {QXTmdbEpisodeId, &M::tmdbEpisodeId, nullptr},
        {QXTmdbSeasonId, &M::tmdbSeasonId, nullptr},
        {QXTmdbSeriesId, &M::tmdbSeriesId, nullptr},
        {QXTvdbEpisodeId, &M::tvdbEpisodeId, nullptr},
        {QXTvdbSeasonId, &M::tvdbSeasonId, nullptr},
        {QXTvdbSeriesId, &M::tvdbSeriesId, nullptr},
        {QXImvdbId, &M::imvdbId, nullptr},
        {QXAbsoluteEpisodeNumber, &M::absoluteEpisodeNumber, "Absolute Episode Number"},
        {QXActors, &M::actors, "Actors"},
        {QXAdvisoryRating, &M::advisoryRating, "Advisory Rating"},
        {QXAlbum, &M::album, "Album"},
        {QXAlbumArtist, &M::albumArtist, "Album Artist"},
        {QXAlbumRating, &M::albumRating, "Album Rating"},
        {QXArtist, &M::artist, "Artist"},
        {QXArtistID, &M::artistID, "Artist ID"},
        {QXArtworks, &M::artworks, "Artworks"},
        {QXCategory, &M::category, "Category"},
        {QXCoDirectors, &M::codirectors, "Co-Directors"},
        {QXComment, &M::comment, "Comment"},
        {QXComposer, &M::composer, "Composer"},
        {QXComposerID, &M::composerID, "Composer ID"},
        {QXContentID, &M::contentID, "Content ID"},
        {QXContentRating, &M::contentRating, "Content Rating"},
        {QXContentRatingAnnotation, &M::contentRatingAnnotation, "Content Rating Annotation"},
        {QXCopyright, &M::copyright, "Copyright"},
        {QXCountryCode, &M::countryCode, "Country Code"},
        {QXCreationDate, &M::creationDate, "Creation Date"},
        {QXDetailURL, &M::detailURL, "Detail URL"},
        {QXDirectors, &M::directors, "Directors"},
        {QXDiscCount, &M::discCount, "Disc Count"},
        {QXDiscNumber, &M::discNumber, "Disc Number"},
        {QXDVDEpisodeNumber, &M::dvdEpisodeNumber, "DVD Episode Number"},
        {QXDVDSeasonNumber, &M::dvdSeasonNumber, "DVD Season Number"},
        {QXEncodedBy, &M::encodedBy, "Encoded by"},
        {QXEncodingTool, &M::encodingTool, "Encoding Tool"},
        {QXEpisodeID, &M::episodeID, "Episode ID"},
        {QXEpisodeNumber, &M::episodeNumber, "Episode Number"},
        {QXGapless, &M::gapless, "Gapless"},
        {QXGenre, &M::genre, "Genre"},
        {QXGenreID, &M::genreID, "Genre ID"},
        {QXGenreType, &M::genreType, "Genre Type"},
        {QXGrouping, &M::grouping, "Grouping"},
        {QXHD, &M::hd, "Definition"},
        {QXIncludeAdultContent, &M::includeAdultContent, nullptr},
        {QXITunesAccount, &M::iTunesAccount, "iTunes Account"},
        {QXITunesCountry, &M::iTunesCountry, "iTunes Country"},
        {QXKeywords, &M::keywords, "Keywords"},
        {QXLanguageCode, &M::languageCode, "Language Code"},
        {QXLongDescription, &M::longDescription, "Description"},
        {QXLyrics, &M::lyrics, "Lyrics"},
        {QXName, &M::name, "Name"},
        {QXShortDescription, &M::shortDescription, "Tagline"},
        {QXPlaylistID, &M::playlistID, "Playlist ID"},
        {QXPodcast, &M::podcast, "Podcast"},
        {QXProducers, &M::producers, "Producers"},
        {QXPurchaseDate, &M::purchaseDate, "Purchase Date"},
        {QXRating, &M::rating, "Rating"},
        {QXReleaseDate, &M::releaseDate, "Release Date"},
        {QXScreenwriters, &M::screenwriters, "Screenwriters"},
        {QXSeasonDescription, &M::seasonDescription, "Season Description"},
        {QXSeasonNumber, &M::seasonNumber, "Season Number"},
        {QXShow, &M::show, "Show"},
        {QXSortAlbum, &M::sortAlbum, "Sort Album"},
        {QXSortAlbumArtist, &M::sortAlbumArtist, "Sort Album Artist"},
        {QXSortArtist, &M::sortArtist, "Sort Artist"},
        {QXSortComposer, &M::sortComposer, "Sort Composer"},
        {QXSortName, &M::sortName, "Sort Name"},
        {QXSortShow, &M::sortShow, "Sort Show"},
        {QXStudio, &M::studio, "Studio"},
        {QXTags, &M::tags, "Tags"},
        {QXTrackCount, &M::trackCount, "Track Count"},
        {QXTrackNumber, &M::trackNumber, "Track Number"},
        {QXTVNetwork, &M::tvNetwork, "TV Network"},
        {QXUseDVDOrder, &M::useDVDOrder, nullptr},
        {QXPreferredArtworkType, &M::artworkType, nullptr},
        {QXVideoKind, &M::videoKind, "Video Kind"},
        {QXWhereFrom, &M::whereFrom, "Where from"},
        {QXXID, &M::xid, "XID"},
    };
    return rows;
}

const KeyRow* rowForKey(std::string_view key)
{
    static const KeyRow compilationRow {QXCompilation, &QXMetaData::compilation, "Compilation"};
    if (key == QXCompilation) return &compilationRow;
    const auto& rows = keyRows();
    auto it = std::find_if(rows.begin(), rows.end(), [&](const KeyRow& row) { return key == row.key; });
    return it == rows.end() ? nullptr : &*it;
}

} // namespace qx::metadata
