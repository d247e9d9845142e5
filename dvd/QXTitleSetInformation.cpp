#include "qxmedia/dvd/QXTitleSetInformation.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "qxmedia/core/QXMedia.h"

namespace {

constexpr size_t kLastSector = 28, kSpecificationVersion = 32, kCategory = 34, kPartOfTitleSector = 200,
                 kProgramChainSector = 204, kMenuCellAddressSector = 216, kCellAddressSector = 224,
                 kMenuAttributes = 256, kTitleAttributes = 512;
constexpr size_t kAudioRecordSize = 8, kSubpictureRecordSize = 6;

// Cocoa's file-reading codes.
constexpr int64_t kFileReadNoSuchFileError = 260, kFileReadNoPermissionError = 257, kFileReadUnknownError = 256;

} // namespace

std::optional<QXData> QXReadDVDInformationFile(const QXURL& url, QXErrorRef* error)
{
    std::ifstream in(url, std::ios::binary);
    if (!in) {
        const int64_t code = errno == ENOENT ? kFileReadNoSuchFileError
                             : errno == EACCES ? kFileReadNoPermissionError
                                               : kFileReadUnknownError;
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, code, {{NSURLErrorKey, url}}));
        return std::nullopt;
    }
    return QXData(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

QXDVDBytes QXDVDTableAtSector(const QXDVDBytes& data, uint32_t sector, const char* name)
{
    const uint64_t start = uint64_t(sector) * kDVDSectorSize;
    if (start + kDVDSectorSize > data.size()) {
        QXLogWarning("%s Size Error: %d vs. %ld", name, int(start + kDVDSectorSize), long(data.size()));
        return {};
    }
    const uint64_t length = uint64_t(data.u32(start + 4)) + 1;
    if (start + length > data.size()) {
        QXLogWarning("%s Size Error: %d vs. %ld", name, int(start + length), long(data.size()));
        return {};
    }
    return data.slice(start, length);
}

QXCellAddress QXCellAddress::initWithData(const QXDVDBytes& data)
{
    return QXCellAddress{data.u16(0), data.u8(2), data.u32(4), data.u32(8)};
}

QXTitleSetInformationRef QXTitleSetInformation::initWithURL(const QXURL& url, QXErrorRef* error)
{
    const std::optional<QXData> file = QXReadDVDInformationFile(url, error);
    if (!file) return nullptr;
    return initWithData(QXDVDBytes(file->data(), file->size()));
}

QXTitleSetInformationRef QXTitleSetInformation::initWithData(const QXDVDBytes& data)
{
    auto info = std::make_shared<QXTitleSetInformation>();
    if (data.text(0, 12) != "DVDVIDEO-VTS") {
        QXLogWarning("Invalid signature in the Video Title Set Information (.IFO) data.");
    }
    info->specificationVersion = data.u16(kSpecificationVersion);
    info->categoryAndMask = data.u32(kCategory);

    QXMenuAttributes menu = QXMenuAttributes::initWithData(data.slice(kMenuAttributes, 86 + 6));
    info->menuVideoAttributes = menu.video;
    info->menuAudioAttributes = std::move(menu.audio);
    info->menuSubpictureAttributes = menu.subpicture;

    info->videoAttributes = QXVideoAttributes::initWithData(data.slice(kTitleAttributes, 2));
    size_t audioCount = data.u16(kTitleAttributes + 2);
    if (audioCount > 8) {
        QXLogWarning("The number of audio streams cannot be greater than 8.");
        audioCount = 8;
    }
    for (size_t i = 0; i < audioCount; ++i) {
        info->audioAttributes.push_back(QXAudioAttributes::initWithData(
            data.slice(kTitleAttributes + 4 + i * kAudioRecordSize, kAudioRecordSize)));
    }
    size_t subpictureCount = data.u16(kTitleAttributes + 84);
    if (subpictureCount > 32) {
        QXLogWarning("The number of subpicture streams cannot be greater than 32.");
        subpictureCount = 32;
    }
    for (size_t i = 0; i < subpictureCount; ++i) {
        info->subpictureAttributes.push_back(QXSubpictureAttributes::initWithData(
            data.slice(kTitleAttributes + 86 + i * kSubpictureRecordSize, kSubpictureRecordSize)));
    }

    const uint64_t bound = uint64_t(data.u32(kLastSector)) + 1;
    auto usable = [&](uint32_t sector) { return sector != 0 && sector <= bound; };
    if (uint32_t sector = data.u32(kPartOfTitleSector); usable(sector)) {
        info->partOfTitleSearchTable = readPartOfTitleSearchTable(data, sector);
    }
    if (uint32_t sector = data.u32(kMenuCellAddressSector); usable(sector)) {
        info->menuCellAddressTable = readCellAddressTable(data, sector);
    }
    if (uint32_t sector = data.u32(kCellAddressSector); usable(sector)) {
        info->cellAddressTable = readCellAddressTable(data, sector);
    }
    if (uint32_t sector = data.u32(kProgramChainSector); usable(sector)) {
        info->programChainInformationTable = readProgramChainInformationTable(data, sector);
    }
    return info;
}

std::vector<std::vector<QXPartOfTitle>> QXTitleSetInformation::readPartOfTitleSearchTable(const QXDVDBytes& data,
                                                                                         uint32_t sector)
{
    std::vector<std::vector<QXPartOfTitle>> titles;
    const QXDVDBytes table = QXDVDTableAtSector(data, sector, "Part of Title Search Pointer Table");
    if (table.size() == 0) return titles;
    size_t count = table.u16(0);
    if (count > 99) {
        QXLogWarning("Part of Title Search Pointer Table Error.");
        count = 99;
    }
    for (size_t i = 0; i < count; ++i) {
        const size_t begin = table.u32(8 + 4 * i);
        const size_t end = i + 1 < count ? table.u32(8 + 4 * (i + 1)) : table.size();
        std::vector<QXPartOfTitle> parts;
        for (size_t offset = begin; offset < end && offset + 4 <= table.size(); offset += 4) {
            parts.push_back(QXPartOfTitle{table.u16(offset), table.u16(offset + 2)});
        }
        titles.push_back(std::move(parts));
    }
    return titles;
}

std::vector<QXCellAddress> QXTitleSetInformation::readCellAddressTable(const QXDVDBytes& data, uint32_t sector)
{
    std::vector<QXCellAddress> cells;
    const QXDVDBytes table = QXDVDTableAtSector(data, sector, "Cell Address Table");
    if (table.size() < 8) return cells;
    const size_t count = (table.size() - 8) / QXCellAddress::kRecordSize;
    for (size_t i = 0; i < count; ++i) {
        cells.push_back(QXCellAddress::initWithData(
            table.slice(8 + i * QXCellAddress::kRecordSize, QXCellAddress::kRecordSize)));
    }
    return cells;
}

std::vector<QXProgramChainSearchPointer> QXTitleSetInformation::readProgramChainInformationTable(
    const QXDVDBytes& data, uint32_t sector)
{
    std::vector<QXProgramChainSearchPointer> chains;
    const QXDVDBytes table = QXDVDTableAtSector(data, sector, "Program Chain Information Table");
    if (table.size() == 0) return chains;
    const size_t count = table.u16(0);
    for (size_t i = 0; i < count && 8 + (i + 1) * 8 <= table.size(); ++i) {
        const size_t record = 8 + i * 8;
        const size_t offset = table.u32(record + 4);
        QXProgramChainSearchPointer pointer;
        pointer.entryId = table.u8(record);
        pointer.ptl_id_mask = table.u16(record + 2);
        pointer.programChain = QXProgramChain::initWithData(table.slice(offset, table.size()));
        chains.push_back(std::move(pointer));
    }
    return chains;
}

std::vector<QXDVDChapterMark> QXTitleSetInformation::chapterMarks() const
{
    std::vector<QXDVDChapterMark> marks;
    for (const auto& pointer : programChainInformationTable) {
        if (!pointer.programChain || pointer.programChain->programMap.size() < 2) continue;
        long number = 2;
        for (int64_t start : pointer.programChain->programStarts()) {
            char title[32];
            std::snprintf(title, sizeof title, "Chapter %ld", number++);
            marks.push_back(QXDVDChapterMark{title, start});
        }
        break;
    }
    return marks;
}

QXProgramChainRef QXTitleSetInformation::programChainForTitle(size_t titleNumber) const
{
    size_t chainNumber = 1;
    if (titleNumber >= 1 && titleNumber <= partOfTitleSearchTable.size() &&
        !partOfTitleSearchTable[titleNumber - 1].empty()) {
        chainNumber = partOfTitleSearchTable[titleNumber - 1].front().programChainNumber;
    }
    if (chainNumber >= 1 && chainNumber <= programChainInformationTable.size()) {
        return programChainInformationTable[chainNumber - 1].programChain;
    }
    return programChainInformationTable.empty() ? nullptr : programChainInformationTable.front().programChain;
}
