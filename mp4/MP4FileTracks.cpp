// Creating files and tracks.

#include "qxmedia/mp4/MP4File.h"

#include "qxmedia/mp4/MP4Log.h"

#include <algorithm>
#include <ctime>

namespace qx::mp4 {

namespace {

std::unique_ptr<Box> rawBox(FourCC type, std::vector<uint8_t> payload)
{
    auto box = std::make_unique<Box>(type);
    box->trailing = std::move(payload);
    return box;
}

// dinf/dref with one self-contained 'url ' entry.
std::unique_ptr<Box> makeDinf()
{
    auto dinf = std::make_unique<ContainerBox>(kDinf);
    dinf->addChild(rawBox(fourcc("dref"), {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 12, 'u', 'r', 'l', ' ', 0, 0, 0, 1}));
    return dinf;
}

// QuickTime base media header for text tracks: gmin and a text matrix.
std::unique_ptr<Box> makeGmhd()
{
    auto gmhd = std::make_unique<ContainerBox>(fourcc("gmhd"));
    gmhd->addChild(rawBox(fourcc("gmin"), {0, 0, 0, 0, 0, 0x40, 0x80, 0, 0x80, 0, 0x80, 0, 0, 0, 0, 0}));
    std::vector<uint8_t> matrix(36, 0);
    matrix[1] = 1;
    matrix[17] = 1;
    matrix[32] = 0x40;
    gmhd->addChild(rawBox(fourcc("text"), matrix));
    return gmhd;
}

// Seconds since 1904-01-01, the epoch of MP4 time stamps.
uint64_t mp4Now()
{
    return uint64_t(std::time(nullptr)) + 2082844800u;
}

} // namespace

std::unique_ptr<MP4File> MP4File::create(const std::filesystem::path& path, const MP4CreateOptions& options)
{
    std::unique_ptr<MP4File> file(new MP4File(path, Mode::Create));
    file->options_ = options;
    if (!file->open()) return nullptr;

    ByteWriter head;
    if (options.addFtyp) {
        auto ftyp = std::make_unique<FtypBox>();
        ftyp->majorBrand = options.majorBrand;
        ftyp->minorVersion = options.minorVersion;
        ftyp->compatibleBrands = options.compatibleBrands;
        ftyp->write(head);
        file->root_.addChild(std::move(ftyp));
    }
    if (!options.use64BitData) {
        // Room to widen the mdat header at close if the data passes 4 GiB.
        head.u32(8);
        head.u32(kFree);
    }
    file->mdatOffset_ = head.size();
    if (options.use64BitData) {
        head.u32(1);
        head.u32(kMdat);
        head.u64(0);
    } else {
        head.u32(0);
        head.u32(kMdat);
    }
    file->writePosition_ = head.size();
    if (!file->writeAt(0, head.buffer().data(), head.size())) return nullptr;

    auto moov = std::make_unique<ContainerBox>(kMoov);
    auto mvhd = moov->makeChild<MvhdBox>();
    mvhd->timescale = options.timeScale ? options.timeScale : 1000;
    mvhd->creationTime = mvhd->modificationTime = mp4Now();
    mvhd->nextTrackId = 1;
    if (options.addIods) {
        auto iods = moov->makeChild<IodsBox>();
        iods->parsed = true;
    }
    file->root_.addChild(std::move(moov));
    return file;
}

MP4Track* MP4File::newTrack(FourCC handler, uint32_t timescale, const std::string& handlerName)
{
    Box* movie = moov();
    if (mode_ == Mode::Read || !movie) return nullptr;
    uint32_t id = nextTrackId();

    auto trak = std::make_unique<ContainerBox>(kTrak);
    auto tkhd = trak->makeChild<TkhdBox>();
    tkhd->trackId = id;
    tkhd->creationTime = tkhd->modificationTime = mp4Now();
    tkhd->volume = handler == kAudioTrack ? 0x100 : 0;
    if (handler == kAudioTrack) tkhd->alternateGroup = 0;
    Box* mdia = trak->addChild(std::make_unique<ContainerBox>(kMdia));
    auto mdhd = mdia->makeChild<MdhdBox>();
    mdhd->timescale = timescale ? timescale : 1000;
    mdhd->creationTime = mdhd->modificationTime = mp4Now();
    auto hdlr = mdia->makeChild<HdlrBox>();
    hdlr->handlerType = handler;
    hdlr->name = handlerName;
    Box* minf = mdia->addChild(std::make_unique<ContainerBox>(kMinf));
    if (handler == kVideoTrack)
        minf->makeChild<VmhdBox>();
    else if (handler == kAudioTrack)
        minf->makeChild<SmhdBox>();
    else if (handler == kTextTrack)
        minf->addChild(makeGmhd());
    else
        minf->addChild(rawBox(fourcc("nmhd"), {0, 0, 0, 0}));
    minf->addChild(makeDinf());
    Box* stbl = minf->addChild(std::make_unique<ContainerBox>(kStbl));
    stbl->makeChild<StsdBox>();
    stbl->makeChild<SttsBox>();
    stbl->makeChild<StscBox>();
    stbl->makeChild<StszBox>();
    stbl->makeChild<ChunkOffsetBox>();

    // New tracks go after the last trak, before udta and the rest.
    size_t at = 0;
    for (size_t i = 0; i < movie->children().size(); ++i) {
        FourCC type = movie->children()[i]->type();
        if (type == kTrak || type == MvhdBox::kType || type == IodsBox::kType) at = i + 1;
    }
    Box* added = movie->insertChild(at, std::move(trak));
    tracks_.push_back(std::make_unique<MP4Track>(*this, *added));
    tracks_.back()->isNew = true;
    if (MvhdBox* m = mvhd()) m->nextTrackId = id + 1;
    return tracks_.back().get();
}

Box* MP4File::newSampleEntry(MP4Track& track, std::unique_ptr<Box> entry)
{
    StsdBox* stsd = track.stsd();
    return stsd ? stsd->addChild(std::move(entry)) : nullptr;
}

namespace {
std::unique_ptr<VisualSampleEntry> visualEntry(FourCC type, uint16_t width, uint16_t height)
{
    auto entry = std::make_unique<VisualSampleEntry>(type);
    entry->width = width;
    entry->height = height;
    return entry;
}

void setVisualSize(MP4Track& track, uint16_t width, uint16_t height)
{
    track.setWidth(width);
    track.setHeight(height);
}
} // namespace

uint32_t MP4File::addH264VideoTrack(uint32_t timescale, int64_t sampleDuration, uint16_t width, uint16_t height,
                                    uint8_t profile, uint8_t profileCompatibility, uint8_t level,
                                    uint8_t lengthSizeMinusOne)
{
    MP4Track* track = newTrack(kVideoTrack, timescale, "VideoHandler");
    if (!track) return 0;
    track->fixedSampleDuration = sampleDuration < 0 ? 0 : uint32_t(sampleDuration);
    setVisualSize(*track, width, height);
    Box* entry = newSampleEntry(*track, visualEntry(fourcc("avc1"), width, height));
    auto avcC = entry->makeChild<AvcCBox>();
    avcC->profile = profile;
    avcC->profileCompatibility = profileCompatibility;
    avcC->level = level;
    // Samples are written with four-byte lengths unless told otherwise.
    avcC->lengthSizeMinusOne = lengthSizeMinusOne <= 3 ? lengthSizeMinusOne : 3;
    return track->id();
}

bool MP4File::addH264SequenceParameterSet(uint32_t trackId, const uint8_t* data, uint16_t size)
{
    MP4Track* t = track(trackId);
    AvcCBox* avcC = t ? t->sampleEntryChild<AvcCBox>() : nullptr;
    if (!avcC) return false;
    std::vector<uint8_t> set(data, data + size);
    if (std::find(avcC->sps.begin(), avcC->sps.end(), set) == avcC->sps.end()) avcC->sps.push_back(std::move(set));
    return true;
}

bool MP4File::addH264PictureParameterSet(uint32_t trackId, const uint8_t* data, uint16_t size)
{
    MP4Track* t = track(trackId);
    AvcCBox* avcC = t ? t->sampleEntryChild<AvcCBox>() : nullptr;
    if (!avcC) return false;
    std::vector<uint8_t> set(data, data + size);
    if (std::find(avcC->pps.begin(), avcC->pps.end(), set) == avcC->pps.end()) avcC->pps.push_back(std::move(set));
    return true;
}

uint32_t MP4File::addHEVCVideoTrack(uint32_t timescale, int64_t sampleDuration, uint16_t width, uint16_t height)
{
    MP4Track* track = newTrack(kVideoTrack, timescale, "VideoHandler");
    if (!track) return 0;
    track->fixedSampleDuration = sampleDuration < 0 ? 0 : uint32_t(sampleDuration);
    setVisualSize(*track, width, height);
    Box* entry = newSampleEntry(*track, visualEntry(fourcc("hvc1"), width, height));
    entry->makeChild<HvcCBox>();
    return track->id();
}

bool MP4File::setHEVCConfiguration(uint32_t trackId, const uint8_t* data, size_t size)
{
    MP4Track* t = track(trackId);
    HvcCBox* hvcC = t ? t->sampleEntryChild<HvcCBox>() : nullptr;
    if (!hvcC) return false;
    hvcC->content.assign(data, data + size);
    return true;
}

uint32_t MP4File::addJpegVideoTrack(uint32_t timescale, int64_t sampleDuration, uint16_t width, uint16_t height)
{
    MP4Track* track = newTrack(kVideoTrack, timescale, "VideoHandler");
    if (!track) return 0;
    track->fixedSampleDuration = sampleDuration < 0 ? 0 : uint32_t(sampleDuration);
    setVisualSize(*track, width, height);
    newSampleEntry(*track, visualEntry(fourcc("jpeg"), width, height));
    return track->id();
}

uint32_t MP4File::addAudioTrack(uint32_t timescale, int64_t sampleDuration, uint8_t objectType)
{
    MP4Track* track = newTrack(kAudioTrack, timescale, "SoundHandler");
    if (!track) return 0;
    track->fixedSampleDuration = sampleDuration < 0 ? 0 : uint32_t(sampleDuration);
    auto entry = std::make_unique<AudioSampleEntry>(fourcc("mp4a"));
    entry->sampleRate = timescale <= 0xFFFF ? timescale << 16 : 0;
    auto esds = entry->makeChild<EsdsBox>();
    esds->objectTypeIndication = objectType;
    esds->esId = uint16_t(track->id());
    newSampleEntry(*track, std::move(entry));
    return track->id();
}

bool MP4File::setTrackESConfiguration(uint32_t trackId, const uint8_t* data, size_t size)
{
    MP4Track* t = track(trackId);
    EsdsBox* esds = t ? t->sampleEntryChild<EsdsBox>() : nullptr;
    if (!esds) return false;
    esds->decoderSpecificInfo.assign(data, data + size);
    return true;
}

uint32_t MP4File::addAC3AudioTrack(uint32_t samplingRate, uint8_t fscod, uint8_t bsid, uint8_t bsmod, uint8_t acmod,
                                   uint8_t lfeon, uint8_t bitRateCode)
{
    MP4Track* track = newTrack(kAudioTrack, samplingRate, "SoundHandler");
    if (!track) return 0;
    track->fixedSampleDuration = 1536;
    auto entry = std::make_unique<AudioSampleEntry>(fourcc("ac-3"));
    entry->sampleRate = samplingRate <= 0xFFFF ? samplingRate << 16 : 0;
    auto dac3 = entry->makeChild<Dac3Box>();
    dac3->fscod = fscod;
    dac3->bsid = bsid;
    dac3->bsmod = bsmod;
    dac3->acmod = acmod;
    dac3->lfeon = lfeon;
    dac3->bitRateCode = bitRateCode;
    newSampleEntry(*track, std::move(entry));
    return track->id();
}

uint32_t MP4File::addEAC3AudioTrack(uint32_t samplingRate, const uint8_t* dec3, size_t size)
{
    MP4Track* track = newTrack(kAudioTrack, samplingRate, "SoundHandler");
    if (!track) return 0;
    track->fixedSampleDuration = 1536;
    auto entry = std::make_unique<AudioSampleEntry>(fourcc("ec-3"));
    entry->sampleRate = samplingRate <= 0xFFFF ? samplingRate << 16 : 0;
    auto box = entry->makeChild<Dec3Box>();
    if (dec3 && size) box->content.assign(dec3, dec3 + size);
    newSampleEntry(*track, std::move(entry));
    return track->id();
}

uint32_t MP4File::addSubtitleTrack(uint32_t timescale, uint16_t width, uint16_t height)
{
    MP4Track* track = newTrack(kSubtitleTrack, timescale, "SubtitleHandler");
    if (!track) return 0;
    setVisualSize(*track, width, height);
    track->tkhd()->layer = -1; // above the video
    auto entry = std::make_unique<Tx3gSampleEntry>();
    entry->defTextBoxBottom = int16_t(height);
    entry->defTextBoxRight = int16_t(width);
    auto ftab = entry->makeChild<FtabBox>();
    ftab->fonts.push_back({1, "Sans-Serif"});
    newSampleEntry(*track, std::move(entry));
    return track->id();
}

uint32_t MP4File::addChapterTextTrack(uint32_t refTrackId, uint32_t timescale)
{
    MP4Track* reference = refTrackId ? track(refTrackId) : nullptr;
    if (refTrackId && !reference) return 0;
    if (!timescale) timescale = reference && reference->timeScale() ? reference->timeScale() : 1000;
    MP4Track* chapters = newTrack(kTextTrack, timescale, "TextHandler");
    if (!chapters) return 0;
    chapters->setFlags(0); // chapter titles are not shown as a track
    auto entry = std::make_unique<TextSampleEntry>();
    entry->displayFlags = 0;
    newSampleEntry(*chapters, std::move(entry));
    if (reference) reference->addReference(fourcc("chap"), chapters->id());
    return chapters->id();
}

bool MP4File::addChapter(uint32_t chapterTrackId, uint64_t duration, const std::string& title)
{
    MP4Track* chapters = track(chapterTrackId);
    if (!chapters || chapters->mediaDataName() != TextSampleEntry::kType) return false;
    // A text sample: 16-bit length, UTF-8 text, and an encd box saying UTF-8.
    ByteWriter sample;
    std::string text = title.substr(0, 1023);
    sample.u16(uint16_t(text.size()));
    sample.string(text);
    sample.u32(12);
    sample.u32(fourcc("encd"));
    sample.u32(0x100);
    return chapters->writeSample(sample.buffer().data(), sample.size(), int64_t(std::min<uint64_t>(duration, UINT32_MAX)),
                                 0, true, std::nullopt);
}

bool MP4File::addPixelAspectRatio(uint32_t trackId, uint32_t hSpacing, uint32_t vSpacing)
{
    MP4Track* t = track(trackId);
    Box* entry = t ? t->sampleEntry() : nullptr;
    if (!entry || !dynamic_cast<VisualSampleEntry*>(entry)) return false;
    auto pasp = entry->findOrMakeChild<PaspBox>();
    pasp->hSpacing = hSpacing;
    pasp->vSpacing = vSpacing;
    return true;
}

bool MP4File::addColr(uint32_t trackId, uint16_t primaries, uint16_t transfer, uint16_t matrix, bool fullRange,
                      bool nclx)
{
    MP4Track* t = track(trackId);
    Box* entry = t ? t->sampleEntry() : nullptr;
    if (!entry || !dynamic_cast<VisualSampleEntry*>(entry)) return false;
    auto colr = entry->findOrMakeChild<ColrBox>();
    colr->colorParameterType = nclx ? fourcc("nclx") : fourcc("nclc");
    colr->primariesIndex = primaries;
    colr->transferFunctionIndex = transfer;
    colr->matrixIndex = matrix;
    colr->fullRangeFlag = fullRange;
    return true;
}

} // namespace qx::mp4
