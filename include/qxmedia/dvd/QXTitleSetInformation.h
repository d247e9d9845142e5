#pragma once
// QXTitleSetInformation: one title set's information file (VTS_nn_0.IFO):
// its attributes, parts of titles, cell addresses and program chains, and
// the chapter list worked out from them. A bad value is logged and
// corrected; only an unreadable file fails.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxmedia/dvd/QXDVDAttributes.h"
#include "qxmedia/dvd/QXDVDBytes.h"
#include "qxmedia/dvd/QXProgramChain.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

class QXTitleSetInformation;
using QXTitleSetInformationRef = std::shared_ptr<QXTitleSetInformation>;

struct QXPartOfTitle {
    uint16_t programChainNumber = 0;
    uint16_t programNumber = 0;
};

struct QXCellAddress {
    static constexpr size_t kRecordSize = 12;
    uint16_t vob_id = 0;
    uint8_t cell_id = 0;
    uint32_t start_sector = 0;
    uint32_t last_sector = 0;

    static QXCellAddress initWithData(const QXDVDBytes& data);
};

struct QXProgramChainSearchPointer {
    uint8_t entryId = 0;
    uint16_t ptl_id_mask = 0;
    QXProgramChainRef programChain;
};

// One chapter of a title: its name and start from the title's beginning.
struct QXDVDChapterMark {
    std::string title;
    int64_t milliseconds = 0;
};

// Reads a whole information file; a failure sets the error (Cocoa file
// codes, with the URL) and answers nothing.
std::optional<QXData> QXReadDVDInformationFile(const QXURL& url, QXErrorRef* error);

class QXTitleSetInformation {
public:
    uint16_t specificationVersion = 0;
    uint32_t categoryAndMask = 0;
    int64_t index = 0;
    std::vector<std::vector<QXPartOfTitle>> partOfTitleSearchTable;
    QXVideoAttributes menuVideoAttributes;
    std::vector<QXAudioAttributes> menuAudioAttributes;
    QXSubpictureAttributes menuSubpictureAttributes;
    std::vector<QXCellAddress> menuCellAddressTable;
    QXVideoAttributes videoAttributes;
    std::vector<QXAudioAttributes> audioAttributes;
    std::vector<QXSubpictureAttributes> subpictureAttributes;
    std::vector<QXProgramChainSearchPointer> programChainInformationTable;
    std::vector<QXCellAddress> cellAddressTable;

    static QXTitleSetInformationRef initWithURL(const QXURL& url, QXErrorRef* error = nullptr);
    static QXTitleSetInformationRef initWithData(const QXDVDBytes& data);

    // Chapters 2, 3, ... of the first chain with two programs or more (the
    // first chapter, at zero, is implied); empty when no chain has two.
    std::vector<QXDVDChapterMark> chapterMarks() const;
    // The chain that plays title `titleNumber` (from 1) of this set, through
    // the part-of-title table; the first chain when the table does not say.
    QXProgramChainRef programChainForTitle(size_t titleNumber) const;

    // The tables, each at a sector of the file; empty on a size error.
    static std::vector<std::vector<QXPartOfTitle>> readPartOfTitleSearchTable(const QXDVDBytes& data, uint32_t sector);
    static std::vector<QXCellAddress> readCellAddressTable(const QXDVDBytes& data, uint32_t sector);
    static std::vector<QXProgramChainSearchPointer> readProgramChainInformationTable(const QXDVDBytes& data,
                                                                                     uint32_t sector);
};

// Shared by both information files: the bytes of a table at a sector, or an
// empty view after logging "<name> Size Error: %d vs. %ld" when the file
// holds less than its first sector or its stated length.
QXDVDBytes QXDVDTableAtSector(const QXDVDBytes& data, uint32_t sector, const char* name);
