#include "update/ProcessManifest.h"

#include "base/Md5.h"
#include "base/Path.h"
#include "base/PropertyList.h"
#include "base/StringTable.h"
#include "base/ThreadPriority.h"
#include "report/KORInstallerResultsWrapper.h"
#include "report/ProgressWindowController.h"
#include "report/RunRecorder.h"
#include "report/SilentReturnHandler.h"
#include "report/ThreadWorker.h"
#include "runtime/CancelSignals.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"
#include "runtime/LoggerUtility.h"
#include "runtime/MainLoop.h"
#include "system/FileSystem.h"
#include "target/DirTokenResolver.h"
#include "target/LoadConfigData.h"
#include "target/OrvelCodeFileHandler.h"
#include "update/ChecksumPrefetcher.h"
#include "update/FileManager.h"
#include "update/MD5cksum.h"
#include "update/ManifestConfinement.h"
#include "update/PayloadFiles.h"
#include "update/PayloadHandler.h"
#include "update/RollBackHandler.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <sys/stat.h>
#include <system_error>
#include <thread>

namespace {

// A journal entry takes well under a kilobyte: room for a million of them.
constexpr size_t kLargestJournal = size_t{1} << 30;

bool IsSuccessful(const std::string& result) {
    return result == ProcessManifest::kSuccessful;
}

// The single element's string value, when the query gives exactly one element.
std::optional<std::string> SingleValue(const XmlNode& node, const std::string& expression) {
    return node.singleElementText(expression);
}

// An optional File field: where it is read from, where it goes, how it is logged.
struct OptionalField {
    const char* expression;
    std::string FileOperationInfo::*member;
    const char* logFormat;
};

constexpr OptionalField kFieldsBeforeDestination[] = {
    {"./ObjectName", &FileOperationInfo::ObjectName, "Object Name : %@"},
    {"./Touch", &FileOperationInfo::Touch, "Touch : %@"},
};
constexpr OptionalField kChecksumFields[] = {
    {"./Checksum/BeforePatch", &FileOperationInfo::BeforePatch, "Checksum before patching : %@"},
    {"./Checksum/AfterPatch", &FileOperationInfo::AfterPatch, "Checksum After patching : %@"},
};
constexpr OptionalField kPermissionFields[] = {
    {"./Permissions/mac/UserID", &FileOperationInfo::UserID, "New UserID : %@"},
    {"./Permissions/mac/GroupID", &FileOperationInfo::GroupID, "New GroupID : %@"},
    {"./Permissions/mac/Permission", &FileOperationInfo::Permission, "Permission : %@"},
};

// Fills the fields that are present; absent ones keep the absent marker.
template <size_t N>
void ReadOptionalFields(const XmlNode& node, const OptionalField (&fields)[N],
                        FileOperationInfo& info) {
    for (const auto& field : fields) {
        if (auto value = SingleValue(node, field.expression)) {
            info.*field.member = *value;
            NSLevelledLog(3, field.logFormat, *value);
        }
    }
}

std::vector<XmlNode> Select(const XmlNode& root, const std::string& expression) {
    return root.select(expression);
}

} // namespace

ProcessManifest::ProcessManifest(std::string manifestFile, std::string payloadDir,
                                 std::string appPath, std::string resourceDir,
                                 LoadConfigData* dataLoader, ManifestRunEnvironment environment)
    : _manifestFile(std::move(manifestFile)), _payloadDir(std::move(payloadDir)),
      _appPath(std::move(appPath)), _resourceDir(std::move(resourceDir)), _dataLoader(dataLoader),
      _environment(std::move(environment)), _isSilentInstall(_environment.silent) {
    totalNodesCount = 0;
    // The payload is inflated on another processor while this one reads the manifest.
    PayloadHandler::InflateAhead inflating(_resourceDir);
    // The installed files are read on another processor while this one unpacks the payload,
    // and the patches are made there as soon as their files are unpacked (mkpatcher puts them
    // first). (Read quietly: a manifest that cannot be read is reported when the update
    // starts.)
    std::vector<std::optional<PatchPrefetcher::Patch>> patches;
    std::unordered_set<std::string> patchFilesToCome;
    const auto parsed = XmlDocument::parseFile(_manifestFile);
    if (parsed.errors.empty() && parsed.document) {
        const XmlNode root = XmlDocument::root(parsed.document);
        _manifestRoot = root;
        const DirTokenResolver dirToken(_environment.paths);
        _plannedEntries = Select(root, "/Manifest/FileSet/File");
        _plannedPaths = entryPathsOf(_plannedEntries, dirToken, _appPath);
        patches = patchesAhead(_plannedPaths, _payloadDir);
        for (const auto& patch : patches) {
            if (patch)
                patchFilesToCome.insert(patch->patchFile);
        }
        // The new files of the patches are written ahead into the installation's folders only
        // below the confinement, once the manifest's paths are found confined; that check
        // stands for the walk's, and each entry is checked again as it runs.
        if (const ManifestConfinement confined(dirToken, _appPath);
            !patchFilesToCome.empty() && !confined.manifestProblem(root)) {
            _confinement = std::make_unique<FileSystemConfinement>(confined.folders());
            _manifestFoundConfined = true;
        }
        std::vector<std::vector<std::string>> toChecksum = filesToChecksumAhead(_plannedPaths, {});
        for (auto& files : filesToChecksumAhead(Select(root, "/Manifest/BundleSet/Bundle/File"),
                                                dirToken, _appPath, {}))
            toChecksum.push_back(std::move(files));
        _earlyPrefetcher = std::make_unique<ChecksumPrefetcher>(
            std::move(toChecksum), ChecksumPrefetcher::kEntriesBeforeStart, true);
        _payloadFilesToHold = payloadFilesToHold(root);
    }
    const auto patchFileUnpacked = [&](const std::string& relative) {
        if (patchFilesToCome.erase(JoinPath(_payloadDir, relative)) != 0 &&
            patchFilesToCome.empty())
            _earlyPatches = std::make_unique<PatchPrefetcher>(
                std::move(patches), PatchPrefetcher::kBytesAhead, RealFileSystem::instance(),
                _confinement != nullptr);
    };
    if (_environment.recorder)
        _environment.recorder->progress("extracting", 0, 0,
                                        JoinPath(_resourceDir, "Payload.cpio.gz"));
    (void)PayloadHandler::extractFile(
        _resourceDir, _payloadDir, fileSystem(), PayloadLimits(), &_payloadFilesToHold,
        patchFilesToCome.empty() ? PayloadHandler::FileUnpacked{} : patchFileUnpacked, &inflating);
    if (_environment.state) {
        _backupDir = _environment.record.backupFolder;
    } else {
        _backupDir = JoinPath(_payloadDir, "backupDir");
        (void)CreateDirectoryAtPath(_backupDir);
    }
}

