#pragma once
// Splitting of ASS / SSA subtitle scripts: the [Script Info], [V4+ Styles]
// (or SSA's [V4 Styles]) and [Events] sections, dialogue lines in the order
// their Format line gives, and the dialogue packets FFmpeg's decoders put
// out ("ReadOrder,Layer,Style,Name,MarginL,MarginR,MarginV,Effect,Text").
//
// Stand-ins for FFmpeg's internal ASS splitter:
//   ff_ass_split           -> qx::ASSSplitContext::create
//   ff_ass_split_dialog    -> qx::ASSSplitContext::splitDialog
//   ff_ass_split_dialog2   -> qx::ASSSplitContext::splitDialog2
//   ff_ass_style_get       -> qx::ASSSplitContext::style
//   ff_ass_free_dialog, ff_ass_split_free: the values own their memory.
// The override codes inside a dialogue's text are split by
// qx::assSplitOverrideCodes (ASSOverrideCodes.h).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

struct ASSScriptInfo {
    std::string script_type; // "v4.00+" for ASS, "v4.00" for SSA
    std::string collisions;
    int play_res_x = 0;
    int play_res_y = 0;
    double timer = 0;
    int wrap_style = 0;
};

struct ASSStyle {
    std::string name;
    std::string font_name;
    double font_size = 0;
    uint32_t primary_color = 0; // 0xAABBGGRR; alpha 0 is opaque
    uint32_t secondary_color = 0;
    uint32_t outline_color = 0; // SSA: TertiaryColour
    uint32_t back_color = 0;
    int bold = 0; // -1 or 1 on, 0 off, or a font weight
    int italic = 0;
    int underline = 0;
    int strikeout = 0;
    double scalex = 100;
    double scaley = 100;
    double spacing = 0;
    double angle = 0;
    int border_style = 1;
    double outline = 0;
    double shadow = 0;
    int alignment = 2; // numeric keypad layout; SSA's legacy values are converted
    int margin_l = 0;
    int margin_r = 0;
    int margin_v = 0;
    int alpha_level = 0;
    int encoding = 1;
};

struct ASSDialog {
    int readorder = 0;
    int layer = 0;
    int64_t start = 0; // centiseconds
    int64_t end = 0;
    std::string style;
    std::string name;
    int margin_l = 0;
    int margin_r = 0;
    int margin_v = 0;
    std::string effect;
    std::string text; // with its override codes
};

class ASSSplitContext {
public:
    // Parses a script or its header (FFmpeg's subtitle_header). Null when no
    // section of a subtitle script is found in it.
    static std::shared_ptr<ASSSplitContext> create(std::string_view script);

    // The "Dialogue:" lines in text, read with the Events Format of the
    // script. Other lines are skipped.
    std::vector<ASSDialog> splitDialog(std::string_view text) const;
    // One dialogue packet of FFmpeg's decoders; nothing if it has fewer
    // than nine fields.
    std::optional<ASSDialog> splitDialog2(std::string_view packet) const;

    // The style of that name (the last of equal names wins, a leading '*' is
    // ignored); an empty name means "Default". Null if there is none.
    const ASSStyle* style(std::string_view name) const;

    const ASSScriptInfo& scriptInfo() const { return scriptInfo_; }
    const std::vector<ASSStyle>& styles() const { return styles_; }
    // Dialogue lines of the script itself.
    const std::vector<ASSDialog>& dialogs() const { return dialogs_; }

private:
    enum class Section { None, ScriptInfo, Styles, LegacyStyles, Events, Other };
    void parseLine(std::string_view line, Section& section);
    bool readDialog(std::string_view fields, ASSDialog& dialog) const;

    ASSScriptInfo scriptInfo_;
    std::vector<ASSStyle> styles_;
    std::vector<ASSDialog> dialogs_;
    std::vector<std::string> styleFormat_;
    std::vector<std::string> eventFormat_;
};

// "H:MM:SS.cc" in centiseconds; -1 if it is not a time.
int64_t assParseTime(std::string_view text);
// "&HAABBGGRR", "&HBBGGRR&" or a decimal number.
uint32_t assParseColor(std::string_view text);

} // namespace qx
