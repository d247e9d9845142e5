#include "qxmedia/mp4/MP4SampleEntries.h"

#include <algorithm>
#include <cstdio>

namespace qx::mp4 {

namespace {

std::string format(const char* fmt, auto... args)
{
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, fmt, args...);
    return buffer;
}

void readColor(ByteReader& in, RGBAColor& c)
{
    c.red = in.u8();
    c.green = in.u8();
    c.blue = in.u8();
    c.alpha = in.u8();
}

void writeColor(ByteWriter& out, const RGBAColor& c)
{
    out.u8(c.red);
    out.u8(c.green);
    out.u8(c.blue);
    out.u8(c.alpha);
}

// MPEG-4 descriptor length: up to four bytes of seven bits each.
uint32_t readDescriptorLength(ByteReader& in)
{
    uint32_t length = 0;
    for (int i = 0; i < 4; ++i) {
        uint8_t b = in.u8();
        length = (length << 7) | (b & 0x7F);
        if (!(b & 0x80)) break;
    }
    return length;
}

void writeDescriptor(ByteWriter& out, uint8_t tag, const std::vector<uint8_t>& body, uint8_t lengthSize)
{
    out.u8(tag);
    uint32_t n = uint32_t(body.size());
    // The length in `lengthSize` bytes of seven bits each, more if it needs them.
    int bytes = lengthSize;
    while (bytes < 4 && (n >> (7 * bytes)) != 0) ++bytes;
    for (int i = bytes - 1; i > 0; --i) out.u8(uint8_t(0x80 | ((n >> (7 * i)) & 0x7F)));
    out.u8(uint8_t(n & 0x7F));
    out.bytes(body);
}

} // namespace

bool StsdBox::parseFullFields(ByteReader& in)
{
    in.u32(); // entry count: the children are counted instead
    return in.ok();
}

void StsdBox::writeFullFields(ByteWriter& out) const { out.u32(uint32_t(children().size())); }

bool SampleEntry::parseFields(ByteReader& in)
{
    in.skip(6);
    dataReferenceIndex = in.u16();
    return in.ok();
}

void SampleEntry::writeFields(ByteWriter& out) const
{
    out.zeros(6);
    out.u16(dataReferenceIndex);
}

bool VisualSampleEntry::parseFields(ByteReader& in)
{
    SampleEntry::parseFields(in);
    version = in.u16();
    revision = in.u16();
    vendor = in.u32();
    temporalQuality = in.u32();
    spatialQuality = in.u32();
    width = in.u16();
    height = in.u16();
    horizResolution = in.u32();
    vertResolution = in.u32();
    dataSize = in.u32();
    frameCount = in.u16();
    ByteReader name = in.sub(32);
    uint8_t length = std::min<uint8_t>(name.u8(), 31);
    compressorName = name.string(length);
    depth = in.u16();
    colorTableId = in.i16();
    return in.ok();
}

void VisualSampleEntry::writeFields(ByteWriter& out) const
{
    SampleEntry::writeFields(out);
    out.u16(version);
    out.u16(revision);
    out.u32(vendor);
    out.u32(temporalQuality);
    out.u32(spatialQuality);
    out.u16(width);
    out.u16(height);
    out.u32(horizResolution);
    out.u32(vertResolution);
    out.u32(dataSize);
    out.u16(frameCount);
    size_t length = std::min<size_t>(compressorName.size(), 31);
    out.u8(uint8_t(length));
    out.bytes(compressorName.data(), length);
    out.zeros(31 - length);
    out.u16(depth);
    out.u16(uint16_t(colorTableId));
}

std::string VisualSampleEntry::describe() const { return format("%ux%u", width, height); }

bool AudioSampleEntry::parseFields(ByteReader& in)
{
    SampleEntry::parseFields(in);
    version = in.u16();
    revision = in.u16();
    vendor = in.u32();
    channelCount = in.u16();
    sampleSize = in.u16();
    compressionId = in.u16();
    packetSize = in.u16();
    sampleRate = in.u32();
    // QuickTime sound descriptions 1 and 2 have more fields before the children.
    if (version == 1)
        extension = in.bytes(16);
    else if (version == 2)
        extension = in.bytes(36);
    else if (version > 2)
        return false;
    return in.ok();
}

void AudioSampleEntry::writeFields(ByteWriter& out) const
{
    SampleEntry::writeFields(out);
    out.u16(version);
    out.u16(revision);
    out.u32(vendor);
    out.u16(channelCount);
    out.u16(sampleSize);
    out.u16(compressionId);
    out.u16(packetSize);
    out.u32(sampleRate);
    out.bytes(extension);
}

