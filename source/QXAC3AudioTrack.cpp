#include "qxmedia/source/QXAC3AudioTrack.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/codecs/AC3Header.h"
#include "qxmedia/platform/codecs/BitStream.h"
#include "qxmedia/reader/QXTrackReader.h"

using namespace qx;

namespace {

std::string errorText(int code)
{
    char buffer[64] = {};
    av_strerror(code, buffer, sizeof buffer);
    return buffer;
}

// A decoder that only confirms that a packet decodes; the analysis looks at
// a packet only then.
class DecodeCheck {
public:
    DecodeCheck(AVFormatContext* context, int streamIndex)
    {
        const AVCodecParameters* parameters = context->streams[streamIndex]->codecpar;
        const AVCodec* decoder = avcodec_find_decoder(parameters->codec_id);
        if (!decoder) {
            QXLogWarning("Could not find necessary decoder!");
            return;
        }
        codec_ = avcodec_alloc_context3(decoder);
        if (!codec_) {
            QXLogWarning("Could not alloc context!");
            return;
        }
        if (avcodec_parameters_to_context(codec_, parameters) < 0) {
            QXLogWarning("Failed to copy codec parameter!");
            return;
        }
        if (QXAvcodecOpen(codec_, decoder, nullptr) < 0) {
            QXLogWarning("Could not open decoder!");
            return;
        }
        frame_ = av_frame_alloc();
        av_seek_frame(context, streamIndex, 0, AVSEEK_FLAG_ANY);
        ready_ = frame_ != nullptr;
    }
    ~DecodeCheck()
    {
        av_frame_free(&frame_);
        avcodec_free_context(&codec_);
    }
    bool ready() const { return ready_; }

    bool decodes(const AVPacket* packet)
    {
        int rc = avcodec_send_packet(codec_, packet);
        if (rc >= 0) rc = avcodec_receive_frame(codec_, frame_);
        if (rc < 0) {
            QXLogWarning("%s Error decoding packet: %s", __func__, errorText(rc).c_str());
            return false;
        }
        av_frame_unref(frame_);
        return true;
    }

private:
    AVCodecContext* codec_ = nullptr;
    AVFrame* frame_ = nullptr;
    bool ready_ = false;
};

struct PacketGuard {
    AVPacket* packet = av_packet_alloc();
    ~PacketGuard() { av_packet_free(&packet); }
};

// What the E-AC-3 analysis gathers, for substream ids 0 to 7.
struct EAC3Analysis {
    uint16_t data_rate = 0;
    uint8_t num_ind_sub = 0;
    uint8_t extension = 0;
    uint8_t complexity = 0;
    struct Substream {
        uint8_t fscod = 0, bsid = 0, bsmod = 0, acmod = 0, lfeon = 0, num_dep_sub = 0;
        uint16_t chan_loc = 0;
    };
    std::array<Substream, 8> substreams {};

    // The dec3 payload: one independent substream, entry 0.
    QXData payload() const
    {
        const Substream& s = substreams[0];
        BitWriter writer;
        writer.write(13, data_rate);
        writer.write(3, num_ind_sub);
        writer.write(2, s.fscod);
        writer.write(5, 16);
        writer.write(1, 0);
        writer.write(1, 0);
        writer.write(3, s.bsmod);
        writer.write(3, s.acmod);
        writer.write(1, s.lfeon);
        writer.write(3, 0);
        writer.write(4, s.num_dep_sub);
        if (s.num_dep_sub) {
            writer.write(9, s.chan_loc);
        } else {
            writer.write(1, 0);
        }
        if (extension) {
            writer.write(7, 0);
            writer.write(1, 1);
            writer.write(8, complexity);
        }
        writer.flush();
        return writer.take();
    }
};

// The channel-map bits of a dependent frame, read the way the dec3 box
// wants them: five bits below the top of chanmap, or the frame's mode.
void addDependentFrame(EAC3Analysis::Substream& entry, const uint8_t* frame, size_t size, const AC3HeaderInfo& header)
{
    BitReader reader(frame, size);
    reader.seek(40); // where the header parser stops: just before bsid
    reader.skip(5);
    for (int pass = 0; pass < (header.channel_mode == 0 ? 2 : 1); ++pass) {
        reader.skip(5);
        if (reader.readBit()) reader.skip(8);
    }
    if (reader.readBit()) {
        entry.chan_loc |= (reader.read(16) >> 5) & 0x1f;
    } else {
        entry.chan_loc |= header.channel_mode;
    }
}

} // namespace

