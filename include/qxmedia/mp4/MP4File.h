#pragma once
/// @file
/// An MP4 file opened through the MP4 layer: read, modified in place, or
/// created and written sample by sample.
///
///     auto file = MP4File::read(path);           // parse only
///     auto file = MP4File::modify(path);         // edit the model, close() writes moov
///     auto file = MP4File::create(path, options) // add tracks, write samples, close()
///
/// The box tree is `root()`; tracks are MP4Track objects by track ID. Nothing
/// of mdat is loaded: samples are read on request.

#include "qxmedia/core/QXExport.h"
#include "qxmedia/mp4/MP4Box.h"
#include "qxmedia/mp4/MP4MovieBoxes.h"
#include "qxmedia/mp4/MP4Track.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>

namespace qx::mp4 {

/// How MP4File::create() starts a file.
struct MP4CreateOptions {
    /// 64-bit mdat size from the start; without it a 32-bit mdat is widened at
    /// close when the data passes 4 GiB (a free box is reserved for that).
    bool use64BitData = false;
    bool addFtyp = true; ///< write an ftyp box first (with the brands below)
    bool addIods = true; ///< add an iods box to moov, with every profile level 0xFF until set
    FourCC majorBrand = fourcc("isom"); ///< ftyp's major brand, e.g. fourcc("M4V ")
    uint32_t minorVersion = 0;          ///< ftyp's minor version
    std::vector<FourCC> compatibleBrands {fourcc("isom")}; ///< ftyp's compatible brands, in order
    uint32_t timeScale = 1000; ///< the movie timescale in ticks per second (0 counts as 1000)
};

/// close() flags. MP4_CLOSE_DO_NOT_COMPUTE_BITRATE leaves the esds and btrt bit
/// rates as they are instead of computing them from the samples written in the session.
enum : uint32_t { MP4_CLOSE_DO_NOT_COMPUTE_BITRATE = 1 };

/// What the stock demuxer does not tell about a track of an MP4/MOV file.
struct MP4TrackMetadata {
    uint32_t trackId = 0; ///< the track's ID in the file
    /// Reference lists by type (chap, fall, folw, forc, and any other), each
    /// the referenced track IDs in order.
    std::map<std::string, std::vector<uint32_t>> references;
    uint32_t flags = 0; ///< tkhd flags (kTrackEnabled, kTrackInMovie, kTrackInPreview)
    int16_t layer = 0;  ///< tkhd layer; lower is in front
    int16_t alternateGroup = 0; ///< tkhd alternate group; 0 for none
    int16_t volume = 0;        ///< 8.8 fixed point as stored
    std::string protectedType; ///< the first sample entry type when protected (drmi, drms, drmt), else empty
    /// As stream metadata: "chap" = "2,3", "flags", "layer", "alternate_group",
    /// "volume" as decimal integers, "codec_tag" for protected entries.
    std::map<std::string, std::string> dictionary() const;
};

/// An open MP4 file and its box tree. Owns the tree and its tracks; one
/// thread at a time uses a file (different files may be used in parallel).
/// Calls that change the file fail (false, or 0 for a track ID) in Read mode;
/// every change reaches the disk at close(). Errors are logged through the
/// layer's log (MP4Log.h).
class QX_EXPORT MP4File {
public:
    /// How the file was opened: Read (parsed; nothing is written), Modify
    /// (edited in place; close() writes the new moov) or Create (a new file
    /// written sample by sample; close() writes moov).
    enum class Mode { Read, Modify, Create };

    /// Opens and parses the file for reading; null when it cannot be read as
    /// MP4 (cannot be opened, or no moov). Damage found while parsing is
    /// logged through MP4Log.
    static std::unique_ptr<MP4File> read(const std::filesystem::path& path);
    /// Opens for in-place editing: close() writes the edited moov back. Holds
    /// an exclusive advisory lock (flock) until closed, so edits of one file
    /// run one after the other. Leftovers of an interrupted edit are cleared
    /// first; a file with any other damage is refused (null).
    static std::unique_ptr<MP4File> modify(const std::filesystem::path& path);
    /// Creates (truncates) a file: ftyp, an mdat that samples stream into, moov at close.
    /// Null when the file cannot be created or written.
    static std::unique_ptr<MP4File> create(const std::filesystem::path& path, const MP4CreateOptions& options = {});

    /// Never writes: an edit not closed is abandoned (what it appended is cut
    /// off again), a created file is left without moov.
    ~MP4File();
    MP4File(const MP4File&) = delete;
    MP4File& operator=(const MP4File&) = delete;

