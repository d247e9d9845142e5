#pragma once
// What the synchroniser asks of an audio output to fill a gap in its track.

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"

class QXTrackReaderAudioOutputProtocol {
public:
    virtual ~QXTrackReaderAudioOutputProtocol() = default;

    // One frame of silence in the format this output delivers, owned by the
    // caller; null when the output cannot make one. May be called on another
    // queue while the output is processing.
    virtual qx::CMSampleBufferRef silentSample() = 0;
};
