#pragma once
// QXMuxerInput: the stage between one sample channel and the QXMuxer. It is
// the base of every input (H.264, AAC, AC-3, chapters, tx3g, the encoder
// input), the factory that chooses among them, and the flow control of one
// output track:
//
//   channel queue ──[inputSemaphore 10]──► processQueue (processSample)
//                 ──[outputSemaphore 10]──► muxerQueue (QXMuxer::writeSample)
//
// so at most ten samples wait in each hop. An input whose processing is
// cheap (copied audio) processes on the channel's queue and skips the
// first hop; the end still goes through processQueue, after every sample. The base also gives every video
// sample the duration up to the next one (it holds one sample back), and
// writes the track's edit list at the end.
//
// A subclass:
// - creates its MP4 track in initWritingToFileHandle(error), sets trackID of
//   destination (on 0: QXMediaErrorDomain -13011 and false), calls
//   tuneTrackDurationPerChunk and answers destination->writeToFile;
// - in processSample sets `offset` from its first sample, does its work and
//   calls QXMuxerInput::processSample for each finished sample, and with
//   null at the end;
// - touches `file` after the start only on muxerQueue (performOutputBlock).

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "qxmedia/muxer/QXMuxerInputProtocol.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXTrack.h"

namespace qx::mp4 {
class MP4File;
}
class QXMuxer;

enum QXMuxerInputStatus : int64_t {
    QXMuxerInputStatusIdle = 0,
    QXMuxerInputStatusProcessing = 1,
    QXMuxerInputStatusFinished = 2,
};

class QXMuxerInput : public QXMuxerInputProtocol, public std::enable_shared_from_this<QXMuxerInput> {
public:
    // The input class for one plan line, chosen by codec id: the
    // destination's when encoding, the source track's when copying. Null,
    // with a warning, for a codec no input handles.
    static std::shared_ptr<QXMuxerInput> initWithSource(const std::shared_ptr<QXTrackReaderOutput>& source,
                                                        const std::shared_ptr<QXTrack>& destination, bool encode);
    // A new input of class T (a subclass) in its initial state.
    template <class T>
    static std::shared_ptr<T> initWithSource(const std::shared_ptr<QXTrackReaderOutput>& source,
                                             const std::shared_ptr<QXTrack>& destination)
    {
        auto input = std::make_shared<T>(source, destination);
        static_cast<QXMuxerInput&>(*input).finishInit();
        return input;
    }

    QXMuxerInput(std::shared_ptr<QXTrackReaderOutput> source, std::shared_ptr<QXTrack> destination);
    ~QXMuxerInput() override;
    QXMuxerInput(const QXMuxerInput&) = delete;
    QXMuxerInput& operator=(const QXMuxerInput&) = delete;

    // Stores the file and the muxer's queue, then lets the subclass create
    // its track.
    bool initWritingToFileHandle(const std::shared_ptr<qx::mp4::MP4File>& handle, const qx::dispatch_queue_t& queue,
                                 QXErrorRef* error = nullptr);
    virtual bool initWritingToFileHandle(QXErrorRef* error) = 0;

    // Gives every track the chunk length in time of track 1 (4.5 frames when
    // track 1 is video). False when no length results.
    bool tuneTrackDurationPerChunk();

    // QXMuxerInputProtocol.
    bool isReadyForMoreMediaData() const override { return true; }
    void requestMediaDataWhenReadyOnQueue(qx::dispatch_queue_t queue, std::function<void()> block) override;
    // Takes a sample through inputSemaphore onto processQueue. False once the
    // muxer has failed or was cancelled (the sample is processed all the same).
    bool appendSampleBuffer(const qx::CMSampleBufferRef& sample) override;
    // Subclasses re-pack here and call the base for each finished sample; the
    // base holds video back by one sample to give it its duration. Null ends
    // the track.
    void processSample(const qx::CMSampleBufferRef& sample) override;
    // Once after the last sample: flushes processSample, then lets the input
    // finish. Harmless on an input that was never started.
    void markAsFinished() override;

    // Hands a finished sample to the muxer (through outputSemaphore).
    void finishedProcessingSample(const qx::CMSampleBufferRef& sample);
    // Runs `block` on muxerQueue within the input's flow control: the way to
    // touch the file out of the sample order (chapter samples).
    void performOutputBlock(std::function<void()> block);

    // From the muxer: the pull block begins to run.
    void startProcessingOnGroup(const qx::dispatch_group_t& group, const std::shared_ptr<QXMuxer>& muxer);
    // Runs the pull block once more, on inputQueue (unless a run is queued
    // and has not begun yet).
    void requestMediaData();
    // Writes the track's edit list from `offset`; on muxerQueue, after a
    // clean run.
    void writeInitDelay();

    virtual std::string description() const;

protected:
    // True when processSample is cheap enough to run on the channel's queue,
    // which then calls it in order; a hand-over per sample costs more.
    virtual bool processesOnChannelQueue() const { return false; }

public:

    // Fields, in declared order.
    std::shared_ptr<QXTrackReaderOutput> source;
    std::shared_ptr<QXTrack> destination;
    std::atomic<int64_t> status {QXMuxerInputStatusIdle};
    std::shared_ptr<qx::mp4::MP4File> file;
    qx::dispatch_group_t inputGroup;
    qx::dispatch_queue_t inputQueue;
    qx::dispatch_semaphore_t inputSemaphore;
    qx::dispatch_semaphore_t outputSemaphore;
    qx::dispatch_queue_t muxerQueue;
    qx::dispatch_queue_t processQueue;
    std::weak_ptr<QXMuxer> muxer;
    // Used on processQueue only (or the queue that calls processSample).
    qx::CMSampleBufferRef delayedSample;
    // The time of the track's first sample, set by the subclass; invalid
    // means no edit list.
    qx::CMTime offset = qx::kCMTimeInvalid;
    // Decode time of the last sample handed to the muxer; on muxerQueue only.
    qx::CMTime lastTimestamp = qx::kCMTimeNegativeInfinity;

    static constexpr long kSamplesInFlight = 10;

protected:
    // Creates processQueue, named after the finished input.
    void finishInit();

private:
    mutable std::mutex sourceLock_;
    std::function<void()> samplesSource_; // the pull block
    std::atomic<bool> pullPending_ {false};
    std::atomic<bool> finishMarked_ {false};
};

using QXMuxerInputRef = std::shared_ptr<QXMuxerInput>;
