// The choice of the input class for a plan line, by codec id.

#include <array>
#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/muxer/QXMuxerInput.h"
#include "qxmedia/muxer/QXMuxerRawH264Input.h"
#include "qxmedia/muxer/QXMuxerRawTX3GInput.h"
#include "qxmedia/muxer/QXMuxerAACInput.h"
#include "qxmedia/muxer/QXMuxerAC3Input.h"
#include "qxmedia/muxer/QXMuxerRawAudioInput.h"
#include "qxmedia/muxer/QXMuxerVideoToolboxInput.h"

namespace {

using InputMaker = std::shared_ptr<QXMuxerInput> (*)(const std::shared_ptr<QXTrackReaderOutput>&,
                                                     const std::shared_ptr<QXTrack>&);

template <class T>
std::shared_ptr<QXMuxerInput> make(const std::shared_ptr<QXTrackReaderOutput>& source,
                                   const std::shared_ptr<QXTrack>& destination)
{
    return QXMuxerInput::initWithSource<T>(source, destination);
}

struct InputClasses {
    int32_t codecId;
    InputMaker encode; // the destination is encoded
    InputMaker mux;    // the source's samples are copied
};

// Each input class takes its place here as it is written (with the include
// of its header), e.g. `&make<QXMuxerRawAACInput>` for `mux` of AAC. An
// empty place means the codec cannot go into a file that way yet.
//   H.264, HEVC: QXMuxerVideoToolboxInput / QXMuxerRawH264Input
//   AAC:         QXMuxerAACInput / QXMuxerRawAACInput
//   AC-3:        QXMuxerAC3Input / QXMuxerRawAC3Input
//   E-AC-3:      QXMuxerEAC3Input / QXMuxerRawEAC3Input
//   mov_text:    QXMuxerRawTX3GInput both ways
const std::array<InputClasses, 6> kInputClasses {{
    {AV_CODEC_ID_H264, &make<QXMuxerVideoToolboxInput>, &make<QXMuxerRawH264Input>},
    {AV_CODEC_ID_HEVC, &make<QXMuxerVideoToolboxInput>, &make<QXMuxerRawH264Input>},
    {AV_CODEC_ID_AAC, &make<QXMuxerAACInput>, &make<QXMuxerRawAACInput>},
    {AV_CODEC_ID_AC3, &make<QXMuxerAC3Input>, &make<QXMuxerRawAC3Input>},
    {AV_CODEC_ID_EAC3, &make<QXMuxerEAC3Input>, &make<QXMuxerRawEAC3Input>},
    {AV_CODEC_ID_MOV_TEXT, &make<QXMuxerRawTX3GInput>, &make<QXMuxerRawTX3GInput>},
}};

} // namespace

std::shared_ptr<QXMuxerInput> QXMuxerInput::initWithSource(const std::shared_ptr<QXTrackReaderOutput>& source,
                                                           const std::shared_ptr<QXTrack>& destination, bool encode)
{
    const int32_t sourceCodec = source && source->track ? source->track->codec_id : 0;
    const int32_t codecId = encode ? (destination ? destination->codec_id : 0) : sourceCodec;
    InputMaker maker = nullptr;
    for (const InputClasses& classes : kInputClasses) {
        if (classes.codecId == codecId) maker = encode ? classes.encode : classes.mux;
    }
    if (!maker) {
        if (encode) {
            QXLogWarning("No idea how to encode %d", sourceCodec);
        } else {
            QXLogWarning("No idea how to mux %d", sourceCodec);
        }
        return nullptr;
    }
    return maker(source, destination);
}
