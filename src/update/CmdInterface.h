#pragma once

#include "update/FileManager.h"
#include "update/FileOperationInfo.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

class BspatchOldFile;
class FileSystem;
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
// Operations return 0 on success and 1 on the first failed step, leaving what was done;
// the journal entry of a change is written once the change has happened.
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
    // Replays with the backups as sources and without journaling.
    void setUndoEnvironment();

    [[nodiscard]] int32_t performFileUpdationWithInfo(const FileOperationInfo& info);
    [[nodiscard]] int32_t addFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t removeFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t patchFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t renameFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t createLinkOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t overwriteFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t blindOverwriteFileOperation(const FileOperationInfo& info);
    [[nodiscard]] int32_t touchFileOperation(const FileOperationInfo& info);
    // Journals the inverse of the record when journaling is on; always 0 (a journal that
    // cannot be written is logged, not fatal).
    int32_t writeUndoForFileSetOperation(const FileOperationInfo& info);

    // 0 success, 1 failure.
    [[nodiscard]] int32_t performDirectoryUpdationWithInfo(const DirectoryOperationInfo& info);
    [[nodiscard]] int32_t addDirectoryOperation(const DirectoryOperationInfo& info);
    [[nodiscard]] int32_t removeDirectoryOperation(const DirectoryOperationInfo& info);

    // Applies the record's Permission, UserID and GroupID to an existing destination.
    // Always 0: a change that cannot be made is logged.
    int32_t setAttributeForFile(const FileOperationInfo& info) const;

    const FileManager& fileManager() const { return _files; }
    const std::string& payloadDir() const { return _payloadDir; }
    bool isRepairMode() const { return _isRepairMode; }
    bool writesUndo() const { return _writeUndo; }
    RollBackHandler* rollBackHandler() const { return _rollBackHandler.get(); }

private:
    [[nodiscard]] int32_t copyForOverwrite(const FileOperationInfo& info, bool oldRemoved);
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
    bool _isRepairMode = false;
    bool _writeUndo = false;
    AllowsReplaceFunction _allowsReplace;
    std::vector<std::string> _protectedFolders;
};
