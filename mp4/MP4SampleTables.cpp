#include "qxmedia/mp4/MP4SampleTables.h"

namespace qx::mp4 {

namespace {
// A count read from a damaged file must not make us allocate more than the
// payload can hold.
bool countFits(uint64_t count, const ByteReader& in, size_t entrySize)
{
    return count <= in.remaining() / entrySize;
}
} // namespace

bool SttsBox::parseFullFields(ByteReader& in)
{
    uint32_t count = in.u32();
    if (!countFits(count, in, 8)) return false;
    runs.resize(count);
    for (auto& r : runs) {
        r.count = in.u32();
        r.delta = in.u32();
    }
    return in.ok();
}

void SttsBox::writeFullFields(ByteWriter& out) const
{
    out.u32(uint32_t(runs.size()));
    for (const auto& r : runs) {
        out.u32(r.count);
        out.u32(r.delta);
    }
}

void SttsBox::append(uint32_t delta)
{
    if (!runs.empty() && runs.back().delta == delta && runs.back().count < UINT32_MAX)
        ++runs.back().count;
    else
        runs.push_back({1, delta});
}

uint64_t SttsBox::sampleCount() const
{
    uint64_t n = 0;
    for (const auto& r : runs) n += r.count;
    return n;
}

uint64_t SttsBox::totalDuration() const
{
    uint64_t d = 0;
    for (const auto& r : runs) d += uint64_t(r.count) * r.delta;
    return d;
}

std::string SttsBox::describe() const
{
    return std::to_string(sampleCount()) + " samples in " + std::to_string(runs.size()) + " runs, duration " +
           std::to_string(totalDuration());
}

bool CttsBox::parseFullFields(ByteReader& in)
{
    uint32_t count = in.u32();
    if (!countFits(count, in, 8)) return false;
    runs.resize(count);
    for (auto& r : runs) {
        r.count = in.u32();
        r.offset = in.i32(); // version 0 offsets above 2^31 do not occur in practice
    }
    return in.ok();
}

uint8_t CttsBox::writeVersion() const
{
    for (const auto& r : runs)
        if (r.offset < 0) return 1;
    return version;
}

void CttsBox::writeFullFields(ByteWriter& out) const
{
    out.u32(uint32_t(runs.size()));
    for (const auto& r : runs) {
        out.u32(r.count);
        out.u32(uint32_t(r.offset));
    }
}

void CttsBox::append(int32_t offset)
{
    if (!runs.empty() && runs.back().offset == offset && runs.back().count < UINT32_MAX)
        ++runs.back().count;
    else
        runs.push_back({1, offset});
}

std::string CttsBox::describe() const { return std::to_string(runs.size()) + " runs"; }

bool StssBox::parseFullFields(ByteReader& in)
{
    uint32_t count = in.u32();
    if (!countFits(count, in, 4)) return false;
    samples.resize(count);
    for (auto& s : samples) s = in.u32();
    return in.ok();
}

void StssBox::writeFullFields(ByteWriter& out) const
{
    out.u32(uint32_t(samples.size()));
    for (auto s : samples) out.u32(s);
}

std::string StssBox::describe() const { return std::to_string(samples.size()) + " sync samples"; }

bool SdtpBox::parseFullFields(ByteReader& in)
{
    flags = in.rest();
    return true;
}

void SdtpBox::writeFullFields(ByteWriter& out) const { out.bytes(flags); }

std::string SdtpBox::describe() const { return std::to_string(flags.size()) + " samples"; }

bool StscBox::parseFullFields(ByteReader& in)
{
    uint32_t count = in.u32();
    if (!countFits(count, in, 12)) return false;
    runs.resize(count);
    for (auto& r : runs) {
        r.firstChunk = in.u32();
        r.samplesPerChunk = in.u32();
        r.sampleDescriptionIndex = in.u32();
    }
    return in.ok();
}

void StscBox::writeFullFields(ByteWriter& out) const
{
    out.u32(uint32_t(runs.size()));
    for (const auto& r : runs) {
        out.u32(r.firstChunk);
        out.u32(r.samplesPerChunk);
        out.u32(r.sampleDescriptionIndex);
    }
}

void StscBox::appendChunk(uint32_t chunkNumber, uint32_t samples, uint32_t descriptionIndex)
{
    if (!runs.empty() && runs.back().samplesPerChunk == samples &&
        runs.back().sampleDescriptionIndex == descriptionIndex)
        return;
    runs.push_back({chunkNumber, samples, descriptionIndex});
}

std::string StscBox::describe() const { return std::to_string(runs.size()) + " runs"; }

bool StszBox::parseFullFields(ByteReader& in)
{
    constantSize = in.u32();
    uint32_t count = in.u32();
    sizes.clear();
    constantCount = 0;
    if (constantSize != 0) {
        constantCount = count;
        return in.ok();
    }
    if (!countFits(count, in, 4)) return false;
    sizes.resize(count);
    for (auto& s : sizes) s = in.u32();
    return in.ok();
}

void StszBox::writeFullFields(ByteWriter& out) const
{
    if (constantSize != 0) {
        out.u32(constantSize);
        out.u32(constantCount);
        return;
    }
    bool same = !sizes.empty();
    for (auto s : sizes) same = same && s == sizes.front();
    if (same) {
        out.u32(sizes.front());
        out.u32(uint32_t(sizes.size()));
        return;
    }
    out.u32(0);
    out.u32(uint32_t(sizes.size()));
    for (auto s : sizes) out.u32(s);
}

void StszBox::append(uint32_t size)
{
    if (constantSize != 0) {
        sizes.assign(constantCount, constantSize);
        constantSize = 0;
        constantCount = 0;
    }
    sizes.push_back(size);
}

std::string StszBox::describe() const
{
    uint64_t total = 0;
    for (uint32_t i = 0; i < sampleCount(); ++i) total += sampleSize(i);
    return std::to_string(sampleCount()) + " samples, " + std::to_string(total) + " bytes";
}

bool ChunkOffsetBox::parseFullFields(ByteReader& in)
{
    bool wide = type() == kType64;
    uint32_t count = in.u32();
    if (!countFits(count, in, wide ? 8 : 4)) return false;
    offsets.resize(count);
    for (auto& o : offsets) o = in.uvar(wide);
    force64 = wide;
    return in.ok();
}

void ChunkOffsetBox::writeFullFields(ByteWriter& out) const
{
    bool wide = type() == kType64;
    out.u32(uint32_t(offsets.size()));
    for (auto o : offsets) out.uvar(o, wide);
}

void ChunkOffsetBox::chooseType()
{
    bool wide = force64;
    for (auto o : offsets) wide = wide || o > UINT32_MAX;
    setType(wide ? kType64 : kType);
}

void ChunkOffsetBox::shift(int64_t delta)
{
    for (auto& o : offsets) o = uint64_t(int64_t(o) + delta);
    chooseType();
}

std::string ChunkOffsetBox::describe() const
{
    std::string text = std::to_string(offsets.size()) + " chunks";
    if (!offsets.empty()) text += ", first at " + std::to_string(offsets.front());
    return text;
}

} // namespace qx::mp4
