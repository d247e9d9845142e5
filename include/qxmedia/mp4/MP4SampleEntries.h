#pragma once
/// @file
/// Sample descriptions (stsd) and the boxes inside sample entries: avc1,
/// hvc1, mp4a, ac-3, ec-3, tx3g, text, jpeg; avcC, hvcC, esds, dac3, dec3,
/// colr, pasp, btrt, ftab.
///
/// Visual entries are read for avc1, avc3, hvc1, hev1, jpeg, mp4v and encv;
/// audio entries for mp4a, ac-3, ec-3 and enca. Other entry types stay plain
/// boxes.

#include "qxmedia/mp4/MP4Box.h"

#include <array>

namespace qx::mp4 {

/// stsd: the sample descriptions of a track. Its children are the sample
/// entries (one per kind of coding the track uses; samples name theirs by a
/// 1-based index in stsc).
class StsdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stsd"); ///< the box type
    /// An empty sample description.
    StsdBox() : FullBox(kType) {}
    /// Skips the entry count: the entries are counted as they are parsed.
    bool parseFullFields(ByteReader& in) override;
    /// Writes the number of children as the entry count.
    void writeFullFields(ByteWriter& out) const override;
    bool hasChildren() const override { return true; }
};

/// Common start of every sample entry: six reserved bytes and the data
/// reference index. The type of the box names the coding (avc1, mp4a, ...);
/// child boxes (configuration, colr, pasp, btrt, ...) follow the fields.
class SampleEntry : public Box {
public:
    /// An entry of coding `type` with the data in the file itself.
    explicit SampleEntry(FourCC type) : Box(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    bool hasChildren() const override { return true; }
    uint16_t dataReferenceIndex = 1; ///< 1-based entry of dinf/dref that says where the data is; 1 is this file
};

/// A visual sample entry (avc1, hvc1, jpeg, ...): the picture size and the
/// QuickTime-era fields of an image description.
class VisualSampleEntry : public SampleEntry {
public:
    /// An entry of coding `type`, 72 dpi, depth 24, no colour table.
    explicit VisualSampleEntry(FourCC type) : SampleEntry(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    ///@{
    /// Version and revision level of the description (QuickTime; 0 in MP4).
    uint16_t version = 0, revision = 0;
    ///@}
    ///@{
    /// QuickTime's vendor code and temporal and spatial quality (0 to 1024);
    /// 0 in MP4.
    uint32_t vendor = 0, temporalQuality = 0, spatialQuality = 0;
    ///@}
    ///@{
    /// Coded picture width and height in pixels.
    uint16_t width = 0, height = 0;
    ///@}
    ///@{
    /// Horizontal and vertical resolution in pixels per inch, 16.16 (0x480000 is 72 dpi).
    uint32_t horizResolution = 0x480000, vertResolution = 0x480000;
    ///@}
    uint32_t dataSize = 0;   ///< reserved (QuickTime's data size); 0
    uint16_t frameCount = 1; ///< frames per sample; 1
    /// Name of the compressor for people (up to 31 bytes; written as a counted
    /// string in a 32-byte field), may be empty.
    std::string compressorName;
    uint16_t depth = 24;       ///< bits per pixel; 24 for colour without alpha
    int16_t colorTableId = -1; ///< QuickTime colour table ID; -1 for none (the only value in MP4)
};

/// An audio sample entry (mp4a, ac-3, ec-3, enca). QuickTime sound
/// descriptions of version 1 and 2 are read too; their extra fields are kept
/// as bytes. Versions above 2 are not read (the entry stays a plain box).
class AudioSampleEntry : public SampleEntry {
public:
    /// A stereo, 16-bit entry of coding `type` with a sample rate of 0.
    explicit AudioSampleEntry(FourCC type) : SampleEntry(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    ///@{
    /// Version and revision of the sound description: 0 in MP4; QuickTime's
    /// versions 1 and 2 keep their further fields in `extension`.
    uint16_t version = 0, revision = 0;
    ///@}
    uint32_t vendor = 0;       ///< QuickTime vendor code; 0 in MP4
    uint16_t channelCount = 2; ///< number of channels; for AAC and AC-3 the decoder configuration is what counts
    uint16_t sampleSize = 16;  ///< bits per sample; 16
    ///@{
    /// QuickTime's compression ID and packet size; 0 in MP4.
    uint16_t compressionId = 0, packetSize = 0;
    ///@}
    /// Sampling rate in Hz, 16.16 fixed point (48000 Hz is 48000 << 16).
    uint32_t sampleRate = 0;
    /// The further fields of a QuickTime sound description: 16 bytes in
    /// version 1, 36 in version 2; empty in version 0.
    std::vector<uint8_t> extension;
};

/// A colour of tx3g, one byte per component; alpha 255 is opaque.
struct RGBAColor {
    ///@{
    /// Red, green, blue and alpha, 0 to 255.
    uint8_t red = 0, green = 0, blue = 0, alpha = 0;
    ///@}
};

/// 3GPP timed text sample entry, used for subtitle tracks (handler sbtl).
/// Its font table (ftab) is a child box.
class Tx3gSampleEntry : public SampleEntry {
public:
    static constexpr FourCC kType = fourcc("tx3g"); ///< the box type
    /// Centred at the bottom, font 1 at 24 pixels, opaque white on transparent black.
    Tx3gSampleEntry() : SampleEntry(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    /// Display flags: the 3GPP bits (0x20 scroll in, 0x40 scroll out, 0x180
    /// scroll direction, 0x800 continuous karaoke, 0x20000 vertical text,
    /// 0x40000 fill the text box) and the forced-subtitle bits players read:
    /// 0x40000000 some samples are forced, 0x80000000 all are.
    uint32_t displayFlags = 0;
    /// Horizontal placement in the text box: 0 left, 1 centred, -1 right.
    int8_t horizontalJustification = 1;
    /// Vertical placement in the text box: 0 top, 1 centred, -1 bottom.
    int8_t verticalJustification = -1;
    RGBAColor backgroundColor; ///< colour behind the text
    ///@{
    /// The default text box in pixels, relative to the track's area: top, left,
    /// bottom and right edges.
    int16_t defTextBoxTop = 0, defTextBoxLeft = 0, defTextBoxBottom = 0, defTextBoxRight = 0;
    ///@}
    ///@{
    /// Character range of the default style record (0 and 0: the whole text).
    uint16_t startChar = 0, endChar = 0;
    ///@}
    uint16_t fontId = 1;   ///< the font of the default style, an ID of the ftab box
    uint8_t fontFace = 0;  ///< style bits: 1 bold, 2 italic, 4 underline; 0 plain
    uint8_t fontSize = 24; ///< font size in pixels
    RGBAColor fontColor {255, 255, 255, 255}; ///< colour of the text
};

/// tx3g font table: the fonts that style records refer to by ID.
class FtabBox : public Box {
public:
    static constexpr FourCC kType = fourcc("ftab"); ///< the box type
    /// An empty font table.
    FtabBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    /// One font of the table.
    struct Font {
        uint16_t id = 1;  ///< the ID text styles use
        std::string name; ///< font name, e.g. "Serif" (at most 255 bytes are written)
    };
    std::vector<Font> fonts; ///< the fonts, in file order
};

/// QuickTime text sample entry (chapter titles). Read in its full form and in
/// the short form some muxers write (no font fields, boxes following); both
/// are written back as read. Has no child boxes: what follows the fields is
/// kept in `trailing`. Colours are 16 bits per component.
class TextSampleEntry : public SampleEntry {
public:
    static constexpr FourCC kType = fourcc("text"); ///< the box type
    /// A full-form entry with every field 0 and centred text.
    TextSampleEntry() : SampleEntry(kType) {}
    bool hasChildren() const override { return false; }
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;

