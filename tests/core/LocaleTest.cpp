// ISO 639 codes and locales: the code table, display names and the user's languages.

#include <gtest/gtest.h>

#include <set>

#include "qxmedia/core/QXLocale.h"
#include "support/TestMedia.h"

using qx::ff_convert_lang_to;

TEST(ISO639, EveryLanguageRoundTripsThroughEveryForm)
{
    const auto languages = qx::QXISO639Languages();
    EXPECT_GE(languages.size(), 184u);
    std::set<std::string> seen;
    for (const auto& language : languages) {
        // No code may be claimed by two languages, or lookups become ambiguous.
        EXPECT_TRUE(seen.insert(language.iso639_1).second) << language.iso639_1;
        if (std::string(language.iso639_2b) != language.iso639_1) seen.insert(language.iso639_2b);
        for (const char* code : {language.iso639_1, language.iso639_2b, language.iso639_2t}) {
            EXPECT_EQ(ff_convert_lang_to(code, qx::AV_LANG_ISO639_1), language.iso639_1) << code;
            EXPECT_EQ(ff_convert_lang_to(code, qx::AV_LANG_ISO639_2_BIBL), language.iso639_2b) << code;
            EXPECT_EQ(ff_convert_lang_to(code, qx::AV_LANG_ISO639_2_TERM), language.iso639_2t) << code;
        }
    }
    EXPECT_EQ(ff_convert_lang_to("GER", qx::AV_LANG_ISO639_1), "de") << "codes are matched in any case";
}

TEST(ISO639, UnknownCodesGiveNothing)
{
    for (const char* code : {"", "xx", "und", "haw", "english", "de-CH"}) {
        EXPECT_EQ(ff_convert_lang_to(code, qx::AV_LANG_ISO639_1), "") << code;
        EXPECT_EQ(ff_convert_lang_to(code, qx::AV_LANG_ISO639_2_TERM), "") << code;
    }
}

TEST(QXLocale, IdentifiersAndComponents)
{
    auto locale = QXLocale::localeWithLocaleIdentifier("de_CH.UTF-8@euro");
    EXPECT_EQ(locale->localeIdentifier(), "de-CH");
    EXPECT_EQ(locale->languageCode(), "de");
    EXPECT_EQ(locale->countryCode(), "CH");
    EXPECT_EQ(locale->ISO639_2_Bibl_LanguageCode(), "ger");

    auto components = QXLocale::componentsFromLocaleIdentifier("sr-latn-rs");
    EXPECT_EQ(components[NSLocaleLanguageCode], "sr");
    EXPECT_EQ(components[NSLocaleScriptCode], "Latn");
    EXPECT_EQ(components[NSLocaleCountryCode], "RS");
    components = QXLocale::componentsFromLocaleIdentifier("es-419");
    EXPECT_EQ(components[NSLocaleCountryCode], "419");
    EXPECT_EQ(QXLocale::componentsFromLocaleIdentifier("").count(NSLocaleLanguageCode), 0u);
    EXPECT_EQ(QXLocale::localeWithLocaleIdentifier("POSIX")->languageCode(), "en");
    // A language the table lacks has no ISO 639 forms.
    EXPECT_EQ(QXLocale::localeWithLocaleIdentifier("haw-US")->ISO639_1LanguageCode(), "");
}

TEST(QXLocale, DisplayNames)
{
    EXPECT_EQ(QXLocale::displayNameForLanguage("de", "en"), "German");
    EXPECT_EQ(QXLocale::displayNameForLanguage("ger", "en"), "German"); // bibliographic code mapped first
    EXPECT_EQ(QXLocale::displayNameForLanguage("fra", "de"), "Französisch");
    EXPECT_EQ(QXLocale::localeWithLocaleIdentifier("fr-FR")->localizedStringForLanguageCode("en"), "anglais");
    EXPECT_EQ(QXLocale::displayNameForLanguage("qqq", "en"), "");
}

TEST(QXLocale, PreferredLanguageCodesFollowEachEntryWithItsLanguage)
{
    const auto codes = QXLocale::preferredLanguageCodes({"en", "de-CH"}, {"de-CH", "fr-FR", "de", "en-GB", "fr"});
    const std::vector<std::string> expected = {"en", "de-CH", "de", "fr-FR", "fr", "en-GB"};
    EXPECT_EQ(codes, expected);
}

TEST(QXLocale, UserLanguagesFromTheEnvironment)
{
    qxtest::ScopedEnvironment env;
    env.set("LANGUAGE", "de_CH:fr::de");
    env.set("LC_ALL", nullptr);
    env.set("LC_MESSAGES", "it_IT.UTF-8");
    env.set("LANG", "C.UTF-8");
    EXPECT_EQ(QXLocale::preferredLanguages(), (std::vector<std::string> {"de-CH", "fr", "de", "it-IT"}));
    EXPECT_EQ(QXLocale::currentLocale()->localeIdentifier(), "it-IT");

    env.set("LANGUAGE", nullptr);
    env.set("LC_MESSAGES", nullptr);
    EXPECT_EQ(QXLocale::preferredLanguages(), std::vector<std::string> {"en"}); // C means English
    env.set("LC_ALL", "pt_BR");
    EXPECT_EQ(QXLocale::preferredLanguages(), std::vector<std::string> {"pt-BR"});

    // The process-wide list is computed once; it holds each code once.
    const auto& codes = QXLocale::preferredLanguageCodes();
    EXPECT_EQ(&codes, &QXLocale::preferredLanguageCodes());
    EXPECT_EQ(std::set<std::string>(codes.begin(), codes.end()).size(), codes.size());
}
