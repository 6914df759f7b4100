#include "run/UpdateEngine.h"

#include "base/Path.h"
#include "base/StringTable.h"
#include "report/KORInstallerResultsWrapper.h"
#include "report/ProgressWindowController.h"
#include "report/RunRecorder.h"
#include "report/RunningApplicationHandler.h"
#include "report/SilentReturnHandler.h"
#include "report/UserInterface.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"
#include "runtime/LoggerUtility.h"
#include "runtime/MainLoop.h"
#include "runtime/RootEnvironment.h"
#include "system/FileSystem.h"
#include "target/DirTokenResolver.h"
#include "target/InstalledApp.h"
#include "target/LoadConfigData.h"
#include "target/LocateInstalledApplication.h"
#include "target/OrvelCodeFileHandler.h"
#include "target/UpdateTrust.h"
#include "target/ZOTHService.h"
#include "update/FileManager.h"
#include "update/ManifestDryRun.h"
#include "update/PatcherState.h"
#include "update/PayloadHandler.h"
#include "update/ProcessManifest.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <unistd.h>

UpdateEngine::UpdateEngine(EngineEnvironment environment)
    : _environment(std::move(environment)), _isSilentInstall(GetENVsilentFlag()),
      _logPath(ExpandTildeInPath("~/" + _environment.paths.logFileInHome)) {
    assert(_environment.reporter && "the engine needs a reporter");
}

UpdateEngine::~UpdateEngine() {
    _stopWaiting = true;
    if (_lockWaiter.joinable())
        _lockWaiter.join();
}

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

void UpdateEngine::endDryRun(SilentReturnCode code, const std::string& message) {
    const int number = static_cast<int>(code);
    const auto& product = config().getAppLocateInfo();
    std::printf("Dry run of %s %s -> %s: nothing was changed.\n",
                config().getProductName().value_or("the update").c_str(),
                product.oldVersion.value_or("?").c_str(), product.newVersion.value_or("?").c_str());
    for (const std::string& line : _dryRunLines)
        std::printf("  %s\n", line.c_str());
    if (code == SilentReturnCode::Updated)
        std::printf("Result: the update would apply (0).\n");
    else
        std::printf("Result: a run would end with %d: %s\n", number, message.c_str());
    std::fflush(stdout);
    if (_environment.recorder)
        _environment.recorder->finish(code, message);
    _environment.loop->terminate(number);
}

void UpdateEngine::endWithFailure(const char* key, SilentReturnCode silentCode) {
    const std::string message = localized(key);
    if (_environment.dryRun) {
        endDryRun(silentCode, message);
        return;
    }
    if (_environment.recorder)
        _environment.recorder->finish(silentCode, message);
    NSLevelledLog(3, "%@", message);
    if (_isSilentInstall)
        SilentReturnHandler::setReturnCode(silentCode, _environment.paths);
    else
        _environment.reporter->reportUpdateFailed(message);
    endEarlyRun();
}

void UpdateEngine::appLaunched() {
    runSteps();
}

void UpdateEngine::runSteps(Step from) {
    static constexpr Step kSteps[] = {
        &UpdateEngine::startLog,
        &UpdateEngine::checkSignature,
        &UpdateEngine::loadConfiguration,
        &UpdateEngine::decideMode,
        &UpdateEngine::applyComboFlag,
        &UpdateEngine::takeLock,
        &UpdateEngine::recoverUnfinishedUpdate,
        &UpdateEngine::locateApplication,
        &UpdateEngine::checkTrust,
        &UpdateEngine::acceptLocatorResult,
        &UpdateEngine::askWelcome,
        &UpdateEngine::checkApplicationChosen,
        &UpdateEngine::checkRunningApplications,
        &UpdateEngine::startUpdate,
    };
    bool reached = from == nullptr;
    for (const Step step : kSteps) {
        reached = reached || step == from;
        if (reached && !(this->*step)())
            return;
    }
}

