// Rewriting a file with moov first, for progressive download.

#include "qxmedia/mp4/MP4File.h"

#include "qxmedia/mp4/MP4Log.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qx::mp4 {

namespace {

constexpr size_t kCopyBlock = 32 << 20;

bool isFreeType(FourCC type) { return type == kFree || type == kSkip || type == kWide; }

// The length of the hole at `offset` of `fd`, at most `size`: 0 in data, and
// 0 where the file system cannot tell.
uint64_t holeAt(int fd, uint64_t offset, uint64_t size)
{
    off_t data = ::lseek(fd, off_t(offset), SEEK_DATA);
    if (data < 0) return errno == ENXIO ? size : 0; // ENXIO: no data up to the end
    return std::min<uint64_t>(uint64_t(data) - offset, size);
}

// The length of the data at `offset` of `fd` up to the next hole, at most `size`.
uint64_t dataAt(int fd, uint64_t offset, uint64_t size)
{
    off_t hole = ::lseek(fd, off_t(offset), SEEK_HOLE);
    if (hole < 0 || uint64_t(hole) <= offset) return size;
    return std::min<uint64_t>(uint64_t(hole) - offset, size);
}

// Copies [offset, offset + size) of `in` to the end of `out`, block by block.
// Holes of the source stay holes: a sparse file is not filled in.
bool copyRange(int in, uint64_t offset, uint64_t size, int out, uint64_t& done, uint64_t total,
               const std::function<void(double)>& progress, const std::function<bool()>& shouldCancel)
{
    std::vector<uint8_t> buffer;
    while (size > 0) {
        if (shouldCancel && shouldCancel()) return false;
        if (uint64_t hole = holeAt(in, offset, size)) {
            if (::lseek(out, off_t(hole), SEEK_CUR) < 0) return false;
            offset += hole;
            size -= hole;
            done += hole;
            continue;
        }
        size_t block = size_t(std::min<uint64_t>(dataAt(in, offset, size), kCopyBlock));
        // The kernel copies without bringing the data to user space where it can.
        loff_t from = loff_t(offset);
        ssize_t n = ::copy_file_range(in, &from, out, nullptr, block, 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            // Not supported between these files: a plain read and write.
            if (buffer.empty()) buffer.resize(kCopyBlock);
            n = ::pread(in, buffer.data(), block, off_t(offset));
            if (n <= 0) return false;
            for (ssize_t written = 0; written < n;) {
                ssize_t w = ::write(out, buffer.data() + written, size_t(n - written));
                if (w < 0 && errno == EINTR) continue;
                if (w <= 0) return false;
                written += w;
            }
        }
        offset += uint64_t(n);
        size -= uint64_t(n);
        done += uint64_t(n);
        if (progress && total) progress(double(done) / double(total));
    }
    return true;
}

bool writeAll(int fd, const std::vector<uint8_t>& bytes)
{
    size_t written = 0;
    while (written < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += size_t(n);
    }
    return true;
}

} // namespace

