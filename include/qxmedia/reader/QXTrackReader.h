#pragma once
// QXTrackReader: the per-track step between the movie reader and the
// track's fan-out. It keeps the running spacing of the track's decode times
// (the movie reader uses it to continue the timeline after a jump) and hands
// samples on to the track. QXTrackReaderAC3 strips the durations of Dolby
// samples first.

#include <cstdint>
#include <memory>

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/foundation/CMTime.h"

class QXTrack;

class QXTrackReader {
public:
    static std::shared_ptr<QXTrackReader> initWithTrack(const std::shared_ptr<QXTrack>& track);
    explicit QXTrackReader(const std::shared_ptr<QXTrack>& track);
    virtual ~QXTrackReader() = default;

    // Hands the sample (or the end marker, null) to the track's fan-out.
    virtual void processSample(const qx::CMSampleBufferRef& sample);
    // Updates the spacing statistics from the sample's decode time.
    void update_ipt(const qx::CMSampleBufferRef& sample);

    int8_t valid = 0;
    int32_t startup = 10;
    // Strong on purpose: track and reader hold each other for the length of
    // a run; releaseTrack() ends the cycle when the run is over.
    std::shared_ptr<QXTrack> track;
    qx::CMTime filtered_average = qx::CMTimeMake(1, 30);
    qx::CMTime average = qx::CMTimeMake(1, 30);
    qx::CMTime last = qx::CMTimeSubtract(qx::kCMTimeZero, qx::CMTimeMake(1, 30));

    void releaseTrack() { track.reset(); }
};

class QXTrackReaderAC3 : public QXTrackReader {
public:
    static std::shared_ptr<QXTrackReader> initWithTrack(const std::shared_ptr<QXTrack>& track);
    using QXTrackReader::QXTrackReader;

    // Drops the duration: Dolby frames are timed by their decode times.
    void processSample(const qx::CMSampleBufferRef& sample) override;
};
