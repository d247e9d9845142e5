#pragma once
/// @file
/// One track of an MP4File: typed access to its boxes, its settings, its
/// references and edits, the writer state while samples are written, and
/// sample reading through the sample tables.

#include "qxmedia/mp4/MP4MovieBoxes.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/MP4SampleTables.h"

#include <optional>

namespace qx::mp4 {

class MP4File;

///@{
/// Handler types (MP4Track::type()): video, audio, subtitles (tx3g), and
/// QuickTime text (chapter titles).
inline constexpr FourCC kVideoTrack = fourcc("vide"), kAudioTrack = fourcc("soun"),
                        kSubtitleTrack = fourcc("sbtl"), kTextTrack = fourcc("text");
///@}

/// Sample dependency flags as in sdtp (and libmp4v2's MP4_SDT_*). Combine one
/// value of each pair of bits with |; 0 says nothing is known.
enum : uint8_t {
    kSampleDependsOnUnknown = 0x00,   ///< whether it depends on others is not known
    kSampleDependsOnOthers = 0x10,    ///< not an I picture
    kSampleDependsOnNone = 0x20,      ///< an I picture
    kSampleIsDependedOnUnknown = 0x00, ///< whether others depend on it is not known
    kSampleIsDependedOn = 0x04,       ///< other samples depend on it
    kSampleIsNotDependedOn = 0x08,    ///< no sample depends on it (it may be dropped)
    kSampleHasRedundancy = 0x01,      ///< it has redundant coding
    kSampleHasNoRedundancy = 0x02,    ///< it has no redundant coding
    kSampleEarlierDisplayTimesAllowed = 0x40, ///< sdtp's is_leading bits
};

/// Where one sample lies and when it plays, from the sample tables.
struct SampleInfo {
    uint64_t offset = 0;     ///< file offset of its first byte
    uint32_t size = 0;       ///< bytes
    uint64_t decodeTime = 0; ///< decoding time from the start of the media, media timescale ticks
    uint32_t duration = 0;   ///< media timescale ticks
    int32_t renderingOffset = 0; ///< composition time minus decoding time, media timescale ticks
    bool isSync = true;      ///< a sync (key) sample: decoding can start here
};

/// One track (trak box) of an open MP4File. Made by the file, which owns it;
/// valid until the file is destroyed or the track is deleted. Reading and
/// writing keep state in the object (even const calls build an index), so
/// one thread at a time uses a file and its tracks. Setters change the model;
/// they reach the disk when the file is closed. Accessors of a missing box
/// answer null, 0 or empty.
class MP4Track {
public:
    /// A track over `trak` of `file` (the file makes its tracks; hosts get them from it).
    MP4Track(MP4File& file, Box& trak);

    /// The file the track belongs to.
    MP4File& file() const { return file_; }
    /// The trak box, owned by the file's tree.
    Box& trak() const { return *trak_; }
    /// The track ID from tkhd; 0 when there is none.
    uint32_t id() const;

    ///@{
    /// A typed box of the track (tkhd, mdia/mdhd, mdia/hdlr, mdia/minf/stbl,
    /// stbl/stsd); null when it is missing or could not be read.
    TkhdBox* tkhd() const;
    MdhdBox* mdhd() const;
    HdlrBox* hdlr() const;
    Box* stbl() const;
    StsdBox* stsd() const;
    ///@}
    /// The first (or n-th) sample entry, e.g. avc1; null if none.
    Box* sampleEntry(size_t index = 0) const;
    /// A box inside the first sample entry, e.g. `sampleEntryChild<AvcCBox>()`.
    template <class T> T* sampleEntryChild() const
    {
        Box* entry = sampleEntry();
        return entry ? entry->findChild<T>() : nullptr;
    }
    /// A box by its dotted path below trak ("mdia.minf.stbl.stsd.*.pasp", see
    /// Box::findPath()); null when it is not there.
    Box* findBox(std::string_view path) const { return trak_->findPath(path); }

    /// Handler type (vide, soun, sbtl, text, ...); 0 without hdlr.
    FourCC type() const;
    /// Type of the first sample entry (avc1, mp4a, tx3g, ...); 0 if none.
    FourCC mediaDataName() const;
    /// Ticks per second of the media (mdhd); 0 without mdhd.
    uint32_t timeScale() const;
    /// Sets the media timescale; 0 is ignored. Samples already in the tables
    /// are not rescaled, so set it before writing any.
    void setTimeScale(uint32_t timescale);
    /// Length of the media in media timescale ticks: the sum of the sample
    /// durations, or mdhd's duration when there is no stts.
    uint64_t duration() const;

    // Settings.
    /// The track's name (udta/name); empty when it has none.
    std::string name() const;
    /// Sets the track's name in udta/name (made when missing); an empty name removes it.
    void setName(const std::string& name);
    /// ISO 639-2/T language code from mdhd, e.g. "eng"; "und" when unknown.
    std::string language() const;
    /// Sets the language from a three-letter ISO 639-2/T code; anything else stores "und".
    void setLanguage(const std::string& code);
    /// tkhd flags (kTrackEnabled, kTrackInMovie, kTrackInPreview); 0 without tkhd.
    uint32_t flags() const;
    /// Sets the tkhd flags (the low 24 bits are kept).
    void setFlags(uint32_t flags);
    ///@{
    /// Layer of a visual track (lower is in front), as in tkhd.
    int16_t layer() const;
    void setLayer(int16_t layer);
    ///@}
    ///@{
    /// Alternate group of tkhd: tracks sharing a non-zero group are
    /// alternatives of which one plays (e.g. audio languages); 0 for none.
    int16_t alternateGroup() const;
    void setAlternateGroup(int16_t group);
    ///@}
    ///@{
    /// Volume of tkhd as a number: 1.0 is full, 0 for non-audio tracks
    /// (stored as 8.8 fixed point, so kept within -128 to 127.99).
    double volume() const;
    void setVolume(double volume);
    ///@}
    ///@{
    /// Presentation width and height in pixels from tkhd (16.16 fixed point,
    /// kept within 0 to 65535.99); 0 for audio.
    double width() const;
    double height() const;
    void setWidth(double width);
    void setHeight(double height);
    ///@}
    ///@{
    /// Transformation matrix of tkhd (rotation, scaling); the identity when there is no tkhd.
    Matrix matrix() const;
    void setMatrix(const Matrix& matrix);
    ///@}

