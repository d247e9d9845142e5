#include "qxmedia/muxer/QXMuxerRawTX3GInput.h"

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/source/QXVisualTrack.h"

using namespace qx;

bool QXMuxerRawTX3GInput::initWritingToFileHandle(QXErrorRef* error)
{
    auto visual = std::dynamic_pointer_cast<QXVisualTrack>(destination);
    const uint16_t width = visual ? uint16_t(visual->width) : 0;
    const uint16_t height = visual ? uint16_t(visual->height) : 0;
    const uint32_t trackId = file->addSubtitleTrack(uint32_t(destination->naturalTimeScale), width, height);
    destination->trackID = int32_t(trackId);
    if (trackId == 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011, {{AVErrorPersistentTrackIDKey, 0}}));
        return false;
    }
    tuneTrackDurationPerChunk();
    // Fills in the tx3g description: box, colours, font, justification.
    return destination->writeToFile(*file, error);
}

void QXMuxerRawTX3GInput::processSample(const CMSampleBufferRef& sample)
{
    if (sample && !CMTIME_IS_VALID(offset)) offset = CMSampleBufferGetDecodeTimeStamp(sample);
    QXMuxerInput::processSample(sample);
}
