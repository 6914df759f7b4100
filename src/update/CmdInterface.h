#pragma once

#include "update/FileManager.h"
#include "update/FileOperationInfo.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

class BspatchOldFile;
class FileSystem;
class HeldFileWriter;
class PatchPrefetcher;
class RollBackHandler;

// What the file operations need from outside their class.
struct CmdInterfaceOptions {
    // May the new file (first) replace the installed file (second)? Decided by version.
    using AllowsReplaceFunction =
        std::function<bool(const std::string& newFile, const std::string& installedFile)>;

    // The run repairs an installation (patch-history mode 1); not given: an install. Kept
    // for the run's record: no operation behaves differently in a repair.
    std::optional<bool> isRepairMode;
    // The blind-overwrite version rule; when empty, the file-versioning library's.
    AllowsReplaceFunction fileVersionCompareAllowsReplace;
    // Folders never removed when emptied, and where the search for an enclosing bundle
    // stops (the platform table's protected folders).
    std::vector<std::string> protectedFolders;
    // Where every change goes; none: the machine's file system.
    FileSystem* fileSystem = nullptr;
};

// Carries out one File or Directory entry of a manifest on the installed application by the
// rules of its keyword: checks the file's MD5 before and after, copies, removes, patches,
// renames or links it, sets owner, group and mode, touches it, and has every change
// journaled for undo. The file work itself is FileManager's, over the file-system seam. The same
// code runs forward and during a rollback; only the sources (the payload folder, or the
// backup folder when replaying) and the journaling differ.
//
// Operations return 0 on success and 1 on the first failed step, leaving what was done.
// Every change is journaled before it is made (the entry on disk first), and new content
// replaces a file by a rename, never by writing into it, so a run killed at any moment
// leaves each file old or new and a journal that undoes every change made.
class CmdInterface {
public:
    using AllowsReplaceFunction = CmdInterfaceOptions::AllowsReplaceFunction;
    using Options = CmdInterfaceOptions;

    // payloadDir: source of new files and patches; resDir: holds "bspatch"; backupDir: where
    // backups and the journal go, or nothing for a run that journals nothing (a replay).
    // Logs "init CmdInterface".
    CmdInterface(std::string payloadDir, std::string resDir, std::optional<std::string> backupDir,
                 Options options = {});
    ~CmdInterface();
    CmdInterface(const CmdInterface&) = delete;
    CmdInterface& operator=(const CmdInterface&) = delete;

    void setWriteUndo(bool writeUndo) { _writeUndo = writeUndo; }
    // Grouped changes (for a forward run that journals): the entries that add, replace or
    // remove one file in an existing folder are prepared one after the other (checked, kept,
    // journaled, new content written beside the target) without a sync of their own, and
    // their changes wait. One sync of the file systems then makes the whole group durable,
    // after which the changes are made in the order of their entries. An entry that does
    // more (a move, a link, new folders) or touches a path of the waiting group finishes the
    // group first and runs on its own, synced step by step. Off: every entry is made at once.
    void setGroupedChanges(bool grouped) { _grouping = grouped; }
    // Syncs, then makes the waiting changes: 0, or 1 at the first that cannot be made (logged;
    // the rest are dropped). The caller finishes the group before the run counts as done.
    [[nodiscard]] int32_t finishGroup();
    // Forgets the waiting changes, with the new content written for them: none of them was
    // made, and the journal's entries for them undo nothing.
    void dropGroup();
    size_t waitingChanges() const { return _group.size(); }
    // Replays with the backups as sources and without journaling.
    void setUndoEnvironment();
    // New files of the coming entries' patches, made ahead on another thread (or nothing):
    // a patch entry takes its own from there when it was made from the files it finds.
    void setPatchesMadeAhead(PatchPrefetcher* patches) { _patchesAhead = patches; }
    // Copies of payload files held in memory written ahead of their entries (none: each entry
    // writes its copy).
    void setHeldFilesWrittenAhead(HeldFileWriter* files) { _heldFilesAhead = files; }

    [[nodiscard]] int32_t performFileUpdationWithInfo(const FileOperationInfo& info);
    [[nodiscard]] int32_t addFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t removeFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t patchFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t renameFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t createLinkOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t overwriteFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t blindOverwriteFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t touchFileOperation(const FileOperationInfo& info);
    // Journals the inverse of the change about to be made to the record's destination, once
    // per entry, when journaling is on: 0 when journaled (or not due), 1 when the journal
    // cannot be written (logged there), and then the change must not be made.
    [[nodiscard]] int32_t writeUndoForFileSetOperation(const FileOperationInfo& info);

    // 0 success, 1 failure.
    [[nodiscard]] int32_t performDirectoryUpdationWithInfo(const DirectoryOperationInfo& info);
    [[nodiscard]] int32_t addDirectoryOperation(const DirectoryOperationInfo& info);
    [[nodiscard]] int32_t removeDirectoryOperation(const DirectoryOperationInfo& info);

