#include "update/CmdInterface.h"

#include "run/CommonUtility.h"

#include "base/FileUtil.h"
#include "base/Md5.h"
#include "bspatch/Bspatch.h"
#include "run/LoggerUtility.h"
#include "target/OrvelCodeFileHandler.h"
#include "update/MD5cksum.h"
#include "update/PipelinedWriter.h"
#include "update/RollBackHandler.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <memory>
#include <new>
#include <pwd.h>
#include <span>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kCopyBufferSize = 256 * 1024;
constexpr size_t kSendFileChunk = 8 * 1024 * 1024;
// Patched files from this size on are written on a second thread.
constexpr size_t kPipelinedPatchSize = 1024 * 1024;

bool Exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool ExistsNoFollow(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

bool IsDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

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

// The entries of a folder, without "." and "..". Nothing when it cannot be listed.
std::optional<std::vector<std::string>> FolderEntries(const std::string& path) {
    struct DirCloser {
        void operator()(DIR* dir) const { ::closedir(dir); }
    };
    std::unique_ptr<DIR, DirCloser> dir(::opendir(path.c_str()));
    if (!dir)
        return std::nullopt;
    std::vector<std::string> entries;
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            entries.push_back(name);
    }
    return entries;
}

// The extension of a file name as the platform's path functions see it: the text after the
// last dot, when the dot is neither the first nor the last character.
std::string PathExtension(const std::string& name) {
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size())
        return {};
    return name.substr(dot + 1);
}

// The manifest writes a mode as the digits of its octal form ("755"). The text is read as
// a decimal number first and its digits are then taken as octal digits, up to the first
// digit that is not one; 0 means no change.
mode_t ModeFromPermissionText(const std::string& text) {
    const long decimal = std::strtol(text.c_str(), nullptr, 10);
    if (decimal <= 0)
        return 0;
    const std::string digits = std::to_string(decimal);
    const long octal = std::strtol(digits.c_str(), nullptr, 8);
    if (octal <= 0 || octal > 07777)
        return 0;
    return static_cast<mode_t>(octal);
}

std::optional<std::string> UserNameOf(uid_t uid) {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result) != 0 || !result)
        return std::nullopt;
    return std::string(result->pw_name);
}

std::optional<std::string> GroupNameOf(gid_t gid) {
    std::vector<char> buffer(16384);
    group entry{};
    group* result = nullptr;
    if (::getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &result) != 0 || !result)
        return std::nullopt;
    return std::string(result->gr_name);
}

bool IsAllDigits(const std::string& text) {
    if (text.empty())
        return false;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
    }
    return true;
}

// An account name, or a numeric id when no account has that name.
std::optional<uid_t> UserIdOf(const std::string& name) {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &result) == 0 && result)
        return result->pw_uid;
    if (IsAllDigits(name))
        return static_cast<uid_t>(std::strtoul(name.c_str(), nullptr, 10));
    return std::nullopt;
}

std::optional<gid_t> GroupIdOf(const std::string& name) {
    std::vector<char> buffer(16384);
    group entry{};
    group* result = nullptr;
    if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &result) == 0 && result)
        return result->gr_gid;
    if (IsAllDigits(name))
        return static_cast<gid_t>(std::strtoul(name.c_str(), nullptr, 10));
    return std::nullopt;
}

// Copies what is left of in to out inside the kernel; false with errno set. EINVAL and
// ENOSYS mean the files do not allow it, before anything was copied.
bool SendFileData(int in, int out) {
    for (;;) {
        const ssize_t sent = ::sendfile(out, in, nullptr, kSendFileChunk);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return false;
        if (sent == 0)
            return true;
    }
}

// Copies what is left of in to out through memory, handing every piece to digest if given.
bool CopyData(int in, int out, Md5Stream* digest) {
    const auto buffer = std::make_unique_for_overwrite<char[]>(kCopyBufferSize);
    for (;;) {
        const ssize_t got = ::read(in, buffer.get(), kCopyBufferSize);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        if (digest)
            digest->update(buffer.get(), static_cast<size_t>(got));
        if (!WriteAll(out, buffer.get(), static_cast<size_t>(got)))
            return false;
    }
}