int qx_eac3_parse_addbsi(BitReader& reader, const AC3HeaderInfo& header, uint8_t* extensionFlag,
                         uint8_t* complexityIndex)
{
    if (header.bitstream_id != 16) return 0;
    // The one walk of the bsi there is; a frame cut short sets nothing.
    AC3BitstreamInfo info;
    reader.seek(40); // where the header parser stops: just before bsid
    if (parseAC3BitstreamInfo(reader, header, info) == 0 && info.flag_ec3_extension_type_a) {
        *extensionFlag = 1;
        *complexityIndex = info.complexity_index_type_a;
    }
    return 0;
}

// MARK: AC-3

std::shared_ptr<QXAC3AudioTrack> QXAC3AudioTrack::init()
{
    return makeNew<QXAC3AudioTrack>();
}

std::shared_ptr<QXAC3AudioTrack> QXAC3AudioTrack::initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                        QXErrorRef* error)
{
    return importNew<QXAC3AudioTrack>(context, streamIndex, error);
}

std::shared_ptr<QXAC3AudioTrack> QXAC3AudioTrack::initWithTrack(const QXTrack& track)
{
    return copyNew<QXAC3AudioTrack>(track);
}

std::shared_ptr<QXTrack> QXAC3AudioTrack::copy() const
{
    return copyNew<QXAC3AudioTrack>(*this);
}

bool QXAC3AudioTrack::importStream(AVFormatContext* context, int index, QXErrorRef* error)
{
    if (!QXAudioTrack::importStream(context, index, error)) return false;
    parseAC3HeaderWithFormatContext(context, index);
    reader = QXTrackReaderAC3::initWithTrack(shared_from_this());
    detectAudioServiceType();
    readServiceTypeSideData(context, index);
    return true;
}

void QXAC3AudioTrack::copyFrom(const QXTrack& other)
{
    QXAudioTrack::copyFrom(other);
    if (const auto* ac3 = dynamic_cast<const QXAC3AudioTrack*>(&other)) {
        fscod = ac3->fscod;
        bsid = ac3->bsid;
        bsmod = ac3->bsmod;
        acmod = ac3->acmod;
        lfeon = ac3->lfeon;
        bit_rate_code = ac3->bit_rate_code;
    }
}

void QXAC3AudioTrack::parseAC3HeaderWithFormatContext(AVFormatContext* context, int streamIndex)
{
    DecodeCheck check(context, streamIndex);
    if (!check.ready()) return;
    PacketGuard guard;
    AVPacket* packet = guard.packet;
    for (int tries = 0; packet && tries < 8;) {
        if (av_read_frame(context, packet) < 0) return;
        if (packet->stream_index != streamIndex) {
            av_packet_unref(packet);
            continue;
        }
        ++tries;
        if (packet->size <= 6) {
            QXLogWarning("WARNING: found AC3 packet with invalid size");
            av_packet_unref(packet);
            continue;
        }
        if (!check.decodes(packet)) {
            av_packet_unref(packet);
            continue;
        }
        const uint8_t* data = packet->data;
        fscod = data[4] >> 6;
        bit_rate_code = (data[4] >> 1) & 0x1f;
        bsid = data[5] >> 3;
        bsmod = data[5] & 7;
        acmod = data[6] >> 5;
        // lfeon follows the optional mix levels (or the surround mode of a
        // stereo frame) in byte 6.
        int bit = 4;
        if (acmod == 2) {
            bit = 2;
        } else {
            if ((acmod & 1) && acmod != 1) bit -= 2;
            if (acmod & 4) bit -= 2;
        }
        lfeon = (data[6] >> bit) & 1;
        av_packet_unref(packet);
        return;
    }
}

void QXAC3AudioTrack::detectAudioServiceType()
{
    if (bsmod == 0) {
        if (!name.empty()) QXAudioTrack::detectAudioServiceType();
    } else if (bsmod <= 6) {
        audio_service_type = bsmod;
    } else if (acmod == 1) {
        audio_service_type = AV_AUDIO_SERVICE_TYPE_VOICE_OVER; // bsmod 7 in mono
    } else if (acmod >= 2) {
        audio_service_type = AV_AUDIO_SERVICE_TYPE_KARAOKE;
    }
}

// MARK: E-AC-3

std::shared_ptr<QXEAC3AudioTrack> QXEAC3AudioTrack::init()
{
    return makeNew<QXEAC3AudioTrack>();
}

std::shared_ptr<QXEAC3AudioTrack> QXEAC3AudioTrack::initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                          QXErrorRef* error)
{
    return importNew<QXEAC3AudioTrack>(context, streamIndex, error);
}

