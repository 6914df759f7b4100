#include "update/CmdInterface.h"

#include "base/Md5.h"
#include "base/Path.h"
#include "patch/Bspatch.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/HeldFileWriter.h"
#include "update/MD5cksum.h"
#include "update/PatchApplication.h"
#include "update/PatchPrefetcher.h"
#include "update/RollBackHandler.h"

#include <algorithm>
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

// A group waits for one sync at most this many entries, or this much new content, so that
// neither the sync nor the room the new files take beside the old ones grows without end.
constexpr size_t kGroupEntries = 256;
constexpr uint64_t kGroupBytes = 64ull << 20;

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
    bool prepare = false;
    // What the entry finds at its destination, when nothing changes it before the entry
    // starts.
    std::optional<Destination> found;
    if (_grouping && journaling() && groupable(info)) {
        // An entry on a path the group changes sees the group's changes made first; then it
        // may start a group of its own, if its folder is still there (a file found there
        // was reached through it).
        if (touchesGroup(info.DestinationPath) && finishGroup() != 0)
            return 1;
        found = lookAt(info.DestinationPath);
        prepare = found->there || FolderExists(ParentPath(info.DestinationPath));
    }
    if (!prepare) {
        if (finishGroup() != 0)
            return 1;
        found.reset(); // the group's changes may have changed it
    }
    _preparing = prepare;
    _entry = PreparedEntry{info.Operation, {}, {}, 0};
    if (_rollBackHandler) {
        _rollBackHandler->setDeferredSync(prepare);
        if (prepare) // the group's sync covers the journal's file system too
            _files.noteChangeAt(_rollBackHandler->rollBackFilePath());
    }
    const int32_t result = performEntry(info, found ? *found : lookAt(info.DestinationPath));
    _preparing = false;
    if (_rollBackHandler)
        _rollBackHandler->setDeferredSync(false);
    if (!prepare)
        return result;
    if (result != 0) {
        removeTemporaries(_entry);
        return result;
    }
    if (_entry.changes.empty())
        return 0; // nothing to change: nothing waits
    for (const std::string& path : {info.DestinationPath, info.RenamePath}) {
        if (!IsAbsentField(path))
            _groupPaths.insert(std::upper_bound(_groupPaths.begin(), _groupPaths.end(), path),
                               path);
    }
    _groupBytes += _entry.bytes;
    _group.push_back(std::move(_entry));
    if (_group.size() >= kGroupEntries || _groupBytes >= kGroupBytes)
        return finishGroup();
    return 0;
}

bool CmdInterface::groupable(const FileOperationInfo& info) {
    const std::string& operation = info.Operation;
    if (!IsKeyword(operation, "ADD") && !IsKeyword(operation, "REMOVE") &&
        !IsKeyword(operation, "OVERWRITE") && !IsKeyword(operation, "PATCH") &&
        !IsKeyword(operation, "BLINDOVERWRITE"))
        return false;
    // A move changes two places; new content for a folder that must be made first (checked
    // by the caller) needs a change of its own before it can be written.
    return IsAbsentField(info.RenamePath) || info.RenamePath == info.DestinationPath;
}

bool CmdInterface::touchesGroup(const std::string& path) const {
    // The path itself, something inside it, or a folder that holds it.
    if (std::binary_search(_groupPaths.begin(), _groupPaths.end(), path))
        return true;
    const std::string inside = path + "/";
    const auto next = std::lower_bound(_groupPaths.begin(), _groupPaths.end(), inside);
    if (next != _groupPaths.end() && next->compare(0, inside.size(), inside) == 0)
        return true;
    for (std::string folder = ParentPath(path); !folder.empty();) {
        if (std::binary_search(_groupPaths.begin(), _groupPaths.end(), folder))
            return true;
        const std::string up = ParentPath(folder);
        if (up == folder)
            break;
        folder = up;
    }
    return false;
}

bool CmdInterface::change(std::function<bool()> make) {
    if (!_preparing)
        return make();
    _entry.changes.push_back(std::move(make));
    return true;
}

