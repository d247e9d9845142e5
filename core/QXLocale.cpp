#include "qxmedia/core/QXLocale.h"

#include <unicode/uloc.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <mutex>

const char NSLocaleLanguageCode[] = "kCFLocaleLanguageCodeKey";
const char NSLocaleCountryCode[] = "kCFLocaleCountryCodeKey";
const char NSLocaleScriptCode[] = "kCFLocaleScriptCodeKey";
const char NSLocaleVariantCode[] = "kCFLocaleVariantCodeKey";

namespace qx {

namespace {

std::string lowercase(std::string_view text)
{
    std::string out(text);
    for (char& c : out) c = char(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// ISO 639-1 with the ISO 639-2 codes of each language. Twenty languages have
// a bibliographic code that differs from the terminology code. "bh" was
// withdrawn from ISO 639-1 but is still found in files and in FFmpeg's table.
constexpr QXISO639Language kLanguages[] = {
    {"aa", "aar", "aar"}, {"ab", "abk", "abk"}, {"ae", "ave", "ave"}, {"af", "afr", "afr"},
    {"ak", "aka", "aka"}, {"am", "amh", "amh"}, {"an", "arg", "arg"}, {"ar", "ara", "ara"},
    {"as", "asm", "asm"}, {"av", "ava", "ava"}, {"ay", "aym", "aym"}, {"az", "aze", "aze"},
    {"ba", "bak", "bak"}, {"be", "bel", "bel"}, {"bg", "bul", "bul"}, {"bh", "bih", "bih"},
    {"bi", "bis", "bis"}, {"bm", "bam", "bam"}, {"bn", "ben", "ben"}, {"bo", "tib", "bod"},
    {"br", "bre", "bre"}, {"bs", "bos", "bos"}, {"ca", "cat", "cat"}, {"ce", "che", "che"},
    {"ch", "cha", "cha"}, {"co", "cos", "cos"}, {"cr", "cre", "cre"}, {"cs", "cze", "ces"},
    {"cu", "chu", "chu"}, {"cv", "chv", "chv"}, {"cy", "wel", "cym"}, {"da", "dan", "dan"},
    {"de", "ger", "deu"}, {"dv", "div", "div"}, {"dz", "dzo", "dzo"}, {"ee", "ewe", "ewe"},
    {"el", "gre", "ell"}, {"en", "eng", "eng"}, {"eo", "epo", "epo"}, {"es", "spa", "spa"},
    {"et", "est", "est"}, {"eu", "baq", "eus"}, {"fa", "per", "fas"}, {"ff", "ful", "ful"},
    {"fi", "fin", "fin"}, {"fj", "fij", "fij"}, {"fo", "fao", "fao"}, {"fr", "fre", "fra"},
    {"fy", "fry", "fry"}, {"ga", "gle", "gle"}, {"gd", "gla", "gla"}, {"gl", "glg", "glg"},
    {"gn", "grn", "grn"}, {"gu", "guj", "guj"}, {"gv", "glv", "glv"}, {"ha", "hau", "hau"},
    {"he", "heb", "heb"}, {"hi", "hin", "hin"}, {"ho", "hmo", "hmo"}, {"hr", "hrv", "hrv"},
    {"ht", "hat", "hat"}, {"hu", "hun", "hun"}, {"hy", "arm", "hye"}, {"hz", "her", "her"},
    {"ia", "ina", "ina"}, {"id", "ind", "ind"}, {"ie", "ile", "ile"}, {"ig", "ibo", "ibo"},
    {"ii", "iii", "iii"}, {"ik", "ipk", "ipk"}, {"io", "ido", "ido"}, {"is", "ice", "isl"},
    {"it", "ita", "ita"}, {"iu", "iku", "iku"}, {"ja", "jpn", "jpn"}, {"jv", "jav", "jav"},
    {"ka", "geo", "kat"}, {"kg", "kon", "kon"}, {"ki", "kik", "kik"}, {"kj", "kua", "kua"},
    {"kk", "kaz", "kaz"}, {"kl", "kal", "kal"}, {"km", "khm", "khm"}, {"kn", "kan", "kan"},
    {"ko", "kor", "kor"}, {"kr", "kau", "kau"}, {"ks", "kas", "kas"}, {"ku", "kur", "kur"},
    {"kv", "kom", "kom"}, {"kw", "cor", "cor"}, {"ky", "kir", "kir"}, {"la", "lat", "lat"},
    {"lb", "ltz", "ltz"}, {"lg", "lug", "lug"}, {"li", "lim", "lim"}, {"ln", "lin", "lin"},
    {"lo", "lao", "lao"}, {"lt", "lit", "lit"}, {"lu", "lub", "lub"}, {"lv", "lav", "lav"},
    {"mg", "mlg", "mlg"}, {"mh", "mah", "mah"}, {"mi", "mao", "mri"}, {"mk", "mac", "mkd"},
    {"ml", "mal", "mal"}, {"mn", "mon", "mon"}, {"mr", "mar", "mar"}, {"ms", "may", "msa"},
    {"mt", "mlt", "mlt"}, {"my", "bur", "mya"}, {"na", "nau", "nau"}, {"nb", "nob", "nob"},
    {"nd", "nde", "nde"}, {"ne", "nep", "nep"}, {"ng", "ndo", "ndo"}, {"nl", "dut", "nld"},
    {"nn", "nno", "nno"}, {"no", "nor", "nor"}, {"nr", "nbl", "nbl"}, {"nv", "nav", "nav"},
    {"ny", "nya", "nya"}, {"oc", "oci", "oci"}, {"oj", "oji", "oji"}, {"om", "orm", "orm"},
    {"or", "ori", "ori"}, {"os", "oss", "oss"}, {"pa", "pan", "pan"}, {"pi", "pli", "pli"},
    {"pl", "pol", "pol"}, {"ps", "pus", "pus"}, {"pt", "por", "por"}, {"qu", "que", "que"},
    {"rm", "roh", "roh"}, {"rn", "run", "run"}, {"ro", "rum", "ron"}, {"ru", "rus", "rus"},
    {"rw", "kin", "kin"}, {"sa", "san", "san"}, {"sc", "srd", "srd"}, {"sd", "snd", "snd"},
    {"se", "sme", "sme"}, {"sg", "sag", "sag"}, {"si", "sin", "sin"}, {"sk", "slo", "slk"},
    {"sl", "slv", "slv"}, {"sm", "smo", "smo"}, {"sn", "sna", "sna"}, {"so", "som", "som"},
    {"sq", "alb", "sqi"}, {"sr", "srp", "srp"}, {"ss", "ssw", "ssw"}, {"st", "sot", "sot"},
    {"su", "sun", "sun"}, {"sv", "swe", "swe"}, {"sw", "swa", "swa"}, {"ta", "tam", "tam"},
    {"te", "tel", "tel"}, {"tg", "tgk", "tgk"}, {"th", "tha", "tha"}, {"ti", "tir", "tir"},
    {"tk", "tuk", "tuk"}, {"tl", "tgl", "tgl"}, {"tn", "tsn", "tsn"}, {"to", "ton", "ton"},
    {"tr", "tur", "tur"}, {"ts", "tso", "tso"}, {"tt", "tat", "tat"}, {"tw", "twi", "twi"},
    {"ty", "tah", "tah"}, {"ug", "uig", "uig"}, {"uk", "ukr", "ukr"}, {"ur", "urd", "urd"},
    {"uz", "uzb", "uzb"}, {"ve", "ven", "ven"}, {"vi", "vie", "vie"}, {"vo", "vol", "vol"},
    {"wa", "wln", "wln"}, {"wo", "wol", "wol"}, {"xh", "xho", "xho"}, {"yi", "yid", "yid"},
    {"yo", "yor", "yor"}, {"za", "zha", "zha"}, {"zh", "chi", "zho"}, {"zu", "zul", "zul"},
};

const QXISO639Language* findLanguage(std::string_view code)
{
    if (code.size() != 2 && code.size() != 3) return nullptr;
    const std::string lower = lowercase(code);
    for (const QXISO639Language& language : kLanguages) {
        if (lower == language.iso639_1 || lower == language.iso639_2b || lower == language.iso639_2t) {
            return &language;
        }
    }
    return nullptr;
}

} // namespace

std::span<const QXISO639Language> QXISO639Languages() { return kLanguages; }

std::string ff_convert_lang_to(std::string_view lang, AVLangCodespace targetCodespace)
{
    const QXISO639Language* language = findLanguage(lang);
    if (!language) return {};
    switch (targetCodespace) {
    case AV_LANG_ISO639_2_BIBL: return language->iso639_2b;
    case AV_LANG_ISO639_2_TERM: return language->iso639_2t;
    case AV_LANG_ISO639_1: return language->iso639_1;
    }
    return {};
}

} // namespace qx

namespace {

bool allOf(std::string_view text, int (*test)(int))
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [test](char c) { return test(static_cast<unsigned char>(c)); });
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t end = text.find(separator, start);
        parts.emplace_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    return parts;
}

void appendOnce(std::vector<std::string>& list, const std::string& entry)
{
    if (!entry.empty() && std::find(list.begin(), list.end(), entry) == list.end()) list.push_back(entry);
}

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string messagesLocale()
{
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        std::string value = environment(name);
        if (!value.empty()) return value;
    }
    return {};
}