bool MP4File::optimize(const std::filesystem::path& source, const std::filesystem::path& destination,
                       const std::function<void(double)>& progress, const std::function<bool()>& shouldCancel)
{
    auto file = read(source);
    if (!file) return false;
    if (file->damaged()) {
        // A copy could only hold what was understood: less than the input.
        MP4Log(MP4_LOG_ERROR, "\"%s\" is damaged and is not rewritten", source.c_str());
        return false;
    }
    struct stat in {}, existing {};
    if (::fstat(file->fd_, &in) == 0 && ::stat(destination.c_str(), &existing) == 0 && in.st_dev == existing.st_dev &&
        in.st_ino == existing.st_ino) {
        MP4Log(MP4_LOG_ERROR, "\"%s\" is the input file itself", destination.c_str());
        return false;
    }
    Box* moovBox = file->moov();
    FtypBox* ftypBox = file->ftyp();

    // New order: ftyp, moov, then every other box except free space.
    std::vector<Box*> rest;
    for (const auto& box : file->root().children())
        if (box.get() != moovBox && box.get() != ftypBox && !isFreeType(box->type())) rest.push_back(box.get());

    // Chunk offsets move with the box that holds them. The size of moov
    // depends on stco or co64, which depends on the offsets: settle it.
    std::vector<ChunkOffsetBox*> tables;
    for (MP4Track* track : file->tracks())
        if (Box* stbl = track->stbl())
            for (const auto& child : stbl->children())
                if (auto offsets = dynamic_cast<ChunkOffsetBox*>(child.get())) tables.push_back(offsets);
    std::vector<std::vector<uint64_t>> original;
    for (auto table : tables) original.push_back(table->offsets);

    // A chunk that does not lie in a box that is copied (it points into
    // ftyp, moov or free space) would come out as other bytes: damage.
    for (const auto& offsets : original) {
        for (uint64_t offset : offsets) {
            const bool copied = std::any_of(rest.begin(), rest.end(), [offset](const Box* box) {
                return offset >= box->fileOffset && offset < box->fileOffset + box->fileSize;
            });
            if (!copied) {
                MP4Log(MP4_LOG_ERROR, "\"%s\" is damaged and is not rewritten: a chunk at %llu lies outside the media data",
                       source.c_str(), static_cast<unsigned long long>(offset));
                return false;
            }
        }
    }

    uint64_t ftypSize = ftypBox ? ftypBox->size() : 0;
    std::vector<uint8_t> moovBytes;
    for (int round = 0; round < 4; ++round) {
        uint64_t moovSize = moovBytes.empty() ? moovBox->size() : moovBytes.size();
        uint64_t position = ftypSize + moovSize;
        std::vector<std::pair<Box*, uint64_t>> placed; // box, new offset
        for (Box* box : rest) {
            placed.emplace_back(box, position);
            position += box->fileSize;
        }
        for (size_t t = 0; t < tables.size(); ++t) {
            for (size_t i = 0; i < original[t].size(); ++i) {
                uint64_t offset = original[t][i];
                for (const auto& [box, newOffset] : placed) {
                    if (offset >= box->fileOffset && offset < box->fileOffset + box->fileSize) {
                        offset = offset - box->fileOffset + newOffset;
                        break;
                    }
                }
                tables[t]->offsets[i] = offset;
            }
            tables[t]->chooseType();
        }
        std::vector<uint8_t> bytes = moovBox->toBytes();
        bool settled = bytes.size() == moovSize;
        moovBytes = std::move(bytes);
        if (settled) break;
    }

    // Written under a temporary name next to the destination and renamed
    // when complete: an existing destination stays until then.
    std::filesystem::path parent = destination.parent_path().empty() ? "." : destination.parent_path();
    std::string temporary = (parent / ("." + destination.filename().string() + ".XXXXXX")).string();
    int out = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (out < 0) {
        MP4Log(MP4_LOG_ERROR, "failed to create \"%s\": %s", destination.c_str(), std::strerror(errno));
        return false;
    }
    ::fchmod(out, 0644);
    uint64_t total = 0;
    for (Box* box : rest) total += box->fileSize;
    uint64_t done = 0;
    bool ok = true;
    if (ftypBox) ok = writeAll(out, ftypBox->toBytes());
    ok = ok && writeAll(out, moovBytes);
    for (Box* box : rest) {
        if (!ok) break;
        ok = copyRange(file->fd_, box->fileOffset, box->fileSize, out, done, total, progress, shouldCancel);
    }
    // A hole at the end exists only once the file's size reaches past it.
    off_t end = ::lseek(out, 0, SEEK_CUR);
    if (ok && (end < 0 || ::ftruncate(out, end) != 0)) ok = false;
    if (ok && ::fsync(out) != 0) ok = false;
    if (::close(out) != 0) ok = false;
    if (ok && ::rename(temporary.c_str(), destination.c_str()) != 0) {
        MP4Log(MP4_LOG_ERROR, "failed to create \"%s\": %s", destination.c_str(), std::strerror(errno));
        ok = false;
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        if (!(shouldCancel && shouldCancel()))
            MP4Log(MP4_LOG_ERROR, "failed to optimize \"%s\"", source.c_str());
        return false;
    }
    if (progress) progress(1.0);
    return true;
}

} // namespace qx::mp4
