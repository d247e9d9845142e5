// The DVD side of opening a source: tags and chapters of a title from the
// information files beside its VOB files, and the VOB list of a title.

#include <cstdio>
#include <cstdlib>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/dvd/QXDVDFolder.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXDVDTitleSource.h"
#include "qxmedia/source/QXMovie.h"

namespace {

// NSCocoaErrorDomain: the file does not exist.
constexpr int64_t kFileNoSuchFileError = 4;

} // namespace

void QXMovie::importDVDTitle()
{
    const QXURL folder = fileURL.parent_path();
    const std::string name = fileURL.filename().string();
    const int titleSet = std::atoi(name.substr(4, 2).c_str());

    if (auto menu = QXMainMenuInformation::initWithURL(folder / "VIDEO_TS.IFO")) {
        metadata->discNumber = menu->volumeNumber;
        metadata->discCount = menu->numberOfVolumes;
        for (const QXTitleTrackSearchPointer& pointer : menu->titleTrackSearchPointerTable) {
            if (pointer.index != titleSet) continue;
            metadata->name.set(menu->providerId);
            char description[256];
            std::snprintf(description, sizeof description, "%s - %s %d", menu->providerId.c_str(),
                          QXLocalizedString("Title").c_str(), int(pointer.title_set_nr));
            metadata->shortDescription.set(std::string(description));
            metadata->episodeNumber = pointer.title_set_nr;
            break;
        }
    }
    if (auto titleSetInfo = QXTitleSetInformation::initWithURL(folder / (name.substr(0, 6) + "_0.IFO"))) {
        auto track = QXChapterTrack::init();
        for (const QXDVDChapterMark& mark : titleSetInfo->chapterMarks()) {
            track->addChapter(mark.title, qx::CMTimeMake(mark.milliseconds, 1000));
        }
        chapters = track;
    }
}

std::vector<QXURL> QXDVDTitleURLs(const QXURL& folder, int titleNumber, QXErrorRef* error)
{
    auto dvd = QXDVDFolder::initWithURL(folder, error);
    if (!dvd) return {};
    std::vector<QXURL> urls = dvd->titleURLs(titleNumber);
    if (urls.empty()) {
        QXLogError("No title %d in the DVD folder %s", titleNumber, folder.c_str());
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, kFileNoSuchFileError, {{NSURLErrorKey, folder}}));
    }
    return urls;
}

std::shared_ptr<QXMovie> QXMovieWithDVDTitle(const QXURL& folder, int titleNumber, QXErrorRef* error)
{
    const std::vector<QXURL> urls = QXDVDTitleURLs(folder, titleNumber, error);
    if (urls.empty()) return nullptr;
    return QXMovie::initWithURLs(urls, error);
}
