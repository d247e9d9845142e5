#pragma once
// An in-process user-defaults store that the host fills. The framework reads
// only "countryCode", "languageCode" and "includeAdultContent".

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "qxmedia/platform/foundation/QXValue.h"

extern const char QXUserDefaultsCountryCodeKey[];         // "countryCode"
extern const char QXUserDefaultsLanguageCodeKey[];        // "languageCode"
extern const char QXUserDefaultsIncludeAdultContentKey[]; // "includeAdultContent"

class QXUserDefaults {
public:
    static QXUserDefaults& standardUserDefaults();

    void setObject(QXValue value, std::string_view key);
    void removeObject(std::string_view key);
    // Null when unset.
    QXValue objectForKey(std::string_view key) const;
    // Empty when unset or not a string.
    std::string stringForKey(std::string_view key) const;
    // False when unset; numbers and the strings "YES"/"true"/"1" count.
    bool boolForKey(std::string_view key) const;
    int64_t integerForKey(std::string_view key) const;

private:
    mutable std::mutex lock_;
    QXDictionary values_;
};
