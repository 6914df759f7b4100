#pragma once

#include "runtime/LoggerUtility.h"

#include "base/AppBundle.h"
#include "runtime/PlatformPaths.h"
#include "system/ServicesHandler.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class InstalledApp;
class KORInstallerResultsWrapper;
class LoadConfigData;
class MainLoop;
class PatcherState;
class ProcessManifest;
class ProgressWindowController;
class RunRecorder;
class RunningApplications;
class RunningAppsWindowController;
class StringTable;
class UpdateTrust;
class UserInterface;
struct ManifestRunEnvironment;
enum class LocatorResult : int;
enum class SilentReturnCode : int;

// What a run reaches outside the engine; the front end fills it in.
struct EngineEnvironment {
    MainLoop* loop = nullptr;                               // required
    KORInstallerResultsWrapper* reporter = nullptr;         // required: where results are reported
    std::optional<AppBundle> bundle;                        // the patcher's own bundle
    PlatformPaths paths;                                    // the run's fixed locations
    const StringTable* strings = nullptr;                   // none: keys are the texts
    UserInterface* userInterface = nullptr;                 // the welcome question
    ProgressWindowController* progressController = nullptr; // none: no progress window
    RunningAppsWindowController* runningAppsController = nullptr; // none: nobody to ask
    const RunningApplications* runningApplications = nullptr;     // none: those in paths.procRoot
    ServiceControlSettings serviceSettings;
    // Stands in for LocateInstalledApplication (configuration, under the update manager,
    // the located path out) so that a run can meet results the locator never gives; none:
    // the locator itself.
    std::function<LocatorResult(LoadConfigData&, bool, std::string&)> locate;
    // How long a silent or managed run waits for another patcher to finish before it gives
    // up; a run with a user waits as long as it takes.
    std::chrono::seconds unattendedLockWait{300};
    RunRecorder* recorder = nullptr;     // none: the result goes only where the mode sends it
    std::vector<std::string> startNotes; // what the front end has to say, logged at the start
    // Every check of a run and no change anywhere: no log file, no lock, no question, no
    // return-code file; a summary on standard output, and the code the run would end with
    // as the loop's exit status.
    bool dryRun = false;
};

// Drives one run of the patcher from launch to exit: log, mode, configuration, locating
// and validating the installed application, the welcome question, the running
// applications, and then the manifest on the background worker. Every early end is
// reported in the mode's own way and ends the run; a run that reaches the manifest is
// ended by the manifest processor.
class UpdateEngine {
public:
    explicit UpdateEngine(EngineEnvironment environment);
    ~UpdateEngine();
    UpdateEngine(const UpdateEngine&) = delete;
    UpdateEngine& operator=(const UpdateEngine&) = delete;

    // The whole run; called once on the main thread after the loop has started.
    void appLaunched();
    // 0 continue, 1 cancel, -1 an unexpected answer.
    int showWelcomeDlg();
    void _updateApp(const InstalledApp& app, const std::string& manifestPath);
    void setDone() { _notDone = false; }
    void threadWillExitNotification() { setDone(); }

    // "KOR MODE", "SILENT MODE" or "FULL UI MODE".
    std::string modeOfExecution() const;
    const std::string& logPath() const { return _logPath; }

private:
    // The steps of appLaunched, in their order; each returns whether the run goes on, and
    // one that ends the run has reported it the mode's own way.
    bool startLog();
    // The bundle's signature, every file read once, before any of it is parsed.
    bool checkSignature();
    // Finds the bundle's configuration and manifest and loads the configuration; a
    // configuration that cannot be loaded is not reported.
    bool loadConfiguration();
    bool decideMode();
    bool applyComboFlag();
    // Takes the patcher's lock, or waits for it off the main thread (the run goes on from
    // the next step once it is taken).
    bool takeLock();
    // Brings back to a whole version an application whose update did not finish.
    bool recoverUnfinishedUpdate();
    // Locates and validates the application with the installation database open.
    bool locateApplication();
    // The signer trusted, and the signed update for the located installation and no
    // downgrade of it; whatever the locator's verdict.
    bool checkTrust();
    bool acceptLocatorResult();
    bool askWelcome();
    bool checkApplicationChosen();
    bool checkRunningApplications();
    // Hands the run over to the manifest processor, which ends it.
    bool startUpdate();

    using Step = bool (UpdateEngine::*)();
    // The steps from the one named on (all of them without one).
    void runSteps(Step from = nullptr);
    void waitForLock(pid_t holder);
    void lockWaitEnded(bool taken);
    ManifestRunEnvironment manifestEnvironment() const;
    std::string localized(const std::string& key) const;
    // Logs the localised text of key and reports it as the run's failure, then ends the run.
    void endWithFailure(const char* key, SilentReturnCode silentCode);
    void endEarlyRun();
    // Ends the run as an update that may not be applied: nothing was changed.
    void refuseUpdate();
    // Ends a dry run with the code a real run would end with: the summary, the result.
    void endDryRun(SilentReturnCode code, const std::string& message);
    void dryRunManifest();
    LoadConfigData& config();

    // First, so destroyed last: the lines the members log as they go are written too.
    FlushLogAtEnd _flushLog;
    EngineEnvironment _environment;
    std::unique_ptr<LoadConfigData> _configStorage;
    LoadConfigData* _dataLoader = nullptr; // absent when the configuration could not be loaded
    std::unique_ptr<LoadConfigData> _emptyConfig;
    std::unique_ptr<ProcessManifest> _processManifest;
    std::unique_ptr<RunningApplications> _ownRunningApplications;
    std::unique_ptr<PatcherState> _state;
    std::unique_ptr<UpdateTrust> _trust;
    std::thread _lockWaiter;
    std::atomic<bool> _stopWaiting{false};
    bool _notDone = true;
    bool _isRunningUnderKOR = false;
    bool _isSilentInstall = false;
    std::string _logPath;
    // What the steps hand on to the later ones.
    std::optional<std::string> _manifestPath;
    LocatorResult _locatorResult{};
    std::optional<std::string> _located; // the located application; none when none was chosen
    // What the locator examined, whatever its verdict: the application bundle and the
    // installed version (the installation database's, else the bundle's).
    std::optional<std::string> _examinedBundle;
    std::optional<std::string> _installedVersion;
    std::vector<std::string> _dryRunLines; // what a dry run found, for its summary
};
