#pragma once
// Typed boxes of the movie and track structure: ftyp, mvhd, iods, tkhd,
// mdhd, hdlr, elst, tref entries, media headers, udta/name, meta.

#include "qxmedia/mp4/MP4Box.h"

#include <array>

namespace qx::mp4 {

class FtypBox : public Box {
public:
    static constexpr FourCC kType = fourcc("ftyp");
    FtypBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    FourCC majorBrand = fourcc("isom");
    uint32_t minorVersion = 0;
    std::vector<FourCC> compatibleBrands;
};

// 16.16 and 2.30 fixed-point matrix of mvhd and tkhd (a b u / c d v / x y w).
using Matrix = std::array<int32_t, 9>;
constexpr Matrix kIdentityMatrix {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};

class MvhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("mvhd");
    MvhdBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;

    uint64_t creationTime = 0; // seconds since 1904
    uint64_t modificationTime = 0;
    uint32_t timescale = 1000;
    uint64_t duration = 0;
    int32_t rate = 0x10000;
    int16_t volume = 0x100;
    Matrix matrix = kIdentityMatrix;
    std::array<uint32_t, 6> predefined {};
    uint32_t nextTrackId = 1;
};

// Initial object descriptor with the profile levels of the presentation.
class IodsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("iods");
    IodsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint16_t objectDescriptorId = 1;
    uint8_t odProfileLevel = 0xFF;
    uint8_t sceneProfileLevel = 0xFF;
    uint8_t audioProfileLevel = 0xFF;
    uint8_t visualProfileLevel = 0xFF;
    uint8_t graphicsProfileLevel = 0xFF;
    bool parsed = false;     // the levels were found (or the box is new)
    std::vector<uint8_t> raw; // the descriptor as read; empty for a new box
    size_t levelsOffset = 0;
};

// Track header flags.
enum : uint32_t { kTrackEnabled = 1, kTrackInMovie = 2, kTrackInPreview = 4 };

class TkhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("tkhd");
    TkhdBox() : FullBox(kType, 0, kTrackEnabled | kTrackInMovie) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;

    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    uint32_t trackId = 0;
    uint64_t duration = 0; // movie timescale
    int16_t layer = 0;
    int16_t alternateGroup = 0;
    int16_t volume = 0; // 8.8
    Matrix matrix = kIdentityMatrix;
    uint32_t width = 0; // 16.16
    uint32_t height = 0;
};

class MdhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("mdhd");
    MdhdBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;
    // ISO 639-2/T code, three lower-case letters ("und" when unset).
    std::string languageCode() const;
    void setLanguageCode(const std::string& code);

    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    uint32_t timescale = 1000;
    uint64_t duration = 0;
    uint16_t language = 0x55C4; // packed "und"
    uint16_t quality = 0;
};

class HdlrBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("hdlr");
    HdlrBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;

    FourCC componentType = 0; // "mhlr" in QuickTime files, 0 in MP4
    FourCC handlerType = 0;   // vide, soun, sbtl, text, ...
    std::array<uint32_t, 3> reserved {};
    std::string name;
    bool pascalName = false; // QuickTime writes a counted string
    bool terminated = true;  // MP4 ends the name with a zero (some files do not)
};

struct EditEntry {
    uint64_t segmentDuration = 0; // movie timescale
    int64_t mediaTime = -1;       // media timescale; -1 is an empty edit
    int16_t mediaRateInteger = 1;
    int16_t mediaRateFraction = 0;
};

class ElstBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("elst");
    ElstBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;

    std::vector<EditEntry> entries; // version chosen at write time
};

// One list of a tref box: chap, fall, folw, forc, hint, ...
class TrackReferenceTypeBox : public Box {
public:
    explicit TrackReferenceTypeBox(FourCC type) : Box(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    std::vector<uint32_t> trackIds;
};

// Video and sound media headers, written for new tracks.
class VmhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("vmhd");
    VmhdBox() : FullBox(kType, 0, 1) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint16_t graphicsMode = 0;
    std::array<uint16_t, 3> opcolor {};
};

class SmhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("smhd");
    SmhdBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    int16_t balance = 0;
};

// udta/name: the track's name (no terminator).
class TrackNameBox : public Box {
public:
    static constexpr FourCC kType = fourcc("name");
    TrackNameBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::string name;
    bool terminated = false; // as read: the name ended with a zero
};

// meta: a full box in MP4, a plain container in QuickTime files; both read.
class MetaBox : public ContainerBox {
public:
    static constexpr FourCC kType = fourcc("meta");
    MetaBox() : ContainerBox(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    bool quickTimeForm = false;
    uint8_t version = 0;
    uint32_t flags = 0;
};

// Convenience names for the plain containers.
inline constexpr FourCC kMoov = fourcc("moov"), kTrak = fourcc("trak"), kMdia = fourcc("mdia"),
                        kMinf = fourcc("minf"), kStbl = fourcc("stbl"), kDinf = fourcc("dinf"),
                        kEdts = fourcc("edts"), kUdta = fourcc("udta"), kTref = fourcc("tref"),
                        kMdat = fourcc("mdat"), kFree = fourcc("free"), kSkip = fourcc("skip"),
                        kWide = fourcc("wide"), kStsd = fourcc("stsd"), kIlst = fourcc("ilst");

} // namespace qx::mp4
