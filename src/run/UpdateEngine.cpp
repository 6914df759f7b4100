#include "run/UpdateEngine.h"

#include "base/StringTable.h"
#include "run/CommonUtility.h"
#include "run/Environment.h"
#include "run/KORInstallerResultsWrapper.h"
#include "run/LoggerUtility.h"
#include "run/MainLoop.h"
#include "run/ProgressWindowController.h"
#include "run/RunningApplicationHandler.h"
#include "run/SilentReturnHandler.h"
#include "run/UserInterface.h"
#include "target/InstalledApp.h"
#include "target/LoadConfigData.h"
#include "target/LocateInstalledApplication.h"
#include "target/ZOTHService.h"
#include "update/ProcessManifest.h"

#include <strings.h>
#include <unistd.h>

UpdateEngine::UpdateEngine(EngineEnvironment environment)
    : _environment(std::move(environment)), _isSilentInstall(GetENVsilentFlag()),
      _logPath(ExpandTildeInPath("~/" + _environment.paths.logFileInHome)) {}

UpdateEngine::~UpdateEngine() = default;

std::string UpdateEngine::modeOfExecution() const {
    if (_isRunningUnderKOR)
        return "KOR MODE";
    return GetENVsilentFlag() ? "SILENT MODE" : "FULL UI MODE";
}

std::string UpdateEngine::localized(const std::string& key) const {
    return _environment.strings ? _environment.strings->localizedString(key) : key;
}

LoadConfigData& UpdateEngine::config() {
    if (_dataLoader)
        return *_dataLoader;
    // Without a configuration every later query answers absent.
    if (!_emptyConfig)
        _emptyConfig = std::make_unique<LoadConfigData>();
    return *_emptyConfig;
}

void UpdateEngine::endEarlyRun() {
    (void)KORInstallerResultsWrapper::cleanup();
    _environment.loop->terminate(0);
}

void UpdateEngine::appLaunched() {
    // 1. The log.
    if (StartLogging(_logPath)) {
        NSFormatLog(0);
        NSFormatLogWithHeading(0, "Orvel Software Update");
        NSFormatLog(0);
    } else {
        NSLevelledLog(3, "Logging Failed");
    }

    // 2. The configuration and the manifest of this patcher.
    std::optional<std::string> configPath;
    std::optional<std::string> manifestPath;
    if (_environment.bundle) {
        configPath = _environment.bundle->pathForResource("config", "xml");
        manifestPath = _environment.bundle->pathForResource("manifest", "xml");
    }

    // 3. Load the configuration; a failure is not reported here.
    _configStorage = std::make_unique<LoadConfigData>();
    _dataLoader = _configStorage->loadConfigInfoFromFile(configPath);

    // 4. The mode.
    _isRunningUnderKOR = KORInstallerResultsWrapper::runningUnderKOR();
    NSLevelledLog(0, "Mode of Execution: %@", modeOfExecution());

    // 5, 6. The records, and the combo flag for validation.
    LoadConfigData& loader = config();
    const auto& combo = loader.getComboFlag();
    SetENVcomboFlag(combo && ::strcasecmp(combo->c_str(), "true") == 0);

    // 7-9. Locate and validate with the installation database open.
    const std::string library =
        (_environment.bundle ? _environment.bundle->bundlePath() : std::string()) +
        "/Contents/Frameworks/orvel_zoth.framework/orvel_zoth";
    InstantiateZOTHService(library.c_str());
    std::string appPath;
    int result = 0;
    if (_environment.locate) {
        result = _environment.locate(loader, _isRunningUnderKOR, appPath);
    } else {
        LocateInstalledApplication locator(loader, _isRunningUnderKOR, _environment.paths);
        result = locator.locateAndValidateApplication(appPath);
    }
    ReleaseZOTHService();
    std::optional<std::string> located;
    if (!appPath.empty())
        located = appPath;

    // 10. The locator's answer.
    auto fail = [&](const char* key, int silentCode) {
        const std::string message = localized(key);
        NSLevelledLog(3, "%@", message);
        if (_isSilentInstall)
            SilentReturnHandler::setReturnCode(silentCode, _environment.paths);
        else
            KORInstallerResultsWrapper::reportUpdateFailed(message);
        endEarlyRun();
    };
    switch (result) {
    case 0:
        NSLevelledLog(3, "App valid for update");
        break;
    case -1:
    case 2:
        fail("Failed to validate message", 6);
        return;
    case 1:
        fail("Failed to locate message", 5);
        return;
    case 3: {
        NSLevelledLog(3, "App is already up-to-date");
        const std::string message =
            StringWithFormat(localized("Up to date message"), loader.getProductName().value_or(""));
        if (_isSilentInstall)
            SilentReturnHandler::setReturnCode(3, _environment.paths);
        else
            KORInstallerResultsWrapper::reportAlreadyUpToDate(message);
        endEarlyRun();
        return;
    }
    case 5:
        fail("Insufficient space On OS message", 7);
        return;
    case 6:
        fail("Insufficient space On Target message", 7);
        return;
    default:
        NSLevelledLog(3, "Invalid return code");
        endEarlyRun();
        return;
    }

    // 11. The welcome question, for a user only.
    const bool fullUserInterface = !_isRunningUnderKOR && !_isSilentInstall;
    if (fullUserInterface && showWelcomeDlg() == 1) {
        NSLevelledLog(3, "User cancelled, nothing to report");
        _environment.loop->terminate(0);
        return;
    }

    // 12. No application to update.
    if (!located) {
        NSLevelledLog(3, "No app chosen");
        if (_isRunningUnderKOR) {
            NSLevelledLog(3, "Application Path provided by KOR is not valid. It is possible only "
                             "if the application is already patched or damaged.");
            NSLevelledLog(3, "We assume that Application is already updated.");
            (void)KORInstallerResultsWrapper::setInstallerResults(
                0, std::string("TBD:Cancel Message"));
        } else {
            NSLevelledLog(3, "User has cancelled the installation");
            KORInstallerResultsWrapper::reportUpdateCancelled();
        }
        endEarlyRun();
        return;
    }

    // 13. Applications of the family that must not run.
    bool mayGoOn = true;
    std::string names;
    const auto& appsToCheck = loader.getAppValidationInfo().appRunning;
    if (!appsToCheck.empty()) {
        const RunningApplications* running = _environment.runningApplications;
        if (!running) {
            _ownRunningApplications =
                std::make_unique<RunningApplications>(_environment.paths.procRoot);
            running = _ownRunningApplications.get();
        }
        RunningApplicationHandler handler(appsToCheck, fullUserInterface,
                                          _environment.runningAppsController, *running);
        mayGoOn = handler.shutdownOrvelApplications(names);
    }
    NSLevelledLog(0, "Applications were Quit result (non zero mean quit) = %d", mayGoOn ? 1 : 0);

    // 14. Some still run.
    if (!mayGoOn) {
        NSLevelledLog(3, "Following apps were not shutdown %@", names);
        if (_isSilentInstall)
            SilentReturnHandler::setReturnCode(8, _environment.paths);
        else
            KORInstallerResultsWrapper::reportUpdateFailedTryAgain(names);
        endEarlyRun();
        return;
    }

    // 15. The update itself; the manifest processor ends the run.
    InstalledApp app(*located, loader.getAppLocateInfo().appName.value_or(""));
    NSLog("Proceed for update ...");
    _updateApp(app, manifestPath.value_or(""));
}

