#pragma once

#include "base/Xml.h"

#include <optional>
#include <string>
#include <vector>

// Identity and location of the application to update, as the configuration file states
// them. Consumers read the fields directly. A value that the file does not give stays
// absent (nullopt), which is not the same as an element with empty text. The list fields
// hold the element nodes themselves; take each node's string value when using it. The nodes
// stay valid as long as the loader that filled the record lives.
class ProductData {
public:
    ProductData() = default;
    // Logs "dealloc ProductData".
    ~ProductData();
    ProductData(const ProductData&) = delete;
    ProductData& operator=(const ProductData&) = delete;

    std::optional<std::string> appName;
    std::optional<std::string> currKORVersion;
    std::optional<std::string> oldVersion;
    std::optional<std::string> newVersion;
    std::optional<std::string> kvrFilePath;
    std::optional<std::string> appID;
    std::vector<XmlNode> appORDBData;
    std::vector<XmlNode> appOrvelCodeGUIDList;
    std::vector<XmlNode> appAliasList;
    std::vector<XmlNode> appFixedPathList;
    std::optional<std::string> showDestinationDialog;
};
