#pragma once
/// @file
/// QXTrackJob, one line of a job's plan, and the kinds of line.

#include <cstdint>
#include <memory>
#include <string>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXTrack.h"

class QXMovie;
class QXMuxerInput;
class QXTrackReaderOutput;

/// How a line of a plan turns its source track into its output track.
enum QXTrackJobType : int64_t {
    QXTrackJobTypeRemux = 0,  ///< Samples copied into the new file.
    QXTrackJobTypeEncode = 1, ///< Samples decoded and encoded again.
    QXTrackJobTypeKeep = 2,   ///< The track stays where it is (in-place update).
};

/// One line of a job's plan. It names the source track, the track planned
/// for the output and how the one becomes the other; for a copied or encoded
/// line it also holds the reader output and the muxer input that the run
/// joins with a channel.
class QX_EXPORT QXTrackJob {
public:
    /// Makes the reader output and the muxer input for a copied or encoded
    /// line. The input is null when no input class handles the codec yet; the
    /// run leaves such a line out. `type` is a QXTrackJobType; a Keep line
    /// gets neither. Never null.
    static std::shared_ptr<QXTrackJob> initWithSource(const QXTrackRef& source, const QXTrackRef& destination,
                                                      int64_t type);

    std::weak_ptr<QXMovie> movie; ///< The movie of `source`; empty for a track without one.
    int64_t type = QXTrackJobTypeRemux; ///< A QXTrackJobType.
    QXTrackRef source; ///< The track read: one of the job's movie or an attached track.
    /// The track planned for the output: its fields say what is written
    /// (codec, picture, flags, references). A Keep line's is a copy of the
    /// source under the source's track ID.
    QXTrackRef destination;
    /// The run stage that hands the source's samples on, decoded for an
    /// encoded line; null for a Keep line.
    std::shared_ptr<QXTrackReaderOutput> readerOutput;
    /// The run stage that writes the destination's samples; null for a Keep
    /// line and where no input handles the codec.
    std::shared_ptr<QXMuxerInput> muxerInput;

    /// For logs: "<QXTrackJob type source -> destination>".
    std::string description() const;
};

/// The usual way to hold a line of a plan.
using QXTrackJobRef = std::shared_ptr<QXTrackJob>;