int UpdateEngine::showWelcomeDlg() {
    NSLevelledLog(3, "Show Welcome Dialog");
    const std::string message = StringWithFormat(localized("Update Welcome Message"),
                                                 config().getProductName().value_or(""));
    const std::string title = StringWithFormat(localized("Update Welcome Title"));
    static HeadlessUserInterface headless;
    UserInterface* ui = _environment.userInterface ? _environment.userInterface : &headless;
    const int answer = ui->runAlertPanel(AlertStyle::Informational, title, message,
                                         localized("Continue"), localized("Cancel"));
    if (answer == kAlertDefaultReturn)
        return 0;
    if (answer == kAlertAlternateReturn)
        return 1;
    NSLevelledLog(3, "Unexpected alert result (%d)", answer);
    return -1;
}

void UpdateEngine::_updateApp(const InstalledApp& app, const std::string& manifestPath) {
    const bool showProgress = !_isRunningUnderKOR && !_isSilentInstall;
    ProgressWindowController* progress = showProgress ? _environment.progressController : nullptr;
    if (progress) {
        progress->awakeFromNib();
        progress->showWindow();
    }
    const std::string resourceDir =
        _environment.bundle ? _environment.bundle->resourcePath() : std::string();
    const std::string workingFolder =
        StringWithFormat(_environment.paths.workingFolderFormat, static_cast<int>(::getpid()));

    ManifestRunEnvironment environment;
    environment.loop = _environment.loop;
    environment.paths = _environment.paths;
    environment.strings = _environment.strings;
    environment.serviceSettings = _environment.serviceSettings;
    environment.cmdOptions.protectedFolders = _environment.paths.protectedFolders;
    _processManifest = std::make_unique<ProcessManifest>(
        manifestPath, workingFolder, app.path(), resourceDir, _dataLoader, std::move(environment));
    if (!_processManifest->performAction(progress)) {
        // Nothing was started and nothing reported: the run ends here.
        if (progress)
            progress->close();
        endEarlyRun();
    }
}
