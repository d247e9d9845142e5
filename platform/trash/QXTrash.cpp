#include "qxmedia/platform/trash/QXTrash.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "qxmedia/core/QXMedia.h"

namespace fs = std::filesystem;

namespace {

QXErrorRef fileError(int64_t code, const fs::path& path, const std::string& description = {})
{
    QXDictionary info {{NSFilePathErrorKey, QXValue(path.string())}};
    if (!description.empty()) info.insert_or_assign(NSLocalizedDescriptionKey, QXValue(description));
    return QXMedia::errorWithDomain(NSCocoaErrorDomain, code, info);
}

QXErrorRef unsupportedError(const fs::path& path)
{
    return fileError(NSFeatureUnsupportedError, path,
                     "“" + path.filename().string() +
                         "” can’t be moved to the trash because its volume has no trash.");
}

int64_t codeForErrno(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR: return NSFileNoSuchFileError;
    case EACCES:
    case EPERM:
    case EROFS: return NSFileWriteNoPermissionError;
    case EXDEV: return NSFeatureUnsupportedError;
    default: return NSFileWriteUnknownError;
    }
}

// A private directory: created with mode 0700 when missing; an existing one
// must be a real directory (not a link to one).
bool ensurePrivateDirectory(const fs::path& path)
{
    if (::mkdir(path.c_str(), 0700) == 0) return true;
    if (errno != EEXIST) return false;
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool ensureTrashLayout(const fs::path& trash)
{
    return ensurePrivateDirectory(trash) && ensurePrivateDirectory(trash / "files") &&
           ensurePrivateDirectory(trash / "info");
}

fs::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home == '/') return home;
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
    return {};
}

std::string deletionDate()
{
    const std::time_t now = std::time(nullptr);
    std::tm local {};
    localtime_r(&now, &local);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &local);
    return buffer;
}

// NAME, NAME.2, NAME.3, ... with the number before the extension of a file
// name ("Film.2.mkv"), so the trashed file still opens with its application.
std::string candidateName(const fs::path& name, int attempt, bool isDirectory)
{
    if (attempt == 1) return name.string();
    const std::string number = std::to_string(attempt);
    if (isDirectory || !name.has_extension() || name.stem().empty()) return name.string() + "." + number;
    return name.stem().string() + "." + number + name.extension().string();
}

bool writeAll(int fd, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += size_t(n);
    }
    return true;
}

// rename() that never replaces an existing target.
int renameNoReplace(const fs::path& from, const fs::path& to)
{
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;
    // A file system without the flag: the info file reserved the name.
    struct stat info {};
    if (::lstat(to.c_str(), &info) == 0) {
        errno = EEXIST;
        return -1;
    }
    return ::rename(from.c_str(), to.c_str());
}

// The item's absolute path with its folder resolved but the item itself
// untouched, so that a symbolic link is trashed and not its target.
std::optional<fs::path> resolvedItemPath(const fs::path& url)
{
    fs::path path = fs::absolute(url).lexically_normal();
    if (!path.has_filename()) path = path.parent_path();
    if (!path.has_filename() || path == path.root_path()) return std::nullopt;
    std::error_code error;
    fs::path parent = fs::canonical(path.parent_path(), error);
    if (error) return std::nullopt;
    return parent / path.filename();
}

} // namespace

std::string QXTrashPercentEncode(std::string_view path)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
            c == '.' || c == '~' || c == '/') {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

std::optional<QXTrashDirectory> QXHomeTrashDirectory()
{
    fs::path dataHome;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
        dataHome = xdg;
    } else {
        const fs::path home = homeDirectory();
        if (home.empty()) return std::nullopt;
        dataHome = home / ".local" / "share";
    }
    std::error_code error;
    fs::create_directories(dataHome, error);
    if (error) return std::nullopt;
    const fs::path trash = dataHome / "Trash";
    if (!ensureTrashLayout(trash)) return std::nullopt;
    return QXTrashDirectory {trash, {}};
}

std::optional<QXTrashDirectory> QXVolumeTrashDirectory(const fs::path& topdir)
{
    const std::string uid = std::to_string(::getuid());
    // The administrator's shared trash must be a real directory with the
    // sticky bit; anything else is a possible attack and is passed over.
    const fs::path shared = topdir / ".Trash";
    struct stat info {};
    if (::lstat(shared.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX)) {
        const fs::path own = shared / uid;
        if (ensureTrashLayout(own)) return QXTrashDirectory {own, topdir};
    }
    const fs::path personal = topdir / (".Trash-" + uid);
    if (::lstat(personal.c_str(), &info) == 0) {
        if (!S_ISDIR(info.st_mode) || info.st_uid != ::getuid()) return std::nullopt;
    }
    if (!ensureTrashLayout(personal)) return std::nullopt;
    return QXTrashDirectory {personal, topdir};
}

