#include "run/UpdateEngine.h"

#include "base/StringTable.h"
#include "report/KORInstallerResultsWrapper.h"
#include "report/ProgressWindowController.h"
#include "report/RunningApplicationHandler.h"
#include "report/SilentReturnHandler.h"
#include "report/UserInterface.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"
#include "runtime/LoggerUtility.h"
#include "runtime/MainLoop.h"
#include "target/InstalledApp.h"
#include "target/LoadConfigData.h"
#include "target/LocateInstalledApplication.h"
#include "target/OrvelCodeFileHandler.h"
#include "target/ZOTHService.h"
#include "update/ProcessManifest.h"

#include <cassert>
#include <strings.h>
#include <unistd.h>

UpdateEngine::UpdateEngine(EngineEnvironment environment)
    : _environment(std::move(environment)), _isSilentInstall(GetENVsilentFlag()),
      _logPath(ExpandTildeInPath("~/" + _environment.paths.logFileInHome)) {
    assert(_environment.reporter && "the engine needs a reporter");
}

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
    (void)_environment.reporter->cleanup();
    _environment.loop->terminate(0);
}

void UpdateEngine::endWithFailure(const char* key, SilentReturnCode silentCode) {
    const std::string message = localized(key);
    NSLevelledLog(3, "%@", message);
    if (_isSilentInstall)
        SilentReturnHandler::setReturnCode(silentCode, _environment.paths);
    else
        _environment.reporter->reportUpdateFailed(message);
    endEarlyRun();
}

void UpdateEngine::appLaunched() {
    using Step = bool (UpdateEngine::*)();
    static constexpr Step kSteps[] = {
        &UpdateEngine::startLog,
        &UpdateEngine::loadConfiguration,
        &UpdateEngine::decideMode,
        &UpdateEngine::applyComboFlag,
        &UpdateEngine::locateApplication,
        &UpdateEngine::acceptLocatorResult,
        &UpdateEngine::askWelcome,
        &UpdateEngine::checkApplicationChosen,
        &UpdateEngine::checkRunningApplications,
        &UpdateEngine::startUpdate,
    };
    for (const Step step : kSteps) {
        if (!(this->*step)())
            return;
    }
}

bool UpdateEngine::startLog() {
    if (StartLogging(_logPath)) {
        NSFormatLog(0);
        NSFormatLogWithHeading(0, "Orvel Software Update");
        NSFormatLog(0);
    } else {
        NSLevelledLog(3, "Logging Failed");
    }
    return true;
}

bool UpdateEngine::loadConfiguration() {
    std::optional<std::string> configPath;
    if (_environment.bundle) {
        configPath = _environment.bundle->pathForResource("config", "xml");
        _manifestPath = _environment.bundle->pathForResource("manifest", "xml");
    }
    _configStorage = std::make_unique<LoadConfigData>();
    _dataLoader = _configStorage->loadConfigInfoFromFile(configPath);
    return true;
}

bool UpdateEngine::decideMode() {
    _isRunningUnderKOR = _environment.reporter->runningUnderKOR();
    NSLevelledLog(0, "Mode of Execution: %@", modeOfExecution());
    return true;
}

bool UpdateEngine::applyComboFlag() {
    const auto& combo = config().getComboFlag();
    SetENVcomboFlag(combo && ::strcasecmp(combo->c_str(), "true") == 0);
    return true;
}

bool UpdateEngine::locateApplication() {
    const std::string library =
        (_environment.bundle ? _environment.bundle->bundlePath() : std::string()) +
        "/Contents/Frameworks/orvel_zoth.framework/orvel_zoth";
    InstantiateZOTHService(library.c_str());
    std::string appPath;
    if (_environment.locate) {
        _locatorResult = _environment.locate(config(), _isRunningUnderKOR, appPath);
    } else {
        LocateInstalledApplication locator(config(), _isRunningUnderKOR, _environment.paths);
        _locatorResult = locator.locateAndValidateApplication(appPath);
    }
    ReleaseZOTHService();
    if (!appPath.empty())
        _located = appPath;
    return true;
}

