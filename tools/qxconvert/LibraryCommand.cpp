// qxconvert library list|show|add|remove: the local media library.

#include <cstdio>
#include <ctime>
#include <optional>

#include "Commands.h"
#include "JsonWriter.h"
#include "Report.h"
#include "qxmedia/library/QXLibraryMetadata.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"

namespace {

constexpr char kUsage[] = "usage: qxconvert library list [--library NAME] [--json]\n"
                          "       qxconvert library show ID [--library NAME] [--json]\n"
                          "       qxconvert library add FILE [--in-place] [--library NAME] [--json]\n"
                          "       qxconvert library remove ID [--delete] [--library NAME]\n"
                          "NAME is tv (default), music or itunes; add without --library picks music for a\n"
                          "music video, tv for anything else. Libraries live in $XDG_DATA_HOME/qxmedia.\n";

struct LibraryArguments {
    std::string action;
    std::string operand;
    std::string identifier;
    bool asJson = false;
    bool inPlace = false;
    bool deleteFile = false;
};

std::optional<LibraryArguments> parse(const Arguments& arguments)
{
    LibraryArguments parsed;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--library" && i + 1 < arguments.size()) {
            auto identifier = libraryIdentifierNamed(arguments[++i]);
            if (!identifier) {
                std::fprintf(stderr, "qxconvert: unknown library %s\n%s", arguments[i].c_str(), kUsage);
                return std::nullopt;
            }
            parsed.identifier = *identifier;
        } else if (argument == "--json") {
            parsed.asJson = true;
        } else if (argument == "--in-place") {
            parsed.inPlace = true;
        } else if (argument == "--delete") {
            parsed.deleteFile = true;
        } else if (!argument.empty() && argument.front() == '-') {
            std::fprintf(stderr, "qxconvert: unknown option %s\n%s", argument.c_str(), kUsage);
            return std::nullopt;
        } else if (parsed.action.empty()) {
            parsed.action = argument;
        } else if (parsed.operand.empty()) {
            parsed.operand = argument;
        } else {
            std::fputs(kUsage, stderr);
            return std::nullopt;
        }
    }
    const bool needsOperand = parsed.action != "list";
    if ((parsed.action != "list" && parsed.action != "show" && parsed.action != "add" && parsed.action != "remove") ||
        needsOperand == parsed.operand.empty()) {
        std::fputs(kUsage, stderr);
        return std::nullopt;
    }
    return parsed;
}

std::string isoDate(const std::optional<QXDate>& date)
{
    if (!date) return {};
    const std::time_t seconds = std::chrono::system_clock::to_time_t(*date);
    std::tm utc {};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

void writeTrack(JsonWriter& json, const QXLibraryTrackFields& track, bool everything)
{
    json.beginObject();
    json.key("persistentID").string(track.persistentID);
    json.key("location").string(track.location.string());
    json.key("dateAdded").string(isoDate(track.dateAdded));
    json.key("mediaKind").string(track.mediaKind);
    json.key("name").string(track.text("name"));
    if (everything) {
        for (const auto& [property, text] : track.texts) {
            if (!text.empty() && property != "name") json.key(property).string(text);
        }
        for (const auto& [property, number] : track.numbers) {
            if (number != 0) json.key(property).number(number);
        }
        if (track.releaseDate) json.key("releaseDate").string(isoDate(track.releaseDate));
        json.key("artworks").number(int64_t(track.artworks.size()));
    }
    json.endObject();
}

void printTrack(const QXLibraryTrackFields& track, bool everything)
{
    if (!everything) {
        std::printf("%s  %s  %s  %s\n", track.persistentID.c_str(), track.mediaKind.c_str(),
                    track.text("name").c_str(), track.location.c_str());
        return;
    }
    std::printf("persistentID: %s\nlocation: %s\ndateAdded: %s\nmediaKind: %s\n", track.persistentID.c_str(),
                track.location.c_str(), isoDate(track.dateAdded).c_str(), track.mediaKind.c_str());
    for (const auto& [property, text] : track.texts) {
        if (!text.empty()) std::printf("%s: %s\n", property.c_str(), text.c_str());
    }
    for (const auto& [property, number] : track.numbers) {
        if (number != 0) std::printf("%s: %lld\n", property.c_str(), static_cast<long long>(number));
    }
    if (track.releaseDate) std::printf("releaseDate: %s\n", isoDate(track.releaseDate).c_str());
    std::printf("artworks: %zu\n", track.artworks.size());
}

void show(const std::vector<QXLibraryTrackFields>& tracks, bool asJson, bool everything, bool asList)
{
    if (!asJson) {
        for (const auto& track : tracks) printTrack(track, everything);
        return;
    }
    JsonWriter json;
    if (asList) json.beginArray();
    for (const auto& track : tracks) writeTrack(json, track, everything);
    if (asList) json.endArray();
    std::printf("%s\n", json.text().c_str());
}

// A file's library when none was named: music videos go to music.
std::string libraryForFile(const QXURL& file)
{
    int64_t videoKind = 0;
    if (auto mp4 = qx::mp4::MP4File::read(file)) {
        if (auto tags = QXMetaData::initWithFile(mp4.get())) videoKind = tags->videoKind;
    }
    return QXMediaManagerApplication::applicationForMediaKind(videoKind)->identifier;
}

} // namespace

std::optional<std::string> libraryIdentifierNamed(const std::string& name)
{
    if (name == "tv") return std::string(QXLibraryTVIdentifier);
    if (name == "music") return std::string(QXLibraryMusicIdentifier);
    if (name == "itunes") return std::string(QXLibraryITunesIdentifier);
    if (QXLibraryKindOfIdentifier(name)) return name;
    return std::nullopt;
}

int runLibrary(const Arguments& arguments)
{
    auto parsed = parse(arguments);
    if (!parsed) return 2;
    if (parsed->identifier.empty()) {
        parsed->identifier = parsed->action == "add" ? libraryForFile(parsed->operand) : QXLibraryTVIdentifier;
    }
    auto library = QXMediaManagerApplication::applicationWithBundleIdentifier(parsed->identifier);
    QXErrorRef error;
    if (!library->database(&error)) {
        report::failure("cannot open the library", QXLibraryDatabase::defaultDirectory(), error);
        return 1;
    }

    if (parsed->action == "list") {
        std::vector<QXLibraryTrackFields> tracks;
        for (const auto& track : library->fileTracks()) tracks.push_back(track->track);
        show(tracks, parsed->asJson, false, true);
        return 0;
    }
    if (parsed->action == "add") {
        library->copiesFiles = !parsed->inPlace;
        auto track = library->add(std::filesystem::absolute(parsed->operand), &error);
        if (!track) {
            report::failure("cannot add to the library", parsed->operand, error);
            return 1;
        }
        show({track->track}, parsed->asJson, false, false);
        return 0;
    }
    auto track = library->trackWithPersistentID(parsed->operand);
    if (!track) {
        report::failure("no track in the library", parsed->operand, "no such persistent id");
        return 1;
    }
    if (parsed->action == "show") {
        show({track->track}, parsed->asJson, true, false);
        return 0;
    }
    if (!library->remove(parsed->operand, parsed->deleteFile, &error)) {
        report::failure("cannot remove from the library", parsed->operand, error);
        return 1;
    }
    return 0;
}
