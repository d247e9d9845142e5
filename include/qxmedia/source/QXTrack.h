#pragma once
/// @file
/// QXTrack, the base of every track class; the names of media types and MP4
/// track references; the codec ids of protected tracks.

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

/// A media type as the platform names it: a four-character text. mediaType()
/// answers one of the constants below itself, so pointers compare; a type
/// from elsewhere compares with strcmp().
/// FFmpeg owns the name AVMediaType (an enum); the platform's string form is QXMediaType.
using QXMediaType = const char*;
#pragma GCC visibility push(default) // the names below are exported
extern const char AVMediaTypeVideo[];    ///< "vide": video.
extern const char AVMediaTypeAudio[];    ///< "soun": audio.
extern const char AVMediaTypeSubtitle[]; ///< "sbtl": subtitles, text or bitmap.

/// An MP4 track reference type (the four-character type of a tref entry).
using AVTrackAssociationType = const char*;
extern const char AVTrackAssociationTypeChapterList[];         ///< "chap": a video's chapter tracks.
extern const char AVTrackAssociationTypeAudioFallback[];       ///< "fall": AC-3 audio's stereo fallback.
extern const char AVTrackAssociationTypeSelectionFollower[];   ///< "folw": subtitles that follow audio.
extern const char AVTrackAssociationTypeForcedSubtitlesOnly[]; ///< "forc": the forced-only subtitles.
#pragma GCC visibility pop

///@{
/// Codec ids (QXTrack::codec_id) of protected sample entries, four-character
/// codes read big-endian. Such a track has no media type and is never
/// decoded; a movie that holds one cannot be encoded.
constexpr int32_t QXCodecIDFairPlayVideo = 0x64726D69; // 'drmi'
constexpr int32_t QXCodecIDFairPlayAudio = 0x64726D73; // 'drms'
constexpr int32_t QXCodecIDFairPlayText = 0x64726D74;  // 'drmt'
///@}

/// One stream of a source, with its identity, its codec parameters, the
/// flags it carries into an MP4 file, and the hand-over point for samples
/// between the read loop and the track's outputs. An unknown stream is a
/// plain QXTrack.
///
/// A movie makes its tracks when it opens; a job's plan makes output tracks
/// (copies and new tracks) from them. Tracks live in shared pointers. The
/// fields are plain data without a lock: change them only while no run uses
/// the track.
class QX_EXPORT QXTrack : public QXCoding, public std::enable_shared_from_this<QXTrack> {
public:
    /// A fresh track with the initial values but without its output queue;
    /// hosts call init(), which also makes the queue.
    QXTrack();
    virtual ~QXTrack();
    QXTrack(const QXTrack&) = delete;
    QXTrack& operator=(const QXTrack&) = delete;

