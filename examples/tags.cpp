// Shows or changes the text tags of an MP4 in place.
//
//   tags FILE                          prints the tags that are set
//   tags FILE name="A Title" genre=    sets name, removes genre

#include <qxmedia/qxmedia.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

using namespace qx::mp4;

namespace {

// The tags this editor knows, by the names it accepts.
const struct {
    const char* key;
    std::optional<std::string> MP4Tags::*field;
} kTextTags[] = {
    {"name", &MP4Tags::name},           {"artist", &MP4Tags::artist},
    {"album", &MP4Tags::album},         {"genre", &MP4Tags::genre},
    {"comments", &MP4Tags::comments},   {"description", &MP4Tags::description},
    {"show", &MP4Tags::tvShow},         {"date", &MP4Tags::releaseDate},
    {"copyright", &MP4Tags::copyright}, {"tool", &MP4Tags::encodingTool},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: tags FILE [KEY=VALUE]...\n");
        return 2;
    }
    QXMedia::sharedMedia();
    const bool editing = argc > 2;
    auto file = editing ? MP4File::modify(argv[1]) : MP4File::read(argv[1]);
    MP4Tags tags;
    if (!file || !MP4TagsFetch(tags, *file)) {
        std::fprintf(stderr, "%s is not an MP4 that can be %s\n", argv[1], editing ? "edited" : "read");
        return 1;
    }
    for (int i = 2; i < argc; ++i) {
        const char* equals = std::strchr(argv[i], '=');
        auto tag = std::find_if(std::begin(kTextTags), std::end(kTextTags), [&](const auto& known) {
            return equals && std::string_view(argv[i], equals) == known.key;
        });
        if (tag == std::end(kTextTags)) {
            std::fprintf(stderr, "not KEY=VALUE with a known key: %s\n", argv[i]);
            return 2;
        }
        // An empty value removes the tag.
        tags.*(tag->field) = equals[1] ? std::optional<std::string>(equals + 1) : std::nullopt;
    }
    if (editing) return MP4TagsStore(tags, *file) && file->close() ? 0 : 1;
    for (const auto& tag : kTextTags) {
        if (const auto& value = tags.*(tag.field)) std::printf("%s=%s\n", tag.key, value->c_str());
    }
    return 0;
}
