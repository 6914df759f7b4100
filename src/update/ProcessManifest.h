#pragma once

#include "base/Xml.h"
#include "runtime/PlatformPaths.h"
#include "system/ServicesHandler.h"
#include "target/OrvelCodeFileHandler.h"
#include "update/CmdInterface.h"
#include "update/HeldFileWriter.h"
#include "update/PatchPrefetcher.h"
#include "update/PatcherState.h"

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

class ChecksumPrefetcher;
class DirTokenResolver;
class FileSystemConfinement;
class KORInstallerResultsWrapper;
class LoadConfigData;
class MainLoop;
class OrvelCodeFileHandler;
class ProgressWindowController;
class StringTable;
class ThreadWorker;

// The values handed to the worker and to each set processor.
struct WorkDictionary {
    XmlNode rootNode;
    std::string manifestFile;
    std::string payloadDir;
    std::string resourceDir;
    std::optional<std::string> backupDir; // none while replaying: nothing is journaled
    std::string appPath;
    ProgressWindowController* progress = nullptr;
    CmdInterface* cmdInterface = nullptr;
    DirTokenResolver* dirToken = nullptr;
    std::vector<XmlNode> workingNodesArray;
};

// Everything outside the manifest that a run touches, handed in so tests can use folders,
// services and a main loop of their own.
class RunRecorder;

struct ManifestRunEnvironment {
    MainLoop* loop = nullptr; // where the completion runs; required
    PlatformPaths paths;      // the run's fixed locations; required
    // The run's patch history (repair or install mode, the entry added on success); none:
    // an install run that records nothing.
    OrvelCodeFileHandler* history = nullptr;
    // A silent run writes its result to the return-code file instead of reporting it.
    bool silent = false;
    const StringTable* strings = nullptr; // none: message keys are used as texts
    // Where the result of a run that is not silent goes; none: the linked results library,
    // with alerts to the log.
    KORInstallerResultsWrapper* reporter = nullptr;
    ServiceControlSettings serviceSettings; // the machine's service manager by default
    CmdInterface::Options cmdOptions;       // the repair flag is filled in by the run
    // The patcher's state folder, holding the record of this update that the caller has
    // written; the backup folder is the record's. None: the backup folder is
    // payloadDir/backupDir and nothing of the run outlives it.
    PatcherState* state = nullptr;
    PatcherState::Record record;
    RunRecorder* recorder = nullptr; // none: no progress lines and no result for scripts
};

// Applies a manifest to the installed application on a background worker: services
// stopped, the FileSet, BundleSet and DirectorySet walked with progress and cancel, the
// journal replayed when anything fails or the user cancels, services restarted, the patch
// history recorded, the result reported, and the run ended.
class ProcessManifest {
public:
    static constexpr const char* kSuccessful = "UpdateResult_successful";
    static constexpr const char* kPermanentError = "UpdateResult_permanentError";
    static constexpr const char* kUserCancelled = "UpdateResult_userCancelled";

    // Extracts the payload from resourceDir into payloadDir and makes the backup folder
    // (payloadDir/backupDir) unless the environment names one.
    ProcessManifest(std::string manifestFile, std::string payloadDir, std::string appPath,
                    std::string resourceDir, LoadConfigData* dataLoader,
                    ManifestRunEnvironment environment);
    ~ProcessManifest();
    ProcessManifest(const ProcessManifest&) = delete;
    ProcessManifest& operator=(const ProcessManifest&) = delete;

    // Parses the manifest and starts the worker; false after "Improper Manifest file"
    // (nothing started, nothing reported: the caller ends the run).
    [[nodiscard]] bool performAction(ProgressWindowController* progress);

