#include "target/LoadConfigData.h"

#include "base/Path.h"
#include "runtime/LoggerUtility.h"

#include <string_view>
#include <strings.h>
#include <sys/stat.h>

namespace {

constexpr const char* kDefaultProductFamily = "Tavrin";
constexpr const char* kDefaultProductName = "Orvel universal Updater";
constexpr const char* kDefaultPatcherName = "UpdaterApplication";
constexpr const char* kDefaultComboFlag = "false";
constexpr const char* kDefaultNewProductVersion = "1.0.1";

bool EqualIgnoringCase(const std::string& a, const char* b) {
    return ::strcasecmp(a.c_str(), b) == 0;
}

// A path names a file when it is not empty and holds no NUL character.
bool CanAddressFile(const std::string& path) {
    return !path.empty() && path.find('\0') == std::string::npos;
}

// Something other than a regular file at the path (a pipe, a device, a folder) is never
// read: a pipe would block the run and a device would never end.
bool IsPresentButNotRegularFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
}

// A node prints as its XML, the way the entry stands in the file.
std::string Describe(const XmlNode& node) {
    return node.toXmlString();
}

// The string value of the single element the query finds; absent when it finds none, more
// than one, or something other than an element.
std::optional<std::string> SingleValue(const XmlNode& context, const char* xpath,
                                       std::vector<XmlError>& errors) {
    std::vector<XmlNode> nodes = context.select(xpath, {}, &errors);
    if (!LoadConfigData::isSingleElementType(nodes))
        return std::nullopt;
    return nodes.front().stringValue();
}

// A single value with a default: the message is written with whichever value was stored.
void ReadWithDefault(const XmlNode& context, const char* xpath, const char* defaultValue,
                     std::optional<std::string>& field, std::string_view message,
                     std::vector<XmlError>& errors) {
    std::optional<std::string> value = SingleValue(context, xpath, errors);
    field = value ? *value : std::string(defaultValue);
    NSLevelledLog(3, message, *field);
}

// A single value without a default: stored and logged when present, else the absence is
// logged and the field left as it is.
void ReadSingle(const XmlNode& context, const char* xpath, std::optional<std::string>& field,
                std::string_view presentMessage, std::string_view absentMessage,
                std::vector<XmlError>& errors) {
    std::optional<std::string> value = SingleValue(context, xpath, errors);
    if (!value) {
        NSLevelledLog(3, absentMessage);
        return;
    }
    field = std::move(value);
    NSLevelledLog(3, presentMessage, *field);
}

// Every match in document order; each entry is logged with its index from 0.
void ReadList(const XmlNode& context, const char* xpath, std::vector<XmlNode>& field,
              std::string_view entryMessage, std::string_view absentMessage,
              std::vector<XmlError>& errors) {
    field = context.select(xpath, {}, &errors);
    if (field.empty()) {
        NSLevelledLog(3, absentMessage);
        return;
    }
    for (size_t i = 0; i < field.size(); ++i)
        NSLevelledLog(3, entryMessage, static_cast<int>(i), Describe(field[i]));
}

// The single container element of the query, or an empty node after logging its absence.
XmlNode Container(const XmlNode& context, const char* xpath, std::string_view absentMessage,
                  std::vector<XmlError>& errors) {
    std::vector<XmlNode> nodes = context.select(xpath, {}, &errors);
    if (!LoadConfigData::isSingleElementType(nodes)) {
        NSLevelledLog(3, absentMessage);
        return {};
    }
    return nodes.front();
}

} // namespace

LoadConfigData::LoadConfigData()
    : _appLocateInfo(std::make_unique<ProductData>()),
      _appValidationInfo(std::make_unique<AppValidationData>()) {}

LoadConfigData::~LoadConfigData() {
    NSLevelledLog(3, "dealloc LoadconfigData");
    _appLocateInfo.reset();
    _appValidationInfo.reset();
}