int32_t CmdInterface::finishGroup() {
    if (_group.empty())
        return 0;
    // One sync for the whole group: every journal entry, backup and new file written for
    // it is on disk before the first of its changes is made.
    if (!_files.syncChangedFileSystems()) {
        NSLevelledLog(0, "Cannot sync the changes to the disk: %@",
                      std::string(std::strerror(errno)));
        dropGroup();
        return 1;
    }
    std::vector<PreparedEntry> group = std::move(_group);
    _group.clear();
    _groupPaths.clear();
    _groupBytes = 0;
    for (size_t index = 0; index < group.size(); ++index) {
        for (const auto& make : group[index].changes) {
            if (make())
                continue;
            NSLevelledLog(3, "Failed to perform \"%@\" file Operation", group[index].operation);
            for (size_t rest = index; rest < group.size(); ++rest)
                removeTemporaries(group[rest]);
            return 1;
        }
    }
    return 0;
}

void CmdInterface::dropGroup() {
    if (_group.empty())
        return;
    NSLevelledLog(3, "%d prepared changes not made", static_cast<int>(_group.size()));
    for (const PreparedEntry& entry : _group)
        removeTemporaries(entry);
    _group.clear();
    _groupPaths.clear();
    _groupBytes = 0;
}

void CmdInterface::removeTemporaries(const PreparedEntry& entry) const {
    for (const std::string& temporary : entry.temporaries)
        (void)_fs->removeFile(temporary); // gone already where it was placed
}

const CmdInterface::Destination* CmdInterface::foundAt(const std::string& path) const {
    return path == _entryDestination ? &_destination : nullptr;
}

void CmdInterface::notePlaced(const std::string& path, const std::string& checksum,
                              uint64_t entry) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return;
    MD5cksum::rememberChecksumOfFile(path, info, checksum); // a regular file's
    _placed = Placed{entry, info};
}

CmdInterface::Destination CmdInterface::lookAt(const std::string& path) {
    Destination found;
    found.there = ::lstat(path.c_str(), &found.state) == 0;
    return found;
}

int32_t CmdInterface::performEntry(const FileOperationInfo& info, const Destination& found) {
    const std::string& operation = info.Operation;
    const bool touchWanted = EqualsIgnoringCase(info.Touch, "TRUE");
    _undoWritten = false;
    ++_entries;
    _destination = found;
    _entryDestination = info.DestinationPath;
    _linkedBackup.reset();
    _files.noteChangeAt(info.DestinationPath);
    if (!IsAbsentField(info.RenamePath))
        _files.noteChangeAt(info.RenamePath);
    if (journaling()) {
        // Every entry keeps what it may change under a name of its own, so that two entries
        // on one file keep both states. A state that cannot be kept fails the entry before
        // anything changes.
        _backupName = nextBackupName(info.DestinationPath, info.ObjectName);
        FileOperationInfo kept = info;
        kept.ObjectName = _backupName;
        if (_rollBackHandler->backupFileOperation(kept, found.there ? &found.state : nullptr,
                                                  &_linkedBackup) != 0) {
            NSLevelledLog(3, "Failed to perform \"%@\" file Operation", operation);
            return 1;
        }
    } else {
        // A replay: what an interrupted change left beside the file goes first.
        _files.removeTemporaryOf(info.DestinationPath);
        if (IsKeyword(operation, "RENAME") && !IsAbsentField(info.RenamePath))
            _files.removeTemporaryOf(info.RenamePath);
    }

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
        // The journal puts the old item back whatever happens to the link.
        if (writeUndoForFileSetOperation(info) != 0) {
            result = 1;
        } else {
            NSLevelledLog(3, "Dont care if remove operation failed here.");
            (void)_files.removeItem(info.DestinationPath);
            result = createLinkOperation(info);
        }
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
        const bool touched = change([this, destination = info.DestinationPath] {
            if (!_files.touchFile(destination)) {
                NSLevelledLog(3, "Failed to perform touch file Operation");
                return false;
            }
            NSLevelledLog(3, "Successfully performed touch file Operation");
            return true;
        });
        if (!touched)
            return 1;
    }
    // Owner, group and mode of a file that was there before are journaled before they
    // change, unless the entry's change has journaled the file already.
    const bool setsAttributes = !IsAbsentField(info.UserID) || !IsAbsentField(info.GroupID) ||
                                !IsAbsentField(info.Permission);
    if (setsAttributes && found.there && !_undoWritten) {
        FileOperationInfo attributes = info;
        attributes.Operation = "CHANGEPERM";
        if (writeUndoForFileSetOperation(attributes) != 0)
            return 1;
    }
    if (!setsAttributes)
        return 0;
    return change([this, info, entry = _entries] {
        const bool placedHere = _placed && _placed->entry == entry;
        return setAttributeForFile(info, placedHere ? &_placed->state : nullptr) == 0;
    })
               ? 0
               : 1;
}

