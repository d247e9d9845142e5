// The stand-in for the in-place update of a file's tags, chapters and track
// settings, until that step is written: such a run ends at once as failed
// and leaves the file as it was.

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"

bool QXJob::updateMetadata(QXErrorRef* error)
{
    QXErrorRef failure =
        QXMedia::errorWithDomain(QXMediaErrorDomain, QXErrorFailedToCreateFile, {{NSURLErrorKey, QXValue(destination)}});
    QXSetError(error, failure);
    fail(failure);
    endRun();
    return false;
}
