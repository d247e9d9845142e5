#include "qxmedia/mp4/MP4MovieBoxes.h"

#include <cstdio>

namespace qx::mp4 {

namespace {

std::string format(const char* fmt, auto... args)
{
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, fmt, args...);
    return buffer;
}

void readMatrix(ByteReader& in, Matrix& m)
{
    for (auto& v : m) v = in.i32();
}

void writeMatrix(ByteWriter& out, const Matrix& m)
{
    for (auto v : m) out.u32(uint32_t(v));
}

} // namespace

bool FtypBox::parseFields(ByteReader& in)
{
    majorBrand = in.u32();
    minorVersion = in.u32();
    compatibleBrands.clear();
    while (in.remaining() >= 4) compatibleBrands.push_back(in.u32());
    return in.ok();
}

void FtypBox::writeFields(ByteWriter& out) const
{
    out.u32(majorBrand);
    out.u32(minorVersion);
    for (FourCC brand : compatibleBrands) out.u32(brand);
}

std::string FtypBox::describe() const
{
    std::string text = "major " + fourccString(majorBrand) + " minor " + std::to_string(minorVersion) + " compatible";
    for (FourCC brand : compatibleBrands) text += " " + fourccString(brand);
    return text;
}

bool MvhdBox::parseFullFields(ByteReader& in)
{
    bool wide = version == 1;
    if (version > 1) return false;
    creationTime = in.uvar(wide);
    modificationTime = in.uvar(wide);
    timescale = in.u32();
    duration = in.uvar(wide);
    rate = in.i32();
    volume = in.i16();
    in.skip(10);
    readMatrix(in, matrix);
    for (auto& v : predefined) v = in.u32();
    nextTrackId = in.u32();
    return in.ok();
}

uint8_t MvhdBox::writeVersion() const
{
    return version == 1 || duration > UINT32_MAX || creationTime > UINT32_MAX || modificationTime > UINT32_MAX ? 1 : 0;
}

void MvhdBox::writeFullFields(ByteWriter& out) const
{
    bool wide = writeVersion() == 1;
    out.uvar(creationTime, wide);
    out.uvar(modificationTime, wide);
    out.u32(timescale);
    out.uvar(duration, wide);
    out.u32(uint32_t(rate));
    out.u16(uint16_t(volume));
    out.zeros(10);
    writeMatrix(out, matrix);
    for (auto v : predefined) out.u32(v);
    out.u32(nextTrackId);
}

std::string MvhdBox::describe() const
{
    return format("timescale %u duration %llu next track %u", timescale, (unsigned long long)duration, nextTrackId);
}

// iods holds an MP4_IOD descriptor (tag 0x10) with the profile levels. The
// descriptor is kept as read (with any ES_ID_Inc descriptors after the
// levels); only the five level bytes are rewritten.
bool IodsBox::parseFullFields(ByteReader& in)
{
    raw = in.rest();
    parsed = false;
    ByteReader d(raw);
    uint8_t tag = d.u8();
    if (tag != 0x10 && tag != 0x02) return true;
    uint32_t length = 0;
    for (int i = 0; i < 4; ++i) {
        uint8_t b = d.u8();
        length = (length << 7) | (b & 0x7F);
        if (!(b & 0x80)) break;
    }
    if (length < 7 || length > d.remaining()) return true;
    uint16_t idFlags = d.u16();
    objectDescriptorId = uint16_t(idFlags >> 6);
    if (idFlags & 0x20) return true; // a URL instead of levels
    levelsOffset = d.position();
    odProfileLevel = d.u8();
    sceneProfileLevel = d.u8();
    audioProfileLevel = d.u8();
    visualProfileLevel = d.u8();
    graphicsProfileLevel = d.u8();
    parsed = d.ok();
    return true;
}

void IodsBox::writeFullFields(ByteWriter& out) const
{
    if (!raw.empty()) {
        std::vector<uint8_t> bytes = raw;
        if (parsed && levelsOffset + 5 <= bytes.size()) {
            bytes[levelsOffset] = odProfileLevel;
            bytes[levelsOffset + 1] = sceneProfileLevel;
            bytes[levelsOffset + 2] = audioProfileLevel;
            bytes[levelsOffset + 3] = visualProfileLevel;
            bytes[levelsOffset + 4] = graphicsProfileLevel;
        }
        out.bytes(bytes);
        return;
    }
    out.u8(0x10);
    out.u8(0x80); // four-byte length form, as most muxers write it
    out.u8(0x80);
    out.u8(0x80);
    out.u8(7);
    out.u16(uint16_t((objectDescriptorId << 6) | 0x0F)); // no URL, no include-inline flag, reserved bits set
    out.u8(odProfileLevel);
    out.u8(sceneProfileLevel);
    out.u8(audioProfileLevel);
    out.u8(visualProfileLevel);
    out.u8(graphicsProfileLevel);
}

