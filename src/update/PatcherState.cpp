#include "update/PatcherState.h"

#include "base/Path.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/FileManager.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

constexpr const char* kStageNames[] = {"running", "committing", "committed"};

std::string ErrnoText() {
    return std::strerror(errno);
}

bool ParseStage(const std::string& text, PatcherState::Stage& stage) {
    for (size_t i = 0; i < std::size(kStageNames); ++i) {
        if (text == kStageNames[i]) {
            stage = static_cast<PatcherState::Stage>(i);
            return true;
        }
    }
    return false;
}

// The whole of a small file, read without following a link; none when it cannot be read.
std::optional<std::string> ReadSmallFile(const std::string& path, bool& missing) {
    missing = false;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        missing = errno == ENOENT;
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        if (n == 0)
            return text;
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > (1u << 20)) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
}

} // namespace

PatcherState::PatcherState(std::string folder, FileSystem& fileSystem)
    : _folder(std::move(folder)), _fs(fileSystem) {}

const char* PatcherState::stageName(Stage stage) {
    return kStageNames[static_cast<size_t>(stage)];
}

std::string PatcherState::recordPath() const {
    return JoinPath(_folder, kRecordName);
}

bool PatcherState::prepare(std::string& reason) {
    FileManager files(_fs);
    struct stat info {};
    if (::lstat(_folder.c_str(), &info) != 0) {
        if (errno != ENOENT) {
            reason = ErrnoText();
            return false;
        }
        // The folders above are ordinary system folders; only the last one is private.
        const std::string parent = ParentPath(_folder);
        if (!PathExistsNoFollow(parent) && !files.createDirectoryAtPath(parent)) {
            reason = "cannot make " + parent + ": " + ErrnoText();
            return false;
        }
        if (!_fs.makeFolder(_folder, 0700) || !_fs.syncFolder(parent)) {
            reason = "cannot make it: " + ErrnoText();
            return false;
        }
        if (::lstat(_folder.c_str(), &info) != 0) {
            reason = ErrnoText();
            return false;
        }
    }
    if (!S_ISDIR(info.st_mode)) {
        reason = "it is not a folder";
        return false;
    }
    if (info.st_uid != ::geteuid()) {
        reason = "it belongs to user " + std::to_string(info.st_uid);
        return false;
    }
    if ((info.st_mode & 077) != 0 && !_fs.setMode(_folder, 0700)) {
        reason = "cannot close it to other users: " + ErrnoText();
        return false;
    }
    return true;
}

bool PatcherState::tryLock(pid_t& busyHolder, std::string& reason) {
    busyHolder = 0;
    if (_lock.valid())
        return true;
    const std::string path = JoinPath(_folder, kLockName);
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid()) {
        reason = "cannot open " + path + ": " + ErrnoText();
        return false;
    }
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            reason = "cannot lock " + path + ": " + ErrnoText();
            return false;
        }
        // The holder writes its number after taking the lock; a half-written number reads
        // as unknown.
        char text[32] = {};
        const ssize_t n = ::pread(fd.get(), text, sizeof text - 1, 0);
        if (n > 0)
            std::from_chars(text, text + n, busyHolder);
        return false;
    }
    // Only for the messages of those who wait: which process holds the lock.
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd.get(), 0) != 0 || ::pwrite(fd.get(), pid.data(), pid.size(), 0) < 0)
        NSLevelledLog(0, "Cannot write the process number into %@: %@", path, ErrnoText());
    _lock = std::move(fd);
    return true;
}

