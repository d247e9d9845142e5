#include "qxmedia/platform/codecs/ASSOverrideCodes.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

namespace qx {
namespace {

bool isDigit(char c)
{
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

// Walks one override block, the text between { and }.
class OverrideBlock {
public:
    OverrideBlock(const ASSCodesCallbacks& callbacks, void* priv, std::string_view block, int& drawing)
        : callbacks_(callbacks), priv_(priv), rest_(block), drawing_(drawing)
    {
    }

    void run()
    {
        while (!rest_.empty()) {
            const size_t slash = rest_.find('\\');
            if (slash == std::string_view::npos) return; // comments between tags
            rest_.remove_prefix(slash + 1);
            tag();
        }
    }

private:
    bool consume(std::string_view prefix)
    {
        if (rest_.substr(0, prefix.size()) != prefix) return false;
        rest_.remove_prefix(prefix.size());
        return true;
    }

    // The argument of a tag without parentheses: up to the next tag.
    std::string_view plainArgument()
    {
        const size_t end = rest_.find('\\');
        std::string_view argument = rest_.substr(0, end);
        rest_.remove_prefix(argument.size());
        while (!argument.empty() && argument.back() == ' ') argument.remove_suffix(1);
        return argument;
    }

    // Numbers in (a,b,...); false without the parentheses.
    bool parenthesised(std::vector<double>& values)
    {
        if (rest_.empty() || rest_.front() != '(') return false;
        size_t close = rest_.find(')');
        std::string inner(rest_.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1));
        rest_.remove_prefix(close == std::string_view::npos ? rest_.size() : close + 1);
        const char* p = inner.c_str();
        while (*p) {
            char* end = nullptr;
            const double value = std::strtod(p, &end);
            if (end == p || !std::isfinite(value)) return false;
            values.push_back(value);
            p = end;
            while (*p == ' ') ++p;
            if (*p == ',') ++p;
            else if (*p) return false;
        }
        return true;
    }

    // An optionally signed integer right here; false if there is none.
    bool integer(long& value)
    {
        size_t length = 0;
        if (length < rest_.size() && (rest_[length] == '-' || rest_[length] == '+')) ++length;
        const size_t digits = length;
        while (length < rest_.size() && isDigit(rest_[length])) ++length;
        if (length == digits) return false;
        const std::string number(rest_.substr(0, std::min<size_t>(length, 12)));
        value = std::strtol(number.c_str(), nullptr, 10);
        rest_.remove_prefix(length);
        return true;
    }

    // &Hxxxx& (the ampersands and H optional).
    unsigned long hexValue()
    {
        consume("&");
        if (!consume("H")) consume("h");
        size_t length = 0;
        while (length < rest_.size() && std::isxdigit(static_cast<unsigned char>(rest_[length]))) ++length;
        const std::string digits(rest_.substr(0, std::min<size_t>(length, 8)));
        rest_.remove_prefix(length);
        consume("&");
        return digits.empty() ? 0 : std::strtoul(digits.c_str(), nullptr, 16);
    }

    static int rounded(double value)
    {
        if (value > 1e9) return 1000000000;
        if (value < -1e9) return -1000000000;
        return int(std::lround(value));
    }

    // A tag this walker does not use: its name and argument, parentheses
    // nesting included (\t(\c&HFF&) holds tags of its own).
    void skipTag()
    {
        while (!rest_.empty() && rest_.front() != '\\' && rest_.front() != '(') rest_.remove_prefix(1);
        if (rest_.empty() || rest_.front() != '(') return;
        int depth = 0;
        while (!rest_.empty()) {
            const char c = rest_.front();
            rest_.remove_prefix(1);
            if (c == '(') ++depth;
            if (c == ')' && --depth == 0) return;
        }
    }

    // A colour, or without one the style's colour again, given as all ones.
    void colorTag(unsigned id)
    {
        const bool reset = rest_.empty() || rest_.front() == '\\';
        const unsigned long value = reset ? 0 : hexValue();
        if (callbacks_.color) callbacks_.color(priv_, reset ? 0xFFFFFFFFu : unsigned(value & 0xFFFFFF), id);
        plainArgument();
    }

    void styleTag(char letter)
    {
        long value = 0;
        int close = -1;
        if (integer(value)) {
            if (letter == 'b' && value >= 100)
                close = value >= 700 ? 0 : 1; // a font weight
            else
                close = value == 0 ? 1 : 0;
        }
        if (callbacks_.style) callbacks_.style(priv_, letter, close);
        plainArgument();
    }

    void tag()
    {
        std::vector<double> values;
        long number = 0;
        if (consume("alpha")) {
            const int alpha = int(hexValue() & 0xFF);
            if (callbacks_.alpha) callbacks_.alpha(priv_, alpha, 0);
        } else if (rest_.size() >= 2 && rest_[0] >= '1' && rest_[0] <= '4' && (rest_[1] == 'c' || rest_[1] == 'a')) {
            const unsigned id = unsigned(rest_[0] - '0');
            const char kind = rest_[1];
            rest_.remove_prefix(2);
            if (kind == 'c') colorTag(id);
            if (kind == 'a') {
                const unsigned long value = hexValue();
                if (callbacks_.alpha) callbacks_.alpha(priv_, int(value & 0xFF), int(id));
            }
        } else if (!rest_.empty() && rest_[0] == 'c' && (rest_.size() == 1 || rest_[1] == '&' || rest_[1] == 'H')) {
            rest_.remove_prefix(1);
            colorTag(1);
        } else if (consume("fn")) {
            const std::string name(plainArgument());
            if (callbacks_.font_name) callbacks_.font_name(priv_, name.empty() ? nullptr : name.c_str());
        } else if (rest_.substr(0, 2) == "fs" && rest_.size() > 2 && isDigit(rest_[2])) {
            rest_.remove_prefix(2);
            integer(number);
            if (callbacks_.font_size) callbacks_.font_size(priv_, int(number));
            plainArgument();
        } else if (rest_.substr(0, 2) == "an" && rest_.size() > 2 && isDigit(rest_[2])) {
            rest_.remove_prefix(2);
            integer(number);
            if (callbacks_.alignment) callbacks_.alignment(priv_, int(number));
        } else if (rest_.size() > 1 && rest_[0] == 'a' && isDigit(rest_[1])) {
            rest_.remove_prefix(1);
            integer(number);
            const int column = int(number & 3);
            int alignment = 0;
            if (number > 0 && number < 12 && column != 0)
                alignment = (number & 4) ? column + 6 : (number & 8) ? column + 3 : column;
            if (callbacks_.alignment) callbacks_.alignment(priv_, alignment);
        } else if ((rest_.size() == 1 || (rest_.size() > 1 && (isDigit(rest_[1]) || rest_[1] == '\\'))) &&
                   (rest_[0] == 'b' || rest_[0] == 'i' || rest_[0] == 'u' || rest_[0] == 's')) {
            const char letter = rest_[0];
            rest_.remove_prefix(1);
            styleTag(letter);
        } else if (consume("pos")) {
            if (parenthesised(values) && values.size() == 2 && callbacks_.move) {
                const int x = rounded(values[0]), y = rounded(values[1]);
                callbacks_.move(priv_, x, y, x, y, -1, -1);
            }
        } else if (consume("move")) {
            if (parenthesised(values) && (values.size() == 4 || values.size() == 6) && callbacks_.move) {
                const bool timed = values.size() == 6;
                callbacks_.move(priv_, rounded(values[0]), rounded(values[1]), rounded(values[2]), rounded(values[3]),
                                timed ? rounded(values[4]) : -1, timed ? rounded(values[5]) : -1);
            }
        } else if (consume("org")) {
            if (parenthesised(values) && values.size() == 2 && callbacks_.origin)
                callbacks_.origin(priv_, rounded(values[0]), rounded(values[1]));
        } else if (rest_.size() > 1 && rest_[0] == 'p' && isDigit(rest_[1])) {
            rest_.remove_prefix(1);
            integer(number);
            drawing_ = int(number);
        } else if (consume("r")) {
            const std::string style(plainArgument());
            if (callbacks_.cancel_overrides) callbacks_.cancel_overrides(priv_, style.c_str());
        } else {
            skipTag();
        }
    }

    const ASSCodesCallbacks& callbacks_;
    void* priv_;
    std::string_view rest_;
    int& drawing_;
};

} // namespace

int assSplitOverrideCodes(const ASSCodesCallbacks& callbacks, void* priv, std::string_view text)
{
    std::string run;
    int drawing = 0;
    int result = 0;
    auto flush = [&] {
        if (!run.empty() && callbacks.text) callbacks.text(priv, run.data(), int(run.size()));
        run.clear();
    };
    auto append = [&](std::string_view piece) {
        if (drawing == 0) run.append(piece);
    };
    size_t i = 0;
    while (i < text.size()) {
        const char c = text[i];
        if (c == '{') {
            const size_t close = text.find('}', i + 1);
            if (close == std::string_view::npos) {
                result = -1;
                append(text.substr(i));
                break;
            }
            flush();
            OverrideBlock(callbacks, priv, text.substr(i + 1, close - i - 1), drawing).run();
            i = close + 1;
        } else if (c == '\\' && i + 1 < text.size()) {
            const char next = text[i + 1];
            if (next == 'N' || next == 'n') {
                flush();
                if (callbacks.new_line) callbacks.new_line(priv, next == 'N');
            } else if (next == 'h') {
                append("\xC2\xA0");
            } else if (next == '{' || next == '}') {
                append(text.substr(i + 1, 1));
            } else {
                append(text.substr(i, 2));
            }
            i += 2;
        } else {
            append(text.substr(i, 1));
            ++i;
        }
    }
    flush();
    if (callbacks.end) callbacks.end(priv);
    return result;
}

} // namespace qx