ProcessManifest::ProcessManifest(ReplayOnly, std::string backupFolder, std::string appPath,
                                 ManifestRunEnvironment environment)
    : _backupDir(std::move(backupFolder)), _appPath(std::move(appPath)), _dataLoader(nullptr),
      _environment(std::move(environment)), _isSilentInstall(_environment.silent) {}

bool ProcessManifest::replayJournal(const std::string& backupFolder, const std::string& appPath,
                                    ManifestRunEnvironment environment) {
    // A replay runs as an install and records nothing.
    environment.history = nullptr;
    environment.state = nullptr;
    const DirTokenResolver resolver(environment.paths);
    const FileSystemConfinement confinement(ManifestConfinement(resolver, appPath).folders());
    ProcessManifest replay(ReplayOnly{}, backupFolder, appPath, std::move(environment));
    return IsSuccessful(replay.performRollback());
}

ProcessManifest::~ProcessManifest() {
    // A worker still running holds its own share of itself and only reads this object
    // through the task; the owner waits for the completion before letting go.
    if (_tw)
        _tw->waitUntilFinished();
}

FileSystem& ProcessManifest::fileSystem() const {
    return _environment.cmdOptions.fileSystem ? *_environment.cmdOptions.fileSystem
                                              : RealFileSystem::instance();
}

std::string ProcessManifest::localized(const std::string& key) const {
    return _environment.strings ? _environment.strings->localizedString(key) : key;
}

bool ProcessManifest::isSingleElementType(const std::vector<XmlNode>& nodes) {
    return IsSingleElement(nodes);
}

void ProcessManifest::handleError(const XmlError& error) {
    NSLevelledLog(0, " Error Code returned : %d", error.code);
}

XmlNode ProcessManifest::getRootNodeOfXMLGivenPath(const std::string& path) {
    if (path.empty()) {
        NSLevelledLog(3, "Can't create an URL from file path %@.", path);
        return {};
    }
    auto parsed = XmlDocument::parseFile(path);
    if (!parsed.errors.empty()) {
        handleError(parsed.errors.front());
        return {};
    }
    if (!parsed.document)
        return {};
    return XmlDocument::root(parsed.document);
}

std::optional<std::string>
ProcessManifest::getLocalizedNameGivenArray(const std::vector<XmlNode>& nodes) {
    if (nodes.empty())
        return std::nullopt;
    auto found =
        nodes.front().select("../FileName[@lang = $lang]", {{"lang", GetENVinstallLanguage()}});
    if (!isSingleElementType(found))
        return std::nullopt;
    return found.front().stringValue();
}

bool ProcessManifest::performAction(ProgressWindowController* progress) {
    // The manifest as read when the payload was unpacked (a bundle's files stay as they were
    // checked); read again, with its errors logged, when it could not be read then.
    XmlNode root = _manifestRoot ? _manifestRoot : getRootNodeOfXMLGivenPath(_manifestFile);
    if (!root) {
        NSLevelledLog(3, "Improper Manifest file");
        return false;
    }
    _progressController = progress;
    // From here on a request to stop (a logout, a shutdown, a service manager) ends the walk
    // at the next entry and rolls the update back, instead of leaving it half done.
    CatchCancelSignals();
    auto work = std::make_shared<WorkDictionary>();
    work->rootNode = root;
    work->manifestFile = _manifestFile;
    work->payloadDir = _payloadDir;
    work->resourceDir = _resourceDir;
    work->backupDir = _backupDir;
    work->appPath = _appPath;
    work->progress = progress;
    _tw = ThreadWorker::workOn(
        *_environment.loop, "ProcessManifest", "performUpdate:worker:",
        [this](const std::any& argument, ThreadWorker& worker) -> std::any {
            auto dictionary = std::any_cast<std::shared_ptr<WorkDictionary>>(argument);
            std::any result = performUpdate(*dictionary, &worker);
            // The rest of the run (rollback included) is on the main thread.
            Md5ReleaseThreadState();
            return result;
        },
        work,
        [this](const std::any& result) {
            longTaskFinished(result.has_value() ? std::any_cast<std::string>(result)
                                                : std::string(kPermanentError));
        });
    return _tw != nullptr;
}

