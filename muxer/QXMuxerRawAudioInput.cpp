#include "qxmedia/muxer/QXMuxerRawAudioInput.h"

#include <cstdio>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/muxer/QXMuxerAudioSamples.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXAudioTrack.h"

using namespace qx;

namespace {

std::string describe(const char* className, const void* input, const QXTrackRef& destination)
{
    char text[96];
    std::snprintf(text, sizeof text, "<%s: %p>", className, input);
    return destination ? std::string(text) + " " + destination->description() : std::string(text);
}

uint32_t sampleRateOf(const QXTrackRef& track)
{
    const auto* audio = dynamic_cast<const QXAudioTrack*>(track.get());
    return audio ? audio->sample_rate : 0;
}

} // namespace

void QXMuxerRawAudioInput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        QXMuxerInput::processSample(nullptr);
        return;
    }
    if (!CMTIME_IS_VALID(offset)) offset = CMSampleBufferGetPresentationTimeStamp(sample);
    // The reader output counts durations in the decoder's rate and times in
    // the source's timescale; the file counts both in the track's.
    QXMuxerInput::processSample(QXSampleInTimescale(sample, timescale_));
}

bool QXMuxerRawAudioInput::finishTrack(uint32_t trackId, QXErrorRef* error)
{
    destination->trackID = int32_t(trackId);
    if (trackId == 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011,
                                                   {{AVErrorPersistentTrackIDKey, int64_t(trackId)}}));
        return false;
    }
    const mp4::MP4Track* track = file->track(trackId);
    timescale_ = track ? int32_t(track->timeScale()) : 0;
    tuneTrackDurationPerChunk();
    return destination->writeToFile(*file, error);
}

bool QXMuxerRawAACInput::initWritingToFileHandle(QXErrorRef* error)
{
    const auto* audio = dynamic_cast<const QXAudioTrack*>(destination.get());
    const uint64_t samplesPerFrame = audio ? audio->samples_per_frame : UINT64_MAX;
    const int64_t sampleDuration = samplesPerFrame == UINT64_MAX ? -1 : int64_t(samplesPerFrame);
    const uint32_t trackId = file->addAudioTrack(sampleRateOf(destination), sampleDuration, 0x40);
    vbr = samplesPerFrame == UINT64_MAX;
    if (trackId == 0) return finishTrack(trackId, error);

    const uint32_t channels = audio && audio->channels > 0 ? uint32_t(audio->channels) : 0;
    file->setAudioProfileLevel(QXAudioProfileLevel(channels, sampleRateOf(destination)));
    if (!destination->extradata.empty()) {
        file->setTrackESConfiguration(trackId, destination->extradata.data(), destination->extradata.size());
    }
    file->setTrackIntegerProperty(trackId, "mdia.minf.stbl.stsd.*.channels", channels);
    return finishTrack(trackId, error);
}

std::string QXMuxerRawAACInput::description() const { return describe("QXMuxerRawAACInput", this, destination); }

bool QXMuxerRawAC3Input::initWritingToFileHandle(QXErrorRef* error)
{
    // A track whose analysis failed goes in with the fields at 0, as the
    // analysis left them.
    const auto* ac3 = dynamic_cast<const QXAC3AudioTrack*>(destination.get());
    const uint32_t trackId =
        ac3 ? file->addAC3AudioTrack(ac3->sample_rate, ac3->fscod, ac3->bsid, ac3->bsmod, ac3->acmod, ac3->lfeon,
                                     ac3->bit_rate_code)
            : file->addAC3AudioTrack(sampleRateOf(destination), 0, 0, 0, 0, 0, 0);
    return finishTrack(trackId, error);
}

std::string QXMuxerRawAC3Input::description() const { return describe("QXMuxerRawAC3Input", this, destination); }

bool QXMuxerRawEAC3Input::initWritingToFileHandle(QXErrorRef* error)
{
    const auto* eac3 = dynamic_cast<const QXEAC3AudioTrack*>(destination.get());
    const uint32_t trackId =
        eac3 ? file->addEAC3AudioTrack(eac3->sample_rate, eac3->dec3Atom.data(), eac3->dec3Atom.size())
             : file->addEAC3AudioTrack(sampleRateOf(destination), nullptr, 0);
    return finishTrack(trackId, error);
}

std::string QXMuxerRawEAC3Input::description() const { return describe("QXMuxerRawEAC3Input", this, destination); }