std::string IodsBox::describe() const
{
    if (!parsed) return std::to_string(raw.size()) + " descriptor bytes";
    return format("audio profile 0x%02x visual profile 0x%02x", audioProfileLevel, visualProfileLevel);
}

bool TkhdBox::parseFullFields(ByteReader& in)
{
    if (version > 1) return false;
    bool wide = version == 1;
    creationTime = in.uvar(wide);
    modificationTime = in.uvar(wide);
    trackId = in.u32();
    in.skip(4);
    duration = in.uvar(wide);
    in.skip(8);
    layer = in.i16();
    alternateGroup = in.i16();
    volume = in.i16();
    in.skip(2);
    readMatrix(in, matrix);
    width = in.u32();
    height = in.u32();
    return in.ok();
}

uint8_t TkhdBox::writeVersion() const
{
    return version == 1 || duration > UINT32_MAX || creationTime > UINT32_MAX || modificationTime > UINT32_MAX ? 1 : 0;
}

void TkhdBox::writeFullFields(ByteWriter& out) const
{
    bool wide = writeVersion() == 1;
    out.uvar(creationTime, wide);
    out.uvar(modificationTime, wide);
    out.u32(trackId);
    out.u32(0);
    out.uvar(duration, wide);
    out.zeros(8);
    out.u16(uint16_t(layer));
    out.u16(uint16_t(alternateGroup));
    out.u16(uint16_t(volume));
    out.u16(0);
    writeMatrix(out, matrix);
    out.u32(width);
    out.u32(height);
}

std::string TkhdBox::describe() const
{
    return format("id %u flags %u duration %llu layer %d group %d volume %.2f size %.2fx%.2f", trackId, flags,
                  (unsigned long long)duration, layer, alternateGroup, volume / 256.0, width / 65536.0,
                  height / 65536.0);
}

bool MdhdBox::parseFullFields(ByteReader& in)
{
    if (version > 1) return false;
    bool wide = version == 1;
    creationTime = in.uvar(wide);
    modificationTime = in.uvar(wide);
    timescale = in.u32();
    duration = in.uvar(wide);
    language = in.u16();
    quality = in.u16();
    return in.ok();
}

uint8_t MdhdBox::writeVersion() const
{
    return version == 1 || duration > UINT32_MAX || creationTime > UINT32_MAX || modificationTime > UINT32_MAX ? 1 : 0;
}

void MdhdBox::writeFullFields(ByteWriter& out) const
{
    bool wide = writeVersion() == 1;
    out.uvar(creationTime, wide);
    out.uvar(modificationTime, wide);
    out.u32(timescale);
    out.uvar(duration, wide);
    out.u16(language);
    out.u16(quality);
}

std::string MdhdBox::languageCode() const
{
    if (language < 0x400) return "und"; // Macintosh language codes are not ISO 639
    std::string code(3, ' ');
    for (int i = 0; i < 3; ++i) code[size_t(i)] = char(((language >> (10 - 5 * i)) & 0x1F) + 0x60);
    return code;
}

void MdhdBox::setLanguageCode(const std::string& code)
{
    std::string c = code.size() == 3 ? code : std::string("und");
    uint16_t packed = 0;
    for (int i = 0; i < 3; ++i) {
        char ch = c[size_t(i)];
        if (ch >= 'A' && ch <= 'Z') ch = char(ch - 'A' + 'a');
        if (ch < 'a' || ch > 'z') return setLanguageCode("und");
        packed = uint16_t((packed << 5) | ((ch - 0x60) & 0x1F));
    }
    language = packed;
}

std::string MdhdBox::describe() const
{
    return format("timescale %u duration %llu language %s", timescale, (unsigned long long)duration,
                  languageCode().c_str());
}

bool HdlrBox::parseFullFields(ByteReader& in)
{
    componentType = in.u32();
    handlerType = in.u32();
    for (auto& v : reserved) v = in.u32();
    if (!in.ok()) return false;
    // MP4 ends the name with a zero; QuickTime counts it in a first byte.
    size_t left = in.remaining();
    if (componentType != 0 && left > 0 && in.current()[0] == left - 1) {
        pascalName = true;
        name = in.pstring();
    } else {
        size_t start = in.position();
        name = in.cstring();
        terminated = in.position() > start + name.size();
    }
    return in.ok();
}

