#include "update/PatcherState.h"

#include "TestSupport.h"
#include "system/FileSystem.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

mode_t ModeOf(const std::string& path) {
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return info.st_mode & 07777;
}

class PatcherStateTest : public ::testing::Test {
protected:
    PatcherState::Record runningRecord() const {
        PatcherState::Record record;
        record.pid = 4242;
        record.application = temp.file("opt/Suite");
        record.backupFolder = folder + "/backup";
        return record;
    }

    // The state of a run that died: its backup folder and its record.
    void leaveBehind(const PatcherState::Record& record) {
        ASSERT_TRUE(state.makeBackupFolder(record.backupFolder));
        ASSERT_TRUE(state.writeRecord(record));
    }

    TempDir temp;
    std::string folder = temp.file("var/Patcher");
    PatcherState state{folder, RealFileSystem::instance()};
};

TEST_F(PatcherStateTest, PrepareMakesAFolderOnlyItsOwnerMayEnter) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason)) << reason;
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(ModeOf(folder), 0700u);
    // One that others may enter is closed again.
    ::chmod(folder.c_str(), 0755);
    ASSERT_TRUE(state.prepare(reason)) << reason;
    EXPECT_EQ(ModeOf(folder), 0700u);
}

TEST_F(PatcherStateTest, PrepareRefusesALinkInPlaceOfTheFolder) {
    fs::create_directories(temp.file("elsewhere"));
    fs::create_directories(temp.file("var"));
    fs::create_directory_symlink(temp.file("elsewhere"), folder);
    std::string reason;
    EXPECT_FALSE(state.prepare(reason));
    EXPECT_EQ(reason, "it is not a folder");
}

TEST_F(PatcherStateTest, OneHolderAtATimeAndTheWaitingOneLearnsWhichProcess) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    pid_t holder = -1;
    ASSERT_TRUE(state.tryLock(holder, reason)) << reason;
    EXPECT_TRUE(state.holdsLock());
    {
        PatcherState second(folder, RealFileSystem::instance());
        EXPECT_FALSE(second.tryLock(holder, reason));
        EXPECT_TRUE(reason.empty()) << reason;
        EXPECT_EQ(holder, ::getpid());
    }
}

TEST_F(PatcherStateTest, AKilledHolderReleasesTheLock) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        PatcherState mine(folder, RealFileSystem::instance());
        pid_t ignored = 0;
        std::string why;
        const char taken = mine.tryLock(ignored, why) ? 1 : 0;
        (void)!::write(ready[1], &taken, 1);
        ::pause();
        ::_exit(0);
    }
    char taken = 0;
    ASSERT_EQ(::read(ready[0], &taken, 1), 1);
    ASSERT_EQ(taken, 1);
    pid_t holder = 0;
    EXPECT_FALSE(state.tryLock(holder, reason));
    EXPECT_EQ(holder, child);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(state.tryLock(holder, reason)) << reason;
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(PatcherStateTest, ARecordIsReadBackAsWritten) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    EXPECT_FALSE(state.readRecord(reason));
    EXPECT_TRUE(reason.empty()) << "no record is no error";

    PatcherState::Record record = runningRecord();
    record.stage = PatcherState::Stage::Committing;
    record.historyFile = temp.file("history/{CODE}.patch");
    record.historyUpdate = record.historyFile + ".orvel-new";
    ASSERT_TRUE(state.writeRecord(record));
    EXPECT_EQ(ModeOf(state.recordPath()), 0600u);
    const auto read = state.readRecord(reason);
    ASSERT_TRUE(read) << reason;
    EXPECT_EQ(read->pid, 4242);
    EXPECT_EQ(read->application, record.application);
    EXPECT_EQ(read->backupFolder, record.backupFolder);
    EXPECT_EQ(read->stage, PatcherState::Stage::Committing);
    EXPECT_EQ(read->historyFile, record.historyFile);
    EXPECT_EQ(read->historyUpdate, record.historyUpdate);
    EXPECT_FALSE(fs::exists(state.recordPath() + ".new"));

    ASSERT_TRUE(state.removeRecord());
    EXPECT_FALSE(state.readRecord(reason));
    EXPECT_TRUE(reason.empty());
}

TEST_F(PatcherStateTest, APartOfARecordIsNoRecord) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    WriteTextFile(state.recordPath(), "pid=12\napplication=/opt/Suite\n");
    EXPECT_FALSE(state.readRecord(reason));
    EXPECT_NE(reason.find("is not a whole record"), std::string::npos) << reason;
    // A line break in a path cannot be recorded.
    PatcherState::Record record = runningRecord();
    record.application = "/opt/two\nlines";
    EXPECT_FALSE(state.writeRecord(record));
}

TEST_F(PatcherStateTest, TheBackupFolderIsTheStateFoldersOnTheSameFileSystem) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    fs::create_directories(temp.file("opt/Suite"));
    EXPECT_EQ(state.backupFolderFor(temp.file("opt/Suite")), folder + "/backup");
    const std::string backup = folder + "/backup";
    WriteTextFile(backup + "/left/over.txt", "from an earlier run");
    ASSERT_TRUE(state.makeBackupFolder(backup));
    EXPECT_TRUE(fs::is_empty(backup));
    EXPECT_EQ(ModeOf(backup), 0700u);
    ASSERT_TRUE(state.removeBackupFolder(backup));
    EXPECT_FALSE(fs::exists(backup));
}

