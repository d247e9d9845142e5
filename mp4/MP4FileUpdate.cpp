// Writing an edited moov back into its file without ever putting the file at
// risk. docs/ARCHITECTURE.md ("The MP4 layer") explains the order of writes
// and why the file is valid after each of them. In short: readers take the
// first moov of a file; new bytes go only where nothing live is (free boxes,
// the end of the file) and become the first moov by one small header write.

#include "qxmedia/mp4/MP4File.h"

#include "qxmedia/mp4/MP4Log.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

namespace qx::mp4 {

namespace {

bool isFree(FourCC type) { return type == kFree || type == kSkip || type == kWide; }

// A free box of `size` bytes with an 8-byte header.
void freeHeader(uint8_t* header, uint64_t size)
{
    writeBE32(header, uint32_t(size));
    std::memcpy(header + 4, "free", 4);
}

// The free space after a run of free boxes.
struct FreeRun {
    size_t first = 0, count = 0;
    uint64_t offset = 0, size = 0;
};

// The first run of free boxes that takes `size` bytes exactly or with room
// for a free box after them, and that no sample lies in.
template <class HoldsSamples> bool findFreeRun(const RootBox& root, uint64_t size, HoldsSamples holdsSamples, FreeRun& found)
{
    const auto& top = root.children();
    for (size_t i = 0; i < top.size();) {
        if (!isFree(top[i]->type())) {
            ++i;
            continue;
        }
        FreeRun run {i, 0, top[i]->fileOffset, 0};
        for (; i < top.size() && isFree(top[i]->type()); ++i, ++run.count)
            run.size = top[i]->fileOffset + top[i]->fileSize - run.offset;
        if (run.size <= UINT32_MAX && (run.size == size || size + 8 <= run.size) &&
            !holdsSamples(run.offset, run.offset + run.size)) {
            found = run;
            return true;
        }
    }
    return false;
}

} // namespace

// Damaged or odd files may point samples anywhere, even into box headers;
// the editor writes nowhere a sample lies.
bool MP4File::holdsSamples(uint64_t begin, uint64_t end) const
{
    for (const auto& [first, last] : liveSamples_)
        if (first < end && begin < last) return true;
    return false;
}

void MP4File::abandonEdit()
{
    // What this session appended is not referred to by the live moov.
    if (fileSize_ > sizeAtOpen_ && truncateFile(sizeAtOpen_)) syncFile();
}

bool MP4File::retireBox(Box& box)
{
    // The size is always written out: a box "to the end of the file" would
    // swallow whatever is appended after it.
    uint8_t header[16];
    size_t length = 8;
    if (box.largeSize) {
        writeBE32(header, 1);
        std::memcpy(header + 4, "free", 4);
        writeBE64(header + 8, box.fileSize);
        length = 16;
    } else if (box.fileSize <= UINT32_MAX) {
        freeHeader(header, box.fileSize);
    } else {
        return false;
    }
    if (holdsSamples(box.fileOffset, box.fileOffset + length) || !writeAt(box.fileOffset, header, length)) return false;
    auto space = std::make_unique<FileRangeBox>(kFree);
    space->fileOffset = box.fileOffset;
    space->fileSize = box.fileSize;
    space->largeSize = box.largeSize;
    space->payloadOffset = box.fileOffset + length;
    space->payloadSize = box.fileSize - length;
    root_.replaceChild(&box, std::move(space));
    return true;
}

bool MP4File::pinLastBox()
{
    // A last box stored with size 0 reaches to the end of the file; give it
    // its size before anything is appended.
    if (lastBoxPinned_ || root_.children().empty()) return true;
    if (cutShortAt_ != UINT64_MAX) return false; // bytes after the last box that are still in use
    const Box& last = *root_.children().back();
    uint8_t size[4] = {};
    if (!readAt(last.fileOffset, size, 4)) return false;
    if (readBE32(size) == 0) {
        if (last.fileSize > UINT32_MAX) {
            MP4Log(MP4_LOG_ERROR, "\"%s\" ends in a box of unstated size beyond 4 GiB; nothing can be appended",
                   path_.c_str());
            return false;
        }
        writeBE32(size, uint32_t(last.fileSize));
        if (holdsSamples(last.fileOffset, last.fileOffset + 4) || !writeAt(last.fileOffset, size, 4) || !syncFile())
            return false;
    }
    lastBoxPinned_ = true;
    return true;
}

bool MP4File::openHiddenTail()
{
    // One free box from here to the end of the file, whatever is appended
    // behind its header: readers skip it, and a crash leaves nothing else.
    if (hiddenTail_ != UINT64_MAX) return true;
    if (!pinLastBox()) return false;
    const uint8_t header[8] = {0, 0, 0, 0, 'f', 'r', 'e', 'e'};
    if (!writeAt(fileSize_, header, 8)) return false;
    hiddenTail_ = fileSize_ - 8;
    return true;
}

bool MP4File::exposeHiddenTail()
{
    // The hiding box shrinks to its header: what follows becomes top-level
    // boxes (an mdat that nothing refers to yet, a staged moov).
    if (hiddenTail_ == UINT64_MAX) return true;
    uint8_t header[8];
    freeHeader(header, 8);
    return writeAt(hiddenTail_, header, 8);
}

bool MP4File::cutUnusedTail()
{
    // Boxes after the live moov at the end of the file, free or mdat, that
    // no sample lies in: what an interrupted edit appended.
    const auto& top = root_.children();
    const uint64_t liveEnd = moov()->fileOffset + moov()->fileSize;
    size_t first = top.size();
    while (first > 0 && top[first - 1]->fileOffset >= liveEnd &&
           (isFree(top[first - 1]->type()) || top[first - 1]->type() == kMdat))
        --first;
    if (first == top.size()) return true;
    const uint64_t cut = top[first]->fileOffset;
    if (cut >= fileSize_ || holdsSamples(cut, UINT64_MAX)) return true;
    for (const auto& track : tracks_)
        if (ChunkOffsetBox* offsets = track->stco())
            for (uint64_t offset : offsets->offsets)
                if (offset >= cut) return true;
    if (!truncateFile(cut)) return false;
    while (root_.children().size() > first) root_.removeChild(root_.children().back().get());
    sizeAtOpen_ = fileSize_;
    MP4Log(MP4_LOG_INFO, "\"%s\": cut off what an interrupted edit appended", path_.c_str());
    return syncFile();
}

bool MP4File::repairLeftovers()
{
    if (damagedElsewhere_) return true; // refused by the caller
    for (const auto& track : tracks_)
        for (const auto& range : track->sampleRanges()) liveSamples_.push_back(range);
    Box* live = moov();
    bool repaired = false;
    // A second moov is the new one of an edit interrupted before its switch,
    // or the old one after it; readers take the first.
    for (size_t i = root_.indexOf(live) + 1; i < root_.children().size(); ++i) {
        Box& box = *root_.children()[i];
        if (box.type() != kMoov) continue;
        if (!retireBox(box)) return false;
        repaired = true;
    }
    // A box cut short after the live moov that no chunk points into: what an
    // interrupted edit appended.
    if (cutShortAt_ != UINT64_MAX && cutShortAt_ >= live->fileOffset + live->fileSize) {
        // A truncated file has chunks there, whose samples run past the end.
        bool referenced = holdsSamples(cutShortAt_, UINT64_MAX);
        for (const auto& track : tracks_)
            if (ChunkOffsetBox* offsets = track->stco())
                for (uint64_t offset : offsets->offsets) referenced = referenced || offset >= cutShortAt_;
        if (!referenced) {
            if (!truncateFile(cutShortAt_)) return false;
            cutShortAt_ = UINT64_MAX;
            damaged_ = false;
            sizeAtOpen_ = fileSize_;
            repaired = true;
        }
    }
    if (repaired) {
        MP4Log(MP4_LOG_INFO, "\"%s\": cleared what an interrupted edit left", path_.c_str());
        if (!syncFile()) return false;
    }
    return cutShortAt_ != UINT64_MAX || cutUnusedTail();
}

bool MP4File::writeMoovModified(uint32_t flags)
{
    bool ok = true;
    for (const auto& t : tracks_) ok = t->flushChunk() && ok;
    finishTracks(flags);
    ok = ok && !writeFailed_;
    if (ok && mdatOffset_ != 0) {
        uint8_t size[8];
        writeBE64(size, writePosition_ - mdatOffset_);
        ok = writeAt(mdatOffset_ + 8, size, 8);
    }
    // Once the switch is written the new moov is live: nothing appended may
    // be cut off any more, even when a later sync fails.
    bool switched = false;
    ok = ok && placeMoov(moov()->toBytes(), switched);
    if (!switched) abandonEdit();
    return ok && switched;
}

bool MP4File::placeMoov(const std::vector<uint8_t>& bytes, bool& switched)
{
    Box* old = moov();
    const uint64_t size = bytes.size();
    FreeRun run;
    auto holds = [this](uint64_t begin, uint64_t end) { return holdsSamples(begin, end); };
    if (findFreeRun(root_, size, holds, run)) {
        // Appended samples become an mdat of their own before the switch.
        if (!exposeHiddenTail()) return false;
        uint8_t header[8];
        // One free box over the whole run, so the writes below land in its payload.
        const Box& first = *root_.children()[run.first];
        if (run.count > 1 || first.largeSize || first.fileSize != run.size) {
            freeHeader(header, run.size);
            if (!writeAt(run.offset, header, 8) || !syncFile()) return false;
        }
        // The new moov without its header, and the free box after it.
        if (run.size > size) {
            freeHeader(header, run.size - size);
            if (!writeAt(run.offset + size, header, 8)) return false;
        }
        if (!writeAt(run.offset + 8, bytes.data() + 8, bytes.size() - 8) || !syncFile()) return false;
        // Its header: before the old moov this is the switch.
        if (!writeAt(run.offset, bytes.data(), 8)) return false;
        switched = run.offset < old->fileOffset;
        if (!syncFile()) return false;
    } else {
        if (!pinLastBox()) return false;
        const bool oldIsLast = old->fileOffset + old->fileSize == (hiddenTail_ != UINT64_MAX ? hiddenTail_ : fileSize_);
        if (oldIsLast && !openHiddenTail()) return false;
        uint64_t end = std::max(fileSize_, writePosition_);
        if (oldIsLast && !old->largeSize && old->fileSize + 8 <= UINT32_MAX) {
            // The old moov is the last box: the new one goes behind it in the
            // hidden tail, and one header write turns the old moov and the
            // hiding header into one free box, which is the switch.
            if (!writeAt(end, bytes.data(), bytes.size()) || !syncFile()) return false;
            uint8_t header[8];
            freeHeader(header, old->fileSize + 8);
            if (!writeAt(old->fileOffset, header, 8)) return false;
            switched = true;
            return syncFile();
        }
        // Else appended as free space first, then made a moov behind the live one.
        std::vector<uint8_t> staged = bytes;
        std::memcpy(staged.data() + 4, "free", 4);
        if (!exposeHiddenTail() || !writeAt(end, staged.data(), staged.size()) || !syncFile()) return false;
        if (!writeAt(end + 4, "moov", 4) || !syncFile()) return false;
    }
    // The old moov becomes free space: the switch for a new moov after it,
    // else the cleanup.
    uint64_t oldOffset = old->fileOffset;
    size_t oldIndex = root_.indexOf(old);
    bool retired = retireBox(*old);
    switched = switched || retired;
    if (!retired || !syncFile()) return switched;
    // Free space left at the end of the file by the old moov is cut off.
    const auto& top = root_.children();
    bool freeToTheEnd = mdatOffset_ == 0 && run.offset < oldOffset && run.size != 0;
    for (size_t i = oldIndex; freeToTheEnd && i < top.size(); ++i) freeToTheEnd = isFree(top[i]->type());
    if (freeToTheEnd && fileSize_ == sizeAtOpen_ && truncateFile(oldOffset)) syncFile();
    return true;
}

} // namespace qx::mp4
