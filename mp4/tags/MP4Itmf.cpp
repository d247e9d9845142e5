#include "qxmedia/mp4/tags/MP4Itmf.h"

#include <cctype>
#include <cstdio>

#include "qxmedia/mp4/MP4Bytes.h"
#include "qxmedia/mp4/MP4Log.h"

namespace qx::mp4 {

namespace {

struct BoxHeader {
    std::string type;
    size_t headerSize = 0;
    size_t size = 0; // whole box
};

// Reads the box header at `at` inside `bytes`; nullopt if the box does not
// fit. A size of 0 means "to the end of the parent".
std::optional<BoxHeader> readHeader(std::span<const uint8_t> bytes, size_t at)
{
    if (bytes.size() - at < 8) return std::nullopt;
    BoxHeader header;
    uint64_t size = readBE32(bytes.data() + at);
    header.type.assign(reinterpret_cast<const char*>(bytes.data() + at + 4), 4);
    header.headerSize = 8;
    if (size == 1) {
        if (bytes.size() - at < 16) return std::nullopt;
        size = readBE64(bytes.data() + at + 8);
        header.headerSize = 16;
    } else if (size == 0) {
        size = bytes.size() - at;
    }
    if (size < header.headerSize || size > bytes.size() - at) {
        MP4Log(MP4_LOG_ERROR, "invalid atom size %llu of '%s' in ilst", static_cast<unsigned long long>(size),
               header.type.c_str());
        return std::nullopt;
    }
    header.size = static_cast<size_t>(size);
    return header;
}

// The string of a mean or name box: after version and flags, up to the end
// (a terminating zero written by some tools is dropped).
std::string fullBoxString(std::span<const uint8_t> payload)
{
    if (payload.size() < 4) return {};
    std::string text(reinterpret_cast<const char*>(payload.data() + 4), payload.size() - 4);
    while (!text.empty() && text.back() == '\0') text.pop_back();
    return text;
}

// Starts a box: a size placeholder and the type; endBox fills in the size.
size_t beginBox(ByteWriter& out, const std::string& type)
{
    const size_t at = out.size();
    out.u32(0);
    out.string(type.substr(0, 4));
    return at;
}

void endBox(ByteWriter& out, size_t at) { out.patch32(at, uint32_t(out.size() - at)); }

void appendFullBoxString(ByteWriter& out, const char* type, const std::string& text)
{
    const size_t box = beginBox(out, type);
    out.u32(0); // version and flags
    out.string(text);
    endBox(out, box);
}

} // namespace

bool MP4ItmfItem::sameContent(const MP4ItmfItem& other) const
{
    return code == other.code && mean == other.mean && name == other.name && dataList == other.dataList;
}

MP4ItmfItem MP4ItmfItemAlloc(const std::string& mean, const std::string& name, uint32_t typeCode,
                             std::span<const uint8_t> value)
{
    MP4ItmfItem item;
    item.code = "----";
    item.mean = mean;
    item.name = name;
    MP4ItmfData data;
    data.typeCode = typeCode;
    data.value.assign(value.begin(), value.end());
    item.dataList.push_back(std::move(data));
    return item;
}

MP4ItmfItem MP4ItmfItemAlloc(const std::string& mean, const std::string& name, const std::string& text)
{
    return MP4ItmfItemAlloc(mean, name, MP4_ITMF_BT_UTF8,
                            std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

std::optional<MP4ItmfItem> MP4ItmfParseItem(std::span<const uint8_t> itemBox)
{
    const auto header = readHeader(itemBox, 0);
    if (!header) return std::nullopt;
    MP4ItmfItem item;
    item.code = header->type;
    item.raw.assign(itemBox.begin(), itemBox.begin() + header->size);
    const auto body = itemBox.subspan(0, header->size);
    for (size_t at = header->headerSize; at < body.size();) {
        const auto child = readHeader(body, at);
        if (!child) return std::nullopt;
        const auto payload = body.subspan(at + child->headerSize, child->size - child->headerSize);
        if (child->type == "data") {
            if (payload.size() < 8) {
                MP4Log(MP4_LOG_ERROR, "invalid atom size %zu of data in '%s'", child->size, item.code.c_str());
                return std::nullopt;
            }
            MP4ItmfData data;
            data.typeSetIdentifier = payload[0];
            data.typeCode = readBE32(payload.data()) & 0xFFFFFF;
            data.locale = readBE32(payload.data() + 4);
            data.value.assign(payload.begin() + 8, payload.end());
            item.dataList.push_back(std::move(data));
        } else if (child->type == "mean") {
            item.mean = fullBoxString(payload);
        } else if (child->type == "name") {
            item.name = fullBoxString(payload);
        }
        // Other children are kept only through `raw`.
        at += child->size;
    }
    return item;
}

MP4ItmfItemList MP4ItmfParseItems(std::span<const uint8_t> ilstPayload)
{
    MP4ItmfItemList items;
    size_t at = 0;
    while (at < ilstPayload.size()) {
        const auto header = readHeader(ilstPayload, at);
        std::optional<MP4ItmfItem> item;
        // An item of size 0 ("to the end") would swallow any item stored after
        // it; it is kept as a damaged tail instead.
        const bool openEnded = header && readBE32(ilstPayload.data() + at) == 0;
        if (header && !openEnded) item = MP4ItmfParseItem(ilstPayload.subspan(at, header->size));
        if (!item) {
            // Padding of zeros at the end of an ilst is harmless and common.
            bool zeros = true;
            for (size_t i = at; i < ilstPayload.size() && zeros; ++i) zeros = ilstPayload[i] == 0;
            if (!zeros) {
                MP4Log(MP4_LOG_WARNING, "ilst: keeping %zu damaged bytes as they are", ilstPayload.size() - at);
                MP4ItmfItem opaque;
                opaque.raw.assign(ilstPayload.begin() + at, ilstPayload.end());
                items.push_back(std::move(opaque));
            }
            break;
        }
        items.push_back(std::move(*item));
        at += header->size;
    }
    return items;
}

std::vector<uint8_t> MP4ItmfEncodeItem(const MP4ItmfItem& item)
{
    ByteWriter out;
    const size_t box = beginBox(out, item.code);
    if (item.isFreeForm()) {
        appendFullBoxString(out, "mean", item.mean);
        appendFullBoxString(out, "name", item.name);
    }
    for (const MP4ItmfData& data : item.dataList) {
        const size_t dataBox = beginBox(out, "data");
        out.u8(data.typeSetIdentifier);
        out.u24(data.typeCode);
        out.u32(data.locale);
        out.bytes(data.value);
        endBox(out, dataBox);
    }
    endBox(out, box);
    return std::move(out.buffer());
}

std::vector<uint8_t> MP4ItmfSerializeItems(const MP4ItmfItemList& items)
{
    ByteWriter out;
    for (const MP4ItmfItem& item : items) {
        if (item.code.empty()) continue; // a damaged tail goes last, below
        if (!item.raw.empty()) {
            const auto asRead = MP4ItmfParseItem(item.raw);
            if (asRead && asRead->sameContent(item)) {
                out.bytes(item.raw);
                continue;
            }
        }
        out.bytes(MP4ItmfEncodeItem(item));
    }
    // Kept as read, and after every item: one written behind it would be
    // lost to readers along with it.
    for (const MP4ItmfItem& item : items)
        if (item.code.empty()) out.bytes(item.raw);
    return std::move(out.buffer());
}

MP4ItmfItemList MP4ItmfGetItemsByMeaning(const MP4ItmfItemList& items, const std::string& mean,
                                         const std::string& name)
{
    MP4ItmfItemList found;
    for (const MP4ItmfItem& item : items) {
        if (item.isFreeForm() && item.mean == mean && (name.empty() || item.name == name)) found.push_back(item);
    }
    return found;
}

bool MP4ItmfRemoveItem(MP4ItmfItemList& items, const MP4ItmfItem& item)
{
    const auto removed = std::erase_if(items, [&](const MP4ItmfItem& each) { return each.sameContent(item); });
    return removed > 0;
}

std::string MP4ItmfCodeToText(const std::string& code)
{
    std::string text;
    for (unsigned char c : code) {
        if (c == 0xA9) {
            text += "\xc2\xa9";
        } else if (c < 0x20 || c >= 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            text += escaped;
        } else {
            text += char(c);
        }
    }
    return text;
}

std::optional<std::string> MP4ItmfCodeFromText(const std::string& text)
{
    std::string code;
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = text[i];
        if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0xA9) {
            code += '\xa9';
            i += 2;
        } else if (c == '\\' && i + 3 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            if (!std::isxdigit(static_cast<unsigned char>(text[i + 2])) ||
                !std::isxdigit(static_cast<unsigned char>(text[i + 3]))) {
                return std::nullopt;
            }
            code += char(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 4;
        } else {
            code += char(c);
            ++i;
        }
    }
    if (code.size() != 4) return std::nullopt;
    return code;
}

} // namespace qx::mp4