std::string ProcessManifest::performUpdate(WorkDictionary& work, ThreadWorker* worker) {
    DirTokenResolver resolver(_environment.paths);
    const std::string appPath = work.appPath;
    // Every path of the manifest is checked before anything is touched, services included
    // (once: the manifest read before the unpacking is the one walked here).
    if (const auto problem =
            _manifestFoundConfined
                ? std::nullopt
                : ManifestConfinement(resolver, appPath).manifestProblem(work.rootNode)) {
        NSLevelledLog(0, "The manifest is refused, nothing was changed: %@", *problem);
        return kPermanentError;
    }
    // Until the run ends (its rollback included), every path below those folders is reached
    // without following a link, whatever a local user swaps in meanwhile.
    if (!_confinement)
        _confinement = std::make_unique<FileSystemConfinement>(
            ManifestConfinement(resolver, appPath).folders());
    _serviceHandler = std::make_unique<ServicesHandler>(
        work.rootNode, work.payloadDir,
        [resolver](const std::string& path) {
            return resolver.expandDirectoryTokenForPath(path, std::nullopt);
        },
        _environment.serviceSettings);
    if (_environment.state) {
        // Should the run die with services stopped, the next start finds which ones, and
        // how to start them, in the record and in this copy of the manifest.
        const FileManager files(fileSystem());
        if (!files.copyItem(work.manifestFile,
                            JoinPath(_backupDir, PatcherState::kManifestCopyName), true)) {
            NSLevelledLog(0, "Cannot keep a copy of the manifest in %@: %@", _backupDir,
                          std::string(std::strerror(errno)));
            return kPermanentError;
        }
    }
    prepareHistoryAhead();
    _serviceHandler->stopServices();
    if (_environment.state && !_serviceHandler->restartServices().empty()) {
        _environment.record.stoppedServices = _serviceHandler->restartServices();
        if (!_environment.state->writeRecord(_environment.record))
            return kPermanentError;
    }
    return invokeAction(work.rootNode, work.appPath, work.payloadDir, work.resourceDir,
                        work.backupDir, work.progress, false, worker);
}

std::string ProcessManifest::invokeAction(const XmlNode& rootNode, const std::string& appPath,
                                          const std::string& payloadDir,
                                          const std::string& resourceDir,
                                          const std::optional<std::string>& backupDir,
                                          ProgressWindowController* progress, bool isRollback,
                                          ThreadWorker* worker) {
    CmdInterface::Options options = _environment.cmdOptions;
    const OrvelCodeFileHandler* history = _environment.history;
    options.isRepairMode =
        history && history->getPatcherMode() == OrvelCodeFileHandler::kModeRepair;
    if (options.protectedFolders.empty())
        options.protectedFolders = _environment.paths.protectedFolders;
    CmdInterface cmdInterface(payloadDir, resourceDir, backupDir, options);
    DirTokenResolver dirToken(_environment.paths);
    _isProcessingRollback = isRollback;

    WorkDictionary work;
    work.rootNode = rootNode;
    work.manifestFile = _manifestFile;
    work.payloadDir = payloadDir;
    work.resourceDir = resourceDir;
    work.backupDir = backupDir;
    work.appPath = appPath;
    work.progress = progress;
    work.cmdInterface = &cmdInterface;
    work.dirToken = &dirToken;

    const auto files = Select(rootNode, "/Manifest/FileSet/File");
    const auto bundles = Select(rootNode, "/Manifest/BundleSet/Bundle");
    const auto bundleFiles = Select(rootNode, "/Manifest/BundleSet/Bundle/File");
    const auto aliases = Select(rootNode, "/Manifest/AliasSet/Alias");
    const auto directories = Select(rootNode, "/Manifest/DirectorySet/Directory");

    if (!isRollback) {
        currentNodesCount = 0;
        totalNodesCount = static_cast<int>(files.size() + bundleFiles.size() + aliases.size() +
                                           directories.size());
        if (progress)
            progress->setProperties(totalNodesCount);
    }

    std::string result = kSuccessful;
    // Every change on disk before the sets count as done (before the commit of an update,
    // before a replayed journal is let go).
    auto syncReplacements = [&] {
        if (IsSuccessful(result) && !cmdInterface.fileManager().syncChangedFileSystems()) {
            NSLevelledLog(0, "Cannot sync the changes to the disk: %@",
                          std::string(std::strerror(errno)));
            result = kPermanentError;
        }
        return result;
    };
    if (isRollback) {
        // The journal is undone last change first: its folder entries (made last), then
        // its file entries, each set from its end.
        if (!directories.empty()) {
            NSFormatLogWithHeading(1, "ROLLBACK DIRECTORY SET OPERATION");
            work.workingNodesArray.assign(directories.rbegin(), directories.rend());
            result = processDirectorySet(work, worker);
        }
        if (IsSuccessful(result) && !files.empty()) {
            NSFormatLogWithHeading(1, "ROLLBACK FILE SET OPERATION");
            work.workingNodesArray.assign(files.rbegin(), files.rend());
            result = processFileSet(work, worker);
        }
        return syncReplacements();
    }
    if (!files.empty()) {
        NSFormatLogWithHeading(1, "PERFORMING FILE SET OPERATION");
        work.workingNodesArray = files;
        result = processFileSet(work, worker);
    }
    if (IsSuccessful(result) && !bundleFiles.empty()) {
        NSFormatLogWithHeading(1, "PERFORMING BUNDLE SET OPERATION");
        work.workingNodesArray = bundles;
        result = processBundleSet(work, worker);
    }
    if (IsSuccessful(result) && !directories.empty()) {
        NSFormatLogWithHeading(1, "PERFORMING DIRECTORY SET OPERATION");
        work.workingNodesArray = directories;
        result = processDirectorySet(work, worker);
    }
    return syncReplacements();
}

