// The stand-in for the in-place update of a file's tags, chapters and track
// settings, until that step is written: such a run ends at once as failed
// and leaves the file as it was.

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"

namespace {

constexpr int64_t kFailedToCreateFile = -13002;

} // namespace

bool QXJob::updateMetadata(QXErrorRef* error)
{
    QXErrorRef failure =
        QXMedia::errorWithDomain(QXMediaErrorDomain, kFailedToCreateFile, {{NSURLErrorKey, QXValue(destination)}});
    QXSetError(error, failure);
    fail(failure);
    endRun();
    return false;
}
