#include "qxmedia/reader/QXTX3GTextWriter.h"

#include <algorithm>
#include <string>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/codecs/ASSOverrideCodes.h"

using namespace qx;

namespace {

struct StyleRecord {
    uint16_t startChar, endChar, fontID;
    uint8_t face, fontSize, red, green, blue, alpha;
};

// The writing context of one dialogue, filled by the override-code callbacks.
struct WritingContext {
    std::vector<uint8_t> output;
    bool has_style = false;
    std::vector<StyleRecord> styles;
    uint16_t x = 0, y = 0;
    uint8_t alignment = 0;
    std::string text;
    uint16_t position = 0;
    uint16_t fontID = 1;
    uint8_t fontSize = 24;
    uint8_t red = 255, green = 255, blue = 255, alpha = 255;
    uint8_t bold = 0, italic = 0, underline = 0, strikeout = 0;
    bool obey = false;
    uint64_t sourceWidth = 0, sourceHeight = 0, destinationWidth = 0, destinationHeight = 0;
};

WritingContext& contextOf(void* priv)
{
    return *static_cast<WritingContext*>(priv);
}

// UTF-16 units of UTF-8 text: one per character, two above U+FFFF.
uint16_t utf16Length(const char* text, int length)
{
    int units = 0;
    for (int i = 0; i < length; ++i) {
        const auto byte = uint8_t(text[i]);
        if ((byte & 0xc0) != 0x80) units += byte >= 0xf0 ? 2 : 1;
    }
    return uint16_t(units);
}

void put16(std::vector<uint8_t>& out, uint32_t value)
{
    out.push_back(uint8_t(value >> 8));
    out.push_back(uint8_t(value));
}

void put32(std::vector<uint8_t>& out, uint32_t value)
{
    put16(out, value >> 16);
    put16(out, value & 0xffff);
}

void putType(std::vector<uint8_t>& out, const char (&type)[5])
{
    out.insert(out.end(), type, type + 4);
}

void qx_text_text_cb(void* priv, const char* text, int length)
{
    WritingContext& s = contextOf(priv);
    const size_t free = QXTX3GMaxTextLength - s.text.size();
    if (free < size_t(length)) {
        QXLogInfo("Subtitle too long: %d (free: %lu)", length, static_cast<unsigned long>(free));
        return;
    }
    const uint16_t units = utf16Length(text, length);
    const uint8_t face = uint8_t((s.bold ? 1 : 0) | (s.italic ? 2 : 0) | (s.underline ? 4 : 0));
    s.styles.push_back({s.position, uint16_t(s.position + units), s.fontID, face, s.fontSize, s.red, s.green, s.blue,
                        s.alpha});
    s.text.append(text, size_t(length));
    s.position = uint16_t(s.position + units);
}

void qx_text_new_line_cb(void* priv, int)
{
    WritingContext& s = contextOf(priv);
    // Two bytes: the line feed and the terminator of the fixed text buffer.
    if (QXTX3GMaxTextLength + 1 - s.text.size() >= 2) {
        s.text += '\n';
        s.position = uint16_t(s.position + 1);
    }
}

void qx_text_style_cb(void* priv, char style, int close)
{
    WritingContext& s = contextOf(priv);
    uint8_t* counter = style == 'b' ? &s.bold : style == 'i' ? &s.italic : style == 'u' ? &s.underline
                     : style == 's' ? &s.strikeout : nullptr;
    if (counter) {
        if (close == 1) {
            *counter = uint8_t(*counter - 1);
        } else if (close == 0) {
            *counter = uint8_t(*counter + 1);
        }
    } else {
        QXLogInfo("encounterd unknown stlye: %s", std::string(1, style).c_str());
    }
    s.has_style = true;
}

void qx_text_color_cb(void* priv, unsigned int color, unsigned int)
{
    WritingContext& s = contextOf(priv);
    s.red = uint8_t(color);
    const bool reset = color == 0xffffffffu;
    s.green = reset ? 255 : uint8_t(color >> 8);
    s.blue = reset ? 255 : uint8_t(color >> 16);
    s.has_style = true;
}

void qx_text_alpha_cb(void* priv, int alpha, int)
{
    WritingContext& s = contextOf(priv);
    s.alpha = uint8_t(alpha);
    s.has_style = true;
}

void qx_text_font_name_cb(void*, const char* name)
{
    // A font name has no place in the sample.
    if (name) {
        QXLogInfo("qx_text_font_name_cb: %s", name);
    } else {
        QXLogInfo("qx_text_font_name_cb reset");
    }
}

void qx_text_font_size_cb(void* priv, int size)
{
    WritingContext& s = contextOf(priv);
    QXLogInfo("qx_text_font_size_cb: %d", size);
    s.fontSize = uint8_t(size);
    s.has_style = true;
}

void qx_text_alignment_cb(void* priv, int alignment)
{
    if (alignment >= 1 && alignment <= 9) {
        contextOf(priv).alignment = uint8_t(alignment);
    } else {
        QXLogWarning("invalid subtitle alignment: %d", alignment);
    }
}

void qx_text_cancel_overrides_cb(void*, const char* style)
{
    QXLogInfo("qx_text_cancel_overrides_cb: %s", style ? style : "");
}

void qx_text_move_cb(void* priv, int x1, int y1, int x2, int y2, int t1, int t2)
{
    WritingContext& s = contextOf(priv);
    QXLogInfo("qx_text_move_cb: %d %d %d %d %d %d", x1, y1, x2, y2, t1, t2);
    int64_t x = x1, y = y1;
    if (x1 != x2 || y1 != y2) {
        QXLogWarning("subtitle movement not supported by tx3g. using midpoint.");
        x = (int64_t(x1) + x2) / 2;
        y = (int64_t(y1) + y2) / 2;
    }
    // Without any size a position cannot be scaled; it stays where it is.
    s.x = uint16_t(s.sourceWidth ? uint64_t(x) * s.destinationWidth / s.sourceWidth : uint64_t(x));
    s.y = uint16_t(s.sourceHeight ? uint64_t(y) * s.destinationHeight / s.sourceHeight : uint64_t(y));
}

void qx_text_origin_cb(void*, int x, int y)
{
    QXLogInfo("qx_text_origin_cb: %d %d", x, y);
}

struct Box {
    int64_t top = 0, left = 0, bottom = 0, right = 0;
};

// The text's box: by thirds of the picture for an alignment alone, around
// the anchor for a position (a row or column of 1 lies before the anchor,
// one of 3 behind it).
Box textBox(const WritingContext& s)
{
    const int64_t W = int64_t(s.destinationWidth), H = int64_t(s.destinationHeight);
    int a = s.alignment;
    Box box;
    if (s.x == 0 && s.y == 0) {
        if (a == 0) return box;
        const int row = (a - 1) / 3, column = a % 3;
        box.top = row * H / 3;
        box.bottom = (row + 1) * H / 3;
        box.left = column == 1 ? 0 : column == 2 ? W / 3 : 2 * W / 3;
        box.right = column == 1 ? W / 3 : column == 2 ? 2 * W / 3 : W;
        return box;
    }
    if (a == 0) a = 5;
    const int64_t x = s.x, y = s.y;
    if (a <= 3) {
        box.bottom = y;
        box.top = std::max<int64_t>(y - H / 3, 0);
    } else if (a <= 6) {
        box.top = std::max<int64_t>(y - H / 6, 0);
        box.bottom = std::min<int64_t>(y + H / 6, H);
    } else {
        box.top = y;
        box.bottom = std::min<int64_t>(y + H / 3, H);
    }
    if (a % 3 == 1) {
        box.right = x;
        box.left = std::max<int64_t>(x - W / 3, 0);
    } else if (a % 3 == 2) {
        box.left = std::max<int64_t>(x - W / 6, 0);
        box.right = std::min<int64_t>(x + W / 6, W);
    } else {
        box.left = x;
        box.right = std::min<int64_t>(x + W / 3, W);
    }
    return box;
}

void qx_text_end_cb(void* priv)
{
    WritingContext& s = contextOf(priv);
    std::vector<uint8_t>& out = s.output;
    out.clear();
    put16(out, uint32_t(s.text.size()));
    out.insert(out.end(), s.text.begin(), s.text.end());
    if (s.has_style) {
        put32(out, uint32_t(12 * s.styles.size() + 10));
        putType(out, "styl");
        put16(out, uint32_t(s.styles.size()));
        for (const StyleRecord& r : s.styles) {
            put16(out, r.startChar);
            put16(out, r.endChar);
            put16(out, r.fontID);
            out.insert(out.end(), {r.face, r.fontSize, r.red, r.green, r.blue, r.alpha});
        }
    }
    const Box box = textBox(s);
    if (!s.obey || (box.top == 0 && box.left == 0 && box.bottom == 0 && box.right == 0)) return;
    QXLogInfo("subtitle rect: %d - %d, %d - %d", int(box.top), int(box.left), int(box.bottom), int(box.right));
    put32(out, 16);
    putType(out, "tbox");
    for (int64_t value : {box.top, box.left, box.bottom, box.right}) put16(out, uint32_t(value));
}

const ASSCodesCallbacks mov_text_callbacks {
    qx_text_text_cb,      qx_text_new_line_cb,         qx_text_style_cb, qx_text_color_cb,
    qx_text_alpha_cb,     qx_text_font_name_cb,        qx_text_font_size_cb, qx_text_alignment_cb,
    qx_text_cancel_overrides_cb, qx_text_move_cb, qx_text_origin_cb, qx_text_end_cb,
};

} // namespace

