// tags, set and chapters.

#include "Commands.h"

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/mp4/tags/MP4Tags.h"

#include <charconv>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <sstream>
#include <type_traits>

using namespace qx::mp4;

namespace qxmp4 {

namespace {

// --- JSON output -------------------------------------------------------------

// Length of the valid UTF-8 sequence at `at`, 0 if there is none.
size_t utf8Length(const std::string& text, size_t at)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    size_t length = lead < 0x80 ? 1 : (lead >> 5) == 6 ? 2 : (lead >> 4) == 14 ? 3 : (lead >> 3) == 30 ? 4 : 0;
    if (length == 0 || (length > 1 && lead < 0xC2) || at + length > text.size()) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
    return length;
}

// A JSON string; bytes that are not UTF-8 become U+FFFD.
std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = text[i];
        const size_t length = utf8Length(text, i);
        if (length == 0) {
            out += "\xef\xbf\xbd";
            ++i;
            continue;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out.append(text, i, length);
        }
        i += length;
    }
    return out + "\"";
}

const char* artworkTypeName(MP4TagArtworkType type)
{
    switch (type) {
    case MP4_ART_BMP: return "bmp";
    case MP4_ART_GIF: return "gif";
    case MP4_ART_JPEG: return "jpeg";
    case MP4_ART_PNG: return "png";
    default: return "undefined";
    }
}

// The value of a set field as JSON.
std::string fieldJson(const MP4TagField& field, const MP4Tags& tags)
{
    return std::visit(
        [&](auto member) -> std::string {
            const auto& value = tags.*member;
            using Field = std::remove_cvref_t<decltype(value)>;
            if constexpr (std::is_same_v<Field, std::vector<MP4TagArtwork>>) {
                std::string out = "[";
                for (size_t i = 0; i < value.size(); ++i) {
                    if (i) out += ", ";
                    out += "{\"type\": \"" + std::string(artworkTypeName(value[i].type)) +
                           "\", \"size\": " + std::to_string(value[i].data.size()) + "}";
                }
                return out + "]";
            } else if constexpr (std::is_same_v<Field, std::optional<std::string>>) {
                return quoted(*value);
            } else if constexpr (std::is_same_v<Field, std::optional<MP4TagTrack>>) {
                return "{\"index\": " + std::to_string(value->index) + ", \"total\": " + std::to_string(value->total) +
                       "}";
            } else if constexpr (std::is_same_v<Field, std::optional<bool>>) {
                return *value ? "true" : "false";
            } else {
                return std::to_string(uint64_t(*value));
            }
        },
        field.member);
}

// Type and value (text) or size (other data) of an item's first data entry.
std::string dataJson(const MP4ItmfItem& item)
{
    if (item.dataList.empty()) return "\"type\": null";
    const MP4ItmfData& data = item.dataList.front();
    std::string out = "\"type\": " + std::to_string(data.typeCode);
    if (data.typeCode == MP4_ITMF_BT_UTF8)
        out += ", \"value\": " + quoted(std::string(data.value.begin(), data.value.end()));
    else
        out += ", \"size\": " + std::to_string(data.value.size());
    return out;
}

// --- set ---------------------------------------------------------------------

template <typename T> bool parseUnsigned(const std::string& text, T& value)
{
    uint64_t parsed = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error != std::errc() || end != text.data() + text.size() || parsed > std::numeric_limits<T>::max())
        return false;
    value = T(parsed);
    return true;
}