void HdlrBox::writeFullFields(ByteWriter& out) const
{
    out.u32(componentType);
    out.u32(handlerType);
    for (auto v : reserved) out.u32(v);
    if (pascalName) {
        out.u8(uint8_t(std::min<size_t>(name.size(), 255)));
        out.bytes(name.data(), std::min<size_t>(name.size(), 255));
    } else {
        out.string(name);
        if (terminated) out.u8(0);
    }
}

std::string HdlrBox::describe() const { return "handler " + fourccString(handlerType) + " \"" + name + "\""; }

bool ElstBox::parseFullFields(ByteReader& in)
{
    if (version > 1) return false;
    bool wide = version == 1;
    uint32_t count = in.u32();
    size_t entrySize = wide ? 20 : 12;
    if (count > in.remaining() / entrySize) return false;
    entries.resize(count);
    for (auto& e : entries) {
        e.segmentDuration = in.uvar(wide);
        e.mediaTime = wide ? in.i64() : in.i32();
        e.mediaRateInteger = in.i16();
        e.mediaRateFraction = in.i16();
    }
    return in.ok();
}

uint8_t ElstBox::writeVersion() const
{
    for (const auto& e : entries)
        if (e.segmentDuration > UINT32_MAX || e.mediaTime > INT32_MAX || e.mediaTime < INT32_MIN) return 1;
    return 0;
}

void ElstBox::writeFullFields(ByteWriter& out) const
{
    bool wide = writeVersion() == 1;
    out.u32(uint32_t(entries.size()));
    for (const auto& e : entries) {
        out.uvar(e.segmentDuration, wide);
        if (wide)
            out.u64(uint64_t(e.mediaTime));
        else
            out.u32(uint32_t(int32_t(e.mediaTime)));
        out.u16(uint16_t(e.mediaRateInteger));
        out.u16(uint16_t(e.mediaRateFraction));
    }
}

std::string ElstBox::describe() const
{
    std::string text;
    for (const auto& e : entries)
        text += format("[duration %llu media %lld] ", (unsigned long long)e.segmentDuration, (long long)e.mediaTime);
    return text;
}

bool TrackReferenceTypeBox::parseFields(ByteReader& in)
{
    trackIds.clear();
    while (in.remaining() >= 4) trackIds.push_back(in.u32());
    return true;
}

void TrackReferenceTypeBox::writeFields(ByteWriter& out) const
{
    for (uint32_t id : trackIds) out.u32(id);
}

std::string TrackReferenceTypeBox::describe() const
{
    std::string text = "tracks";
    for (uint32_t id : trackIds) text += " " + std::to_string(id);
    return text;
}

bool VmhdBox::parseFullFields(ByteReader& in)
{
    graphicsMode = in.u16();
    for (auto& v : opcolor) v = in.u16();
    return in.ok();
}

void VmhdBox::writeFullFields(ByteWriter& out) const
{
    out.u16(graphicsMode);
    for (auto v : opcolor) out.u16(v);
}

bool SmhdBox::parseFullFields(ByteReader& in)
{
    balance = in.i16();
    in.skip(2);
    return in.ok();
}

void SmhdBox::writeFullFields(ByteWriter& out) const
{
    out.u16(uint16_t(balance));
    out.u16(0);
}

bool TrackNameBox::parseFields(ByteReader& in)
{
    size_t start = in.position();
    name = in.cstring();
    terminated = in.position() > start + name.size();
    return true;
}

void TrackNameBox::writeFields(ByteWriter& out) const
{
    out.string(name);
    if (terminated) out.u8(0);
}

std::string TrackNameBox::describe() const { return "\"" + name + "\""; }

bool MetaBox::parseFields(ByteReader& in)
{
    // In QuickTime form the first child's size stands where MP4 has version
    // and flags; a full box has zeros there and then a header follows.
    if (in.remaining() >= 8) {
        uint32_t first = readBE32(in.current());
        uint32_t second = readBE32(in.current() + 4);
        if (first != 0 && (second == fourcc("hdlr") || second == fourcc("ilst") || second == fourcc("keys"))) {
            quickTimeForm = true;
            return true;
        }
    }
    version = in.u8();
    flags = in.u24();
    return in.ok();
}

void MetaBox::writeFields(ByteWriter& out) const
{
    if (quickTimeForm) return;
    out.u8(version);
    out.u24(flags);
}

} // namespace qx::mp4
