// Stand-ins for the steps that plan a job from its preset and that run it,
// until the planner, the conversion run and the in-place update are written
// (each replaces its function here). Meanwhile a preset plans nothing, and a
// run ends at once as failed: no output file is created.

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"

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
