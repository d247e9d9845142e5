#pragma once
// A small streaming JSON writer for the tool's --json output.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/platform/foundation/QXValue.h"

class JsonWriter {
public:
    // Compact output is one line (for one object per line); the default is
    // indented for people.
    explicit JsonWriter(bool compact = false) : compact_(compact) {}

    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }

    JsonWriter& key(std::string_view name)
    {
        separate();
        quote(name);
        text_ += compact_ ? ":" : ": ";
        afterKey_ = true;
        return *this;
    }
    void string(std::string_view value)
    {
        separate();
        quote(value);
    }
    void number(int64_t value) { raw(std::to_string(value)); }
    void unsignedNumber(uint64_t value) { raw(std::to_string(value)); }
    void number(double value)
    {
        if (!std::isfinite(value)) return null();
        // Enough digits for milliseconds of a long movie.
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%.12g", value);
        raw(buffer);
    }
    void boolean(bool value) { raw(value ? "true" : "false"); }
    void null() { raw("null"); }
    void value(const QXValue& value);

    const std::string& text() const { return text_; }

private:
    // A string token; the caller has placed the separator already.
    void quote(std::string_view value)
    {
        text_ += '"';
        for (unsigned char c : value) {
            switch (c) {
            case '"': text_ += "\\\""; break;
            case '\\': text_ += "\\\\"; break;
            case '\n': text_ += "\\n"; break;
            case '\r': text_ += "\\r"; break;
            case '\t': text_ += "\\t"; break;
            default:
                if (c < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    text_ += escaped;
                } else {
                    text_ += char(c);
                }
            }
        }
        text_ += '"';
    }
    void raw(std::string_view token)
    {
        separate();
        text_ += token;
    }
    void separate()
    {
        if (afterKey_) {
            afterKey_ = false;
            return;
        }
        if (!first_.empty()) {
            if (!first_.back()) text_ += ',';
            first_.back() = false;
            if (!compact_) text_ += '\n' + std::string(first_.size() * 2, ' ');
        }
    }
    void open(char bracket)
    {
        separate();
        text_ += bracket;
        first_.push_back(true);
    }
    void close(char bracket)
    {
        const bool empty = first_.back();
        first_.pop_back();
        if (!empty && !compact_) text_ += '\n' + std::string(first_.size() * 2, ' ');
        text_ += bracket;
    }

    std::string text_;
    std::vector<bool> first_;
    bool afterKey_ = false;
    bool compact_;
};