bool UpdateEngine::acceptLocatorResult() {
    switch (_locatorResult) {
    case LocatorResult::Valid:
        NSLevelledLog(3, "App valid for update");
        return true;
    case LocatorResult::NotProper:
    case LocatorResult::NotValidForUpdate:
        endWithFailure("Failed to validate message", SilentReturnCode::NotValidForUpdate);
        return false;
    case LocatorResult::NotFound:
        endWithFailure("Failed to locate message", SilentReturnCode::ApplicationNotFound);
        return false;
    case LocatorResult::AlreadyUpToDate: {
        NSLevelledLog(3, "App is already up-to-date");
        const std::string message = StringWithFormat(localized("Up to date message"),
                                                     config().getProductName().value_or(""));
        if (_isSilentInstall)
            SilentReturnHandler::setReturnCode(SilentReturnCode::AlreadyUpToDate,
                                               _environment.paths);
        else
            _environment.reporter->reportAlreadyUpToDate(message);
        endEarlyRun();
        return false;
    }
    case LocatorResult::NoSpaceOnOSVolume:
        endWithFailure("Insufficient space On OS message", SilentReturnCode::NotEnoughDiskSpace);
        return false;
    case LocatorResult::NoSpaceOnAppVolume:
        endWithFailure("Insufficient space On Target message",
                       SilentReturnCode::NotEnoughDiskSpace);
        return false;
    case LocatorResult::EnoughSpace:
        break;
    }
    // EnoughSpace, and any number no result names.
    NSLevelledLog(3, "Invalid return code");
    endEarlyRun();
    return false;
}

bool UpdateEngine::askWelcome() {
    const bool fullUserInterface = !_isRunningUnderKOR && !_isSilentInstall;
    if (fullUserInterface && showWelcomeDlg() == 1) {
        NSLevelledLog(3, "User cancelled, nothing to report");
        _environment.loop->terminate(0);
        return false;
    }
    return true;
}

bool UpdateEngine::checkApplicationChosen() {
    if (_located)
        return true;
    NSLevelledLog(3, "No app chosen");
    if (_isRunningUnderKOR) {
        NSLevelledLog(3, "Application Path provided by KOR is not valid. It is possible only "
                         "if the application is already patched or damaged.");
        NSLevelledLog(3, "We assume that Application is already updated.");
        (void)_environment.reporter->setInstallerResults(0, std::string("TBD:Cancel Message"));
    } else {
        NSLevelledLog(3, "User has cancelled the installation");
        _environment.reporter->reportUpdateCancelled();
    }
    endEarlyRun();
    return false;
}

bool UpdateEngine::checkRunningApplications() {
    const bool fullUserInterface = !_isRunningUnderKOR && !_isSilentInstall;
    bool mayGoOn = true;
    std::string names;
    const auto& appsToCheck = config().getAppValidationInfo().appRunning;
    if (!appsToCheck.empty()) {
        const RunningApplications* running = _environment.runningApplications;
        if (!running) {
            _ownRunningApplications = std::make_unique<RunningApplications>(_environment.paths);
            running = _ownRunningApplications.get();
        }
        RunningApplicationHandler handler(appsToCheck, fullUserInterface,
                                          _environment.runningAppsController, *running);
        mayGoOn = handler.shutdownOrvelApplications(names);
    }
    NSLevelledLog(0, "Applications were Quit result (non zero mean quit) = %d", mayGoOn ? 1 : 0);
    if (mayGoOn)
        return true;

    NSLevelledLog(3, "Following apps were not shutdown %@", names);
    if (_isSilentInstall)
        SilentReturnHandler::setReturnCode(SilentReturnCode::ApplicationsStillRunning,
                                           _environment.paths);
    else
        _environment.reporter->reportUpdateFailedTryAgain(names);
    endEarlyRun();
    return false;
}

bool UpdateEngine::startUpdate() {
    InstalledApp app(*_located, config().getAppLocateInfo().appName.value_or(""));
    NSLog("Proceed for update ...");
    _updateApp(app, _manifestPath.value_or(""));
    return true;
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
    environment.reporter = _environment.reporter;
    environment.serviceSettings = _environment.serviceSettings;
    environment.history = OrvelCodeFileHandler::getInstance();
    environment.silent = GetENVsilentFlag();
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
