#include "qxmedia/dvd/QXMainMenuInformation.h"

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/dvd/QXTitleSetInformation.h"

namespace {

constexpr size_t kLastSector = 28, kSpecificationVersion = 32, kCategory = 34, kNumberOfVolumes = 38,
                 kVolumeNumber = 40, kSide = 42, kNumberOfTitleSets = 62, kProviderId = 64, kPointOfSale = 96,
                 kHeaderLastByte = 128, kFirstPlayOffset = 132, kTitleTableSector = 196, kMenuAttributes = 256;
constexpr size_t kMinimumFirstPlayOffset = 512;

} // namespace

QXTitleTrackSearchPointer QXTitleTrackSearchPointer::initWithData(const QXDVDBytes& data, uint16_t index)
{
    QXTitleTrackSearchPointer pointer;
    pointer.playbackFlags = data.u8(0);
    pointer.nr_of_angles = data.u8(1);
    pointer.nr_of_ptts = data.u16(2);
    pointer.parental_id = data.u16(4);
    pointer.title_set_nr = data.u8(6);
    pointer.vts_ttn = data.u8(7);
    pointer.title_set_sector = data.u32(8);
    pointer.index = index;
    return pointer;
}

QXMainMenuInformationRef QXMainMenuInformation::initWithURL(const QXURL& url, QXErrorRef* error)
{
    const std::optional<QXData> file = QXReadDVDInformationFile(url, error);
    if (!file) return nullptr;
    return initWithData(QXDVDBytes(file->data(), file->size()));
}

QXMainMenuInformationRef QXMainMenuInformation::initWithData(const QXDVDBytes& data)
{
    auto info = std::make_shared<QXMainMenuInformation>();
    QXLogWarning("Length: %d", int(data.size()));
    if (data.text(0, 12) != "DVDVIDEO-VMG") {
        QXLogWarning("Invalid signature in the Video MainMenu Information (.IFO) data.");
    }
    info->specificationVersion = data.u16(kSpecificationVersion);
    info->categoryAndMask = data.u32(kCategory);
    info->numberOfVolumes = data.u16(kNumberOfVolumes);
    info->volumeNumber = data.u16(kVolumeNumber);
    info->side = data.u8(kSide);
    info->numberOfTitleSets = data.u16(kNumberOfTitleSets);
    info->providerId = data.text(kProviderId, 32);
    info->pointOfSaleCode = data.u64(kPointOfSale);
    if (info->numberOfVolumes == 0) {
        QXLogWarning("The number of volumes cannot be zero.");
        info->numberOfVolumes = 1;
    }
    if (info->volumeNumber == 0) {
        QXLogWarning("The volume number cannot be zero.");
        info->volumeNumber = 1;
    }
    if (info->volumeNumber > info->numberOfVolumes) {
        QXLogWarning("The volume number cannot be greater than the number of volumes.");
        info->volumeNumber = info->numberOfVolumes;
    }
    if (info->side == 0 || info->side > 2) {
        QXLogWarning("The disc side must be 1 or 2.");
        info->side = 1;
    }
    if (info->numberOfTitleSets == 0) {
        QXLogWarning("The number of title sets cannot be zero.");
        info->numberOfTitleSets = 1;
    }

    QXMenuAttributes menu = QXMenuAttributes::initWithData(data.slice(kMenuAttributes, 86 + 6));
    info->menuVideoAttributes = menu.video;
    info->menuAudioAttributes = std::move(menu.audio);
    info->menuSubpictureAttributes = menu.subpicture;

    const uint64_t headerEnd = uint64_t(data.u32(kHeaderLastByte)) + 1;
    const uint64_t firstPlay = data.u32(kFirstPlayOffset);
    if (firstPlay < kMinimumFirstPlayOffset) {
        QXLogWarning("The offset of the first-play program chain must be greater than or equal to 512.");
    }
    if (firstPlay >= headerEnd) {
        QXLogWarning("The offset of the first-play program chain must be less than the length of the VMGI header.");
    }
    if (data.size() > headerEnd) {
        if (firstPlay < headerEnd) {
            info->firstPlayProgramChain = QXProgramChain::initWithData(data.slice(firstPlay, headerEnd - firstPlay));
        }
        if (!info->firstPlayProgramChain) QXLogWarning("The VMGI must contain a first-play program chain.");
    }

    const uint32_t sector = data.u32(kTitleTableSector);
    if (sector != 0 && sector <= uint64_t(data.u32(kLastSector)) + 1) {
        info->titleTrackSearchPointerTable = readTitleTrackSearchPointerTable(data, sector);
    }
    return info;
}

std::vector<QXTitleTrackSearchPointer> QXMainMenuInformation::readTitleTrackSearchPointerTable(const QXDVDBytes& data,
                                                                                             uint32_t sector)
{
    std::vector<QXTitleTrackSearchPointer> pointers;
    const uint64_t start = uint64_t(sector) * kDVDSectorSize;
    if (start + 8 > data.size()) {
        QXLogWarning("Title Track Search Pointer Table Size Error: %d vs. %ld", int(start + 8), long(data.size()));
        return pointers;
    }
    const QXDVDBytes table = data.slice(start, kDVDSectorSize);
    size_t count = table.u16(0);
    if (count > 99) {
        QXLogWarning("Error in Title Track Search Pointer Table.");
        count = 99;
    }
    const size_t expected = count * QXTitleTrackSearchPointer::kRecordSize + 8;
    size_t length = size_t(table.u32(4)) + 1;
    if (length != expected) {
        QXLogWarning("Corrected last_byte (was %d, is now %d)", int(length - 1), int(expected - 1));
        length = expected;
    }
    const QXDVDBytes entries = table.slice(0, length);
    for (size_t i = 0; 8 + (i + 1) * QXTitleTrackSearchPointer::kRecordSize <= entries.size(); ++i) {
        pointers.push_back(QXTitleTrackSearchPointer::initWithData(
            entries.slice(8 + i * QXTitleTrackSearchPointer::kRecordSize, QXTitleTrackSearchPointer::kRecordSize),
            uint16_t(i + 1)));
    }
    return pointers;
}