    // Applies the record's Permission, UserID and GroupID to an existing destination.
    // Always 0: a change that cannot be made is logged. placed: the destination's lstat
    // when it was taken right after the destination was put there.
    int32_t setAttributeForFile(const FileOperationInfo& info,
                                const struct stat* placed = nullptr) const;

    const FileManager& fileManager() const { return _files; }
    const std::string& payloadDir() const { return _payloadDir; }
    bool isRepairMode() const { return _isRepairMode; }
    bool writesUndo() const { return _writeUndo; }
    RollBackHandler* rollBackHandler() const { return _rollBackHandler.get(); }

private:
    // Placing: the checked copy could not be renamed into place (logged).
    enum class Installed { Done, CopyFailed, ChecksumFailed, Placing };
    // Copies source beside destination (synced, unless prepared for the group), checks it
    // against expected and renames it
    // over destination (a change: grouped or at once); destination is untouched unless the
    // whole checked copy gets there. checksum: what the copy has.
    [[nodiscard]] Installed installCopy(const std::string& source, const std::string& destination,
                                        const std::string& expected,
                                        std::optional<std::string>& checksum);
    // The new file from the payload at the destination (an addition, or the replacement of
    // a file the journal has kept), with the addition's or the overwrite's log lines.
    [[nodiscard]] int32_t installNewFile(const FileOperationInfo& info, bool replacing);
    // Keeps what is at path under a backup name of its own and journals putting it back,
    // before path is removed for the entry. 0, or 1 when it cannot be kept or journaled.
    [[nodiscard]] int32_t journalRemovalOf(const std::string& path, const FileOperationInfo& info);
    // What an entry found at its destination as it started (never followed).
    struct Destination {
        bool there = false;
        struct stat state {};
    };
    static Destination lookAt(const std::string& path);
    // What the entry being carried out found at path, when path is its destination.
    const Destination* foundAt(const std::string& path) const;
    // After a new file was renamed to path: its checksum and its state, for the entry's
    // attributes, remembered from one lstat.
    void notePlaced(const std::string& path, const std::string& checksum, uint64_t entry);
    [[nodiscard]] int32_t performEntry(const FileOperationInfo& info, const Destination& found);
    bool journaling() const;
    // Makes a change now, or, while an entry is being prepared for the group, after the
    // group's sync (then true at once; a failure shows at finishGroup).
    [[nodiscard]] bool change(std::function<bool()> make);
    // An entry of a kind that may be prepared for the group: an addition, replacement or
    // removal of one file.
    static bool groupable(const FileOperationInfo& info);
    bool touchesGroup(const std::string& path) const;
    std::string nextBackupName(const std::string& path, const std::string& objectName);
    [[nodiscard]] bool allowsReplace(const std::string& newFile,
                                     const std::string& installedFile) const;
    std::string sourcePath(const FileOperationInfo& info) const;

    std::optional<std::string> _backupDir;
    std::string _payloadDir;
    std::string _resourceDir;
    FileSystem* _fs;
    FileManager _files;
    std::unique_ptr<RollBackHandler> _rollBackHandler;
    // The file being patched, in memory kept from one patched file to the next.
    std::unique_ptr<BspatchOldFile> _patchOldFile;
    PatchPrefetcher* _patchesAhead = nullptr;
    HeldFileWriter* _heldFilesAhead = nullptr;
    bool _isRepairMode = false;
    bool _writeUndo = false;
    // The entry being carried out: its backup's name, whether its undo is journaled, and
    // whether its destination was there before it began.
    std::string _backupName;
    uint64_t _backupCount = 0;
    bool _undoWritten = false;
    Destination _destination;
    std::string _entryDestination; // the path _destination tells of
    // Its state right after its backup was made by a second name (nothing when it was not).
    std::optional<struct stat> _linkedBackup;
    // The state of the file an entry put in place, looked at right after the rename, for
    // the same entry's attributes (changes are made in order, an entry's one after another).
    uint64_t _entries = 0;
    struct Placed {
        uint64_t entry = 0;
        struct stat state {};
    };
    std::optional<Placed> _placed;
    // The group: entries prepared and their changes, waiting for one sync.
    struct PreparedEntry {
        std::string operation;
        std::vector<std::function<bool()>> changes;
        std::vector<std::string> temporaries; // new content written for them
        uint64_t bytes = 0;
    };
    // Removes the new content written for an entry whose changes will not be made.
    void removeTemporaries(const PreparedEntry& entry) const;
    bool _grouping = false;
    bool _preparing = false; // the entry running is prepared for the group
    PreparedEntry _entry;
    std::vector<PreparedEntry> _group;
    std::vector<std::string> _groupPaths; // sorted: what the waiting changes touch
    uint64_t _groupBytes = 0;
    AllowsReplaceFunction _allowsReplace;
    std::vector<std::string> _protectedFolders;
};
