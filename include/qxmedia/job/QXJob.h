#pragma once
/// @file
/// QXJob, one conversion or in-place update, its status and the helpers it
/// shares with the run.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/job/QXTrackJob.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

class QXChapterTrack;
class QXMediaManagerTrack;
class QXMetaData;
class QXMovie;
class QXMuxer;
class QXPreset;
class QXProgress;
class QXSubtitleTrack;
class QXSync;
class QXVideoTrack;
namespace qx::mp4 {
class MP4File;
}

/// Ordered: below Finished a job has not ended, below Failed it has neither
/// failed nor been cancelled. Hosts compare the numbers.
enum QXJobStatus : int64_t {
    QXJobStatusIdle = 0,            ///< Planned; the plan may be edited.
    QXJobStatusQueued = 1,          ///< In the host's list: queue() was called.
    QXJobStatusProcessing = 2,      ///< Converting, or updating the file in place.
    QXJobStatusOptimizing = 3,      ///< Rewriting the output for fast start.
    QXJobStatusAddingToLibrary = 4, ///< Handing the output to the media library.
    QXJobStatusFinished = 5,        ///< Ended with success.
    QXJobStatusFailed = 6,          ///< Ended with an error; QXJob::error() says which.
    QXJobStatusCancelled = 7,       ///< Ended by QXJob::cancel().
};

/// What estimatedTimeLeft() answers while nothing sensible can be said.
constexpr double QXJobTimeLeftUnknown = 978307200.0;

namespace qx {
/// Seconds of a monotonic clock, the time base of a job's startTime.
double CACurrentMediaTime();
/// Whether two paths name one existing file (same device and inode).
bool isSameFile(const QXURL& a, const QXURL& b);
/// A name that does not exist yet in the folder of `url`, hidden and with
/// the same extension (the extension picks the file's brands).
QXURL partialURLFor(const QXURL& url);
} // namespace qx

/// One unit of work. It takes a movie (and whatever was attached to it), a
/// preset and a few switches, and produces one output file or rewrites the
/// source in place.
///
/// A host makes the job with initWithMovie, sets the fields it wants, edits
/// the plan while canEditChapters() holds, calls queue() when it puts the job
/// into its own list and start() on a thread of its own when the job's turn
/// comes; then it waits with waitUntilFinished() or watches status and
/// progress. The framework keeps no queue: queue() only sets a status.
///
/// Threads: start() runs on the caller's thread and returns once the run is
/// set going; togglePause() and cancel() may come from any thread at any
/// time, also after the end. The end of a run is told by one signal of
/// processing_semaphore. The other fields belong to the host until start()
/// and to the run after it.
class QX_EXPORT QXJob : public QXCoding, public std::enable_shared_from_this<QXJob> {
public:
    QXJob() = default;
    ~QXJob() override;
    QXJob(const QXJob&) = delete;
    QXJob& operator=(const QXJob&) = delete;

    /// A job that only holds a status (what an archive brings back).
    static std::shared_ptr<QXJob> init();
    /// A job with its plan already made from the preset; `preset` may be
    /// replaced by a fallback on the way (see applyPreset()). use64BitData
    /// is set from the source's size; the switches start off.
    static std::shared_ptr<QXJob> initWithMovie(const std::shared_ptr<QXMovie>& movie,
                                                const std::shared_ptr<QXPreset>& preset);
    /// The same for a subclass that stands in for a run step.
    template <class T>
    static std::shared_ptr<T> initWithMovie(const std::shared_ptr<QXMovie>& movie,
                                            const std::shared_ptr<QXPreset>& preset)
    {
        auto job = std::make_shared<T>();
        static_cast<QXJob&>(*job).setUp(movie, preset);
        return job;
    }

