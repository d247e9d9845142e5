#pragma once
// QXTrackReaderOutput: one use of a source track in a job. It receives the
// track's samples on its own serial processQueue, turns them into what its
// muxer input wants (the base passes them on unchanged) and keeps them in a
// bounded queue that a QXSampleBufferChannel drains with copyNextSample.
//
// Back-pressure: processSemaphore bounds samples waiting for processSample,
// samplesCountSemaphore bounds finished samples (256 each, or half a second
// of audio in front of an encoder); samplesSemaphore counts what
// copyNextSample may take. Both stages are also bounded by their bytes:
// coded samples by kQueuedCodedBytes, decoded pictures by kQueuedBytes (256
// of them in 4K would be about 3 GB). One sample always fits, so a sample
// larger than the bound still passes, alone.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qxmedia/platform/coremedia/CMBufferQueue.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/source/QXTrack.h"

class QXTrackReaderOutput : public std::enable_shared_from_this<QXTrackReaderOutput> {
public:
    // The output class the job needs for this use of `source`; subclasses
    // that are not built yet fall back to the base.
    static std::shared_ptr<QXTrackReaderOutput> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                               const std::shared_ptr<QXTrack>& destination,
                                                               bool encode);
    static std::shared_ptr<QXTrackReaderOutput> initWithSource(const std::shared_ptr<QXTrack>& source);

    explicit QXTrackReaderOutput(std::shared_ptr<QXTrack> source, long queueLength = kQueuedSamples);
    virtual ~QXTrackReaderOutput() = default;

    // Called by the track's fan-out; runs processSample on processQueue, in
    // order, one at a time. Inside a Run on the calling thread the sample
    // waits in the output until the run is handed on.
    void outputSample(const qx::CMSampleBufferRef& sample);

    // The read loop's run of packets: while one exists on a thread, the
    // samples that thread gives to outputSample stay with their outputs and
    // leave as one block per output at handOn, so processQueue wakes once a
    // run and not once a sample. Before the thread would wait on a bound,
    // every held sample is handed on, so a run never waits for itself.
    class Run {
    public:
        Run();
        ~Run();
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;
        void handOn();
        // Hands on the run of the calling thread, if it has one: for every
        // wait the read loop's thread may make outside the outputs.
        static void handOnCurrent();

    private:
        friend class QXTrackReaderOutput;
        std::vector<std::shared_ptr<QXTrackReaderOutput>> holding_;
        Run* outer_;
    };
    // The step subclasses override; the base makes the sample available.
    // Subclasses call it for every sample they produce and once with null.
    virtual void processSample(const qx::CMSampleBufferRef& sample);
    // The oldest finished sample; null at the end. Blocks until one is there.
    qx::CMSampleBufferRef copyNextSample();

    QXMediaType mediaType() const { return track->mediaType(); }
    virtual std::string description() const;

    bool finished() const { return finished_.load(std::memory_order_acquire); }

    std::shared_ptr<QXTrack> track;
    uint64_t drop_count = 0;
    qx::CMSampleBufferRef cur;
    qx::CMBufferQueueRef samples;
    qx::dispatch_queue_t processQueue;
    qx::dispatch_semaphore_t processSemaphore;
    qx::dispatch_semaphore_t samplesSemaphore;
    qx::dispatch_semaphore_t samplesCountSemaphore;
    qx::CMTime next_start = qx::kCMTimeZero;
    qx::CMTime first_drop = qx::kCMTimeInvalid;

    static constexpr long kQueuedSamples = 256;
    static constexpr size_t kQueuedBytes = size_t(64) << 20;
    static constexpr size_t kQueuedCodedBytes = size_t(4) << 20;
    // What an output in front of an encoder holds per stage, in time: the
    // encoder is the slowest consumer and paces the read loop, and whatever
    // is read ahead of it (the copied video above all) waits in the muxer's
    // window until its audio arrives.
    static constexpr double kEncoderLeadSeconds = 0.5;

    // The bytes a sample holds: its data block or its picture's planes.
    static size_t sampleBytes(const qx::CMSampleBufferRef& sample);
    // How many of the track's audio frames last `seconds` (at least 16, at
    // most kQueuedSamples); kQueuedSamples for other tracks.
    static long queueLengthForSeconds(const QXTrack& track, double seconds);
    size_t queuedBytes() const;
    size_t processingBytes() const;
    const long queueLength;

protected:
    // Creates the queue, named after the finished output.
    void finishInit();
    // Constructs an output of class T and finishes it: the factories of the
    // subclasses are this one call.
    template <class T, class... Arguments>
    static std::shared_ptr<T> makeFinished(Arguments&&... arguments)
    {
        auto output = std::make_shared<T>(std::forward<Arguments>(arguments)...);
        output->finishInit();
        return output;
    }

private:
    // The bytes of one stage; a stage holds one sample whatever its size.
    struct ByteBound {
        size_t used = 0;
        size_t pictureLimit;
        size_t codedLimit;
    };
    // Waits until `bytes` more fit into `bound` (the limit for pictures or
    // for coded samples) and takes them.
    void reserveBytes(ByteBound& bound, size_t bytes, bool picture);
    // Takes the bytes if they fit now.
    bool tryReserveBytes(ByteBound& bound, size_t bytes, bool picture);
    void releaseBytes(ByteBound& bound, size_t bytes);
    // One block on processQueue for the samples held for a run.
    void handOnHeld();
    // Signals samplesSemaphore for the finished samples of a run so far.
    void signalDeferred();

    struct HeldSample {
        qx::CMSampleBufferRef sample;
        size_t bytes;
    };
    std::vector<HeldSample> held_;
    // On processQueue only: while a run is processed, finished samples are
    // announced to the channel at its end or before processSample waits.
    bool deferSignals_ = false;
    long deferredSignals_ = 0;

    std::atomic<bool> finished_ {false};
    mutable std::mutex bytesLock_;
    std::condition_variable bytesReleased_;
    ByteBound processingBytes_ {0, kQueuedBytes, kQueuedCodedBytes};
    ByteBound queuedBytes_ {0, kQueuedBytes, kQueuedCodedBytes};
};