bool ProcessManifest::progressStep(ProgressWindowController* progress,
                                   const std::string& workingFile) {
    if (!_isProcessingRollback) {
        if (const int signal = ReceivedCancelSignal()) {
            NSLevelledLog(3, "Signal %d (%@) received: the update is cancelled", signal,
                          std::string(::strsignal(signal)));
            return false;
        }
    }
    RunRecorder* recorder = _environment.recorder;
    if (_isProcessingRollback) {
        --currentNodesCount;
        if (recorder)
            recorder->progress("undoing", currentNodesCount, totalNodesCount, workingFile);
        if (progress)
            progress->setProgress(currentNodesCount, workingFile);
        return true;
    }
    if (progress) {
        // The user is answering the cancel question: wait for the answer.
        while (progress->waitForCancelConfirmation())
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (progress->userCancelUpdate()) {
            progress->setCancelButtonEnabled(false);
            return false;
        }
        progress->setProgress(currentNodesCount, workingFile);
    }
    ++currentNodesCount;
    if (recorder)
        recorder->progress("applying", currentNodesCount, totalNodesCount, workingFile);
    return true;
}

std::string ProcessManifest::processFileSet(WorkDictionary& work, ThreadWorker* /*worker*/) {
    _earlyPrefetcher.reset();
    _linkFreeFolders.clear();
    // The work ahead of the entries, from their paths as read before the payload was
    // unpacked (or read now, for other entries: a rollback's).
    std::vector<EntryPaths> readNow;
    const std::vector<EntryPaths>* paths = plannedPathsFor(work);
    if (!paths) {
        readNow = entryPathsOf(work.workingNodesArray, *work.dirToken, work.appPath);
        paths = &readNow;
    }
    const std::string& payloadDir = work.cmdInterface->payloadDir();
    ChecksumPrefetcher prefetcher(filesToChecksumAhead(*paths, payloadDir));
    // The patches started while the payload was unpacked (from the planned entries) go on
    // when this set's entries are those, and write their new files ahead from now on: the
    // manifest's paths have been checked and the installation's folders are reached only
    // through the confinement.
    std::unique_ptr<PatchPrefetcher> madeAhead = std::move(_earlyPatches);
    if (!madeAhead || paths != &_plannedPaths)
        madeAhead = std::make_unique<PatchPrefetcher>(patchesAhead(*paths, payloadDir));
    PatchPrefetcher& patches = *madeAhead;
    patches.startWritingAhead();
    HeldFileWriter heldFiles(copiesAhead(*paths, payloadDir));
    // Entries are prepared in groups that one sync makes durable; a set left early (a failure,
    // a cancel) drops the changes still waiting, which the journal's replay then finds unmade.
    CmdInterface& commands = *work.cmdInterface;
    commands.setGroupedChanges(true);
    commands.setPatchesMadeAhead(&patches);
    commands.setHeldFilesWrittenAhead(&heldFiles);
    struct DropWaiting {
        CmdInterface& commands;
        ~DropWaiting() {
            commands.dropGroup();
            commands.setPatchesMadeAhead(nullptr);
            commands.setHeldFilesWrittenAhead(nullptr);
        }
    } dropWaiting{commands};
    int index = 0;
    for (const XmlNode& node : work.workingNodesArray) {
        prefetcher.entryStarting(static_cast<size_t>(index));
        patches.entryStarting(static_cast<size_t>(index));
        heldFiles.entryStarting(static_cast<size_t>(index));
        ++index;
        // The entry's lines are written at its end, however it ends.
        const FlushLogAtEnd flushAtEnd;
        NSFormatLogWithHeading(2, "File %d information", index);
        FileOperationInfo info;

        auto operation = SingleValue(node, "./Operation");
        if (!operation) {
            NSLevelledLog(3, "Operation field is missing.");
            return kPermanentError;
        }
        info.Operation = *operation;
        NSLevelledLog(3, "Operation : %@", info.Operation);
        ReadOptionalFields(node, kFieldsBeforeDestination, info);

        auto destinationNodes = node.select("./DestinationPath");
        if (!isSingleElementType(destinationNodes)) {
            NSLevelledLog(3, "Destination field is missing.");
            return kPermanentError;
        }
        const XmlNode& destination = destinationNodes.front();
        auto name = getLocalizedNameGivenArray(node.select("./DestinationPath/FileName"));
        if (!name)
            name = destination.attribute("defName");
        if (!name) {
            NSLevelledLog(3, "Skip this operation");
            continue;
        }
        const std::string destinationText =
            JoinPath(destination.attribute("dir").value_or(""), *name);
        info.DestinationPath =
            work.dirToken->expandDirectoryTokenForPath(destinationText, work.appPath);
        NSLevelledLog(3, "Destination Path : %@", info.DestinationPath);
        if (!pathStaysConfined(work, destinationText))
            return kPermanentError;

        ReadOptionalFields(node, kChecksumFields, info);
        auto renameNodes = node.select("./RenamePath");
        if (isSingleElementType(renameNodes)) {
            auto renameName = getLocalizedNameGivenArray(node.select("./RenamePath/FileName"));
            if (!renameName)
                renameName = renameNodes.front().attribute("defName");
            if (renameName) {
                const std::string renameText =
                    JoinPath(renameNodes.front().attribute("dir").value_or(""), *renameName);
                info.RenamePath =
                    work.dirToken->expandDirectoryTokenForPath(renameText, work.appPath);
                NSLevelledLog(3, "Rename path : %@", info.RenamePath);
                if (!EqualsIgnoringCase(info.Operation, "CREATELINK") &&
                    !pathStaysConfined(work, renameText))
                    return kPermanentError;
            }
        }
        ReadOptionalFields(node, kPermissionFields, info);

        const std::string workingFile =
            IsAbsentField(info.RenamePath) ? info.DestinationPath : info.RenamePath;
        if (!progressStep(work.progress, workingFile))
            return kUserCancelled;

        const int32_t status = commands.performFileUpdationWithInfo(info);
        if (mayPutALink(info, commands.payloadDir()))
            _linkFreeFolders.clear();
        recordOperation(info.Operation, info.DestinationPath, status);
        if (status == 1)
            return kPermanentError;
        if (status != 0)
            break;
    }
    return commands.finishGroup() == 0 ? kSuccessful : kPermanentError;
}

