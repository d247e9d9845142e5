#pragma once
// Dolby tracks. An AC-3 or E-AC-3 track can be copied into an MP4 only with
// the fields of its dac3 or dec3 box, which FFmpeg's codec parameters do not
// give; so both classes look into the first packets of the stream while the
// movie opens and keep what the muxer needs.

#include <array>

#include "qxmedia/source/QXAudioTrack.h"

class QXAC3AudioTrack : public QXAudioTrack {
public:
    static std::shared_ptr<QXAC3AudioTrack> init();
    static std::shared_ptr<QXAC3AudioTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                  QXErrorRef* error = nullptr);
    static std::shared_ptr<QXAC3AudioTrack> initWithTrack(const QXTrack& track);
    std::shared_ptr<QXTrack> copy() const override;
    std::string className() const override { return "QXAC3AudioTrack"; }
    static std::shared_ptr<QXAC3AudioTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXAC3AudioTrack>(coder); }

    // As they stand in the bit stream of the first good frame.
    uint8_t fscod = 0;
    uint8_t bsid = 0;
    uint8_t bsmod = 0;
    uint8_t acmod = 0;
    uint8_t lfeon = 0;
    uint8_t bit_rate_code = 0;

    void parseAC3HeaderWithFormatContext(AVFormatContext* context, int streamIndex);
    // The service type from bsmod, else from the name.
    void detectAudioServiceType() override;
    bool isMuxable() const override { return true; }

protected:
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    void copyFrom(const QXTrack& other) override;
};

class QXEAC3AudioTrack : public QXAudioTrack {
public:
    static std::shared_ptr<QXEAC3AudioTrack> init();
    static std::shared_ptr<QXEAC3AudioTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                   QXErrorRef* error = nullptr);
    static std::shared_ptr<QXEAC3AudioTrack> initWithTrack(const QXTrack& track);
    std::shared_ptr<QXTrack> copy() const override;
    std::string className() const override { return "QXEAC3AudioTrack"; }
    static std::shared_ptr<QXEAC3AudioTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXEAC3AudioTrack>(coder); }

    // 1 when the last analysed frame carries the object-audio extension.
    uint8_t extension_type = 0;
    // The payload of the dec3 box.
    QXData dec3Atom;

    void parseEAC3HeaderWithFormatContext(AVFormatContext* context, int streamIndex);
    std::string format() const override;
    bool isMuxable() const override { return true; }

protected:
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    void copyFrom(const QXTrack& other) override;
};

namespace qx {
class BitReader;
struct AC3HeaderInfo;
} // namespace qx

// The object-audio mark in the additional bsi of an E-AC-3 frame, found by
// the bsi walk of AC3Header (the reader is put back just before bsid). Sets
// the flag and the complexity index only for a whole frame with bsid 16
// whose additional bsi has the mark. Returns 0.
int qx_eac3_parse_addbsi(qx::BitReader& reader, const qx::AC3HeaderInfo& header, uint8_t* extensionFlag,
                         uint8_t* complexityIndex);
