#pragma once
// QXTrack: one stream of a source, with its identity, its codec parameters,
// the flags it carries into an MP4 file, and the hand-over point for samples
// between the read loop and the track's outputs. An unknown stream is a
// plain QXTrack.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

struct AVCodecParameters;
struct AVFormatContext;

class QXMovie;
class QXTrackReader;
class QXTrackReaderOutput;

namespace qx::mp4 {
class MP4File;
}

// Media types, as the platform names them.
// FFmpeg owns the name AVMediaType (an enum); the platform's string form is QXMediaType.
using QXMediaType = const char*;
#pragma GCC visibility push(default) // the names below are exported
extern const char AVMediaTypeVideo[];    // "vide"
extern const char AVMediaTypeAudio[];    // "soun"
extern const char AVMediaTypeSubtitle[]; // "sbtl"

// MP4 track reference types.
using AVTrackAssociationType = const char*;
extern const char AVTrackAssociationTypeChapterList[];         // "chap"
extern const char AVTrackAssociationTypeAudioFallback[];       // "fall"
extern const char AVTrackAssociationTypeSelectionFollower[];   // "folw"
extern const char AVTrackAssociationTypeForcedSubtitlesOnly[]; // "forc"
#pragma GCC visibility pop

// Four-character codec ids of protected sample entries.
constexpr int32_t QXCodecIDFairPlayVideo = 0x64726D69; // 'drmi'
constexpr int32_t QXCodecIDFairPlayAudio = 0x64726D73; // 'drms'
constexpr int32_t QXCodecIDFairPlayText = 0x64726D74;  // 'drmt'

class QX_EXPORT QXTrack : public QXCoding, public std::enable_shared_from_this<QXTrack> {
public:
    // A fresh track with the initial values (the constructor is `init`).
    QXTrack();
    virtual ~QXTrack();
    QXTrack(const QXTrack&) = delete;
    QXTrack& operator=(const QXTrack&) = delete;

    static std::shared_ptr<QXTrack> init();
    // Imports stream `streamIndex` of an open context; never fails.
    static std::shared_ptr<QXTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                          QXErrorRef* error = nullptr);
    // A new track of this track's class, with the fields that carry over.
    virtual std::shared_ptr<QXTrack> copy() const;

    // Fields, in declared order.
    bool enabled = true;
    bool in_movie = true;
    bool in_preview = false;
    int32_t streamIndex = INT32_MIN;
    int32_t trackID = 0;
    int32_t codec_id = 0;
    int32_t naturalTimeScale = 0;
    uint32_t bitrate = 0;
    std::weak_ptr<QXMovie> source;
    QXURL sourceURL;
    std::string name;
    std::string language = "und";
    int64_t layer = 0;
    uint64_t alternate_group = 0;
    int64_t offset = 0;
    QXData extradata;
    std::shared_ptr<QXTrackReader> reader;
    qx::dispatch_queue_t outQueue;
    qx::dispatch_semaphore_t outSemaphore;
    std::vector<std::shared_ptr<QXTrackReaderOutput>> outputs;
    qx::CMTime duration = qx::kCMTimeInvalid;

    // A private copy of the stream's parameters; empty when no decoder is
    // known or for a track made from an archive.
    AVCodecParameters* codecParameters() const { return codecParameters_.get(); }

    // tkhd.flags: enabled + 2 in_movie + 4 in_preview.
    uint32_t flags() const;
    void setFlags(uint32_t flags);

    virtual std::string format() const;
    QXMediaType mediaType() const;
    virtual std::string displayDescription() const;
    std::string displayLanguage() const;
    virtual std::string description() const;

    virtual bool isMuxable() const;
    virtual bool isEncodable() const;

    // MP4 writing: the track must exist in `file` under trackID.
    virtual bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr);
    virtual bool writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr);
    // Adds, points or removes (other absent) the reference of `type` from
    // this track to `other`.
    bool writeTrackAssociation(AVTrackAssociationType type, const QXTrack* other, qx::mp4::MP4File& file,
                               QXErrorRef* error = nullptr);

    // The sample road: to the reader if there is one, else to the outputs.
    void processSample(const qx::CMSampleBufferRef& sample);
    // Fans a sample (or the end marker, null) out to every output on
    // outQueue; blocks while 256 samples of this track are in flight. A
    // single output takes it straight from the caller.
    void outputSample(const qx::CMSampleBufferRef& sample);
    void markAsFinished() { processSample(nullptr); }
    void addOutput(std::shared_ptr<QXTrackReaderOutput> output);

    // Keyed archive: the base keys only, for every class of the tree.
    std::string className() const override { return "QXTrack"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    static std::shared_ptr<QXTrack> initWithCoder(QXKeyedUnarchiver& coder);
    bool hasOutputs() const { return !outputs.empty(); }

protected:
    // The steps of the initialiser chains; each subclass extends them.
    virtual bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error);
    virtual void copyFrom(const QXTrack& other);
    void decodeFrom(QXKeyedUnarchiver& coder);
    // Creates the output queue, named after the finished track.
    void finishInit();

    template <class T>
    static std::shared_ptr<T> makeNew()
    {
        auto track = std::make_shared<T>();
        static_cast<QXTrack&>(*track).finishInit();
        return track;
    }
    template <class T>
    static std::shared_ptr<T> importNew(AVFormatContext* context, int streamIndex, QXErrorRef* error)
    {
        auto track = std::make_shared<T>();
        QXTrack& base = *track;
        if (!base.importStream(context, streamIndex, error)) return nullptr;
        base.finishInit();
        return track;
    }
    template <class T>
    static std::shared_ptr<T> decodeNew(QXKeyedUnarchiver& coder)
    {
        auto track = std::make_shared<T>();
        QXTrack& base = *track;
        base.decodeFrom(coder);
        base.finishInit();
        return track;
    }
    template <class T>
    static std::shared_ptr<T> copyNew(const QXTrack& from)
    {
        auto track = std::make_shared<T>();
        QXTrack& base = *track;
        base.copyFrom(from);
        base.finishInit();
        return track;
    }

private:
    struct CodecParametersDeleter {
        void operator()(AVCodecParameters* parameters) const;
    };
    std::unique_ptr<AVCodecParameters, CodecParametersDeleter> codecParameters_;
};

using QXTrackRef = std::shared_ptr<QXTrack>;