bool CmdInterface::journaling() const {
    return _writeUndo && _rollBackHandler;
}

std::string CmdInterface::nextBackupName(const std::string& path, const std::string& objectName) {
    const std::string name = IsAbsentField(objectName) || objectName.empty()
                                 ? LastPathComponent(path)
                                 : LastPathComponent(objectName);
    return std::to_string(++_backupCount) + "-" + name;
}

int32_t CmdInterface::writeUndoForFileSetOperation(const FileOperationInfo& info) {
    if (!journaling() || _undoWritten)
        return 0;
    FileOperationInfo undo = info;
    undo.ObjectName = _backupName;
    if (!_rollBackHandler->addUndoFileCommand(undo, _linkedBackup ? &*_linkedBackup : nullptr))
        return 1; // logged by the journal; the change is not made
    _undoWritten = true;
    return 0;
}

int32_t CmdInterface::journalRemovalOf(const std::string& path, const FileOperationInfo& info) {
    if (!journaling())
        return 0;
    FileOperationInfo removal = info;
    removal.Operation = "REMOVE";
    removal.DestinationPath = path;
    removal.RenamePath = kAbsentMarker;
    removal.ObjectName = nextBackupName(path, kAbsentMarker);
    if (_rollBackHandler->backupFileOperation(removal) != 0 ||
        !_rollBackHandler->addUndoFileCommand(removal))
        return 1;
    return 0;
}

CmdInterface::Installed CmdInterface::installCopy(const std::string& source,
                                                  const std::string& destination,
                                                  const std::string& expected,
                                                  std::optional<std::string>& checksum) {
    const std::string temporary = FileManager::TemporaryPathFor(destination);
    UniqueFd writtenAhead =
        _heldFilesAhead ? _heldFilesAhead->take(source, ParentPath(destination)) : UniqueFd();
    // The copy's state as the copy left it (or looked at here when it did not tell).
    struct stat copied {};
    // The copy never writes over a name that is there: what an interrupted change left
    // under the temporary's name goes first, found by the copy's failure.
    if (!_files.copyItem(source, temporary, !_preparing, true, std::move(writtenAhead), &copied) &&
        (errno != EEXIST || !_files.removeTemporaryOf(destination) ||
         !_files.copyItem(source, temporary, !_preparing, true, UniqueFd(), &copied)))
        return Installed::CopyFailed;
    // Known from the copy itself; read again only when the copy could not tell.
    if (copied.st_nlink != 0 || ::stat(temporary.c_str(), &copied) == 0) {
        checksum = MD5cksum::rememberedChecksumOfFile(temporary, copied);
        _entry.bytes += static_cast<uint64_t>(copied.st_size);
    }
    if (_preparing)
        _entry.temporaries.push_back(temporary);
    if (!checksum)
        checksum = Md5OfFile(temporary);
    (void)MD5cksum::logChecksumOfFile(destination, checksum);
    if (!ChecksumMatches(checksum, expected)) {
        (void)_fs->removeFile(temporary);
        return Installed::ChecksumFailed;
    }
    const bool placed = change([this, temporary, destination, known = *checksum, entry = _entries] {
        _placed.reset();
        if (!_files.replaceWith(temporary, destination)) {
            const int error = errno;
            (void)_fs->removeFile(temporary);
            errno = error;
            NSLevelledLog(3, "File copy operation failed.");
            return false;
        }
        notePlaced(destination, known, entry);
        return true;
    });
    return placed ? Installed::Done : Installed::Placing;
}

// ---------------------------------------------------------------------------------------
// File operations