    /// Writes what is pending (Modify, Create) and closes. Returns false when
    /// writing failed. Calling it twice is harmless. `flags`: 0 or
    /// MP4_CLOSE_DO_NOT_COMPUTE_BITRATE. Releases the edit lock.
    bool close(uint32_t flags = 0);
    /// True until close().
    bool isOpen() const { return fd_ >= 0; }
    /// How the file was opened.
    Mode mode() const { return mode_; }
    /// The path the file was opened with.
    const std::filesystem::path& path() const { return path_; }
    /// Size of the file in bytes, as opened and grown by what was written since.
    uint64_t fileSize() const { return fileSize_; }
    /// True when the parser found damage (see MP4Log).
    bool damaged() const { return damaged_; }

    /// The box tree: its children are the top-level boxes, in file order.
    RootBox& root() { return root_; }
    /// The movie box; null only when the tree has none.
    Box* moov() const;
    /// The file type box; null when the file has none.
    FtypBox* ftyp() const;
    /// The movie header; null when missing or unreadable.
    MvhdBox* mvhd() const;
    /// moov/udta, made when asked. Null when it is missing and `create` is false.
    Box* movieUserData(bool create);

    /// Ticks per second of the movie timescale (mvhd); 0 without mvhd.
    uint32_t timeScale() const;
    /// Sets the movie timescale; 0 is ignored. Durations already stored in
    /// movie ticks (edits) are not converted, so set it before adding any.
    void setTimeScale(uint32_t timescale);
    /// Length of the movie in movie timescale ticks (mvhd), brought up to date at close.
    uint64_t duration() const;
    ///@{
    /// Sets the visual or audio profile level of iods (0xFF: no capability
    /// required); nothing happens when there is no readable iods.
    void setVideoProfileLevel(uint8_t level);
    void setAudioProfileLevel(uint8_t level);
    ///@}
    ///@{
    /// The visual or audio profile level of iods; 0xFF when there is no readable iods.
    uint8_t videoProfileLevel() const;
    uint8_t audioProfileLevel() const;
    ///@}

    /// Every track, in file order; owned by the file.
    std::vector<MP4Track*> tracks() const;
    /// Number of tracks.
    size_t trackCount() const { return tracks_.size(); }
    /// The track with `trackId`; null if there is none.
    MP4Track* track(uint32_t trackId) const;
    /// The id of the index-th track (of a handler type, if given); 0 if none.
    uint32_t findTrackId(size_t index, FourCC type = 0) const;
    /// The ID a new track gets: above every track's ID, and at least mvhd's next track ID.
    uint32_t nextTrackId() const;
    /// Removes the track and every reference to it (Modify, Create). Its
    /// MP4Track is destroyed; its samples stay in mdat, unused. False in Read
    /// mode or when there is no such track.
    bool deleteTrack(uint32_t trackId);