    // The worker's task: stops the services, then walks the sets.
    std::string performUpdate(WorkDictionary& work, ThreadWorker* worker);
    std::string invokeAction(const XmlNode& rootNode, const std::string& appPath,
                             const std::string& payloadDir, const std::string& resourceDir,
                             const std::optional<std::string>& backupDir,
                             ProgressWindowController* progress, bool isRollback,
                             ThreadWorker* worker);
    std::string processFileSet(WorkDictionary& work, ThreadWorker* worker);
    // What the work ahead of a file entry needs to know of it, from its default names: read
    // once from the manifest, before the payload is unpacked, for every list below.
    struct EntryPaths {
        bool patches = false; // PATCH
        bool copies = false;  // ADD or OVERWRITE
        std::optional<std::string> objectName;
        std::optional<std::string> destination; // tokens expanded
        std::optional<std::string> renamePath;
    };
    static std::vector<EntryPaths> entryPathsOf(const std::vector<XmlNode>& entries,
                                                const DirTokenResolver& dirToken,
                                                const std::string& appPath);
    // For each file entry, the files whose checksums it is likely to ask for.
    static std::vector<std::vector<std::string>> filesToChecksumAhead(const WorkDictionary& work);
    // The same for every file entry of the manifest (file set, then bundles), without the
    // payload's files (payloadDir empty) or with them.
    static std::vector<std::vector<std::string>>
    filesToChecksumAhead(const std::vector<XmlNode>& entries, const DirTokenResolver& dirToken,
                         const std::string& appPath, const std::string& payloadDir);
    static std::vector<std::vector<std::string>>
    filesToChecksumAhead(const std::vector<EntryPaths>& entries, const std::string& payloadDir);
    // The path of an entry's field (its default name, tokens expanded), when it has one.
    static std::optional<std::string> defaultPathOf(const XmlNode& entry, const char* field,
                                                    const DirTokenResolver& dirToken,
                                                    const std::string& appPath);
    // The payload files that entries only copy into the installation (ADD and OVERWRITE
    // name them, nothing else does): these are held in memory rather than unpacked.
    static std::unordered_set<std::string> payloadFilesToHold(const XmlNode& root);
    // Starts making the new patch history (OrvelCodeFileHandler::preparePatcherEntry) on
    // another thread, when this run will record the patch.
    void prepareHistoryAhead();
    // For each file entry, the work that may be done ahead of it (from its default names):
    // the patch it is likely to apply, and the payload file held in memory it is likely to
    // copy, and into which folder.
    struct WorkAhead {
        std::vector<std::optional<PatchPrefetcher::Patch>> patches;
        std::vector<std::optional<HeldFileWriter::Copy>> copies;
    };
    static WorkAhead workAhead(const WorkDictionary& work);
    // The same for any file entries (a payload file not held yet is copied by its entry).
    static WorkAhead workAhead(const std::vector<XmlNode>& entries,
                               const DirTokenResolver& dirToken, const std::string& appPath,
                               const std::string& payloadDir);
    static WorkAhead workAhead(const std::vector<EntryPaths>& entries,
                               const std::string& payloadDir);
    // Each part of it alone.
    static std::vector<std::optional<PatchPrefetcher::Patch>>
    patchesAhead(const std::vector<EntryPaths>& entries, const std::string& payloadDir);
    static std::vector<std::optional<HeldFileWriter::Copy>>
    copiesAhead(const std::vector<EntryPaths>& entries, const std::string& payloadDir);
    // The file set's entries as read before the payload was unpacked, when work's are those.
    const std::vector<EntryPaths>* plannedPathsFor(const WorkDictionary& work) const;
    std::string processBundleSet(WorkDictionary& work, ThreadWorker* worker);
    std::string processDirectorySet(WorkDictionary& work, ThreadWorker* worker);
    // Replays the journal in the backup folder.
    std::string performRollback();
    // True when the manifest path (tokens not expanded) is confined and reached through
    // real folders only (ManifestConfinement), or when replaying the journal; otherwise
    // false after a log line.
    bool pathStaysConfined(const WorkDictionary& work, const std::string& path);
    // Whether the entry may have put a symbolic link into the installation.
    static bool mayPutALink(const FileOperationInfo& info, const std::string& payloadDir);
    // The journal's whole entries as a document (a torn last entry cut off, with a log
    // line); nothing when it cannot be read as a journal.
    XmlNode readJournal(const std::string& journal);
    // Replays the journal in backupFolder onto the application as a run's rollback does;
    // for the journal of a run that did not finish. True when it went through.
    static bool replayJournal(const std::string& backupFolder, const std::string& appPath,
                              ManifestRunEnvironment environment);
    // On the main thread when the worker ends: history, rollback, services, clean-up,
    // report, end of the run.
    void longTaskFinished(const std::string& result);