int32_t CmdInterface::addFileOperation(const FileOperationInfo& info) {
    const std::string& destination = info.DestinationPath;
    if (PathExists(ParentPath(destination)) && PathExists(destination)) {
        const std::string source = sourcePath(info);
        NSLevelledLog(3, "Copying file \"%@\" to \"%@\" during perform.", source, destination);
        if (ChecksumMatches(MD5cksum::getMD5cksumOfFile(destination, *_fs), info.AfterPatch)) {
            NSLevelledLog(3, "File to add already exists. Need not add.");
            LogNoNeed(info);
            return 0;
        }
        // An existing, different file is never replaced by an addition.
        NSLevelledLog(3, "File copy operation failed.");
        return 1;
    }
    if (writeUndoForFileSetOperation(info) != 0)
        return 1;
    return installNewFile(info, false);
}

int32_t CmdInterface::installNewFile(const FileOperationInfo& info, bool replacing) {
    const std::string source = sourcePath(info);
    const std::string& destination = info.DestinationPath;
    NSLevelledLog(3, "Copying file \"%@\" to \"%@\" during perform.", source, destination);
    const std::string folder = ParentPath(destination);
    // Folders made for the new file go again when it cannot be put in place.
    FileManager::MadeFolders made;
    // A destination the entry found there has its folder.
    const Destination* found = foundAt(destination);
    const bool folderThere = (found && found->there) || PathExists(folder);
    if (!folderThere)
        (void)_files.createDirectoryAtPath(folder, &made); // a failure shows in the copy below
    std::optional<std::string> checksum;
    switch (installCopy(source, destination, info.AfterPatch, checksum)) {
    case Installed::Done:
        return change([info] {
            LogSuccess(info);
            return true;
        })
                   ? 0
                   : 1;
    case Installed::Placing:
        break; // logged where the placing failed
    case Installed::CopyFailed:
        NSLevelledLog(3, "File copy operation failed.");
        break;
    case Installed::ChecksumFailed:
        if (replacing) {
            NSLevelledLog(3, "Checksum verification fail for file %@", destination);
            NSLevelledLog(3,
                          "File Checksum \"%@\", preChecksum from manifest \"%@\", postChecksum "
                          "from manifest \"%@\".",
                          ChecksumText(checksum), info.BeforePatch, info.AfterPatch);
        } else {
            NSLevelledLog(3, "CheckSum verification fail for file %@", destination);
            NSLevelledLog(3, "File Checksum \"%@\", checksum from manifest \"%@\".",
                          ChecksumText(checksum), info.AfterPatch);
        }
        break;
    }
    _files.removeMadeFolders(made);
    return 1;
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
    // The entry looked at the destination as it started; nothing has changed it since.
    const Destination* found = foundAt(destination);
    if (!(found ? found->there : PathExistsNoFollow(destination))) {
        NSLevelledLog(3, "File to delete does not exist");
        LogNoNeed(info);
        return 0;
    }
    if (writeUndoForFileSetOperation(info) != 0)
        return 1;
    // What the entry found there and is not a folder goes by its name (a folder put there
    // since fails the removal); anything else is looked at when it goes.
    const bool notFolder = found && found->there && !S_ISDIR(found->state.st_mode);
    return change([this, info, folder, notFolder] {
        NSLevelledLog(3, "Removing File \"%@\".", info.DestinationPath);
        if (!(notFolder ? _fs->removeFile(info.DestinationPath)
                        : _files.removeItem(info.DestinationPath))) {
            NSLevelledLog(3, "File remove operation failed.");
            return false;
        }
        _files.cleanupEmptyParentDir(folder, true, true, _protectedFolders);
        LogSuccess(info);
        return true;
    })
               ? 0
               : 1;
}