fs::path QXMountPointOfPath(const fs::path& path)
{
    std::error_code error;
    fs::path current = fs::canonical(path, error);
    if (error) return {};
    struct stat info {};
    if (::stat(current.c_str(), &info) != 0) return {};
    const dev_t device = info.st_dev;
    while (current.has_relative_path()) {
        const fs::path parent = current.parent_path();
        if (::stat(parent.c_str(), &info) != 0 || info.st_dev != device) break;
        current = parent;
    }
    return current;
}

bool QXMoveItemToTrashDirectory(const fs::path& item, const QXTrashDirectory& trash, QXURL* resultingItemURL,
                                QXErrorRef* error)
{
    struct stat itemInfo {};
    if (::lstat(item.c_str(), &itemInfo) != 0) {
        QXSetError(error, fileError(NSFileNoSuchFileError, item));
        return false;
    }
    if (!ensureTrashLayout(trash.path)) {
        QXSetError(error, unsupportedError(item));
        return false;
    }
    // Entries of a volume trash are relative to the volume, so that they
    // stay right wherever the volume is mounted next time.
    fs::path recorded = item;
    if (!trash.topdir.empty()) {
        const fs::path relative = item.lexically_relative(trash.topdir);
        if (!relative.empty() && *relative.begin() != "..") recorded = relative;
    }
    const std::string infoText = "[Trash Info]\nPath=" + QXTrashPercentEncode(recorded.string()) +
                                 "\nDeletionDate=" + deletionDate() + "\n";
    const bool isDirectory = S_ISDIR(itemInfo.st_mode);

    for (int attempt = 1; attempt < 100000; ++attempt) {
        const std::string name = candidateName(item.filename(), attempt, isDirectory);
        const fs::path infoPath = trash.path / "info" / (name + ".trashinfo");
        const fs::path target = trash.path / "files" / name;
        // The info file, made exclusively, reserves the name.
        const int fd = ::open(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            QXSetError(error, fileError(codeForErrno(errno), item));
            return false;
        }
        const bool written = writeAll(fd, infoText);
        const bool closed = ::close(fd) == 0;
        if (!written || !closed) {
            const int cause = errno;
            ::unlink(infoPath.c_str());
            QXSetError(error, fileError(codeForErrno(cause), item));
            return false;
        }
        if (renameNoReplace(item, target) == 0) {
            if (resultingItemURL) *resultingItemURL = target;
            return true;
        }
        const int cause = errno;
        ::unlink(infoPath.c_str());
        if (cause == EEXIST || cause == ENOTEMPTY) continue; // a leftover without its info file
        QXSetError(error, cause == EXDEV ? unsupportedError(item) : fileError(codeForErrno(cause), item));
        return false;
    }
    QXSetError(error, fileError(NSFileWriteUnknownError, item));
    return false;
}

namespace qx {

bool trashItemAtURL(const QXURL& url, QXURL* resultingItemURL, QXErrorRef* error)
{
    const std::optional<fs::path> item = resolvedItemPath(url);
    struct stat itemInfo {};
    if (!item || ::lstat(item->c_str(), &itemInfo) != 0) {
        QXSetError(error, fileError(NSFileNoSuchFileError, url));
        return false;
    }
    if (std::optional<QXTrashDirectory> home = QXHomeTrashDirectory()) {
        struct stat trashInfo {};
        if (::stat(home->path.c_str(), &trashInfo) == 0 && trashInfo.st_dev == itemInfo.st_dev) {
            return QXMoveItemToTrashDirectory(*item, *home, resultingItemURL, error);
        }
    }
    const fs::path topdir = QXMountPointOfPath(item->parent_path());
    std::optional<QXTrashDirectory> volume = topdir.empty() ? std::nullopt : QXVolumeTrashDirectory(topdir);
    if (!volume) {
        QXSetError(error, unsupportedError(*item));
        return false;
    }
    return QXMoveItemToTrashDirectory(*item, *volume, resultingItemURL, error);
}

} // namespace qx
