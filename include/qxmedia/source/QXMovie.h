#pragma once
// QXMovie: the framework's picture of one source — a media file, several
// files played as one, a title of a DVD folder or a recording inside an
// EyeTV package. Opening probes the source with FFmpeg, makes one track per
// stream, works out which tracks belong together, imports the tags of the
// source kind's side files and closes the input again; reading (startReading)
// opens it a second time and demuxes it on a thread of its own.

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

// Status of a movie; below QXMovieStatusFinished the read loop may go on.
enum QXMovieStatus : int64_t {
    QXMovieStatusCreated = 0,
    QXMovieStatusReading = 1,
    QXMovieStatusFinished = 2,
    QXMovieStatusFailed = 3,
    QXMovieStatusCancelled = 4,
};

class QX_EXPORT QXMovie : public std::enable_shared_from_this<QXMovie> {
public:
    static std::shared_ptr<QXMovie> initWithURL(const QXURL& url, QXErrorRef* error = nullptr);
    // Null when the input cannot be opened or probed; the error says why.
    static std::shared_ptr<QXMovie> initWithURLs(const std::vector<QXURL>& urls, QXErrorRef* error = nullptr);

    explicit QXMovie(const std::vector<QXURL>& urls);
    ~QXMovie();

    // Fields, in declared order. status, isPaused and error are written by
    // the read loop and the caller without a lock: a stale read delays a stop
    // by one packet at most.
    std::atomic<bool> isUpdateable {false};
    std::atomic<bool> isPaused {false};
    std::shared_ptr<QXMovieReader> reader;
    QXURL fileURL;
    std::vector<QXURL> fileURLs;
    std::string format;
    uint64_t fileSize = 0;
    std::string fileHash; // empty when it could not be computed
    std::vector<QXTrackRef> tracks;
    std::shared_ptr<QXVideoTrack> videoTrack;
    std::shared_ptr<QXVideoTrack> chapterImageTrack;
    std::shared_ptr<QXMetaData> metadata;
    std::shared_ptr<QXChapterTrack> chapters;
    int64_t bitrate = 0;
    qx::dispatch_semaphore_t progressSemaphore;
    // Entered while a read loop runs: a wait returns once the loop is done
    // with the tracks, so that a run may then let go of them.
    qx::dispatch_group_t readLoopGroup = qx::dispatch_group_create();
    std::atomic<int64_t> status {QXMovieStatusCreated};
    std::string avPath;
    // One entry per FFmpeg stream; empty where the stream has no track.
    std::vector<std::weak_ptr<QXTrack>> streams;

    // The first error of opening or reading; opening may succeed with one.
    QXErrorRef error() const;
    // Keeps the first error.
    void setError(const QXErrorRef& error);

    // The container's duration, else the longest track's; invalid if none.
    qx::CMTime duration() const;
    void setDuration(qx::CMTime duration) { duration_ = duration; }

    // Reading (the read loop).
    bool startReading();
    void togglePause();
    void cancelReading();
    void finishReading();

    QXTrackRef trackWithStreamIndex(int32_t streamIndex) const;
    QXTrackRef trackWithID(int32_t trackID) const;
    // A 64-bit sum over the first and last 64 KiB of the first file.
    std::string calculateHash() const;

    bool hasProtectedContent() const;
    bool isMuxable() const;
    bool isEncodeable() const;
    int32_t videoCodec() const;
    uint64_t width() const;
    uint64_t height() const;
    std::string description() const;

    // The progress of the running read, while it runs.
    std::shared_ptr<QXProgress> progress;

    // Tracks and their readers hold each other during a run; a finished
    // run ends that on purpose.
    void releaseReaders();
    // The one end of a run, for every caller: waits until the read loop is
    // done with the tracks, lets the tracks' outputs go once their fan-out
    // is idle, then the readers. A read loop blocked on a full output must
    // be drained (or its outputs pulled to the end) before this is called.
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

using QXMovieRef = std::shared_ptr<QXMovie>;
