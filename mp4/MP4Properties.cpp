// Track properties by their dotted names, as libmp4v2 callers know them:
// "tkhd.flags", "mdia.minf.stbl.stsd.tx3g.fontSize", "tref.chap.entries.trackId".
// Each name maps to a field of a typed box; unknown names answer false.

#include "qxmedia/mp4/MP4File.h"

#include <cmath>
#include <cstring>
#include <functional>

namespace qx::mp4 {

namespace {

using Integer = std::function<bool(MP4Track&, uint64_t*, const uint64_t*)>;

// Reads or writes one integer field: `get` non-null reads, `set` non-null writes.
template <class T, class F> Integer field(T* (*find)(MP4Track&), F member)
{
    return [find, member](MP4Track& track, uint64_t* get, const uint64_t* set) {
        T* box = find(track);
        if (!box) return false;
        auto& value = box->*member;
        if (get) *get = uint64_t(int64_t(value));
        if (set) value = static_cast<std::remove_reference_t<decltype(value)>>(*set);
        return true;
    };
}

TkhdBox* tkhd(MP4Track& t) { return t.tkhd(); }
MvhdBox* mvhdOf(MP4Track& t) { return t.file().mvhd(); }
Tx3gSampleEntry* tx3g(MP4Track& t) { return dynamic_cast<Tx3gSampleEntry*>(t.sampleEntry()); }
AudioSampleEntry* audio(MP4Track& t) { return dynamic_cast<AudioSampleEntry*>(t.sampleEntry()); }
AvcCBox* avcC(MP4Track& t) { return t.sampleEntryChild<AvcCBox>(); }
PaspBox* pasp(MP4Track& t) { return t.sampleEntryChild<PaspBox>(); }
ColrBox* colr(MP4Track& t) { return t.sampleEntryChild<ColrBox>(); }
MdhdBox* mdhd(MP4Track& t) { return t.mdhd(); }

const std::map<std::string, Integer>& integerProperties()
{
    static const std::map<std::string, Integer> table = [] {
        std::map<std::string, Integer> m;
        m["tkhd.flags"] = field(tkhd, &TkhdBox::flags);
        m["tkhd.layer"] = m["tkhd.Layer"] = field(tkhd, &TkhdBox::layer);
        m["tkhd.alternate_group"] = field(tkhd, &TkhdBox::alternateGroup);
        m["tkhd.trackId"] = field(tkhd, &TkhdBox::trackId);
        m["mdia.mdhd.timeScale"] = field(mdhd, &MdhdBox::timescale);
        m["mdia.mdhd.language"] = field(mdhd, &MdhdBox::language);
        const std::string t = "mdia.minf.stbl.stsd.tx3g.";
        m[t + "displayFlags"] = field(tx3g, &Tx3gSampleEntry::displayFlags);
        m[t + "horizontalJustification"] = field(tx3g, &Tx3gSampleEntry::horizontalJustification);
        m[t + "verticalJustification"] = field(tx3g, &Tx3gSampleEntry::verticalJustification);
        m[t + "defTextBoxTop"] = field(tx3g, &Tx3gSampleEntry::defTextBoxTop);
        m[t + "defTextBoxLeft"] = field(tx3g, &Tx3gSampleEntry::defTextBoxLeft);
        m[t + "defTextBoxBottom"] = field(tx3g, &Tx3gSampleEntry::defTextBoxBottom);
        m[t + "defTextBoxRight"] = field(tx3g, &Tx3gSampleEntry::defTextBoxRight);
        m[t + "fontID"] = field(tx3g, &Tx3gSampleEntry::fontId);
        m[t + "fontSize"] = field(tx3g, &Tx3gSampleEntry::fontSize);
        m[t + "fontFace"] = field(tx3g, &Tx3gSampleEntry::fontFace);
        auto color = [](RGBAColor Tx3gSampleEntry::*which, uint8_t RGBAColor::*part) -> Integer {
            return [which, part](MP4Track& track, uint64_t* get, const uint64_t* set) {
                Tx3gSampleEntry* entry = tx3g(track);
                if (!entry) return false;
                uint8_t& value = (entry->*which).*part;
                if (get) *get = value;
                if (set) value = uint8_t(*set);
                return true;
            };
        };
        m[t + "bgColorRed"] = color(&Tx3gSampleEntry::backgroundColor, &RGBAColor::red);
        m[t + "bgColorGreen"] = color(&Tx3gSampleEntry::backgroundColor, &RGBAColor::green);
        m[t + "bgColorBlue"] = color(&Tx3gSampleEntry::backgroundColor, &RGBAColor::blue);
        m[t + "bgColorAlpha"] = color(&Tx3gSampleEntry::backgroundColor, &RGBAColor::alpha);
        m[t + "fontColorRed"] = color(&Tx3gSampleEntry::fontColor, &RGBAColor::red);
        m[t + "fontColorGreen"] = color(&Tx3gSampleEntry::fontColor, &RGBAColor::green);
        m[t + "fontColorBlue"] = color(&Tx3gSampleEntry::fontColor, &RGBAColor::blue);
        m[t + "fontColorAlpha"] = color(&Tx3gSampleEntry::fontColor, &RGBAColor::alpha);
        m["mdia.minf.stbl.stsd.*.channels"] = field(audio, &AudioSampleEntry::channelCount);
        m["mdia.minf.stbl.stsd.*[0].avcC.AVCProfileIndication"] = field(avcC, &AvcCBox::profile);
        m["mdia.minf.stbl.stsd.*[0].avcC.AVCLevelIndication"] = field(avcC, &AvcCBox::level);
        m["mdia.minf.stbl.stsd.*[0].avcC.profile_compatibility"] = field(avcC, &AvcCBox::profileCompatibility);
        m["mdia.minf.stbl.stsd.*.pasp.hSpacing"] = field(pasp, &PaspBox::hSpacing);
        m["mdia.minf.stbl.stsd.*.pasp.vSpacing"] = field(pasp, &PaspBox::vSpacing);
        m["mdia.minf.stbl.stsd.*.colr.colorParameterType"] = field(colr, &ColrBox::colorParameterType);
        m["mdia.minf.stbl.stsd.*.colr.primariesIndex"] = field(colr, &ColrBox::primariesIndex);
        m["mdia.minf.stbl.stsd.*.colr.transferFunctionIndex"] = field(colr, &ColrBox::transferFunctionIndex);
        m["mdia.minf.stbl.stsd.*.colr.matrixIndex"] = field(colr, &ColrBox::matrixIndex);
        m["mdia.minf.stbl.stsd.*.colr.full_range_flag"] = field(colr, &ColrBox::fullRangeFlag);
        m["moov.mvhd.nextTrackId"] = field(mvhdOf, &MvhdBox::nextTrackId);
        return m;
    }();
    return table;
}

// "tref.chap.entries.trackId": the first entry of a reference list.
bool referenceProperty(MP4Track& track, const std::string& name, uint64_t* get, const uint64_t* set)
{
    constexpr const char* suffix = ".entries.trackId";
    if (name.size() != 9 + std::strlen(suffix) || name.compare(0, 5, "tref.") != 0 ||
        name.compare(9, std::string::npos, suffix) != 0)
        return false;
    FourCC type = fourcc(std::string_view(name).substr(5, 4));
    std::vector<uint32_t> ids = track.references(type);
    if (get) {
        if (ids.empty()) return false;
        *get = ids.front();
    }
    if (set) {
        if (ids.empty())
            ids.push_back(uint32_t(*set));
        else
            ids.front() = uint32_t(*set);
        track.setReferences(type, ids);
    }
    return true;
}

bool integerProperty(MP4Track* track, const std::string& name, uint64_t* get, const uint64_t* set)
{
    if (!track) return false;
    if (referenceProperty(*track, name, get, set)) return true;
    auto& table = integerProperties();
    auto it = table.find(name);
    return it != table.end() && it->second(*track, get, set);
}

} // namespace

bool MP4File::setTrackIntegerProperty(uint32_t trackId, const std::string& name, uint64_t value)
{
    return mode_ != Mode::Read && integerProperty(track(trackId), name, nullptr, &value);
}

bool MP4File::getTrackIntegerProperty(uint32_t trackId, const std::string& name, uint64_t& value) const
{
    return integerProperty(track(trackId), name, &value, nullptr);
}

bool MP4File::setTrackFloatProperty(uint32_t trackId, const std::string& name, double value)
{
    MP4Track* t = track(trackId);
    if (!t || mode_ == Mode::Read) return false;
    if (name == "tkhd.volume") t->setVolume(value);
    else if (name == "tkhd.width") t->setWidth(value);
    else if (name == "tkhd.height") t->setHeight(value);
    else return false;
    return true;
}

bool MP4File::getTrackFloatProperty(uint32_t trackId, const std::string& name, double& value) const
{
    MP4Track* t = track(trackId);
    if (!t) return false;
    if (name == "tkhd.volume") value = t->volume();
    else if (name == "tkhd.width") value = t->width();
    else if (name == "tkhd.height") value = t->height();
    else return false;
    return true;
}

bool MP4File::setTrackBytesProperty(uint32_t trackId, const std::string& name, const uint8_t* data, size_t size)
{
    MP4Track* t = track(trackId);
    if (!t || mode_ == Mode::Read) return false;
    if (name == "tkhd.matrix") {
        if (size != 36) return false;
        Matrix m;
        for (size_t i = 0; i < 9; ++i) m[i] = int32_t(readBE32(data + 4 * i));
        t->setMatrix(m);
        return true;
    }
    if (name == "mdia.minf.stbl.stsd.hvc1.hvcC.content") return setHEVCConfiguration(trackId, data, size);
    return false;
}

bool MP4File::getTrackBytesProperty(uint32_t trackId, const std::string& name, std::vector<uint8_t>& data) const
{
    MP4Track* t = track(trackId);
    if (!t) return false;
    if (name == "tkhd.matrix") {
        data.resize(36);
        Matrix m = t->matrix();
        for (size_t i = 0; i < 9; ++i) writeBE32(data.data() + 4 * i, uint32_t(m[i]));
        return true;
    }
    if (name == "mdia.minf.stbl.stsd.hvc1.hvcC.content") {
        auto hvcC = t->sampleEntryChild<HvcCBox>();
        if (!hvcC) return false;
        data = hvcC->content;
        return true;
    }
    return false;
}

bool MP4File::haveTrackAtom(uint32_t trackId, const std::string& path) const
{
    MP4Track* t = track(trackId);
    return t && t->findBox(path) != nullptr;
}

} // namespace qx::mp4