LoadConfigData* LoadConfigData::loadConfigInfoFromFile(const std::optional<std::string>& path) {
    if (!path) {
        NSLevelledLog(3, "File Path is NULL");
        return nullptr;
    }
    const std::string extension = PathExtension(*path);
    if (EqualIgnoringCase(extension, "plist"))
        return this; // accepted as it stands; nothing is read from a property list
    if (EqualIgnoringCase(extension, "xml")) {
        if (loadInfoFromXML(*path) != 0) {
            // The placeholder is reversed in this message, so nothing is put in.
            NSLevelledLog(3, "Unable to read information from \"@%\" XML file");
            return nullptr;
        }
        return this;
    }
    if (EqualIgnoringCase(extension, "csl"))
        return this; // accepted as it stands, like a property list
    NSLevelledLog(3, "Provided File Type of file %@ is not supported", *path);
    return nullptr;
}

int LoadConfigData::loadInfoFromXML(const std::string& path) {
    if (!CanAddressFile(path)) {
        NSLevelledLog(3, "Can't create an URL from file %@.", path);
        return -1;
    }
    if (IsPresentButNotRegularFile(path))
        return 1;

    XmlParseResult parsed = XmlDocument::parseFile(path, XmlParseMode::StrictThenRecover);
    if (!parsed.errors.empty())
        handleError(parsed.errors.back());
    if (!parsed.document)
        return 1;
    _document = parsed.document;

    const XmlNode root = XmlDocument::root(_document);
    std::vector<XmlError> errors;
    AppValidationData& validation = *_appValidationInfo;

    NSLevelledLog(3, "PRODUCT DETAILS:");
    ReadWithDefault(root, "/PatcherConfig/Family", kDefaultProductFamily, _productFamily,
                    "Product Family is : %@", errors);
    ReadWithDefault(root, "/PatcherConfig/Name", kDefaultProductName, _productName,
                    "Product Name is : %@", errors);
    ReadWithDefault(root, "/PatcherConfig/ComboPatch", kDefaultComboFlag, _isCombo,
                    "Combo Patch : %@", errors);
    ReadSingle(root, "/PatcherConfig/PatcherID", validation.patcherID, "Patcher ID is : %@",
               "Error: Patcher ID is not present in configuration file. ", errors);
    if (auto buildNumber = SingleValue(root, "/PatcherConfig/BuildNumber", errors))
        NSLevelledLog(3, "Patcher BuildNumber is : %@", *buildNumber);
    ReadWithDefault(root, "/PatcherConfig/PatchExecutableName", kDefaultPatcherName, _patcherName,
                    "Patcher name : %@", errors);
    ReadWithDefault(root, "/PatcherConfig/Version", kDefaultNewProductVersion, _newProductVersion,
                    "Product new version : %@", errors);

    if (XmlNode productData =
            Container(root, "/PatcherConfig/ProductData",
                      "Product information is not present in configuration file.", errors))
        readProductData(productData, errors);

    if (XmlNode prePatch =
            Container(root, "/PatcherConfig/PrePatchValidation",
                      "Pre Patch validation info is not present in configuration file.", errors))
        readPrePatchValidation(prePatch, errors);

    if (!errors.empty())
        handleError(errors.back());
    return 0;
}

void LoadConfigData::readProductData(const XmlNode& container, std::vector<XmlError>& errors) {
    ProductData& product = *_appLocateInfo;
    ReadSingle(container, "./AppName", product.appName, "Application name : %@",
               "Error: Application name is not present in configuration file. ", errors);
    ReadSingle(container, "./BundleIdentifier", _appValidationInfo->appBundleIdentifier,
               "Application BundleIdentifier : %@",
               "Application BundleIdentifier is not present in configuration file.", errors);
    ReadSingle(container, "./OldVersion", product.oldVersion,
               "Old Application Version expected : %@",
               "Application old version is not present in configuration file.", errors);
    ReadSingle(container, "./NewVersion", product.newVersion,
               "New Application Version after update : %@",
               "Application new version is not present in configuration file.", errors);
    ReadSingle(container, "./KVRFilePath", product.kvrFilePath, "KVR file path : %@",
               "KVR file path is not present in configuration file.", errors);
    ReadSingle(container, "./KOR/AppID", product.appID, "Current Application AppID is : %@",
               "KOR Application AppID is not present in configuration file.", errors);
    ReadSingle(container, "./KOR/Version", product.currKORVersion, "Current KOR version used : %@",
               "KOR version is not present in configuration file.", errors);
    ReadList(container, "./PDS/Mac/ORDB", product.appORDBData, "OrvelCode ORDB Data (%d) : %@",
             "Application ORDB Data name not present in configuration file.", errors);
    ReadList(container, "./OrvelCode/GUID", product.appOrvelCodeGUIDList,
             "OrvelCode GUID (%d) : %@", "OrvelCode GUIDs are not present in configuration file.",
             errors);
    ReadList(container, "./AliasList/Alias", product.appAliasList, "Alias (%d) : %@",
             "Alias Lists are not present in configuration file.", errors);
    ReadList(container, "./PathList/Path", product.appFixedPathList, "Fixed Location (%d) : %@",
             "Fixed Locations are not present in configuration file.", errors);
    ReadSingle(container, "./ShowDestinationDialog", product.showDestinationDialog,
               "ShowDestinationDialog : %@",
               "ShowDestinationDialog Key is not present in configuration file.", errors);
}

