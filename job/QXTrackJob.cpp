// A line of a job's plan and the pair of pipeline objects it carries.

#include "qxmedia/job/QXTrackJob.h"

#include "qxmedia/muxer/QXMuxerInput.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"

std::shared_ptr<QXTrackJob> QXTrackJob::initWithSource(const QXTrackRef& source, const QXTrackRef& destination,
                                                       int64_t type)
{
    auto job = std::make_shared<QXTrackJob>();
    job->type = type;
    job->source = source;
    job->destination = destination;
    if (source) job->movie = source->source;
    if (type != QXTrackJobTypeKeep) {
        const bool encode = type == QXTrackJobTypeEncode;
        job->readerOutput = QXTrackReaderOutput::initWithSource(source, destination, encode);
        job->muxerInput = QXMuxerInput::initWithSource(job->readerOutput, destination, encode);
    }
    return job;
}

std::string QXTrackJob::description() const
{
    static const char* const kTypeNames[] = {"remux", "encode", "keep"};
    const char* typeName = type >= 0 && type <= 2 ? kTypeNames[type] : "unknown";
    return std::string("<QXTrackJob ") + typeName + " " + (source ? source->description() : "(no source)") + " -> " +
           (destination ? destination->description() : "(no destination)") + ">";
}
