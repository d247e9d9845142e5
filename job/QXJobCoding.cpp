// Keyed archives of jobs. Only the status is kept: a job brought back has no
// movie, preset, progress or plan and can only report how it ended.

#include "qxmedia/job/QXJob.h"

QX_REGISTER_CODING_CLASS(QXJob);

void QXJob::encodeWithCoder(QXKeyedArchiver& coder) const
{
    coder.encodeInteger(status, "status");
}

std::shared_ptr<QXJob> QXJob::initWithCoder(QXKeyedUnarchiver& coder)
{
    auto job = init();
    job->status = coder.decodeInteger("status");
    return job;
}