std::string AudioSampleEntry::describe() const
{
    return format("%u channels, %u Hz", channelCount, sampleRate >> 16);
}

bool Tx3gSampleEntry::parseFields(ByteReader& in)
{
    SampleEntry::parseFields(in);
    displayFlags = in.u32();
    horizontalJustification = int8_t(in.u8());
    verticalJustification = int8_t(in.u8());
    readColor(in, backgroundColor);
    defTextBoxTop = in.i16();
    defTextBoxLeft = in.i16();
    defTextBoxBottom = in.i16();
    defTextBoxRight = in.i16();
    startChar = in.u16();
    endChar = in.u16();
    fontId = in.u16();
    fontFace = in.u8();
    fontSize = in.u8();
    readColor(in, fontColor);
    return in.ok();
}

void Tx3gSampleEntry::writeFields(ByteWriter& out) const
{
    SampleEntry::writeFields(out);
    out.u32(displayFlags);
    out.u8(uint8_t(horizontalJustification));
    out.u8(uint8_t(verticalJustification));
    writeColor(out, backgroundColor);
    out.u16(uint16_t(defTextBoxTop));
    out.u16(uint16_t(defTextBoxLeft));
    out.u16(uint16_t(defTextBoxBottom));
    out.u16(uint16_t(defTextBoxRight));
    out.u16(startChar);
    out.u16(endChar);
    out.u16(fontId);
    out.u8(fontFace);
    out.u8(fontSize);
    writeColor(out, fontColor);
}

std::string Tx3gSampleEntry::describe() const
{
    return format("flags 0x%x justification %d/%d box %d,%d,%d,%d font %u size %u", displayFlags,
                  horizontalJustification, verticalJustification, defTextBoxTop, defTextBoxLeft, defTextBoxBottom,
                  defTextBoxRight, fontId, fontSize);
}

bool FtabBox::parseFields(ByteReader& in)
{
    uint16_t count = in.u16();
    fonts.clear();
    for (uint16_t i = 0; i < count && in.ok(); ++i) {
        Font font;
        font.id = in.u16();
        font.name = in.pstring();
        fonts.push_back(std::move(font));
    }
    return in.ok();
}

void FtabBox::writeFields(ByteWriter& out) const
{
    out.u16(uint16_t(fonts.size()));
    for (const auto& font : fonts) {
        out.u16(font.id);
        size_t n = std::min<size_t>(font.name.size(), 255);
        out.u8(uint8_t(n));
        out.bytes(font.name.data(), n);
    }
}

bool TextSampleEntry::parseFields(ByteReader& in)
{
    SampleEntry::parseFields(in);
    displayFlags = in.u32();
    textJustification = in.i32();
    for (auto& c : backgroundColor) c = in.u16();
    boxTop = in.i16();
    boxLeft = in.i16();
    boxBottom = in.i16();
    boxRight = in.i16();
    reserved1 = in.u32();
    reserved2 = in.u32();
    // Some muxers end here and follow with boxes (ftab); those stay in trailing.
    shortForm = in.remaining() < 13 || (in.remaining() >= 8 && fourccIsPrintable(readBE32(in.current() + 4)) &&
                                        readBE32(in.current()) >= 8 && readBE32(in.current()) <= in.remaining());
    if (shortForm) return in.ok();
    fontNumber = in.u16();
    fontFace = in.u16();
    reserved3 = in.u8();
    reserved4 = in.u16();
    for (auto& c : foregroundColor) c = in.u16();
    if (in.remaining() > 0) fontName = in.pstring();
    return in.ok();
}

void TextSampleEntry::writeFields(ByteWriter& out) const
{
    SampleEntry::writeFields(out);
    out.u32(displayFlags);
    out.u32(uint32_t(textJustification));
    for (auto c : backgroundColor) out.u16(c);
    out.u16(uint16_t(boxTop));
    out.u16(uint16_t(boxLeft));
    out.u16(uint16_t(boxBottom));
    out.u16(uint16_t(boxRight));
    out.u32(reserved1);
    out.u32(reserved2);
    if (shortForm) return;
    out.u16(fontNumber);
    out.u16(fontFace);
    out.u8(reserved3);
    out.u16(reserved4);
    for (auto c : foregroundColor) out.u16(c);
    size_t n = std::min<size_t>(fontName.size(), 255);
    out.u8(uint8_t(n));
    out.bytes(fontName.data(), n);
}

