// Chapter images: a still of the movie at each chapter's start, taken by
// the asset image generator at the picture's own size. The muxer's chapter
// input turns them into JPEG samples.

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXAssetImageGenerator.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"

void QXJob::generateChapterImages()
{
    if (!chapters || chapters->chapters.empty()) return;
    auto child = QXProgress::progressWithTotalUnitCount(int64_t(chapters->chapters.size()));

    auto generator = movie ? QXAssetImageGenerator::initWithAsset(movie) : nullptr;
    for (const QXChapterRef& chapter : chapters->chapters) {
        std::shared_ptr<QXImage> image = generator ? generator->copyCGImageAtTime(chapter->timestamp) : nullptr;
        if (image) {
            chapter->image = image;
        } else {
            // A missing still does not fail the job; the latest one is kept.
            setError(QXMedia::errorWithDomain(AVFoundationErrorDomain, QXErrorNoImageAtTime,
                                              {{NSURLErrorKey, QXValue(movie ? movie->fileURL : QXURL())}}));
        }
        child->setCompletedUnitCount(child->completedUnitCount() + 1);
    }
}