std::vector<uint8_t> QXTX3GSampleFromDialogue(std::string_view dialogueText, const QXTX3GGeometry& geometry)
{
    WritingContext context;
    context.obey = geometry.obey;
    context.destinationWidth = geometry.destinationWidth;
    context.destinationHeight = geometry.destinationHeight;
    context.sourceWidth = geometry.sourceWidth ? geometry.sourceWidth : geometry.destinationWidth;
    context.sourceHeight = geometry.sourceHeight ? geometry.sourceHeight : geometry.destinationHeight;
    context.text.reserve(QXTX3GMaxTextLength + 1);
    assSplitOverrideCodes(mov_text_callbacks, &context, dialogueText);
    return std::move(context.output);
}

std::vector<uint8_t> QXTX3GSampleFromString(std::string_view text, bool forced)
{
    // The same limit as for dialogue, cut before a character that would not fit.
    if (text.size() > QXTX3GMaxTextLength) {
        size_t end = QXTX3GMaxTextLength;
        while (end > 0 && (uint8_t(text[end]) & 0xc0) == 0x80) --end;
        text = text.substr(0, end);
    }
    std::vector<uint8_t> out;
    out.reserve(2 + text.size() + (forced ? 8 : 0));
    put16(out, uint32_t(text.size()));
    out.insert(out.end(), text.begin(), text.end());
    if (forced) {
        put32(out, 8);
        putType(out, "frcd");
    }
    return out;
}

std::vector<uint8_t> QXTX3GEmptySample()
{
    return {0, 0};
}
