#pragma once
// QXProgramChain: the playback list of a DVD title, programs made of cells,
// parsed from the bytes of an information file. QXCellPlayback and
// QXCellPosition are its two cell records. Tables whose offsets or counts
// point past the bytes given are cut to the records that lie inside them.

#include <any>
#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "qxmedia/dvd/QXDVDAttributes.h"
#include "qxmedia/dvd/QXDVDBytes.h"
#include "qxmedia/platform/foundation/QXError.h"

class QXCellPlayback;
class QXCellPosition;
class QXProgramChain;
using QXCellPlaybackRef = std::shared_ptr<QXCellPlayback>;
using QXCellPositionRef = std::shared_ptr<QXCellPosition>;
using QXProgramChainRef = std::shared_ptr<QXProgramChain>;

class QXCellPlayback {
public:
    static constexpr size_t kRecordSize = 24;

    bool seamless_angle = false;
    bool stc_discontinuity = false;
    bool interleaved = false;
    bool seamless_play = false;
    bool restricted = false;
    bool playback_mode = false;
    uint8_t postCommandIndex = 0;
    uint8_t stillTime = 0;
    uint32_t firstSector = 0;
    uint32_t lastSector = 0;
    uint32_t firstInterleavingUnitSector = 0;
    uint32_t lastVideoObjectUnitStartSector = 0;
    uint8_t blockType = 0;
    uint8_t blockMode = 0;
    QXTime playbackTime;
    std::any userInfo;

    // The error argument is never written: a record cannot be wrong.
    static QXCellPlaybackRef initWithData(const QXDVDBytes& data, QXErrorRef* error = nullptr);
};

class QXCellPosition {
public:
    static constexpr size_t kRecordSize = 4;

    uint8_t number = 0;
    uint16_t vobId = 0;

    static QXCellPositionRef initWithData(const QXDVDBytes& data, QXErrorRef* error = nullptr);
};

class QXProgramChain {
public:
    uint8_t still_time = 0;
    uint8_t pg_playback_mode = 0;
    uint16_t nextProgramChainNumber = 0;
    uint16_t previousProgramChainNumber = 0;
    uint16_t goUpProgramChainNumber = 0;
    QXTime playback_time;
    QXUserOperationFlags prohibitedUserOperations;
    std::array<uint16_t, 8> audio_control{};
    std::array<uint32_t, 32> subp_control{};
    std::array<uint32_t, 16> palette{};
    std::vector<uint8_t> preCommands, postCommands, cellCommands; // not decoded
    std::vector<uint8_t> programMap; // per program, the number of its first cell (from 1)
    std::vector<QXCellPlaybackRef> cellPlaybackTable;
    std::vector<QXCellPositionRef> cellPositionTable;
    std::any userInfo;

    // Never refuses: fewer cells than programs is logged and repaired.
    static QXProgramChainRef initWithData(const QXDVDBytes& data, QXErrorRef* error = nullptr);

    // The sum of the cells' playback times.
    int64_t cellMilliseconds() const;
    // Start of each program after the first, in milliseconds from the
    // start of the chain; a program starts at the cell its map entry names.
    std::vector<int64_t> programStarts() const;
};
