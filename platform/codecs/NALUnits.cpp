#include "qxmedia/platform/codecs/NALUnits.h"

#include "qxmedia/platform/codecs/ParameterSetParser.h"

namespace qx {

const uint8_t* avcFindStartCode(const uint8_t* begin, const uint8_t* end)
{
    if (!begin || end - begin < 3) return end;
    for (const uint8_t* p = begin; p + 2 < end; ++p) {
        // Skip ahead while the third byte rules out a start code here.
        if (p[2] > 1) {
            p += 2;
            continue;
        }
        if (p[0] == 0 && p[1] == 0 && p[2] == 1) return (p > begin && p[-1] == 0) ? p - 1 : p;
    }
    return end;
}

bool isAnnexB(const uint8_t* data, size_t size)
{
    if (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) return true;
    return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

std::vector<NALUnit> splitAnnexB(const uint8_t* data, size_t size)
{
    std::vector<NALUnit> units;
    if (!data) return units;
    const uint8_t* end = data + size;
    const uint8_t* start = avcFindStartCode(data, end);
    while (start < end) {
        // Past the zeros and the 01 of the start code.
        while (start < end && *start == 0) ++start;
        if (start == end) break;
        ++start;
        const uint8_t* next = avcFindStartCode(start, end);
        const uint8_t* last = next;
        while (last > start && last[-1] == 0) --last; // trailing_zero_8bits
        if (last > start) units.emplace_back(start, size_t(last - start));
        start = next;
    }
    return units;
}

std::vector<uint8_t> annexBToLengthPrefixed(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> out;
    out.reserve(size + 16);
    for (NALUnit unit : splitAnnexB(data, size)) {
        const size_t length = unit.size();
        out.push_back(uint8_t(length >> 24));
        out.push_back(uint8_t(length >> 16));
        out.push_back(uint8_t(length >> 8));
        out.push_back(uint8_t(length));
        out.insert(out.end(), unit.begin(), unit.end());
    }
    return out;
}

bool splitLengthPrefixed(const uint8_t* data, size_t size, unsigned lengthSize, std::vector<NALUnit>& units)
{
    if (lengthSize != 1 && lengthSize != 2 && lengthSize != 4) return false;
    size_t offset = 0;
    while (offset < size) {
        if (size - offset < lengthSize) return false;
        size_t length = 0;
        for (unsigned i = 0; i < lengthSize; ++i) length = (length << 8) | data[offset + i];
        offset += lengthSize;
        if (length > size - offset) return false;
        units.emplace_back(data + offset, length);
        offset += length;
    }
    return true;
}

std::vector<uint8_t> createAnnexB(const std::vector<NALUnit>& units)
{
    std::vector<uint8_t> out;
    for (NALUnit unit : units) {
        out.insert(out.end(), {0, 0, 0, 1});
        out.insert(out.end(), unit.begin(), unit.end());
    }
    return out;
}

uint8_t h264NALType(NALUnit unit)
{
    return unit.empty() ? 0 : unit[0] & 0x1F;
}

uint8_t hevcNALType(NALUnit unit)
{
    return unit.empty() ? 0 : (unit[0] >> 1) & 0x3F;
}

namespace {

void addByType(NALCodec codec, NALUnit unit, ParameterSets& sets)
{
    if (unit.empty()) return;
    NALUnitBytes bytes(unit.begin(), unit.end());
    if (codec == NALCodec::H264) {
        switch (h264NALType(unit)) {
        case H264NALSPS: sets.sps.push_back(std::move(bytes)); break;
        case H264NALPPS: sets.pps.push_back(std::move(bytes)); break;
        default: break;
        }
        return;
    }
    switch (hevcNALType(unit)) {
    case HEVCNALVPS: sets.vps.push_back(std::move(bytes)); break;
    case HEVCNALSPS: sets.sps.push_back(std::move(bytes)); break;
    case HEVCNALPPS: sets.pps.push_back(std::move(bytes)); break;
    case HEVCNALSEIPrefix:
    case HEVCNALSEISuffix: sets.sei.push_back(std::move(bytes)); break;
    default: break;
    }
}

// Reads count units, each behind a 16-bit length. False at the end of data.
bool readSized(NALCodec codec, const uint8_t* data, size_t size, size_t& offset, unsigned count, ParameterSets& sets)
{
    for (unsigned i = 0; i < count; ++i) {
        if (size - offset < 2) return false;
        const size_t length = (size_t(data[offset]) << 8) | data[offset + 1];
        offset += 2;
        if (length > size - offset) return false;
        addByType(codec, NALUnit(data + offset, length), sets);
        offset += length;
    }
    return true;
}

} // namespace

ParameterSets readParameterSets(NALCodec codec, const uint8_t* extradata, size_t size)
{
    ParameterSets sets;
    if (!extradata || size == 0) return sets;
    if (isAnnexB(extradata, size)) {
        for (NALUnit unit : splitAnnexB(extradata, size)) addByType(codec, unit, sets);
        return sets;
    }
    size_t offset = 0;
    if (codec == NALCodec::H264) {
        if (size < 7) return sets;
        sets.lengthSize = (extradata[4] & 3) + 1u;
        offset = 6;
        if (!readSized(codec, extradata, size, offset, extradata[5] & 0x1F, sets) || offset >= size) return sets;
        const unsigned ppsCount = extradata[offset++];
        readSized(codec, extradata, size, offset, ppsCount, sets);
        return sets;
    }
    if (size < 23) return sets;
    sets.lengthSize = (extradata[21] & 3) + 1u;
    const unsigned arrays = extradata[22];
    offset = 23;
    for (unsigned i = 0; i < arrays; ++i) {
        if (size - offset < 3) break;
        const unsigned count = (unsigned(extradata[offset + 1]) << 8) | extradata[offset + 2];
        offset += 3;
        if (!readSized(codec, extradata, size, offset, count, sets)) break;
    }
    return sets;
}

std::vector<uint8_t> createAvcC(const std::vector<NALUnitBytes>& sps, const std::vector<NALUnitBytes>& pps)
{
    if (sps.empty() || sps[0].size() < 4 || sps.size() > 31 || pps.size() > 255) return {};
    for (const auto* list : {&sps, &pps}) {
        for (const auto& unit : *list) {
            if (unit.empty() || unit.size() > 0xFFFF) return {};
        }
    }
    H264SequenceParameterSet parsed;
    const bool haveSPS = parseH264SPS(sps[0], parsed);
    std::vector<uint8_t> out = {1, sps[0][1], sps[0][2], sps[0][3], 0xFF, uint8_t(0xE0 | sps.size())};
    auto add = [&out](const NALUnitBytes& unit) {
        out.push_back(uint8_t(unit.size() >> 8));
        out.push_back(uint8_t(unit.size()));
        out.insert(out.end(), unit.begin(), unit.end());
    };
    for (const auto& unit : sps) add(unit);
    out.push_back(uint8_t(pps.size()));
    for (const auto& unit : pps) add(unit);
    // Every profile beyond Baseline, Main and Extended has the chroma and
    // bit depth fields.
    const uint8_t profile = sps[0][1];
    if (profile != 66 && profile != 77 && profile != 88) {
        out.push_back(uint8_t(0xFC | (haveSPS ? parsed.chroma_format_idc & 3 : 1)));
        out.push_back(uint8_t(0xF8 | (haveSPS ? parsed.bit_depth_luma_minus8 & 7 : 0)));
        out.push_back(uint8_t(0xF8 | (haveSPS ? parsed.bit_depth_chroma_minus8 & 7 : 0)));
        out.push_back(0); // numOfSequenceParameterSetExt
    }
    return out;
}

std::vector<uint8_t> removeEmulationPrevention(NALUnit unit)
{
    std::vector<uint8_t> out;
    out.reserve(unit.size());
    unsigned zeros = 0;
    for (uint8_t byte : unit) {
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        out.push_back(byte);
    }
    return out;
}

} // namespace qx
