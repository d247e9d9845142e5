#include "qxmedia/platform/codecs/ASSSplit.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>

namespace qx {
namespace {

std::string_view trim(std::string_view text)
{
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::string lower(std::string_view text)
{
    std::string out(text);
    for (char& c : out) c = char(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Splits at commas into at most `count` fields; the last takes the rest.
std::vector<std::string_view> splitFields(std::string_view text, size_t count)
{
    std::vector<std::string_view> fields;
    while (count > 0 && fields.size() + 1 < count) {
        const size_t comma = text.find(',');
        if (comma == std::string_view::npos) break;
        fields.push_back(text.substr(0, comma));
        text.remove_prefix(comma + 1);
    }
    if (count > 0) fields.push_back(text);
    return fields;
}

std::vector<std::string> parseFormat(std::string_view text)
{
    std::vector<std::string> names;
    for (std::string_view field : splitFields(text, SIZE_MAX)) names.push_back(lower(trim(field)));
    return names;
}

int toInt(std::string_view text)
{
    text = trim(text);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    int value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec == std::errc::result_out_of_range) return 0;
    return value;
}

double toDouble(std::string_view text)
{
    const std::string copy(trim(text));
    return std::strtod(copy.c_str(), nullptr);
}

// SSA's alignment: 1-3 bottom, +4 top, +8 middle.
int numpadFromLegacyAlignment(int value)
{
    const int column = value & 3;
    if (column == 0) return 2;
    if (value & 4) return column + 6;
    if (value & 8) return column + 3;
    return column;
}

const std::vector<std::string> kDefaultStyleFormat = parseFormat(
    "Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, OutlineColour, BackColour, Bold, Italic, Underline, "
    "StrikeOut, ScaleX, ScaleY, Spacing, Angle, BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, MarginV, "
    "Encoding");
const std::vector<std::string> kDefaultLegacyStyleFormat = parseFormat(
    "Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, TertiaryColour, BackColour, Bold, Italic, "
    "BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, MarginV, AlphaLevel, Encoding");
const std::vector<std::string> kDefaultEventFormat =
    parseFormat("Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text");

void setStyleField(ASSStyle& style, const std::string& key, std::string_view value, bool legacy)
{
    value = trim(value);
    // Some scripts mark style names with a leading '*'; it is not part of the name.
    if (key == "name") style.name = std::string(value.substr(!value.empty() && value.front() == '*' ? 1 : 0));
    else if (key == "fontname") style.font_name = std::string(value);
    else if (key == "fontsize") style.font_size = toDouble(value);
    else if (key == "primarycolour") style.primary_color = assParseColor(value);
    else if (key == "secondarycolour") style.secondary_color = assParseColor(value);
    else if (key == "outlinecolour" || key == "tertiarycolour") style.outline_color = assParseColor(value);
    else if (key == "backcolour") style.back_color = assParseColor(value);
    else if (key == "bold") style.bold = toInt(value);
    else if (key == "italic") style.italic = toInt(value);
    else if (key == "underline") style.underline = toInt(value);
    else if (key == "strikeout") style.strikeout = toInt(value);
    else if (key == "scalex") style.scalex = toDouble(value);
    else if (key == "scaley") style.scaley = toDouble(value);
    else if (key == "spacing") style.spacing = toDouble(value);
    else if (key == "angle") style.angle = toDouble(value);
    else if (key == "borderstyle") style.border_style = toInt(value);
    else if (key == "outline") style.outline = toDouble(value);
    else if (key == "shadow") style.shadow = toDouble(value);
    else if (key == "alignment") style.alignment = legacy ? numpadFromLegacyAlignment(toInt(value)) : toInt(value);
    else if (key == "marginl") style.margin_l = toInt(value);
    else if (key == "marginr") style.margin_r = toInt(value);
    else if (key == "marginv") style.margin_v = toInt(value);
    else if (key == "alphalevel") style.alpha_level = toInt(value);
    else if (key == "encoding") style.encoding = toInt(value);
}

void setDialogField(ASSDialog& dialog, const std::string& key, std::string_view value)
{
    if (key == "text") {
        dialog.text = std::string(value); // kept as it is, spaces and all
        return;
    }
    value = trim(value);
    if (key == "readorder") dialog.readorder = toInt(value);
    else if (key == "layer") dialog.layer = toInt(value);
    else if (key == "start") dialog.start = std::max<int64_t>(assParseTime(value), 0);
    else if (key == "end") dialog.end = std::max<int64_t>(assParseTime(value), 0);
    else if (key == "style") dialog.style = std::string(value);
    else if (key == "name" || key == "actor") dialog.name = std::string(value);
    else if (key == "marginl") dialog.margin_l = toInt(value);
    else if (key == "marginr") dialog.margin_r = toInt(value);
    else if (key == "marginv") dialog.margin_v = toInt(value);
    else if (key == "effect") dialog.effect = std::string(value);
}

// "Key: value" or "Key:value"; false if there is no colon.
bool splitKeyValue(std::string_view line, std::string_view& key, std::string_view& value)
{
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return false;
    key = trim(line.substr(0, colon));
    value = line.substr(colon + 1);
    if (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    return true;
}

} // namespace

int64_t assParseTime(std::string_view text)
{
    text = trim(text);
    int64_t parts[3] = {};
    for (int i = 0; i < 3; ++i) {
        const char* begin = text.data();
        const char* end = begin + text.size();
        const auto result = std::from_chars(begin, end, parts[i]);
        if (result.ec != std::errc() || parts[i] < 0) return -1;
        text.remove_prefix(size_t(result.ptr - begin));
        if (i < 2) {
            if (text.empty() || text.front() != ':') return -1;
            text.remove_prefix(1);
        }
    }
    if (parts[0] > 1000000 || parts[1] > 59 || parts[2] > 59) return -1;
    int64_t fraction = 0;
    if (!text.empty() && (text.front() == '.' || text.front() == ',')) {
        text.remove_prefix(1);
        // Centiseconds; one digit counts tenths, further digits are dropped.
        int digits = 0;
        while (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front()))) {
            if (digits < 2) fraction = fraction * 10 + (text.front() - '0');
            ++digits;
            text.remove_prefix(1);
        }
        if (digits == 1) fraction *= 10;
    }
    if (!text.empty()) return -1;
    return ((parts[0] * 60 + parts[1]) * 60 + parts[2]) * 100 + fraction;
}

uint32_t assParseColor(std::string_view text)
{
    text = trim(text);
    if (text.size() >= 2 && text[0] == '&' && (text[1] == 'H' || text[1] == 'h')) {
        text.remove_prefix(2);
        uint32_t value = 0;
        for (char c : text) {
            if (!std::isxdigit(static_cast<unsigned char>(c))) break;
            value = (value << 4) | uint32_t(std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                                                                                       : std::tolower(c) - 'a' + 10);
        }
        return value;
    }
    // SSA scripts may give colours as signed decimal numbers.
    const std::string copy(text);
    return uint32_t(std::strtoll(copy.c_str(), nullptr, 10));
}

std::shared_ptr<ASSSplitContext> ASSSplitContext::create(std::string_view script)
{
    auto context = std::make_shared<ASSSplitContext>();
    Section section = Section::None;
    bool foundSection = false;
    // A byte order mark before the first section is not part of the text.
    if (script.substr(0, 3) == "\xEF\xBB\xBF") script.remove_prefix(3);
    while (!script.empty()) {
        size_t end = script.find_first_of("\r\n");
        std::string_view line = script.substr(0, end);
        script.remove_prefix(end == std::string_view::npos ? script.size() : end + 1);
        line = trim(line);
        if (line.empty()) continue;
        context->parseLine(line, section);
        foundSection = foundSection || section != Section::None;
    }
    if (!foundSection) return nullptr;
    return context;
}

void ASSSplitContext::parseLine(std::string_view line, Section& section)
{
    if (line.front() == '[' && line.back() == ']') {
        const std::string_view name = trim(line.substr(1, line.size() - 2));
        if (equalsIgnoringCase(name, "Script Info"))
            section = Section::ScriptInfo;
        else if (equalsIgnoringCase(name, "V4+ Styles"))
            section = Section::Styles;
        else if (equalsIgnoringCase(name, "V4 Styles"))
            section = Section::LegacyStyles;
        else if (equalsIgnoringCase(name, "Events"))
            section = Section::Events;
        else
            section = Section::Other;
        return;
    }
    if (line.front() == ';' || line.substr(0, 2) == "!:") return; // comments
    std::string_view key, value;
    if (!splitKeyValue(line, key, value)) return;
    switch (section) {
    case Section::ScriptInfo:
        if (equalsIgnoringCase(key, "ScriptType")) scriptInfo_.script_type = std::string(trim(value));
        else if (equalsIgnoringCase(key, "Collisions")) scriptInfo_.collisions = std::string(trim(value));
        else if (equalsIgnoringCase(key, "PlayResX")) scriptInfo_.play_res_x = toInt(value);
        else if (equalsIgnoringCase(key, "PlayResY")) scriptInfo_.play_res_y = toInt(value);
        else if (equalsIgnoringCase(key, "Timer")) scriptInfo_.timer = toDouble(value);
        else if (equalsIgnoringCase(key, "WrapStyle")) scriptInfo_.wrap_style = toInt(value);
        break;
    case Section::Styles:
    case Section::LegacyStyles: {
        const bool legacy = section == Section::LegacyStyles;
        if (equalsIgnoringCase(key, "Format")) {
            styleFormat_ = parseFormat(value);
        } else if (equalsIgnoringCase(key, "Style")) {
            const auto& format =
                styleFormat_.empty() ? (legacy ? kDefaultLegacyStyleFormat : kDefaultStyleFormat) : styleFormat_;
            ASSStyle style;
            const auto fields = splitFields(value, format.size());
            for (size_t i = 0; i < fields.size(); ++i) setStyleField(style, format[i], fields[i], legacy);
            styles_.push_back(std::move(style));
        }
        break;
    }
    case Section::Events:
        if (equalsIgnoringCase(key, "Format")) {
            eventFormat_ = parseFormat(value);
        } else if (equalsIgnoringCase(key, "Dialogue")) {
            ASSDialog dialog;
            if (readDialog(value, dialog)) dialogs_.push_back(std::move(dialog));
        }
        break;
    default:
        break;
    }
}

bool ASSSplitContext::readDialog(std::string_view fields, ASSDialog& dialog) const
{
    const auto& format = eventFormat_.empty() ? kDefaultEventFormat : eventFormat_;
    const auto values = splitFields(fields, format.size());
    if (values.size() < format.size()) return false;
    for (size_t i = 0; i < values.size(); ++i) setDialogField(dialog, format[i], values[i]);
    return true;
}

std::vector<ASSDialog> ASSSplitContext::splitDialog(std::string_view text) const
{
    std::vector<ASSDialog> dialogs;
    while (!text.empty()) {
        const size_t end = text.find_first_of("\r\n");
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        std::string_view key, value;
        if (!splitKeyValue(line, key, value) || !equalsIgnoringCase(key, "Dialogue")) continue;
        ASSDialog dialog;
        if (readDialog(value, dialog)) dialogs.push_back(std::move(dialog));
    }
    return dialogs;
}

std::optional<ASSDialog> ASSSplitContext::splitDialog2(std::string_view packet) const
{
    static const std::vector<std::string> format =
        parseFormat("ReadOrder, Layer, Style, Name, MarginL, MarginR, MarginV, Effect, Text");
    const auto values = splitFields(packet, format.size());
    if (values.size() < format.size()) return std::nullopt;
    ASSDialog dialog;
    for (size_t i = 0; i < values.size(); ++i) setDialogField(dialog, format[i], values[i]);
    return dialog;
}

const ASSStyle* ASSSplitContext::style(std::string_view name) const
{
    name = trim(name);
    if (!name.empty() && name.front() == '*') name.remove_prefix(1);
    if (name.empty()) name = "Default";
    for (auto it = styles_.rbegin(); it != styles_.rend(); ++it) {
        if (it->name == name) return &*it;
    }
    return nullptr;
}

} // namespace qx