    /// New tracks (Create or Modify). Each returns the track id, 0 on failure.
    /// sampleDuration -1 means the samples bring their own durations.
    /// H.264 (avc1 with avcC): `timescale` is the media timescale; width and
    /// height in pixels; profile, compatibility and level as in the SPS. A
    /// `lengthSizeMinusOne` above 3 means four-byte NAL lengths.
    uint32_t addH264VideoTrack(uint32_t timescale, int64_t sampleDuration, uint16_t width, uint16_t height,
                               uint8_t profile, uint8_t profileCompatibility, uint8_t level,
                               uint8_t lengthSizeMinusOne = 3);
    ///@{
    /// Adds an SPS or PPS (a NAL unit without start code) to the track's avcC;
    /// one already there is not added twice. False without avcC.
    bool addH264SequenceParameterSet(uint32_t trackId, const uint8_t* data, uint16_t size);
    bool addH264PictureParameterSet(uint32_t trackId, const uint8_t* data, uint16_t size);
    ///@}
    /// HEVC (hvc1 with an empty hvcC, to be set with setHEVCConfiguration()).
    uint32_t addHEVCVideoTrack(uint32_t timescale, int64_t sampleDuration, uint16_t width, uint16_t height);
    /// Sets the hvcC content: a complete HEVC decoder configuration record. False without hvcC.
    bool setHEVCConfiguration(uint32_t trackId, const uint8_t* data, size_t size);
    /// Motion JPEG (jpeg entry): each sample is one JPEG image, e.g. chapter pictures.
    uint32_t addJpegVideoTrack(uint32_t timescale, int64_t sampleDuration, uint16_t width, uint16_t height);
    /// AAC and other MPEG-4 audio (objectType 0x40 for AAC): mp4a with esds.
    /// `timescale` is the media timescale, normally the sampling rate in Hz;
    /// the entry records it as its rate when it is below 65536.
    uint32_t addAudioTrack(uint32_t timescale, int64_t sampleDuration, uint8_t objectType = 0x40);
    /// Sets the decoder specific info of the track's esds (for AAC the
    /// AudioSpecificConfig). False without esds.
    bool setTrackESConfiguration(uint32_t trackId, const uint8_t* data, size_t size);
    /// AC-3 (ac-3 with dac3): the media timescale is `samplingRate` (Hz) and
    /// each sample (sync frame) lasts 1536 ticks; the rest are the dac3 fields.
    uint32_t addAC3AudioTrack(uint32_t samplingRate, uint8_t fscod, uint8_t bsid, uint8_t bsmod, uint8_t acmod,
                              uint8_t lfeon, uint8_t bitRateCode);
    /// E-AC-3 (ec-3 with dec3): the media timescale is `samplingRate` (Hz),
    /// samples last 1536 ticks, `dec3` is the dec3 payload (may be null).
    uint32_t addEAC3AudioTrack(uint32_t samplingRate, const uint8_t* dec3, size_t size);
    /// tx3g subtitles (handler sbtl). Width and height in pixels give the track
    /// size and the default text box; layer -1 (above the video); one font,
    /// "Sans-Serif", ID 1.
    uint32_t addSubtitleTrack(uint32_t timescale, uint16_t width, uint16_t height);
    /// QuickTime text track for chapter titles, referenced by `refTrackId`
    /// through tref/chap (when refTrackId is not 0). Timescale 0 takes the
    /// reference track's (or 1000). The track is disabled, so players do not
    /// show it as text. 0 when refTrackId names no track.
    uint32_t addChapterTextTrack(uint32_t refTrackId, uint32_t timescale = 0);
    /// Appends one chapter title lasting `duration` (chapter track timescale).
    /// The title is UTF-8 (at most 1023 bytes are kept). False when the track
    /// is not a chapter text track or writing fails.
    bool addChapter(uint32_t chapterTrackId, uint64_t duration, const std::string& title);
    /// Sets the pixel aspect ratio (pasp) of a video track's first entry,
    /// replacing one already there. False when the track has no visual entry.
    bool addPixelAspectRatio(uint32_t trackId, uint32_t hSpacing, uint32_t vSpacing);
    /// Sets the colour description (colr) of a video track's first entry,
    /// replacing one already there: ISO/IEC 23091-2 codes, nclx (with the
    /// full-range flag) or QuickTime's nclc. False when the track has no visual entry.
    bool addColr(uint32_t trackId, uint16_t primaries, uint16_t transfer, uint16_t matrix, bool fullRange,
                 bool nclx = true);

    /// Samples. duration -1 takes the track's fixed duration. `data`/`size`
    /// is one coded sample (H.264: length-prefixed NAL units); `duration` and
    /// `renderingOffset` (composition minus decoding time) in media timescale
    /// ticks; `isSync` for key frames. False in Read mode, for an unknown
    /// track, or when writing failed.
    bool writeSample(uint32_t trackId, const uint8_t* data, size_t size, int64_t duration = -1,
                     int64_t renderingOffset = 0, bool isSync = true);
    /// writeSample() with sdtp dependency flags (kSampleDependsOnOthers and the
    /// rest of its family, combined with |).
    bool writeSampleDependency(uint32_t trackId, const uint8_t* data, size_t size, int64_t duration,
                               int64_t renderingOffset, bool isSync, uint8_t dependencyFlags);
    /// How much media time (media timescale ticks) a chunk of the track
    /// collects before it is written out; one second by default. False for no such track.
    bool setTrackDurationPerChunk(uint32_t trackId, uint64_t duration);
    /// The track's chunk duration in media timescale ticks; UINT64_MAX if no such track.
    uint64_t trackDurationPerChunk(uint32_t trackId) const;
    /// Converts a duration of a track's timescale to the movie's (rounded to
    /// the nearest tick); 0 when either timescale is unknown.
    uint64_t convertFromTrackDuration(uint32_t trackId, uint64_t duration) const;

    /// Track properties by the dotted names libmp4v2 callers use ("tkhd.flags",
    /// "tkhd.layer", "mdia.minf.stbl.stsd.tx3g.fontSize", "tref.chap.entries.trackId",
    /// "mdia.minf.stbl.stsd.*.colr.primariesIndex", ...; docs/MP4LAYER.md has
    /// the list). False for a name not known or a box that is not there.
    /// Setters fail in Read mode; signed fields read as their sign-extended value.
    bool setTrackIntegerProperty(uint32_t trackId, const std::string& name, uint64_t value);
    /// Reads an integer property (see setTrackIntegerProperty()).
    bool getTrackIntegerProperty(uint32_t trackId, const std::string& name, uint64_t& value) const;
    /// "tkhd.volume" (1.0 is full), "tkhd.width" and "tkhd.height" (pixels).
    bool setTrackFloatProperty(uint32_t trackId, const std::string& name, double value);
    /// Reads a float property (see setTrackFloatProperty()).
    bool getTrackFloatProperty(uint32_t trackId, const std::string& name, double& value) const;
    /// "tkhd.matrix" (36 bytes) and "mdia.minf.stbl.stsd.hvc1.hvcC.content".
    bool setTrackBytesProperty(uint32_t trackId, const std::string& name, const uint8_t* data, size_t size);
    /// Reads a bytes property (see setTrackBytesProperty()).
    bool getTrackBytesProperty(uint32_t trackId, const std::string& name, std::vector<uint8_t>& data) const;
    /// Whether a box exists below the track's trak: "tref.chap", "mdia.minf.stbl.stsd.*.pasp".
    bool haveTrackAtom(uint32_t trackId, const std::string& path) const;