bool ProcessManifest::mayPutALink(const FileOperationInfo& info, const std::string& payloadDir) {
    // A patch, a removal, and a copy of a payload file held in memory (a regular file) put
    // none; a copy of an unpacked payload file may copy a link, and the rest may make or move
    // one.
    const std::string& operation = info.Operation;
    if (EqualsIgnoringCase(operation, "PATCH") || EqualsIgnoringCase(operation, "REMOVE"))
        return false;
    if (EqualsIgnoringCase(operation, "ADD") || EqualsIgnoringCase(operation, "OVERWRITE"))
        return !PayloadFiles::find(JoinPath(payloadDir, info.ObjectName));
    return true;
}

bool ProcessManifest::pathStaysConfined(const WorkDictionary& work, const std::string& path) {
    // The journal names the paths the update itself reached, without tokens.
    if (_isProcessingRollback)
        return true;
    // Checked again as each entry runs: an earlier entry may have put a link on the way (the
    // folders found free of links are forgotten after each entry that may have).
    const std::optional<std::string> problem =
        ManifestConfinement(*work.dirToken, work.appPath).useProblem(path, _linkFreeFolders);
    if (problem)
        NSLevelledLog(0, "The entry is refused: %@", *problem);
    return !problem;
}

std::vector<std::vector<std::string>>
ProcessManifest::filesToChecksumAhead(const WorkDictionary& work) {
    return filesToChecksumAhead(work.workingNodesArray, *work.dirToken, work.appPath,
                                work.cmdInterface->payloadDir());
}

std::vector<std::vector<std::string>>
ProcessManifest::filesToChecksumAhead(const std::vector<XmlNode>& entries,
                                      const DirTokenResolver& dirToken, const std::string& appPath,
                                      const std::string& payloadDir) {
    return filesToChecksumAhead(entryPathsOf(entries, dirToken, appPath), payloadDir);
}

std::vector<std::vector<std::string>>
ProcessManifest::filesToChecksumAhead(const std::vector<EntryPaths>& entries,
                                      const std::string& payloadDir) {
    // A guess, read without a log line: the installed file, the file a rename or an
    // overwrite of a renamed file starts from, and the payload file copied in. A wrong
    // guess costs a read, never a result. (The file a patch starts from is checksummed here
    // or by the patch made ahead, whichever reads it first: PatchPrefetcher.)
    std::vector<std::vector<std::string>> files;
    files.reserve(entries.size());
    for (const EntryPaths& paths : entries) {
        std::vector<std::string>& entry = files.emplace_back();
        if (paths.destination)
            entry.push_back(*paths.destination);
        if (paths.renamePath)
            entry.push_back(*paths.renamePath);
        if (payloadDir.empty() || !paths.objectName || paths.patches)
            continue;
        // A payload file held in memory has its checksum already.
        std::string source = JoinPath(payloadDir, *paths.objectName);
        if (!PayloadFiles::find(source))
            entry.push_back(std::move(source));
    }
    return files;
}

std::vector<ProcessManifest::EntryPaths>
ProcessManifest::entryPathsOf(const std::vector<XmlNode>& entries, const DirTokenResolver& dirToken,
                              const std::string& appPath) {
    std::vector<EntryPaths> paths;
    paths.reserve(entries.size());
    for (const XmlNode& node : entries) {
        EntryPaths& entry = paths.emplace_back();
        const std::string operation = SingleValue(node, "./Operation").value_or("");
        entry.patches = EqualsIgnoringCase(operation, "PATCH");
        entry.copies =
            EqualsIgnoringCase(operation, "ADD") || EqualsIgnoringCase(operation, "OVERWRITE");
        entry.objectName = SingleValue(node, "./ObjectName");
        entry.destination = defaultPathOf(node, "./DestinationPath", dirToken, appPath);
        entry.renamePath = defaultPathOf(node, "./RenamePath", dirToken, appPath);
    }
    return paths;
}

const std::vector<ProcessManifest::EntryPaths>*
ProcessManifest::plannedPathsFor(const WorkDictionary& work) const {
    const bool same =
        !_plannedEntries.empty() && work.appPath == _appPath && work.cmdInterface &&
        work.cmdInterface->payloadDir() == _payloadDir &&
        std::equal(work.workingNodesArray.begin(), work.workingNodesArray.end(),
                   _plannedEntries.begin(), _plannedEntries.end(),
                   [](const XmlNode& a, const XmlNode& b) { return a.raw() == b.raw(); });
    return same ? &_plannedPaths : nullptr;
}