bool CopyRegularFile(const std::string& source, const std::string& destination,
                     const struct stat& sourceInfo, bool sync, bool rememberChecksum) {
    UniqueFd in(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!in.valid())
        return false;
    UniqueFd out(
        ::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0600));
    if (!out.valid())
        return false;
    // From here on a failure must not leave a partial file behind.
    auto discard = [&] {
        out.reset();
        ::unlink(destination.c_str());
        return false;
    };
    // Both ends hold the bytes copied, so their checksum is known while neither changes:
    // taken from the source when it is known already, else computed on the way.
    std::optional<std::string> known;
    std::optional<Md5Stream> digest;
    struct stat opened {};
    if (rememberChecksum && ::fstat(in.get(), &opened) == 0 &&
        MD5cksum::sameFileState(sourceInfo, opened))
        known = MD5cksum::rememberedChecksumOfFile(source, opened);
    if (rememberChecksum && !known)
        digest.emplace();
    bool copied = false;
    if (!digest) {
        copied = SendFileData(in.get(), out.get());
        if (!copied && (errno == EINVAL || errno == ENOSYS))
            copied = CopyData(in.get(), out.get(), nullptr); // nothing was sent
    } else {
        copied = CopyData(in.get(), out.get(), &*digest);
    }
    if (!copied)
        return discard();
    if (::fchmod(out.get(), sourceInfo.st_mode & 07777) != 0)
        return discard();
    const timespec times[2] = {sourceInfo.st_atim, sourceInfo.st_mtim};
    ::futimens(out.get(), times); // a copy with today's date is still a good copy
    if (sync && ::fsync(out.get()) != 0)
        return discard();
    // The source counts only if it did not change while it was read.
    struct stat sourceAfter {};
    struct stat copyInfo {};
    const bool remember = rememberChecksum && ::fstat(in.get(), &sourceAfter) == 0 &&
                          MD5cksum::sameFileState(sourceInfo, sourceAfter) &&
                          ::fstat(out.get(), &copyInfo) == 0;
    if (::close(out.release()) != 0) {
        ::unlink(destination.c_str());
        return false;
    }
    if (remember) {
        if (digest)
            known = digest->finish();
        if (known) {
            MD5cksum::rememberChecksumOfFile(destination, copyInfo, *known);
            MD5cksum::rememberChecksumOfFile(source, sourceAfter, *known);
        }
    }
    return true;
}