    /// Source metadata of every track, by track id.
    std::map<uint32_t, MP4TrackMetadata> copyTrackMetadata() const;

    /// Writes a copy with moov first and chunk offsets shifted, under a
    /// temporary name renamed to `destination` when complete. Refuses a
    /// damaged source and a destination that is the source (same device and
    /// inode). `progress` gets 0..1; returning true from `shouldCancel` stops.
    /// Both may be empty. Free space is left out. Returns false when refused,
    /// failed or cancelled; the destination is then as it was.
    static bool optimize(const std::filesystem::path& source, const std::filesystem::path& destination,
                         const std::function<void(double)>& progress = {},
                         const std::function<bool()>& shouldCancel = {});

    /// Test seam: the writer performs `operations` more writes, syncs and
    /// truncations, then fails the next one, and every later one when
    /// `permanently` (a killed process: nothing more reaches the file). A
    /// negative count turns it off.
    static void failWritesAfter(int operations, bool permanently);

    /// Low-level I/O for the track writer and readers: reads `size` bytes at
    /// `offset`; false when the file ends first or reading fails.
    bool readAt(uint64_t offset, void* data, size_t size) const;
    /// Appends a chunk of sample data to mdat, returning its file offset.
    /// False in Read mode or once a write has failed. In Modify mode the first
    /// call opens a new mdat at the end of the file.
    bool appendMediaData(const uint8_t* data, size_t size, uint64_t& offset);
    /// Leaves `size` bytes of mdat unwritten (a hole in the file): room that
    /// no sample refers to, e.g. to test files beyond 4 GiB cheaply.
    bool skipMediaData(uint64_t size);

private:
    MP4File(const std::filesystem::path& path, Mode mode);
    bool open();
    bool parse();
    void adoptTracks();
    MP4Track* newTrack(FourCC handler, uint32_t timescale, const std::string& handlerName);
    Box* newSampleEntry(MP4Track& track, std::unique_ptr<Box> entry);
    bool writeMoovCreated(uint32_t flags);
    bool writeMoovModified(uint32_t flags);
    void finishTracks(uint32_t flags);
    bool writeAt(uint64_t offset, const void* data, size_t size);
    bool syncFile();
    bool truncateFile(uint64_t size);
    void checkSampleTables();
    // In-place update (MP4FileUpdate.cpp).
    bool repairLeftovers();
    bool holdsSamples(uint64_t begin, uint64_t end) const;
    bool retireBox(Box& box);
    bool pinLastBox();
    bool openHiddenTail();
    bool exposeHiddenTail();
    bool cutUnusedTail();
    bool placeMoov(const std::vector<uint8_t>& bytes, bool& switched);
    void abandonEdit();

    std::filesystem::path path_;
    Mode mode_;
    int fd_ = -1;
    uint64_t fileSize_ = 0;
    bool damaged_ = false;
    // Offset of a box cut short at the end of the file (a leftover of an
    // interrupted edit, or a truncated file); UINT64_MAX if none.
    uint64_t cutShortAt_ = UINT64_MAX;
    bool damagedElsewhere_ = false;
    uint64_t sizeAtOpen_ = 0;
    bool lastBoxPinned_ = false;
    // Where this edit started appending: a free box "to the end of the file"
    // that hides what follows until the switch; UINT64_MAX if none.
    uint64_t hiddenTail_ = UINT64_MAX;
    // Where the samples of the file as opened lie (Modify): never written to.
    std::vector<std::pair<uint64_t, uint64_t>> liveSamples_;
    RootBox root_;
    std::vector<std::unique_ptr<MP4Track>> tracks_;

    // Create mode.
    MP4CreateOptions options_;
    uint64_t mdatOffset_ = 0; // start of the mdat header (after the reserved free box)
    uint64_t writePosition_ = 0;
    bool writeFailed_ = false;
    friend class MP4Track;
};

} // namespace qx::mp4
