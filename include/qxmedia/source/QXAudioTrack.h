#pragma once

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXTrack.h"

class QXSubtitleTrack;

/// An audio track: channels, layout, sample rate, frame size, service type
/// and the MP4 references to a fallback and a follower track.
class QX_EXPORT QXAudioTrack : public QXTrack {
public:
    /// A track named "Audio Track" (localised) in alternate group 1, without
    /// its output queue; hosts call init().
    QXAudioTrack();
    /// A new audio track with its output queue; never null.
    static std::shared_ptr<QXAudioTrack> init();
    /// Imports an audio stream: channels, layout, volume, sample rate, frame
    /// size, profile and service type. Never fails.
    static std::shared_ptr<QXAudioTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                               QXErrorRef* error = nullptr);
    /// A new audio track with the fields of `track` that carry over; of an
    /// audio track all its audio fields, the two references included.
    static std::shared_ptr<QXAudioTrack> initWithTrack(const QXTrack& track);
    /// A new audio track like this one, as initWithTrack() makes it.
    std::shared_ptr<QXTrack> copy() const override;
    /// The archive name; an archive keeps the base track's keys only.
    std::string className() const override { return "QXAudioTrack"; }
    /// An audio track from an archive; the audio fields keep their initial values.
    static std::shared_ptr<QXAudioTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXAudioTrack>(coder); }

    int32_t channels = 0;     ///< Number of channels; 0 when unknown.
    float volume = 1.0f;      ///< Playback volume, 1.0 is full (the MP4 track header's 8.8 value).
    uint32_t sample_rate = 0; ///< Samples per second; 0 when unknown, and then the track cannot be encoded.
    /// FFmpeg's audio service type: 0 main, 5 commentary, 8 karaoke, ...; a
    /// plan orders audio tracks by it.
    int32_t audio_service_type = 0;
    int32_t profile = -99;         ///< FFmpeg's codec profile (1 is AAC LC); -99 when unknown.
    uint64_t channel_layout = 0;   ///< FFmpeg's channel mask; 0 when the stream has no native channel order.
    uint64_t samples_per_frame = UINT64_MAX; ///< Samples per coded frame; UINT64_MAX when the stream does not say.
    /// For AC-3 and E-AC-3: the track a player takes when it cannot decode
    /// this one, usually AAC stereo (an MP4 "fall" reference).
    std::shared_ptr<QXAudioTrack> fallback_track;
    /// The subtitle track shown with this audio (an MP4 "folw" reference).
    std::shared_ptr<QXSubtitleTrack> subtitle_track;

    /// Commentary or karaoke from the track's name: set when the name holds
    /// "comment" or "karaoke" in any case, else left as it is.
    virtual void detectAudioServiceType();

    /// Adds profile, channel layout (not for Dolby codecs) and sample rate.
    std::string displayDescription() const override;
    /// AAC with configuration bytes, at most two channels and at most 48 kHz.
    bool isMuxable() const override;
    /// Whenever the sample rate is known.
    bool isEncodable() const override;
    /// Also the volume.
    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;
    /// The fallback reference (Dolby codecs only), then the follower
    /// reference; a null track removes its reference.
    bool writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    /// Adds the audio fields of the stream.
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    /// Adds the audio fields when `other` is audio.
    void copyFrom(const QXTrack& other) override;
    /// The service type from the stream's side data, which overrides the
    /// detected one.
    void readServiceTypeSideData(const AVFormatContext* context, int streamIndex);
};