// Writes output from oldData and patchFile; the output's checksum, or nothing (and no output
// file) when the patch could not be applied.
std::optional<std::string> ApplyPatch(std::span<const uint8_t> oldData,
                                      const std::string& patchFile, const std::string& patchTool,
                                      const std::string& output) {
    // The bundle's bspatch tool is linked in: the same code, applied without starting two
    // processes (env and the tool) per patched file, which cost more than the patching
    // itself for the small files most updates change. The output is checksummed as it is
    // written.
    const UniqueFd patch(::open(patchFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!patch.valid()) {
        NSLevelledLog(3, "%@: cannot open the patch %@: %s", patchTool, patchFile,
                      std::strerror(errno));
        return std::nullopt;
    }
    UniqueFd out(::open(output.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666));
    if (!out.valid()) {
        NSLevelledLog(3, "%@: cannot create %@: %s", patchTool, output, std::strerror(errno));
        return std::nullopt;
    }
    // A large file is written and checksummed on a second thread while the patch goes on.
    std::optional<PipelinedWriter> pipeline;
    if (oldData.size() >= kPipelinedPatchSize)
        pipeline.emplace(out.get());
    Md5Stream digest;
    int writeError = 0;
    std::string detail;
    BspatchResult result = ApplyBsdiffPatchToSink(
        oldData, patch.get(),
        [&](const uint8_t* data, size_t size) {
            if (pipeline)
                return pipeline->write(data, size);
            digest.update(data, size);
            if (WriteAll(out.get(), reinterpret_cast<const char*>(data), size))
                return true;
            writeError = errno;
            return false;
        },
        &detail);
    std::optional<std::string> checksum;
    if (pipeline) {
        const PipelinedWriter::Result written = pipeline->finish();
        if (!written.written) {
            writeError = written.error;
            if (result == BspatchResult::Success) {
                result = BspatchResult::OutputFailed;
                detail = "the new file cannot be written";
            }
        }
        checksum = written.digest;
    } else if (result == BspatchResult::Success) {
        checksum = digest.finish();
    }
    if (result == BspatchResult::Success && ::close(out.release()) != 0) {
        writeError = errno;
        result = BspatchResult::OutputFailed;
    }
    if (result != BspatchResult::Success) {
        pipeline.reset();
        out.reset();
        ::unlink(output.c_str()); // no output: the patch was not applied
        if (writeError != 0)
            detail = std::strerror(writeError); // says more than "cannot be written"
        NSLevelledLog(3, "%@: %s: %@", patchTool, DescribeBspatchResult(result), detail);
        return std::nullopt;
    }
    return MD5cksum::logChecksumOfFile(output, checksum);
}

} // namespace

CmdInterface::CmdInterface(std::string payloadDir, std::string resDir,
                           std::optional<std::string> backupDir, Options options)
    : _backupDir(std::move(backupDir)), _payloadDir(std::move(payloadDir)),
      _resourceDir(std::move(resDir)),
      _isRepairMode(options.isRepairMode.value_or(RepairModeOfThisRun())),
      _allowsReplace(std::move(options.fileVersionCompareAllowsReplace)),
      _protectedFolders(std::move(options.protectedFolders)) {
    if (_backupDir) {
        _rollBackHandler = std::make_unique<RollBackHandler>(*_backupDir);
        _writeUndo = true;
    }
    NSLevelledLog(3, "init CmdInterface");
}

CmdInterface::~CmdInterface() = default;

