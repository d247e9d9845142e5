#pragma once
// Store genre numbers (the record's genreID) of music videos (kind 6),
// movies (9) and TV shows (10).

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

using QXGenreTable = std::map<uint64_t, std::string>;

class QXGenreIDs {
public:
    // Kind to (genre number to name); built afresh at each call.
    static std::map<int64_t, QXGenreTable> genreIDs();
    // nullopt for a kind without a table.
    static std::optional<QXGenreTable> genreIDsForVideoKind(int64_t videoKind);
    // The number of the genre called exactly `genre` (case counts), or 0.
    static uint64_t genreIDForString(std::string_view genre, int64_t videoKind);
};
