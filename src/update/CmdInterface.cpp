#include "update/CmdInterface.h"

#include "base/Path.h"
#include "patch/Bspatch.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/MD5cksum.h"
#include "update/PatchApplication.h"
#include "update/RollBackHandler.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sys/stat.h>

namespace {

bool IsKeyword(const std::string& operation, const char* keyword) {
    return EqualsIgnoringCase(operation, keyword);
}

// The checksum of a file matches a manifest checksum. A file without a checksum (missing,
// unreadable) matches nothing.
bool ChecksumMatches(const std::optional<std::string>& checksum, const std::string& manifest) {
    return checksum && EqualsIgnoringCase(*checksum, manifest);
}

std::string ChecksumText(const std::optional<std::string>& checksum) {
    return checksum ? *checksum : std::string("(null)");
}

void LogNoNeed(const FileOperationInfo& info) {
    NSLevelledLog(0, "No need to perform \"%@\" file Operation", info.Operation);
}

void LogSuccess(const FileOperationInfo& info) {
    NSLevelledLog(3, "Successfully performed \"%@\" file Operation", info.Operation);
}

} // namespace

CmdInterface::CmdInterface(std::string payloadDir, std::string resDir,
                           std::optional<std::string> backupDir, Options options)
    : _backupDir(std::move(backupDir)), _payloadDir(std::move(payloadDir)),
      _resourceDir(std::move(resDir)),
      _fs(options.fileSystem ? options.fileSystem : &RealFileSystem::instance()), _files(*_fs),
      _isRepairMode(options.isRepairMode.value_or(false)),
      _allowsReplace(std::move(options.fileVersionCompareAllowsReplace)),
      _protectedFolders(std::move(options.protectedFolders)) {
    if (_backupDir) {
        _rollBackHandler = std::make_unique<RollBackHandler>(*_backupDir, *_fs);
        _writeUndo = true;
    }
    NSLevelledLog(3, "init CmdInterface");
}

CmdInterface::~CmdInterface() = default;

void CmdInterface::setUndoEnvironment() {
    _writeUndo = false;
    if (_backupDir)
        _payloadDir = *_backupDir;
}

std::string CmdInterface::sourcePath(const FileOperationInfo& info) const {
    return JoinPath(_payloadDir, info.ObjectName);
}

bool CmdInterface::allowsReplace(const std::string& newFile,
                                 const std::string& installedFile) const {
    if (_allowsReplace)
        return _allowsReplace(newFile, installedFile);
    return FileVersionCompareAllowsReplace(newFile, installedFile);
}

// ---------------------------------------------------------------------------------------
// Dispatch

int32_t CmdInterface::performFileUpdationWithInfo(const FileOperationInfo& info) {
    const bool touchWanted = EqualsIgnoringCase(info.Touch, "TRUE");
    if (_writeUndo && _rollBackHandler) {
        // A backup that cannot be made is logged by the journal; the change goes on, it
        // just cannot be undone.
        (void)_rollBackHandler->backupFileOperation(info);
    }

    const std::string& operation = info.Operation;
    int32_t result = 0;
    bool touchDone = false;
    if (IsKeyword(operation, "ADD")) {
        result = addFileOperation(info);
    } else if (IsKeyword(operation, "REMOVE")) {
        result = removeFileOperation(info);
    } else if (IsKeyword(operation, "OVERWRITE")) {
        result = overwriteFileOperation(info);
    } else if (IsKeyword(operation, "BLINDOVERWRITE")) {
        result = blindOverwriteFileOperation(info);
    } else if (IsKeyword(operation, "PATCH")) {
        result = patchFileOperation(info);
    } else if (IsKeyword(operation, "RENAME")) {
        result = renameFileOperation(info);
    } else if (IsKeyword(operation, "CHANGEPERM")) {
        NSLevelledLog(3, "TBD");
    } else if (IsKeyword(operation, "CREATELINK")) {
        NSLevelledLog(3, "Dont care if remove operation failed here.");
        const bool oldRemoved = _files.removeItem(info.DestinationPath);
        result = createLinkOperation(info);
        if (result != 0 && oldRemoved)
            writeUndoForFileSetOperation(info); // the journal puts the old item back
    } else if (IsKeyword(operation, "REMOVELINK")) {
        result = removeFileOperation(info);
    } else if (IsKeyword(operation, "TOUCH")) {
        result = touchFileOperation(info);
        touchDone = true;
    } else if (IsKeyword(operation, "IGNORE")) {
        NSLevelledLog(3, "TBD");
    }

    if (result != 0) {
        NSLevelledLog(3, "Failed to perform \"%@\" file Operation", operation);
        return result;
    }
    if (touchWanted && !touchDone) {
        if (!_files.touchFile(info.DestinationPath)) {
            NSLevelledLog(3, "Failed to perform touch file Operation");
            return 1;
        }
        NSLevelledLog(3, "Successfully performed touch file Operation");
    }
    return setAttributeForFile(info);
}

