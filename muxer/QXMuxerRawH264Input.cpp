#include "qxmedia/muxer/QXMuxerRawH264Input.h"

#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/error.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/platform/codecs/HEVCConfiguration.h"
#include "qxmedia/platform/codecs/NALUnits.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

// The MPEG-4 visual profile level of a file with AVC video: none of the
// MPEG-4 part 2 profiles.
constexpr uint8_t kNoVisualProfile = 127;
// Asks for the widest NAL length field: the samples carry four-byte lengths.
constexpr uint8_t kLongestNALLength = 255;

QXErrorRef trackIdError(uint32_t trackId)
{
    return QXMedia::errorWithDomain(QXMediaErrorDomain, -13011, {{AVErrorPersistentTrackIDKey, trackId}});
}

bool beginsWithFourByteStartCode(const char* data, size_t contiguous)
{
    // Five bytes at least: a start code alone carries no NAL unit. A
    // length-prefixed sample cannot begin this way, since a NAL unit of one
    // byte (a header alone) has no use.
    if (contiguous < 5) return false;
    const auto* bytes = reinterpret_cast<const uint8_t*>(data);
    return bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 0 && bytes[3] == 1;
}

} // namespace

bool QXMuxerRawH264Input::initWritingToFileHandle(QXErrorRef* error)
{
    const uint32_t trackId = destination->codec_id == AV_CODEC_ID_HEVC ? addHEVCTrack() : addH264Track();
    destination->trackID = int32_t(trackId);
    if (trackId == 0) {
        QXSetError(error, trackIdError(trackId));
        return false;
    }
    tuneTrackDurationPerChunk();
    // Colour, aspect ratio, language and flags; a failure here leaves the
    // track as it was made.
    destination->writeToFile(*file);
    return QXMuxerChapterInput::initWritingToFileHandle(error);
}

uint32_t QXMuxerRawH264Input::addH264Track()
{
    auto video = std::dynamic_pointer_cast<QXVideoTrack>(destination);
    if (!video) return 0;
    file->setVideoProfileLevel(kNoVisualProfile);
    const uint32_t trackId =
        file->addH264VideoTrack(uint32_t(video->naturalTimeScale), -1, uint16_t(video->width), uint16_t(video->height),
                                video->profile, video->profile_compat, video->level, kLongestNALLength);
    if (trackId == 0) return 0;
    for (const QXData& sps : video->sps) {
        file->addH264SequenceParameterSet(trackId, sps.data(), uint16_t(sps.size()));
    }
    for (const QXData& pps : video->pps) {
        file->addH264PictureParameterSet(trackId, pps.data(), uint16_t(pps.size()));
    }
    return trackId;
}

uint32_t QXMuxerRawH264Input::addHEVCTrack()
{
    auto video = std::dynamic_pointer_cast<QXVideoTrack>(destination);
    if (!video) return 0;
    const uint32_t trackId = file->addHEVCVideoTrack(uint32_t(video->naturalTimeScale), -1, uint16_t(video->width),
                                                     uint16_t(video->height));
    if (trackId == 0 || video->extradata.empty()) return trackId;
    // Either form of configuration (Annex B parameter sets or an hvcC)
    // becomes a record with complete parameter set arrays, as hvc1 needs.
    // A record that cannot be made leaves the extradata as it came.
    std::vector<uint8_t> record = createHvcCFromExtradata(video->extradata.data(), video->extradata.size(), true);
    if (record.empty()) {
        const int status = AVERROR_INVALIDDATA;
        QXMedia::errorWithDomain(QXMediaErrorDomain, status);
        QXLogWarning("Failed to modifiy extradata: %d", status);
    } else {
        video->extradata = std::move(record);
    }
    file->setTrackBytesProperty(trackId, "mdia.minf.stbl.stsd.hvc1.hvcC.content", video->extradata.data(),
                                video->extradata.size());
    return trackId;
}

void QXMuxerRawH264Input::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        QXMuxerChapterInput::processSample(sample);
        return;
    }
    // The first sample decides where the track starts.
    if (!CMTIME_IS_VALID(offset)) offset = CMSampleBufferGetDecodeTimeStamp(sample);
    QXMuxerChapterInput::processSample(copyLengthPrefixedSample(sample));
}

CMSampleBufferRef QXMuxerRawH264Input::copyLengthPrefixedSample(const CMSampleBufferRef& sample)
{
    CMBlockBufferRef block = CMSampleBufferGetDataBuffer(sample);
    if (!block) return sample;
    size_t contiguous = 0;
    size_t length = 0;
    char* data = nullptr;
    if (CMBlockBufferGetDataPointer(block, 0, &contiguous, &length, &data) != 0 ||
        !beginsWithFourByteStartCode(data, contiguous)) {
        return sample; // already length-prefixed: the common case
    }
    const std::vector<uint8_t> converted = annexBToLengthPrefixed(reinterpret_cast<const uint8_t*>(data), length);
    if (converted.empty()) return sample;
    if (converted.size() == length) {
        // Every start code had four bytes: each becomes its unit's length.
        const OSStatus status = CMBlockBufferReplaceDataBytes(converted.data(), block, 0, length);
        if (status != 0) QXLogWarning("Failed to update buffer: %d", int(status));
        return sample;
    }

    // Three-byte start codes (or dropped padding) change the size: a new
    // sample with the same timing, format and attachments.
    CMSampleTimingInfo timing {CMSampleBufferGetDuration(sample), CMSampleBufferGetPresentationTimeStamp(sample),
                               CMSampleBufferGetDecodeTimeStamp(sample)};
    const size_t size = converted.size();
    CMBlockBufferRef newBlock;
    if (CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                           kCMBlockBufferAssureMemoryNowFlag, &newBlock) != 0 ||
        CMBlockBufferReplaceDataBytes(converted.data(), newBlock, 0, size) != 0) {
        return sample;
    }
    CMSampleBufferRef rewritten;
    if (CMSampleBufferCreate(nullptr, newBlock, true, {}, nullptr, CMSampleBufferGetFormatDescription(sample), 1, 1,
                             &timing, 1, &size, &rewritten) != 0) {
        return sample;
    }
    if (CMSampleAttachmentsArrayRef attachments = CMSampleBufferGetSampleAttachmentsArray(sample, false)) {
        CMSampleAttachmentsArrayRef copies = CMSampleBufferGetSampleAttachmentsArray(rewritten, true);
        for (size_t i = 0; i < attachments->size() && i < copies->size(); ++i) {
            (*copies)[i]->addEntriesFrom(*(*attachments)[i]);
        }
    }
    return rewritten;
}
