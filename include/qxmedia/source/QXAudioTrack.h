#pragma once
// QXAudioTrack: channels, layout, sample rate, frame size, service type and
// the MP4 references to a fallback and a follower track.

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXTrack.h"

class QXSubtitleTrack;

class QX_EXPORT QXAudioTrack : public QXTrack {
public:
    QXAudioTrack();
    static std::shared_ptr<QXAudioTrack> init();
    static std::shared_ptr<QXAudioTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                               QXErrorRef* error = nullptr);
    static std::shared_ptr<QXAudioTrack> initWithTrack(const QXTrack& track);
    std::shared_ptr<QXTrack> copy() const override;
    std::string className() const override { return "QXAudioTrack"; }
    static std::shared_ptr<QXAudioTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXAudioTrack>(coder); }

    int32_t channels = 0;
    float volume = 1.0f;
    uint32_t sample_rate = 0;
    int32_t audio_service_type = 0;
    int32_t profile = -99;
    uint64_t channel_layout = 0;
    uint64_t samples_per_frame = UINT64_MAX;
    std::shared_ptr<QXAudioTrack> fallback_track;
    std::shared_ptr<QXSubtitleTrack> subtitle_track;

    // Commentary or karaoke from the track's name.
    virtual void detectAudioServiceType();

    std::string displayDescription() const override;
    bool isMuxable() const override;
    bool isEncodable() const override;
    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;
    bool writeTrackAssociationsToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    void copyFrom(const QXTrack& other) override;
    // The service type from the stream's side data, which overrides the
    // detected one.
    void readServiceTypeSideData(const AVFormatContext* context, int streamIndex);
};