    // The root element of the document at path, or an empty node (errors logged).
    static XmlNode getRootNodeOfXMLGivenPath(const std::string& path);
    // The text of the FileName whose "lang" is the run's install language.
    static std::optional<std::string> getLocalizedNameGivenArray(const std::vector<XmlNode>& nodes);
    static bool isSingleElementType(const std::vector<XmlNode>& nodes);
    static void handleError(const XmlError& error);

    // Outcome of the finished run, for the caller that waits for it.
    int exitCode() const { return _exitCode; }
    int rollbackState() const { return _rollbackState; }
    int getTotalNodesCount() const { return totalNodesCount; }
    int getCurrentNodesCount() const { return currentNodesCount; }
    const std::string& backupDir() const { return _backupDir; }
    // New files made so far by the patches started while the payload was unpacked, until the
    // file set takes them over; for the tests.
    size_t patchesMadeWhileUnpacking() const { return _earlyPatches ? _earlyPatches->made() : 0; }

private:
    struct ReplayOnly {};
    ProcessManifest(ReplayOnly, std::string backupFolder, std::string appPath,
                    ManifestRunEnvironment environment);
    // Makes a finished update permanent: the patch history entry, and the record's step
    // past which a start-up no longer rolls the update back. False (logged) when it could
    // not be made; the update is then rolled back.
    [[nodiscard]] bool commit();
    // The update is over, committed or rolled back: its record and backups go.
    void forgetUpdate();
    // The progress and cancel step of one entry; false when the user cancelled.
    bool progressStep(ProgressWindowController* progress, const std::string& workingFile);
    std::string localized(const std::string& key) const;
    // The seam every change to the disk goes through.
    FileSystem& fileSystem() const;
    void report(int exitCode, int rollbackState);
    // One operation of the manifest as it turned out (status as CmdInterface gives it), for
    // the run's result.
    void recordOperation(const std::string& keyword, const std::string& path, int32_t status);

    std::string _manifestFile;
    std::string _payloadDir;
    std::string _backupDir;
    std::string _appPath;
    std::string _resourceDir;
    LoadConfigData* _dataLoader;
    // The file system's confinement to the manifest's folders, from the walk's start to
    // the end of the run.
    std::unique_ptr<FileSystemConfinement> _confinement;
    // True when every path of the manifest read before the unpacking was found confined then
    // (the walk does not check them all a second time).
    bool _manifestFoundConfined = false;
    ManifestRunEnvironment _environment;
    ProgressWindowController* _progressController = nullptr;
    std::unique_ptr<ServicesHandler> _serviceHandler;
    std::shared_ptr<ThreadWorker> _tw;
    // The manifest, read once before the payload is unpacked; null when it could not be.
    XmlNode _manifestRoot;
    // Its file set's entries, and what the work ahead of them needs to know of each.
    std::vector<XmlNode> _plannedEntries;
    std::vector<EntryPaths> _plannedPaths;
    // Reads the installed files' checksums while the payload is unpacked and the services
    // stop; the file set's own prefetcher takes over.
    std::unique_ptr<ChecksumPrefetcher> _earlyPrefetcher;
    // The file set's patches, started as soon as their files were unpacked; taken over by
    // the file set when its entries are the ones these were listed from.
    std::unique_ptr<PatchPrefetcher> _earlyPatches;
    std::unordered_set<std::string> _payloadFilesToHold;
    // Folders of the installation found free of symbolic links by the entries run so far.
    std::unordered_set<std::string> _linkFreeFolders;
    bool _isProcessingRollback = false;
    bool _isSilentInstall = false;
    int totalNodesCount = 0;
    int currentNodesCount = 0;
    int _exitCode = -1;
    int _rollbackState = -1;
    std::string _historyUpdate; // the new patch history written beside the old one
    // The new patch history, made on another thread while the entries run.
    std::future<std::optional<OrvelCodeFileHandler::PreparedEntry>> _historyAhead;
};