int32_t CmdInterface::overwriteFileOperation(const FileOperationInfo& info) {
    const std::string& destination = info.DestinationPath;
    NSLevelledLog(3, "Overwriting file \"%@\" ", destination);
    // A file backed up by a second name was looked at right after: both names are that file.
    struct stat installed {};
    const bool linked = _linkedBackup && foundAt(destination);
    if (linked)
        installed = *_linkedBackup;
    if (!linked && ::stat(destination.c_str(), &installed) != 0) {
        NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
    } else {
        const auto checksum = MD5cksum::getMD5cksumOfFile(destination, *_fs, installed);
        if (!ChecksumMatches(checksum, info.BeforePatch)) {
            if (ChecksumMatches(checksum, info.AfterPatch)) {
                LogNoNeed(info);
                return 0;
            }
            NSLevelledLog(3, "Checksum verification fail for file %@", destination);
            NSLevelledLog(3,
                          "File Checksum \"%@\", preChecksum from manifest \"%@\", postChecksum "
                          "from manifest \"%@\".",
                          ChecksumText(checksum), info.BeforePatch, info.AfterPatch);
            return 1;
        }
    }
    if (writeUndoForFileSetOperation(info) != 0)
        return 1;
    return installNewFile(info, true);
}

int32_t CmdInterface::blindOverwriteFileOperation(const FileOperationInfo& info) {
    const std::string& destination = info.DestinationPath;
    const std::string source = sourcePath(info);
    const bool hasOldPath = !IsAbsentField(info.RenamePath) && info.RenamePath != destination;
    NSLevelledLog(3, "Blind Overwriting file \"%@\" ", destination);
    // The journal's entries are about the destination; the old path has an entry of its own.
    FileOperationInfo atDestination = info;
    atDestination.RenamePath = kAbsentMarker;

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
        if (installed != destination) {
            // The file at its old path goes; the new one comes to the destination.
            if (journalRemovalOf(installed, info) != 0 ||
                writeUndoForFileSetOperation(atDestination) != 0)
                return 1;
            if (!_files.removeItem(installed)) {
                NSLevelledLog(3, "File remove operation failed.");
                return 1;
            }
        } else if (writeUndoForFileSetOperation(atDestination) != 0) {
            return 1;
        }
        return installNewFile(info, false);
    };

    if (!hasOldPath) {
        if (!PathExists(destination)) {
            NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
            return addFileOperation(atDestination);
        }
        return replaceInstalled(destination);
    }

    const std::string& oldPath = info.RenamePath;
    bool destinationRemoveFailed = false;
    if (PathExistsNoFollow(destination)) {
        if (writeUndoForFileSetOperation(atDestination) != 0)
            return 1;
        if (!_files.removeItem(destination)) {
            NSLevelledLog(3, "File remove operation failed.");
            destinationRemoveFailed = true;
        }
    }
    int32_t result = 0;
    if (!PathExists(oldPath)) {
        NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
        result = addFileOperation(atDestination);
    } else {
        result = replaceInstalled(oldPath);
    }
    return destinationRemoveFailed ? 1 : result;
}

