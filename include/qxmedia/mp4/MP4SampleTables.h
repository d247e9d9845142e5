#pragma once
/// @file
/// The sample tables of stbl: stts, ctts, stss, sdtp, stsc, stsz, stco/co64.
/// Tables are kept run-length where the format is (stts, ctts, stsc), so a
/// long track costs a few bytes per sample in memory.
///
/// Times are in ticks of the track's media timescale (mdhd). A table whose
/// count does not fit its box is not read: the box stays plain, and for
/// stts, stsc, stsz and the chunk offsets the file counts as damaged.

#include "qxmedia/mp4/MP4Box.h"

namespace qx::mp4 {

/// A run of stts: `count` consecutive samples that each last `delta`.
struct TimeRun {
    uint32_t count = 0; ///< number of samples in the run
    uint32_t delta = 0; ///< duration of each, in media timescale ticks
};

/// stts: decoding time to sample, as runs of equal durations. A sample's
/// decoding time is the sum of the durations before it.
class SttsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stts"); ///< the box type
    /// An empty table.
    SttsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    /// Adds one sample lasting `delta` ticks, extending the last run when it matches.
    void append(uint32_t delta);
    /// Samples counted by all runs.
    uint64_t sampleCount() const;
    /// Sum of every sample's duration, in media timescale ticks.
    uint64_t totalDuration() const;

    std::vector<TimeRun> runs; ///< the runs, in sample order
};

/// A run of ctts: `count` consecutive samples with the same composition offset.
struct OffsetRun {
    uint32_t count = 0; ///< number of samples in the run
    int32_t offset = 0; ///< composition time minus decoding time, media timescale ticks
};

/// ctts: composition (presentation) time offsets, as runs. Present only when
/// some sample's offset is not 0 (frame reordering).
class CttsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("ctts"); ///< the box type
    /// An empty table.
    CttsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    /// 1 when an offset is negative (signed offsets), else the version read.
    uint8_t writeVersion() const override;
    std::string describe() const override;
    /// Adds one sample with `offset`, extending the last run when it matches.
    void append(int32_t offset);

    std::vector<OffsetRun> runs; ///< the runs, in sample order
};

/// Sync samples, 1-based sample numbers. A track without stss has only sync
/// samples.
class StssBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stss"); ///< the box type
    /// An empty table (no sample is a sync sample).
    StssBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint32_t> samples; ///< the 1-based numbers of the sync samples, ascending
};

/// Sample dependency flags, one byte per sample; its count comes from stsz.
/// Each byte holds is_leading, depends_on, is_depended_on and has_redundancy,
/// two bits each from the top (see kSampleDependsOnOthers and its family).
class SdtpBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("sdtp"); ///< the box type
    /// An empty table.
    SdtpBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint8_t> flags; ///< one byte per sample, in sample order
};

/// A run of stsc: from chunk `firstChunk` on, until the next run's first
/// chunk, each chunk holds `samplesPerChunk` samples.
struct ChunkRun {
    uint32_t firstChunk = 1; ///< 1-based number of the first chunk of the run
    uint32_t samplesPerChunk = 0; ///< samples in each chunk of the run
    uint32_t sampleDescriptionIndex = 1; ///< 1-based entry of stsd that describes these samples
};

/// stsc: sample to chunk, as runs of chunks with the same number of samples.
class StscBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stsc"); ///< the box type
    /// An empty table.
    StscBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    /// Records chunk `chunkNumber` (1-based) with `samples` samples; a new run
    /// starts only when the count or the description changes (chunks are
    /// appended in order).
    void appendChunk(uint32_t chunkNumber, uint32_t samples, uint32_t descriptionIndex = 1);

    std::vector<ChunkRun> runs; ///< the runs, in chunk order
};

/// stsz: the size of every sample in bytes, or one size for all.
class StszBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stsz"); ///< the box type
    /// An empty table.
    StszBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    /// Writes one constant size when every sample has the same size, else the list.
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    /// Number of samples in the track.
    uint32_t sampleCount() const { return constantSize ? constantCount : uint32_t(sizes.size()); }
    /// Size in bytes of sample `index` (0-based; must be below sampleCount(), not checked).
    uint32_t sampleSize(uint32_t index) const { return constantSize ? constantSize : sizes[index]; }
    /// Adds a sample of `size` bytes (turns a constant size into the list first).
    void append(uint32_t size);

    /// The size of every sample when one size was read for all; 0 when the
    /// sizes are in `sizes`. append() keeps `sizes`.
    uint32_t constantSize = 0;
    uint32_t constantCount = 0; ///< number of samples when constantSize is not 0
    std::vector<uint32_t> sizes; ///< size of each sample in bytes, when constantSize is 0
};

/// Chunk offsets; one class for stco and co64. The box type says which form
/// is written; chooseType() switches to co64 once an offset passes 4 GiB (or
/// when forced) and back to stco otherwise. The writer runs it after each
/// chunk and when offsets move.
class ChunkOffsetBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stco");   ///< the 32-bit form
    static constexpr FourCC kType64 = fourcc("co64"); ///< the 64-bit form
    /// An empty table of type stco or co64.
    explicit ChunkOffsetBox(FourCC type = kType) : FullBox(type) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    /// Picks stco or co64 by the largest offset (or co64 when `force64`).
    void chooseType();
    /// Adds `delta` to every offset (optimising, moving moov) and picks the type.
    void shift(int64_t delta);

    std::vector<uint64_t> offsets; ///< file offset in bytes of each chunk, in chunk order
    bool force64 = false; ///< keep the co64 form whatever the offsets; set when read as co64
};

} // namespace qx::mp4