bool UpdateEngine::startLog() {
    if (_environment.dryRun) {
        // Nothing is written anywhere: the log's lines go to standard error.
        for (const std::string& note : _environment.startNotes)
            NSLevelledLog(0, "%@", note);
        return true;
    }
    std::string problem;
    const bool logging =
        StartLogging(ExpandTildeInPath("~"), _environment.paths.logFileInHome, &problem);
    if (logging) {
        BatchLogLines();
        NSFormatLog(0);
        NSFormatLogWithHeading(0, "Orvel Software Update");
        NSFormatLog(0);
    }
    for (const std::string& note : _environment.startNotes)
        NSLevelledLog(0, "%@", note);
    if (!KORResultsLibrary::loadProblem().empty())
        NSLevelledLog(0, "%@", KORResultsLibrary::loadProblem());
    if (!IgnoredEnvironment().empty())
        NSLevelledLog(0, "A root run does not honour these variables; they were removed: %@",
                      IgnoredEnvironment());
    if (!logging) {
        NSLevelledLog(3, "Logging Failed");
        NSLevelledLog(0, "The log %@ is not used: %@", _logPath, problem);
    }
    if (_isSilentInstall)
        SilentReturnHandler::removeReturnCode(_environment.paths);
    return true;
}

void UpdateEngine::refuseUpdate() {
    NSLevelledLog(0, "%@; nothing was changed", _trust->problem());
    endWithFailure("Untrusted update message", SilentReturnCode::NotSignedByTrustedKey);
}

bool UpdateEngine::checkSignature() {
    _trust = std::make_unique<UpdateTrust>(_environment.paths);
    std::optional<std::string> bundle;
    if (_environment.bundle)
        bundle = _environment.bundle->bundlePath();
    const bool accepted = _trust->checkBundle(bundle, !_environment.dryRun);
    for (const std::string& note : _trust->takeNotes()) {
        NSLevelledLog(0, "%@", note);
        _dryRunLines.push_back("signature: " + note);
    }
    if (accepted)
        return true;
    if (_trust->copyFailed()) {
        // Nothing is wrong with the signature: the copies of what is checked found no room.
        NSLevelledLog(0, "%@; nothing was changed", _trust->problem());
        const bool full = _trust->problem().find(std::strerror(ENOSPC)) != std::string::npos;
        endWithFailure(full ? "Insufficient space On OS message" : "Error while updating",
                       full ? SilentReturnCode::NotEnoughDiskSpace
                            : SilentReturnCode::CancelledOrRolledBack);
        return false;
    }
    refuseUpdate();
    return false;
}

bool UpdateEngine::checkTrust() {
    SignedStatement identity;
    const ProductData& product = config().getAppLocateInfo();
    for (const XmlNode& code : product.appOrvelCodeGUIDList)
        identity.installationCodes.push_back(code.stringValue());
    if (product.oldVersion)
        identity.fromVersions.push_back(*product.oldVersion);
    identity.toVersion = product.newVersion.value_or("");
    const bool accepted =
        _trust->checkTarget(identity, config().getAppValidationInfo().appOrvelCodeGUID,
                            _examinedBundle, _installedVersion);
    for (const std::string& note : _trust->takeNotes())
        NSLevelledLog(0, "%@", note);
    if (!accepted)
        refuseUpdate();
    return accepted;
}

