#pragma once
// One track of an MP4File: typed access to its boxes, its settings, its
// references and edits, the writer state while samples are written, and
// sample reading through the sample tables.

#include "qxmedia/mp4/MP4MovieBoxes.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/MP4SampleTables.h"

#include <optional>

namespace qx::mp4 {

class MP4File;

// Handler types.
inline constexpr FourCC kVideoTrack = fourcc("vide"), kAudioTrack = fourcc("soun"),
                        kSubtitleTrack = fourcc("sbtl"), kTextTrack = fourcc("text");

// Sample dependency flags as in sdtp (and libmp4v2's MP4_SDT_*).
enum : uint8_t {
    kSampleDependsOnUnknown = 0x00,
    kSampleDependsOnOthers = 0x10,    // not an I picture
    kSampleDependsOnNone = 0x20,      // an I picture
    kSampleIsDependedOnUnknown = 0x00,
    kSampleIsDependedOn = 0x04,
    kSampleIsNotDependedOn = 0x08,
    kSampleHasRedundancy = 0x01,
    kSampleHasNoRedundancy = 0x02,
    kSampleEarlierDisplayTimesAllowed = 0x40, // sdtp's is_leading bits
};

struct SampleInfo {
    uint64_t offset = 0;
    uint32_t size = 0;
    uint64_t decodeTime = 0; // media timescale
    uint32_t duration = 0;
    int32_t renderingOffset = 0;
    bool isSync = true;
};

class MP4Track {
public:
    MP4Track(MP4File& file, Box& trak);

    MP4File& file() const { return file_; }
    Box& trak() const { return *trak_; }
    uint32_t id() const;

    TkhdBox* tkhd() const;
    MdhdBox* mdhd() const;
    HdlrBox* hdlr() const;
    Box* stbl() const;
    StsdBox* stsd() const;
    // The first (or n-th) sample entry, e.g. avc1; null if none.
    Box* sampleEntry(size_t index = 0) const;
    // A box inside the first sample entry, e.g. sampleEntryChild<AvcCBox>().
    template <class T> T* sampleEntryChild() const
    {
        Box* entry = sampleEntry();
        return entry ? entry->findChild<T>() : nullptr;
    }
    Box* findBox(std::string_view path) const { return trak_->findPath(path); }

    // Handler type (vide, soun, sbtl, text, ...) and first sample entry type.
    FourCC type() const;
    FourCC mediaDataName() const;
    uint32_t timeScale() const;
    void setTimeScale(uint32_t timescale);
    uint64_t duration() const; // media timescale, from the sample table

    // Settings.
    std::string name() const;
    void setName(const std::string& name); // udta/name; empty removes it
    std::string language() const;          // ISO 639-2/T
    void setLanguage(const std::string& code);
    uint32_t flags() const;
    void setFlags(uint32_t flags);
    int16_t layer() const;
    void setLayer(int16_t layer);
    int16_t alternateGroup() const;
    void setAlternateGroup(int16_t group);
    double volume() const;
    void setVolume(double volume);
    double width() const;
    double height() const;
    void setWidth(double width);
    void setHeight(double height);
    Matrix matrix() const;
    void setMatrix(const Matrix& matrix);

    // Track references (tref/<type>).
    bool hasReference(FourCC type) const;
    std::vector<uint32_t> references(FourCC type) const;
    void addReference(FourCC type, uint32_t trackId);
    void setReferences(FourCC type, const std::vector<uint32_t>& trackIds);
    bool removeReferences(FourCC type);
    // Every reference list of this track, in file order.
    std::vector<std::pair<FourCC, std::vector<uint32_t>>> allReferences() const;

    // Edit list. mediaStart -1 is an empty edit; duration in the movie timescale.
    void addEdit(int64_t mediaStart, uint64_t duration, bool dwell = false);
    std::vector<EditEntry> edits() const;
    void removeEdits();

    // Writing.
    bool isNew = false;               // made in this session: close() fills in its headers
    uint32_t fixedSampleDuration = 0; // used when a sample's duration is -1
    uint64_t durationPerChunk() const { return durationPerChunk_; }
    void setDurationPerChunk(uint64_t duration) { durationPerChunk_ = duration ? duration : 1; }
    bool writeSample(const uint8_t* data, size_t size, int64_t duration, int64_t renderingOffset, bool isSync,
                     std::optional<uint8_t> dependencyFlags);
    bool hasNewSamples() const { return samplesWritten_ > 0; }
    // Writes out the samples waiting for their chunk.
    bool flushChunk();
    // Brings headers up to date with the tables (durations, stss, sdtp).
    void finish(uint32_t movieTimescale);
    // Average and peak bit rate over one-second windows, from the tables.
    void computeBitrates(uint32_t& average, uint32_t& peak, uint32_t& bufferSize) const;

    // Reading.
    uint32_t sampleCount() const;
    bool sampleInfo(uint32_t index, SampleInfo& info) const; // 0-based
    bool readSample(uint32_t index, std::vector<uint8_t>& data) const;
    StszBox* stsz() const;
    ChunkOffsetBox* stco() const; // stco or co64
    // False when the tables place samples beyond the end of the file.
    bool samplesFitInFile() const;
    // The byte ranges [begin, end) of the file that its samples occupy.
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
