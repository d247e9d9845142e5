// The information-file readers on damaged and hand-made input: each fault
// is logged and repaired, nothing is refused, and nothing is read outside
// the bytes given (the sanitizer build checks the last part).

#include <functional>

#include <gtest/gtest.h>

#include "DVDMedia.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/dvd/QXMainMenuInformation.h"
#include "qxmedia/dvd/QXProgramChain.h"
#include "qxmedia/dvd/QXTitleSetInformation.h"
#include "support/TestMedia.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put16(Bytes& b, size_t offset, uint32_t value)
{
    b.at(offset) = uint8_t(value >> 8);
    b.at(offset + 1) = uint8_t(value);
}

void put32(Bytes& b, size_t offset, uint32_t value)
{
    put16(b, offset, value >> 16);
    put16(b, offset + 2, value & 0xffff);
}

uint32_t get32(const Bytes& b, size_t offset)
{
    return uint32_t(b.at(offset)) << 24 | uint32_t(b.at(offset + 1)) << 16 | uint32_t(b.at(offset + 2)) << 8 |
           b.at(offset + 3);
}

// Where the first program chain of a title set file starts.
size_t firstChainOffset(const Bytes& b)
{
    const size_t table = size_t(get32(b, 204)) * kDVDSectorSize;
    return table + get32(b, table + 12);
}

QXDVDBytes view(const Bytes& b)
{
    return QXDVDBytes(b.data(), b.size());
}

class DVDDamage : public testing::Test {
protected:
    void SetUp() override
    {
        if (!qxtest::haveTool("dvdauthor") || !qxtest::haveTool("spumux")) GTEST_SKIP() << "dvdauthor missing";
        const auto folder = dvdtest::dvdFolder("pal");
        ASSERT_FALSE(folder.empty());
        menu_ = dvdtest::readBytes(folder / "VIDEO_TS" / "VIDEO_TS.IFO");
        titleSet_ = dvdtest::readBytes(folder / "VIDEO_TS" / "VTS_01_0.IFO");
        ASSERT_GT(titleSet_.size(), 3 * kDVDSectorSize);
    }
    Bytes menu_, titleSet_;
};