bool AvcCBox::parseFields(ByteReader& in)
{
    configurationVersion = in.u8();
    profile = in.u8();
    profileCompatibility = in.u8();
    level = in.u8();
    lengthSizeMinusOne = in.u8() & 3;
    uint8_t spsCount = in.u8() & 0x1F;
    sps.clear();
    pps.clear();
    for (uint8_t i = 0; i < spsCount && in.ok(); ++i) sps.push_back(in.bytes(in.u16()));
    uint8_t ppsCount = in.u8();
    for (uint8_t i = 0; i < ppsCount && in.ok(); ++i) pps.push_back(in.bytes(in.u16()));
    extension = in.rest();
    return in.ok();
}

void AvcCBox::writeFields(ByteWriter& out) const
{
    out.u8(configurationVersion);
    out.u8(profile);
    out.u8(profileCompatibility);
    out.u8(level);
    out.u8(uint8_t(0xFC | (lengthSizeMinusOne & 3)));
    out.u8(uint8_t(0xE0 | std::min<size_t>(sps.size(), 31)));
    for (size_t i = 0; i < sps.size() && i < 31; ++i) {
        out.u16(uint16_t(sps[i].size()));
        out.bytes(sps[i]);
    }
    out.u8(uint8_t(std::min<size_t>(pps.size(), 255)));
    for (size_t i = 0; i < pps.size() && i < 255; ++i) {
        out.u16(uint16_t(pps[i].size()));
        out.bytes(pps[i]);
    }
    out.bytes(extension);
}

std::string AvcCBox::describe() const
{
    return format("profile %u level %u length size %u, %zu SPS, %zu PPS", profile, level, lengthSizeMinusOne + 1,
                  sps.size(), pps.size());
}

bool HvcCBox::parseFields(ByteReader& in)
{
    content = in.rest();
    return true;
}

void HvcCBox::writeFields(ByteWriter& out) const { out.bytes(content); }

std::string HvcCBox::describe() const { return std::to_string(content.size()) + " bytes"; }

// The descriptors are rebuilt from the fields on writing, with the length
// form of the source (one to four bytes) and every descriptor the layer does
// not read kept as it was, so an unchanged esds keeps its size.
bool EsdsBox::parseFullFields(ByteReader& in)
{
    if (in.u8() != 0x03) return false;
    size_t before = in.position();
    ByteReader es = in.sub(readDescriptorLength(in));
    lengthSize = uint8_t(std::clamp<size_t>(in.position() - before - es.size(), 1, 4));
    esId = es.u16();
    size_t headerStart = es.position();
    uint8_t esFlags = es.u8();
    if (esFlags & 0x80) es.skip(2);       // depends on ES_ID
    if (esFlags & 0x40) es.skip(es.u8()); // URL
    if (esFlags & 0x20) es.skip(2);       // OCR ES_ID
    esHeader.assign(es.current() - (es.position() - headerStart), es.current());
    decoderSpecificInfo.clear();
    otherDescriptors.clear();
    configExtra.clear();
    while (es.remaining() >= 2 && es.ok()) {
        const uint8_t* descriptorStart = es.current();
        uint8_t tag = es.u8();
        ByteReader body = es.sub(readDescriptorLength(es));
        if (tag != 0x04) {
            otherDescriptors.insert(otherDescriptors.end(), descriptorStart, es.current());
            continue;
        }
        objectTypeIndication = body.u8();
        uint8_t type = body.u8();
        streamType = uint8_t(type >> 2);
        upStream = (type & 2) != 0;
        bufferSizeDB = body.u24();
        maxBitrate = body.u32();
        avgBitrate = body.u32();
        while (body.remaining() >= 2 && body.ok()) {
            const uint8_t* innerStart = body.current();
            uint8_t innerTag = body.u8();
            ByteReader inner = body.sub(readDescriptorLength(body));
            if (innerTag == 0x05)
                decoderSpecificInfo = inner.rest();
            else
                configExtra.insert(configExtra.end(), innerStart, body.current());
        }
        if (!body.ok()) return false;
    }
    return es.ok() && in.ok();
}