std::optional<PatcherState::Record> PatcherState::readRecord(std::string& reason) const {
    reason.clear();
    bool missing = false;
    const auto text = ReadSmallFile(recordPath(), missing);
    if (!text) {
        if (!missing)
            reason = "cannot read " + recordPath() + ": " + ErrnoText();
        return std::nullopt;
    }
    Record record;
    bool hasPid = false, hasStage = false;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line);) {
        const auto equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        const std::string key = line.substr(0, equals);
        const std::string value = line.substr(equals + 1);
        if (key == "pid") {
            const auto [end, error] =
                std::from_chars(value.data(), value.data() + value.size(), record.pid);
            hasPid = error == std::errc() && end == value.data() + value.size();
        } else if (key == "application") {
            record.application = value;
        } else if (key == "backupFolder") {
            record.backupFolder = value;
        } else if (key == "state") {
            hasStage = ParseStage(value, record.stage);
        } else if (key == "historyFile") {
            record.historyFile = value;
        } else if (key == "historyUpdate") {
            record.historyUpdate = value;
        } else if (key == "service") {
            record.stoppedServices.push_back(value);
        }
    }
    const bool committing = record.stage == Stage::Committing;
    if (!hasPid || !hasStage || record.application.empty() || record.backupFolder.empty() ||
        (committing && (record.historyFile.empty() || record.historyUpdate.empty()))) {
        reason = recordPath() + " is not a whole record";
        return std::nullopt;
    }
    return record;
}

bool PatcherState::writeRecord(const Record& record) {
    std::string text =
        "pid=" + std::to_string(record.pid) + "\n" + "application=" + record.application + "\n" +
        "backupFolder=" + record.backupFolder + "\n" + "state=" + stageName(record.stage) + "\n";
    if (record.stage == Stage::Committing)
        text +=
            "historyFile=" + record.historyFile + "\nhistoryUpdate=" + record.historyUpdate + "\n";
    std::vector<const std::string*> values = {&record.application, &record.backupFolder,
                                              &record.historyFile, &record.historyUpdate};
    for (const std::string& service : record.stoppedServices) {
        text += "service=" + service + "\n";
        values.push_back(&service);
    }
    for (const std::string* value : values) {
        if (value->find('\n') != std::string::npos) {
            NSLevelledLog(0, "Cannot record a path with a line break in it");
            errno = EINVAL;
            return false;
        }
    }
    const std::string path = recordPath();
    const std::string temporary = path + ".new";
    if (PathExistsNoFollow(temporary) && !_fs.removeFile(temporary))
        return false;
    UniqueFd fd = _fs.createFile(temporary, 0600);
    bool written =
        fd.valid() && _fs.write(fd.get(), text.data(), text.size()) && _fs.syncFile(fd.get(), true);
    if (fd.valid())
        written = _fs.close(fd) && written;
    if (!written || !_fs.rename(temporary, path) || !_fs.syncFolder(_folder)) {
        const int error = errno;
        NSLevelledLog(0, "Cannot write the update record %@: %@", path, std::strerror(error));
        (void)_fs.removeFile(temporary);
        errno = error;
        return false;
    }
    return true;
}

bool PatcherState::removeRecord() {
    const std::string path = recordPath();
    if (!_fs.removeFile(path) && errno != ENOENT) {
        NSLevelledLog(0, "Cannot remove the update record %@: %@", path, ErrnoText());
        return false;
    }
    return _fs.syncFolder(_folder);
}

namespace {

// The mount a path is on: its file system and, for bind mounts of one file system, which
// of them (a hard link never crosses from one mount to another).
struct MountIdentity {
    dev_t device = 0;
    uint64_t mount = 0;
    bool operator==(const MountIdentity&) const = default;
};

std::optional<MountIdentity> MountOf(const std::string& path) {
    struct statx info {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_MNT_ID, &info) != 0)
        return std::nullopt;
    MountIdentity identity;
    identity.device = makedev(info.stx_dev_major, info.stx_dev_minor);
    identity.mount = (info.stx_mask & STATX_MNT_ID) ? info.stx_mnt_id : 0;
    return identity;
}

} // namespace

