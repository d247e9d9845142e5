#include "qxmedia/source/QXReadErrorBudget.h"

extern "C" {
#include <libavutil/error.h>
}

#include <cerrno>

QXReadErrorBudget::Answer QXReadErrorBudget::answer(int rc)
{
    if (failures_ < kTolerated) {
        if (rc == AVERROR(EAGAIN)) return Answer::RetryAfterPause;
        ++failures_;
        return Answer::Retry;
    }
    return rc == AVERROR(EIO) ? Answer::StopKeepingRead : Answer::Fail;
}
