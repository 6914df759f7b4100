#pragma once

#include <cstdint>
#include <optional>
#include <string>

class StringTable;
class UserInterface;
enum class AlertStyle;

// The two functions of the update manager's results library, replaceable for tests.
struct KORResultsLibrary {
    int (*getClientAppPath)(uint32_t* length, char* buffer) = nullptr;
    int (*setInstallerResults)(int32_t code, const char* message) = nullptr;

    // The results library of the running program's bundle
    // (Contents/Frameworks/libKORInstallerResults.so), opened at the first call; a root
    // process opens it only when root alone controls it (OpenFileOnlyRootControls), and
    // otherwise goes without (both functions absent). A program without the library in its
    // bundle gets the functions it is linked with, if any.
    static KORResultsLibrary linked();
    // Why the bundle's library was not used ("" when it was, or when there is none), for
    // the log.
    static const std::string& loadProblem();
};

// Where the reports go and what they read.
struct ReportingContext {
    KORResultsLibrary library = KORResultsLibrary::linked();
    UserInterface* userInterface = nullptr; // not owned; none: alerts go to the log
    const StringTable* strings = nullptr;   // not owned; none: keys are shown as they are
    std::string installerDataPath;          // the update manager's installer-data file
};

// Reports the result of a run: to the update manager when it launched the patcher,
// otherwise in an alert panel. Whether the patcher runs under the update manager is
// decided afresh by every report. The front end makes one for the run and hands it to
// whatever reports.
class KORInstallerResultsWrapper {
public:
    explicit KORInstallerResultsWrapper(ReportingContext context);

    // Whether the identifier equals the installer-data file's "KOR_APP_ID"; an absent
    // identifier is accepted.
    bool testKORID(const std::optional<std::string>& korId) const;
    std::optional<std::string> clientAppPath() const;
    std::optional<std::string> clientAppPath(const std::optional<std::string>& korId) const;
    bool runningUnderKOR() const;
    bool runningUnderKOR(const std::optional<std::string>& korId) const;

    // True when the results library took the result.
    bool setInstallerResults(int code, const std::optional<std::string>& message) const;
    bool setInstallerResults(int code) const;
    bool cleanup() const;
    bool cleanup(const std::optional<std::string>& korId) const;

    void reportUpToDate(const std::string& text) const;
    void reportAlreadyUpToDate(const std::string& text) const;
    void reportUpdateFailed(const std::string& text) const;
    void reportUpdateCancelled() const;
    void reportUpdateFailedTryAgain(const std::string& names) const;

private:
    std::string localized(const std::string& key) const;
    // A one-button panel; anything but its default button is logged.
    int runPanel(AlertStyle style, const std::string& title,
                 const std::string& messageFormat) const;
    void showCancelledPanel() const;

    ReportingContext _context;
};
