// Arbitrary bytes through the bit-stream helpers: AC-3 / E-AC-3 headers and
// the dec3 builder, NAL framing, parameter set records, and the ASS
// splitter. Nothing may read outside the input or crash.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "qxmedia/platform/codecs/AC3Header.h"
#include "qxmedia/platform/codecs/ASSOverrideCodes.h"
#include "qxmedia/platform/codecs/ASSSplit.h"
#include "qxmedia/platform/codecs/EAC3Configuration.h"
#include "qxmedia/platform/codecs/HEVCConfiguration.h"
#include "qxmedia/platform/codecs/NALUnits.h"
#include "qxmedia/platform/codecs/ParameterSetParser.h"

namespace {

volatile size_t sink;

void fuzzAC3(const uint8_t* data, size_t size)
{
    qx::AC3HeaderInfo header;
    if (qx::parseAC3Header(data, size, header) == 0) sink = qx::createDac3Payload(header)[0];
    qx::AC3BitstreamInfo info;
    qx::parseAC3BitstreamInfo(data, size, info);
    qx::EAC3ConfigurationBuilder builder;
    builder.addPacket(data, size);
    builder.addPacket(data, size);
    sink = builder.createDec3Payload().size() + builder.channels();
}

void fuzzNAL(const uint8_t* data, size_t size)
{
    sink = qx::annexBToLengthPrefixed(data, size).size();
    std::vector<qx::NALUnit> units;
    qx::splitLengthPrefixed(data, size, 4, units);
    for (qx::NALCodec codec : {qx::NALCodec::H264, qx::NALCodec::HEVC}) {
        const auto sets = qx::readParameterSets(codec, data, size);
        if (codec == qx::NALCodec::H264) {
            sink = qx::createAvcC(sets.sps, sets.pps).size();
        } else {
            sink = qx::createHvcC(sets).size();
        }
    }
    // Each unit of an Annex B buffer as every kind of parameter set.
    units = qx::splitAnnexB(data, size);
    for (qx::NALUnit unit : units) {
        qx::H264SequenceParameterSet h264;
        qx::parseH264SPS(unit, h264);
        qx::HEVCVideoParameterSet vps;
        qx::parseHEVCVPS(unit, vps);
        qx::HEVCSequenceParameterSet sps;
        qx::parseHEVCSPS(unit, sps);
        qx::HEVCPictureParameterSet pps;
        qx::parseHEVCPPS(unit, pps);
    }
    sink = qx::createHvcC(units).size();
    // The whole input as one unit, with a header of each type in front.
    for (uint8_t header : {0x67, 0x40, 0x42, 0x44}) {
        std::vector<uint8_t> unit(size + 2);
        unit[0] = header;
        unit[1] = 0x01;
        std::copy(data, data + size, unit.begin() + 2);
        qx::H264SequenceParameterSet h264;
        qx::parseH264SPS(unit, h264);
        qx::HEVCVideoParameterSet vps;
        qx::parseHEVCVPS(unit, vps);
        qx::HEVCSequenceParameterSet sps;
        qx::parseHEVCSPS(unit, sps);
        qx::HEVCPictureParameterSet pps;
        qx::parseHEVCPPS(unit, pps);
    }
}

const qx::ASSCodesCallbacks kCallbacks = {
    [](void*, const char* text, int length) { sink = length > 0 ? size_t(text[length - 1]) : 0; },
    [](void*, int forced) { sink = size_t(forced); },
    [](void*, char style, int close) { sink = size_t(style + close); },
    [](void*, unsigned color, unsigned id) { sink = color + id; },
    [](void*, int alpha, int id) { sink = size_t(alpha + id); },
    [](void*, const char* name) { sink = name ? std::string_view(name).size() : 0; },
    [](void*, int size) { sink = size_t(size); },
    [](void*, int alignment) { sink = size_t(alignment); },
    [](void*, const char* style) { sink = std::string_view(style).size(); },
    [](void*, int x1, int y1, int x2, int y2, int t1, int t2) { sink = size_t(x1 + y1 + x2 + y2 + t1 + t2); },
    [](void*, int x, int y) { sink = size_t(x + y); },
    [](void*) { sink = 0; },
};

void fuzzASS(const uint8_t* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto context = qx::ASSSplitContext::create(text);
    if (!context) context = qx::ASSSplitContext::create("[Script Info]\n");
    for (const auto& dialog : context->splitDialog(text)) {
        qx::assSplitOverrideCodes(kCallbacks, nullptr, dialog.text);
        sink = context->style(dialog.style) != nullptr;
    }
    if (const auto dialog = context->splitDialog2(text)) qx::assSplitOverrideCodes(kCallbacks, nullptr, dialog->text);
    qx::assSplitOverrideCodes(kCallbacks, nullptr, text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzAC3(data, size);
    fuzzNAL(data, size);
    fuzzASS(data, size);
    return 0;
}
