#include "qxmedia/metadata/QXGenreIDs.h"

#include <initializer_list>

namespace {

QXGenreTable numbered(uint64_t first, std::initializer_list<const char*> names)
{
    QXGenreTable table;
    for (const char* name : names) table.emplace(first++, name);
    return table;
}

} // namespace

std::map<int64_t, QXGenreTable> QXGenreIDs::genreIDs()
{
    std::map<int64_t, QXGenreTable> table;
    table[6] = numbered(1602, {"Blues", "Comedy", "Children\u2019s Music", "Classical", "Country", "Electronic",
                               "Holiday", "Opera", "Singer/Songwriter", "Jazz", "Latino", "New Age", "Pop",
                               "R&B/Soul", "Soundtrack", "Dance", "Hip-Hop/Rap", "World", "Alternative", "Rock",
                               "Christian & Gospel", "Vocal", "Reggae", "Easy Listening", "Podcasts", "J-Pop",
                               "Enka", "Anime", "Kayokyoku", "Disney", "French Pop", "German Pop", "German Folk"});
    table[10] = numbered(4000, {"Comedy", "Drama", "Animation", "Action & Adventure", "Classic", "Kids",
                                "Nonfiction", "Reality TV", "Sci-Fi & Fantasy", "Sports", "Teens", "Latino TV"});
    table[9] = numbered(4401, {"Action & Adventure", "Anime", "Classics", "Comedy", "Documentary", "Drama",
                               "Foreign", "Horror", "Independent", "Kids & Family", "Musicals", "Romance",
                               "Sci-Fi & Fantasy", "Short Films", "Special Interest", "Thriller", "Sports",
                               "Western", "Urban", "Holiday", "Made for TV", "Concert Films", "Music Documentaries",
                               "Music Feature Films", "Japanese Cinema", "Jidaigeki", "Tokusatsu", "Korean Cinema"});
    return table;
}

std::optional<QXGenreTable> QXGenreIDs::genreIDsForVideoKind(int64_t videoKind)
{
    auto table = genreIDs();
    auto it = table.find(videoKind);
    if (it == table.end()) return std::nullopt;
    return std::move(it->second);
}

uint64_t QXGenreIDs::genreIDForString(std::string_view genre, int64_t videoKind)
{
    auto table = genreIDsForVideoKind(videoKind);
    if (!table) return 0;
    for (const auto& [number, name] : *table) {
        if (name == genre) return number;
    }
    return 0;
}
