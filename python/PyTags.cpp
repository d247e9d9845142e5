// MP4 tags read and written in place through the MP4 layer:
// qxmedia.read_tags(path) and qxmedia.write_tags(path, changes).

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <filesystem>
#include <limits>
#include <type_traits>

#include "Bindings.h"
#include "PyErrors.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Tags.h"

namespace py = pybind11;
using namespace qx::mp4;

namespace qxpy {

namespace {

struct TagName {
    const char* name;
    MP4TagField::Member member;
};

// Python's names of the typed tags.
constexpr TagName kTagNames[] = {
    {"name", &MP4Tags::name},
    {"artist", &MP4Tags::artist},
    {"album_artist", &MP4Tags::albumArtist},
    {"album", &MP4Tags::album},
    {"grouping", &MP4Tags::grouping},
    {"composer", &MP4Tags::composer},
    {"comments", &MP4Tags::comments},
    {"genre", &MP4Tags::genre},
    {"genre_type", &MP4Tags::genreType},
    {"release_date", &MP4Tags::releaseDate},
    {"track", &MP4Tags::track},
    {"disk", &MP4Tags::disk},
    {"tempo", &MP4Tags::tempo},
    {"compilation", &MP4Tags::compilation},
    {"tv_show", &MP4Tags::tvShow},
    {"tv_network", &MP4Tags::tvNetwork},
    {"tv_episode_id", &MP4Tags::tvEpisodeID},
    {"tv_season", &MP4Tags::tvSeason},
    {"tv_episode", &MP4Tags::tvEpisode},
    {"description", &MP4Tags::description},
    {"long_description", &MP4Tags::longDescription},
    {"lyrics", &MP4Tags::lyrics},
    {"season_description", &MP4Tags::seasonDescription},
    {"sort_name", &MP4Tags::sortName},
    {"sort_artist", &MP4Tags::sortArtist},
    {"sort_album_artist", &MP4Tags::sortAlbumArtist},
    {"sort_album", &MP4Tags::sortAlbum},
    {"sort_composer", &MP4Tags::sortComposer},
    {"sort_tv_show", &MP4Tags::sortTVShow},
    {"artwork", &MP4Tags::artwork},
    {"copyright", &MP4Tags::copyright},
    {"encoding_tool", &MP4Tags::encodingTool},
    {"encoded_by", &MP4Tags::encodedBy},
    {"purchase_date", &MP4Tags::purchaseDate},
    {"podcast", &MP4Tags::podcast},
    {"podcast_url", &MP4Tags::podcastURL},
    {"podcast_guid", &MP4Tags::podcastGUID},
    {"keywords", &MP4Tags::keywords},
    {"category", &MP4Tags::category},
    {"hd_video", &MP4Tags::hdVideo},
    {"media_type", &MP4Tags::mediaType},
    {"content_rating", &MP4Tags::contentRating},
    {"gapless", &MP4Tags::gapless},
    {"itunes_account", &MP4Tags::iTunesAccount},
    {"itunes_account_type", &MP4Tags::iTunesAccountType},
    {"itunes_country", &MP4Tags::iTunesCountry},
    {"content_id", &MP4Tags::contentID},
    {"artist_id", &MP4Tags::artistID},
    {"playlist_id", &MP4Tags::playlistID},
    {"genre_id", &MP4Tags::genreID},
    {"composer_id", &MP4Tags::composerID},
    {"xid", &MP4Tags::xid},
};

constexpr int64_t kFailedToOpenFile = -13001;
constexpr int64_t kFileWriteUnknown = 512;

QXErrorRef fileError(int64_t code, const std::filesystem::path& path)
{
    const QXErrorDomain domain = code == kFileWriteUnknown ? NSCocoaErrorDomain : QXMediaErrorDomain;
    return QXMedia::errorWithDomain(domain, code, {{NSFilePathErrorKey, QXValue(path.string())}});
}

const TagName& tagNamed(const std::string& name)
{
    for (const TagName& tag : kTagNames) {
        if (name == tag.name) return tag;
    }
    throw py::key_error("no MP4 tag is called " + name);
}

// Set fields only: an absent item is no key of the dict.
py::dict tagsToPython(const MP4Tags& tags)
{
    py::dict result;
    for (const TagName& tag : kTagNames) {
        std::visit(
            [&](auto member) {
                const auto& value = tags.*member;
                using Field = std::remove_cvref_t<decltype(value)>;
                if constexpr (std::is_same_v<Field, std::vector<MP4TagArtwork>>) {
                    if (value.empty()) return;
                    py::list images;
                    for (const MP4TagArtwork& art : value) {
                        images.append(py::bytes(reinterpret_cast<const char*>(art.data.data()), art.data.size()));
                    }
                    result[tag.name] = images;
                } else if constexpr (std::is_same_v<Field, std::optional<MP4TagTrack>>) {
                    if (value) result[tag.name] = py::make_tuple(value->index, value->total);
                } else {
                    if (value) result[tag.name] = *value;
                }
            },
            tag.member);
    }
    return result;
}

// Sets one field from Python; None empties it, which removes the item.
void assign(MP4Tags& tags, const TagName& tag, const py::handle& value)
{
    std::visit(
        [&](auto member) {
            auto& field = tags.*member;
            using Field = std::remove_cvref_t<decltype(field)>;
            if constexpr (std::is_same_v<Field, std::vector<MP4TagArtwork>>) {
                field.clear();
                if (value.is_none()) return;
                for (const py::handle image : value) {
                    const std::string bytes = image.cast<std::string>();
                    field.push_back({std::vector<uint8_t>(bytes.begin(), bytes.end()), MP4_ART_UNDEFINED});
                }
            } else if constexpr (std::is_same_v<Field, std::optional<MP4TagTrack>>) {
                if (value.is_none()) return field.reset();
                const auto pair = value.cast<std::pair<uint16_t, uint16_t>>();
                field = MP4TagTrack {pair.first, pair.second};
            } else {
                if (value.is_none()) return field.reset();
                using Value = typename Field::value_type;
                if constexpr (std::is_same_v<Value, std::string>) {
                    if (!py::isinstance<py::str>(value)) throw py::type_error(std::string(tag.name) + " takes a str");
                } else if constexpr (std::is_same_v<Value, bool>) {
                    if (!py::isinstance<py::bool_>(value)) throw py::type_error(std::string(tag.name) + " takes a bool");
                } else {
                    if (!py::isinstance<py::int_>(value) || py::isinstance<py::bool_>(value)) {
                        throw py::type_error(std::string(tag.name) + " takes an int");
                    }
                    // Python ints are unbounded; a value that does not fit
                    // the item's width is refused, not cut.
                    const auto number = py::reinterpret_borrow<py::int_>(value);
                    if (number < py::int_(0) || number > py::int_(std::numeric_limits<Value>::max())) {
                        throw py::value_error(std::string(tag.name) + " does not fit its item");
                    }
                }
                field = value.cast<Value>();
            }
        },
        tag.member);
}

py::dict readTags(const std::filesystem::path& path)
{
    MP4Tags tags;
    bool read = false;
    {
        py::gil_scoped_release unlocked;
        if (auto file = MP4File::read(path)) read = MP4TagsFetch(tags, *file);
    }
    if (!read) raise(fileError(kFailedToOpenFile, path));
    return tagsToPython(tags);
}

void writeTags(const std::filesystem::path& path, const py::dict& changes)
{
    // Names and values are checked before the file is touched.
    MP4Tags wanted;
    std::vector<const TagName*> edited;
    for (const auto& [key, value] : changes) {
        edited.push_back(&tagNamed(py::str(key)));
        assign(wanted, *edited.back(), value);
    }
    bool opened = false, written = false;
    {
        py::gil_scoped_release unlocked;
        auto file = MP4File::modify(path);
        MP4Tags tags;
        opened = file && MP4TagsFetch(tags, *file);
        if (opened) {
            for (const TagName* tag : edited) {
                std::visit([&](auto member) { tags.*member = wanted.*member; }, tag->member);
            }
            written = MP4TagsStore(tags, *file) && file->close();
        }
    }
    if (!written) raise(fileError(opened ? kFileWriteUnknown : kFailedToOpenFile, path));
}

} // namespace

void bindTags(py::module_& module)
{
    module.def("read_tags", &readTags, py::arg("path"),
               "The MP4 tags of a file as a dict; only tags the file holds are keys.");
    module.def("write_tags", &writeTags, py::arg("path"), py::arg("changes"),
               "Edits the MP4 tags of a file in place: each key is set, None removes it, others stay.");
    py::list names;
    for (const TagName& tag : kTagNames) names.append(tag.name);
    module.attr("TAG_NAMES") = py::tuple(names);
}

} // namespace qxpy
