#pragma once

#include "base/Xml.h"
#include "target/AppValidationData.h"
#include "target/ProductData.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

// The patcher's configuration file (root element "PatcherConfig"), read once at start-up
// into patcher-level values and two records: what to update (ProductData) and what must
// hold before patching (AppValidationData). The loader owns the parsed document, so the
// element nodes kept in the records' list fields stay valid as long as the loader lives.
// Nothing is ever written back.
class LoadConfigData {
public:
    // Empty records, every value absent.
    LoadConfigData();
    // Logs "dealloc LoadconfigData", then releases the product record and the validation
    // record, in that order.
    ~LoadConfigData();
    LoadConfigData(const LoadConfigData&) = delete;
    LoadConfigData& operator=(const LoadConfigData&) = delete;

    // Loads the file by its extension (compared without regard to case): "xml" is read;
    // "plist" and "csl" are accepted without reading anything. Returns this loader, or
    // nullptr when no path is given, the extension is another one, or the XML file cannot
    // be read.
    [[nodiscard]] LoadConfigData* loadConfigInfoFromFile(const std::optional<std::string>& path);
    // 0 when the document was read (whatever elements it held), 1 when it could not be
    // parsed even by the repairing parse, -1 when the path cannot name a file.
    [[nodiscard]] int loadInfoFromXML(const std::string& path);

    // True when the list has exactly one member and that member is an element.
    static bool isSingleElementType(const std::vector<XmlNode>& nodes);
    // Logs the error's code to the log, unfiltered, when the verbosity is above 2.
    static void handleError(const XmlError& error);

    // The stored values themselves. The five patcher-level values take their defaults
    // when an XML file is read without them; before that they are absent.
    const std::optional<std::string>& getProductFamily() const { return _productFamily; }
    const std::optional<std::string>& getProductName() const { return _productName; }
    const std::optional<std::string>& getComboFlag() const { return _isCombo; }
    const std::optional<std::string>& getPatcherID() const { return _appValidationInfo->patcherID; }
    const std::optional<std::string>& getAppGUID() const {
        return _appValidationInfo->appOrvelCodeGUID;
    }
    const std::optional<std::string>& getPatcherName() const { return _patcherName; }
    const std::optional<std::string>& getProductNewVersion() const { return _newProductVersion; }
    const std::optional<std::string>& getProductOldVersion() const {
        return _appLocateInfo->oldVersion;
    }
    ProductData& getAppLocateInfo() { return *_appLocateInfo; }
    const ProductData& getAppLocateInfo() const { return *_appLocateInfo; }
    AppValidationData& getAppValidationInfo() { return *_appValidationInfo; }
    const AppValidationData& getAppValidationInfo() const { return *_appValidationInfo; }

private:
    void readProductData(const XmlNode& container, std::vector<XmlError>& errors);
    void readPrePatchValidation(const XmlNode& container, std::vector<XmlError>& errors);
    void readAppValidityCheck(const XmlNode& container, std::vector<XmlError>& errors);
    void readSpaceRequirement(const XmlNode& container, std::vector<XmlError>& errors);

    std::optional<std::string> _productFamily;
    std::optional<std::string> _productName;
    std::optional<std::string> _patcherName;
    std::optional<std::string> _isCombo;
    std::optional<std::string> _newProductVersion;
    std::unique_ptr<ProductData> _appLocateInfo;
    std::unique_ptr<AppValidationData> _appValidationInfo;
    // Keeps the nodes of the records' list fields alive.
    XmlDocumentHandle _document;
};