bool UpdateEngine::loadConfiguration() {
    std::optional<std::string> configPath;
    // The files as they were checked: the bundle's own, or private copies of them.
    const std::string& resources = _trust->resourcesFolder();
    if (!resources.empty()) {
        const auto present = [&resources](const char* name) -> std::optional<std::string> {
            const std::string path = JoinPath(resources, name);
            return PathExists(path) && !FolderExists(path) ? std::optional<std::string>(path)
                                                           : std::nullopt;
        };
        configPath = present("config.xml");
        _manifestPath = present("manifest.xml");
    } else if (_environment.bundle) {
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
    if (RunRecorder* recorder = _environment.recorder) {
        recorder->setMode(modeOfExecution());
        const ProductData& product = config().getAppLocateInfo();
        recorder->setIdentity(config().getProductName().value_or(""),
                              product.oldVersion.value_or(""), product.newVersion.value_or(""));
    }
    return true;
}

bool UpdateEngine::applyComboFlag() {
    const auto& combo = config().getComboFlag();
    SetENVcomboFlag(combo && ::strcasecmp(combo->c_str(), "true") == 0);
    return true;
}

bool UpdateEngine::takeLock() {
    _state = std::make_unique<PatcherState>(_environment.paths.patcherStateFolder,
                                            RealFileSystem::instance());
    if (_environment.dryRun) {
        // Neither the lock nor the state folder is made; an unfinished update is only told.
        if (PathExistsNoFollow(JoinPath(_state->folder(), PatcherState::kRecordName)))
            _dryRunLines.push_back("an unfinished update on this machine would be undone "
                                   "first (" +
                                   JoinPath(_state->folder(), PatcherState::kRecordName) + ")");
        runSteps(&UpdateEngine::locateApplication);
        return false;
    }
    std::string reason;
    pid_t holder = 0;
    if (_state->prepare(reason) && _state->tryLock(holder, reason))
        return true;
    if (!reason.empty()) {
        NSLevelledLog(0, "The patcher's state folder %@ cannot be used: %@", _state->folder(),
                      reason);
        endWithFailure("Error while updating", SilentReturnCode::CancelledOrRolledBack);
        return false;
    }
    waitForLock(holder);
    return false;
}

void UpdateEngine::waitForLock(pid_t holder) {
    NSLevelledLog(0,
                  "Another patcher (process %d) is updating this machine; waiting for it to "
                  "finish",
                  static_cast<int>(holder));
    const bool unattended = _isRunningUnderKOR || _isSilentInstall;
    if (ProgressWindowController* progress =
            unattended ? nullptr : _environment.progressController) {
        progress->awakeFromNib();
        progress->setIndeterminate(true);
        progress->setTextToDisplay(localized("Waiting for another patcher message"));
        progress->showWindow();
    }
    std::optional<std::chrono::seconds> limit;
    if (unattended)
        limit = _environment.unattendedLockWait;
    // Polled rather than blocked on, so that the wait can end at its limit and when the
    // engine goes away; the main loop stays free for the progress line.
    _lockWaiter = std::thread([this, limit] {
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        auto nextNote = start + std::chrono::seconds(30);
        while (!_stopWaiting) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            pid_t busyHolder = 0;
            std::string reason;
            const bool taken = _state->tryLock(busyHolder, reason);
            const auto now = Clock::now();
            const bool timedOut = limit && now - start >= *limit;
            if (!reason.empty())
                NSLevelledLog(0, "The patcher's lock cannot be taken: %@", reason);
            if (taken || !reason.empty() || timedOut) {
                _environment.loop->post([this, taken] { lockWaitEnded(taken); });
                return;
            }
            if (now >= nextNote) {
                const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - start);
                NSLevelledLog(0, "Still waiting for process %d (%d s)",
                              static_cast<int>(busyHolder), static_cast<int>(waited.count()));
                nextNote += std::chrono::seconds(30);
            }
        }
    });
}

void UpdateEngine::lockWaitEnded(bool taken) {
    if (_lockWaiter.joinable())
        _lockWaiter.join();
    const bool unattended = _isRunningUnderKOR || _isSilentInstall;
    if (ProgressWindowController* progress = unattended ? nullptr : _environment.progressController)
        progress->close();
    if (taken) {
        NSLevelledLog(0, "The other patcher has finished");
        runSteps(&UpdateEngine::recoverUnfinishedUpdate);
        return;
    }
    NSLevelledLog(0, "Another patcher is still updating this machine: giving up after %d s",
                  static_cast<int>(_environment.unattendedLockWait.count()));
    endWithFailure("Another patcher running message", SilentReturnCode::AnotherPatcherRunning);
}

ManifestRunEnvironment UpdateEngine::manifestEnvironment() const {
    ManifestRunEnvironment environment;
    environment.loop = _environment.loop;
    environment.paths = _environment.paths;
    environment.strings = _environment.strings;
    environment.reporter = _environment.reporter;
    environment.serviceSettings = _environment.serviceSettings;
    environment.silent = GetENVsilentFlag();
    environment.cmdOptions.protectedFolders = _environment.paths.protectedFolders;
    environment.recorder = _environment.recorder;
    return environment;
}

