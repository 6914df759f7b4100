#pragma once

#include "base/FileUtil.h"

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

class FileSystem;

// The patcher's own persistent place: a folder only root may enter, which survives a reboot
// (unlike /tmp). It holds
// - "patcher.lock", locked with flock(2) while a patcher runs, so one patcher at a time
//   changes the machine; the kernel drops the lock when its holder dies, however it dies;
// - "update-in-progress", the record of the update being applied: which process, which
//   application, which backup folder (with the journal "RollBack.xml" in it), and how far
//   its commit got. A record found by a patcher that holds the lock belongs to a run that
//   ended without finishing (killed, power cut); that run's journal is replayed or, when
//   its commit went through, discarded.
// - "backup", the backup folder of an update, unless the application lives on another
//   mount: then the backup folder is ".orvel-patcher-backup" at the top of that mount, so
//   that keeping a file about to be replaced costs a hard link, not a copy.
class PatcherState {
public:
    static constexpr const char* kLockName = "patcher.lock";
    static constexpr const char* kRecordName = "update-in-progress";
    static constexpr const char* kBackupName = "backup";
    static constexpr const char* kForeignBackupName = ".orvel-patcher-backup";
    static constexpr const char* kManifestCopyName = "Manifest.xml";

    // How far an update got; the record's "state".
    enum class Stage {
        Running,    // changing the application: an interrupted run is rolled back
        Committing, // the new patch history waits beside the old one (historyUpdate): the
                    // update is done when it has been renamed over the history file
        Committed,  // done: the journal is only waiting to be removed
    };

    struct Record {
        pid_t pid = 0;
        std::string application;
        std::string backupFolder;
        Stage stage = Stage::Running;
        std::string historyFile;   // Committing only
        std::string historyUpdate; // Committing only
        // The services the run stopped, to be started again when it cannot do it itself.
        std::vector<std::string> stoppedServices;
    };

    // Every change to the record and to the backup folder goes through fileSystem.
    PatcherState(std::string folder, FileSystem& fileSystem);
    PatcherState(const PatcherState&) = delete;
    PatcherState& operator=(const PatcherState&) = delete;

    const std::string& folder() const { return _folder; }
    FileSystem& fileSystem() const { return _fs; }
    std::string recordPath() const;

    // Makes the folder (mode 0700) when missing and checks it: a real folder, not a link,
    // owned by this process's user and closed to everybody else. False with a reason.
    [[nodiscard]] bool prepare(std::string& reason);

    // Takes the lock without waiting. True when taken; false when another process holds it
    // (busyHolder says which, 0 when unknown) or the lock file cannot be opened (reason).
    [[nodiscard]] bool tryLock(pid_t& busyHolder, std::string& reason);
    bool holdsLock() const { return _lock.valid(); }

    // The record left by the last run; none when there is none. A record that cannot be
    // read or understood is reported through reason (and none returned).
    std::optional<Record> readRecord(std::string& reason) const;
    // Replaces the record in one step (a synced new file renamed over the old one, the
    // folder synced), so that the record on disk is always a whole one.
    [[nodiscard]] bool writeRecord(const Record& record);
    [[nodiscard]] bool removeRecord();

    // Where an update of application keeps its backups: on the application's mount where
    // the state folder is on another one (another file system, or another bind mount of
    // it) and the top of that mount is root's alone.
    std::string backupFolderFor(const std::string& application) const;
    // A new, empty backup folder at path (0700); what an earlier run left there is removed.
    [[nodiscard]] bool makeBackupFolder(const std::string& path);
    // Removes a backup folder with everything in it; true when it is gone.
    [[nodiscard]] bool removeBackupFolder(const std::string& path);

    static const char* stageName(Stage stage);

private:
    std::string _folder;
    FileSystem& _fs;
    UniqueFd _lock;
};

// What start-up does with the record of a run that did not finish.
enum class RecoveryResult {
    NothingToRecover,
    RolledBack,   // the application is back at the version it had before that run
    RolledOn,     // that run had committed: the application is at its new version
    ReplayFailed, // the journal could not be replayed; it is kept for the next start
    Unreadable,   // the record cannot be read; it is kept
};

// Replays the journal in a backup folder onto the application; true when it went through.
using JournalReplay =
    std::function<bool(const std::string& backupFolder, const std::string& application)>;

// Starts again services that a run stopped; the run's manifest is kept in its backup
// folder as kManifestCopyName.
using ServiceRestart =
    std::function<void(const std::string& backupFolder, const std::vector<std::string>& services)>;

// Finds the record of a run that did not finish and brings its application back to a
// whole version, logging what it found and what it did, and starts the services that run
// had stopped. Called with the lock held. The record found, if any, is handed back through
// found.
RecoveryResult RecoverInterruptedUpdate(PatcherState& state, const JournalReplay& replay,
                                        const ServiceRestart& restartServices,
                                        std::optional<PatcherState::Record>* found = nullptr);