TEST_F(DVDDamage, TitleSetFaultsAreLoggedAndRepaired)
{
    const struct {
        const char* name;
        std::function<void(Bytes&)> damage;
        const char* logged; // empty: no warning expected
        size_t chapters;    // marks after the first chapter
        std::function<bool(const QXTitleSetInformation&)> check;
    } cases[] = {
        {"intact", [](Bytes&) {}, "", 2, [](auto& t) { return t.audioAttributes.size() == 2; }},
        {"wrong signature", [](Bytes& b) { std::copy_n("DVDVIDEO-VMG", 12, b.begin()); },
         "Invalid signature in the Video Title Set Information (.IFO) data.", 2, nullptr},
        {"nine audio streams", [](Bytes& b) { put16(b, 514, 9); },
         "The number of audio streams cannot be greater than 8.", 2,
         [](auto& t) { return t.audioAttributes.size() == 8; }},
        {"truncated inside the chain table", [](Bytes& b) { b.resize(2 * kDVDSectorSize + 100); },
         "Program Chain Information Table Size Error", 0,
         [](auto& t) { return t.programChainInformationTable.empty() && !t.partOfTitleSearchTable.empty(); }},
        {"chain table past the end",
         [](Bytes& b) {
             put32(b, 28, 0xffff);
             put32(b, 204, 0x1000);
         },
         "Program Chain Information Table Size Error", 0, nullptr},
        {"table sector above the bound", [](Bytes& b) { put32(b, 204, get32(b, 28) + 2); }, "", 0,
         [](auto& t) { return t.programChainInformationTable.empty(); }},
        {"chain offset past its table",
         [](Bytes& b) { put32(b, size_t(get32(b, 204)) * kDVDSectorSize + 12, 0x7fffffff); }, "", 0,
         [](auto& t) { return t.programChainInformationTable.size() == 1; }},
        {"chain with zero cells", [](Bytes& b) { b.at(firstChainOffset(b) + 3) = 0; },
         "Number of cells can not be smaller than number of programs!", 0,
         [](auto& t) {
             auto chain = t.programChainInformationTable.at(0).programChain;
             return chain->programMap.empty() && chain->cellPlaybackTable.empty() && chain->still_time == 0;
         }},
        {"cell list longer than the file",
         [](Bytes& b) {
             b.at(firstChainOffset(b) + 2) = 255;
             b.at(firstChainOffset(b) + 3) = 255;
         },
         "ends outside its data", 2,
         [](auto& t) { return t.programChainInformationTable.at(0).programChain->cellPlaybackTable.size() < 255; }},
        {"title count over 99", [](Bytes& b) { put16(b, size_t(get32(b, 200)) * kDVDSectorSize, 150); },
         "Part of Title Search Pointer Table Error.", 2,
         [](auto& t) { return t.partOfTitleSearchTable.size() == 99; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes bytes = titleSet_;
        c.damage(bytes);
        qxtest::LogCapture log;
        auto info = QXTitleSetInformation::initWithData(view(bytes));
        ASSERT_TRUE(info);
        if (*c.logged) {
            EXPECT_TRUE(log.contains(c.logged, QXLogFlagWarning));
        } else {
            EXPECT_FALSE(log.contains("", QXLogFlagWarning));
        }
        EXPECT_EQ(info->chapterMarks().size(), c.chapters);
        if (c.check) {
            EXPECT_TRUE(c.check(*info));
        }
    }
}

TEST_F(DVDDamage, MenuFaultsAreLoggedAndRepaired)
{
    const struct {
        const char* name;
        std::function<void(Bytes&)> damage;
        const char* logged;
        std::function<bool(const QXMainMenuInformation&)> check;
    } cases[] = {
        {"title set signature", [](Bytes& b) { std::copy_n("DVDVIDEO-VTS", 12, b.begin()); },
         "Invalid signature in the Video MainMenu Information (.IFO) data.",
         [](auto& m) { return m.titleTrackSearchPointerTable.size() == 2; }},
        {"volume 5 of 2",
         [](Bytes& b) {
             put16(b, 38, 2);
             put16(b, 40, 5);
         },
         "The volume number cannot be greater than the number of volumes.",
         [](auto& m) { return m.volumeNumber == 2 && m.numberOfVolumes == 2; }},
        {"120 titles", [](Bytes& b) { put16(b, size_t(get32(b, 196)) * kDVDSectorSize, 120); },
         "Error in Title Track Search Pointer Table.",
         [](auto& m) { return m.titleTrackSearchPointerTable.size() == 99; }},
        {"wrong table length", [](Bytes& b) { put32(b, size_t(get32(b, 196)) * kDVDSectorSize + 4, 500); },
         "Corrected last_byte (was 500, is now 31)", [](auto& m) { return m.titleTrackSearchPointerTable.size() == 2; }},
        {"first play past the header", [](Bytes& b) { put32(b, 132, 0x7fffffff); },
         "The offset of the first-play program chain must be less than the length of the VMGI header.",
         [](auto& m) { return !m.firstPlayProgramChain; }},
        {"table past the end",
         [](Bytes& b) {
             put32(b, 28, 0xffff);
             put32(b, 196, 0x8000);
         },
         "Title Track Search Pointer Table Size Error", [](auto& m) { return m.titleTrackSearchPointerTable.empty(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes bytes = menu_;
        c.damage(bytes);
        qxtest::LogCapture log;
        auto info = QXMainMenuInformation::initWithData(view(bytes));
        ASSERT_TRUE(info);
        EXPECT_TRUE(log.contains(c.logged, QXLogFlagWarning));
        EXPECT_EQ(info->regionMask, 0);
        if (c.check) {
            EXPECT_TRUE(c.check(*info));
        }
    }
}

// Every cut of both files opens; the sanitizer build turns a read past the
// end into a failure.
TEST_F(DVDDamage, EveryTruncationOpens)
{
    for (const Bytes* file : {&menu_, &titleSet_}) {
        for (size_t length = 0; length <= file->size(); length += 61) {
            const Bytes cut(file->begin(), file->begin() + length);
            auto menu = QXMainMenuInformation::initWithData(view(cut));
            auto titleSet = QXTitleSetInformation::initWithData(view(cut));
            ASSERT_TRUE(menu && titleSet) << length;
            EXPECT_LE(titleSet->chapterMarks().size(), 2u);
        }
    }
}

// A program chain of `cells` cells of `cellSeconds` each, whose programs
// start at the cells in `programMap` (numbered from 1).
Bytes makeChain(const Bytes& programMap, size_t cells, uint8_t cellSeconds, uint8_t frameByte = 0x40)
{
    const size_t mapOffset = 236, playbackOffset = mapOffset + programMap.size() + 1;
    Bytes b(playbackOffset + cells * 28, 0);
    b[2] = uint8_t(programMap.size());
    b[3] = uint8_t(cells);
    b[163] = 7; // still time
    put16(b, 230, mapOffset);
    put16(b, 232, playbackOffset);
    put16(b, 234, playbackOffset + cells * 24);
    std::copy(programMap.begin(), programMap.end(), b.begin() + mapOffset);
    for (size_t i = 0; i < cells; ++i) {
        b[playbackOffset + i * 24 + 6] = cellSeconds;
        b[playbackOffset + i * 24 + 7] = frameByte;
    }
    return b;
}

TEST(DVDProgramChain, ProgramsStartAtTheCellsTheirMapNames)
{
    const struct {
        const char* name;
        Bytes programMap;
        size_t cells;
        std::vector<int64_t> starts;
        size_t mapSize;
        bool logged;
    } cases[] = {
        {"one cell per program", {1, 2, 3}, 3, {2000, 4000}, 3, false},
        {"more programs than cells", {1, 2, 3}, 2, {2000}, 2, true},
        {"no programs", {}, 0, {}, 0, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        qxtest::LogCapture log;
        auto chain = QXProgramChain::initWithData(view(makeChain(c.programMap, c.cells, 0x02)));
        EXPECT_EQ(chain->programStarts(), c.starts);
        EXPECT_EQ(chain->programMap.size(), c.mapSize);
        EXPECT_EQ(log.contains("Number of cells can not be smaller than number of programs!"), c.logged);
        if (c.programMap.empty()) {
            EXPECT_EQ(chain->still_time, 0);
            EXPECT_TRUE(chain->cellPlaybackTable.empty());
        }
    }
}

TEST(DVDProgramChain, BCDTimesCountFramesByTheRateFlags)
{
    const struct {
        uint8_t bytes[4];
        int64_t milliseconds;
    } cases[] = {
        {{0x01, 0x02, 0x03, 0xc5}, 3723000 + 5 * 33},  // 30 fps flags
        {{0x00, 0x59, 0x59, 0x64}, 3599000 + 24 * 40}, // 25 fps flags
        {{0x00, 0x00, 0x10, 0xd9}, 10000 + 19 * 33},   // tens of frames in bits 4-5
        {{0x00, 0x00, 0x00, 0x00}, 0},
    };
    for (const auto& c : cases) {
        const QXTime time = QXTime::initWithData(QXDVDBytes(c.bytes, 4));
        EXPECT_EQ(time.milliseconds(), c.milliseconds) << int(c.bytes[3]);
        EXPECT_EQ(time.hour, c.bytes[0]); // kept as BCD
    }
}

} // namespace