std::optional<std::string> ProcessManifest::defaultPathOf(const XmlNode& entry, const char* field,
                                                          const DirTokenResolver& dirToken,
                                                          const std::string& appPath) {
    const auto nodes = entry.select(field);
    if (!isSingleElementType(nodes))
        return std::nullopt;
    const auto name = nodes.front().attribute("defName");
    if (!name)
        return std::nullopt;
    return dirToken.expandedPath(JoinPath(nodes.front().attribute("dir").value_or(""), *name),
                                 appPath);
}

std::unordered_set<std::string> ProcessManifest::payloadFilesToHold(const XmlNode& root) {
    // Only plain names: a name with folders in it could name the same file in two ways.
    std::unordered_set<std::string> copied;
    std::unordered_set<std::string> otherwiseUsed;
    // Every element with an ObjectName ("//*[ObjectName]"), walked without XPath: its
    // predicate on each of the manifest's tens of thousands of elements cost more than the
    // rest of the start.
    std::vector<XmlNode> pending{root};
    std::vector<XmlNode> naming;
    while (!pending.empty()) {
        const XmlNode node = std::move(pending.back());
        pending.pop_back();
        const std::vector<XmlNode> children = node.childElements();
        if (std::any_of(children.begin(), children.end(),
                        [](const XmlNode& child) { return child.name() == "ObjectName"; }))
            naming.push_back(node);
        pending.insert(pending.end(), children.begin(), children.end());
    }
    for (const XmlNode& node : naming) {
        const auto name = SingleValue(node, "./ObjectName");
        if (!name)
            continue;
        const std::string operation = SingleValue(node, "./Operation").value_or("");
        const bool plain =
            !name->empty() && *name != "." && *name != ".." && name->find('/') == std::string::npos;
        const bool onlyCopied =
            EqualsIgnoringCase(operation, "ADD") || EqualsIgnoringCase(operation, "OVERWRITE");
        (plain && onlyCopied ? copied : otherwiseUsed).insert(*name);
    }
    for (const std::string& name : otherwiseUsed)
        copied.erase(name);
    return copied;
}

ProcessManifest::WorkAhead ProcessManifest::workAhead(const WorkDictionary& work) {
    return workAhead(work.workingNodesArray, *work.dirToken, work.appPath,
                     work.cmdInterface->payloadDir());
}

ProcessManifest::WorkAhead ProcessManifest::workAhead(const std::vector<XmlNode>& entries,
                                                      const DirTokenResolver& dirToken,
                                                      const std::string& appPath,
                                                      const std::string& payloadDir) {
    return workAhead(entryPathsOf(entries, dirToken, appPath), payloadDir);
}

ProcessManifest::WorkAhead ProcessManifest::workAhead(const std::vector<EntryPaths>& entries,
                                                      const std::string& payloadDir) {
    return {patchesAhead(entries, payloadDir), copiesAhead(entries, payloadDir)};
}

// Guesses like the checksums': an entry takes a new file made ahead only when it patches the
// same files, a file written ahead only when it copies the same payload file into the same
// folder.

std::vector<std::optional<PatchPrefetcher::Patch>>
ProcessManifest::patchesAhead(const std::vector<EntryPaths>& entries,
                              const std::string& payloadDir) {
    std::vector<std::optional<PatchPrefetcher::Patch>> patches(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const EntryPaths& paths = entries[i];
        if (paths.patches && paths.objectName && paths.destination)
            patches[i] =
                PatchPrefetcher::Patch{*paths.destination, JoinPath(payloadDir, *paths.objectName)};
    }
    return patches;
}

std::vector<std::optional<HeldFileWriter::Copy>>
ProcessManifest::copiesAhead(const std::vector<EntryPaths>& entries,
                             const std::string& payloadDir) {
    std::vector<std::optional<HeldFileWriter::Copy>> copies(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const EntryPaths& paths = entries[i];
        if (!paths.copies || paths.patches || !paths.objectName || !paths.destination)
            continue;
        std::string source = JoinPath(payloadDir, *paths.objectName);
        if (PayloadFiles::find(source))
            copies[i] = HeldFileWriter::Copy{std::move(source), ParentPath(*paths.destination)};
    }
    return copies;
}

std::string ProcessManifest::processBundleSet(WorkDictionary& work, ThreadWorker* worker) {
    const std::vector<XmlNode> bundles = work.workingNodesArray;
    int index = 0;
    for (const XmlNode& bundle : bundles) {
        ++index;
        // The entry's lines are written at its end, however it ends.
        const FlushLogAtEnd flushAtEnd;
        NSFormatLogWithHeading(2, "Bundle %d information", index);
        std::optional<std::string> path = bundle.attribute("Path");
        const auto version = bundle.attribute("Version");
        const auto verify = bundle.attribute("Verify");
        if (path) {
            path = work.dirToken->expandDirectoryTokenForPath(*path, work.appPath);
            NSLevelledLog(3, "Installed bundle version file: %@", *path);
        }
        if (version)
            NSLevelledLog(3, "Updater Bundle Version: %@", *version);
        if (verify)
            NSLevelledLog(3, "Verify Flag: %@", *verify);

        if (path && PathExists(*path) && !FolderExists(*path) && verify &&
            EqualsIgnoringCase(*verify, "TRUE")) {
            // The installed bundle's version, read from its property list.
            std::string installed;
            if (auto plist = PropertyList::readDictionaryFromFile(*path))
                installed = plist->stringForKey("CFBundleVersion").value_or("");
            if (!installed.empty()) {
                NSLevelledLog(3, "Installed Bundle Version: %@", installed);
                if (!DotSeparatedVersionCompareAllowsReplace(version, installed))
                    continue;
            } else {
                NSLevelledLog(3, "Installed Bundle Version: Not Found");
            }
        }
        NSLevelledLog(3, "Bundle is valid for update");
        // Every element inside the bundle is taken as a File entry; white space and
        // comments between them are not entries.
        work.workingNodesArray = bundle.childElements();
        const std::string result = processFileSet(work, worker);
        if (!IsSuccessful(result))
            return result;

        if (path) {
            std::string app;
            if (GetPathToAppGivenSubDirPath(ParentPath(*path), app,
                                            _environment.paths.protectedFolders) &&
                FolderExists(app))
                (void)work.cmdInterface->fileManager().touchFile(app);
        }
    }
    return kSuccessful;
}

