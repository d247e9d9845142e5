#pragma once
/// @file
/// Typed boxes of the movie and track structure: ftyp, mvhd, iods, tkhd,
/// mdhd, hdlr, elst, tref entries, media headers, udta/name, meta.
///
/// Times in these boxes are seconds since midnight, 1 January 1904 (UTC);
/// durations are ticks of the movie timescale (mvhd, tkhd, edit segment
/// durations) or of the track's media timescale (mdhd, edit media times).

#include "qxmedia/mp4/MP4Box.h"

#include <array>

namespace qx::mp4 {

/// ftyp: the brands a file conforms to, first in the file.
class FtypBox : public Box {
public:
    static constexpr FourCC kType = fourcc("ftyp"); ///< the box type
    /// An "isom" file type without compatible brands.
    FtypBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    FourCC majorBrand = fourcc("isom"); ///< the brand the file is best read as ("isom", "M4V ", "mp42", "qt  ")
    uint32_t minorVersion = 0;          ///< version of the major brand (informative)
    std::vector<FourCC> compatibleBrands; ///< every brand the file conforms to, in file order
};

/// 16.16 and 2.30 fixed-point matrix of mvhd and tkhd (a b u / c d v / x y w),
/// row by row: a, b, c, d, x and y are 16.16, u, v and w are 2.30.
using Matrix = std::array<int32_t, 9>;
/// The matrix that leaves the picture as it is.
constexpr Matrix kIdentityMatrix {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};

/// mvhd: the movie header. Written as version 1 (64-bit times) when a time
/// or the duration does not fit 32 bits, or when it was read so.
class MvhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("mvhd"); ///< the box type
    /// A header with a timescale of 1000 and nothing else set.
    MvhdBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;

    ///@{
    /// Creation and last modification, in seconds since 1904 (0: unknown).
    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    ///@}
    uint32_t timescale = 1000; ///< ticks per second of the movie timescale
    uint64_t duration = 0;     ///< length of the longest track, in movie timescale ticks
    int32_t rate = 0x10000;    ///< preferred playback rate, 16.16 (0x10000 is normal speed)
    int16_t volume = 0x100;    ///< preferred volume, 8.8 (0x100 is full)
    Matrix matrix = kIdentityMatrix; ///< transformation of the whole movie's picture
    /// Six words after the matrix: zero in MP4; QuickTime's preview, poster,
    /// selection and current times. Kept as read.
    std::array<uint32_t, 6> predefined {};
    /// The ID a new track gets; kept above the highest track ID when written.
    uint32_t nextTrackId = 1;
};

/// Initial object descriptor with the profile levels of the presentation.
/// A descriptor read from a file is written back as it was, with only the
/// five level bytes replaced (and those only when they were found).
class IodsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("iods"); ///< the box type
    /// A new descriptor with ID 1 and every level 0xFF.
    IodsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;

    uint16_t objectDescriptorId = 1; ///< 10-bit object descriptor ID
    ///@{
    /// MPEG-4 profile and level indications of the presentation, one byte each:
    /// 0xFF means no capability required, 0xFE no profile specified.
    uint8_t odProfileLevel = 0xFF;
    uint8_t sceneProfileLevel = 0xFF;
    uint8_t audioProfileLevel = 0xFF;
    uint8_t visualProfileLevel = 0xFF;
    uint8_t graphicsProfileLevel = 0xFF;
    ///@}
    /// The levels are known: found in `raw`, or set on a new box by whoever made
    /// it. False for a descriptor with a URL or of another form, whose bytes
    /// are then written back untouched; the file's level setters do nothing then.
    bool parsed = false;
    std::vector<uint8_t> raw; ///< the descriptor as read; empty for a new box
    size_t levelsOffset = 0;  ///< where the five level bytes start in `raw`
};

/// Track header flags (the `flags` of tkhd; combine with |): kTrackEnabled, the
/// track is played; kTrackInMovie, it is part of the presentation;
/// kTrackInPreview, it is used when previewing.
enum : uint32_t { kTrackEnabled = 1, kTrackInMovie = 2, kTrackInPreview = 4 };

/// tkhd: the track header. Written as version 1 (64-bit times) when a time or
/// the duration does not fit 32 bits, or when it was read so. New headers
/// are enabled and in the movie.
class TkhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("tkhd"); ///< the box type
    /// An enabled, in-movie header with every field 0 and the identity matrix.
    TkhdBox() : FullBox(kType, 0, kTrackEnabled | kTrackInMovie) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;

    ///@{
    /// Creation and last modification, in seconds since 1904 (0: unknown).
    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    ///@}
    uint32_t trackId = 0;  ///< the track's ID, unique in the movie and never 0 in a valid file
    uint64_t duration = 0; ///< in movie timescale ticks; the sum of the edits when there are edits
    int16_t layer = 0;          ///< front-to-back order of visual tracks; lower is in front
    int16_t alternateGroup = 0; ///< tracks sharing a non-zero group are alternatives (languages); 0: none
    int16_t volume = 0;         ///< 8.8 fixed point: 0x100 for full volume on audio tracks, 0 otherwise
    Matrix matrix = kIdentityMatrix; ///< transformation of the track's picture
    uint32_t width = 0;  ///< presentation width in pixels, 16.16 fixed point (0 for audio)
    uint32_t height = 0; ///< presentation height in pixels, 16.16 fixed point (0 for audio)
};

