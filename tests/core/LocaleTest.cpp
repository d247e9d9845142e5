// ISO 639 codes and the user's languages.

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
    for (const char* code : {"", "xx", "und", "haw", "english", "de-CH"})
        EXPECT_EQ(ff_convert_lang_to(code, qx::AV_LANG_ISO639_2_TERM), "") << code;
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
}
