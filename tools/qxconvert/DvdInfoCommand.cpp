// qxconvert info DIR on a DVD folder: the titles with their length,
// chapters, and audio and subpicture languages.

#include <cstdio>
#include <string>

#include "qxmedia/dvd/QXDVDFolder.h"
#include "Commands.h"

namespace {

std::string clock(int64_t milliseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld.%03lld", (long long)(milliseconds / 3600000),
                  (long long)(milliseconds / 60000 % 60), (long long)(milliseconds / 1000 % 60),
                  (long long)(milliseconds % 1000));
    return text;
}

std::string languages(const std::vector<std::string>& codes)
{
    std::string text;
    for (const std::string& code : codes) text += (text.empty() ? "" : ", ") + (code.empty() ? "und" : code);
    return text.empty() ? "none" : text;
}

} // namespace

bool isDVDFolderArgument(const Arguments& arguments)
{
    return !arguments.empty() && QXDVDFolder::isDVDFolder(arguments.front());
}

int runDVDInfo(const Arguments& arguments)
{
    QXErrorRef error;
    auto dvd = QXDVDFolder::initWithURL(arguments.front(), &error);
    if (!dvd) {
        std::fprintf(stderr, "qxconvert: %s: %s\n", arguments.front().c_str(),
                     error ? error->localizedDescription().c_str() : "not a DVD folder");
        return 1;
    }
    std::printf("DVD folder %s: %zu titles\n", dvd->videoTS.c_str(), dvd->titles.size());
    for (const QXDVDTitle& title : dvd->titles) {
        std::printf("Title %d: %s, %zu chapters, title set %d\n", title.number, clock(title.milliseconds).c_str(),
                    title.chapterStarts.size(), title.titleSet);
        std::string starts;
        for (int64_t start : title.chapterStarts) starts += " " + clock(start);
        std::printf("  chapters:%s\n", starts.c_str());
        std::printf("  audio: %s\n", languages(title.audioLanguages).c_str());
        std::printf("  subpictures: %s\n", languages(title.subpictureLanguages).c_str());
    }
    return 0;
}
