#include "qxmedia/platform/text/QXRegularExpression.h"

#include <unicode/regex.h>
#include <unicode/utext.h>

#include <climits>

#include "qxmedia/core/QXMedia.h"

struct QXRegularExpression::Compiled {
    std::unique_ptr<icu::RegexPattern> pattern;
};

namespace {

uint32_t icuFlags(uint32_t options)
{
    uint32_t flags = 0;
    if (options & NSRegularExpressionCaseInsensitive) flags |= UREGEX_CASE_INSENSITIVE;
    if (options & NSRegularExpressionAllowCommentsAndWhitespace) flags |= UREGEX_COMMENTS;
    if (options & NSRegularExpressionIgnoreMetacharacters) flags |= UREGEX_LITERAL;
    if (options & NSRegularExpressionDotMatchesLineSeparators) flags |= UREGEX_DOTALL;
    if (options & NSRegularExpressionAnchorsMatchLines) flags |= UREGEX_MULTILINE;
    if (options & NSRegularExpressionUseUnixLineSeparators) flags |= UREGEX_UNIX_LINES;
    if (options & NSRegularExpressionUseUnicodeWordBoundaries) flags |= UREGEX_UWORD;
    return flags;
}

struct UTextCloser {
    void operator()(UText* text) const { utext_close(text); }
};
using UTextPtr = std::unique_ptr<UText, UTextCloser>;

UTextPtr openUTF8(std::string_view text, UErrorCode& status)
{
    return UTextPtr(utext_openUTF8(nullptr, text.data(), int64_t(text.size()), &status));
}

} // namespace

std::string QXTextCheckingResult::substring(std::string_view text, size_t index) const
{
    const QXRange r = rangeAtIndex(index);
    if (!r.found() || r.location > text.size()) return {};
    return std::string(text.substr(r.location, r.length));
}

QXRegularExpression::QXRegularExpression(std::string pattern, uint32_t options, std::unique_ptr<Compiled> compiled)
    : pattern_(std::move(pattern)), options_(options), compiled_(std::move(compiled))
{
}

QXRegularExpression::~QXRegularExpression() = default;

std::shared_ptr<QXRegularExpression> QXRegularExpression::regularExpressionWithPattern(std::string_view pattern,
                                                                                       uint32_t options,
                                                                                       QXErrorRef* error)
{
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError {};
    auto compiled = std::make_unique<Compiled>();
    if (pattern.size() <= size_t(INT32_MAX)) {
        UTextPtr text = openUTF8(pattern, status);
        if (U_SUCCESS(status)) {
            compiled->pattern.reset(icu::RegexPattern::compile(text.get(), icuFlags(options), parseError, status));
        }
    } else {
        status = U_INDEX_OUTOFBOUNDS_ERROR;
    }
    if (U_FAILURE(status) || !compiled->pattern) {
        // NSFormattingError, as the platform reports a pattern that does not compile.
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, 2048,
                                                   {{"NSInvalidValue", std::string(pattern)},
                                                    {NSLocalizedDescriptionKey,
                                                     "The value “" + std::string(pattern) + "” is invalid."}}));
        return nullptr;
    }
    return std::shared_ptr<QXRegularExpression>(
        new QXRegularExpression(std::string(pattern), options, std::move(compiled)));
}

size_t QXRegularExpression::numberOfCaptureGroups() const
{
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(compiled_->pattern->matcher(status));
    return U_SUCCESS(status) ? size_t(matcher->groupCount()) : 0;
}

std::vector<QXTextCheckingResult> QXRegularExpression::matchesInString(std::string_view text) const
{
    return matchesInString(text, QXRange {0, text.size()});
}

std::vector<QXTextCheckingResult> QXRegularExpression::matchesInString(std::string_view text, QXRange range) const
{
    return matches(text, range, SIZE_MAX);
}

