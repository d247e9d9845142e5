#include "qxmedia/mp4/MP4Track.h"

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Log.h"

#include <algorithm>
#include <cmath>

namespace qx::mp4 {

namespace {
// A chunk is written out when it holds this much, whatever its duration.
constexpr size_t kMaxChunkBytes = 16 << 20;
} // namespace

MP4Track::MP4Track(MP4File& file, Box& trak) : file_(file), trak_(&trak)
{
    durationPerChunk_ = timeScale() ? timeScale() : 1000;
}

uint32_t MP4Track::id() const
{
    TkhdBox* t = tkhd();
    return t ? t->trackId : 0;
}

TkhdBox* MP4Track::tkhd() const { return trak_->findChild<TkhdBox>(); }
MdhdBox* MP4Track::mdhd() const { return trak_->findPath<MdhdBox>("mdia.mdhd"); }
HdlrBox* MP4Track::hdlr() const { return trak_->findPath<HdlrBox>("mdia.hdlr"); }
Box* MP4Track::stbl() const { return trak_->findPath("mdia.minf.stbl"); }

StsdBox* MP4Track::stsd() const
{
    Box* s = stbl();
    return s ? s->findChild<StsdBox>() : nullptr;
}

Box* MP4Track::sampleEntry(size_t index) const
{
    StsdBox* s = stsd();
    return s && index < s->children().size() ? s->children()[index].get() : nullptr;
}

SttsBox* MP4Track::stts() const
{
    Box* s = stbl();
    return s ? s->findChild<SttsBox>() : nullptr;
}

StszBox* MP4Track::stsz() const
{
    Box* s = stbl();
    return s ? s->findChild<StszBox>() : nullptr;
}

ChunkOffsetBox* MP4Track::stco() const
{
    Box* s = stbl();
    if (!s) return nullptr;
    if (auto b = s->findChild<ChunkOffsetBox>()) return b;
    return dynamic_cast<ChunkOffsetBox*>(s->findChild(ChunkOffsetBox::kType64));
}

FourCC MP4Track::type() const
{
    HdlrBox* h = hdlr();
    return h ? h->handlerType : 0;
}

FourCC MP4Track::mediaDataName() const
{
    Box* e = sampleEntry();
    return e ? e->type() : 0;
}

uint32_t MP4Track::timeScale() const
{
    MdhdBox* m = mdhd();
    return m ? m->timescale : 0;
}

void MP4Track::setTimeScale(uint32_t timescale)
{
    if (MdhdBox* m = mdhd(); m && timescale) m->timescale = timescale;
}

uint64_t MP4Track::duration() const
{
    if (SttsBox* s = stts()) return s->totalDuration();
    MdhdBox* m = mdhd();
    return m ? m->duration : 0;
}

std::string MP4Track::name() const
{
    auto n = trak_->findPath<TrackNameBox>("udta.name");
    return n ? n->name : std::string();
}

void MP4Track::setName(const std::string& name)
{
    Box* udta = trak_->findChild(kUdta);
    if (name.empty()) {
        if (udta) udta->removeChildren(TrackNameBox::kType);
        return;
    }
    if (!udta) udta = trak_->addChild(std::make_unique<ContainerBox>(kUdta));
    auto box = udta->findChild<TrackNameBox>();
    if (!box) {
        udta->removeChildren(TrackNameBox::kType); // an unreadable one
        box = udta->makeChild<TrackNameBox>();
    }
    box->name = name;
}

std::string MP4Track::language() const
{
    MdhdBox* m = mdhd();
    return m ? m->languageCode() : "und";
}

void MP4Track::setLanguage(const std::string& code)
{
    if (MdhdBox* m = mdhd()) m->setLanguageCode(code);
}

uint32_t MP4Track::flags() const { return tkhd() ? tkhd()->flags : 0; }
void MP4Track::setFlags(uint32_t flags)
{
    if (TkhdBox* t = tkhd()) t->flags = flags & 0xFFFFFF;
}
int16_t MP4Track::layer() const { return tkhd() ? tkhd()->layer : 0; }
void MP4Track::setLayer(int16_t layer)
{
    if (TkhdBox* t = tkhd()) t->layer = layer;
}
int16_t MP4Track::alternateGroup() const { return tkhd() ? tkhd()->alternateGroup : 0; }
void MP4Track::setAlternateGroup(int16_t group)
{
    if (TkhdBox* t = tkhd()) t->alternateGroup = group;
}
double MP4Track::volume() const { return tkhd() ? tkhd()->volume / 256.0 : 0; }
void MP4Track::setVolume(double volume)
{
    if (TkhdBox* t = tkhd()) t->volume = int16_t(std::lround(std::clamp(volume, -128.0, 127.99) * 256));
}
double MP4Track::width() const { return tkhd() ? tkhd()->width / 65536.0 : 0; }
double MP4Track::height() const { return tkhd() ? tkhd()->height / 65536.0 : 0; }
void MP4Track::setWidth(double width)
{
    if (TkhdBox* t = tkhd()) t->width = uint32_t(std::llround(std::clamp(width, 0.0, 65535.99) * 65536));
}
void MP4Track::setHeight(double height)
{
    if (TkhdBox* t = tkhd()) t->height = uint32_t(std::llround(std::clamp(height, 0.0, 65535.99) * 65536));
}
Matrix MP4Track::matrix() const { return tkhd() ? tkhd()->matrix : kIdentityMatrix; }
void MP4Track::setMatrix(const Matrix& matrix)
{
    if (TkhdBox* t = tkhd()) t->matrix = matrix;
}

// --- references ------------------------------------------------------------

bool MP4Track::hasReference(FourCC type) const
{
    Box* tref = trak_->findChild(kTref);
    return tref && tref->findChild(type);
}

std::vector<uint32_t> MP4Track::references(FourCC type) const
{
    Box* tref = trak_->findChild(kTref);
    auto list = tref ? dynamic_cast<TrackReferenceTypeBox*>(tref->findChild(type)) : nullptr;
    return list ? list->trackIds : std::vector<uint32_t>();
}

void MP4Track::addReference(FourCC type, uint32_t trackId)
{
    std::vector<uint32_t> ids = references(type);
    ids.push_back(trackId);
    setReferences(type, ids);
}

void MP4Track::setReferences(FourCC type, const std::vector<uint32_t>& trackIds)
{
    Box* tref = trak_->findChild(kTref);
    if (!tref) {
        // tref goes right after tkhd/edts, where readers expect it.
        size_t at = 1;
        if (Box* edts = trak_->findChild(kEdts)) at = trak_->indexOf(edts) + 1;
        tref = trak_->insertChild(at, std::make_unique<ContainerBox>(kTref));
    }
    auto list = dynamic_cast<TrackReferenceTypeBox*>(tref->findChild(type));
    if (!list) {
        tref->removeChildren(type);
        list = static_cast<TrackReferenceTypeBox*>(tref->addChild(std::make_unique<TrackReferenceTypeBox>(type)));
    }
    list->trackIds = trackIds;
}

bool MP4Track::removeReferences(FourCC type)
{
    Box* tref = trak_->findChild(kTref);
    if (!tref || !tref->removeChildren(type)) return false;
    if (tref->children().empty()) trak_->removeChild(tref);
    return true;
}

std::vector<std::pair<FourCC, std::vector<uint32_t>>> MP4Track::allReferences() const
{
    std::vector<std::pair<FourCC, std::vector<uint32_t>>> all;
    if (Box* tref = trak_->findChild(kTref))
        for (const auto& child : tref->children())
            if (auto list = dynamic_cast<TrackReferenceTypeBox*>(child.get()))
                all.emplace_back(list->type(), list->trackIds);
    return all;
}

// --- edits -----------------------------------------------------------------

void MP4Track::addEdit(int64_t mediaStart, uint64_t duration, bool dwell)
{
    Box* edts = trak_->findChild(kEdts);
    if (!edts) edts = trak_->insertChild(1, std::make_unique<ContainerBox>(kEdts));
    ElstBox* elst = edts->findOrMakeChild<ElstBox>();
    EditEntry entry;
    entry.segmentDuration = duration;
    entry.mediaTime = mediaStart;
    entry.mediaRateInteger = dwell ? 0 : 1;
    elst->entries.push_back(entry);
}

std::vector<EditEntry> MP4Track::edits() const
{
    auto elst = trak_->findPath<ElstBox>("edts.elst");
    return elst ? elst->entries : std::vector<EditEntry>();
}

void MP4Track::removeEdits() { trak_->removeChildren(kEdts); }

// --- writing ---------------------------------------------------------------

bool MP4Track::writeSample(const uint8_t* data, size_t size, int64_t duration, int64_t renderingOffset, bool isSync,
                           std::optional<uint8_t> dependencyFlags)
{
    Box* table = stbl();
    SttsBox* times = stts();
    StszBox* sizes = stsz();
    if (file_.mode() == MP4File::Mode::Read || !table || !times || !sizes || !stco() || size > UINT32_MAX)
        return false;
    uint32_t delta = duration < 0 ? fixedSampleDuration : uint32_t(std::min<int64_t>(duration, UINT32_MAX));
    uint32_t before = sizes->sampleCount();

    times->append(delta);
    sizes->append(uint32_t(size));
    if (renderingOffset != 0 || table->findChild<CttsBox>()) {
        CttsBox* ctts = table->findChild<CttsBox>();
        if (!ctts) {
            ctts = static_cast<CttsBox*>(table->insertChild(table->indexOf(times) + 1, std::make_unique<CttsBox>()));
            if (before) ctts->runs.push_back({before, 0});
        }
        ctts->append(int32_t(std::clamp<int64_t>(renderingOffset, INT32_MIN, INT32_MAX)));
    }
    StssBox* stss = table->findChild<StssBox>();
    if (!isSync && !stss) {
        // Until now every sample was a sync sample.
        stss = static_cast<StssBox*>(table->insertChild(table->indexOf(sizes), std::make_unique<StssBox>()));
        for (uint32_t i = 1; i <= before; ++i) stss->samples.push_back(i);
    }
    if (isSync && stss) stss->samples.push_back(before + 1);
    SdtpBox* sdtp = table->findChild<SdtpBox>();
    if (dependencyFlags && !sdtp) {
        sdtp = table->makeChild<SdtpBox>();
        sdtp->flags.assign(before, 0);
    }
    if (sdtp) sdtp->flags.push_back(dependencyFlags.value_or(0));

    chunkData_.insert(chunkData_.end(), data, data + size);
    ++chunkSamples_;
    chunkDuration_ += delta;
    ++samplesWritten_;
    indexed_ = false;
    if (chunkDuration_ >= durationPerChunk_ || chunkData_.size() >= kMaxChunkBytes) return flushChunk();
    return true;
}

bool MP4Track::flushChunk()
{
    if (chunkSamples_ == 0) return true;
    uint64_t offset = 0;
    bool ok = file_.appendMediaData(chunkData_.data(), chunkData_.size(), offset);
    ChunkOffsetBox* offsets = stco();
    StscBox* stsc = stbl()->findChild<StscBox>();
    if (ok && offsets && stsc) {
        offsets->offsets.push_back(offset);
        offsets->chooseType();
        stsc->appendChunk(uint32_t(offsets->offsets.size()), chunkSamples_);
    }
    chunkData_.clear();
    chunkSamples_ = 0;
    chunkDuration_ = 0;
    return ok;
}

void MP4Track::finish(uint32_t movieTimescale)
{
    flushChunk();
    TkhdBox* header = tkhd();
    std::vector<EditEntry> list = edits();
    if (header && !list.empty()) {
        // The edits say how long the track plays.
        uint64_t total = 0;
        for (const auto& e : list) total += e.segmentDuration;
        header->duration = total;
    }
    if (samplesWritten_ == 0 && !isNew) return; // a track read from the file keeps its headers
    uint64_t mediaDuration = duration();
    if (MdhdBox* m = mdhd()) m->duration = mediaDuration;
    if (Box* table = stbl()) {
        // A table of sync samples that lists them all says nothing.
        if (auto stss = table->findChild<StssBox>(); stss && stss->samples.size() == stsz()->sampleCount())
            table->removeChild(stss);
    }
    if (header && list.empty() && timeScale()) {
        header->duration = uint64_t(((unsigned __int128)mediaDuration * movieTimescale + timeScale() - 1) / timeScale());
    }
}

void MP4Track::computeBitrates(uint32_t& average, uint32_t& peak, uint32_t& bufferSize) const
{
    average = peak = bufferSize = 0;
    SttsBox* times = stts();
    StszBox* sizes = stsz();
    uint32_t scale = timeScale();
    if (!times || !sizes || !scale) return;
    uint64_t total = 0, window = 0, windowStart = 0, time = 0;
    uint64_t maxWindow = 0;
    uint32_t index = 0, count = sizes->sampleCount();
    for (const auto& run : times->runs) {
        for (uint32_t i = 0; i < run.count && index < count; ++i, ++index) {
            uint32_t size = sizes->sampleSize(index);
            total += size;
            bufferSize = std::max(bufferSize, size);
            if (time - windowStart >= scale) {
                maxWindow = std::max(maxWindow, window);
                window = 0;
                windowStart = time;
            }
            window += size;
            time += run.delta;
        }
    }
    maxWindow = std::max(maxWindow, window);
    if (time > 0) average = uint32_t(std::min<uint64_t>(total * 8 * scale / time, UINT32_MAX));
    peak = uint32_t(std::min<uint64_t>(std::max<uint64_t>(maxWindow * 8, average), UINT32_MAX));
}

// --- reading ---------------------------------------------------------------

uint32_t MP4Track::sampleCount() const
{
    StszBox* sizes = stsz();
    return sizes ? sizes->sampleCount() : 0;
}

void MP4Track::buildIndex() const
{
    if (indexed_) return;
    indexed_ = true;
    sampleOffsets_.clear();
    StszBox* sizes = stsz();
    ChunkOffsetBox* offsets = stco();
    StscBox* stsc = stbl() ? stbl()->findChild<StscBox>() : nullptr;
    if (!sizes || !offsets || !stsc) return;
    uint32_t count = sizes->sampleCount();
    // Tables of a damaged file may promise more samples than the file holds;
    // the index stops at the first sample that would lie beyond its end.
    uint64_t end = file_.fileSize();
    const auto& runs = stsc->runs;
    uint32_t sample = 0;
    for (size_t r = 0; r < runs.size() && sample < count; ++r) {
        uint64_t firstChunk = runs[r].firstChunk;
        uint64_t endChunk = r + 1 < runs.size() ? runs[r + 1].firstChunk : offsets->offsets.size() + 1;
        if (firstChunk == 0 || endChunk <= firstChunk) continue; // damaged run
        endChunk = std::min<uint64_t>(endChunk, offsets->offsets.size() + 1);
        for (uint64_t chunk = firstChunk; chunk < endChunk && sample < count; ++chunk) {
            uint64_t offset = offsets->offsets[chunk - 1];
            for (uint32_t i = 0; i < runs[r].samplesPerChunk && sample < count; ++i) {
                uint32_t size = sizes->sampleSize(sample++);
                if (offset > end || size > end - offset) return;
                sampleOffsets_.push_back(offset);
                offset += size;
            }
        }
    }
}

bool MP4Track::samplesFitInFile() const
{
    buildIndex();
    return sampleOffsets_.size() == sampleCount();
}

std::vector<std::pair<uint64_t, uint64_t>> MP4Track::sampleRanges() const
{
    buildIndex();
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    const StszBox* sizes = stsz(); // looked up once: the lookup walks the box tree
    for (uint32_t i = 0; i < sampleOffsets_.size(); ++i) {
        uint64_t begin = sampleOffsets_[i], end = begin + sizes->sampleSize(i);
        if (!ranges.empty() && ranges.back().second == begin)
            ranges.back().second = end;
        else if (end > begin)
            ranges.emplace_back(begin, end);
    }
    return ranges;
}

bool MP4Track::sampleInfo(uint32_t index, SampleInfo& info) const
{
    buildIndex();
    if (index >= sampleOffsets_.size()) return false;
    info = SampleInfo();
    info.offset = sampleOffsets_[index];
    info.size = stsz()->sampleSize(index);
    if (SttsBox* times = stts()) {
        uint64_t time = 0, n = 0;
        for (const auto& run : times->runs) {
            if (index < n + run.count) {
                info.decodeTime = time + (index - n) * uint64_t(run.delta);
                info.duration = run.delta;
                break;
            }
            n += run.count;
            time += uint64_t(run.count) * run.delta;
        }
    }
    if (auto ctts = stbl()->findChild<CttsBox>()) {
        uint64_t n = 0;
        for (const auto& run : ctts->runs) {
            if (index < n + run.count) {
                info.renderingOffset = run.offset;
                break;
            }
            n += run.count;
        }
    }
    if (auto stss = stbl()->findChild<StssBox>())
        info.isSync = std::binary_search(stss->samples.begin(), stss->samples.end(), index + 1);
    return true;
}

bool MP4Track::readSample(uint32_t index, std::vector<uint8_t>& data) const
{
    SampleInfo info;
    if (!sampleInfo(index, info)) return false;
    // Samples still waiting in the chunk buffer are not in the file yet.
    if (info.offset + info.size > file_.fileSize()) return false;
    data.resize(info.size);
    return file_.readAt(info.offset, data.data(), data.size());
}

} // namespace qx::mp4
