#pragma once
// Regular expressions over UTF-8 text (ICU syntax). Ranges are byte offsets
// into the UTF-8 text, so they index std::string directly.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/platform/foundation/QXError.h"

constexpr size_t QXNotFound = SIZE_MAX;

struct QXRange {
    size_t location = QXNotFound;
    size_t length = 0;
    bool found() const { return location != QXNotFound; }
    bool operator==(const QXRange&) const = default;
};

// Options, with the platform's values: case-insensitive with line anchors is 17.
enum QXRegularExpressionOptions : uint32_t {
    NSRegularExpressionCaseInsensitive = 1 << 0,
    NSRegularExpressionAllowCommentsAndWhitespace = 1 << 1,
    NSRegularExpressionIgnoreMetacharacters = 1 << 2,
    NSRegularExpressionDotMatchesLineSeparators = 1 << 3,
    NSRegularExpressionAnchorsMatchLines = 1 << 4,
    NSRegularExpressionUseUnixLineSeparators = 1 << 5,
    NSRegularExpressionUseUnicodeWordBoundaries = 1 << 6,
};

// One match: range 0 is the whole match, range n the n-th capture group. A
// group that took no part in the match has a range that is not found.
class QXTextCheckingResult {
public:
    explicit QXTextCheckingResult(std::vector<QXRange> ranges) : ranges_(std::move(ranges)) {}
    QXRange range() const { return ranges_.at(0); }
    size_t numberOfRanges() const { return ranges_.size(); }
    QXRange rangeAtIndex(size_t index) const { return index < ranges_.size() ? ranges_[index] : QXRange {}; }
    // The text of range index in text (the string that was searched); empty
    // for a group that did not take part.
    std::string substring(std::string_view text, size_t index) const;

private:
    std::vector<QXRange> ranges_;
};

// Compiled once, then safe to use from any number of threads at once.
class QXRegularExpression {
public:
    // Null, and an error in NSCocoaErrorDomain with code 2048, when the
    // pattern does not compile.
    static std::shared_ptr<QXRegularExpression> regularExpressionWithPattern(std::string_view pattern,
                                                                             uint32_t options = 0,
                                                                             QXErrorRef* error = nullptr);
    ~QXRegularExpression();

    const std::string& pattern() const { return pattern_; }
    uint32_t options() const { return options_; }
    size_t numberOfCaptureGroups() const;

    // All matches in order; range limits the search to part of the text.
    std::vector<QXTextCheckingResult> matchesInString(std::string_view text) const;
    std::vector<QXTextCheckingResult> matchesInString(std::string_view text, QXRange range) const;
    std::optional<QXTextCheckingResult> firstMatchInString(std::string_view text) const;
    size_t numberOfMatchesInString(std::string_view text) const;
    QXRange rangeOfFirstMatchInString(std::string_view text) const;

    // Every match replaced by the template, in which $0 to $9 (and more
    // digits while such a group exists) stand for the groups and a backslash
    // takes the next character literally.
    std::string stringByReplacingMatchesInString(std::string_view text, std::string_view templ) const;
    // The template expanded for one match.
    std::string replacementStringForResult(const QXTextCheckingResult& result, std::string_view text,
                                           std::string_view templ) const;

    // The pattern that matches text literally.
    static std::string escapedPatternForString(std::string_view text);
    // The template that inserts text literally.
    static std::string escapedTemplateForString(std::string_view text);

private:
    std::vector<QXTextCheckingResult> matches(std::string_view text, QXRange range, size_t limit) const;

    struct Compiled; // the ICU pattern
    QXRegularExpression(std::string pattern, uint32_t options, std::unique_ptr<Compiled> compiled);

    std::string pattern_;
    uint32_t options_;
    std::unique_ptr<Compiled> compiled_;
};
