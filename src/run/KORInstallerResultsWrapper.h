#pragma once

#include <cstdint>
#include <optional>
#include <string>

class StringTable;
class UserInterface;

// The two functions of the update manager's results library, replaceable for tests.
struct KORResultsLibrary {
    int (*getClientAppPath)(uint32_t* length, char* buffer) = nullptr;
    int (*setInstallerResults)(int32_t code, const char* message) = nullptr;

    // The library the patcher is linked with.
    static KORResultsLibrary linked();
};

// Where the reports go and what they read: set once by the front end at start.
struct ReportingContext {
    KORResultsLibrary library = KORResultsLibrary::linked();
    UserInterface* userInterface = nullptr; // not owned; none: alerts go to the log
    const StringTable* strings = nullptr;   // not owned; none: keys are shown as they are
    std::string installerDataPath;          // the update manager's installer-data file
};

// Reports the result of a run: to the update manager when it launched the patcher,
// otherwise in an alert panel. Whether the patcher runs under the update manager is
// decided afresh by every report.
class KORInstallerResultsWrapper {
public:
    static void setContext(ReportingContext context);
    static const ReportingContext& context();

    // Whether the identifier equals the installer-data file's "KOR_APP_ID"; an absent
    // identifier is accepted.
    static bool testKORID(const std::optional<std::string>& korId);
    static std::optional<std::string> clientAppPath();
    static std::optional<std::string> clientAppPath(const std::optional<std::string>& korId);
    static bool runningUnderKOR();
    static bool runningUnderKOR(const std::optional<std::string>& korId);

    // True when the results library took the result.
    static bool setInstallerResults(int code, const std::optional<std::string>& message);
    static bool setInstallerResults(int code);
    static bool cleanup();
    static bool cleanup(const std::optional<std::string>& korId);

    static void reportUpToDate(const std::string& text);
    static void reportAlreadyUpToDate(const std::string& text);
    static void reportUpdateFailed(const std::string& text);
    static void reportUpdateCancelled();
    static void reportUpdateFailedTryAgain(const std::string& names);
};