bool UpdateEngine::recoverUnfinishedUpdate() {
    const ManifestRunEnvironment environment = manifestEnvironment();
    const auto replay = [&](const std::string& folder, const std::string& app) {
        return ProcessManifest::replayJournal(folder, app, environment);
    };
    const auto restart = [&](const std::string& folder, const std::vector<std::string>& services) {
        const XmlNode manifest = ProcessManifest::getRootNodeOfXMLGivenPath(
            JoinPath(folder, PatcherState::kManifestCopyName));
        const DirTokenResolver resolver(_environment.paths);
        ServicesHandler handler(
            manifest, std::string(),
            [&resolver](const std::string& path) {
                return resolver.expandDirectoryTokenForPath(path, std::nullopt);
            },
            _environment.serviceSettings);
        for (const std::string& service : services)
            (void)handler.start(service);
    };
    std::optional<PatcherState::Record> unfinished;
    const RecoveryResult result = RecoverInterruptedUpdate(*_state, replay, restart, &unfinished);
    if (result == RecoveryResult::ReplayFailed || result == RecoveryResult::Unreadable) {
        endWithFailure("Error while updating and rollback failed",
                       SilentReturnCode::RollbackFailed);
        return false;
    }
    if (unfinished) {
        // What the dead run unpacked is of no use any more.
        const std::string working = StringWithFormat(_environment.paths.workingFolderFormat,
                                                     static_cast<int>(unfinished->pid));
        if (PathExistsNoFollow(working) && FileManager().removeItem(working))
            NSLevelledLog(0, "Removed the working folder %@ of process %d", working,
                          static_cast<int>(unfinished->pid));
    }
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
        _examinedBundle = locator.examinedBundle();
        _installedVersion = locator.installedVersion();
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
        if (_environment.recorder)
            _environment.recorder->finish(SilentReturnCode::AlreadyUpToDate, message);
        if (_environment.dryRun) {
            endDryRun(SilentReturnCode::AlreadyUpToDate, message);
            return false;
        }
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
    const bool fullUserInterface = !_isRunningUnderKOR && !_isSilentInstall && !_environment.dryRun;
    if (fullUserInterface && showWelcomeDlg() == 1) {
        NSLevelledLog(3, "User cancelled, nothing to report");
        if (_environment.recorder)
            _environment.recorder->finish(SilentReturnCode::CancelledOrRolledBack,
                                          "User cancelled");
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
        if (_environment.recorder)
            _environment.recorder->finish(SilentReturnCode::AlreadyUpToDate,
                                          "The application is taken to be up to date");
    } else {
        NSLevelledLog(3, "User has cancelled the installation");
        if (_environment.recorder)
            _environment.recorder->finish(SilentReturnCode::CancelledOrRolledBack,
                                          "User has cancelled the installation");
        _environment.reporter->reportUpdateCancelled();
    }
    endEarlyRun();
    return false;
}

bool UpdateEngine::checkRunningApplications() {
    const bool fullUserInterface = !_isRunningUnderKOR && !_isSilentInstall;
    if (_environment.dryRun) {
        // Listed, not asked about.
        std::string names;
        const auto& patterns = config().getAppValidationInfo().appRunning;
        if (!patterns.empty()) {
            RunningApplications running(_environment.paths);
            if (RunningApplicationHandler(patterns, false, nullptr, running)
                    .areOrvelAppsRunning(names)) {
                endDryRun(SilentReturnCode::ApplicationsStillRunning,
                          "applications that must be quit are running: " + names);
                return false;
            }
        }
        _dryRunLines.push_back("running applications: none that must be quit");
        return true;
    }
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
    if (_environment.recorder)
        _environment.recorder->finish(SilentReturnCode::ApplicationsStillRunning, names);
    if (_isSilentInstall)
        SilentReturnHandler::setReturnCode(SilentReturnCode::ApplicationsStillRunning,
                                           _environment.paths);
    else
        _environment.reporter->reportUpdateFailedTryAgain(names);
    endEarlyRun();
    return false;
}

