#pragma once
// Where the library files a video, in the layout that Linux media servers
// (Jellyfin, Plex, Kodi) scan:
//   Movies/Title (Year)/Title (Year).m4v
//   TV Shows/Show/Season 02/Show - S02E05 - Title.m4v
//   Music Videos/Artist/Title.m4v
//   Home Videos/Title.m4v

#include <string>
#include <string_view>

#include "qxmedia/platform/foundation/QXValue.h"

class QXMetaData;

// The path below the library folder for a file with these tags; the
// extension is that of `source`, the title its name when the tags have none.
QXURL QXLibraryRelativePath(const QXMetaData& metadata, const QXURL& source);
// A name safe as one path component: no slash or NUL, no leading dot,
// trimmed, at most 180 bytes (cut at a UTF-8 boundary).
std::string QXLibrarySafeName(std::string_view name);
