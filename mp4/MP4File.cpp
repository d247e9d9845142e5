#include "qxmedia/mp4/MP4File.h"

#include "qxmedia/mp4/MP4Log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qx::mp4 {

namespace {

// Top-level boxes larger than this stay in the file unless they are moov.
constexpr uint64_t kLoadLimit = 1 << 20;
// A moov this big is not a real one.
constexpr uint64_t kMoovLimit = uint64_t(1) << 30;

// The test seam of failWritesAfter: operations left, negative for no limit.
std::atomic<int> gWritesLeft {-1};
std::atomic<bool> gFailPermanently {false};

bool writeAllowed()
{
    int left = gWritesLeft.load();
    if (left < 0) return true;
    if (left == 0) {
        if (!gFailPermanently) gWritesLeft = -1;
        errno = ENOSPC;
        return false;
    }
    gWritesLeft = left - 1;
    return true;
}

} // namespace

MP4File::MP4File(const std::filesystem::path& path, Mode mode) : path_(path), mode_(mode) {}

MP4File::~MP4File()
{
    if (fd_ < 0) return;
    if (mode_ == Mode::Modify) abandonEdit();
    ::close(fd_);
}

void MP4File::failWritesAfter(int operations, bool permanently)
{
    gFailPermanently = permanently;
    gWritesLeft = operations;
}

std::unique_ptr<MP4File> MP4File::read(const std::filesystem::path& path)
{
    std::unique_ptr<MP4File> file(new MP4File(path, Mode::Read));
    if (!file->open() || !file->parse()) return nullptr;
    return file;
}

std::unique_ptr<MP4File> MP4File::modify(const std::filesystem::path& path)
{
    std::unique_ptr<MP4File> file(new MP4File(path, Mode::Modify));
    if (!file->open()) return nullptr;
    bool usable = file->parse() && file->repairLeftovers();
    if (usable && file->damaged_) {
        // Writing back a tree that was only partly understood could lose data.
        MP4Log(MP4_LOG_ERROR, "\"%s\" is damaged and is not modified", path.c_str());
        usable = false;
    }
    if (!usable) {
        ::close(file->fd_);
        file->fd_ = -1;
        return nullptr;
    }
    return file;
}

bool MP4File::open()
{
    int flags = O_CLOEXEC;
    if (mode_ == Mode::Read)
        flags |= O_RDONLY;
    else if (mode_ == Mode::Modify)
        flags |= O_RDWR;
    else
        flags |= O_RDWR | O_CREAT | O_TRUNC;
    fd_ = ::open(path_.c_str(), flags, 0644);
    if (fd_ < 0) {
        MP4Log(MP4_LOG_ERROR, "failed to open \"%s\": %s", path_.c_str(), std::strerror(errno));
        return false;
    }
    // An editor waits for the one before it; the size is read after that.
    if (mode_ == Mode::Modify) {
        int locked;
        while ((locked = ::flock(fd_, LOCK_EX)) != 0 && errno == EINTR) {}
        if (locked != 0) {
            MP4Log(MP4_LOG_ERROR, "failed to lock \"%s\": %s", path_.c_str(), std::strerror(errno));
            ::close(fd_);
            fd_ = -1;
            return false;
        }
    }
    struct stat st {};
    if (::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
        MP4Log(MP4_LOG_ERROR, "\"%s\" is not a regular file", path_.c_str());
        ::close(fd_);
        fd_ = -1;
        return false;
    }
    fileSize_ = uint64_t(st.st_size);
    sizeAtOpen_ = fileSize_;
    return true;
}

