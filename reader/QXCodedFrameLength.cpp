#include "qxmedia/reader/QXCodedFrameLength.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "qxmedia/platform/codecs/AC3Header.h"
#include "qxmedia/source/QXTrack.h"

using namespace qx;

std::optional<QXCodedFrameLength> QXCodedFrameLength::forTrack(const QXTrack& track)
{
    const AVCodecParameters* parameters = track.codecParameters();
    if (!parameters) return std::nullopt;
    switch (parameters->codec_id) {
    case AV_CODEC_ID_AC3:
        return QXCodedFrameLength(Kind::AC3, 0, 0);
    case AV_CODEC_ID_EAC3:
        return QXCodedFrameLength(Kind::EAC3, 0, 0);
    case AV_CODEC_ID_AAC:
        // The probe decodes a few frames, so an implicitly signalled SBR
        // layer already shows as HE-AAC here, with the doubled rate.
        if (parameters->profile != FF_PROFILE_AAC_LOW || parameters->sample_rate <= 0) return std::nullopt;
        if (parameters->frame_size != 1024 && parameters->frame_size != 960) return std::nullopt;
        return QXCodedFrameLength(Kind::AAC, parameters->frame_size, parameters->sample_rate);
    default:
        return std::nullopt;
    }
}

std::optional<QXCodedFrameLength::Length> QXCodedFrameLength::lengthOf(const uint8_t* data, size_t headerSize,
                                                                       size_t size) const
{
    if (!data || headerSize == 0 || size < headerSize) return std::nullopt;
    if (kind_ == Kind::AAC) {
        // ADTS (from transport streams) may carry several raw data blocks.
        const bool adts = headerSize >= 7 && data[0] == 0xFF && (data[1] & 0xF6) == 0xF0;
        const int32_t blocks = adts ? (data[6] & 3) + 1 : 1;
        return Length {blocks * frameSize_, rate_};
    }
    if (kind_ == Kind::EAC3) return eac3LengthOf(data, std::min(headerSize, size));
    AC3HeaderInfo header;
    if (parseAC3Header(data, headerSize, header) != 0 || header.sample_rate == 0) return std::nullopt;
    // A cut frame does not decode; a longer packet plays its first frame.
    if (header.frame_type != EAC3FrameTypeAC3Convert || size < header.frame_size) return std::nullopt;
    return Length {int32_t(header.num_blocks) * 256, int32_t(header.sample_rate), int32_t(header.channels),
                   header.channel_layout, int64_t(header.bit_rate)};
}

// Frames follow each other in the packet. Dependent frames and other
// substreams play alongside substream 0 and add no time; a frame cut short
// after the first is left out, as the decoder plays only what is whole.
std::optional<QXCodedFrameLength::Length> QXCodedFrameLength::eac3LengthOf(const uint8_t* packet, size_t size) const
{
    Length length {0, 0};
    bool addsChannels = false;
    for (size_t offset = 0; offset < size;) {
        AC3HeaderInfo header;
        const bool whole = parseAC3Header(packet + offset, size - offset, header) == 0 && header.sample_rate != 0 &&
                           header.frame_size <= size - offset;
        if (!whole) {
            if (offset == 0) return std::nullopt;
            break;
        }
        if (header.frame_type == EAC3FrameTypeDependent) {
            addsChannels = true;
        } else if (header.substreamid == 0) {
            if (length.frames == 0) {
                length.rate = int32_t(header.sample_rate);
                length.channels = int32_t(header.channels);
                length.layout = header.channel_layout;
                length.bitRate = int64_t(header.bit_rate);
            }
            length.frames += int32_t(header.num_blocks) * 256;
        }
        offset += header.frame_size;
    }
    if (length.frames == 0) return std::nullopt;
    if (addsChannels) {
        length.channels = 0;
        length.layout = 0;
    }
    return length;
}