bool readWholeFile(const std::string& path, std::vector<uint8_t>& bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

// Sets (or, for an empty value, clears) one field from its text. Returns an
// error message, empty on success.
std::string applyField(const MP4TagField& field, const std::string& value, MP4Tags& tags)
{
    return std::visit(
        [&](auto member) -> std::string {
            auto& target = tags.*member;
            using Field = std::remove_cvref_t<decltype(target)>;
            if (value.empty()) {
                target = Field {};
                return {};
            }
            if constexpr (std::is_same_v<Field, std::vector<MP4TagArtwork>>) {
                MP4TagArtwork art;
                if (!readWholeFile(value, art.data)) return "cannot read the image \"" + value + "\"";
                art.type = MP4TagArtworkTypeOfData(art.data);
                if (art.type == MP4_ART_UNDEFINED) return "\"" + value + "\" is not a JPEG, PNG, GIF or BMP image";
                target = {std::move(art)};
            } else if constexpr (std::is_same_v<Field, std::optional<std::string>>) {
                target = value;
            } else if constexpr (std::is_same_v<Field, std::optional<MP4TagTrack>>) {
                MP4TagTrack pair;
                const size_t slash = value.find('/');
                if (!parseUnsigned(value.substr(0, slash), pair.index) ||
                    (slash != std::string::npos && !parseUnsigned(value.substr(slash + 1), pair.total)))
                    return "expected INDEX or INDEX/TOTAL (each 0 to 65535), got \"" + value + "\"";
                target = pair;
            } else if constexpr (std::is_same_v<Field, std::optional<bool>>) {
                if (value == "1" || value == "true" || value == "yes") {
                    target = true;
                } else if (value == "0" || value == "false" || value == "no") {
                    target = false;
                } else {
                    return "expected true or false, got \"" + value + "\"";
                }
            } else {
                typename Field::value_type number {};
                if (!parseUnsigned(value, number))
                    return "expected a number from 0 to " +
                           std::to_string(uint64_t(std::numeric_limits<typename Field::value_type>::max())) +
                           ", got \"" + value + "\"";
                target = number;
            }
            return {};
        },
        field.member);
}

struct Assignment {
    const MP4TagField* field = nullptr; // typed tag, or
    std::string mean, name;             // a free-form item
    std::string value;
};

// Parses KEY=VALUE; returns an error message, empty on success.
std::string parseAssignment(const std::string& argument, Assignment& assignment)
{
    const size_t equals = argument.find('=');
    if (equals == std::string::npos || equals == 0) return "expected KEY=VALUE, got \"" + argument + "\"";
    const std::string key = argument.substr(0, equals);
    assignment.value = argument.substr(equals + 1);
    if (key.rfind("----:", 0) == 0) {
        const size_t colon = key.find(':', 5);
        if (colon == std::string::npos || colon == 5 || colon + 1 == key.size())
            return "a free-form key is ----:MEAN:NAME, got \"" + key + "\"";
        assignment.mean = key.substr(5, colon - 5);
        assignment.name = key.substr(colon + 1);
        return {};
    }
    const auto code = MP4ItmfCodeFromText(key);
    if (!code) return "\"" + key + "\" is not a four-character code";
    assignment.field = MP4TagFieldForCode(*code);
    if (!assignment.field) return "unknown tag \"" + key + "\"";
    return {};
}

} // namespace

int tagsCommand(const Arguments& arguments)
{
    if (arguments.size() != 1) return usage("tags", "FILE");
    auto file = MP4File::read(arguments[0]);
    if (!file) return fail("cannot read \"" + arguments[0] + "\" as MP4");
    if (file->damaged()) return fail("\"" + arguments[0] + "\" is damaged");
    const MP4ItmfItemList items = MP4ItmfGetItems(*file);
    MP4Tags tags;
    MP4TagsFetch(tags, items);

    std::ostringstream out;
    out << "{\n  \"tags\": {";
    const char* separator = "\n";
    for (const MP4TagField& field : MP4TagFields()) {
        if (!MP4TagFieldIsSet(field, tags)) continue;
        out << separator << "    " << quoted(MP4ItmfCodeToText(field.code)) << ": " << fieldJson(field, tags);
        separator = ",\n";
    }
    out << (*separator == ',' ? "\n  " : "") << "},\n  \"freeform\": [";
    separator = "\n";
    for (const MP4ItmfItem& item : items) {
        if (!item.isFreeForm()) continue;
        out << separator << "    {\"mean\": " << quoted(item.mean) << ", \"name\": " << quoted(item.name) << ", "
            << dataJson(item) << "}";
        separator = ",\n";
    }
    out << (*separator == ',' ? "\n  " : "") << "],\n  \"other\": [";
    separator = "\n";
    for (const MP4ItmfItem& item : items) {
        const MP4TagField* field = MP4TagFieldForCode(item.code);
        if (item.isFreeForm() || (field && MP4TagFieldIsSet(*field, tags))) continue;
        out << separator << "    {\"code\": " << quoted(MP4ItmfCodeToText(item.code)) << ", " << dataJson(item) << "}";
        separator = ",\n";
    }
    out << (*separator == ',' ? "\n  " : "") << "]\n}\n";
    std::cout << out.str();
    return 0;
}

