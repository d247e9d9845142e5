#pragma once
// QXDVDFolder: the titles of a VIDEO_TS folder as a host lists them, and
// the VOB files that play a title, from the folder's information files.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qxmedia/dvd/QXMainMenuInformation.h"
#include "qxmedia/dvd/QXTitleSetInformation.h"

struct QXDVDTitle {
    int number = 0;     // on the disc, from 1
    int titleSet = 0;   // VTS_nn
    int titleInSet = 0; // the title's number inside its set
    int64_t milliseconds = 0;
    std::vector<int64_t> chapterStarts; // from 0, one per chapter
    std::vector<std::string> audioLanguages;      // one per stream, empty when unnamed
    std::vector<std::string> subpictureLanguages; // one per stream
};

class QXDVDFolder;
using QXDVDFolderRef = std::shared_ptr<QXDVDFolder>;

class QXDVDFolder {
public:
    QXURL videoTS; // the VIDEO_TS folder itself
    QXMainMenuInformationRef menu;
    std::vector<QXDVDTitle> titles;

    // The VIDEO_TS folder or the folder that holds one; null with an error
    // when there is no VIDEO_TS.IFO to read.
    static QXDVDFolderRef initWithURL(const QXURL& folder, QXErrorRef* error = nullptr);
    // True when the path is a VIDEO_TS folder or holds one.
    static bool isDVDFolder(const QXURL& folder);

    // The title set's VOB files (VTS_nn_1.VOB, VTS_nn_2.VOB, ...) in order;
    // empty for an unknown title. The titles of one set share its files.
    std::vector<QXURL> titleURLs(int titleNumber) const;
};
