#pragma once
// Language codes and locales.
//
// ff_convert_lang_to stands in for FFmpeg's private helper of that name: it
// converts between the ISO 639-1, ISO 639-2/B (bibliographic) and ISO 639-2/T
// (terminology) forms of every language that has a two-letter code. Any of
// the three forms is accepted as input, in any case; an unknown code gives
// the empty string.
//
// QXLocale is the locale class with the language additions the framework
// needs: the ISO 639 forms of its language and the user's languages in order
// of preference.

#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// The same order as FFmpeg's AVLangCodespace.
enum AVLangCodespace {
    AV_LANG_ISO639_2_BIBL,
    AV_LANG_ISO639_2_TERM,
    AV_LANG_ISO639_1,
};

std::string ff_convert_lang_to(std::string_view lang, AVLangCodespace targetCodespace);

// One row of the ISO 639 table.
struct QXISO639Language {
    const char* iso639_1;
    const char* iso639_2b;
    const char* iso639_2t;
};
// Every language of the table, ordered by its two-letter code.
std::span<const QXISO639Language> QXISO639Languages();

} // namespace qx

// Keys of componentsFromLocaleIdentifier.
extern const char NSLocaleLanguageCode[]; // "kCFLocaleLanguageCodeKey"
extern const char NSLocaleCountryCode[];  // "kCFLocaleCountryCodeKey"
extern const char NSLocaleScriptCode[];   // "kCFLocaleScriptCodeKey"
extern const char NSLocaleVariantCode[];  // "kCFLocaleVariantCodeKey"

class QXLocale {
public:
    // Identifiers such as "de-CH", "de_CH", "de_CH.UTF-8" or "sr-Latn-RS";
    // they are kept in the dash form ("de-CH").
    static std::shared_ptr<QXLocale> localeWithLocaleIdentifier(std::string_view identifier);
    // The user's locale for messages (LC_ALL, LC_MESSAGES, LANG), "en" for
    // "C" and "POSIX" or when nothing is set.
    static std::shared_ptr<QXLocale> currentLocale();

    const std::string& localeIdentifier() const { return identifier_; }
    // "de" of "de-CH"; empty when the identifier has no language.
    std::string languageCode() const;
    // "CH" of "de-CH"; empty when there is none.
    std::string countryCode() const;
    std::string scriptCode() const;

    // The locale's language in the form a place needs; empty when the table
    // does not know it.
    std::string ISO639_1LanguageCode() const;
    std::string ISO639_2_Bibl_LanguageCode() const;
    std::string ISO639_2_Term_LanguageCode() const;

    // The name of a language (two- or three-letter code, or a locale
    // identifier) in this locale's language; empty when there is none.
    std::string localizedStringForLanguageCode(std::string_view code) const;
    static std::string displayNameForLanguage(std::string_view code, std::string_view inLocale);

    // Splits an identifier into its parts under the NSLocale*Code keys;
    // absent parts have no entry.
    static std::map<std::string, std::string> componentsFromLocaleIdentifier(std::string_view identifier);
    // The dash form of a POSIX or ICU identifier: "de_CH.UTF-8@euro" is
    // "de-CH"; "C" and "POSIX" are "en"; empty input stays empty.
    static std::string canonicalLocaleIdentifier(std::string_view identifier);

    // The application's own localisations in order of preference. The host
    // sets them before the first call of preferredLanguageCodes; empty by
    // default.
    static void setPreferredLocalizations(std::vector<std::string> localizations);
    static std::vector<std::string> preferredLocalizations();
    // The user's languages: the entries of LANGUAGE (colon-separated), then
    // the messages locale (LC_ALL, LC_MESSAGES, LANG), each once; "en" when
    // nothing is set.
    static std::vector<std::string> preferredLanguages();
    // The application's localisations, then the user's languages; each entry
    // followed by its bare language code, each code once at its first place.
    // Computed once for the life of the process.
    static const std::vector<std::string>& preferredLanguageCodes();
    // The same list computed from the given inputs (no caching).
    static std::vector<std::string> preferredLanguageCodes(const std::vector<std::string>& localizations,
                                                           const std::vector<std::string>& languages);

private:
    explicit QXLocale(std::string identifier) : identifier_(std::move(identifier)) {}
    std::string identifier_;
};