/// mdhd: the media header of a track: its timescale, duration and language.
/// Written as version 1 (64-bit times) when needed or when it was read so.
class MdhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("mdhd"); ///< the box type
    /// A header with a timescale of 1000 and the language "und".
    MdhdBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;
    /// ISO 639-2/T code, three lower-case letters ("und" when unset, and for
    /// the old Macintosh language numbers, values below 0x400).
    std::string languageCode() const;
    /// Packs a three-letter code (upper case is lowered); anything that is not
    /// three ASCII letters stores "und".
    void setLanguageCode(const std::string& code);

    ///@{
    /// Creation and last modification, in seconds since 1904 (0: unknown).
    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    ///@}
    uint32_t timescale = 1000; ///< ticks per second of the track's media (samples are timed in these)
    uint64_t duration = 0;     ///< length of the media, in media timescale ticks
    /// ISO 639-2/T code packed as three 5-bit letters (each minus 0x60): 0x55C4
    /// is "und". See languageCode().
    uint16_t language = 0x55C4;
    uint16_t quality = 0; ///< QuickTime's playback quality; 0 (pre-defined) in MP4
};

/// hdlr: what kind of media a track holds (or, below meta, what the metadata
/// is). Both the MP4 form (zero-terminated name) and QuickTime's (counted
/// name) are read and written back in the form read.
class HdlrBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("hdlr"); ///< the box type
    /// An MP4-form handler with no type and an empty, terminated name.
    HdlrBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;

    FourCC componentType = 0; ///< "mhlr" in QuickTime files, 0 in MP4
    FourCC handlerType = 0;   ///< vide, soun, sbtl, text, ...; mdir below meta
    /// Three words after the handler type: zero in MP4; QuickTime's component
    /// manufacturer ("appl" for iTunes metadata), flags and flags mask.
    std::array<uint32_t, 3> reserved {};
    std::string name;         ///< a name for people, e.g. "SoundHandler" (UTF-8; may be empty)
    bool pascalName = false;  ///< QuickTime writes a counted string (at most 255 bytes are written)
    bool terminated = true;   ///< MP4 ends the name with a zero (some files do not)
};

/// One entry of an edit list: a segment of the movie timeline and the media
/// time it shows.
struct EditEntry {
    uint64_t segmentDuration = 0; ///< length of the segment, in movie timescale ticks
    int64_t mediaTime = -1;       ///< where the segment starts in the media, media timescale; -1 is an empty edit
    int16_t mediaRateInteger = 1; ///< playback rate, integer part: 1 normal, 0 dwell (holds the frame at mediaTime)
    int16_t mediaRateFraction = 0; ///< playback rate, fraction part (1/65536 units); 0 in practice
};

/// elst: the edit list of a track (inside edts). Written as version 1 (64-bit
/// durations and times) only when an entry needs it.
class ElstBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("elst"); ///< the box type
    /// An empty edit list.
    ElstBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override;
    std::string describe() const override;

    std::vector<EditEntry> entries; ///< the edits, in play order (version chosen at write time)
};

/// One list of a tref box: chap, fall, folw, forc, hint, ... The box type is
/// the reference type; every child of tref is read with this class.
class TrackReferenceTypeBox : public Box {
public:
    /// An empty list of reference type `type` (e.g. fourcc("chap")).
    explicit TrackReferenceTypeBox(FourCC type) : Box(type) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    std::vector<uint32_t> trackIds; ///< IDs of the referenced tracks, in file order
};

/// vmhd: the video media header, written for new video tracks (flags 1, as
/// the format requires).
class VmhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("vmhd"); ///< the box type
    /// A header with flags 1, copy mode and a black operation colour.
    VmhdBox() : FullBox(kType, 0, 1) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint16_t graphicsMode = 0;       ///< composition mode; 0 copies the picture
    std::array<uint16_t, 3> opcolor {}; ///< red, green, blue for the composition modes that use a colour
};

/// smhd: the sound media header, written for new audio tracks.
class SmhdBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("smhd"); ///< the box type
    /// A header with the balance in the centre.
    SmhdBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    int16_t balance = 0; ///< stereo balance, 8.8 fixed point: 0 centre, -1.0 full left, 1.0 full right
};

/// udta/name: the track's name (no terminator). Registered only below udta.
class TrackNameBox : public Box {
public:
    static constexpr FourCC kType = fourcc("name"); ///< the box type
    /// An empty name, written without a terminator.
    TrackNameBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::string name; ///< the name as stored (UTF-8 in practice), up to the first zero
    bool terminated = false; ///< as read: the name ended with a zero (written back the same way)
};

/// meta: a full box in MP4, a plain container in QuickTime files; both read
/// and written back in the form read.
class MetaBox : public ContainerBox {
public:
    static constexpr FourCC kType = fourcc("meta"); ///< the box type
    /// An empty meta box in the MP4 form (version 0, flags 0).
    MetaBox() : ContainerBox(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    bool quickTimeForm = false; ///< as read: no version and flags, the children start at once
    ///@{
    /// Version and flags of the MP4 form; not written in the QuickTime form.
    uint8_t version = 0;
    uint32_t flags = 0;
    ///@}
};

///@{
/// Types of plain containers and other boxes the layer looks for by FourCC.
inline constexpr FourCC kMoov = fourcc("moov"), kTrak = fourcc("trak"), kMdia = fourcc("mdia"),
                        kMinf = fourcc("minf"), kStbl = fourcc("stbl"), kDinf = fourcc("dinf"),
                        kEdts = fourcc("edts"), kUdta = fourcc("udta"), kTref = fourcc("tref"),
                        kMdat = fourcc("mdat"), kFree = fourcc("free"), kSkip = fourcc("skip"),
                        kWide = fourcc("wide"), kStsd = fourcc("stsd"), kIlst = fourcc("ilst");
///@}

} // namespace qx::mp4