bool CmdInterface::RepairModeOfThisRun() {
    const OrvelCodeFileHandler* handler = OrvelCodeFileHandler::getInstance();
    return handler && handler->getPatcherMode() == OrvelCodeFileHandler::kModeRepair;
}

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
        (void)removeItem(info.DestinationPath);
        result = createLinkOperation(info);
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
        if (!touchFile(info.DestinationPath)) {
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
    if (!Exists(folder)) {
        (void)createDirectoryAtPath(folder, true); // a failure shows in the copy below
    } else if (Exists(destination)) {
        if (ChecksumMatches(MD5cksum::getMD5cksumOfFile(destination), info.AfterPatch)) {
            NSLevelledLog(3, "File to add already exists. Need not add.");
            LogNoNeed(info);
            return 0;
        }
        // An existing, different file is never replaced by an addition.
        NSLevelledLog(3, "File copy operation failed.");
        return 1;
    }
    if (!copyItem(source, destination, false, true)) {
        NSLevelledLog(3, "File copy operation failed.");
        return 1;
    }
    const auto checksum = MD5cksum::getMD5cksumOfFile(destination);
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
    if (folder != ResolveSymlinksInPath(folder)) {
        NSLevelledLog(3, "Do not remove because intermediate path contains symlink.");
        LogNoNeed(info);
        return 0;
    }
    if (!ExistsNoFollow(destination)) {
        NSLevelledLog(3, "File to delete does not exist");
        LogNoNeed(info);
        return 0;
    }
    NSLevelledLog(3, "Removing File \"%@\".", destination);
    if (!removeItem(destination)) {
        NSLevelledLog(3, "File remove operation failed.");
        return 1;
    }
    cleanupEmptyParentDir(folder, true, true);
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::overwriteFileOperation(const FileOperationInfo& info) {
    const std::string& destination = info.DestinationPath;
    NSLevelledLog(3, "Overwriting file \"%@\" ", destination);
    bool oldRemoved = false;
    if (!Exists(destination)) {
        NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
    } else {
        const auto checksum = MD5cksum::getMD5cksumOfFile(destination);
        if (ChecksumMatches(checksum, info.BeforePatch)) {
            if (!removeItem(destination)) {
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
    if (!Exists(folder))
        (void)createDirectoryAtPath(folder, true); // a failure shows in the copy below
    NSLevelledLog(3, "Copying file \"%@\" to \"%@\" during perform.", source, destination);
    if (!copyItem(source, destination, false, true)) {
        NSLevelledLog(3, "File copy operation failed.");
        // The old file is gone all the same; the journal brings it back.
        if (oldRemoved)
            writeUndoForFileSetOperation(info);
        return 1;
    }
    const auto checksum = MD5cksum::getMD5cksumOfFile(destination);
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
        const auto checksum = MD5cksum::getMD5cksumOfFile(installed);
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
        if (!removeItem(installed)) {
            NSLevelledLog(3, "File remove operation failed.");
            return 1;
        }
        const int32_t added = addFileOperation(info);
        // The installed file is gone whatever the addition gave; journal that.
        writeUndoForFileSetOperation(info);
        return added;
    };

    if (!hasOldPath) {
        if (!Exists(destination)) {
            NSLevelledLog(3, "Destination file does not exist. Simply adding the new file...");
            return addFileOperation(info);
        }
        return replaceInstalled(destination);
    }

    const std::string& oldPath = info.RenamePath;
    bool destinationRemoveFailed = false;
    if (ExistsNoFollow(destination) && !removeItem(destination)) {
        NSLevelledLog(3, "File remove operation failed.");
        destinationRemoveFailed = true;
    }
    int32_t result = 0;
    if (!Exists(oldPath)) {
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

    if (!Exists(fileToPatch)) {
        NSLevelledLog(3, "File to patch is not present");
        return 1;
    }
    struct stat oldInfo {};
    const bool haveOldMode = ::stat(fileToPatch.c_str(), &oldInfo) == 0;
    // Known without reading when the backup copy was just made from it.
    const auto checksum = MD5cksum::getMD5cksumOfFile(fileToPatch);
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
    (void)removeItem(output);
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
        patchedChecksum = ApplyPatch(_patchOldFile->bytes(), patchFile, patchTool, output);
    else
        NSLevelledLog(3, "%@: %s: %@: %s", patchTool,
                      DescribeBspatchResult(BspatchResult::OldFileUnreadable), fileToPatch,
                      std::strerror(errno));
    if (!Exists(output)) {
        NSLevelledLog(3, "Unable to apply patch.");
        return 1;
    }
    if (!ChecksumMatches(patchedChecksum, info.AfterPatch)) {
        NSLevelledLog(3, "CheckSum after patch operation not validated for file %@", fileToPatch);
        NSLevelledLog(3, "Patched file Checksum \"%@\", checksum from manifest \"%@\".",
                      ChecksumText(patchedChecksum), info.AfterPatch);
        return 1;
    }
    if (!removeItem(fileToPatch)) {
        NSLevelledLog(3, "Failed to remove the file");
        return 1;
    }
    const bool copied = copyItem(output, fileToPatch, false);
    if (copied && haveOldMode) {
        // A patched program stays a program: the new file keeps the mode of the one it
        // replaces rather than the mode the patch tool gave its output.
        (void)::chmod(fileToPatch.c_str(), oldInfo.st_mode & 07777);
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

    if (!Exists(fileToRename)) {
        if (!Exists(target)) {
            NSLevelledLog(3, "File to be renamed does not exist.");
            return 1;
        }
        const auto targetChecksum = MD5cksum::getMD5cksumOfFile(target);
        if (ChecksumMatches(targetChecksum, info.AfterPatch)) {
            LogNoNeed(info); // renamed by an earlier run
            return 0;
        }
        logChecksumFailure(target, targetChecksum);
        return 1;
    }
    const auto checksum = MD5cksum::getMD5cksumOfFile(fileToRename);
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
        if (!Exists(targetFolder))
            (void)createDirectoryAtPath(targetFolder, true); // a failure shows in the move
        if (!moveItem(fileToRename, target)) {
            NSLevelledLog(3, "File move operation failed.");
            return false;
        }
        moved = true;
        cleanupEmptyParentDir(oldFolder, true, true);
        return true;
    };
    if (!ExistsNoFollow(target)) {
        if (!move())
            return 1;
    } else if (!ChecksumMatches(MD5cksum::getMD5cksumOfFile(target), info.AfterPatch)) {
        if (!removeItem(target)) {
            NSLevelledLog(3, "File remove operation failed.");
            return 1;
        }
        if (!move())
            return 1;
    }
    // Otherwise the target is already the file: nothing moves and the old file stays.
    if (moved)
        writeUndoForFileSetOperation(info);
    const auto targetChecksum = MD5cksum::getMD5cksumOfFile(target);
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
    if (!Exists(folder))
        (void)createDirectoryAtPath(folder, true); // a failure shows in the link below
    if (IsAbsentField(content) || ::symlink(content.c_str(), location.c_str()) != 0) {
        NSLevelledLog(0, "Failed to create the symlink");
        return 1;
    }
    NSLevelledLog(3, "Link created successfully");
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

int32_t CmdInterface::touchFileOperation(const FileOperationInfo& info) {
    if (!touchFile(info.DestinationPath))
        return 1;
    writeUndoForFileSetOperation(info);
    LogSuccess(info);
    return 0;
}

// ---------------------------------------------------------------------------------------
// Attributes and touch

int32_t CmdInterface::setAttributeForFile(const FileOperationInfo& info) {
    const std::string& path = info.DestinationPath;
    struct stat current {};
    if (!Exists(path) || ::lstat(path.c_str(), &current) != 0)
        return 0;
    const auto oldUser = UserNameOf(current.st_uid);
    const auto oldGroup = GroupNameOf(current.st_gid);
    NSLevelledLog(3, "Old Permission: %o", static_cast<unsigned>(current.st_mode & 07777));
    NSLevelledLog(3, "Old UserID: %@", oldUser);
    NSLevelledLog(3, "Old GroupID: %@", oldGroup);

    const mode_t mode =
        IsAbsentField(info.Permission) ? 0 : ModeFromPermissionText(info.Permission);
    const bool userGiven = !IsAbsentField(info.UserID);
    const bool groupGiven = !IsAbsentField(info.GroupID);
    if (mode == 0 && !userGiven && !groupGiven)
        return 0;
    // Values the manifest does not give stay as they are.
    const std::optional<std::string> user =
        userGiven ? std::optional(info.UserID) : std::optional<std::string>();
    const std::optional<std::string> group =
        groupGiven ? std::optional(info.GroupID) : std::optional<std::string>();
    (void)setAttribute(path, mode, user, group); // each failure is logged there
    return 0;
}

bool CmdInterface::setAttribute(const std::string& path, mode_t mode,
                                const std::optional<std::string>& userName,
                                const std::optional<std::string>& groupName) {
    struct stat current {};
    if (::lstat(path.c_str(), &current) != 0) {
        NSLevelledLog(0, "Cannot read the attributes of \"%@\": %@", path, std::strerror(errno));
        return false;
    }
    const bool isLink = S_ISLNK(current.st_mode);
    bool ok = true;
    auto changeOwner = [&](uid_t uid, gid_t gid) {
        return isLink ? ::lchown(path.c_str(), uid, gid) == 0
                      : ::chown(path.c_str(), uid, gid) == 0;
    };
    if (userName) {
        const auto uid = UserIdOf(*userName);
        if (!uid || !changeOwner(*uid, static_cast<gid_t>(-1))) {
            NSLevelledLog(0, "Failed to set owner \"%@\" on \"%@\"", *userName, path);
            ok = false;
        }
    }
    if (groupName) {
        const auto gid = GroupIdOf(*groupName);
        if (!gid || !changeOwner(static_cast<uid_t>(-1), *gid)) {
            NSLevelledLog(0, "Failed to set group \"%@\" on \"%@\"", *groupName, path);
            ok = false;
        }
    }
    // The mode goes last: changing the owner clears the set-user-ID and set-group-ID bits.
    if (mode != 0 && !isLink && ::chmod(path.c_str(), mode) != 0) {
        NSLevelledLog(0, "Failed to set permission %o on \"%@\": %@", static_cast<unsigned>(mode),
                      path, std::strerror(errno));
        ok = false;
    }
    return ok;
}

bool CmdInterface::touchFile(const std::string& path) {
    if (!Exists(path))
        return false;
    const timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
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
                 level.size() > 1 && !Exists(level) && level != "."; level = ParentPath(level)) {
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
    return createDirectoryAtPath(info.DirectoryBase, true) ? 0 : 1;
}

int32_t CmdInterface::removeDirectoryOperation(const DirectoryOperationInfo& info) {
    const std::string& folder = info.DirectoryBase;
    NSLevelledLog(3, "Remove Directory \"%@\".", folder);
    if (!Exists(folder)) {
        NSLevelledLog(1, "Minor Error. Directory \"%@\" to be deleted does not exist", folder);
        return 0;
    }
    if (!IsDirectory(folder))
        NSLevelledLog(1, "Minor Error. Directory base is actually pointing to a file.");
    // Something that cannot be listed (a file) counts as holding nothing.
    const auto entries = FolderEntries(folder);
    if (entries && !entries->empty()) {
        NSLevelledLog(3, "Directory \"%@\" is not empty.", folder);
        return 0;
    }
    NSLevelledLog(3, "Removing Directory \"%@\".", folder);
    if (!removeItem(folder)) {
        NSLevelledLog(3, "Directory remove operation failed.");
        return 1;
    }
    cleanupEmptyParentDir(folder, true, true);
    return 0;
}

bool CmdInterface::cleanupEmptyParentDir(const std::string& folder, bool removeDSStore,
                                         bool onlyDirsInBundle) const {
    if (!IsDirectory(folder))
        return true;
    auto isProtected = [&](const std::string& path) {
        for (const auto& protectedFolder : _protectedFolders) {
            if (EqualsIgnoringCase(path, protectedFolder))
                return true;
        }
        return false;
    };

    // How many levels, from the folder upward, may go: up to and including the enclosing
    // bundle, or up to the first protected folder when bundles do not matter.
    int levels = 0;
    for (std::string path = folder;; path = ParentPath(path)) {
        if (isProtected(path) || path == "/" || path.empty()) {
            if (onlyDirsInBundle)
                levels = 0;
            break;
        }
        ++levels;
        if (onlyDirsInBundle) {
            const std::string extension = PathExtension(LastPathComponent(path));
            if (!extension.empty() && !EqualsIgnoringCase(extension, "lproj"))
                break;
        }
    }

    std::string path = folder;
    for (int level = 0; level < levels; ++level, path = ParentPath(path)) {
        auto entries = FolderEntries(path);
        if (!entries)
            break;
        if (entries->size() == 1 && entries->front() == ".DS_Store" && removeDSStore) {
            NSLevelledLog(3, "Removing .DS_Store file at %@", path);
            if (::unlink(JoinPath(path, ".DS_Store").c_str()) != 0)
                break;
            entries->clear();
        }
        if (!entries->empty())
            break;
        NSLevelledLog(3, "Also removing empty Directory \"%@\".", path);
        if (::rmdir(path.c_str()) != 0) {
            NSLevelledLog(3, "Minor Error - Failed to remove directory");
            break;
        }
    }
    return true;
}

bool CmdInterface::createDirectoryAtPath(const std::string& path, bool /*intermediate*/) {
    // Every prefix that ends before a "/" is created when missing, so the intermediate
    // folders always are.
    const std::string withSlash = path + "/";
    for (size_t slash = withSlash.find('/', 1); slash != std::string::npos;
         slash = withSlash.find('/', slash + 1)) {
        const std::string prefix = withSlash.substr(0, slash);
        if (prefix.empty() || prefix.back() == '/' || Exists(prefix))
            continue;
        if (::mkdir(prefix.c_str(), 0755) != 0 && !(errno == EEXIST && IsDirectory(prefix))) {
            NSLevelledLog(3, "Failed to create directory: %@", prefix);
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// Paths and file helpers

std::string CmdInterface::JoinPath(const std::string& folder, const std::string& name) {
    if (name.empty())
        return folder;
    if (folder.empty())
        return name;
    std::string result = folder;
    while (result.size() > 1 && result.back() == '/')
        result.pop_back();
    size_t start = 0;
    while (start < name.size() && name[start] == '/')
        ++start;
    if (result != "/")
        result += '/';
    result += name.substr(start);
    return result;
}

std::string CmdInterface::ParentPath(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/')
        trimmed.pop_back();
    const size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos)
        return {};
    if (slash == 0)
        return "/";
    return trimmed.substr(0, slash);
}

std::string CmdInterface::LastPathComponent(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/')
        trimmed.pop_back();
    const size_t slash = trimmed.rfind('/');
    return slash == std::string::npos || trimmed == "/" ? trimmed : trimmed.substr(slash + 1);
}

std::string CmdInterface::ResolveSymlinksInPath(const std::string& path) {
    // Resolve the longest existing prefix; the part that does not exist yet has no links.
    std::string existing = path;
    std::string rest;
    while (!existing.empty() && !ExistsNoFollow(existing)) {
        const std::string name = LastPathComponent(existing);
        rest = rest.empty() ? name : name + "/" + rest;
        const std::string parent = ParentPath(existing);
        if (parent == existing)
            break;
        existing = parent;
    }
    if (existing.empty())
        return path;
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(existing.c_str(), nullptr),
                                                         &std::free);
    if (!resolved)
        return path;
    return rest.empty() ? std::string(resolved.get()) : JoinPath(resolved.get(), rest);
}

bool CmdInterface::copyItem(const std::string& source, const std::string& destination, bool sync,
                            bool rememberChecksum) {
    struct stat info {};
    if (::lstat(source.c_str(), &info) != 0)
        return false;
    if (S_ISLNK(info.st_mode)) {
        std::vector<char> target(static_cast<size_t>(info.st_size > 0 ? info.st_size : 0) +
                                 PATH_MAX);
        const ssize_t length = ::readlink(source.c_str(), target.data(), target.size());
        if (length < 0 || static_cast<size_t>(length) >= target.size())
            return false;
        const std::string text(target.data(), static_cast<size_t>(length));
        return ::symlink(text.c_str(), destination.c_str()) == 0;
    }
    if (!S_ISREG(info.st_mode))
        return false;
    return CopyRegularFile(source, destination, info, sync, rememberChecksum);
}

bool CmdInterface::removeItem(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return false;
    if (!S_ISDIR(info.st_mode))
        return ::unlink(path.c_str()) == 0;
    std::error_code error;
    std::filesystem::remove_all(path, error); // never follows links
    return !error;
}

bool CmdInterface::moveItem(const std::string& source, const std::string& target) {
    if (ExistsNoFollow(target))
        return false;
    if (::rename(source.c_str(), target.c_str()) == 0)
        return true;
    if (errno != EXDEV)
        return false;
    if (!copyItem(source, target, false))
        return false;
    if (!removeItem(source)) {
        (void)removeItem(target);
        return false;
    }
    return true;
}
