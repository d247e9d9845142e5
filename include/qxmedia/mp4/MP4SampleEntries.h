#pragma once
// Sample descriptions (stsd) and the boxes inside sample entries: avc1,
// hvc1, mp4a, ac-3, ec-3, tx3g, text, jpeg; avcC, hvcC, esds, dac3, dec3,
// colr, pasp, btrt, ftab.

#include "qxmedia/mp4/MP4Box.h"

#include <array>

namespace qx::mp4 {

class StsdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stsd");
    StsdBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override; // entry count = children
    bool hasChildren() const override { return true; }
};

// Common start of every sample entry.
class SampleEntry : public Box {
public:
    explicit SampleEntry(FourCC type) : Box(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    bool hasChildren() const override { return true; }
    uint16_t dataReferenceIndex = 1;
};

class VisualSampleEntry : public SampleEntry {
public:
    explicit VisualSampleEntry(FourCC type) : SampleEntry(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint16_t version = 0, revision = 0;
    uint32_t vendor = 0, temporalQuality = 0, spatialQuality = 0;
    uint16_t width = 0, height = 0;
    uint32_t horizResolution = 0x480000, vertResolution = 0x480000;
    uint32_t dataSize = 0;
    uint16_t frameCount = 1;
    std::string compressorName; // up to 31 characters
    uint16_t depth = 24;
    int16_t colorTableId = -1;
};

class AudioSampleEntry : public SampleEntry {
public:
    explicit AudioSampleEntry(FourCC type) : SampleEntry(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint16_t version = 0, revision = 0; // QuickTime sound description version 1/2 kept in `extension`
    uint32_t vendor = 0;
    uint16_t channelCount = 2;
    uint16_t sampleSize = 16;
    uint16_t compressionId = 0, packetSize = 0;
    uint32_t sampleRate = 0; // 16.16
    std::vector<uint8_t> extension;
};

struct RGBAColor {
    uint8_t red = 0, green = 0, blue = 0, alpha = 0;
};

// 3GPP timed text sample entry.
class Tx3gSampleEntry : public SampleEntry {
public:
    static constexpr FourCC kType = fourcc("tx3g");
    Tx3gSampleEntry() : SampleEntry(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint32_t displayFlags = 0;
    int8_t horizontalJustification = 1;
    int8_t verticalJustification = -1;
    RGBAColor backgroundColor;
    int16_t defTextBoxTop = 0, defTextBoxLeft = 0, defTextBoxBottom = 0, defTextBoxRight = 0;
    uint16_t startChar = 0, endChar = 0;
    uint16_t fontId = 1;
    uint8_t fontFace = 0;
    uint8_t fontSize = 24;
    RGBAColor fontColor {255, 255, 255, 255};
};

// tx3g font table.
class FtabBox : public Box {
public:
    static constexpr FourCC kType = fourcc("ftab");
    FtabBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    struct Font {
        uint16_t id = 1;
        std::string name;
    };
    std::vector<Font> fonts;
};

// QuickTime text sample entry (chapter titles).
class TextSampleEntry : public SampleEntry {
public:
    static constexpr FourCC kType = fourcc("text");
    TextSampleEntry() : SampleEntry(kType) {}
    bool hasChildren() const override { return false; }
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;

    uint32_t displayFlags = 0;
    int32_t textJustification = 1;
    std::array<uint16_t, 3> backgroundColor {};
    int16_t boxTop = 0, boxLeft = 0, boxBottom = 0, boxRight = 0;
    uint32_t reserved1 = 0, reserved2 = 0; // scrap, 8 bytes
    uint16_t fontNumber = 0, fontFace = 0;
    uint8_t reserved3 = 0;
    uint16_t reserved4 = 0;
    std::array<uint16_t, 3> foregroundColor {};
    std::string fontName;
    bool shortForm = false; // as read: no font fields after the text box

};

class AvcCBox : public Box {
public:
    static constexpr FourCC kType = fourcc("avcC");
    AvcCBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint8_t configurationVersion = 1;
    uint8_t profile = 0, profileCompatibility = 0, level = 0;
    uint8_t lengthSizeMinusOne = 3;
    std::vector<std::vector<uint8_t>> sps, pps;
    std::vector<uint8_t> extension; // high-profile chroma fields and beyond
};

// hvcC kept as bytes: the caller hands over a complete configuration record.
class HvcCBox : public Box {
public:
    static constexpr FourCC kType = fourcc("hvcC");
    HvcCBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint8_t> content;
};

// Elementary stream descriptor with its decoder configuration.
class EsdsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("esds");
    EsdsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint16_t esId = 0;
    uint8_t objectTypeIndication = 0x40;
    uint8_t streamType = 5; // audio
    uint32_t bufferSizeDB = 0;
    uint32_t maxBitrate = 0;
    uint32_t avgBitrate = 0;
    std::vector<uint8_t> decoderSpecificInfo;
    bool upStream = false;
    // How the source wrote it, kept for an unchanged size on rewriting.
    uint8_t lengthSize = 4;                // bytes of each descriptor length
    std::vector<uint8_t> esHeader;         // ES flags and their optional fields
    std::vector<uint8_t> configExtra;      // descriptors after the decoder specific info
    std::vector<uint8_t> otherDescriptors; // SL config and others after the decoder config
};

class Dac3Box : public Box {
public:
    static constexpr FourCC kType = fourcc("dac3");
    Dac3Box() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    uint8_t fscod = 0, bsid = 8, bsmod = 0, acmod = 7, lfeon = 1, bitRateCode = 0;
};

class Dec3Box : public Box {
public:
    static constexpr FourCC kType = fourcc("dec3");
    Dec3Box() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint8_t> content;
};

class ColrBox : public Box {
public:
    static constexpr FourCC kType = fourcc("colr");
    ColrBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    FourCC colorParameterType = fourcc("nclx"); // nclc, nclx; others kept in trailing
    uint16_t primariesIndex = 1, transferFunctionIndex = 1, matrixIndex = 1;
    bool fullRangeFlag = false; // nclx only
};

class PaspBox : public Box {
public:
    static constexpr FourCC kType = fourcc("pasp");
    PaspBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    uint32_t hSpacing = 1, vSpacing = 1;
};

class BtrtBox : public Box {
public:
    static constexpr FourCC kType = fourcc("btrt");
    BtrtBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    uint32_t bufferSizeDB = 0, maxBitrate = 0, avgBitrate = 0;
};

} // namespace qx::mp4