int setCommand(const Arguments& arguments)
{
    if (arguments.size() < 2) return usage("set", "FILE KEY=VALUE...");
    // Everything is checked before the file is opened for writing.
    std::vector<Assignment> assignments(arguments.size() - 1);
    for (size_t i = 1; i < arguments.size(); ++i) {
        const std::string error = parseAssignment(arguments[i], assignments[i - 1]);
        if (!error.empty()) return fail(error);
    }
    MP4Tags check;
    for (const Assignment& assignment : assignments) {
        if (!assignment.field) continue;
        const std::string error = applyField(*assignment.field, assignment.value, check);
        if (!error.empty()) return fail(MP4ItmfCodeToText(assignment.field->code) + ": " + error);
    }

    auto file = MP4File::modify(arguments[0]);
    if (!file) return fail("cannot open \"" + arguments[0] + "\" for writing as MP4");
    MP4Tags tags;
    MP4TagsFetch(tags, *file);
    for (const Assignment& assignment : assignments)
        if (assignment.field) applyField(*assignment.field, assignment.value, tags);
    if (!MP4TagsStore(tags, *file)) return fail("cannot store the tags of \"" + arguments[0] + "\"");
    for (const Assignment& assignment : assignments) {
        if (assignment.field) continue;
        for (const MP4ItmfItem& old : MP4ItmfGetItemsByMeaning(*file, assignment.mean, assignment.name))
            MP4ItmfRemoveItem(*file, old);
        if (!assignment.value.empty())
            MP4ItmfAddItem(*file, MP4ItmfItemAlloc(assignment.mean, assignment.name, assignment.value));
    }
    if (!file->close()) return fail("cannot write \"" + arguments[0] + "\"");
    return 0;
}

int chaptersCommand(const Arguments& arguments)
{
    if (arguments.size() != 1) return usage("chapters", "FILE");
    auto file = MP4File::read(arguments[0]);
    if (!file) return fail("cannot read \"" + arguments[0] + "\" as MP4");
    if (file->damaged()) return fail("\"" + arguments[0] + "\" is damaged");
    std::vector<MP4Chapter> chapters;
    const MP4ChapterType type = MP4GetChapters(*file, chapters);
    const char* typeName = type == MP4ChapterTypeQt ? "qt" : type == MP4ChapterTypeNero ? "nero" : "none";
    std::ostringstream out;
    out << "{\n  \"type\": \"" << typeName << "\",\n  \"chapters\": [";
    uint64_t start = 0;
    const char* separator = "\n";
    for (const MP4Chapter& chapter : chapters) {
        out << separator << "    {\"start_ms\": " << start << ", \"duration_ms\": " << chapter.duration
            << ", \"title\": " << quoted(chapter.title) << "}";
        start += chapter.duration;
        separator = ",\n";
    }
    out << (*separator == ',' ? "\n  " : "") << "]\n}\n";
    std::cout << out.str();
    return 0;
}

} // namespace qxmp4
