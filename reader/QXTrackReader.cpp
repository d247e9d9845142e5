#include "qxmedia/reader/QXTrackReader.h"

#include "qxmedia/source/QXTrack.h"

using namespace qx;

std::shared_ptr<QXTrackReader> QXTrackReader::initWithTrack(const std::shared_ptr<QXTrack>& track)
{
    return std::make_shared<QXTrackReader>(track);
}

QXTrackReader::QXTrackReader(const std::shared_ptr<QXTrack>& owner) : track(owner) {}

void QXTrackReader::processSample(const CMSampleBufferRef& sample)
{
    if (track) track->outputSample(sample);
}

void QXTrackReader::update_ipt(const CMSampleBufferRef& sample)
{
    CMTime d = CMSampleBufferGetDecodeTimeStamp(sample);
    // A time the read loop marked as copied from the other timestamp keeps
    // its value but not its marks.
    if ((d.flags & (kCMTimeFlags_Valid | kCMTimeFlags_Indefinite)) == (kCMTimeFlags_Valid | kCMTimeFlags_Indefinite)) {
        d = CMTimeMake(d.value, d.timescale);
    }
    if (!CMTIME_IS_VALID(d)) last = CMTimeAdd(last, filtered_average);

    const CMTime dt = CMTimeSubtract(d, last);
    if (CMTimeCompare(dt, kCMTimeZero) > 0 && CMTimeGetSeconds(dt) < 5.0) {
        const double weight = startup != 0 ? 0.25 : 0.03125;
        if (startup != 0) --startup;
        average = CMTimeAdd(average, CMTimeMultiplyByFloat64(CMTimeSubtract(dt, average), weight));
        if (CMTimeCompare(dt, CMTimeMultiplyByFloat64(average, 1.5)) < 0) {
            filtered_average = CMTimeAdd(filtered_average,
                                         CMTimeMultiplyByFloat64(CMTimeSubtract(dt, filtered_average), 0.03125));
        }
    }
    last = d;
    valid = 1;
}

std::shared_ptr<QXTrackReader> QXTrackReaderAC3::initWithTrack(const std::shared_ptr<QXTrack>& track)
{
    return std::make_shared<QXTrackReaderAC3>(track);
}

void QXTrackReaderAC3::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        if (track) track->outputSample(nullptr);
        return;
    }
    CMSampleTimingInfo timing {kCMTimeInvalid, CMSampleBufferGetPresentationTimeStamp(sample),
                               CMSampleBufferGetDecodeTimeStamp(sample)};
    CMSampleBufferRef copy;
    if (CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy) == 0) {
        QXTrackReader::processSample(copy);
    }
}