int32_t CmdInterface::writeUndoForFileSetOperation(const FileOperationInfo& info) {
    if (_writeUndo && _rollBackHandler) {
        // The change itself is done; a journal that cannot be written is reported by the
        // journal and does not undo the change.
        (void)_rollBackHandler->addUndoFileCommand(info);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------
// File operations

int32_t CmdInterface::addFileOperation(const FileOperationInfo& info) {
    const std::string source = sourcePath(info);
    const std::string& destination = info.DestinationPath;
    NSLevelledLog(3, "Copying file \"%@\" to \"%@\" during perform.", source, destination);

    const std::string folder = ParentPath(destination);
    // Folders made for the new file go again when it cannot be added: nothing journals them.
    FileManager::MadeFolders made;
    if (!PathExists(folder)) {
        (void)_files.createDirectoryAtPath(folder, &made); // a failure shows in the copy below
    } else if (PathExists(destination)) {
        if (ChecksumMatches(MD5cksum::getMD5cksumOfFile(destination, *_fs), info.AfterPatch)) {
            NSLevelledLog(3, "File to add already exists. Need not add.");
            LogNoNeed(info);
            return 0;
        }
        // An existing, different file is never replaced by an addition.
        NSLevelledLog(3, "File copy operation failed.");
        return 1;
    }
    if (!_files.copyItem(source, destination, false, true)) {
        NSLevelledLog(3, "File copy operation failed.");
        _files.removeMadeFolders(made);
        return 1;
    }
    const auto checksum = MD5cksum::getMD5cksumOfFile(destination, *_fs);
    if (!ChecksumMatches(checksum, info.AfterPatch)) {
        NSLevelledLog(3, "CheckSum verification fail for file %@", destination);
        NSLevelledLog(3, "File Checksum \"%@\", checksum from manifest \"%@\".",
                      ChecksumText(checksum), info.AfterPatch);
        // The copy is in place all the same; journaling it lets the rollback take it away.
        writeUndoForFileSetOperation(info);
        return 1;
    }
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::removeFileOperation(const FileOperationInfo& info) {
    const std::string& destination = info.DestinationPath;
    const std::string folder = ParentPath(destination);
    // Reached through a link, the file may belong to something else than the application.
    if (folder != FileManager::ResolveSymlinksInPath(folder)) {
        NSLevelledLog(3, "Do not remove because intermediate path contains symlink.");
        LogNoNeed(info);
        return 0;
    }
    if (!PathExistsNoFollow(destination)) {
        NSLevelledLog(3, "File to delete does not exist");
        LogNoNeed(info);
        return 0;
    }
    NSLevelledLog(3, "Removing File \"%@\".", destination);
    if (!_files.removeItem(destination)) {
        NSLevelledLog(3, "File remove operation failed.");
        return 1;
    }
    _files.cleanupEmptyParentDir(folder, true, true, _protectedFolders);
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::overwriteFileOperation(const FileOperationInfo& info) {
    const std::string& destination = info.DestinationPath;
    NSLevelledLog(3, "Overwriting file \"%@\" ", destination);
    bool oldRemoved = false;
    if (!PathExists(destination)) {
        NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
    } else {
        const auto checksum = MD5cksum::getMD5cksumOfFile(destination, *_fs);
        if (ChecksumMatches(checksum, info.BeforePatch)) {
            if (!_files.removeItem(destination)) {
                NSLevelledLog(3, "File remove operation failed.");
                return 1;
            }
            oldRemoved = true;
        } else if (ChecksumMatches(checksum, info.AfterPatch)) {
            LogNoNeed(info);
            return 0;
        } else {
            NSLevelledLog(3, "Checksum verification fail for file %@", destination);
            NSLevelledLog(3,
                          "File Checksum \"%@\", preChecksum from manifest \"%@\", postChecksum "
                          "from manifest \"%@\".",
                          ChecksumText(checksum), info.BeforePatch, info.AfterPatch);
            return 1;
        }
    }
    return copyForOverwrite(info, oldRemoved);
}

int32_t CmdInterface::copyForOverwrite(const FileOperationInfo& info, bool oldRemoved) {
    const std::string source = sourcePath(info);
    const std::string& destination = info.DestinationPath;
    const std::string folder = ParentPath(destination);
    FileManager::MadeFolders made;
    if (!PathExists(folder))
        (void)_files.createDirectoryAtPath(folder, &made); // a failure shows in the copy below
    NSLevelledLog(3, "Copying file \"%@\" to \"%@\" during perform.", source, destination);
    if (!_files.copyItem(source, destination, false, true)) {
        NSLevelledLog(3, "File copy operation failed.");
        _files.removeMadeFolders(made);
        // The old file is gone all the same; the journal brings it back.
        if (oldRemoved)
            writeUndoForFileSetOperation(info);
        return 1;
    }
    const auto checksum = MD5cksum::getMD5cksumOfFile(destination, *_fs);
    if (!ChecksumMatches(checksum, info.AfterPatch)) {
        // The undo entry must match the file as it now is, or its replay would refuse to
        // put the old file back: journal the checksum the copy really has.
        FileOperationInfo written = info;
        written.AfterPatch = ChecksumText(checksum);
        writeUndoForFileSetOperation(written);
        NSLevelledLog(3, "Checksum verification fail for file %@", destination);
        NSLevelledLog(3,
                      "File Checksum \"%@\", preChecksum from manifest \"%@\", postChecksum from "
                      "manifest \"%@\".",
                      ChecksumText(checksum), info.BeforePatch, info.AfterPatch);
        return 1;
    }
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::blindOverwriteFileOperation(const FileOperationInfo& info) {
    const std::string& destination = info.DestinationPath;
    const std::string source = sourcePath(info);
    const bool hasOldPath = !IsAbsentField(info.RenamePath) && info.RenamePath != destination;
    NSLevelledLog(3, "Blind Overwriting file \"%@\" ", destination);

    // The installed file (at the destination, or at the old path when the file moves) is
    // replaced unless it is already the new file or its version is newer.
    auto replaceInstalled = [&](const std::string& installed) -> int32_t {
        const auto checksum = MD5cksum::getMD5cksumOfFile(installed, *_fs);
        if (ChecksumMatches(checksum, info.AfterPatch)) {
            LogNoNeed(info);
            return 0;
        }
        NSLevelledLog(3, "Checksum verification fail for file %@", installed);
        NSLevelledLog(3, "File Checksum \"%@\", postChecksum from manifest \"%@\".",
                      ChecksumText(checksum), info.AfterPatch);
        if (!allowsReplace(source, installed)) {
            LogNoNeed(info);
            return 0;
        }
        if (!_files.removeItem(installed)) {
            NSLevelledLog(3, "File remove operation failed.");
            return 1;
        }
        const int32_t added = addFileOperation(info);
        // The installed file is gone whatever the addition gave; journal that.
        writeUndoForFileSetOperation(info);
        return added;
    };

    if (!hasOldPath) {
        if (!PathExists(destination)) {
            NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
            return addFileOperation(info);
        }
        return replaceInstalled(destination);
    }

    const std::string& oldPath = info.RenamePath;
    bool destinationRemoveFailed = false;
    if (PathExistsNoFollow(destination) && !_files.removeItem(destination)) {
        NSLevelledLog(3, "File remove operation failed.");
        destinationRemoveFailed = true;
    }
    int32_t result = 0;
    if (!PathExists(oldPath)) {
        NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
        result = addFileOperation(info);
    } else {
        result = replaceInstalled(oldPath);
    }
    return destinationRemoveFailed ? 1 : result;
}

int32_t CmdInterface::patchFileOperation(const FileOperationInfo& info) {
    const std::string& fileToPatch = info.DestinationPath;
    const std::string output = JoinPath(_payloadDir, LastPathComponent(fileToPatch) + ".patched");
    const std::string patchTool = JoinPath(_resourceDir, "bspatch");
    const std::string patchFile = sourcePath(info);
    NSLevelledLog(3, "PatchTool : %@", patchTool);
    NSLevelledLog(3, "FileToPatch : %@", fileToPatch);
    NSLevelledLog(3, "OutPutFile : %@", output);
    NSLevelledLog(3, "PatchFile : %@", patchFile);

    if (!PathExists(fileToPatch)) {
        NSLevelledLog(3, "File to patch is not present");
        return 1;
    }
    struct stat oldInfo {};
    const bool haveOldMode = ::stat(fileToPatch.c_str(), &oldInfo) == 0;
    // Known without reading when the backup copy was just made from it.
    const auto checksum = MD5cksum::getMD5cksumOfFile(fileToPatch, *_fs);
    if (!ChecksumMatches(checksum, info.BeforePatch)) {
        if (ChecksumMatches(checksum, info.AfterPatch)) {
            LogNoNeed(info);
            return 0;
        }
        NSLevelledLog(3, "CheckSum verification fail for file %@", fileToPatch);
        NSLevelledLog(3, "File Checksum \"%@\", checksum from manifest \"%@\".",
                      ChecksumText(checksum), info.BeforePatch);
        return 1;
    }

    // An output left by an earlier run must not pass for this run's result.
    (void)_files.removeItem(output);
    std::optional<std::string> patchedChecksum;
    if (!_patchOldFile)
        _patchOldFile = std::make_unique<BspatchOldFile>();
    bool oldRead = false;
    try {
        oldRead = _patchOldFile->read(fileToPatch);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (oldRead)
        patchedChecksum =
            ApplyPatchToFile(*_fs, _patchOldFile->bytes(), patchFile, patchTool, output);
    else
        NSLevelledLog(3, "%@: %s: %@: %s", patchTool,
                      DescribeBspatchResult(BspatchResult::OldFileUnreadable), fileToPatch,
                      std::strerror(errno));
    if (!PathExists(output)) {
        NSLevelledLog(3, "Unable to apply patch.");
        return 1;
    }
    if (!ChecksumMatches(patchedChecksum, info.AfterPatch)) {
        NSLevelledLog(3, "CheckSum after patch operation not validated for file %@", fileToPatch);
        NSLevelledLog(3, "Patched file Checksum \"%@\", checksum from manifest \"%@\".",
                      ChecksumText(patchedChecksum), info.AfterPatch);
        return 1;
    }
    if (!_files.removeItem(fileToPatch)) {
        NSLevelledLog(3, "Failed to remove the file");
        return 1;
    }
    const bool copied = _files.copyItem(output, fileToPatch, false);
    if (copied && haveOldMode) {
        // A patched program stays a program: the new file keeps the mode of the one it
        // replaces rather than the mode the patch tool gave its output.
        (void)_fs->setMode(fileToPatch, oldInfo.st_mode & 07777);
    }
    writeUndoForFileSetOperation(info);
    if (!copied) {
        NSLevelledLog(3, "Fail to copy patched file to \"%@\", fileToPatch.", fileToPatch);
        return 1;
    }
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::renameFileOperation(const FileOperationInfo& info) {
    const std::string& fileToRename = info.DestinationPath;
    const std::string& target = info.RenamePath;
    NSLevelledLog(3, "FileToRename : %@", fileToRename);
    NSLevelledLog(3, "TargetFile : %@", target);
    if (IsAbsentField(target)) {
        // Without a target there is nowhere to move to; the marker is no path.
        NSLevelledLog(3, "File to be renamed has no target path.");
        return 1;
    }
    auto logChecksumFailure = [&](const std::string& path,
                                  const std::optional<std::string>& checksum) {
        NSLevelledLog(3, "CheckSum verification fail for file %@", path);
        NSLevelledLog(3, "File Checksum \"%@\", checksum from manifest \"%@\".",
                      ChecksumText(checksum), info.AfterPatch);
    };

    if (!PathExists(fileToRename)) {
        if (!PathExists(target)) {
            NSLevelledLog(3, "File to be renamed does not exist.");
            return 1;
        }
        const auto targetChecksum = MD5cksum::getMD5cksumOfFile(target, *_fs);
        if (ChecksumMatches(targetChecksum, info.AfterPatch)) {
            LogNoNeed(info); // renamed by an earlier run
            return 0;
        }
        logChecksumFailure(target, targetChecksum);
        return 1;
    }
    const auto checksum = MD5cksum::getMD5cksumOfFile(fileToRename, *_fs);
    if (!ChecksumMatches(checksum, info.AfterPatch)) {
        logChecksumFailure(fileToRename, checksum);
        return 1;
    }
    if (EqualsIgnoringCase(fileToRename, target)) {
        LogNoNeed(info);
        return 0;
    }

    const std::string oldFolder = ParentPath(fileToRename);
    bool moved = false;
    auto move = [&]() -> bool {
        const std::string targetFolder = ParentPath(target);
        FileManager::MadeFolders made;
        if (!PathExists(targetFolder))
            (void)_files.createDirectoryAtPath(targetFolder, &made); // shows in the move
        if (!_files.moveItem(fileToRename, target)) {
            NSLevelledLog(3, "File move operation failed.");
            _files.removeMadeFolders(made);
            return false;
        }
        moved = true;
        _files.cleanupEmptyParentDir(oldFolder, true, true, _protectedFolders);
        return true;
    };
    if (!PathExistsNoFollow(target)) {
        if (!move())
            return 1;
    } else if (!ChecksumMatches(MD5cksum::getMD5cksumOfFile(target, *_fs), info.AfterPatch)) {
        if (!_files.removeItem(target)) {
            NSLevelledLog(3, "File remove operation failed.");
            return 1;
        }
        if (!move())
            return 1;
    }
    // Otherwise the target is already the file: nothing moves and the old file stays.
    if (moved)
        writeUndoForFileSetOperation(info);
    const auto targetChecksum = MD5cksum::getMD5cksumOfFile(target, *_fs);
    if (!ChecksumMatches(targetChecksum, info.AfterPatch)) {
        logChecksumFailure(target, targetChecksum);
        return 1;
    }
    if (moved)
        LogSuccess(info);
    else
        LogNoNeed(info);
    return 0;
}

int32_t CmdInterface::createLinkOperation(const FileOperationInfo& info) {
    const std::string& content = info.RenamePath;
    const std::string& location = info.DestinationPath;
    NSLevelledLog(3, "Create link of : %@", content);
    NSLevelledLog(3, "Create link at : %@", location);
    const std::string folder = ParentPath(location);
    FileManager::MadeFolders made;
    if (!PathExists(folder))
        (void)_files.createDirectoryAtPath(folder, &made); // a failure shows in the link below
    if (IsAbsentField(content) || !_fs->symlink(content, location)) {
        NSLevelledLog(0, "Failed to create the symlink");
        _files.removeMadeFolders(made);
        return 1;
    }
    NSLevelledLog(3, "Link created successfully");
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::touchFileOperation(const FileOperationInfo& info) {
    if (!_files.touchFile(info.DestinationPath))
        return 1;
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

// ---------------------------------------------------------------------------------------
// Attributes and touch

int32_t CmdInterface::setAttributeForFile(const FileOperationInfo& info) const {
    _files.setAttributesOfRecord(info); // each failure is logged there
    return 0;
}

// ---------------------------------------------------------------------------------------
// Directories

int32_t CmdInterface::performDirectoryUpdationWithInfo(const DirectoryOperationInfo& info) {
    if (_writeUndo && _rollBackHandler) {
        // Journaled before the change, so a removal is recorded while the folder still
        // exists; a journal that cannot be written is reported there.
        if (IsKeyword(info.Operation, "ADD")) {
            // Every folder the ADD is about to create is undone, deepest first (the replay
            // runs entries in order and removes a folder only once it is empty); folders
            // that exist already are the old tree's and stay.
            for (std::string level = info.DirectoryBase;
                 level.size() > 1 && !PathExists(level) && level != ".";
                 level = ParentPath(level)) {
                DirectoryOperationInfo created = info;
                created.DirectoryBase = level;
                (void)_rollBackHandler->addUndoDirectoryCommand(created);
            }
        } else {
            (void)_rollBackHandler->addUndoDirectoryCommand(info);
        }
    }
    int32_t result = 0;
    if (IsKeyword(info.Operation, "ADD"))
        result = addDirectoryOperation(info);
    else if (IsKeyword(info.Operation, "REMOVE"))
        result = removeDirectoryOperation(info);
    if (result == 0)
        NSLevelledLog(3, "Successfully performed \"%@\" directory Operation", info.Operation);
    else
        NSLevelledLog(0, "Failed to perform \"%@\" directory Operation", info.Operation);
    return result;
}

int32_t CmdInterface::addDirectoryOperation(const DirectoryOperationInfo& info) {
    return _files.createDirectoryAtPath(info.DirectoryBase) ? 0 : 1;
}

int32_t CmdInterface::removeDirectoryOperation(const DirectoryOperationInfo& info) {
    const std::string& folder = info.DirectoryBase;
    NSLevelledLog(3, "Remove Directory \"%@\".", folder);
    if (!PathExists(folder)) {
        NSLevelledLog(1, "Minor Error. Directory \"%@\" to be deleted does not exist", folder);
        return 0;
    }
    if (!FolderExists(folder))
        NSLevelledLog(1, "Minor Error. Directory base is actually pointing to a file.");
    // Something that cannot be listed (a file) counts as holding nothing.
    const auto entries = _fs->listFolder(folder);
    if (entries && !entries->empty()) {
        NSLevelledLog(3, "Directory \"%@\" is not empty.", folder);
        return 0;
    }
    NSLevelledLog(3, "Removing Directory \"%@\".", folder);
    if (!_files.removeItem(folder)) {
        NSLevelledLog(3, "Directory remove operation failed.");
        return 1;
    }
    _files.cleanupEmptyParentDir(folder, true, true, _protectedFolders);
    return 0;
}