void UpdateEngine::dryRunManifest() {
    const std::string backupFolder = _state ? _state->backupFolderFor(*_located) : std::string();
    const ManifestDryRun found = ManifestDryRun::check(_manifestPath.value_or(""), *_located,
                                                       backupFolder, _environment.paths);
    std::string keywords;
    for (const auto& [keyword, count] : found.keywords)
        keywords += (keywords.empty() ? "" : ", ") + keyword + " " + std::to_string(count);
    _dryRunLines.push_back("installation: " + *_located +
                           (_installedVersion ? ", version " + *_installedVersion : std::string()));
    _dryRunLines.push_back("manifest entries: " + std::to_string(found.entries) + " (" + keywords +
                           ")");
    _dryRunLines.push_back(
        "checksums before the update: " + std::to_string(found.checksumsChecked) + " checked, " +
        std::to_string(found.alreadyUpdated) + " already updated, " +
        std::to_string(found.checksumMismatches.size()) + " not as expected");
    for (const std::string& mismatch : found.checksumMismatches)
        _dryRunLines.push_back("  not as expected: " + mismatch);
    _dryRunLines.push_back("backups: " + std::to_string(found.backupBytes) + " bytes in " +
                           found.backupFolder + " (" + std::to_string(found.backupFolderFreeBytes) +
                           " bytes free)");
    std::string services;
    for (const std::string& service : found.services)
        services += (services.empty() ? "" : ", ") + service;
    _dryRunLines.push_back("services: " + (services.empty() ? std::string("none") : services));
    if (!found.readable)
        endDryRun(SilentReturnCode::CancelledOrRolledBack, "the manifest cannot be read");
    else if (found.confinementProblem)
        endDryRun(SilentReturnCode::CancelledOrRolledBack, *found.confinementProblem);
    else if (!found.checksumMismatches.empty())
        endDryRun(SilentReturnCode::CancelledOrRolledBack,
                  "installed files are not as the update expects; it would be rolled back");
    else if (found.backupBytes > found.backupFolderFreeBytes)
        endDryRun(SilentReturnCode::NotEnoughDiskSpace, "no room for the backups");
    else
        endDryRun(SilentReturnCode::Updated, "the update would apply");
}

bool UpdateEngine::startUpdate() {
    if (_environment.dryRun) {
        dryRunManifest();
        return true;
    }
    InstalledApp app(*_located, config().getAppLocateInfo().appName.value_or(""));
    NSLog("Proceed for update ...");
    _updateApp(app, _manifestPath.value_or(""));
    return true;
}

int UpdateEngine::showWelcomeDlg() {
    NSLevelledLog(3, "Show Welcome Dialog");
    std::string message = StringWithFormat(localized("Update Welcome Message"),
                                           config().getProductName().value_or(""));
    const ProductData& product = config().getAppLocateInfo();
    if (product.oldVersion && product.newVersion)
        message += "\n\n" + StringWithFormat(localized("Update versions message"),
                                             *product.oldVersion, *product.newVersion);
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
        const ProductData& product = config().getAppLocateInfo();
        progress->setProduct(config().getProductName().value_or(""),
                             product.oldVersion.value_or(""), product.newVersion.value_or(""));
        progress->showWindow();
    }
    std::string resourceDir = _trust ? _trust->resourcesFolder() : std::string();
    if (resourceDir.empty() && _environment.bundle)
        resourceDir = _environment.bundle->resourcePath();
    const std::string workingFolder =
        StringWithFormat(_environment.paths.workingFolderFormat, static_cast<int>(::getpid()));

    ManifestRunEnvironment environment = manifestEnvironment();
    environment.history = OrvelCodeFileHandler::getInstance();
    if (_state) {
        // On disk before anything changes, so that a run that dies from here on is found and
        // undone by the next start.
        PatcherState::Record& record = environment.record;
        record.pid = ::getpid();
        record.application = app.path();
        record.backupFolder = _state->backupFolderFor(app.path());
        if (!_state->makeBackupFolder(record.backupFolder) || !_state->writeRecord(record)) {
            NSLevelledLog(0,
                          "The update cannot start: its backup folder %@ or its record "
                          "cannot be made",
                          record.backupFolder);
            if (progress)
                progress->close();
            endWithFailure("Error while updating", SilentReturnCode::CancelledOrRolledBack);
            return;
        }
        NSLevelledLog(3, "Backups and journal in %@", record.backupFolder);
        environment.state = _state.get();
    }
    const std::string backupFolder = environment.record.backupFolder;
    _processManifest = std::make_unique<ProcessManifest>(
        manifestPath, workingFolder, app.path(), resourceDir, _dataLoader, std::move(environment));
    if (!_processManifest->performAction(progress)) {
        // The manifest cannot be read: nothing was changed. The payload unpacked for it goes,
        // and the run ends as a failed update, so that a silent caller finds a code of this
        // run rather than none (or an older one).
        (void)PayloadHandler::cleanupDir(workingFolder, RealFileSystem::instance());
        if (_state && _state->removeRecord())
            (void)_state->removeBackupFolder(backupFolder);
        if (progress)
            progress->close();
        endWithFailure("Error while updating", SilentReturnCode::CancelledOrRolledBack);
    }
}
