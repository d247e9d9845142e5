#include "qxmedia/core/QXTimeFormat.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

#include "qxmedia/core/QXMedia.h"

namespace {

// Reads integers the way a scanner that skips ":" and "." does: the
// separators before a number are passed over, then an optional sign and
// digits. A failed read leaves the position where it was.
class TimeScanner {
public:
    explicit TimeScanner(std::string_view text) : text_(text) {}

    size_t position() const { return position_; }

    std::optional<long long> scanInteger()
    {
        size_t at = position_;
        while (at < text_.size() && (text_[at] == ':' || text_[at] == '.')) ++at;
        bool negative = false;
        if (at < text_.size() && (text_[at] == '+' || text_[at] == '-')) negative = text_[at++] == '-';
        const size_t digitsStart = at;
        long long value = 0;
        bool overflow = false;
        while (at < text_.size() && text_[at] >= '0' && text_[at] <= '9') {
            const int digit = text_[at++] - '0';
            if (value > (std::numeric_limits<long long>::max() - digit) / 10) overflow = true;
            if (!overflow) value = value * 10 + digit;
        }
        if (at == digitsStart) return std::nullopt;
        position_ = at;
        if (overflow) return negative ? std::numeric_limits<long long>::min() : std::numeric_limits<long long>::max();
        return negative ? -value : value;
    }

private:
    std::string_view text_;
    size_t position_ = 0;
};

} // namespace

qx::CMTime CMTimeFromSmpteString(std::string_view text)
{
    if (text.data() == nullptr) return qx::kCMTimeInvalid;
    TimeScanner scanner(text);
    const auto hours = scanner.scanInteger();
    const auto minutes = hours ? scanner.scanInteger() : std::nullopt;
    const auto seconds = minutes ? scanner.scanInteger() : std::nullopt;
    if (!seconds) {
        QXLogWarning("Failed to parse Timestamp %s!", std::string(text).c_str());
        return qx::kCMTimeInvalid;
    }
    const size_t before = scanner.position();
    const auto fraction = scanner.scanInteger();
    const size_t after = scanner.position();

    double value = double(*hours) * 3600 + double(*minutes) * 60 + double(*seconds);
    if (fraction && after - before > 1) {
        const int digits = int(after - before - 1); // the separator does not count
        value += double(*fraction) / std::pow(10.0, digits);
    }
    return qx::CMTimeMakeWithSeconds(value, 1000);
}

std::string CMTimeCopySmpteDescription(const void*, qx::CMTime time)
{
    double s = qx::CMTimeGetSeconds(time);
    if (!std::isfinite(s)) s = 0;
    const long hours = long(s / 3600) % 24;
    const long minutes = long(s / 60) % 60;
    const long seconds = long(s) % 60;
    const long milliseconds = std::lround(s * 1000) % 1000;
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%02ld:%02ld:%02ld.%03ld", hours, minutes, seconds, milliseconds);
    return buffer;
}