std::string ProcessManifest::processDirectorySet(WorkDictionary& work, ThreadWorker* /*worker*/) {
    if (work.workingNodesArray.empty()) {
        NSLevelledLog(3, "No DirectorySet operation need to be performed");
        return kSuccessful;
    }
    int index = 0;
    for (const XmlNode& node : work.workingNodesArray) {
        ++index;
        // The entry's lines are written at its end, however it ends.
        const FlushLogAtEnd flushAtEnd;
        NSFormatLogWithHeading(2, "Directory %d information", index);
        DirectoryOperationInfo info;
        auto operation = SingleValue(node, "./Operation");
        if (!operation) {
            NSLevelledLog(3, "Operation field is missing.");
            return kPermanentError;
        }
        auto base = SingleValue(node, "./DirectoryBase");
        if (!base) {
            NSLevelledLog(3, "Directory Base field is missing.");
            return kPermanentError;
        }
        info.Operation = *operation;
        info.DirectoryBase = work.dirToken->expandDirectoryTokenForPath(*base, work.appPath);
        if (!pathStaysConfined(work, *base))
            return kPermanentError;
        NSLevelledLog(3, "Distination Base : %@", info.DirectoryBase);
        if (!progressStep(work.progress, info.DirectoryBase))
            return kUserCancelled;
        const int32_t status = work.cmdInterface->performDirectoryUpdationWithInfo(info);
        recordOperation("Directory " + info.Operation, info.DirectoryBase, status);
        if (status == 2)
            return kUserCancelled;
        if (status != 0)
            return kPermanentError;
    }
    return kSuccessful;
}

std::string ProcessManifest::performRollback() {
    const std::string journal = JoinPath(_backupDir, "RollBack.xml");
    if (!PathExists(journal)) {
        NSLevelledLog(3, "There's nothing to rollback.");
        return kSuccessful;
    }
    NSLevelledLog(3, "Process through rollback file...");
    XmlNode root = readJournal(journal);
    if (!root) {
        NSLevelledLog(3, "Improper Rollback file");
        return kPermanentError;
    }
    if (_progressController)
        _progressController->setRollingBack();
    const std::string result = invokeAction(root, _appPath, _backupDir, _resourceDir, std::nullopt,
                                            _progressController, true, nullptr);
    if (IsSuccessful(result))
        NSLevelledLog(3, "Rollback successful");
    else
        NSLevelledLog(0, "Rollback failed. Application left in undeterminate state.");
    _isProcessingRollback = false;
    return result;
}

XmlNode ProcessManifest::readJournal(const std::string& journal) {
    const auto text = ReadFileText(journal, kLargestJournal);
    if (!text) {
        NSLevelledLog(0, "Cannot read the rollback journal %@: %@", journal,
                      std::string(std::strerror(errno)));
        return {};
    }
    const RollBackHandler::WholeEntries read = RollBackHandler::readWholeEntries(*text);
    if (!read.document)
        return {};
    if (read.torn) {
        // Its last write was cut short (a kill between two pages of it, or a power cut
        // before its sync); the change it was to cover waited for it and was never made.
        NSLevelledLog(0,
                      "The rollback journal %@ ends in an entry that was not written whole: "
                      "%@ bytes cut off, %@ file and %@ folder entries replayed",
                      journal, std::to_string(read.cutBytes), std::to_string(read.fileEntries),
                      std::to_string(read.directoryEntries));
    }
    const auto parsed = XmlDocument::parseMemory(*read.document, XmlParseMode::Strict);
    if (!parsed.errors.empty()) {
        handleError(parsed.errors.front());
        return {};
    }
    return XmlDocument::root(parsed.document);
}

void ProcessManifest::longTaskFinished(const std::string& result) {
    int exitCode = result == kSuccessful ? 0 : result == kUserCancelled ? 1 : 2;
    NSLevelledLog(3, "Long task finished");
    if (_tw)
        _tw->markAsCancelled();

    if (exitCode == 0 && !commit())
        exitCode = 1;
    (void)OrvelCodeFileHandler::releaseInstance();
    _environment.history = nullptr; // released: the rollback runs as an install

    int rollbackState = 0;
    if (exitCode != 0) {
        const std::string rollback = performRollback();
        rollbackState = rollback == kSuccessful ? 0 : rollback == kUserCancelled ? 1 : 2;
    }
    if (exitCode == 0 || rollbackState == 0)
        forgetUpdate();
    else if (_environment.state)
        NSLevelledLog(0, "The journal stays in %@; the next start of a patcher replays it again",
                      _backupDir);

    NSLevelledLog(3, "Restarting the services...");
    if (_serviceHandler)
        _serviceHandler->startServices();
    NSLevelledLog(3, "Done");
    (void)PayloadHandler::cleanupDir(_payloadDir, fileSystem());
    _serviceHandler.reset();
    if (_progressController)
        _progressController->close();
    NSLevelledLog(0, "Exit code: %d", exitCode);

    _confinement.reset();
    _exitCode = exitCode;
    _rollbackState = rollbackState;
    report(exitCode, rollbackState);

    if (_environment.reporter)
        (void)_environment.reporter->cleanup();
    _environment.loop->terminate(0);
}