void LoadConfigData::readPrePatchValidation(const XmlNode& container,
                                            std::vector<XmlError>& errors) {
    AppValidationData& validation = *_appValidationInfo;
    ReadList(container, "./AppRunningList/AppRunning", validation.appRunning,
             "Running Application (%d) : %@",
             "Running Application list is not present in configuration file.", errors);
    ReadSingle(container, "./OSVersion", validation.versionOSX, "Min OS-X version required : %@",
               "Min OS-X version is not present in configuration file.", errors);
    if (XmlNode validityCheck = Container(
            container, "./AppValidityCheck",
            "Application Validity check info is not present in configuration file.", errors))
        readAppValidityCheck(validityCheck, errors);
    if (XmlNode spaceRequirement = Container(
            container, "./SpaceRequirement",
            "Application Space requirement check info is not present in configuration file.",
            errors))
        readSpaceRequirement(spaceRequirement, errors);
}

void LoadConfigData::readAppValidityCheck(const XmlNode& container, std::vector<XmlError>& errors) {
    AppValidationData& validation = *_appValidationInfo;
    ReadList(container, "./KeyFilePathList/KeyFilePath", validation.appKeyFilePath,
             "Key File (%d) : %@", "Key File Path list is not present in configuration file.",
             errors);
    ReadSingle(container, "./MD5Check/Path", validation.appMD5CheckPath, "Key MD5 file : %@",
               "Key MD5 file is not present in configuration file.", errors);
    ReadSingle(container, "./MD5Check/MD5Value", validation.appMD5CheckValue,
               "Key MD5 file checksum: %@",
               "Key MD5 file checksum is not present in configuration file.", errors);
    // Overwrites the identifier given under ProductData.
    ReadSingle(container, "./BundleIdentifier", validation.appBundleIdentifier,
               "Application BundleIdentifier: %@",
               "BundleIdentifier is not present in configuration file.", errors);
    ReadList(container, "./PDS/Mac/ORDB", validation.appORDBData, "OrvelCode ORDB Data (%d) : %@",
             "Application ORDB Data name not present in configuration file.", errors);
    ReadList(container, "./KeyValuePairs/KeyValuePair", validation.keyValuePairs,
             "Key Value Pairs (%d) : %@", "Key Value Pairs are not present in configuration file.",
             errors);
}

void LoadConfigData::readSpaceRequirement(const XmlNode& container, std::vector<XmlError>& errors) {
    AppValidationData& validation = *_appValidationInfo;
    // The value line is written in both cases; an absent value shows as empty text.
    std::optional<std::string> system = SingleValue(container, "./System", errors);
    if (system)
        validation.spaceRequiedOnOSVolume = system;
    else
        NSLevelledLog(3, "Space required on OS Volume is not present in configuration file.");
    NSLevelledLog(3, "Space required on OS Volume : %@ KBs", system.value_or(""));

    std::optional<std::string> target = SingleValue(container, "./Target", errors);
    if (target)
        validation.spaceRequiedOnAppVolume = target;
    else
        NSLevelledLog(3, "Space required on App Volume is not present in configuration file.");
    NSLevelledLog(3, "Space required on App Volume : %@ KBs", target.value_or(""));
}

bool LoadConfigData::isSingleElementType(const std::vector<XmlNode>& nodes) {
    return IsSingleElement(nodes);
}

void LoadConfigData::handleError(const XmlError& error) {
    if (GetENVverbosityLevel() > 2)
        NSLog(StringWithFormat(" Error Code returned : %d", error.code));
}