    // Track references (tref/<type>).
    /// True when the track has a reference list of `type` (chap, fall, ...), even an empty one.
    bool hasReference(FourCC type) const;
    /// The track IDs of the reference list of `type`, in order; empty when there is none.
    std::vector<uint32_t> references(FourCC type) const;
    /// Appends `trackId` to the list of `type`, making tref and the list as needed.
    void addReference(FourCC type, uint32_t trackId);
    /// Replaces the list of `type` with `trackIds`, making tref and the list as needed.
    void setReferences(FourCC type, const std::vector<uint32_t>& trackIds);
    /// Removes the list of `type` (and tref when it is left empty); false if there was none.
    bool removeReferences(FourCC type);
    /// Every reference list of this track, in file order.
    std::vector<std::pair<FourCC, std::vector<uint32_t>>> allReferences() const;

    /// Appends an edit (edts/elst, made when missing). mediaStart -1 is an empty
    /// edit (a gap), else a media time in the media timescale; duration in the
    /// movie timescale; `dwell` holds the frame at mediaStart for the duration.
    void addEdit(int64_t mediaStart, uint64_t duration, bool dwell = false);
    /// The edit list, in play order; empty when the track has none.
    std::vector<EditEntry> edits() const;
    /// Removes the edit list (edts) altogether.
    void removeEdits();

    // Writing.
    bool isNew = false;               ///< made in this session: close() fills in its headers
    uint32_t fixedSampleDuration = 0; ///< media timescale ticks; used when a sample's duration is -1
    /// How much media time a chunk collects before it is written out, in media
    /// timescale ticks; one second by default.
    uint64_t durationPerChunk() const { return durationPerChunk_; }
    /// Sets the chunk duration in media timescale ticks (0 counts as 1: a chunk per sample).
    void setDurationPerChunk(uint64_t duration) { durationPerChunk_ = duration ? duration : 1; }
    /// Adds a sample to the tables and the chunk buffer; the chunk is written to
    /// mdat once it holds durationPerChunk() or 16 MiB. `duration` in media
    /// ticks (-1: fixedSampleDuration); `renderingOffset` is the composition
    /// offset in ticks; `dependencyFlags` (kSample* values) starts an sdtp table.
    /// False in read mode, without sample tables, for a sample of 4 GiB or more,
    /// or when writing a chunk failed. MP4File::writeSample() is the usual way in.
    bool writeSample(const uint8_t* data, size_t size, int64_t duration, int64_t renderingOffset, bool isSync,
                     std::optional<uint8_t> dependencyFlags);
    /// True once a sample was written to this track in this session.
    bool hasNewSamples() const { return samplesWritten_ > 0; }
    /// Writes out the samples waiting for their chunk.
    bool flushChunk();
    /// Brings headers up to date with the tables (durations, stss, sdtp).
    /// Run by MP4File::close(): flushes the chunk, sets mdhd's duration and
    /// tkhd's (the edits' total, else the media duration in `movieTimescale`,
    /// rounded up) and drops an stss that lists every sample.
    void finish(uint32_t movieTimescale);
    /// Average and peak bit rate over one-second windows, from the tables, in
    /// bits per second; `bufferSize` is the largest sample in bytes. All 0
    /// without tables or timescale.
    void computeBitrates(uint32_t& average, uint32_t& peak, uint32_t& bufferSize) const;

    // Reading.
    /// Number of samples in the tables (stsz); 0 without stsz.
    uint32_t sampleCount() const;
    /// Where sample `index` (0-based) lies and when it plays. False when the
    /// index is out of range or the tables place the sample beyond the end of
    /// the file.
    bool sampleInfo(uint32_t index, SampleInfo& info) const;
    /// Reads sample `index` (0-based) from the file into `data`. False when
    /// sampleInfo() is, when the sample still waits in the chunk buffer, or
    /// when the read fails.
    bool readSample(uint32_t index, std::vector<uint8_t>& data) const;
    /// The sample size table; null when missing or unreadable.
    StszBox* stsz() const;
    /// The chunk offset table, stco or co64; null when missing or unreadable.
    ChunkOffsetBox* stco() const;
    /// False when the tables place samples beyond the end of the file.
    bool samplesFitInFile() const;
    /// The byte ranges [begin, end) of the file that its samples occupy.
    /// In sample order, with adjacent samples merged into one range.
    std::vector<std::pair<uint64_t, uint64_t>> sampleRanges() const;

private:
    void buildIndex() const;
    SttsBox* stts() const;

    MP4File& file_;
    Box* trak_;
    uint64_t durationPerChunk_ = 0;

    // Writer state: the chunk being filled.
    std::vector<uint8_t> chunkData_;
    uint32_t chunkSamples_ = 0;
    uint64_t chunkDuration_ = 0;
    uint32_t chunkCount_ = 0;
    uint32_t samplesWritten_ = 0;
    std::vector<uint32_t> syncSamples_;
    bool allSync_ = true;

    // Reading index, built on first use.
    mutable std::vector<uint64_t> sampleOffsets_;
    mutable bool indexed_ = false;
};

} // namespace qx::mp4