void ProcessManifest::prepareHistoryAhead() {
    OrvelCodeFileHandler* history = _environment.history;
    if (!history || !_environment.state)
        return;
    const int mode = history->getPatcherMode();
    if (mode != OrvelCodeFileHandler::kModeInstall && mode != OrvelCodeFileHandler::kModeComboPatch)
        return;
    // Made from a copy of what the history knows, so the thread holds nothing of the run.
    try {
        _historyAhead = std::async(std::launch::async, [copy = *history, manifest = _manifestFile] {
            (void)RunThisThreadBehind(); // wanted only when the update commits
            return copy.preparePatcherEntry(manifest);
        });
    } catch (const std::system_error&) {
        // No thread to spare: the entry is made when the update commits.
    }
}

bool ProcessManifest::commit() {
    OrvelCodeFileHandler* history = _environment.history;
    const int mode = history ? history->getPatcherMode() : -1;
    const bool recordsPatch =
        mode == OrvelCodeFileHandler::kModeInstall || mode == OrvelCodeFileHandler::kModeComboPatch;
    PatcherState* state = _environment.state;
    if (!state)
        return !recordsPatch || history->addPatcherEntry(_manifestFile);

    PatcherState::Record record = _environment.record;
    if (!recordsPatch) {
        record.stage = PatcherState::Stage::Committed;
        return state->writeRecord(record);
    }
    // The new history is made whole beside the old one and the record says where; renaming
    // it over the old one is then the single step that makes the update permanent.
    FileSystem& files = fileSystem();
    const std::string historyFile = history->getOCPatchFilePath();
    _historyUpdate = historyFile + ".orvel-new";
    if (PathExistsNoFollow(_historyUpdate))
        (void)files.removeFile(_historyUpdate);
    std::optional<OrvelCodeFileHandler::PreparedEntry> prepared;
    if (_historyAhead.valid())
        prepared = _historyAhead.get();
    if (!history->addPatcherEntry(_manifestFile, _historyUpdate, prepared))
        return false;
    if (!files.syncFolder(ParentPath(historyFile))) {
        NSLevelledLog(0, "Cannot sync the folder of %@: %@", historyFile,
                      std::string(std::strerror(errno)));
        return false;
    }
    record.stage = PatcherState::Stage::Committing;
    record.historyFile = historyFile;
    record.historyUpdate = _historyUpdate;
    if (!state->writeRecord(record))
        return false;
    if (!files.rename(_historyUpdate, historyFile)) {
        NSLevelledLog(0, "Cannot replace the patch history %@: %@", historyFile,
                      std::string(std::strerror(errno)));
        return false;
    }
    _historyUpdate.clear();
    if (!files.syncFolder(ParentPath(historyFile)))
        NSLevelledLog(0, "Cannot sync the folder of %@: %@", historyFile,
                      std::string(std::strerror(errno)));
    return true;
}

void ProcessManifest::forgetUpdate() {
    PatcherState* state = _environment.state;
    if (!state)
        return;
    // The record goes first: without it nothing is replayed, so the backups may go in any
    // order afterwards, and a start-up clears what an interruption leaves of them.
    if (!state->removeRecord())
        return;
    if (!_historyUpdate.empty())
        (void)fileSystem().removeFile(_historyUpdate);
    (void)state->removeBackupFolder(_backupDir);
}

void ProcessManifest::recordOperation(const std::string& keyword, const std::string& path,
                                      int32_t status) {
    if (!_environment.recorder || _isProcessingRollback)
        return;
    // The bytes are measured once the whole update is in place.
    _environment.recorder->operation({keyword, path, status == 0 ? "done" : "failed", 0});
}

void ProcessManifest::report(int exitCode, int rollbackState) {
    const SilentReturnCode code = exitCode == 0 ? SilentReturnCode::Updated
                                  : (exitCode == 1 || rollbackState == 0)
                                      ? SilentReturnCode::CancelledOrRolledBack
                                      : SilentReturnCode::RollbackFailed;
    const auto product = _dataLoader ? _dataLoader->getProductName().value_or("") : std::string();
    if (RunRecorder* recorder = _environment.recorder) {
        if (exitCode == 0)
            recorder->measureDoneOperations();
        recorder->setRolledBack(exitCode != 0 && rollbackState == 0);
        recorder->finish(
            code, exitCode == 0 ? StringWithFormat(localized("Patcher successful message"), product)
                  : exitCode == 1      ? localized("Update cancelled message")
                  : rollbackState == 0 ? localized("Error while updating")
                                       : localized("Error while updating and rollback failed"));
    }
    if (_isSilentInstall) {
        SilentReturnHandler::setReturnCode(code, _environment.paths);
        return;
    }
    const KORInstallerResultsWrapper withoutUserInterface{ReportingContext{}};
    const KORInstallerResultsWrapper& reporter =
        _environment.reporter ? *_environment.reporter : withoutUserInterface;
    if (exitCode == 0) {
        reporter.reportUpToDate(StringWithFormat(localized("Patcher successful message"), product));
    } else if (exitCode == 1) {
        reporter.reportUpdateCancelled();
    } else if (rollbackState == 0) {
        reporter.reportUpdateFailed(localized("Error while updating"));
    } else {
        reporter.reportUpdateFailed(localized("Error while updating and rollback failed"));
    }
}
