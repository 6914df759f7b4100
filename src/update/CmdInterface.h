#pragma once

#include "system/PlatformPaths.h"
#include "update/FileOperationInfo.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

class BspatchOldFile;
class RollBackHandler;

// What the file operations need from outside their class.
struct CmdInterfaceOptions {
    // May the new file (first) replace the installed file (second)? Decided by version.
    using AllowsReplaceFunction =
        std::function<bool(const std::string& newFile, const std::string& installedFile)>;

    // The run repairs an installation (patch-history mode 1); when not given, taken from
    // the run's patch-history handler. Kept for the run's record: no operation behaves
    // differently in a repair.
    std::optional<bool> isRepairMode;
    // The blind-overwrite version rule; when empty, the file-versioning library's.
    AllowsReplaceFunction fileVersionCompareAllowsReplace;
    // Folders never removed when emptied, and where the search for an enclosing bundle
    // stops.
    std::vector<std::string> protectedFolders = PlatformPaths::defaults().protectedFolders;
};

// Carries out one File or Directory entry of a manifest on the installed application:
// checks the file's MD5 before and after, copies, removes, patches, renames or links it,
// sets owner, group and mode, touches it, and has every change journaled for undo. The same
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
    static int32_t setAttributeForFile(const FileOperationInfo& info);
    // Sets the owner and the group by account name (each when given; a number is taken as
    // an id when no account has that name), then the mode (when non-zero). True when every
    // requested change was made. A symbolic link keeps its
    // mode (links have none of their own) and gets the owner and group itself.
    [[nodiscard]] static bool setAttribute(const std::string& path, mode_t mode,
                                           const std::optional<std::string>& userName,
                                           const std::optional<std::string>& groupName);
    // Sets the modification time of an existing file to now; false for a missing file.
    [[nodiscard]] static bool touchFile(const std::string& path);

    // After something went away from folder: removes the folder and its parents while they
    // are empty (or hold only ".DS_Store" when removeDSStore), inside the enclosing bundle
    // when onlyDirsInBundle, never a protected folder. Always true.
    bool cleanupEmptyParentDir(const std::string& folder, bool removeDSStore,
                               bool onlyDirsInBundle) const;
    // Creates every missing folder of the path; false after "Failed to create directory: %@".
    [[nodiscard]] static bool createDirectoryAtPath(const std::string& path, bool intermediate);

    // True when the run's patch-history handler exists and its mode is repair.
    static bool RepairModeOfThisRun();

    // Path helpers, as the manifest's paths are joined.
    static std::string JoinPath(const std::string& folder, const std::string& name);
    static std::string ParentPath(const std::string& path);
    static std::string LastPathComponent(const std::string& path);
    // The path with every symbolic link of its existing part resolved; the missing rest is
    // appended as it is.
    static std::string ResolveSymlinksInPath(const std::string& path);

    // Copies a regular file (streamed through a fixed buffer, mode and modification time
    // kept) or a symbolic link (as a link). Fails when something is at the destination; a
    // partly written copy is removed. With sync the copy is on disk before returning. With
    // rememberChecksum the bytes are checksummed as they pass, and MD5cksum answers for both
    // files without reading them again (see MD5cksum::rememberChecksumOfFile).
    [[nodiscard]] static bool copyItem(const std::string& source, const std::string& destination,
                                       bool sync, bool rememberChecksum = false);
    // Removes a file, a link (not what it points to) or a folder with all it holds.
    [[nodiscard]] static bool removeItem(const std::string& path);
    // Renames, or copies and removes across file systems. Fails when the target exists.
    [[nodiscard]] static bool moveItem(const std::string& source, const std::string& target);

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
    std::unique_ptr<RollBackHandler> _rollBackHandler;
    // The file being patched, in memory kept from one patched file to the next.
    std::unique_ptr<BspatchOldFile> _patchOldFile;
    bool _isRepairMode = false;
    bool _writeUndo = false;
    AllowsReplaceFunction _allowsReplace;
    std::vector<std::string> _protectedFolders;
};
