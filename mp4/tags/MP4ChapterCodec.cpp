// The byte forms of chapters: chpl payloads and chapter text samples.

#include "qxmedia/mp4/tags/MP4Chapters.h"

#include <algorithm>

#include "qxmedia/mp4/MP4Bytes.h"
#include "qxmedia/mp4/MP4Log.h"

namespace qx::mp4 {

namespace {

constexpr uint64_t kHundredNsPerMs = 10000;

void appendUTF8(std::string& out, uint32_t cp)
{
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

std::string utf16ToUTF8(std::span<const uint8_t> bytes, bool bigEndian)
{
    std::string out;
    auto unit = [&](size_t i) -> uint32_t {
        return bigEndian ? (uint32_t(bytes[i]) << 8) | bytes[i + 1] : (uint32_t(bytes[i + 1]) << 8) | bytes[i];
    };
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        uint32_t cp = unit(i);
        if (cp >= 0xD800 && cp < 0xDC00 && i + 3 < bytes.size()) {
            const uint32_t low = unit(i + 2);
            if (low >= 0xDC00 && low < 0xE000) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                i += 2;
            }
        }
        appendUTF8(out, cp);
    }
    return out;
}

} // namespace

std::string MP4TruncateUTF8(const std::string& text, size_t maxBytes)
{
    if (text.size() <= maxBytes) return text;
    size_t cut = maxBytes;
    // Step back over continuation bytes to the start of the cut character.
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return text.substr(0, cut);
}

std::vector<uint8_t> MP4ChplEncode(const std::vector<MP4NeroChapter>& chapters)
{
    if (chapters.size() > 255) {
        MP4Log(MP4_LOG_WARNING, "chpl: keeping the first 255 of %zu chapters", chapters.size());
    }
    const size_t count = std::min<size_t>(chapters.size(), 255);
    ByteWriter out;
    out.u32(0x01000000); // version 1, flags 0
    out.u8(0);           // reserved
    out.u32(uint32_t(count));
    for (size_t i = 0; i < count; ++i) {
        out.u64(chapters[i].start);
        const std::string title = MP4TruncateUTF8(chapters[i].title, 255);
        out.u8(uint8_t(title.size()));
        out.string(title);
    }
    return std::move(out.buffer());
}

std::optional<std::vector<MP4NeroChapter>> MP4ChplDecode(std::span<const uint8_t> payload)
{
    if (payload.size() < 5) return std::nullopt;
    const uint8_t version = payload[0];
    size_t at = 4;
    uint64_t count = 0;
    if (version >= 1) {
        if (payload.size() < 9) return std::nullopt;
        count = readBE32(payload.data() + 5);
        at = 9;
    } else {
        count = payload[4];
        at = 5;
    }
    std::vector<MP4NeroChapter> chapters;
    for (uint64_t i = 0; i < count; ++i) {
        if (payload.size() - at < 9) {
            MP4Log(MP4_LOG_WARNING, "chpl: %llu chapters announced, %zu present", static_cast<unsigned long long>(count),
                   chapters.size());
            break;
        }
        MP4NeroChapter chapter;
        chapter.start = readBE64(payload.data() + at);
        const size_t length = payload[at + 8];
        at += 9;
        if (payload.size() - at < length) break;
        chapter.title.assign(reinterpret_cast<const char*>(payload.data() + at), length);
        at += length;
        chapters.push_back(std::move(chapter));
    }
    return chapters;
}

std::optional<std::string> MP4ChapterTitleFromSample(std::span<const uint8_t> sample)
{
    if (sample.size() < 2) return std::nullopt;
    const size_t length = (size_t(sample[0]) << 8) | sample[1];
    if (sample.size() - 2 < length) return std::nullopt;
    const auto text = sample.subspan(2, length);
    if (text.size() >= 2 && text[0] == 0xFE && text[1] == 0xFF) return utf16ToUTF8(text.subspan(2), true);
    if (text.size() >= 2 && text[0] == 0xFF && text[1] == 0xFE) return utf16ToUTF8(text.subspan(2), false);
    size_t skip = 0;
    if (text.size() >= 3 && text[0] == 0xEF && text[1] == 0xBB && text[2] == 0xBF) skip = 3;
    return std::string(reinterpret_cast<const char*>(text.data()) + skip, text.size() - skip);
}

std::vector<MP4NeroChapter> MP4ChaptersToNero(const std::vector<MP4Chapter>& chapters)
{
    std::vector<MP4NeroChapter> nero;
    uint64_t start = 0;
    for (const MP4Chapter& chapter : chapters) {
        nero.push_back({start * kHundredNsPerMs, chapter.title});
        start += chapter.duration;
    }
    return nero;
}

std::vector<MP4Chapter> MP4ChaptersFromNero(const std::vector<MP4NeroChapter>& chapters, uint64_t totalDuration)
{
    std::vector<MP4Chapter> result;
    for (size_t i = 0; i < chapters.size(); ++i) {
        const uint64_t start = chapters[i].start / kHundredNsPerMs;
        const uint64_t end = i + 1 < chapters.size() ? chapters[i + 1].start / kHundredNsPerMs : totalDuration;
        result.push_back({end > start ? end - start : 0, chapters[i].title});
    }
    return result;
}

} // namespace qx::mp4
