// The in-place update of an MP4 file: tags, file tags and date, the chapter
// list with its images, tracks taken out of the plan, attached tracks and a
// new name. No sample of the file is copied: the whole change is one edit of
// the MP4 layer, whose samples (attached tracks, chapter images) are
// appended first and whose new moov becomes live by one header write, so a
// crash at any moment leaves either the old or the new file. A failed or
// cancelled update abandons the edit and the file stays as it was.

#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/muxer/QXMuxer.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

constexpr char kTagsAttribute[] = "user.xdg.tags";

// File tags, as the desktop's file managers keep them.
void setFileTags(const QXURL& url, const QXStringList& tags)
{
    std::string joined;
    for (const std::string& tag : tags) joined += (joined.empty() ? "" : ",") + tag;
    const int result = joined.empty() ? ::removexattr(url.c_str(), kTagsAttribute)
                                      : ::setxattr(url.c_str(), kTagsAttribute, joined.data(), joined.size(), 0);
    if (result != 0 && !(joined.empty() && errno == ENODATA)) {
        QXLogWarning("Failed to set tags: %s", std::strerror(errno));
    }
}

// Linux keeps no creation date: the modification time stands in. It is
// set once the file is written, as writing moves it.
void setFileDate(const QXURL& url, QXDate date)
{
    std::error_code failure;
    std::filesystem::last_write_time(url, std::chrono::file_clock::from_sys(date), failure);
    if (failure) QXLogWarning("Failed to set creation date: %s", failure.message().c_str());
}

} // namespace

bool QXJob::updateMetadata(QXErrorRef* error)
{
    progress->setCompletedUnitCount(5);
    const QXURL fileURL = movie ? movie->fileURL : QXURL();
    if (metadata) {
        if (auto tags = metadata->tags.get()) setFileTags(fileURL, *tags);
    }
    if (chapters && chapters->isModified() && !chapters->chapters.empty()) {
        progress->becomeCurrentWithPendingUnitCount(70);
        generateChapterImages();
        progress->resignCurrent();
    }

    std::shared_ptr<mp4::MP4File> file = mp4::MP4File::modify(fileURL);
    if (!file) {
        QXErrorRef failure =
            QXMedia::errorWithDomain(QXMediaErrorDomain, QXErrorFailedToOpenFile, {{NSURLErrorKey, QXValue(fileURL)}});
        QXSetError(error, failure);
        fail(failure);
        endRun();
        return false;
    }
    for (const QXTrackRef& removed : removedTracks) {
        if (removed) file->deleteTrack(uint32_t(removed->trackID));
    }

    // Tags are written by the muxer's start; attached tracks go straight
    // into their inputs, as nothing needs to be kept in step with them.
    auto muxer = QXMuxer::initWithFileHandle(file);
    muxer->metadata = metadata;
    std::weak_ptr<QXJob> weakSelf = weak_from_this();
    auto finished = [weakSelf, file, muxer](const QXErrorRef& runError) {
        if (std::shared_ptr<QXJob> self = weakSelf.lock()) self->finishUpdate(file, muxer, runError);
    };
    startMuxing(muxer, nullptr, finished, error);
    return true;
}

void QXJob::finishUpdate(const std::shared_ptr<mp4::MP4File>& file, const std::shared_ptr<QXMuxer>& muxer,
                         const QXErrorRef& runError)
{
    progress->setCompletedUnitCount(75);
    if (runError) {
        fail(runError);
    } else if (muxer->status == QXMuxerStatusFailed) {
        fail(muxer->error);
    }
    if (status < QXJobStatusFailed && writeTrackRecords(*file)) replaceChapters(*file);

    const QXURL fileURL = file->path();
    // A failed or cancelled run leaves the file as it was: the edit is
    // abandoned when the last holder lets go of it.
    muxer->handle.reset();
    if (status < QXJobStatusFailed) {
        if (!file->close(mp4::MP4_CLOSE_DO_NOT_COMPUTE_BITRATE)) {
            fail(QXMedia::errorWithDomain(QXMediaErrorDomain, QXErrorDiskFull, {{NSURLErrorKey, QXValue(fileURL)}}));
        } else if (metadata) {
            if (auto date = metadata->creationDate.get()) setFileDate(fileURL, *date);
        }
    }

    if (status < QXJobStatusFailed) finishUpdatedFile();
    const bool renames = preset && preset->identifier == QXPresetUpdateRename;
    if (renames && status < QXJobStatusFailed) moveUpdatedFile();
    if (!renames && status < QXJobStatusFailed) destination = fileURL;
    if (status < QXJobStatusFailed) addUpdatedFileToLibrary();

    if (status == QXJobStatusFailed) {
        const QXErrorRef failure = error();
        QXLogWarning("Job failed with error: %s", failure ? failure->description().c_str() : "(null)");
    }
    endRun();
}

// Names, languages, flags and associations of every track of the plan,
// each under its own id.
bool QXJob::writeTrackRecords(mp4::MP4File& file)
{
    for (const QXTrackJobRef& line : tracks) {
        if (!line || !line->destination) continue;
        QXErrorRef failure;
        if (!line->destination->writeToFile(file, &failure) ||
            !line->destination->writeTrackAssociationsToFile(file, &failure)) {
            fail(failure);
            return false;
        }
    }
    return true;
}
