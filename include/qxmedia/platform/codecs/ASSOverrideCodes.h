#pragma once
// Splitting of an ASS dialogue text into plain text runs and the override
// codes between them ({\b1}, {\c&H0000FF&}, {\pos(10,20)} ...). Stand-in for
// FFmpeg's internal ff_ass_split_override_codes with its ASSCodesCallbacks:
// a table of C callbacks, each optional, called in text order with the
// caller's context. Codes without a callback, and codes no callback covers
// (blur, borders, fades, transforms, karaoke ...) are skipped.

#include <string_view>

namespace qx {

struct ASSCodesCallbacks {
    // A run of plain text (UTF-8, not terminated). \h arrives as U+00A0.
    void (*text)(void* priv, const char* text, int length);
    // \N (forced 1) or \n (forced 0).
    void (*new_line)(void* priv, int forced);
    // \b \i \u \s: style is the letter; close is 1 for 0, 0 for 1 (or a
    // bold weight of 700 and more), -1 for the style's default.
    void (*style)(void* priv, char style, int close);
    // \c or \1c to \4c: color is 0xBBGGRR, color_id the colour's number;
    // a tag without a value (back to the style's colour) gives 0xFFFFFFFF.
    void (*color)(void* priv, unsigned int color, unsigned int color_id);
    // \alpha (alpha_id 0) or \1a to \4a: alpha as written, 0 is opaque.
    void (*alpha)(void* priv, int alpha, int alpha_id);
    // \fn: the font's name, or null for the style's font.
    void (*font_name)(void* priv, const char* name);
    // \fs with a size.
    void (*font_size)(void* priv, int size);
    // \an, or SSA's \a converted to the numeric keypad layout (0 if invalid).
    void (*alignment)(void* priv, int alignment);
    // \r, with the style named after it or an empty text.
    void (*cancel_overrides)(void* priv, const char* style);
    // \move(x1,y1,x2,y2[,t1,t2]); \pos(x,y) arrives as a move that stays,
    // with both times -1, as do moves without times.
    void (*move)(void* priv, int x1, int y1, int x2, int y2, int t1, int t2);
    // \org(x,y).
    void (*origin)(void* priv, int x, int y);
    // After the whole text.
    void (*end)(void* priv);
};

// Walks a dialogue text and calls the callbacks. Returns 0, or -1 when an
// override block is not closed (its rest is then taken as text).
int assSplitOverrideCodes(const ASSCodesCallbacks& callbacks, void* priv, std::string_view text);

} // namespace qx