bool MP4File::readAt(uint64_t offset, void* data, size_t size) const
{
    auto p = static_cast<uint8_t*>(data);
    while (size > 0) {
        ssize_t n = ::pread(fd_, p, size, off_t(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        offset += uint64_t(n);
        size -= size_t(n);
    }
    return true;
}

bool MP4File::writeAt(uint64_t offset, const void* data, size_t size)
{
    auto p = static_cast<const uint8_t*>(data);
    while (size > 0) {
        ssize_t n = writeAllowed() ? ::pwrite(fd_, p, size, off_t(offset)) : -1;
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            MP4Log(MP4_LOG_ERROR, "failed to write \"%s\": %s", path_.c_str(), std::strerror(errno));
            writeFailed_ = true;
            return false;
        }
        p += n;
        offset += uint64_t(n);
        size -= size_t(n);
    }
    fileSize_ = std::max(fileSize_, offset);
    return true;
}

bool MP4File::syncFile()
{
    if (writeAllowed() && ::fdatasync(fd_) == 0) return true;
    MP4Log(MP4_LOG_ERROR, "failed to write \"%s\": %s", path_.c_str(), std::strerror(errno));
    writeFailed_ = true;
    return false;
}

bool MP4File::truncateFile(uint64_t size)
{
    if (!writeAllowed() || ::ftruncate(fd_, off_t(size)) != 0) {
        MP4Log(MP4_LOG_ERROR, "failed to truncate \"%s\": %s", path_.c_str(), std::strerror(errno));
        return false;
    }
    fileSize_ = size;
    return true;
}

bool MP4File::parse()
{
    uint64_t offset = 0;
    while (offset < fileSize_) {
        uint64_t available = fileSize_ - offset;
        uint8_t head[16] = {};
        size_t headSize = size_t(std::min<uint64_t>(available, 16));
        if (!readAt(offset, head, headSize)) {
            MP4Log(MP4_LOG_ERROR, "failed to read \"%s\" at %" PRIu64, path_.c_str(), offset);
            damaged_ = damagedElsewhere_ = true;
            break;
        }
        if (available < 8) {
            if (std::any_of(head, head + headSize, [](uint8_t b) { return b != 0; })) {
                MP4Log(MP4_LOG_ERROR, "invalid atom size: %" PRIu64 " stray bytes at the end", available);
                damaged_ = true;
            }
            cutShortAt_ = offset; // zeros are harmless to readers, not to what is appended
            break;
        }
        ByteReader in(head, headSize);
        BoxParser::Header header;
        if (!BoxParser::readHeader(in, available, offset, header)) {
            damaged_ = true;
            cutShortAt_ = offset;
            break;
        }
        uint64_t payloadOffset = offset + header.headerSize;
        uint64_t payloadSize = header.size - header.headerSize;
        std::unique_ptr<Box> box;
        bool load = header.type == kMoov ? payloadSize <= kMoovLimit
                                         : header.type != kMdat && payloadSize <= kLoadLimit;
        if (load) {
            std::vector<uint8_t> payload(payloadSize);
            if (!readAt(payloadOffset, payload.data(), payload.size())) {
                damaged_ = damagedElsewhere_ = true;
                break;
            }
            bool damaged = false;
            box = BoxParser::parsePayload(header.type, 0, ByteReader(payload), payloadOffset, 1, &damaged);
            if (damaged) damaged_ = damagedElsewhere_ = true;
        } else {
            auto range = std::make_unique<FileRangeBox>(header.type);
            range->payloadOffset = payloadOffset;
            range->payloadSize = payloadSize;
            box = std::move(range);
        }
        box->fileOffset = offset;
        box->fileSize = header.size;
        box->largeSize = header.headerSize == 16;
        root_.addChild(std::move(box));
        offset += header.size;
    }
    if (!moov()) {
        MP4Log(MP4_LOG_ERROR, "no moov atom found in \"%s\"", path_.c_str());
        return false;
    }
    adoptTracks();
    checkSampleTables();
    return true;
}

// Counts and offsets that no real file has: the track points outside the file.
void MP4File::checkSampleTables()
{
    for (const auto& track : tracks_) {
        if (Box* table = track->stbl()) {
            for (FourCC type : {StszBox::kType, ChunkOffsetBox::kType, ChunkOffsetBox::kType64, StscBox::kType, SttsBox::kType}) {
                Box* box = table->findChild(type);
                if (!box || dynamic_cast<FullBox*>(box)) continue;
                // Fields that did not parse: the counts do not fit the box.
                MP4Log(MP4_LOG_ERROR, "invalid atom size: '%s' of track %u does not hold what it counts",
                       fourccString(type).c_str(), track->id());
                damaged_ = damagedElsewhere_ = true;
            }
        }
        if (StszBox* sizes = track->stsz(); sizes && sizes->sampleCount() == UINT32_MAX) {
            MP4Log(MP4_LOG_ERROR, "invalid atom size: 'stsz' of track %u counts %u samples", track->id(), UINT32_MAX);
            damaged_ = damagedElsewhere_ = true;
        }
        if (!track->samplesFitInFile()) {
            MP4Log(MP4_LOG_ERROR, "invalid atom size: samples of track %u lie beyond the end of the file", track->id());
            damaged_ = damagedElsewhere_ = true;
        }
        ChunkOffsetBox* offsets = track->stco();
        if (!offsets) continue;
        for (uint64_t offset : offsets->offsets) {
            if (offset < fileSize_) continue;
            MP4Log(MP4_LOG_ERROR, "invalid atom size: chunk offset %" PRIu64 " of track %u lies beyond the end of the file (%" PRIu64 " bytes)",
                   offset, track->id(), fileSize_);
            damaged_ = damagedElsewhere_ = true;
            break;
        }
    }
}

void MP4File::adoptTracks()
{
    tracks_.clear();
    for (Box* trak : moov()->findChildren(kTrak)) {
        auto track = std::make_unique<MP4Track>(*this, *trak);
        if (!track->tkhd()) continue; // a trak without header is no track
        tracks_.push_back(std::move(track));
    }
}

Box* MP4File::moov() const { return root_.findChild(kMoov); }
FtypBox* MP4File::ftyp() const { return root_.findChild<FtypBox>(); }

MvhdBox* MP4File::mvhd() const
{
    Box* m = moov();
    return m ? m->findChild<MvhdBox>() : nullptr;
}

Box* MP4File::movieUserData(bool create)
{
    Box* m = moov();
    if (!m) return nullptr;
    Box* udta = m->findChild(kUdta);
    if (!udta && create) udta = m->addChild(std::make_unique<ContainerBox>(kUdta));
    return udta;
}

uint32_t MP4File::timeScale() const
{
    MvhdBox* m = mvhd();
    return m ? m->timescale : 0;
}

void MP4File::setTimeScale(uint32_t timescale)
{
    if (MvhdBox* m = mvhd(); m && timescale) m->timescale = timescale;
}

uint64_t MP4File::duration() const
{
    MvhdBox* m = mvhd();
    return m ? m->duration : 0;
}

void MP4File::setVideoProfileLevel(uint8_t level)
{
    if (Box* m = moov())
        if (auto iods = m->findChild<IodsBox>(); iods && iods->parsed) iods->visualProfileLevel = level;
}

void MP4File::setAudioProfileLevel(uint8_t level)
{
    if (Box* m = moov())
        if (auto iods = m->findChild<IodsBox>(); iods && iods->parsed) iods->audioProfileLevel = level;
}

uint8_t MP4File::videoProfileLevel() const
{
    Box* m = moov();
    auto iods = m ? m->findChild<IodsBox>() : nullptr;
    return iods && iods->parsed ? iods->visualProfileLevel : 0xFF;
}

uint8_t MP4File::audioProfileLevel() const
{
    Box* m = moov();
    auto iods = m ? m->findChild<IodsBox>() : nullptr;
    return iods && iods->parsed ? iods->audioProfileLevel : 0xFF;
}

std::vector<MP4Track*> MP4File::tracks() const
{
    std::vector<MP4Track*> list;
    for (const auto& t : tracks_) list.push_back(t.get());
    return list;
}

MP4Track* MP4File::track(uint32_t trackId) const
{
    for (const auto& t : tracks_)
        if (t->id() == trackId) return t.get();
    return nullptr;
}

uint32_t MP4File::findTrackId(size_t index, FourCC type) const
{
    for (const auto& t : tracks_)
        if ((type == 0 || t->type() == type) && index-- == 0) return t->id();
    return 0;
}

uint32_t MP4File::nextTrackId() const
{
    uint32_t next = 1;
    for (const auto& t : tracks_) next = std::max(next, t->id() + 1);
    if (MvhdBox* m = mvhd(); m && m->nextTrackId > next && m->nextTrackId != UINT32_MAX) next = m->nextTrackId;
    return next;
}

bool MP4File::deleteTrack(uint32_t trackId)
{
    if (mode_ == Mode::Read) return false;
    for (size_t i = 0; i < tracks_.size(); ++i) {
        if (tracks_[i]->id() != trackId) continue;
        Box* trak = &tracks_[i]->trak();
        tracks_.erase(tracks_.begin() + std::ptrdiff_t(i));
        moov()->removeChild(trak);
        // References to the deleted track go with it.
        for (const auto& other : tracks_) {
            for (auto& [type, ids] : other->allReferences()) {
                if (std::find(ids.begin(), ids.end(), trackId) == ids.end()) continue;
                std::erase(ids, trackId);
                if (ids.empty())
                    other->removeReferences(type);
                else
                    other->setReferences(type, ids);
            }
        }
        return true;
    }
    return false;
}

bool MP4File::appendMediaData(const uint8_t* data, size_t size, uint64_t& offset)
{
    if (mode_ == Mode::Read || writeFailed_) return false;
    if (mdatOffset_ == 0) {
        // Modify: new samples go into a new mdat at the end of the file,
        // hidden from readers until the edit is switched live.
        if (!openHiddenTail()) {
            writeFailed_ = true; // the samples of this session cannot be placed
            return false;
        }
        mdatOffset_ = fileSize_;
        uint8_t header[16] = {0, 0, 0, 1, 'm', 'd', 'a', 't'};
        if (!writeAt(mdatOffset_, header, 16)) return false;
        writePosition_ = mdatOffset_ + 16;
        options_.use64BitData = true;
    }
    offset = writePosition_;
    if (!writeAt(writePosition_, data, size)) return false;
    writePosition_ += size;
    return true;
}

bool MP4File::skipMediaData(uint64_t size)
{
    uint8_t nothing = 0;
    uint64_t offset = 0;
    // Opens the mdat of a modified file if needed, then moves past the hole.
    if (!appendMediaData(&nothing, 0, offset)) return false;
    writePosition_ += size;
    return true;
}

bool MP4File::setTrackDurationPerChunk(uint32_t trackId, uint64_t duration)
{
    MP4Track* t = track(trackId);
    if (!t) return false;
    t->setDurationPerChunk(duration);
    return true;
}

uint64_t MP4File::trackDurationPerChunk(uint32_t trackId) const
{
    MP4Track* t = track(trackId);
    return t ? t->durationPerChunk() : UINT64_MAX;
}

uint64_t MP4File::convertFromTrackDuration(uint32_t trackId, uint64_t duration) const
{
    MP4Track* t = track(trackId);
    uint32_t from = t ? t->timeScale() : 0;
    uint32_t to = timeScale();
    if (!from || !to) return 0;
    // Round to the nearest, without overflow for any 64-bit duration.
    unsigned __int128 v = (unsigned __int128)duration * to + from / 2;
    return uint64_t(v / from);
}

bool MP4File::writeSample(uint32_t trackId, const uint8_t* data, size_t size, int64_t duration,
                          int64_t renderingOffset, bool isSync)
{
    MP4Track* t = track(trackId);
    return t && t->writeSample(data, size, duration, renderingOffset, isSync, std::nullopt);
}

bool MP4File::writeSampleDependency(uint32_t trackId, const uint8_t* data, size_t size, int64_t duration,
                                    int64_t renderingOffset, bool isSync, uint8_t dependencyFlags)
{
    MP4Track* t = track(trackId);
    return t && t->writeSample(data, size, duration, renderingOffset, isSync, dependencyFlags);
}

// ---------------------------------------------------------------------------
// Closing

void MP4File::finishTracks(uint32_t flags)
{
    uint32_t movieTimescale = timeScale();
    uint64_t movieDuration = 0;
    for (const auto& t : tracks_) {
        t->finish(movieTimescale);
        // Bit rates describe samples written here; a track read from the file keeps its own.
        if (!(flags & MP4_CLOSE_DO_NOT_COMPUTE_BITRATE) && (t->isNew || t->hasNewSamples())) {
            uint32_t average = 0, peak = 0, buffer = 0;
            t->computeBitrates(average, peak, buffer);
            if (auto esds = t->sampleEntryChild<EsdsBox>()) {
                esds->avgBitrate = average;
                esds->maxBitrate = peak;
                esds->bufferSizeDB = buffer;
            }
            if (auto btrt = t->sampleEntryChild<BtrtBox>()) {
                btrt->avgBitrate = average;
                btrt->maxBitrate = peak;
                btrt->bufferSizeDB = buffer;
            }
        }
        if (auto tkhd = t->tkhd()) movieDuration = std::max(movieDuration, tkhd->duration);
    }
    if (MvhdBox* m = mvhd()) {
        m->duration = movieDuration;
        m->nextTrackId = nextTrackId();
    }
}

bool MP4File::close(uint32_t flags)
{
    if (fd_ < 0) return true;
    bool ok = true;
    if (mode_ == Mode::Create)
        ok = writeMoovCreated(flags);
    else if (mode_ == Mode::Modify)
        ok = writeMoovModified(flags);
    if (::close(fd_) != 0) ok = false; // also releases the edit lock
    fd_ = -1;
    return ok && !writeFailed_;
}

bool MP4File::writeMoovCreated(uint32_t flags)
{
    for (const auto& t : tracks_) t->flushChunk();
    finishTracks(flags);
    uint64_t mdatSize = writePosition_ - mdatOffset_;
    if (options_.use64BitData) {
        uint8_t size[8];
        writeBE64(size, mdatSize);
        writeAt(mdatOffset_ + 8, size, 8);
    } else if (mdatSize <= UINT32_MAX) {
        uint8_t size[4];
        writeBE32(size, uint32_t(mdatSize));
        writeAt(mdatOffset_, size, 4);
    } else {
        // Widen into the free box reserved in front of the mdat header.
        uint8_t header[16] = {0, 0, 0, 1, 'm', 'd', 'a', 't'};
        writeBE64(header + 8, mdatSize + 8);
        writeAt(mdatOffset_ - 8, header, 16);
    }
    std::vector<uint8_t> bytes = moov()->toBytes();
    writeAt(writePosition_, bytes.data(), bytes.size());
    return !writeFailed_;
}

} // namespace qx::mp4
