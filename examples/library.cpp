// Lists the videos of the media library: title and file of each.
//
//   library

#include <qxmedia/qxmedia.h>

#include <cstdio>

int main()
{
    QXMedia::sharedMedia();
    const int64_t movieKind = 9; // the media kind of a movie; every kind but music videos is filed alike
    auto library = QXMediaManagerApplication::applicationForMediaKind(movieKind);
    if (!library) {
        std::fprintf(stderr, "no media library\n");
        return 1;
    }
    for (const auto& track : library->fileTracks()) {
        const auto location = track->location();
        std::printf("%s\t%s\n", track->metadata()->title().c_str(), location ? location->c_str() : "(no file)");
    }
    return 0;
}