std::mutex localizationsLock;
std::vector<std::string>& localizationsStorage()
{
    static std::vector<std::string> localizations;
    return localizations;
}

} // namespace

std::string QXLocale::canonicalLocaleIdentifier(std::string_view identifier)
{
    // Drop the POSIX codeset and modifier: de_CH.UTF-8@euro.
    identifier = identifier.substr(0, identifier.find_first_of(".@"));
    if (identifier == "C" || identifier == "POSIX") return "en";
    std::string out(identifier);
    std::replace(out.begin(), out.end(), '_', '-');
    return out;
}

std::shared_ptr<QXLocale> QXLocale::localeWithLocaleIdentifier(std::string_view identifier)
{
    return std::shared_ptr<QXLocale>(new QXLocale(canonicalLocaleIdentifier(identifier)));
}

std::shared_ptr<QXLocale> QXLocale::currentLocale()
{
    std::string identifier = canonicalLocaleIdentifier(messagesLocale());
    return localeWithLocaleIdentifier(identifier.empty() ? "en" : identifier);
}

std::map<std::string, std::string> QXLocale::componentsFromLocaleIdentifier(std::string_view identifier)
{
    // language[-Script][-REGION][-variant...]
    std::map<std::string, std::string> components;
    const std::vector<std::string> parts = split(canonicalLocaleIdentifier(identifier), '-');
    size_t index = 0;
    if (index < parts.size() && parts[index].size() >= 2 && parts[index].size() <= 8 &&
        allOf(parts[index], std::isalpha)) {
        std::string language = parts[index++];
        for (char& c : language) c = char(std::tolower(static_cast<unsigned char>(c)));
        components[NSLocaleLanguageCode] = language;
    } else if (index < parts.size() && parts[index].empty()) {
        ++index; // "_CH": a region without a language
    } else {
        return components;
    }
    if (index < parts.size() && parts[index].size() == 4 && allOf(parts[index], std::isalpha)) {
        std::string script = parts[index++];
        script[0] = char(std::toupper(static_cast<unsigned char>(script[0])));
        for (size_t i = 1; i < script.size(); ++i) {
            script[i] = char(std::tolower(static_cast<unsigned char>(script[i])));
        }
        components[NSLocaleScriptCode] = script;
    }
    if (index < parts.size() && ((parts[index].size() == 2 && allOf(parts[index], std::isalpha)) ||
                                 (parts[index].size() == 3 && allOf(parts[index], std::isdigit)))) {
        std::string country = parts[index++];
        for (char& c : country) c = char(std::toupper(static_cast<unsigned char>(c)));
        components[NSLocaleCountryCode] = country;
    }
    std::string variant;
    for (; index < parts.size(); ++index) {
        if (parts[index].empty()) continue;
        if (!variant.empty()) variant += '_';
        variant += parts[index];
    }
    if (!variant.empty()) components[NSLocaleVariantCode] = variant;
    return components;
}