std::shared_ptr<QXEAC3AudioTrack> QXEAC3AudioTrack::initWithTrack(const QXTrack& track)
{
    return copyNew<QXEAC3AudioTrack>(track);
}

std::shared_ptr<QXTrack> QXEAC3AudioTrack::copy() const
{
    return copyNew<QXEAC3AudioTrack>(*this);
}

bool QXEAC3AudioTrack::importStream(AVFormatContext* context, int index, QXErrorRef* error)
{
    if (!QXAudioTrack::importStream(context, index, error)) return false;
    parseEAC3HeaderWithFormatContext(context, index);
    reader = QXTrackReaderAC3::initWithTrack(shared_from_this());
    detectAudioServiceType();
    readServiceTypeSideData(context, index);
    return true;
}

void QXEAC3AudioTrack::copyFrom(const QXTrack& other)
{
    QXAudioTrack::copyFrom(other);
    if (const auto* eac3 = dynamic_cast<const QXEAC3AudioTrack*>(&other)) {
        extension_type = eac3->extension_type;
        dec3Atom = eac3->dec3Atom;
    }
}

std::string QXEAC3AudioTrack::format() const
{
    return extension_type == 1 ? "Dolby Digital Plus + Atmos (E-AC-3)" : "Dolby Digital Plus (E-AC-3)";
}

void QXEAC3AudioTrack::parseEAC3HeaderWithFormatContext(AVFormatContext* context, int streamIndex)
{
    DecodeCheck check(context, streamIndex);
    if (!check.ready()) return;
    PacketGuard guard;
    AVPacket* packet = guard.packet;
    EAC3Analysis analysis;
    bool cameRound = false;
    for (int count = 0; packet && count < 10 && !cameRound;) {
        if (av_read_frame(context, packet) < 0) break;
        if (packet->stream_index != streamIndex) {
            av_packet_unref(packet);
            continue;
        }
        ++count;
        const uint8_t* data = packet->data;
        const size_t size = size_t(packet->size);
        if (!check.decodes(packet)) {
            av_packet_unref(packet);
            continue;
        }
        if (size <= 6) {
            QXLogWarning("WARNING: found E-AC3 packet with invalid size");
            av_packet_unref(packet);
            continue;
        }
        AC3HeaderInfo header;
        BitReader reader(data, size);
        if (int rc = parseAC3Header(reader, header); rc < 0) {
            QXLogInfo("Parsing of EAC3 stream failed: %d!", rc);
            av_packet_unref(packet);
            continue;
        }
        uint8_t extension = 0;
        uint8_t complexity = 0;
        extension_type = 0;
        qx_eac3_parse_addbsi(reader, header, &extension, &complexity);
        extension_type = extension;
        analysis.extension |= extension;
        analysis.complexity = std::max(analysis.complexity, complexity);
        analysis.data_rate = std::max<uint16_t>(analysis.data_rate, uint16_t(header.bit_rate / 1000));

        if (header.bitstream_id <= 10 && header.substreamid != 0) {
            av_packet_unref(packet);
            continue;
        }
        if (header.frame_type != EAC3FrameTypeIndependent) {
            if (header.substreamid != 0) QXLogWarning("Multiple non EAC3 independent substreams");
        } else if (header.substreamid >= 2) {
            QXLogWarning("Substream ids must be incremental");
        } else if (header.substreamid == 1) {
            QXLogWarning("Multiple independent substreams");
        } else if (analysis.substreams[0].bsid != 0) {
            cameRound = true; // the stream has come round to its first program
            av_packet_unref(packet);
            break;
        }

        // bsmod as the header gives it: an E-AC-3 header leaves it at 0.
        EAC3Analysis::Substream& entry = analysis.substreams[header.substreamid & 7];
        entry = EAC3Analysis::Substream {header.sr_code,      header.bitstream_id, header.bitstream_mode,
                                         header.channel_mode, header.lfe_on,       0,
                                         entry.chan_loc};

        for (size_t cumul = header.frame_size; cumul < size;) {
            AC3HeaderInfo dependent;
            if (parseAC3Header(data + cumul, size - cumul, dependent) < 0 ||
                dependent.frame_type != EAC3FrameTypeDependent || dependent.frame_size == 0) {
                break; // the rest of the packet cannot be read
            }
            ++entry.num_dep_sub;
            addDependentFrame(entry, data + cumul, size - cumul, dependent);
            cumul += dependent.frame_size;
        }
        av_packet_unref(packet);
    }
    dec3Atom = analysis.payload();
}
