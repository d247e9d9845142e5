#pragma once
// QXTrackJob: one line of a job's plan. It names the source track, the track
// planned for the output and how the one becomes the other; for a copied or
// encoded line it also holds the reader output and the muxer input that the
// run joins with a channel.

#include <cstdint>
#include <memory>
#include <string>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXTrack.h"

class QXMovie;
class QXMuxerInput;
class QXTrackReaderOutput;

enum QXTrackJobType : int64_t {
    QXTrackJobTypeRemux = 0,  // samples copied into the new file
    QXTrackJobTypeEncode = 1, // samples decoded and encoded again
    QXTrackJobTypeKeep = 2,   // the track stays where it is (in-place update)
};

class QX_EXPORT QXTrackJob {
public:
    // Makes the reader output and the muxer input for a copied or encoded
    // line. The input is null when no input class handles the codec yet; the
    // run leaves such a line out.
    static std::shared_ptr<QXTrackJob> initWithSource(const QXTrackRef& source, const QXTrackRef& destination,
                                                      int64_t type);

    std::weak_ptr<QXMovie> movie; // the movie of `source`
    int64_t type = QXTrackJobTypeRemux;
    QXTrackRef source;
    QXTrackRef destination;
    std::shared_ptr<QXTrackReaderOutput> readerOutput;
    std::shared_ptr<QXMuxerInput> muxerInput;

    std::string description() const;
};

using QXTrackJobRef = std::shared_ptr<QXTrackJob>;