void EsdsBox::writeFullFields(ByteWriter& out) const
{
    ByteWriter config;
    config.u8(objectTypeIndication);
    config.u8(uint8_t((streamType << 2) | (upStream ? 2 : 0) | 1));
    config.u24(bufferSizeDB);
    config.u32(maxBitrate);
    config.u32(avgBitrate);
    if (!decoderSpecificInfo.empty()) writeDescriptor(config, 0x05, decoderSpecificInfo, lengthSize);
    config.bytes(configExtra);

    ByteWriter es;
    es.u16(esId);
    if (esHeader.empty())
        es.u8(0);
    else
        es.bytes(esHeader);
    writeDescriptor(es, 0x04, config.buffer(), lengthSize);
    if (otherDescriptors.empty())
        writeDescriptor(es, 0x06, {0x02}, lengthSize);
    else
        es.bytes(otherDescriptors);
    writeDescriptor(out, 0x03, es.buffer(), lengthSize);
}

std::string EsdsBox::describe() const
{
    return format("object type 0x%02x bitrate avg %u max %u buffer %u, %zu config bytes", objectTypeIndication,
                  avgBitrate, maxBitrate, bufferSizeDB, decoderSpecificInfo.size());
}

bool Dac3Box::parseFields(ByteReader& in)
{
    uint32_t bits = in.u24();
    fscod = uint8_t(bits >> 22);
    bsid = (bits >> 17) & 0x1F;
    bsmod = (bits >> 14) & 0x7;
    acmod = (bits >> 11) & 0x7;
    lfeon = (bits >> 10) & 0x1;
    bitRateCode = (bits >> 5) & 0x1F;
    return in.ok();
}

void Dac3Box::writeFields(ByteWriter& out) const
{
    uint32_t bits = (uint32_t(fscod & 3) << 22) | (uint32_t(bsid & 0x1F) << 17) | (uint32_t(bsmod & 7) << 14) |
                    (uint32_t(acmod & 7) << 11) | (uint32_t(lfeon & 1) << 10) | (uint32_t(bitRateCode & 0x1F) << 5);
    out.u24(bits);
}

std::string Dac3Box::describe() const
{
    return format("fscod %u bsid %u bsmod %u acmod %u lfeon %u bit_rate_code %u", fscod, bsid, bsmod, acmod, lfeon,
                  bitRateCode);
}

bool Dec3Box::parseFields(ByteReader& in)
{
    content = in.rest();
    return true;
}

void Dec3Box::writeFields(ByteWriter& out) const { out.bytes(content); }

std::string Dec3Box::describe() const { return std::to_string(content.size()) + " bytes"; }

bool ColrBox::parseFields(ByteReader& in)
{
    colorParameterType = in.u32();
    if (colorParameterType == fourcc("nclc") || colorParameterType == fourcc("nclx")) {
        primariesIndex = in.u16();
        transferFunctionIndex = in.u16();
        matrixIndex = in.u16();
        if (colorParameterType == fourcc("nclx")) fullRangeFlag = (in.u8() & 0x80) != 0;
    }
    return in.ok();
}

void ColrBox::writeFields(ByteWriter& out) const
{
    out.u32(colorParameterType);
    if (colorParameterType == fourcc("nclc") || colorParameterType == fourcc("nclx")) {
        out.u16(primariesIndex);
        out.u16(transferFunctionIndex);
        out.u16(matrixIndex);
        if (colorParameterType == fourcc("nclx")) out.u8(fullRangeFlag ? 0x80 : 0);
    }
}

std::string ColrBox::describe() const
{
    return format("%s %u/%u/%u%s", fourccString(colorParameterType).c_str(), primariesIndex, transferFunctionIndex,
                  matrixIndex, fullRangeFlag ? " full range" : "");
}

bool PaspBox::parseFields(ByteReader& in)
{
    hSpacing = in.u32();
    vSpacing = in.u32();
    return in.ok();
}

void PaspBox::writeFields(ByteWriter& out) const
{
    out.u32(hSpacing);
    out.u32(vSpacing);
}

std::string PaspBox::describe() const { return format("%u:%u", hSpacing, vSpacing); }

bool BtrtBox::parseFields(ByteReader& in)
{
    bufferSizeDB = in.u32();
    maxBitrate = in.u32();
    avgBitrate = in.u32();
    return in.ok();
}

void BtrtBox::writeFields(ByteWriter& out) const
{
    out.u32(bufferSizeDB);
    out.u32(maxBitrate);
    out.u32(avgBitrate);
}

std::string BtrtBox::describe() const { return format("buffer %u max %u avg %u", bufferSizeDB, maxBitrate, avgBitrate); }

} // namespace qx::mp4