std::vector<QXTextCheckingResult> QXRegularExpression::matches(std::string_view text, QXRange range,
                                                               size_t limit) const
{
    std::vector<QXTextCheckingResult> results;
    if (!range.found() || range.location > text.size() || text.size() > size_t(INT32_MAX)) return results;
    const size_t end = range.location + std::min(range.length, text.size() - range.location);
    UErrorCode status = U_ZERO_ERROR;
    UTextPtr utext = openUTF8(text, status);
    std::unique_ptr<icu::RegexMatcher> matcher(compiled_->pattern->matcher(status));
    if (U_FAILURE(status)) return results;
    matcher->reset(utext.get());
    matcher->region(int64_t(range.location), int64_t(end), status);
    // Anchors and look-around see only the range, as with the platform's
    // default: a range is a text of its own.
    matcher->useTransparentBounds(false);
    matcher->useAnchoringBounds(true);
    const int32_t groups = matcher->groupCount();
    while (results.size() < limit && U_SUCCESS(status) && matcher->find(status)) {
        std::vector<QXRange> ranges;
        ranges.reserve(size_t(groups) + 1);
        for (int32_t group = 0; group <= groups; ++group) {
            const int64_t start = matcher->start64(group, status);
            const int64_t stop = matcher->end64(group, status);
            if (U_FAILURE(status) || start < 0) ranges.push_back(QXRange {});
            else ranges.push_back(QXRange {size_t(start), size_t(stop - start)});
        }
        results.emplace_back(std::move(ranges));
    }
    return results;
}

std::optional<QXTextCheckingResult> QXRegularExpression::firstMatchInString(std::string_view text) const
{
    std::vector<QXTextCheckingResult> found = matches(text, QXRange {0, text.size()}, 1);
    if (found.empty()) return std::nullopt;
    return std::move(found.front());
}

size_t QXRegularExpression::numberOfMatchesInString(std::string_view text) const
{
    return matchesInString(text).size();
}

QXRange QXRegularExpression::rangeOfFirstMatchInString(std::string_view text) const
{
    std::optional<QXTextCheckingResult> match = firstMatchInString(text);
    return match ? match->range() : QXRange {};
}

std::string QXRegularExpression::replacementStringForResult(const QXTextCheckingResult& result,
                                                            std::string_view text, std::string_view templ) const
{
    std::string out;
    for (size_t i = 0; i < templ.size(); ++i) {
        const char c = templ[i];
        if (c == '\\' && i + 1 < templ.size()) {
            out += templ[++i];
        } else if (c == '$' && i + 1 < templ.size() && templ[i + 1] >= '0' && templ[i + 1] <= '9') {
            // Take digits while they still name an existing group.
            size_t group = size_t(templ[++i] - '0');
            while (i + 1 < templ.size() && templ[i + 1] >= '0' && templ[i + 1] <= '9' &&
                   group * 10 + size_t(templ[i + 1] - '0') < result.numberOfRanges()) {
                group = group * 10 + size_t(templ[++i] - '0');
            }
            out += result.substring(text, group);
        } else {
            out += c;
        }
    }
    return out;
}

std::string QXRegularExpression::stringByReplacingMatchesInString(std::string_view text,
                                                                  std::string_view templ) const
{
    std::string out;
    size_t copied = 0;
    for (const QXTextCheckingResult& match : matchesInString(text)) {
        const QXRange r = match.range();
        out.append(text.substr(copied, r.location - copied));
        out += replacementStringForResult(match, text, templ);
        copied = r.location + r.length;
    }
    out.append(text.substr(copied));
    return out;
}

std::string QXRegularExpression::escapedPatternForString(std::string_view text)
{
    static constexpr std::string_view special = "\\^$.|?*+()[]{}-/#&~ \t\n\r";
    std::string out;
    for (char c : text) {
        if (special.find(c) != std::string_view::npos) out += '\\';
        out += c;
    }
    return out;
}

std::string QXRegularExpression::escapedTemplateForString(std::string_view text)
{
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '$') out += '\\';
        out += c;
    }
    return out;
}