int32_t CmdInterface::patchFileOperation(const FileOperationInfo& info) {
    const std::string& fileToPatch = info.DestinationPath;
    const std::string output = FileManager::TemporaryPathFor(fileToPatch);
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
    if (writeUndoForFileSetOperation(info) != 0)
        return 1;

    // The new file is written beside the old one and renamed over it once it is whole and
    // checked. A patched program stays a program: it gets the mode of the file it replaces.
    _files.removeTemporaryOf(fileToPatch);
    const mode_t mode = haveOldMode ? (oldInfo.st_mode & 07777) : 0644;
    std::optional<std::string> patchedChecksum;
    if (auto madeAhead =
            _patchesAhead ? _patchesAhead->take(fileToPatch, patchFile) : std::nullopt) {
        patchedChecksum = WritePatchedFile(*_fs, *madeAhead, patchTool, output, mode, !_preparing);
    } else {
        if (!_patchOldFile)
            _patchOldFile = std::make_unique<BspatchOldFile>();
        bool oldRead = false;
        try {
            oldRead = _patchOldFile->read(fileToPatch);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
        }
        if (oldRead)
            patchedChecksum = ApplyPatchToFile(*_fs, _patchOldFile->bytes(), patchFile, patchTool,
                                               output, mode, !_preparing);
        else
            NSLevelledLog(3, "%@: %s: %@: %s", patchTool,
                          DescribeBspatchResult(BspatchResult::OldFileUnreadable), fileToPatch,
                          std::strerror(errno));
    }
    struct stat written {};
    if (::lstat(output.c_str(), &written) != 0) {
        NSLevelledLog(3, "Unable to apply patch.");
        return 1;
    }
    if (_preparing) {
        _entry.temporaries.push_back(output);
        _entry.bytes += static_cast<uint64_t>(written.st_size);
    }
    if (!ChecksumMatches(patchedChecksum, info.AfterPatch)) {
        NSLevelledLog(3, "CheckSum after patch operation not validated for file %@", fileToPatch);
        NSLevelledLog(3, "Patched file Checksum \"%@\", checksum from manifest \"%@\".",
                      ChecksumText(patchedChecksum), info.AfterPatch);
        (void)_fs->removeFile(output);
        return 1;
    }
    return change([this, info, output, known = *patchedChecksum, entry = _entries] {
        _placed.reset();
        const std::string& fileToPatch = info.DestinationPath;
        if (!_files.replaceWith(output, fileToPatch)) {
            (void)_fs->removeFile(output);
            NSLevelledLog(3, "Fail to copy patched file to \"%@\", fileToPatch.", fileToPatch);
            return false;
        }
        notePlaced(fileToPatch, known, entry);
        LogSuccess(info);
        return true;
    })
               ? 0
               : 1;
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
        if (writeUndoForFileSetOperation(info) != 0)
            return false;
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
        // What is at the target goes first; the journal puts it back after moving the file
        // back.
        if (journalRemovalOf(target, info) != 0)
            return 1;
        if (!_files.removeItem(target)) {
            NSLevelledLog(3, "File remove operation failed.");
            return 1;
        }
        if (!move())
            return 1;
    }
    // Otherwise the target is already the file: nothing moves and the old file stays.
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
    if (writeUndoForFileSetOperation(info) != 0)
        return 1;
    const std::string folder = ParentPath(location);
    FileManager::MadeFolders made;
    if (!PathExists(folder))
        (void)_files.createDirectoryAtPath(folder, &made); // a failure shows in the link below
    if (IsAbsentField(content) || !_fs->symlink(content, location) ||
        !_fs->syncFolder(ParentPath(location))) {
        NSLevelledLog(0, "Failed to create the symlink");
        _files.removeMadeFolders(made);
        return 1;
    }
    NSLevelledLog(3, "Link created successfully");
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::touchFileOperation(const FileOperationInfo& info) {
    if (!PathExists(info.DestinationPath))
        return 1;
    if (writeUndoForFileSetOperation(info) != 0 || !_files.touchFile(info.DestinationPath))
        return 1;
    LogSuccess(info);
    return 0;
}

// ---------------------------------------------------------------------------------------
// Attributes and touch

int32_t CmdInterface::setAttributeForFile(const FileOperationInfo& info,
                                          const struct stat* placed) const {
    // Each failure is logged there. One the disk refused fails the entry, so that the
    // update is rolled back rather than left with half of its attributes.
    return _files.setAttributesOfRecord(info, placed) ? 0 : 1;
}

// ---------------------------------------------------------------------------------------
// Directories

int32_t CmdInterface::performDirectoryUpdationWithInfo(const DirectoryOperationInfo& info) {
    if (finishGroup() != 0)
        return 1;
    _files.noteChangeAt(info.DirectoryBase);
    if (_writeUndo && _rollBackHandler) {
        // Journaled before the change, so a removal is recorded while the folder still
        // exists; a journal that cannot be written fails the entry before any change.
        if (IsKeyword(info.Operation, "ADD")) {
            // Every folder the ADD is about to create is undone, outermost first: the replay
            // runs the entries last first and removes a folder only once it is empty.
            // Folders that exist already are the old tree's and stay.
            std::vector<std::string> missing;
            for (std::string level = info.DirectoryBase;
                 level.size() > 1 && !PathExists(level) && level != "."; level = ParentPath(level))
                missing.push_back(level);
            for (auto level = missing.rbegin(); level != missing.rend(); ++level) {
                DirectoryOperationInfo created = info;
                created.DirectoryBase = *level;
                if (!_rollBackHandler->addUndoDirectoryCommand(created))
                    return 1;
            }
        } else if (!_rollBackHandler->addUndoDirectoryCommand(info)) {
            return 1;
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
