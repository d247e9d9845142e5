// The library folder's layout.

#include "qxmedia/library/QXLibraryLayout.h"

#include <cstdio>
#include <ctime>

#include "qxmedia/metadata/QXMetaData.h"

namespace {

constexpr size_t kMaxNameBytes = 180;

std::string twoDigits(uint64_t number)
{
    char text[24];
    std::snprintf(text, sizeof text, "%02llu", static_cast<unsigned long long>(number));
    return text;
}

std::string yearSuffix(const QXMetaData& metadata)
{
    const auto date = metadata.releaseDate.get();
    if (!date) return {};
    const std::time_t seconds = std::chrono::system_clock::to_time_t(*date);
    std::tm utc {};
    gmtime_r(&seconds, &utc);
    return " (" + std::to_string(utc.tm_year + 1900) + ")";
}

} // namespace

std::string QXLibrarySafeName(std::string_view name)
{
    std::string safe;
    for (char c : name) {
        if (c == '/' || c == '\0' || c == '\n' || c == '\r' || c == '\t') safe += c == '/' ? '-' : ' ';
        else safe += c;
    }
    const size_t first = safe.find_first_not_of(" .");
    const size_t last = safe.find_last_not_of(' ');
    safe = first == std::string::npos ? std::string() : safe.substr(first, last - first + 1);
    if (safe.size() > kMaxNameBytes) {
        size_t cut = kMaxNameBytes;
        while (cut > 0 && (static_cast<unsigned char>(safe[cut]) & 0xC0) == 0x80) --cut;
        safe.resize(cut);
    }
    return safe;
}

QXURL QXLibraryRelativePath(const QXMetaData& metadata, const QXURL& source)
{
    const std::string extension = source.extension().string();
    std::string title = QXLibrarySafeName(metadata.name.valueOr(""));
    if (title.empty()) title = QXLibrarySafeName(source.stem().string());
    if (title.empty()) title = "Untitled";

    const std::string show = QXLibrarySafeName(metadata.show.valueOr(""));
    if (metadata.videoKind == 10 && !show.empty()) {
        const std::string season = twoDigits(metadata.seasonNumber);
        const std::string file =
            show + " - S" + season + "E" + twoDigits(metadata.episodeNumber) + " - " + title + extension;
        return QXURL("TV Shows") / show / ("Season " + season) / file;
    }
    if (metadata.videoKind == 6) {
        std::string artist = QXLibrarySafeName(metadata.artist.valueOr(""));
        if (artist.empty()) artist = "Unknown Artist";
        return QXURL("Music Videos") / artist / (title + extension);
    }
    if (metadata.videoKind == 9) {
        const std::string folder = title + yearSuffix(metadata);
        return QXURL("Movies") / folder / (folder + extension);
    }
    return QXURL("Home Videos") / (title + extension);
}