    // Fields, in declared order.
    /// Chunk offsets of 64 bits: set by initWithMovie() when the source is
    /// over 1 GiB (512 MiB with HEVC or VP9 video).
    bool use64BitData = false;
    bool optimize = false;     ///< Fast start (moov before mdat) after writing.
    bool addToiTunes = false;  ///< Hand the result to the media library (see libraryIdentifier).
    bool moveToTrash = false;  ///< Trash the source files after a conversion succeeded.
    /// The preset of the plan, which may differ from the one asked for.
    std::shared_ptr<QXPreset> preset;
    std::shared_ptr<QXMovie> movie; ///< The source; null for a job brought back from an archive.
    std::vector<std::shared_ptr<QXMovie>> attachedMovies; ///< Kept alive for their attached tracks.
    std::vector<QXTrackRef> attachedTracks; ///< Tracks of other sources given to attachTrack(), in order.
    /// The output's final name. A conversion writes beside it under a hidden
    /// temporary name (partialDestination) and renames that to this name once
    /// the file is complete, so a crash, kill or failure never leaves a
    /// partial file under the name the user asked for.
    /// Afterwards it names the file where it ended: the library's copy, the
    /// trashed output of a failed run, or the updated file.
    QXURL destination;
    QXURL partialDestination; ///< Set by a conversion run while it writes.
    std::shared_ptr<QXMediaManagerTrack> track; ///< What the library made of the output.
    /// The tags written into the output and given to the library entry; the
    /// host sets them (usually the movie's). Null writes none.
    std::shared_ptr<QXMetaData> metadata;
    /// The output's chapter list, set by the host; a conversion gives each
    /// chapter a still first. Null: no chapters.
    std::shared_ptr<QXChapterTrack> chapters;
    std::shared_ptr<QXMediaManagerTrack> originalTrack; ///< The library's track of the source (in-place update).
    /// The plan. Replaced as a whole, never changed in place.
    std::vector<QXTrackJobRef> tracks;
    /// The job's progress, 0 to 100 in each phase (processing, optimizing,
    /// adding to the library).
    std::shared_ptr<QXProgress> progress;
    /// A QXJobStatus. Written by the caller's thread, the read loops and the
    /// end of the run.
    std::atomic<int64_t> status {QXJobStatusIdle};
    /// Entered by each part of a run (channels, muxer, start); the run ends
    /// when all have left.
    qx::dispatch_group_t group;
    qx::dispatch_semaphore_t processing_semaphore; ///< Signalled once, at the very end of a run.
    /// CACurrentMediaTime() at start; while paused, the time elapsed until the pause.
    std::atomic<double> startTime {0.0};
    QXErrorRef iTunesError; ///< The library's last failed event, unless it only said it was busy.
    /// Source tracks the user took out of the plan; the in-place update removes them.
    std::vector<QXTrackRef> removedTracks;
    /// The library that addToiTunes hands the output to; empty picks it by
    /// the metadata's videoKind.
    std::string libraryIdentifier;
    /// Whether the library copies the file into its folder; the job then
    /// deletes its own output.
    bool libraryCopiesFiles = true;

    /// Why the job failed or that it was cancelled. Unlike a movie's error, a
    /// later error replaces an earlier one: a failure overwrites a cancel.
    QXErrorRef error() const;
    /// Replaces the error.
    void setError(const QXErrorRef& error);

    /// The source whose read loop drives the progress and obeys pause; set
    /// during a run only.
    std::shared_ptr<QXMovie> progressMovie() const;
    /// Set by the run: the movie of the first video line.
    void setProgressMovie(const std::shared_ptr<QXMovie>& movie);

    // Lifecycle.
    /// Sets status Queued; never fails and leaves `error` untouched.
    bool queue(QXErrorRef* error = nullptr);
    /// Sets the run going and returns; the result says nothing reliable about
    /// the outcome, status and waitUntilFinished() do. A job runs once.
    bool start(QXErrorRef* error = nullptr);
    /// Pauses or resumes the progress movie's read loop; the status stays.
    void togglePause();
    /// Accepted from Queued to AddingToLibrary; ignored otherwise.
    /// Sets Cancelled with a user-cancelled error and stops the read loops;
    /// the run then ends as usual.
    void cancel();
    /// Blocks until the run has ended; true if it finished with success.
    /// Only one call can return for a run.
    bool waitUntilFinished();
    /// Seconds left in the present phase, or QXJobTimeLeftUnknown: so in the
    /// first 10 seconds and before 1% is done.
    double estimatedTimeLeft() const;

    // The plan. Plan edits belong to status Idle; the operations do not
    // test it, the host asks canEditChapters() / canAttachSubtitles().
    /// Makes the plan anew for the movie's and the attached tracks; a null
    /// preset is an empty one. An update preset on a movie that cannot be
    /// updated becomes the pass-through preset; a conversion of a movie that
    /// cannot be encoded becomes the update. removedTracks is emptied.
    virtual void applyPreset(const std::shared_ptr<QXPreset>& preset);
    /// The lines whose source track is of that media type (compared as text).
    std::vector<QXTrackJobRef> tracksOfType(QXMediaType mediaType) const;
    ///@{
    /// Whether the plan may be edited: while status is Idle.
    bool canEditChapters() const { return status == QXJobStatusIdle; }
    bool canAttachSubtitles() const { return status == QXJobStatusIdle; }
    ///@}
    /// Takes a line out of the plan. Other lines stop referring to its
    /// track; an enabled audio track hands that on to the first audio track
    /// left; its source joins removedTracks.
    void removeTrackJob(const QXTrackJobRef& trackJob);
    /// Attaches a subtitle track of another source and plans it beside the
    /// first line of the plan, which must be video.
    /// Without such a line the track is attached but not planned. The track
    /// is enabled when no planned subtitle is.
    void attachTrack(const QXTrackRef& track);
    /// Attaches every text subtitle track of each file; files that do not
    /// open are passed over. Each keeps its own placement and style.
    void attachSubtitleTracksWithURLs(const std::vector<QXURL>& urls);
    /// A line that turns any subtitle track into timed text fitted to `videoTrack`.
    /// Copied when the source is timed text already, else encoded; null for
    /// a null track.
    std::shared_ptr<QXTrackJob> subtitleTrackJob(const QXTrackRef& track,
                                                 const std::shared_ptr<QXVideoTrack>& videoTrack);