namespace {

std::string component(const std::string& identifier, const char* key)
{
    const auto components = QXLocale::componentsFromLocaleIdentifier(identifier);
    auto it = components.find(key);
    return it == components.end() ? std::string() : it->second;
}

} // namespace

std::string QXLocale::languageCode() const { return component(identifier_, NSLocaleLanguageCode); }
std::string QXLocale::countryCode() const { return component(identifier_, NSLocaleCountryCode); }
std::string QXLocale::scriptCode() const { return component(identifier_, NSLocaleScriptCode); }

std::string QXLocale::ISO639_1LanguageCode() const
{
    return qx::ff_convert_lang_to(languageCode(), qx::AV_LANG_ISO639_1);
}

std::string QXLocale::ISO639_2_Bibl_LanguageCode() const
{
    return qx::ff_convert_lang_to(languageCode(), qx::AV_LANG_ISO639_2_BIBL);
}

std::string QXLocale::ISO639_2_Term_LanguageCode() const
{
    return qx::ff_convert_lang_to(languageCode(), qx::AV_LANG_ISO639_2_TERM);
}

std::string QXLocale::displayNameForLanguage(std::string_view code, std::string_view inLocale)
{
    // Three-letter codes go through the table first: ICU knows the
    // terminology codes but not all the bibliographic ones (ger, fre).
    std::string identifier = canonicalLocaleIdentifier(code);
    const auto components = componentsFromLocaleIdentifier(identifier);
    auto language = components.find(NSLocaleLanguageCode);
    if (language == components.end()) return {};
    std::string lookup = language->second;
    if (std::string iso1 = qx::ff_convert_lang_to(lookup, qx::AV_LANG_ISO639_1); !iso1.empty()) lookup = iso1;

    std::string displayLocale = canonicalLocaleIdentifier(inLocale);
    std::replace(displayLocale.begin(), displayLocale.end(), '-', '_');
    UChar buffer[256];
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length = uloc_getDisplayLanguage(lookup.c_str(), displayLocale.c_str(), buffer,
                                                   int32_t(std::size(buffer)), &status);
    // ICU answers with the code itself when no locale names the language.
    if (U_FAILURE(status) || status == U_USING_DEFAULT_WARNING || length <= 0) return {};
    std::string name;
    icu::UnicodeString(buffer, length).toUTF8String(name);
    if (qx::lowercase(name) == lookup) return {};
    return name;
}