    /// A new track of no known codec (codec_id 0); never null.
    static std::shared_ptr<QXTrack> init();
    /// Imports stream `streamIndex` of a context whose stream info was found;
    /// never fails and sets no error. The track keeps no pointer to the context.
    static std::shared_ptr<QXTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                          QXErrorRef* error = nullptr);
    /// A new track of this track's class, with the fields that carry over:
    /// not the stream index, track ID, source, reader, outputs or codec
    /// parameters.
    virtual std::shared_ptr<QXTrack> copy() const;

    // Fields, in declared order.
    bool enabled = true;             ///< Played by default (MP4 header flag 1).
    bool in_movie = true;            ///< Part of the presentation (header flag 2).
    bool in_preview = false;         ///< Part of the preview (header flag 4).
    int32_t streamIndex = INT32_MIN; ///< Index of the FFmpeg stream; INT32_MIN for a track made without one.
    /// The stream's id in its container (the MP4 track ID, a TS PID, ...);
    /// for an output track, its ID in the file once written; 0 when none.
    int32_t trackID = 0;
    int32_t codec_id = 0;         ///< FFmpeg's AVCodecID, or a QXCodecIDFairPlay* code; 0 when unknown.
    int32_t naturalTimeScale = 0; ///< Ticks per second of the track's media time (the stream's time base).
    uint32_t bitrate = 0;         ///< Bits per second as the source states it; 0 when unknown.
    /// The movie the track was read from; empty for a planned output track.
    /// A weak reference: the movie owns its tracks.
    std::weak_ptr<QXMovie> source;
    QXURL sourceURL;  ///< The first file of that movie; an archive keeps it where it cannot keep the movie.
    /// The name players show; the stream's title when it has one (valid
    /// UTF-8), else the class's default. Written only if Mac OS Roman holds it.
    std::string name;
    /// ISO 639-1 code ("de") where one exists, else the code as the source
    /// gave it; "und" when unknown. A movie gives unknown tracks its video's
    /// language, or "en". Written to MP4 as ISO 639-2/T.
    std::string language = "und";
    int64_t layer = 0;            ///< Stacking order of visual tracks; lower is in front.
    /// Tracks of one non-zero group are alternatives, of which one plays;
    /// audio starts in group 1, subtitles in group 2.
    uint64_t alternate_group = 0;
    /// First decode time minus the stream's start time, in ticks of the
    /// stream's time base; 0 when unknown.
    int64_t offset = 0;
    QXData extradata;             ///< The codec's configuration bytes as FFmpeg has them; empty when none.
    /// The run step between the movie's reader and the fan-out; it keeps the
    /// spacing of the track's decode times. Null for a track not imported
    /// from a stream.
    std::shared_ptr<QXTrackReader> reader;
    qx::dispatch_queue_t outQueue;         ///< Serial queue of the fan-out to several outputs.
    qx::dispatch_semaphore_t outSemaphore; ///< Counts samples waiting for the fan-out (32 at most).
    /// Where the track's samples go during a run; set up before the run and
    /// emptied by its end (QXMovie::endRun()).
    std::vector<std::shared_ptr<QXTrackReaderOutput>> outputs;
    qx::CMTime duration = qx::kCMTimeInvalid; ///< Length of the stream; invalid when the source states none.

    /// A private copy of the stream's parameters, owned by the track; empty
    /// when no decoder is known or for a track made from an archive.
    AVCodecParameters* codecParameters() const { return codecParameters_.get(); }

    /// The MP4 header flags (tkhd.flags): 1 enabled, 2 in_movie, 4 in_preview.
    uint32_t flags() const;
    /// Sets the three flags from header flags; other bits are ignored.
    void setFlags(uint32_t flags);

    /// The codec for people: "H.264", "AAC", "FairPlay Video", FFmpeg's long
    /// name for others; "Unknown" for codec 0.
    virtual std::string format() const;
    /// AVMediaTypeVideo, AVMediaTypeAudio or AVMediaTypeSubtitle by codec;
    /// null for protected, data and unknown codecs.
    QXMediaType mediaType() const;
    /// One line for a track list: format, duration as HH:MM:SS.mmm and
    /// kbit/s; subclasses add what they know.
    virtual std::string displayDescription() const;
    /// The language's name in the current locale; the code itself when the
    /// locale has no name for it, "Unknown" when there is no usable code.
    std::string displayLanguage() const;
    /// For logs: "<class stream N, track ID, format>".
    virtual std::string description() const;

    /// Whether the samples can be copied into an MP4 unchanged; false for an
    /// unknown stream.
    virtual bool isMuxable() const;
    /// Whether the track can be decoded and encoded anew; true for an
    /// unknown stream, subclasses narrow it.
    virtual bool isEncodable() const;

    /// MP4 writing: the track must exist in `file` under trackID. Writes
    /// name, language, flags, layer and alternate group; false with an error
    /// when trackID is 0 or not in `file`.
    virtual bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr);
    /// Writes the track references this kind of track has (none here); the
    /// tracks referred to must have their IDs.
    virtual bool writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr);
    /// Adds, points or removes (other absent) the reference of `type` from
    /// this track to `other`. Of an existing reference only the first entry
    /// is pointed elsewhere. False with an error when `other` has no ID or
    /// this track is not in `file`.
    bool writeTrackAssociation(AVTrackAssociationType type, const QXTrack* other, qx::mp4::MP4File& file,
                               QXErrorRef* error = nullptr);

    /// The sample road: to the reader if there is one, else to the outputs.
    /// The read loop's samples arrive here, through the movie's reader when
    /// it has one; null is the end marker.
    void processSample(const qx::CMSampleBufferRef& sample);
    /// Fans a sample (or the end marker, null) out to every output on
    /// outQueue; blocks while 32 samples of this track are in flight. A
    /// single output takes it straight from the caller.
    void outputSample(const qx::CMSampleBufferRef& sample);
    /// Sends the end marker down the sample road, as a read loop does at its end.
    void markAsFinished() { processSample(nullptr); }
    /// Adds an output before a run; outputs has no lock, so not while samples flow.
    void addOutput(std::shared_ptr<QXTrackReaderOutput> output);

    /// Keyed archive: the base keys only, for every class of the tree. The
    /// name the class is archived and registered under.
    std::string className() const override { return "QXTrack"; }
    /// Archives stream index, track ID, source URL, codec, name, language,
    /// flags, layer, group, offset, duration, time scale, bitrate, extradata.
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    /// A track from those keys, without reader or codec parameters; never null.
    static std::shared_ptr<QXTrack> initWithCoder(QXKeyedUnarchiver& coder);
    /// Whether a run has given the track outputs that it has not let go yet.
    bool hasOutputs() const { return !outputs.empty(); }

protected:
    /// The steps of the initialiser chains; each subclass extends them.
    /// Reads the stream's fields, the base class's first; false stops the import.
    virtual bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error);
    /// Takes the fields that carry over; a subclass adds its own when `other` is of its kind.
    virtual void copyFrom(const QXTrack& other);
    /// Reads the base keys of an archive.
    void decodeFrom(QXKeyedUnarchiver& coder);
    /// Creates the output queue, named after the finished track.
    void finishInit();

    ///@{
    /// The factories of every track class: a new T made, imported, decoded
    /// or copied by the steps above, then finished with its output queue.
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
    ///@}

private:
    struct CodecParametersDeleter {
        void operator()(AVCodecParameters* parameters) const;
    };
    std::unique_ptr<AVCodecParameters, CodecParametersDeleter> codecParameters_;
};

/// The usual way to hold a track.
using QXTrackRef = std::shared_ptr<QXTrack>;