struct ReplayCall {
    int calls = 0;
    std::string backupFolder, application;
    bool result = true;
    std::vector<std::string> restarted;
    ServiceRestart restart() {
        return [this](const std::string&, const std::vector<std::string>& services) {
            restarted = services;
        };
    }
    JournalReplay replay() {
        return [this](const std::string& folder, const std::string& app) {
            ++calls;
            backupFolder = folder;
            application = app;
            return result;
        };
    }
};

TEST_F(PatcherStateTest, NothingToRecoverWithoutARecord) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    ReplayCall replay;
    EXPECT_EQ(RecoverInterruptedUpdate(state, replay.replay(), replay.restart()),
              RecoveryResult::NothingToRecover);
    EXPECT_EQ(replay.calls, 0);
}

TEST_F(PatcherStateTest, ARunningUpdateIsReplayedAndForgotten) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    auto record = runningRecord();
    record.stoppedServices = {"orvel-indexer", "orvel-sync"};
    leaveBehind(record);
    ReplayCall replay;
    LogCapture log;
    EXPECT_EQ(RecoverInterruptedUpdate(state, replay.replay(), replay.restart()),
              RecoveryResult::RolledBack);
    EXPECT_EQ(replay.restarted, record.stoppedServices);
    EXPECT_TRUE(log.contains("Starting the services that update had stopped: orvel-indexer, "
                             "orvel-sync"));
    EXPECT_EQ(replay.calls, 1);
    EXPECT_EQ(replay.backupFolder, record.backupFolder);
    EXPECT_EQ(replay.application, record.application);
    EXPECT_FALSE(fs::exists(state.recordPath()));
    EXPECT_FALSE(fs::exists(record.backupFolder));
    EXPECT_TRUE(log.contains("Found an update of " + record.application +
                             " that did not finish: process 4242 is gone (it had reached "
                             "\"running\")"));
    EXPECT_TRUE(log.contains("The unfinished update was rolled back: " + record.application +
                             " is at its old version again"));
}

TEST_F(PatcherStateTest, AReplayThatFailsKeepsTheRecordAndTheJournal) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    const auto record = runningRecord();
    ASSERT_TRUE(state.makeBackupFolder(record.backupFolder));
    WriteTextFile(record.backupFolder + "/RollBack.xml", "<Manifest/>");
    ASSERT_TRUE(state.writeRecord(record));
    ReplayCall replay;
    replay.result = false;
    LogCapture log;
    EXPECT_EQ(RecoverInterruptedUpdate(state, replay.replay(), replay.restart()),
              RecoveryResult::ReplayFailed);
    EXPECT_TRUE(fs::exists(state.recordPath()));
    EXPECT_TRUE(fs::exists(record.backupFolder + "/RollBack.xml"));
    EXPECT_NE(log.text().find("could not be rolled back; its journal stays in " +
                              record.backupFolder + " and the next start tries again"),
              std::string::npos);
}

TEST_F(PatcherStateTest, ACommitCutShortBeforeTheHistoryRenameIsRolledBack) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    auto record = runningRecord();
    record.stage = PatcherState::Stage::Committing;
    record.historyFile = temp.file("history.patch");
    record.historyUpdate = temp.file("history.patch.orvel-new");
    WriteTextFile(record.historyUpdate, "<PBSHistory/>");
    leaveBehind(record);
    ReplayCall replay;
    LogCapture log;
    EXPECT_EQ(RecoverInterruptedUpdate(state, replay.replay(), replay.restart()),
              RecoveryResult::RolledBack);
    EXPECT_EQ(replay.calls, 1);
    EXPECT_FALSE(fs::exists(record.historyUpdate));
    EXPECT_FALSE(fs::exists(state.recordPath()));
    EXPECT_TRUE(log.contains("Its patch history had not been committed"));
}

TEST_F(PatcherStateTest, ACommitPastTheHistoryRenameIsKept) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    for (const auto stage : {PatcherState::Stage::Committing, PatcherState::Stage::Committed}) {
        auto record = runningRecord();
        record.stage = stage;
        record.historyFile = temp.file("history.patch");
        record.historyUpdate = temp.file("history.patch.orvel-new"); // renamed already
        leaveBehind(record);
        ReplayCall replay;
        LogCapture log;
        EXPECT_EQ(RecoverInterruptedUpdate(state, replay.replay(), replay.restart()),
                  RecoveryResult::RolledOn);
        EXPECT_EQ(replay.calls, 0);
        EXPECT_FALSE(fs::exists(state.recordPath()));
        EXPECT_FALSE(fs::exists(record.backupFolder));
        EXPECT_TRUE(log.contains("That update had been committed: " + record.application +
                                 " is at its new version; its journal is discarded"));
    }
}

TEST_F(PatcherStateTest, AnUnreadableRecordIsKeptAndStopsTheRun) {
    std::string reason;
    ASSERT_TRUE(state.prepare(reason));
    WriteTextFile(state.recordPath(), "garbage");
    ReplayCall replay;
    LogCapture log;
    EXPECT_EQ(RecoverInterruptedUpdate(state, replay.replay(), replay.restart()),
              RecoveryResult::Unreadable);
    EXPECT_EQ(replay.calls, 0);
    EXPECT_TRUE(fs::exists(state.recordPath()));
    EXPECT_NE(log.text().find("no update runs until it is gone"), std::string::npos);
}

} // namespace
