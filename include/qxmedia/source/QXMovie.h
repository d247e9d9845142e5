#pragma once
/// @file
/// QXMovie, one opened source, and its read status.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXTrack.h"

struct AVFormatContext;
struct AVPacket;
class QXChapterTrack;
class QXMetaData;
class QXMovieReader;
class QXVideoTrack;

/// Status of a movie; below QXMovieStatusFinished the read loop may go on.
enum QXMovieStatus : int64_t {
    QXMovieStatusCreated = 0,   ///< Opened, not read yet.
    QXMovieStatusReading = 1,   ///< A read loop runs.
    QXMovieStatusFinished = 2,  ///< The read loop reached the end, or stopped on an error it could live with.
    QXMovieStatusFailed = 3,    ///< Reading could not start or stopped on an error; error() says which.
    QXMovieStatusCancelled = 4, ///< cancelReading() stopped the read loop.
};

/// The framework's picture of one source — a media file, several files
/// played as one, a title of a DVD folder or a recording inside an EyeTV
/// package. Opening probes the source with FFmpeg, makes one track per
/// stream, works out which tracks belong together, imports the tags of the
/// source kind's side files and closes the input again; reading
/// (startReading) opens it a second time and demuxes it on a thread of its
/// own.
///
/// A host usually opens a movie and hands it to a QXJob, which runs the
/// reading; it may look at and change the tracks and tags before that.
/// status, isPaused and error are written by the read loop and the caller
/// without a lock; the other fields must not change while a run reads.
class QX_EXPORT QXMovie : public std::enable_shared_from_this<QXMovie> {
public:
    /// Opens one file; see initWithURLs().
    static std::shared_ptr<QXMovie> initWithURL(const QXURL& url, QXErrorRef* error = nullptr);
    /// Opens files that play one after another as one source (the VOB files
    /// of a DVD title, for instance).
    /// Null when the input cannot be opened or probed; the error says why.
    /// Opening may also succeed with an error in error(). A subtitle file in
    /// UTF-16 or UTF-32 is rewritten in place as UTF-8 first.
    static std::shared_ptr<QXMovie> initWithURLs(const std::vector<QXURL>& urls, QXErrorRef* error = nullptr);

    /// An unopened movie; hosts call initWithURLs(), which opens it.
    explicit QXMovie(const std::vector<QXURL>& urls);
    ~QXMovie();

    // Fields, in declared order. status, isPaused and error are written by
    // the read loop and the caller without a lock: a stale read delays a stop
    // by one packet at most.
    /// An MP4 or M4V file that passed the soundness check, so a job may
    /// update it in place.
    std::atomic<bool> isUpdateable {false};
    std::atomic<bool> isPaused {false}; ///< The read loop is held by togglePause().
    /// The run stage that decides where the timeline starts and rebases the
    /// samples of all tracks; null for a source of subtitles only.
    std::shared_ptr<QXMovieReader> reader;
    QXURL fileURL;               ///< The first (or only) file; an update that renames the file moves it.
    std::vector<QXURL> fileURLs; ///< Every file of the source, in playing order.
    /// FFmpeg's name of the container format, such as "mov,mp4,m4a,3gp,3g2,mj2",
    /// "matroska,webm" or "mpegts".
    std::string format;
    uint64_t fileSize = 0; ///< Bytes of all files together.
    std::string fileHash; ///< calculateHash() at opening; empty when it could not be computed.
    /// One track per usable stream, in stream order; chapter streams and
    /// cover pictures are not tracks (see chapters and metadata).
    std::vector<QXTrackRef> tracks;
    /// The main video track: the first video stream, or the one that names
    /// chapter stills; null without video.
    std::shared_ptr<QXVideoTrack> videoTrack;
    std::shared_ptr<QXVideoTrack> chapterImageTrack; ///< The chapter stills the main video names; null when none.
    /// The source's tags, with those of its side files (DVD information,
    /// EyeTV files) and its cover pictures; never null.
    std::shared_ptr<QXMetaData> metadata;
    /// The chapter list of a chapter stream, a DVD title or the container's
    /// table (of two entries or more); null when there is none.
    std::shared_ptr<QXChapterTrack> chapters;
    int64_t bitrate = 0; ///< Bits per second of the whole source as the container states it; 0 when unknown.
    qx::dispatch_semaphore_t progressSemaphore; ///< The read loop's pause gate: a paused movie holds its only count.
    /// Entered while a read loop runs: a wait returns once the loop is done
    /// with the tracks, so that a run may then let go of them.
    qx::dispatch_group_t readLoopGroup = qx::dispatch_group_create();
    std::atomic<int64_t> status {QXMovieStatusCreated}; ///< A QXMovieStatus.
    std::string avPath; ///< What FFmpeg opens: the file's path, or "concat:" and the paths joined by "|".
    /// One entry per FFmpeg stream; empty where the stream has no track.
    std::vector<std::weak_ptr<QXTrack>> streams;

