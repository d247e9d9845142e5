// Texts and dates as tag values hold them.

#include <cstring>
#include <ctime>
#include <memory>

#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/ucnv.h>

#include "QXMetaDataText.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"

using namespace qx::metadata;

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// UTF-16 (byte order from a BOM, else big-endian) to UTF-8; nullopt when
// the bytes are no UTF-16.
std::optional<std::string> fromUTF16(std::string_view bytes)
{
    if (bytes.empty() || bytes.size() % 2 != 0) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open("UTF-16", &status);
    if (U_FAILURE(status)) return std::nullopt;
    ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    icu::UnicodeString text(bytes.data(), int32_t(bytes.size()), converter, status);
    ucnv_close(converter);
    if (U_FAILURE(status) || text.isBogus()) return std::nullopt;
    std::string out;
    text.toUTF8String(out);
    return out;
}

// Midnight of a calendar day in the default time zone; nullopt for a day
// that does not exist.
std::optional<QXDate> localMidnight(int year, int month, int day)
{
    std::tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_isdst = -1;
    std::tm normalised = tm;
    const std::time_t t = std::mktime(&normalised);
    if (t == std::time_t(-1) && (normalised.tm_year != tm.tm_year)) return std::nullopt;
    if (normalised.tm_year != tm.tm_year || normalised.tm_mon != tm.tm_mon || normalised.tm_mday != tm.tm_mday) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(t);
}

std::optional<QXDate> dateOf(UDate date)
{
    return QXDate(std::chrono::duration_cast<QXDate::duration>(std::chrono::duration<double, std::milli>(date)));
}

// A whole text in one of the usual date styles, read leniently.
std::optional<QXDate> lenientDate(const icu::UnicodeString& text)
{
    const icu::Locale locales[] = {icu::Locale::getDefault(), icu::Locale("en_US")};
    const icu::DateFormat::EStyle styles[] = {icu::DateFormat::kFull, icu::DateFormat::kLong,
                                              icu::DateFormat::kMedium, icu::DateFormat::kShort};
    for (const auto& locale : locales) {
        for (auto style : styles) {
            std::unique_ptr<icu::DateFormat> format(icu::DateFormat::createDateInstance(style, locale));
            if (!format) continue;
            format->setLenient(true);
            icu::ParsePosition position(0);
            const UDate date = format->parse(text, position);
            if (position.getErrorIndex() < 0 && position.getIndex() == text.length()) return dateOf(date);
        }
    }
    return std::nullopt;
}

// The first date written anywhere in a text, in one of the common written
// forms.
std::optional<QXDate> findDate(const icu::UnicodeString& text)
{
    static const char* const patterns[] = {"MMMM d, y", "MMM d, y", "MMMM d y", "d MMMM y", "d MMM y",
                                           "d. MMMM y",  "y-M-d",    "y/M/d",    "M/d/y",    "d.M.y"};
    UErrorCode status = U_ZERO_ERROR;
    std::vector<std::unique_ptr<icu::SimpleDateFormat>> formats;
    for (const char* pattern : patterns) {
        status = U_ZERO_ERROR;
        auto format = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(pattern), icu::Locale("en_US"),
                                                              status);
        if (U_FAILURE(status)) continue;
        format->setLenient(false);
        formats.push_back(std::move(format));
    }
    for (int32_t start = 0; start < text.length(); ++start) {
        // Dates begin at the start of a word.
        if (start > 0 && u_isalnum(text.charAt(start - 1))) continue;
        if (!u_isalnum(text.charAt(start))) continue;
        for (const auto& format : formats) {
            icu::ParsePosition position(start);
            const UDate date = format->parse(text, position);
            if (position.getErrorIndex() >= 0 || position.getIndex() == start) continue;
            // A match ends at the end of a word, and its year has four digits.
            const int32_t end = position.getIndex();
            if (end < text.length() && u_isalnum(text.charAt(end))) continue;
            if (end - start < 6) continue;
            return dateOf(date);
        }
    }
    return std::nullopt;
}

} // namespace

std::string QXMetaData::stringFromMetadata(const char* text)
{
    if (!text) return {};
    const std::string_view bytes(text);
    if (isValidUTF8(bytes)) return std::string(bytes); // ASCII is a part of UTF-8
    return fromUTF16(bytes).value_or(std::string());
}

std::optional<QXDate> QXMetaData::dateFromMetadata(const char* cText)
{
    const std::string text = stringFromMetadata(cText);
    if (text.empty()) return std::nullopt;

    // "yyyy-MM-dd" and whatever follows: only the day counts, and a day that
    // does not exist is no date at all.
    const bool isoDay = text.size() >= 10 && isDigit(text[0]) && isDigit(text[1]) && isDigit(text[2]) &&
                        isDigit(text[3]) && text[4] == '-' && isDigit(text[5]) && isDigit(text[6]) &&
                        text[7] == '-' && isDigit(text[8]) && isDigit(text[9]);
    if (isoDay) {
        return localMidnight(int(integerValue(text.substr(0, 4))), int(integerValue(text.substr(5, 2))),
                             int(integerValue(text.substr(8, 2))));
    }

    QXLogWarning("Date according to standard: %s", text.c_str());
    const icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(text);
    if (auto date = lenientDate(unicode)) return date;
    return findDate(unicode);
}

std::string QXMetaData::formattedDate(QXDate date)
{
    const std::time_t t = std::chrono::system_clock::to_time_t(date);
    std::tm tm {};
    localtime_r(&t, &tm);
    char day[32];
    std::strftime(day, sizeof day, "%Y-%m-%d", &tm);
    return std::string(day) + "T10:00:00Z";
}