std::string PatcherState::backupFolderFor(const std::string& application) const {
    const std::string own = JoinPath(_folder, kBackupName);
    const auto stateMount = MountOf(_folder);
    const auto appMount = MountOf(application);
    if (!stateMount || !appMount || *stateMount == *appMount)
        return own;
    // The top of the application's mount: the last folder up from it on the same mount.
    std::string top = application;
    for (;;) {
        const std::string parent = ParentPath(top);
        if (parent.empty() || parent == top || MountOf(parent) != appMount)
            break;
        top = parent;
    }
    // Only where nobody but root may add or rename names.
    struct stat topInfo {};
    if (::lstat(top.c_str(), &topInfo) != 0 || !S_ISDIR(topInfo.st_mode) || topInfo.st_uid != 0 ||
        (topInfo.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return own;
    return JoinPath(top, kForeignBackupName);
}

bool PatcherState::makeBackupFolder(const std::string& path) {
    if (!removeBackupFolder(path))
        return false;
    if (!_fs.makeFolder(path, 0700) || !_fs.syncFolder(ParentPath(path))) {
        NSLevelledLog(0, "Cannot make the backup folder %@: %@", path, ErrnoText());
        return false;
    }
    return true;
}

bool PatcherState::removeBackupFolder(const std::string& path) {
    if (!PathExistsNoFollow(path))
        return true;
    FileManager files(_fs);
    if (!files.removeItem(path)) {
        NSLevelledLog(0, "Cannot remove the backup folder %@: %@", path, ErrnoText());
        return false;
    }
    (void)_fs.syncFolder(ParentPath(path));
    return true;
}

namespace {

void RestartStoppedServices(const PatcherState::Record& record,
                            const ServiceRestart& restartServices) {
    if (record.stoppedServices.empty())
        return;
    std::string names;
    for (const std::string& service : record.stoppedServices)
        names += (names.empty() ? "" : ", ") + service;
    NSLevelledLog(0, "Starting the services that update had stopped: %@", names);
    restartServices(record.backupFolder, record.stoppedServices);
}

} // namespace

RecoveryResult RecoverInterruptedUpdate(PatcherState& state, const JournalReplay& replay,
                                        const ServiceRestart& restartServices,
                                        std::optional<PatcherState::Record>* found) {
    std::string reason;
    auto record = state.readRecord(reason);
    if (found)
        *found = record;
    if (!record) {
        if (reason.empty())
            return RecoveryResult::NothingToRecover;
        NSLevelledLog(0,
                      "The record of an earlier update cannot be used (%@); it is kept for "
                      "a look by hand, and no update runs until it is gone",
                      reason);
        return RecoveryResult::Unreadable;
    }
    NSLevelledLog(0,
                  "Found an update of %@ that did not finish: process %d is gone (it had "
                  "reached \"%@\")",
                  record->application, static_cast<int>(record->pid),
                  PatcherState::stageName(record->stage));

    if (record->stage == PatcherState::Stage::Committing) {
        if (PathExistsNoFollow(record->historyUpdate)) {
            // The new patch history never replaced the old one: the update did not finish.
            // The record says so before the new history goes, in case this is cut short too.
            NSLevelledLog(0, "Its patch history had not been committed");
            PatcherState::Record running = *record;
            running.stage = PatcherState::Stage::Running;
            if (!state.writeRecord(running))
                return RecoveryResult::ReplayFailed;
            (void)state.fileSystem().removeFile(record->historyUpdate);
            record = running;
        } else {
            record->stage = PatcherState::Stage::Committed;
        }
    }
    if (record->stage == PatcherState::Stage::Committed) {
        NSLevelledLog(0,
                      "That update had been committed: %@ is at its new version; its "
                      "journal is discarded",
                      record->application);
        RestartStoppedServices(*record, restartServices);
        if (state.removeRecord())
            (void)state.removeBackupFolder(record->backupFolder);
        return RecoveryResult::RolledOn;
    }

    NSLevelledLog(0, "Rolling it back from the journal in %@", record->backupFolder);
    if (!replay(record->backupFolder, record->application)) {
        NSLevelledLog(0,
                      "The unfinished update of %@ could not be rolled back; its journal "
                      "stays in %@ and the next start tries again",
                      record->application, record->backupFolder);
        return RecoveryResult::ReplayFailed;
    }
    NSLevelledLog(0, "The unfinished update was rolled back: %@ is at its old version again",
                  record->application);
    RestartStoppedServices(*record, restartServices);
    if (state.removeRecord())
        (void)state.removeBackupFolder(record->backupFolder);
    return RecoveryResult::RolledBack;
}
