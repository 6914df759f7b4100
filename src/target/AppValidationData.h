#pragma once

#include "base/Xml.h"

#include <optional>
#include <string>
#include <vector>

// What must hold before the application may be patched, as the configuration file states
// it. Same conventions as ProductData: absent values are nullopt, list fields hold element
// nodes that stay valid as long as the loader lives.
class AppValidationData {
public:
    AppValidationData() = default;
    // Logs "dealloc AppValidationData".
    ~AppValidationData();
    AppValidationData(const AppValidationData&) = delete;
    AppValidationData& operator=(const AppValidationData&) = delete;

    std::vector<XmlNode> appRunning;
    std::optional<std::string> patcherID;
    // Not read from the file: the locator stores here the installation code under which it
    // found the application.
    std::optional<std::string> appOrvelCodeGUID;
    std::optional<std::string> appBundleIdentifier;
    std::vector<XmlNode> appKeyFilePath;
    std::vector<XmlNode> appORDBData;
    std::optional<std::string> appMD5CheckPath;
    std::optional<std::string> appMD5CheckValue;
    std::vector<XmlNode> keyValuePairs;
    std::optional<std::string> versionOSX;
    // Numbers of kilobytes, as text.
    std::optional<std::string> spaceRequiedOnOSVolume;
    std::optional<std::string> spaceRequiedOnAppVolume;
};
