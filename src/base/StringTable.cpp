#include "base/StringTable.h"

#include <libintl.h>

StringTable::StringTable(std::string localeDir, std::string domain)
    : _localeDir(std::move(localeDir)), _domain(std::move(domain)) {
    bindtextdomain(_domain.c_str(), _localeDir.c_str());
    bind_textdomain_codeset(_domain.c_str(), "UTF-8");
}

std::string StringTable::localizedString(const std::string& key) const {
    if (key.empty())
        return key;
    return dgettext(_domain.c_str(), key.c_str());
}
