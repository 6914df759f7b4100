#include "target/LocateInstalledApplication.h"

#include "base/Path.h"
#include "base/PropertyList.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"
#include "runtime/LoggerUtility.h"
#include "target/DirTokenResolver.h"
#include "target/LoadConfigData.h"
#include "target/OrvelCodeFileHandler.h"
#include "target/ZOTHService.h"

#include <cctype>
#include <climits>
#include <cstdint>
#include <strings.h>

namespace {

constexpr const char* kInstallDirToken = "[INSTALLDIR]";

bool EqualIgnoringCase(const std::string& a, const std::string& b) {
    return ::strcasecmp(a.c_str(), b.c_str()) == 0;
}

bool EqualIgnoringCase(const std::string& a, const char* b) {
    return ::strcasecmp(a.c_str(), b) == 0;
}

bool EqualIgnoringCase(const std::optional<std::string>& a, const char* b) {
    return a && ::strcasecmp(a->c_str(), b) == 0;
}

// The installation folder as recorded: an absolute path, trailing slashes dropped. Nothing
// for an empty or relative text, which names no folder.
std::optional<std::string> PathFromText(const std::string& text) {
    if (text.empty() || text.front() != '/')
        return std::nullopt;
    return WithoutTrailingSlashes(text);
}

// The number at the start of the text as a C integer reads it (leading blanks, a sign,
// digits), clamped to the 32-bit range; 0 for anything else.
int32_t IntValueOfText(const std::optional<std::string>& text) {
    if (!text)
        return 0;
    size_t i = 0;
    while (i < text->size() && std::isspace(static_cast<unsigned char>((*text)[i])))
        ++i;
    bool negative = false;
    if (i < text->size() && ((*text)[i] == '+' || (*text)[i] == '-'))
        negative = (*text)[i++] == '-';
    int64_t value = 0;
    for (; i < text->size() && std::isdigit(static_cast<unsigned char>((*text)[i])); ++i) {
        value = value * 10 + ((*text)[i] - '0');
        if (value > static_cast<int64_t>(INT32_MAX) + 1)
            break;
    }
    if (negative)
        value = -value;
    if (value > INT32_MAX)
        return INT32_MAX;
    if (value < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(value);
}

// Free space must exceed the requirement; a negative requirement becomes a huge unsigned
// number and never passes.
bool HasSpace(const std::string& folder, int32_t requiredKB) {
    const uint64_t freeKB = GetFreeDiskSpaceInBytes(folder) / 1024;
    const uint64_t required = static_cast<uint64_t>(static_cast<int64_t>(requiredKB));
    return required < freeKB;
}

int32_t RequiredKB(const std::optional<std::string>& text) {
    const int32_t required = IntValueOfText(text);
    if (required == INT32_MAX || required == INT32_MIN)
        NSLevelledLog(3, "Required size buffer overflow");
    return required;
}

std::optional<std::string> SingleChildValue(const XmlNode& entry, const char* xpath,
                                            const char* absentMessage) {
    const auto nodes = entry.select(xpath);
    if (!IsSingleElement(nodes)) {
        NSLevelledLog(3, absentMessage);
        return std::nullopt;
    }
    return nodes.front().stringValue();
}

std::optional<std::string> InfoPlistValue(const std::string& bundle, const std::string& key) {
    auto info = PropertyList::readDictionaryFromFile(bundle + "/Contents/Info.plist");
    if (!info)
        return std::nullopt;
    return info->stringForKey(key);
}

} // namespace

LocateInstalledApplication::LocateInstalledApplication(LoadConfigData& configData, bool underKOR,
                                                       const PlatformPaths& paths)
    : _configData(configData), _findAppData(configData.getAppLocateInfo()),
      _validateAppData(configData.getAppValidationInfo()), _isRunningUnderKOR(underKOR),
      _paths(paths) {}

LocatorResult LocateInstalledApplication::locateAndValidateApplication(std::string& appPath) {
    appPath.clear();
    LocatorResult result = LocatorResult::NotProper;
    const auto& codes = _findAppData.appOrvelCodeGUIDList;
    if (codes.empty())
        return result;

    std::optional<std::string> folder;
    std::string code;
    for (size_t i = 0; i < codes.size() && result != LocatorResult::Valid; ++i) {
        code = codes[i].stringValue();
        const auto installDir = ReadZOTHValue(GetInstallDirFromZOTH, code);
        if (!installDir) {
            NSLevelledLog(3, "No entry for OrvelCode GUID (%d) : %@", i + 1, code);
            result = LocatorResult::NotFound;
            folder.reset();
            continue;
        }
        NSLevelledLog(3, "Found entry for OrvelCode GUID (%d) : %@", i + 1, code);
        folder = PathFromText(*installDir);
        if (folder) {
            NSLevelledLog(3, "Install dir from ZOTH: %@", *folder);
            _validateAppData.appOrvelCodeGUID = code;
            result = isProperProduct(folder);
        }
    }
    if (!folder)
        return result;

    if (result == LocatorResult::NotFound && _findAppData.kvrFilePath)
        result = followMovedApplication(code, folder);

    if (result == LocatorResult::Valid) {
        NSLevelledLog(3, "Valid install dir from ZOTH: %@", *folder);
        appPath = *folder;
        if (auto language = ReadZOTHValue(GetInstallLanguageFromZOTH, code))
            SetENVinstallLanguage(*language);
        else
            NSLevelledLog(3, "Failed to get install language from Orvel ZOTH");
    }

    if (!appPath.empty() && result == LocatorResult::Valid) {
        const LocatorResult space = isSufficientDiskSpace(appPath);
        if (space != LocatorResult::EnoughSpace)
            result = space;
    }
    return result;
}

LocatorResult
LocateInstalledApplication::followMovedApplication(const std::string& code,
                                                   std::optional<std::string>& folder) {
    const auto recordedKVR = ReadZOTHValue(GetKVRFilePathFromZOTHForKVRDomain, code);
    if (!recordedKVR) {
        NSLevelledLog(3, "No entry of KVR File Path in KVR Domain");
        return LocatorResult::NotFound;
    }
    NSLevelledLog(3, "Found KVR File Path: %@", *recordedKVR);

    std::string configuredApp;
    if (!GetPathToAppGivenSubDirPath(ParentPath(*_findAppData.kvrFilePath), configuredApp,
                                     _paths.protectedFolders))
        return LocatorResult::NotFound;
    std::string recordedApp;
    if (!PathExists(*recordedKVR) ||
        !GetPathToAppGivenSubDirPath(ParentPath(*recordedKVR), recordedApp,
                                     _paths.protectedFolders))
        return LocatorResult::NotFound;

    NSLevelledLog(3, "Actual App path: %@", recordedApp);
    NSLevelledLog(3, "App path with token: %@", configuredApp);
    if (!EqualIgnoringCase(LastPathComponent(configuredApp), LastPathComponent(recordedApp))) {
        NSLevelledLog(0, "Could not resolve path because zoth is not updated according to new "
                         "location of application. Launch application and click repair may fix "
                         "this problem.");
        return LocatorResult::NotFound;
    }

    std::string configuredSide = ParentPath(configuredApp);
    std::string recordedSide = ParentPath(recordedApp);
    NSLevelledLog(3, "Application has been moved to %@", recordedApp);
    NSLevelledLog(3, "Map path: %@ -> %@", configuredApp, recordedApp);
    // Both sides go up together while their last components agree; the configured side ends
    // at the token. The walk also stops at the top of either path, so a configured path
    // without the token cannot loop.
    while (LastPathComponent(configuredSide) != kInstallDirToken &&
           EqualIgnoringCase(LastPathComponent(configuredSide), LastPathComponent(recordedSide)) &&
           !configuredSide.empty() && configuredSide != "/" && recordedSide != "/" &&
           !recordedSide.empty()) {
        configuredSide = ParentPath(configuredSide);
        recordedSide = ParentPath(recordedSide);
    }
    NSLevelledLog(3, "[INSTALLDIR]: %@", recordedSide);
    folder = recordedSide;
    return isProperProduct(folder);
}

LocatorResult
LocateInstalledApplication::isProperProduct(const std::optional<std::string>& folder) {
    if (!folder || !FolderExists(*folder))
        return LocatorResult::NotFound;

    if (_findAppData.kvrFilePath) {
        const DirTokenResolver resolver(_paths);
        const std::string kvrFile =
            resolver.expandDirectoryTokenForPath(*_findAppData.kvrFilePath, *folder);
        if (!PathExists(kvrFile))
            return LocatorResult::NotFound;
    }

    const std::string code = _validateAppData.appOrvelCodeGUID.value_or("");
    char version[ZOTH_VERSION_BUFFER_SIZE] = "";
    (void)GetVersionFromZOTH(code.c_str(), version);
    int32_t installed = 0;
    int32_t modified = 0;
    (void)GetInstalledAndModifiedTimeStime(code.c_str(), &installed, &modified);
    const std::string installedVersion = version;
    _examinedBundle.reset();
    _installedVersion.reset();
    if (!installedVersion.empty())
        _installedVersion = installedVersion;
    if (_findAppData.appName) {
        _examinedBundle = *folder + "/" + *_findAppData.appName + ".app";
        if (!_installedVersion)
            _installedVersion = InfoPlistValue(*_examinedBundle, "CFBundleVersion");
    }
    const std::string historyFile = OrvelCodeFileHandler::patchFilePathForCode(_paths, code);
    NSLevelledLog(3, "Version check ...");
    NSLevelledLog(3, "Version Range: [ %@ , %@ )", _findAppData.oldVersion,
                  _findAppData.newVersion);
    NSLevelledLog(3, "Version of installed App: %@", installedVersion);
    OrvelCodeFileHandler::createInstance(
        historyFile, _validateAppData.patcherID, _findAppData.oldVersion, _findAppData.newVersion,
        _configData.getProductName(), _configData.getProductFamily(), installed, modified);

    if (decidePatcherMode(installedVersion, PathExists(historyFile)) ==
        OrvelCodeFileHandler::kModeNotPatchable)
        return LocatorResult::NotProper;

    if (!_findAppData.appName) {
        NSLevelledLog(3, "TBD. Skipping app validation as app name is not present.");
        return LocatorResult::Valid;
    }
    const std::string bundle = *folder + "/" + *_findAppData.appName + ".app";
    NSLog(StringWithFormat("Validating Application: %@ ", bundle));
    NSLevelledLog(3, "Existence check ...");
    if (!PathExists(bundle)) {
        NSLog("Application could not be found.");
        NSLog("app is NOT proper");
        return LocatorResult::NotProper;
    }
    NSLevelledLog(3, "Application is present.");

    if (_findAppData.oldVersion) {
        NSLevelledLog(3, "Version check ...");
        const auto bundleVersion = InfoPlistValue(bundle, "CFBundleVersion");
        if (!bundleVersion) {
            NSLevelledLog(3, "Version info missing in installed application");
        } else {
            NSLevelledLog(3, "Installed App Version : %@", *bundleVersion);
            NSLevelledLog(3, "Expected App Version  : %@", *_findAppData.oldVersion);
            // Plain text order, not version order: "10.0" comes before "9.0".
            const int order = _findAppData.oldVersion->compare(*bundleVersion);
            if (order == 0) {
                NSLevelledLog(3, "Bundle Version matched.");
            } else if (order < 0) {
                NSLevelledLog(3, "Application is already up-to-date.");
                NSLog("app is proper");
                return LocatorResult::AlreadyUpToDate;
            } else {
                NSLevelledLog(3, "Bundle Version does not match.");
                NSLog("app is NOT proper");
                return LocatorResult::NotProper;
            }
        }
    }

    if (_validateAppData.appBundleIdentifier) {
        NSLevelledLog(3, "Bundle Identifier check ...");
        const auto identifier = InfoPlistValue(bundle, "CFBundleIdentifier");
        if (!identifier) {
            NSLevelledLog(3, "BundleIdentifier missing in installed application");
        } else {
            NSLevelledLog(3, "Installed App BundleIdentifier : %@", *identifier);
            NSLevelledLog(3, "Expected BundleIdentifier      : %@ ",
                          *_validateAppData.appBundleIdentifier);
            if (*identifier != *_validateAppData.appBundleIdentifier) {
                NSLevelledLog(3, "BundleIdentifier does not match");
                NSLog("app is NOT proper");
                return LocatorResult::NotProper;
            }
            NSLevelledLog(3, "BundleIdentifiers matched");
        }
    }

    if (_validateAppData.keyValuePairs.empty()) {
        NSLevelledLog(3, "keyValuesPair is not present in the configuration file.");
        NSLog("app is proper");
        return LocatorResult::Valid;
    }
    checkKeyValuePairs();
    NSLog("app is proper");
    return LocatorResult::Valid;
}

// The mode comes from the database's version when there is no history file, else from the
// history handler. Returns the mode, or kModeNotPatchable when the application may not be
// patched.
int LocateInstalledApplication::decidePatcherMode(const std::string& installedVersion,
                                                  bool historyExists) {
    int mode;
    if (!historyExists) {
        NSLog("Verifying from zoth:");
        const int oldOrder = DotSeparatedVersionCompare(_findAppData.oldVersion, installedVersion);
        const int newOrder = DotSeparatedVersionCompare(_findAppData.newVersion, installedVersion);
        if (oldOrder == 0) {
            mode = OrvelCodeFileHandler::kModeInstall;
        } else if (GetENVcomboFlag() && oldOrder < 0 && newOrder > 0) {
            mode = OrvelCodeFileHandler::kModeComboPatch;
        } else if (newOrder != 0) {
            NSLevelledLog(3, "Version does not match.");
            return OrvelCodeFileHandler::kModeNotPatchable;
        } else {
            mode = OrvelCodeFileHandler::kModeRepair;
        }
    } else {
        NSLog("Verifying from patch file:");
        OrvelCodeFileHandler* handler = OrvelCodeFileHandler::getInstance();
        mode = handler ? handler->getPatcherMode() : OrvelCodeFileHandler::kModeNotPatchable;
        if (mode != OrvelCodeFileHandler::kModeInstall &&
            mode != OrvelCodeFileHandler::kModeRepair &&
            mode != OrvelCodeFileHandler::kModeComboPatch)
            return OrvelCodeFileHandler::kModeNotPatchable;
    }
    switch (mode) {
    case OrvelCodeFileHandler::kModeInstall:
        NSLevelledLog(3, "Install Mode");
        break;
    case OrvelCodeFileHandler::kModeRepair:
        NSLevelledLog(3, "Repair Mode");
        break;
    default:
        NSLevelledLog(3, "ComboPatch Mode");
        break;
    }
    return mode;
}

// Logs how each configured key/value pair compares with the installed application. A
// mismatch is only reported; it never fails the validation.
void LocateInstalledApplication::checkKeyValuePairs() {
    for (const XmlNode& entry : _validateAppData.keyValuePairs) {
        const auto filePath = SingleChildValue(entry, "./filePath",
                                               "File Path is not present in configuration file.");
        const auto configuredType = SingleChildValue(
            entry, "./fileType", "File Type is not present in configuration file.");
        const auto keyName =
            SingleChildValue(entry, "./keyName", "Key Name is not present in configuration file.");
        const auto section = SingleChildValue(entry, "./section",
                                              "section Name is not present in configuration file.");
        std::optional<std::vector<std::string>> acceptable;
        const auto keyValues = entry.select("./keyValues/keyValue");
        if (keyValues.empty())
            NSLevelledLog(3, "Acceptable keyValues are not present in configuration file.");
        // Each keyValue starts the list anew, so only the last listed value is acceptable.
        for (const XmlNode& value : keyValues)
            acceptable = std::vector<std::string>{value.stringValue()};
        NSLevelledLog(3, "Acceptable keyValues are : %@ ", acceptable);

        std::optional<std::string> fileType = configuredType;
        const std::string extension = filePath ? PathExtension(*filePath) : std::string();
        if (EqualIgnoringCase(extension, "xml"))
            fileType = "xml";
        else if (EqualIgnoringCase(extension, "plist"))
            fileType = "plist";
        else if (EqualIgnoringCase(configuredType, "xml") ||
                 EqualIgnoringCase(configuredType, "plist"))
            fileType = configuredType;
        else
            NSLevelledLog(3, "Unable to get File Type info from file extension/configuration file");

        // A property list's value is taken as it is; of an XML file only a single element
        // counts, by its string value.
        std::optional<std::string> value;
        if (auto found = getKeyValues(keyName, section, filePath, fileType)) {
            if (EqualIgnoringCase(fileType, "plist"))
                value = found->plistValue;
            else if (isSingleElementType(found->nodes))
                value = found->nodes.front().stringValue();
        }
        NSLevelledLog(3, "Key Value From application : %@", value);
        if (!value || !acceptable) {
            NSLevelledLog(3,
                          "KeyType is not valid for keyValuesPair in configuration file for key ");
            continue;
        }
        NSLevelledLog(3, "Acceptable values are %@", *acceptable);
        bool listed = false;
        for (const auto& candidate : *acceptable)
            listed = listed || candidate == *value;
        if (!listed) {
            NSLevelledLog(3, " %@ key is not in the list", *value);
            NSLevelledLog(3, " The List is %@ ", *acceptable);
        }
    }
}

std::optional<LocateInstalledApplication::KeyValue> LocateInstalledApplication::getKeyValues(
    const std::optional<std::string>& key, const std::optional<std::string>& section,
    const std::optional<std::string>& filePath, const std::optional<std::string>& fileType) {
    if (!key) {
        NSLevelledLog(3, "Key Name is NULL");
        return std::nullopt;
    }
    if (!section) {
        NSLevelledLog(3, "File section is NULL");
        return std::nullopt;
    }
    if (!filePath) {
        NSLevelledLog(3, "File path is NULL");
        return std::nullopt;
    }
    if (!fileType) {
        NSLevelledLog(3, "File Type is NULL");
        return std::nullopt;
    }
    if (EqualIgnoringCase(fileType, "plist")) {
        NSLevelledLog(3, "File Type is Plist, fetching information form plist");
        auto dictionary = PropertyList::readDictionaryFromFile(*filePath);
        if (!dictionary)
            return std::nullopt;
        auto value = dictionary->stringForKey(*key);
        if (!value)
            return std::nullopt;
        return KeyValue{std::move(value), {}};
    }
    if (EqualIgnoringCase(fileType, "xml")) {
        NSLevelledLog(3, "File Type is XML, fetching information form xml File");
        if (filePath->empty()) {
            NSLevelledLog(3, "Can't create an URL from File");
            return std::nullopt;
        }
        const XmlParseResult parsed =
            XmlDocument::parseFile(*filePath, XmlParseMode::StrictThenRecover);
        if (!parsed.document)
            return std::nullopt;
        const XmlNode root = XmlDocument::root(parsed.document);
        if (!root)
            return std::nullopt;
        auto nodes = root.select(*section + "/" + *key);
        if (nodes.empty()) {
            NSLevelledLog(3, "%@ Key not present in %@ file.", *key, *filePath);
            return std::nullopt;
        }
        return KeyValue{std::nullopt, std::move(nodes)};
    }
    if (EqualIgnoringCase(fileType, "csl"))
        return std::nullopt;
    NSLevelledLog(3, "Provided File Type %@ is not supported", *fileType);
    return std::nullopt;
}

bool LocateInstalledApplication::isSingleElementType(const std::vector<XmlNode>& nodes) {
    return IsSingleElement(nodes);
}

LocatorResult LocateInstalledApplication::isSufficientDiskSpace(const std::string& folder) {
    NSLevelledLog(3, "Space availability check ... ");
    if (!HasSpace(folder, RequiredKB(_validateAppData.spaceRequiedOnAppVolume)))
        return LocatorResult::NoSpaceOnAppVolume;
    if (!HasSpace(_paths.tmpVolume, RequiredKB(_validateAppData.spaceRequiedOnOSVolume)))
        return LocatorResult::NoSpaceOnOSVolume;
    NSLevelledLog(3, "Passed.");
    return LocatorResult::EnoughSpace;
}

std::optional<std::string>
LocateInstalledApplication::appPathFromLaunchServices(const std::string&) {
    return std::nullopt;
}

std::string LocateInstalledApplication::appPathFromAlias(const std::string& path) {
    return path;
}

std::optional<std::string> LocateInstalledApplication::_appPathFromUser() {
    return std::nullopt;
}

std::optional<std::string>
LocateInstalledApplication::_appPathFromUserWithDefault(const std::string&) {
    return std::nullopt;
}

bool LocateInstalledApplication::panelShouldShowFilename(const std::string& filename) {
    if (EqualIgnoringCase(PathExtension(filename), "app")) {
        NSLevelledLog(3, "Found application folder, checking for updatability...");
        return isProperProduct(filename) != LocatorResult::NotProper;
    }
    return FolderExists(filename);
}
