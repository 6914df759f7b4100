#pragma once

#include "base/Xml.h"
#include "runtime/PlatformPaths.h"

#include <optional>
#include <string>
#include <vector>

class AppValidationData;
class LoadConfigData;
class ProductData;

// What the locator answers, with the numbers the engine's dispatch and the logs know.
enum class LocatorResult : int {
    // Not valid for this update: no installation code configured, or not the right product,
    // version or patcher mode.
    NotProper = -1,
    Valid = 0,    // the application may be updated
    NotFound = 1, // no database entry, no folder or KVR file, or a move that cannot be followed
    NotValidForUpdate = 2, // as NotProper; never given by the locator itself
    AlreadyUpToDate = 3,
    EnoughSpace = 4, // of the space check only; the locator turns it into Valid
    NoSpaceOnOSVolume = 5,
    NoSpaceOnAppVolume = 6,
};

// Finds the installed application that this patcher updates, through the installation
// database (the process's ZOTH client must exist, see InstantiateZOTHService), follows it
// when it was moved, and decides whether it may be patched: identity, version, patcher
// mode (through the patch-history handler, OrvelCodeFileHandler), key/value pairs of its
// files and free disk space.
class LocateInstalledApplication {
public:
    // The configuration must outlive the locator; the locator stores the installation code
    // it finds in the configuration's validation record. Fixed locations (patch-history
    // folder, "/tmp" volume, protected folders) come from paths.
    LocateInstalledApplication(LoadConfigData& configData, bool underKOR,
                               const PlatformPaths& paths);

    // Searches the configured installation codes in order and validates what it finds.
    // appPath is cleared first and set to the installation folder on Valid, and on
    // NoSpaceOnOSVolume or NoSpaceOnAppVolume after a successful search. Returns Valid,
    // NotFound, NotProper (also when no code is configured), AlreadyUpToDate,
    // NoSpaceOnOSVolume or NoSpaceOnAppVolume. On success the installation language from the
    // database becomes the run's install language.
    [[nodiscard]] LocatorResult locateAndValidateApplication(std::string& appPath);

    // Whether the folder holds the right application in a version this patcher may update:
    // Valid, NotFound (folder or its KVR file missing), NotProper (wrong product or version
    // or no usable patcher mode), AlreadyUpToDate. Creates the patch-history handler.
    [[nodiscard]] LocatorResult isProperProduct(const std::optional<std::string>& folder);
    // EnoughSpace, NoSpaceOnAppVolume (the folder's volume) or NoSpaceOnOSVolume (the
    // "/tmp" volume).
    [[nodiscard]] LocatorResult isSufficientDiskSpace(const std::string& folder);

    // What getKeyValues found: the value of a property list's key as text, or the nodes
    // that an XML file's query matched.
    struct KeyValue {
        std::optional<std::string> plistValue;
        std::vector<XmlNode> nodes;
    };
    // The value under the key of a "plist" file, or the nodes of "<section>/<key>" in an
    // "xml" file (types compared without regard to case). Nothing when an argument is
    // missing, the file cannot be read, nothing matches, or the type is another one.
    std::optional<KeyValue> getKeyValues(const std::optional<std::string>& key,
                                         const std::optional<std::string>& section,
                                         const std::optional<std::string>& filePath,
                                         const std::optional<std::string>& fileType);
    // True when the list holds exactly one node and that node is an element.
    static bool isSingleElementType(const std::vector<XmlNode>& nodes);

    // Other ways of finding an application, not used in a run. Linux has no Launch
    // Services, Finder aliases or open panel: the lookup and the panel give nothing, and an
    // alias path resolves to a copy of itself.
    static std::optional<std::string>
    appPathFromLaunchServices(const std::string& bundleIdentifier);
    static std::string appPathFromAlias(const std::string& path);
    std::optional<std::string> _appPathFromUser();
    std::optional<std::string> _appPathFromUserWithDefault(const std::string& defaultPath);
    // The choice rule of the open panel: folders are shown; an "app" bundle is hidden when
    // isProperProduct rejects it with NotProper.
    bool panelShouldShowFilename(const std::string& filename);

    bool isRunningUnderKOR() const { return _isRunningUnderKOR; }

    // What isProperProduct last examined, whatever it decided: the application bundle in
    // the folder (when the configuration names the application), and the installed version
    // (the database's; the bundle's when the database has none).
    const std::optional<std::string>& examinedBundle() const { return _examinedBundle; }
    const std::optional<std::string>& installedVersion() const { return _installedVersion; }

private:
    // Follows an application that was moved since it was installed, using the KVR file's
    // path recorded in the database's KVR domain. Returns the new result and sets folder.
    LocatorResult followMovedApplication(const std::string& code,
                                         std::optional<std::string>& folder);
    int decidePatcherMode(const std::string& installedVersion, bool historyExists);
    void checkKeyValuePairs();

    LoadConfigData& _configData;
    ProductData& _findAppData;
    AppValidationData& _validateAppData;
    bool _isRunningUnderKOR;
    const PlatformPaths& _paths;
    std::optional<std::string> _examinedBundle;
    std::optional<std::string> _installedVersion;
};
