#include "qxmedia/dvd/QXProgramChain.h"

#include <algorithm>

#include "qxmedia/core/QXMedia.h"

namespace {

// Offsets inside a program chain.
constexpr size_t kProgramCount = 2, kCellCount = 3, kPlaybackTime = 4, kProhibitedOperations = 8,
                 kAudioControl = 12, kSubpictureControl = 28, kChainNumbers = 156, kPlaybackMode = 162,
                 kStillTime = 163, kPalette = 164, kProgramMapOffset = 230, kCellPlaybackOffset = 232,
                 kCellPositionOffset = 234;

// How many records of `recordSize` bytes at `offset` lie inside the data;
// a cut table is logged once.
size_t recordsInside(const QXDVDBytes& data, size_t offset, size_t count, size_t recordSize, const char* table)
{
    const size_t available = offset < data.size() ? (data.size() - offset) / recordSize : 0;
    if (available >= count) return count;
    QXLogWarning("The %s of a program chain ends outside its data: %zu of %zu entries read", table, available, count);
    return available;
}

} // namespace

QXCellPlaybackRef QXCellPlayback::initWithData(const QXDVDBytes& data, QXErrorRef*)
{
    auto cell = std::make_shared<QXCellPlayback>();
    const uint8_t flags = data.u8(0), modes = data.u8(1);
    cell->seamless_angle = flags & 0x01;
    cell->stc_discontinuity = flags & 0x02;
    cell->interleaved = flags & 0x04;
    cell->seamless_play = flags & 0x08;
    cell->blockType = (flags >> 4) & 0x03;
    cell->blockMode = (flags >> 6) & 0x03;
    cell->restricted = modes & 0x40;
    cell->playback_mode = modes & 0x80;
    cell->stillTime = data.u8(2);
    cell->postCommandIndex = data.u8(3);
    cell->playbackTime = QXTime::initWithData(data.slice(4, 4));
    cell->firstSector = data.u32(8);
    cell->firstInterleavingUnitSector = data.u32(12);
    cell->lastVideoObjectUnitStartSector = data.u32(16);
    cell->lastSector = data.u32(20);
    return cell;
}

QXCellPositionRef QXCellPosition::initWithData(const QXDVDBytes& data, QXErrorRef*)
{
    auto position = std::make_shared<QXCellPosition>();
    position->vobId = data.u16(0);
    position->number = data.u8(3);
    return position;
}

QXProgramChainRef QXProgramChain::initWithData(const QXDVDBytes& data, QXErrorRef*)
{
    auto chain = std::make_shared<QXProgramChain>();
    size_t programs = data.u8(kProgramCount);
    const size_t cells = data.u8(kCellCount);
    chain->playback_time = QXTime::initWithData(data.slice(kPlaybackTime, 4));
    chain->prohibitedUserOperations.bits = data.u32(kProhibitedOperations);
    if (cells < programs) {
        QXLogWarning("Number of cells can not be smaller than number of programs!");
        programs = cells;
    }
    for (size_t i = 0; i < chain->audio_control.size(); ++i) chain->audio_control[i] = data.u16(kAudioControl + 2 * i);
    for (size_t i = 0; i < chain->subp_control.size(); ++i) chain->subp_control[i] = data.u32(kSubpictureControl + 4 * i);
    chain->nextProgramChainNumber = data.u16(kChainNumbers);
    chain->previousProgramChainNumber = data.u16(kChainNumbers + 2);
    chain->goUpProgramChainNumber = data.u16(kChainNumbers + 4);
    chain->pg_playback_mode = data.u8(kPlaybackMode);
    chain->still_time = data.u8(kStillTime);
    for (size_t i = 0; i < chain->palette.size(); ++i) chain->palette[i] = data.u32(kPalette + 4 * i);

    size_t programMapOffset = data.u16(kProgramMapOffset), cellPlaybackOffset = data.u16(kCellPlaybackOffset),
           cellPositionOffset = data.u16(kCellPositionOffset);
    if (programs == 0) {
        programMapOffset = cellPlaybackOffset = cellPositionOffset = 0;
        chain->still_time = 0;
        chain->pg_playback_mode = 0;
    }
    if (programMapOffset != 0) {
        const size_t count = recordsInside(data, programMapOffset, programs, 1, "program map");
        for (size_t i = 0; i < count; ++i) chain->programMap.push_back(data.u8(programMapOffset + i));
    }
    if (cells != 0 && cellPlaybackOffset != 0) {
        const size_t count =
            recordsInside(data, cellPlaybackOffset, cells, QXCellPlayback::kRecordSize, "cell playback table");
        for (size_t i = 0; i < count; ++i) {
            chain->cellPlaybackTable.push_back(QXCellPlayback::initWithData(
                data.slice(cellPlaybackOffset + i * QXCellPlayback::kRecordSize, QXCellPlayback::kRecordSize)));
        }
    }
    if (cells != 0 && cellPositionOffset != 0) {
        const size_t count =
            recordsInside(data, cellPositionOffset, cells, QXCellPosition::kRecordSize, "cell position table");
        for (size_t i = 0; i < count; ++i) {
            chain->cellPositionTable.push_back(QXCellPosition::initWithData(
                data.slice(cellPositionOffset + i * QXCellPosition::kRecordSize, QXCellPosition::kRecordSize)));
        }
    }
    return chain;
}

int64_t QXProgramChain::cellMilliseconds() const
{
    int64_t total = 0;
    for (const auto& cell : cellPlaybackTable) total += cell->playbackTime.milliseconds();
    return total;
}

std::vector<int64_t> QXProgramChain::programStarts() const
{
    std::vector<int64_t> starts;
    int64_t time = 0;
    for (size_t i = 0; i < cellPlaybackTable.size(); ++i) {
        const bool startsProgram = std::find(programMap.begin(), programMap.end(), uint8_t(i + 1)) != programMap.end();
        if (i > 0 && startsProgram) starts.push_back(time);
        time += cellPlaybackTable[i]->playbackTime.milliseconds();
    }
    return starts;
}
