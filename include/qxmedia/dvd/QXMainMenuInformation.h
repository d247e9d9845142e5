#pragma once
// QXMainMenuInformation: the video manager file of a DVD folder
// (VIDEO_TS.IFO): disc and volume numbers, provider, menu attributes, the
// first-play chain and the table of titles. A bad header value is logged
// and corrected; only an unreadable file fails.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qxmedia/dvd/QXDVDAttributes.h"
#include "qxmedia/dvd/QXDVDBytes.h"
#include "qxmedia/dvd/QXProgramChain.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

class QXMainMenuInformation;
using QXMainMenuInformationRef = std::shared_ptr<QXMainMenuInformation>;

// One title of the disc and where it is played from.
struct QXTitleTrackSearchPointer {
    static constexpr size_t kRecordSize = 12;

    uint8_t playbackFlags = 0; // bit 0 title_or_time_play ... bit 6 multi_or_random_pgc_title
    uint8_t title_set_nr = 0;
    uint8_t vts_ttn = 0; // the title's number inside its title set
    uint8_t nr_of_angles = 0;
    uint16_t nr_of_ptts = 0;
    uint16_t parental_id = 0;
    uint16_t index = 0; // from 1, the title's number on the disc
    uint32_t title_set_sector = 0;

    static QXTitleTrackSearchPointer initWithData(const QXDVDBytes& data, uint16_t index);
};

class QXMainMenuInformation {
public:
    uint8_t side = 0;
    uint16_t specificationVersion = 0;
    uint16_t numberOfVolumes = 0;
    uint16_t volumeNumber = 0;
    uint16_t numberOfTitleSets = 0;
    uint16_t regionMask = 0; // not filled
    uint32_t categoryAndMask = 0;
    uint64_t pointOfSaleCode = 0;
    std::string providerId;
    QXVideoAttributes menuVideoAttributes;
    std::vector<QXAudioAttributes> menuAudioAttributes;
    QXSubpictureAttributes menuSubpictureAttributes;
    QXProgramChainRef firstPlayProgramChain;
    std::vector<QXTitleTrackSearchPointer> titleTrackSearchPointerTable;

    static QXMainMenuInformationRef initWithURL(const QXURL& url, QXErrorRef* error = nullptr);
    static QXMainMenuInformationRef initWithData(const QXDVDBytes& data);

    // The table at a sector; empty after a size error.
    static std::vector<QXTitleTrackSearchPointer> readTitleTrackSearchPointerTable(const QXDVDBytes& data,
                                                                                   uint32_t sector);
};