std::string QXLocale::localizedStringForLanguageCode(std::string_view code) const
{
    return displayNameForLanguage(code, identifier_);
}

void QXLocale::setPreferredLocalizations(std::vector<std::string> localizations)
{
    std::lock_guard lock(localizationsLock);
    localizationsStorage() = std::move(localizations);
}

std::vector<std::string> QXLocale::preferredLocalizations()
{
    std::lock_guard lock(localizationsLock);
    return localizationsStorage();
}

std::vector<std::string> QXLocale::preferredLanguages()
{
    std::vector<std::string> languages;
    for (const std::string& entry : split(environment("LANGUAGE"), ':')) {
        appendOnce(languages, canonicalLocaleIdentifier(entry));
    }
    appendOnce(languages, canonicalLocaleIdentifier(messagesLocale()));
    if (languages.empty()) languages.push_back("en");
    return languages;
}

std::vector<std::string> QXLocale::preferredLanguageCodes(const std::vector<std::string>& localizations,
                                                          const std::vector<std::string>& languages)
{
    std::vector<std::string> codes;
    for (const auto* list : {&localizations, &languages}) {
        for (const std::string& entry : *list) {
            appendOnce(codes, entry);
            const auto components = componentsFromLocaleIdentifier(entry);
            if (auto it = components.find(NSLocaleLanguageCode); it != components.end()) appendOnce(codes, it->second);
        }
    }
    return codes;
}

const std::vector<std::string>& QXLocale::preferredLanguageCodes()
{
    static const std::vector<std::string> codes =
        preferredLanguageCodes(preferredLocalizations(), preferredLanguages());
    return codes;
}
