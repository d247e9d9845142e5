#pragma once
// QXMuxerVideoToolboxInput: the input of a video track that is encoded
// anew, to H.264 or HEVC. It takes the pictures of QXTrackReaderVideoOutput,
// encodes them through a compression session and hands the encoded samples,
// in decode order and with their dependency attachments, to its base.
//
// The MP4 track must be declared with its parameter sets before the first
// sample, so the start runs a throw-away session (same properties) on a
// dummy picture and takes its avcC, or its complete hvcC for an hvc1 entry.

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "qxmedia/muxer/QXMuxerChapterInput.h"
#include "qxmedia/platform/videotoolbox/VTCompressionSession.h"

class QXVideoTrack;

class QXMuxerVideoToolboxInput : public QXMuxerChapterInput {
public:
    using QXMuxerChapterInput::QXMuxerChapterInput;
    ~QXMuxerVideoToolboxInput() override;

    using QXMuxerInput::initWritingToFileHandle;
    bool initWritingToFileHandle(QXErrorRef* error) override;
    void processSample(const qx::CMSampleBufferRef& sample) override;
    // Waits while the pictures appended and not yet encoded hold
    // kPictureBytesInFlight: ten 4K pictures would be 120 MB.
    bool appendSampleBuffer(const qx::CMSampleBufferRef& sample) override;
    static constexpr size_t kPictureBytesInFlight = size_t(40) << 20;

    // A ready session with every property of the destination set, or null.
    qx::VTCompressionSessionRef createEncoder(QXErrorRef* error = nullptr);
    // Sets the destination's extradata (and for H.264 its parameter sets)
    // from a session's encoding of a dummy picture.
    bool generateExtradata(QXErrorRef* error = nullptr);
    void finishProcessSample(const qx::CMSampleBufferRef& sample);

    // The average bit rate in bit/s. A crf from 0 to 51 is a quality: 130
    // kbit/s (100 for HEVC) at 51 for 1920x1080, doubling every 5 steps down
    // and growing with the pixel count to the power 0.75. Any other value is
    // a bit rate in kbit/s.
    static double averageBitRate(bool hevc, double crf, int64_t width, int64_t height);
    // The session's profile level for an H.264 profile_idc and level_idc,
    // or for HEVC; none for profiles the table does not know.
    static std::optional<std::string> profileLevel(bool hevc, int profile, int level);

    int32_t naturalTimeScale = 0;
    qx::VTCompressionSessionRef session;
    // Tests set these to choose the encoder the session tries first.
    QXDictionary encoderSpecification;

private:
    std::shared_ptr<QXVideoTrack> video() const;
    void releasePicture(size_t bytes);

    std::mutex picturesLock_;
    std::condition_variable pictureEncoded_;
    size_t pictureBytes_ = 0; // appended, not yet encoded
};
