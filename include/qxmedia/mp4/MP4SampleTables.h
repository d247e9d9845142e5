#pragma once
// The sample tables of stbl: stts, ctts, stss, sdtp, stsc, stsz, stco/co64.
// Tables are kept run-length where the format is (stts, ctts, stsc), so a
// long track costs a few bytes per sample in memory.

#include "qxmedia/mp4/MP4Box.h"

namespace qx::mp4 {

struct TimeRun {
    uint32_t count = 0;
    uint32_t delta = 0;
};

class SttsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stts");
    SttsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    void append(uint32_t delta);
    uint64_t sampleCount() const;
    uint64_t totalDuration() const;

    std::vector<TimeRun> runs;
};

struct OffsetRun {
    uint32_t count = 0;
    int32_t offset = 0;
};

class CttsBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("ctts");
    CttsBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    uint8_t writeVersion() const override; // 1 when an offset is negative
    std::string describe() const override;
    void append(int32_t offset);

    std::vector<OffsetRun> runs;
};

// Sync samples, 1-based sample numbers.
class StssBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stss");
    StssBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint32_t> samples;
};

// Sample dependency flags, one byte per sample; its count comes from stsz.
class SdtpBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("sdtp");
    SdtpBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    std::vector<uint8_t> flags;
};

struct ChunkRun {
    uint32_t firstChunk = 1; // 1-based
    uint32_t samplesPerChunk = 0;
    uint32_t sampleDescriptionIndex = 1;
};

class StscBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stsc");
    StscBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    // Records a chunk with `samples` samples (chunks are appended in order).
    void appendChunk(uint32_t chunkNumber, uint32_t samples, uint32_t descriptionIndex = 1);

    std::vector<ChunkRun> runs;
};

class StszBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stsz");
    StszBox() : FullBox(kType) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override; // uses a constant size when all are equal
    std::string describe() const override;
    uint32_t sampleCount() const { return constantSize ? constantCount : uint32_t(sizes.size()); }
    uint32_t sampleSize(uint32_t index) const { return constantSize ? constantSize : sizes[index]; }
    void append(uint32_t size);

    uint32_t constantSize = 0; // as read; append() keeps `sizes`
    uint32_t constantCount = 0;
    std::vector<uint32_t> sizes;
};

// Chunk offsets; one class for stco and co64. The type follows the values
// when written: co64 once an offset passes 4 GiB (or when forced).
class ChunkOffsetBox : public FullBox {
public:
    static constexpr FourCC kType = fourcc("stco");
    static constexpr FourCC kType64 = fourcc("co64");
    explicit ChunkOffsetBox(FourCC type = kType) : FullBox(type) {}
    bool parseFullFields(ByteReader& in) override;
    void writeFullFields(ByteWriter& out) const override;
    std::string describe() const override;
    // Picks stco or co64 by the largest offset (or co64 when `force64`).
    void chooseType();
    // Adds `delta` to every offset (optimising, moving moov) and picks the type.
    void shift(int64_t delta);

    std::vector<uint64_t> offsets;
    bool force64 = false;
};

} // namespace qx::mp4
