#include "qxmedia/platform/foundation/QXUserDefaults.h"

#include <cstdlib>
#include <strings.h>

const char QXUserDefaultsCountryCodeKey[] = "countryCode";
const char QXUserDefaultsLanguageCodeKey[] = "languageCode";
const char QXUserDefaultsIncludeAdultContentKey[] = "includeAdultContent";

QXUserDefaults& QXUserDefaults::standardUserDefaults()
{
    static QXUserDefaults defaults;
    return defaults;
}

void QXUserDefaults::setObject(QXValue value, std::string_view key)
{
    std::lock_guard guard(lock_);
    if (value.isNull()) {
        if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
    } else {
        values_.insert_or_assign(std::string(key), std::move(value));
    }
}

void QXUserDefaults::removeObject(std::string_view key)
{
    setObject(QXValue(), key);
}

QXValue QXUserDefaults::objectForKey(std::string_view key) const
{
    std::lock_guard guard(lock_);
    auto it = values_.find(key);
    return it == values_.end() ? QXValue() : it->second;
}

std::string QXUserDefaults::stringForKey(std::string_view key) const
{
    const QXValue value = objectForKey(key);
    return value.isString() ? *value.string() : std::string();
}

bool QXUserDefaults::boolForKey(std::string_view key) const
{
    const QXValue value = objectForKey(key);
    if (auto truth = value.truth()) return *truth;
    if (const std::string* text = value.string()) {
        return strcasecmp(text->c_str(), "yes") == 0 || strcasecmp(text->c_str(), "true") == 0 ||
               std::atoll(text->c_str()) != 0;
    }
    return false;
}

int64_t QXUserDefaults::integerForKey(std::string_view key) const
{
    const QXValue value = objectForKey(key);
    if (auto number = value.int64()) return *number;
    if (const std::string* text = value.string()) return std::atoll(text->c_str());
    return 0;
}
