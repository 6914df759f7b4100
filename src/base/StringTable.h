#pragma once

#include <string>

// The user-visible texts of a bundle, looked up by key in its gettext catalogues
// (<localeDir>/<lang>/LC_MESSAGES/<domain>.mo). The key is the msgid; a key without a
// translation gives the key itself. The language follows the process locale
// (LANGUAGE, LC_ALL, LC_MESSAGES, LANG), as gettext decides.
class StringTable {
public:
    StringTable(std::string localeDir, std::string domain = "PatcherApp");

    std::string localizedString(const std::string& key) const;
    const std::string& localeDir() const { return _localeDir; }

private:
    std::string _localeDir;
    std::string _domain;
};
