// Arbitrary bytes as a DVD video manager file, a title set file and a
// program chain: every reader must stay inside the bytes and never fail.

#include <cstddef>
#include <cstdint>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/dvd/QXMainMenuInformation.h"
#include "qxmedia/dvd/QXProgramChain.h"
#include "qxmedia/dvd/QXTitleSetInformation.h"

namespace {

volatile int64_t sink;

void silenceLog()
{
    static const bool once = [] {
        QXMedia::sharedMedia().setLogCallback([](bool, int32_t, int32_t, const char*, const char*, uint64_t,
                                                 const QXValue*, const char*, va_list) {});
        return true;
    }();
    (void)once;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceLog();
    const QXDVDBytes bytes(data, size);
    auto menu = QXMainMenuInformation::initWithData(bytes);
    sink = int64_t(menu->titleTrackSearchPointerTable.size());
    if (menu->firstPlayProgramChain) sink = menu->firstPlayProgramChain->cellMilliseconds();

    auto titleSet = QXTitleSetInformation::initWithData(bytes);
    for (const QXDVDChapterMark& mark : titleSet->chapterMarks()) sink = mark.milliseconds;
    for (size_t title = 0; title <= titleSet->partOfTitleSearchTable.size(); ++title) {
        if (auto chain = titleSet->programChainForTitle(title)) sink = chain->playback_time.milliseconds();
    }

    auto chain = QXProgramChain::initWithData(bytes);
    for (int64_t start : chain->programStarts()) sink = start;
    return 0;
}
