#pragma once
// Moving files to the trash, after the freedesktop.org Trash specification.
//
// An item goes to the trash of its own file system, so that it is renamed
// and never copied: the home trash ($XDG_DATA_HOME/Trash, by default
// ~/.local/share/Trash) when the item lies on the same device as that
// folder, otherwise the volume's "$topdir/.Trash/$uid" (when "$topdir/.Trash"
// is a real directory with the sticky bit) or "$topdir/.Trash-$uid". Each
// trashed item gets an info file, files/NAME and info/NAME.trashinfo, with
// the original path (percent-encoded) and the deletion time in local time.
// A volume without a usable trash fails with NSFeatureUnsupportedError
// (NSCocoaErrorDomain, 3328), so that the caller can delete instead.

#include <filesystem>
#include <optional>
#include <string>

#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

// NSCocoaErrorDomain codes of the trash.
constexpr int64_t NSFileNoSuchFileError = 4;
constexpr int64_t NSFileWriteUnknownError = 512;
constexpr int64_t NSFileWriteNoPermissionError = 513;
constexpr int64_t NSFeatureUnsupportedError = 3328;

// One trash folder: "files" and "info" below path.
struct QXTrashDirectory {
    std::filesystem::path path;
    // The folder that Path= entries are relative to; empty for the home
    // trash, whose entries hold absolute paths.
    std::filesystem::path topdir;
};

namespace qx {

// Moves the item (a file, a folder or a symbolic link itself) to the trash
// of its volume. On success the item's new location goes to
// resultingItemURL when given.
bool trashItemAtURL(const QXURL& url, QXURL* resultingItemURL = nullptr, QXErrorRef* error = nullptr);

} // namespace qx

// The home trash, created (mode 0700) when missing; nothing when $HOME and
// $XDG_DATA_HOME are both unusable.
std::optional<QXTrashDirectory> QXHomeTrashDirectory();
// The trash of the volume mounted at topdir: $topdir/.Trash/$uid when
// $topdir/.Trash qualifies, else $topdir/.Trash-$uid (created with mode
// 0700 when missing). Nothing when neither can be used.
std::optional<QXTrashDirectory> QXVolumeTrashDirectory(const std::filesystem::path& topdir);
// The top directory of the mount that holds path: its highest ancestor on
// the same device.
std::filesystem::path QXMountPointOfPath(const std::filesystem::path& path);
// Moves an item into the given trash (which must be on the item's device)
// under a name that no other trashed item uses.
bool QXMoveItemToTrashDirectory(const std::filesystem::path& item, const QXTrashDirectory& trash,
                                QXURL* resultingItemURL = nullptr, QXErrorRef* error = nullptr);
// The Path= value: every byte outside A-Z a-z 0-9 - _ . ~ / as %XX.
std::string QXTrashPercentEncode(std::string_view path);