    /// The first error of opening or reading; opening may succeed with one.
    QXErrorRef error() const;
    /// Keeps the first error.
    void setError(const QXErrorRef& error);

    /// The container's duration, else the longest track's; invalid if none.
    qx::CMTime duration() const;
    /// Sets the container's duration; an invalid time falls back to the tracks'.
    void setDuration(qx::CMTime duration) { duration_ = duration; }

    // Reading (the read loop).
    /// Opens the source again and starts the read loop on a global queue,
    /// with status Reading and a new progress. False, with status Failed and
    /// the error kept, when the input does not open; every track still gets
    /// its end marker then.
    bool startReading();
    /// Pauses or resumes the read loop; ignored unless status is Reading.
    void togglePause();
    /// Stops a running read loop at its next packet (status Cancelled); the
    /// tracks still get their end markers.
    void cancelReading();
    /// The end of reading: status Finished unless it failed or was
    /// cancelled, then the end markers. The read loop calls it; it waits
    /// while the movie is paused.
    void finishReading();

    /// The track of an FFmpeg stream index, or null.
    QXTrackRef trackWithStreamIndex(int32_t streamIndex) const;
    /// The track with that track ID, or null.
    QXTrackRef trackWithID(int32_t trackID) const;
    /// A 64-bit sum over the first and last 64 KiB of the first file.
    /// Also counts the file's size; 16 hex digits, empty for a file under
    /// 64 KiB or one that cannot be read.
    std::string calculateHash() const;

    /// Whether a track is FairPlay protected.
    bool hasProtectedContent() const;
    /// Whether every video track can be copied unchanged; true without video.
    bool isMuxable() const;
    /// Whether there is video and nothing protected: what a conversion needs.
    bool isEncodeable() const;
    /// codec_id of the first video track that is not chapter stills; 0 when none.
    int32_t videoCodec() const;
    ///@{
    /// The largest stored width and height among the video tracks, in
    /// pixels; 0 without video.
    uint64_t width() const;
    uint64_t height() const;
    ///@}
    /// For logs: the first file, then a line per track.
    std::string description() const;

    /// The progress of the running read, while it runs: bytes of the input
    /// read out of the first file's size.
    std::shared_ptr<QXProgress> progress;

    /// Tracks and their readers hold each other during a run; a finished
    /// run ends that on purpose.
    void releaseReaders();
    /// The one end of a run, for every caller: waits until the read loop is
    /// done with the tracks, lets the tracks' outputs go once their fan-out
    /// is idle, then the readers. A read loop blocked on a full output must
    /// be drained (or its outputs pulled to the end) before this is called.
    void endRun();

private:
    bool open(QXErrorRef* error);
    void rewriteWideSubtitleEncoding();
    AVFormatContext* openInput(QXErrorRef* error);
    void mergeMP4TrackMetadata(AVFormatContext* context);
    void makeTracks(AVFormatContext* context, QXErrorRef* error);
    void applyDefaultLanguage();
    void connectTrackAssociations(AVFormatContext* context);
    void importSourceKind();
    void importDVDTitle();
    void importEyeTVRecording();
    void readSubtitleOnlyLanguage();

    void readLoop(AVFormatContext* context);
    // False for a packet that is damage or belongs to no stream.
    bool acceptPacket(const AVPacket* packet) const;
    void deliverPacket(AVFormatContext* context, AVPacket* packet);
    // False when the sample is a straggler of a timeline that was left.
    bool passesDiscontinuityCheck(const qx::CMSampleBufferRef& sample, int streamIndex, qx::CMTime dts);

    qx::CMTime duration_ = qx::kCMTimeInvalid;
    // Discontinuity state of the read loop: one pair for all streams.
    qx::CMTime lastDTS_ = qx::kCMTimeInvalid;
    qx::CMTime jumpDTS_ = qx::kCMTimeInvalid;
    mutable std::mutex errorLock_;
    QXErrorRef error_;
};

/// The usual way to hold a movie.
using QXMovieRef = std::shared_ptr<QXMovie>;