    /// Keyed archive: the status alone. The name the class is archived under.
    std::string className() const override { return "QXJob"; }
    /// Writes the status.
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    /// A job with the archived status and nothing else; never null.
    static std::shared_ptr<QXJob> initWithCoder(QXKeyedUnarchiver& coder);

    /// For logs: the movie's description and the status number.
    std::string description() const;

    // Finishing steps, run after the output exists; each blocks the caller.
    /// The fast-start rewrite (moov before mdat) in place: Optimizing, and
    /// Failed with `error` when it fails. The file keeps its permissions.
    bool optimizeFile(const QXURL& url);
    /// Hands the file to the media library: AddingToLibrary; Failed when
    /// the library takes nothing. A copy made by the library removes `url`.
    /// The track also gets `metadata`. Null when the library took nothing.
    std::shared_ptr<QXMediaManagerTrack> addFileToiTunes(const QXURL& url);
    /// Moves an item to the trash, or deletes it where there is none.
    /// `trashedURL` gets its place in the trash (untouched when deleted);
    /// false with `error` when it could not even be deleted.
    bool trashItemAtURL(const QXURL& url, QXURL* trashedURL = nullptr, QXErrorRef* error = nullptr);
    /// A failed event of the library: kept in iTunesError unless it only
    /// said the library was busy. The library's delegate calls it.
    void eventDidFail(uint32_t descriptorType, const QXErrorRef& error);

    /// The file of a source (the movie, attached movies or a line of the
    /// plan) that `destination` would overwrite, or an empty URL. Compares
    /// device and inode, so "./A", "A" and a link to A are one file.
    QXURL sourceAtDestination() const;

protected:
    /// The steps of initWithMovie, ending with applyPreset.
    virtual void setUp(const std::shared_ptr<QXMovie>& movie, const std::shared_ptr<QXPreset>& preset);
    ///@{
    /// The run steps start() hands over to: a conversion into `destination`,
    /// or the rewrite of the source for the two update presets. Each returns
    /// once its run is going and ends the run with endRun().
    virtual bool startProcessing(QXErrorRef* error);
    virtual bool updateMetadata(QXErrorRef* error);
    ///@}
    /// Gives each chapter a still of the movie at its start; a failure is
    /// kept in `error` and does not fail the job.
    void generateChapterImages();
    /// Joins every copied or encoded line of the plan to `muxer` (through
    /// `sync` if given), starts the read loops, then the muxer. False if a
    /// reader failed to start. The handler runs once, on a global queue, when
    /// everything has ended, with the muxer's start error if there was one.
    bool startMuxing(const std::shared_ptr<QXMuxer>& muxer, const std::shared_ptr<QXSync>& sync,
                     std::function<void(const QXErrorRef&)> completionHandler, QXErrorRef* error = nullptr);
    /// How every run ends: no progress movie, progress full, Finished unless
    /// the run already ended otherwise, and the one signal.
    void endRun();
    /// The run's failure: status Failed and its error, if any.
    void fail(const QXErrorRef& error);

private:
    // The end of a conversion: the job's outcome, removal of a failed output
    // and, after success, of the sources if asked; then endRun().
    void finishProcessing(const QXErrorRef& runError, const std::shared_ptr<QXMuxer>& muxer);
    // Gives the complete output its final name; the job fails if it cannot.
    void renamePartialOutput();
    // The in-place update (QXJobUpdate*.cpp): the end of the one edit of the
    // file once attached tracks are in, and the steps after it.
    void finishUpdate(const std::shared_ptr<qx::mp4::MP4File>& file, const std::shared_ptr<QXMuxer>& muxer,
                      const QXErrorRef& runError);
    bool writeTrackRecords(qx::mp4::MP4File& file);
    void replaceChapters(qx::mp4::MP4File& file);
    void moveUpdatedFile();
    // Call points of the finishing steps of an update: the library entry of
    // the source and the fast-start rewrite (before a rename), the hand-over
    // to the library (after it).
    void finishUpdatedFile();
    void addUpdatedFileToLibrary();

    // Fast start and the library hand-over of a converted output, as asked.
    void finishOutput();
    // The hand-over to the library of `destination`, when asked.
    void finishOutputToLibrary();
    // The work of addFileToiTunes, on a global queue.
    std::shared_ptr<QXMediaManagerTrack> handOverToLibrary(const QXURL& url);

    mutable std::mutex lock_; // error_ and progressMovie_
    QXErrorRef error_;
    std::weak_ptr<QXMovie> progressMovie_;
};

/// The usual way to hold a job.
using QXJobRef = std::shared_ptr<QXJob>;
