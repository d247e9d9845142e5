// The rename that ends an update: the file goes to `destination`, making its
// folder. Within one file system that is a rename; across file systems the
// file is copied beside the destination under a hidden name with its mode,
// owner and extended attributes, synced, renamed into place and only then
// removed at the old place. A file already at the destination is never
// replaced. A failure leaves the updated file at the old place.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cerrno>
#include <cstring>
#include <vector>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/source/QXMovie.h"

using namespace qx;

namespace {

constexpr int64_t kFileExistsErrorCode = 516; // NSFileWriteFileExistsError
constexpr int64_t kWriteUnknownErrorCode = 512;

QXErrorRef moveError(int64_t code, const QXURL& url, const std::string& why)
{
    return QXMedia::errorWithDomain(NSCocoaErrorDomain, code,
                                    {{NSFilePathErrorKey, QXValue(url.string())}, {NSLocalizedDescriptionKey, QXValue(why)}});
}

// Fails with EEXIST rather than replace a file.
std::error_code renameWithoutReplacing(const QXURL& from, const QXURL& to)
{
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return {};
    return std::error_code(errno, std::generic_category());
}

// Mode, owner (when allowed) and extended attributes of `from` onto `to`.
bool copyAttributes(const QXURL& from, int target)
{
    struct stat info {};
    if (::stat(from.c_str(), &info) != 0 || ::fchmod(target, info.st_mode & 07777) != 0) return false;
    if (::fchown(target, info.st_uid, info.st_gid) != 0 && errno != EPERM) return false;
    const ssize_t listed = ::listxattr(from.c_str(), nullptr, 0);
    if (listed <= 0) return listed == 0 || errno == ENOTSUP;
    std::vector<char> names(size_t(listed), '\0');
    if (::listxattr(from.c_str(), names.data(), names.size()) != listed) return false;
    for (const char* name = names.data(); name < names.data() + listed; name += std::strlen(name) + 1) {
        const ssize_t size = ::getxattr(from.c_str(), name, nullptr, 0);
        if (size < 0) return false;
        std::vector<char> value(static_cast<size_t>(size));
        if (::getxattr(from.c_str(), name, value.data(), value.size()) != size ||
            ::fsetxattr(target, name, value.data(), value.size(), 0) != 0)
            return false;
    }
    return true;
}

bool copyAcrossFileSystems(const QXURL& from, const QXURL& to, std::error_code& failure)
{
    const QXURL staging = partialURLFor(to);
    std::filesystem::copy_file(from, staging, failure);
    if (failure) return false;
    const int target = ::open(staging.c_str(), O_RDWR | O_CLOEXEC);
    const bool kept = target >= 0 && copyAttributes(from, target) && ::fsync(target) == 0;
    if (!kept) failure = std::error_code(errno, std::generic_category());
    if (target >= 0) ::close(target);
    if (kept) failure = renameWithoutReplacing(staging, to);
    if (failure) {
        std::error_code ignored;
        std::filesystem::remove(staging, ignored);
        return false;
    }
    std::filesystem::remove(from, failure);
    return true; // the file is in place; one left behind is only noted
}

} // namespace

void QXJob::moveUpdatedFile()
{
    const QXURL from = movie->fileURL;
    if (destination.empty() || from.lexically_normal() == destination.lexically_normal()) return;
    std::error_code failure;
    if (destination.has_parent_path()) std::filesystem::create_directories(destination.parent_path(), failure);
    if (!failure) failure = renameWithoutReplacing(from, destination);
    if (failure == std::errc::cross_device_link) {
        failure.clear();
        const bool moved = copyAcrossFileSystems(from, destination, failure);
        if (moved && failure) QXLogWarning("Failed to remove %s: %s", from.c_str(), failure.message().c_str());
        if (moved) failure.clear();
    }
    if (failure == std::errc::file_exists) {
        fail(moveError(kFileExistsErrorCode, destination, "a file of that name exists"));
    } else if (failure) {
        fail(moveError(kWriteUnknownErrorCode, destination, failure.message()));
    }
}