    uint32_t displayFlags = 0;     ///< QuickTime text display flags; 0 for chapter tracks
    int32_t textJustification = 1; ///< 0 left, 1 centred, -1 right
    std::array<uint16_t, 3> backgroundColor {}; ///< red, green, blue, 16 bits each
    ///@{
    /// The default text box in pixels: top, left, bottom and right edges.
    int16_t boxTop = 0, boxLeft = 0, boxBottom = 0, boxRight = 0;
    ///@}
    ///@{
    /// Reserved: eight bytes of QuickTime's scrap fields, kept as read.
    uint32_t reserved1 = 0, reserved2 = 0;
    ///@}
    ///@{
    /// Font number and style bits (1 bold, 2 italic, 4 underline) of the text.
    uint16_t fontNumber = 0, fontFace = 0;
    ///@}
    ///@{
    /// Reserved fields after the font face, kept as read.
    uint8_t reserved3 = 0;
    uint16_t reserved4 = 0;
    ///@}
    std::array<uint16_t, 3> foregroundColor {}; ///< red, green, blue of the text, 16 bits each
    std::string fontName; ///< font name as a counted string (at most 255 bytes are written), may be empty
    bool shortForm = false; ///< as read: no font fields after the text box (written back the same way)

};

/// avcC: the H.264 decoder configuration record.
class AvcCBox : public Box {
public:
    static constexpr FourCC kType = fourcc("avcC"); ///< the box type
    /// A version 1 record with 4-byte NAL unit lengths and no parameter sets.
    AvcCBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint8_t configurationVersion = 1; ///< always 1
    ///@{
    /// profile_idc, the constraint flags byte and level_idc of the stream's SPS
    /// (e.g. 100, 0, 41 for High profile, level 4.1).
    uint8_t profile = 0, profileCompatibility = 0, level = 0;
    ///@}
    /// Bytes of the length before each NAL unit in a sample, minus one (0, 1 or 3).
    uint8_t lengthSizeMinusOne = 3;
    ///@{
    /// Sequence and picture parameter sets, each a NAL unit without start code
    /// (at most 31 SPS and 255 PPS are written).
    std::vector<std::vector<uint8_t>> sps, pps;
    ///@}
    std::vector<uint8_t> extension; ///< high-profile chroma fields and beyond, kept as bytes
};

/// hvcC kept as bytes: the caller hands over a complete configuration record.
class HvcCBox : public Box {
public:
    static constexpr FourCC kType = fourcc("hvcC"); ///< the box type
    /// An empty record (to be filled before writing).
    HvcCBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint8_t> content; ///< the HEVC decoder configuration record, as stored
};

/// Elementary stream descriptor with its decoder configuration (mp4a and
/// other MPEG-4 entries). The descriptors are rebuilt from the fields when
/// written, with the length form of the source and every descriptor not read
/// kept as it was, so an unchanged esds keeps its size.
class EsdsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("esds"); ///< the box type
    /// An AAC audio descriptor without decoder specific info.
    EsdsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint16_t esId = 0; ///< elementary stream ID; 0 in MP4 files (the track ID says it)
    uint8_t objectTypeIndication = 0x40; ///< the coding: 0x40 MPEG-4 audio (AAC), 0x6B MP3, 0xA5 AC-3, ...
    uint8_t streamType = 5; ///< 6-bit stream type: 5 audio, 4 visual
    uint32_t bufferSizeDB = 0; ///< decoder buffer size in bytes (24 bits; the largest sample when computed)
    uint32_t maxBitrate = 0; ///< peak bit rate over one second, in bits per second
    uint32_t avgBitrate = 0; ///< average bit rate in bits per second; 0 when variable and unknown
    /// The decoder specific info (for AAC the AudioSpecificConfig); empty
    /// when there is none.
    std::vector<uint8_t> decoderSpecificInfo;
    bool upStream = false; ///< the stream flows from the decoder back to the encoder; false
    /// How the source wrote it, kept for an unchanged size on rewriting:
    /// bytes of each descriptor length (1 to 4; more are used when a length needs them).
    uint8_t lengthSize = 4;
    std::vector<uint8_t> esHeader;         ///< ES flags and their optional fields; empty writes flags 0
    std::vector<uint8_t> configExtra;      ///< descriptors after the decoder specific info
    /// SL config and others after the decoder config; empty writes the MP4 SL
    /// config (predefined 2).
    std::vector<uint8_t> otherDescriptors;
};

/// dac3: the AC-3 specific box, the fields of the stream's sync frame header.
class Dac3Box : public Box {
public:
    static constexpr FourCC kType = fourcc("dac3"); ///< the box type
    /// A 48 kHz, 5.1 configuration with bit rate code 0.
    Dac3Box() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    ///@{
    /// Sample rate code (0 48 kHz, 1 44.1, 2 32), bitstream ID (8), bitstream
    /// mode, audio coding mode (channel layout, 7 is 3/2), LFE present (0 or 1)
    /// and bit rate code (index of the nominal bit rate), as in the AC-3
    /// header; written in 2, 5, 3, 3, 1 and 5 bits.
    uint8_t fscod = 0, bsid = 8, bsmod = 0, acmod = 7, lfeon = 1, bitRateCode = 0;
    ///@}
};

/// dec3: the E-AC-3 specific box, kept as bytes.
class Dec3Box : public Box {
public:
    static constexpr FourCC kType = fourcc("dec3"); ///< the box type
    /// An empty box (to be filled before writing).
    Dec3Box() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint8_t> content; ///< the payload: data rate and the independent substreams
};

/// colr: the colour description of a visual entry. The nclc (QuickTime) and
/// nclx (ISO, with the full-range flag) forms are read; the payload of
/// other forms (ICC profiles) stays in `trailing`.
class ColrBox : public Box {
public:
    static constexpr FourCC kType = fourcc("colr"); ///< the box type
    /// nclx with index 1 (BT.709) everywhere and video range.
    ColrBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    FourCC colorParameterType = fourcc("nclx"); ///< nclc, nclx; others kept in trailing
    ///@{
    /// Colour primaries, transfer characteristics and matrix coefficients, as
    /// the codes of ISO/IEC 23091-2 (1 is BT.709, 9 BT.2020, 16 PQ, 18 HLG).
    uint16_t primariesIndex = 1, transferFunctionIndex = 1, matrixIndex = 1;
    ///@}
    bool fullRangeFlag = false; ///< full-range (0-255) samples rather than video range; nclx only
};

/// pasp: the pixel aspect ratio, hSpacing:vSpacing (1:1 is square pixels).
class PaspBox : public Box {
public:
    static constexpr FourCC kType = fourcc("pasp"); ///< the box type
    /// Square pixels, 1:1.
    PaspBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    ///@{
    /// Relative width and height of a pixel: the picture is shown hSpacing / vSpacing
    /// times as wide as it is coded.
    uint32_t hSpacing = 1, vSpacing = 1;
    ///@}
};

/// btrt: buffer size and bit rates of a track, computed at close for tracks
/// written in the session (unless the close asks not to).
class BtrtBox : public Box {
public:
    static constexpr FourCC kType = fourcc("btrt"); ///< the box type
    /// Every value 0 (unknown).
    BtrtBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    ///@{
    /// Decoder buffer size in bytes, peak bit rate over one second and average
    /// bit rate, in bits per second.
    uint32_t bufferSizeDB = 0, maxBitrate = 0, avgBitrate = 0;
    ///@}
};

} // namespace qx::mp4
