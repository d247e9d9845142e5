#include "qxmedia/dvd/QXDVDFolder.h"

#include <cstdio>
#include <filesystem>
#include <map>

namespace {

QXURL videoTSFolderOf(const QXURL& folder)
{
    if (std::filesystem::exists(folder / "VIDEO_TS.IFO")) return folder;
    if (std::filesystem::exists(folder / "VIDEO_TS" / "VIDEO_TS.IFO")) return folder / "VIDEO_TS";
    return {};
}

std::string titleSetFileName(int titleSet, int part, const char* extension)
{
    char name[32];
    std::snprintf(name, sizeof name, "VTS_%02d_%d.%s", titleSet, part, extension);
    return name;
}

} // namespace

bool QXDVDFolder::isDVDFolder(const QXURL& folder)
{
    return !videoTSFolderOf(folder).empty();
}

QXDVDFolderRef QXDVDFolder::initWithURL(const QXURL& folder, QXErrorRef* error)
{
    QXURL videoTS = videoTSFolderOf(folder);
    auto menu = QXMainMenuInformation::initWithURL((videoTS.empty() ? folder : videoTS) / "VIDEO_TS.IFO", error);
    if (!menu) return nullptr;
    auto dvd = std::make_shared<QXDVDFolder>();
    dvd->videoTS = videoTS;
    dvd->menu = menu;
    std::map<int, QXTitleSetInformationRef> titleSets;
    for (const QXTitleTrackSearchPointer& pointer : menu->titleTrackSearchPointerTable) {
        QXDVDTitle title;
        title.number = pointer.index;
        title.titleSet = pointer.title_set_nr;
        title.titleInSet = pointer.vts_ttn;
        auto found = titleSets.find(title.titleSet);
        if (found == titleSets.end()) {
            found = titleSets
                        .emplace(title.titleSet, QXTitleSetInformation::initWithURL(
                                                     videoTS / titleSetFileName(title.titleSet, 0, "IFO")))
                        .first;
        }
        if (const QXTitleSetInformationRef& set = found->second) {
            for (const auto& audio : set->audioAttributes) title.audioLanguages.push_back(audio.lang_code);
            for (const auto& subpicture : set->subpictureAttributes) {
                title.subpictureLanguages.push_back(subpicture.lang_code);
            }
            if (QXProgramChainRef chain = set->programChainForTitle(title.titleInSet)) {
                title.milliseconds = chain->playback_time.milliseconds();
                title.chapterStarts.push_back(0);
                for (int64_t start : chain->programStarts()) title.chapterStarts.push_back(start);
            }
        }
        dvd->titles.push_back(std::move(title));
    }
    return dvd;
}

std::vector<QXURL> QXDVDFolder::titleURLs(int titleNumber) const
{
    std::vector<QXURL> urls;
    for (const QXDVDTitle& title : titles) {
        if (title.number != titleNumber) continue;
        for (int part = 1; part <= 9; ++part) {
            const QXURL vob = videoTS / titleSetFileName(title.titleSet, part, "VOB");
            if (!std::filesystem::exists(vob)) break;
            urls.push_back(vob);
        }
    }
    return urls;
}
