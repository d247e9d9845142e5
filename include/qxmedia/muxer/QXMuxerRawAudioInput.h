#pragma once
// The inputs that copy coded audio into the file: AAC, AC-3 and E-AC-3
// packets from QXTrackReaderRawAudioOutput, which has given each packet its
// exact duration. They only create the track (with the setup the source
// analysis found) and pass the packets on; the first packet's time becomes
// the track's initial delay, which writeInitDelay turns into an edit.

#include <cstdint>
#include <memory>

#include "qxmedia/muxer/QXMuxerInput.h"

class QXMuxerRawAudioInput : public QXMuxerInput {
public:
    using QXMuxerInput::QXMuxerInput;
    using QXMuxerInput::initWritingToFileHandle;

    // Sets `offset` from the first packet, and hands every packet on with
    // its times counted in the track's timescale.
    void processSample(const qx::CMSampleBufferRef& sample) override;

protected:
    // Converting times is cheap: no hop to processQueue per packet.
    bool processesOnChannelQueue() const override { return true; }

    // The common end of initWritingToFileHandle once the track was added:
    // the track id, -13011 for none, the chunk length, the track's fields.
    bool finishTrack(uint32_t trackId, QXErrorRef* error);

private:
    int32_t timescale_ = 0;
};

class QXMuxerRawAACInput : public QXMuxerRawAudioInput {
public:
    using QXMuxerRawAudioInput::QXMuxerRawAudioInput;
    using QXMuxerInput::initWritingToFileHandle;
    // An mp4a track at the sample rate, with the source's decoder config.
    bool initWritingToFileHandle(QXErrorRef* error) override;
    std::string description() const override;

    // The frames have no fixed length (the source does not say it).
    bool vbr = false;
};

class QXMuxerRawAC3Input : public QXMuxerRawAudioInput {
public:
    using QXMuxerRawAudioInput::QXMuxerRawAudioInput;
    using QXMuxerInput::initWritingToFileHandle;
    // An ac-3 track whose dac3 has the fields of the source's analysis.
    bool initWritingToFileHandle(QXErrorRef* error) override;
    std::string description() const override;
};

class QXMuxerRawEAC3Input : public QXMuxerRawAudioInput {
public:
    using QXMuxerRawAudioInput::QXMuxerRawAudioInput;
    using QXMuxerInput::initWritingToFileHandle;
    // An ec-3 track with the dec3 payload of the source's analysis.
    bool initWritingToFileHandle(QXErrorRef* error) override;
    std::string description() const override;
};
