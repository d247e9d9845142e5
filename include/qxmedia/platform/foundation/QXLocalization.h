#pragma once
// Localised texts: the framework ships no strings of its own. Every text
// marked as localised passes through one translator that the host may set;
// without one a text stands for itself (the English key).

#include <functional>
#include <string>
#include <string_view>

using QXTranslator = std::function<std::string(std::string_view key)>;

// Installs the host's translator; an empty function restores the default.
void QXSetTranslator(QXTranslator translator);
// The localised form of key.
std::string QXLocalizedString(std::string_view key);
