// The real PatcherApp cut short from outside: killed at every step that changes a file,
// failed with a full or broken disk at every such step, stopped by a signal, started twice
// at once. Whatever happens, the editor ends exactly at 1.0 or exactly at 2.0 (contents,
// links, modes, owners), and the next start says which.
//
// The steps are the process's own system calls, caught by a preloaded library
// (tests/fault/SyscallFault.c) that kills the process, or fails the call, at the Nth call
// that changes something below /opt or /var/opt.

#include "E2eSupport.h"
#include "ManifestText.h"
#include "TestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sys/mount.h>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string kStateFolder = "/var/opt/Orvel/Patcher";
const std::string kSavedApp = "/tmp/e2e/saved-Editor.app";
// Outside /tmp, which a reboot empties.
const std::string kProbe = "/usr/local/share/e2e-probe/Probe.app";

// Snapshot with the owner and group of every entry.
std::map<std::string, std::string> OwnedSnapshot(const std::string& root) {
    auto tree = Snapshot(root);
    for (auto& [relative, description] : tree) {
        struct stat info {};
        ::lstat((root + "/" + relative).c_str(), &info);
        description += ":" + std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid);
    }
    return tree;
}

std::string PseudoRandomBytes(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random() & 0xff);
    return bytes;
}

// The editor at 1.0 and its update to 2.0: every kind of file entry, a bundle set, a
// directory set, a patched file of several megabytes, a new one of 2 MB, files owned by another
// user, an owner change, and `extra` more added, overwritten and removed files. Returns the
// manifest.
std::string PrepareLargeUpdate(Scenario& s, int extra) {
    s.installApplication();
    s.registerInstallation();
    auto entries = s.updateEntries();
    const std::string res = s.app + "/Contents/Resources";
    const std::string resToken = "[INSTALLDIR]/Editor.app/Contents/Resources";

    // A 3 MB data file whose new version differs here and there.
    std::string data = PseudoRandomBytes(3 << 20, 7);
    WriteTextFile(res + "/data.bin", data);
    for (size_t at = 4096; at < data.size(); at += 300000)
        data.replace(at, 64, std::string(64, 'x'));
    WriteTextFile(s.work + "/data.new", data);
    EXPECT_EQ(
        RunTool({"bsdiff", res + "/data.bin", s.work + "/data.new", s.payload + "/data.patch"}), 0);
    entries.push_back({"PATCH", "data.patch", resToken, "data.bin",
                       Md5OfFile(res + "/data.bin").value_or(""),
                       Md5OfFile(s.work + "/data.new").value_or("")});

    // A new 2 MB file.
    WriteTextFile(s.payload + "/big.bin", PseudoRandomBytes(2 << 20, 11));
    entries.push_back({"ADD", "big.bin", resToken, "big.bin", "",
                       Md5OfFile(s.payload + "/big.bin").value_or("")});

    fs::create_directories(res + "/more");
    for (int i = 0; i < extra; ++i) {
        const std::string name = "f" + std::to_string(i) + ".txt";
        const std::string installed = res + "/more/" + name;
        const std::string object = "more-" + name;
        switch (i % 3) {
        case 0: // added
            WriteTextFile(s.payload + "/" + object, "added " + name + "\n");
            entries.push_back({"ADD", object, resToken + "/more", name, "",
                               Md5OfFile(s.payload + "/" + object).value_or("")});
            break;
        case 1: // overwritten; installed with another owner and mode
            WriteTextFile(installed, "old " + name + "\n");
            (void)::chown(installed.c_str(), 65534, 65534);
            (void)::chmod(installed.c_str(), 0640);
            WriteTextFile(s.payload + "/" + object, "new " + name + "\n");
            entries.push_back({"OVERWRITE", object, resToken + "/more", name,
                               Md5OfFile(installed).value_or(""),
                               Md5OfFile(s.payload + "/" + object).value_or("")});
            break;
        default: // removed
            WriteTextFile(installed, "going " + name + "\n");
            (void)::chown(installed.c_str(), 65534, 0);
            entries.push_back({"REMOVE", object, resToken + "/more", name, "", ""});
            break;
        }
    }
    // An owner and a mode change of a file that keeps its content.
    WriteTextFile(res + "/owned.txt", "owned\n");
    const std::string ownerChange =
        "<File><Operation>CHANGEPERM</Operation><ObjectName>owned.txt</ObjectName>"
        "<DestinationPath dir=\"" +
        resToken +
        "\" defName=\"owned.txt\"/><Permissions><mac><UserID>nobody</UserID>"
        "<GroupID>nogroup</GroupID><Permission>600</Permission></mac></Permissions></File>\n";
    std::string manifest = s.manifest(entries);
    manifest.replace(manifest.find("</FileSet>"), 0, ownerChange);
    s.assemble(manifest);
    return manifest;
}

// A copy of the patcher bundle for another application: a start of it replays what a dead
// run left and then ends (the application is not found), touching nothing else.
void MakeProbeBundle(const Scenario& s) {
    fs::create_directories(fs::path(kProbe).parent_path());
    ASSERT_EQ(RunTool({"cp", "-a", s.bundle, kProbe}), 0);
    const std::string config = kProbe + "/Contents/Resources/config.xml";
    std::string text = ReadTextFile(config);
    const auto at = text.find("<AppName>Editor</AppName>");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 25, "<AppName>NoSuchEditor</AppName>");
    WriteTextFile(config, text);
    s.sign(kProbe);
}

ChildProcess StartBundle(const Scenario& s, const std::string& bundle,
                         const std::vector<std::string>& assignments) {
    std::vector<std::string> env = {"HOME=" + s.home, "LANG=C.UTF-8"};
    env.insert(env.end(), assignments.begin(), assignments.end());
    // The probe may run while /tmp is a fresh one.
    const std::string output =
        bundle == kProbe ? s.home + "/probe-output.txt" : s.work + "/patcher-output.txt";
    return ChildProcess({bundle + "/Contents/MacOS/PatcherApp", "-Silent"}, CleanEnvironment(env),
                        output);
}

std::optional<int> RunBundle(const Scenario& s, const std::string& bundle,
                             const std::vector<std::string>& assignments = {}) {
    ChildProcess patcher = StartBundle(s, bundle, assignments);
    return patcher.wait(120s);
}

// Puts the editor back at 1.0 and forgets every trace of earlier runs.
void ResetInstallation(const Scenario& s) {
    for (const std::string& path : {s.app, std::string("/opt/.orvel-patcher-backup"),
                                    std::string("/tmp/OrvelQX3"), s.logFile, s.historyFile})
        RunTool({"rm", "-rf", path});
    for (const auto& entry : fs::directory_iterator(kStateFolder))
        RunTool({"rm", "-rf", entry.path().string()});
    ASSERT_EQ(RunTool({"cp", "-a", kSavedApp, s.app}), 0);
}

std::vector<std::string> FaultAssignments(long long at, const std::string& error,
                                          const std::string& countFile = {}) {
    std::vector<std::string> env = {
        std::string("LD_PRELOAD=") + ORVEL_SYSCALL_FAULT, "ORVEL_FAULT_PROGRAM=PatcherApp",
        "ORVEL_FAULT_PATHS=/opt:/var/opt", "ORVEL_FAULT_AT=" + std::to_string(at)};
    if (!error.empty())
        env.push_back("ORVEL_FAULT_ERROR=" + error);
    if (!countFile.empty())
        env.push_back("ORVEL_FAULT_COUNT=" + countFile);
    return env;
}

long long EnvironmentNumber(const char* name, long long fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::atoll(value) : fallback;
}

struct SweepCounts {
    int runs = 0, old = 0, updated = 0, mixed = 0;
};

enum class Fault { Kill, NoSpace, IoError };

// Every Nth changing call from 1 to the count of a whole run (every stride-th), with the
// fault; returns what the editor ended as.
SweepCounts Sweep(Scenario& s, Fault fault, long long calls, long long stride,
                  const std::map<std::string, std::string>& oldTree,
                  const std::map<std::string, std::string>& newTree) {
    SweepCounts counts;
    const std::string error = fault == Fault::NoSpace   ? "ENOSPC"
                              : fault == Fault::IoError ? "EIO"
                                                        : "";
    for (long long n = EnvironmentNumber("ORVEL_SWEEP_FROM", 1); n <= calls + 1; n += stride) {
        ResetInstallation(s);
        ++counts.runs;
        const auto status = RunBundle(s, s.bundle, FaultAssignments(n, error));
        std::string where =
            "call " + std::to_string(n) + " (" + (error.empty() ? "kill" : error) + ")";
        std::optional<std::string> code = s.returnCode();
        if (fault == Fault::Kill) {
            // A reboot in between for every other run: the next start sees a fresh, empty
            // /tmp (a tmpfs over the old one, taken away again after it).
            const bool reboot = n % 2 == 0;
            if (reboot) {
                EXPECT_EQ(::mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777"), 0) << where;
            }
            ::unlink(s.returnCodeFile.c_str());
            const auto probe = RunBundle(s, kProbe);
            EXPECT_TRUE(probe && s.returnCode() && std::to_string(*probe) == *s.returnCode())
                << where;
            if (reboot) {
                EXPECT_EQ(::umount2("/tmp", MNT_DETACH), 0) << where;
            }
            code = std::nullopt;
        } else {
            // A silent run ends with its return code.
            EXPECT_TRUE(status && code && std::to_string(*status) == *code) << where << "\n"
                                                                            << s.patcherOutput();
        }
        const auto tree = OwnedSnapshot(s.app);
        const bool isOld = tree == oldTree;
        const bool isNew = tree == newTree;
        if (isOld)
            ++counts.old;
        else if (isNew)
            ++counts.updated;
        else
            ++counts.mixed;
        EXPECT_TRUE(isOld || isNew) << where << ": the editor is neither 1.0 nor 2.0\n"
                                    << ReadTextFile(s.logFile);
        if (fault != Fault::Kill) {
            // The run itself says which: 9 rolled back, 0 updated.
            EXPECT_EQ(code,
                      isNew ? std::optional<std::string>("0") : std::optional<std::string>("9"))
                << where << "\n"
                << ReadTextFile(s.logFile);
        }
        if (::testing::Test::HasFailure())
            return counts;
        // One more run ends at 2.0: it applies the update, or finds it applied.
        ::unlink(s.returnCodeFile.c_str());
        const auto last = RunBundle(s, s.bundle);
        EXPECT_TRUE(last && *last == (isNew ? 3 : 0)) << where;
        EXPECT_EQ(s.returnCode(), isNew ? "3" : "0") << where << "\n" << ReadTextFile(s.logFile);
        EXPECT_EQ(OwnedSnapshot(s.app), newTree) << where;
        if (::testing::Test::HasFailure())
            return counts;
    }
    return counts;
}

// The editor at 1.0 with the update's bundle built, a probe bundle, and the trees of 1.0 and
// 2.0 (the second from a whole run, whose changing calls are counted); the editor is back
// at 1.0 afterwards.
struct PreparedUpdate {
    Scenario s;
    std::map<std::string, std::string> oldTree, newTree;
    long long calls = 0;

    explicit PreparedUpdate(int extra) {
        PrepareLargeUpdate(s, extra);
        if (::testing::Test::HasFailure())
            return;
        fs::create_directories(kStateFolder);
        EXPECT_EQ(RunTool({"cp", "-a", s.app, kSavedApp}), 0);
        MakeProbeBundle(s);
        oldTree = OwnedSnapshot(s.app);
        const std::string countFile = s.work + "/calls.txt";
        EXPECT_EQ(RunBundle(s, s.bundle, FaultAssignments(0, "", countFile)), 0);
        EXPECT_EQ(s.returnCode(), "0") << ReadTextFile(s.logFile);
        newTree = OwnedSnapshot(s.app);
        EXPECT_NE(oldTree, newTree);
        calls = std::atoll(ReadTextFile(countFile).c_str());
        EXPECT_GT(calls, 50);
        ResetInstallation(s);
    }

    long count(const std::string& message) const {
        const auto lines = s.logLines();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(message) != std::string::npos;
        });
    }
};

// The whole sweep over an update with `extra` more files; stride 1 tries every call.
void RunFaultSweep(int extra, long long stride, const std::vector<Fault>& faults) {
    PreparedUpdate update(extra);
    ASSERT_FALSE(::testing::Test::HasFailure());
    // A number of runs asked for spreads them evenly over the calls.
    if (const long long runs = EnvironmentNumber("ORVEL_SWEEP_RUNS", 0); runs > 0)
        stride = std::max(1LL, update.calls / runs);
    for (const Fault fault : faults) {
        const SweepCounts counts =
            Sweep(update.s, fault, update.calls, stride, update.oldTree, update.newTree);
        const char* name = fault == Fault::Kill      ? "SIGKILL"
                           : fault == Fault::NoSpace ? "ENOSPC"
                                                     : "EIO";
        std::printf("%s over %lld changing calls (every %lld): %d runs: %d old, %d new, %d mixed\n",
                    name, update.calls, stride, counts.runs, counts.old, counts.updated,
                    counts.mixed);
        std::fflush(stdout);
        EXPECT_EQ(counts.mixed, 0);
        EXPECT_GT(counts.old, 0);
        EXPECT_GT(counts.updated, 0);
        if (::testing::Test::HasFailure())
            return;
    }
}

} // namespace

// Killed at every changing call of an update of about fifty entries, then started again.
TEST(FaultSweep, KilledAtAnyCallTheEditorIsOldOrNew) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    RunFaultSweep(static_cast<int>(EnvironmentNumber("ORVEL_SWEEP_EXTRA", 36)),
                  EnvironmentNumber("ORVEL_SWEEP_STRIDE", 1), {Fault::Kill});
}

// A full disk at every changing call: the run itself rolls back (9) or has finished (0).
TEST(FaultSweep, NoSpaceAtAnyCallEndsOldWithNineOrNewWithZero) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    RunFaultSweep(static_cast<int>(EnvironmentNumber("ORVEL_SWEEP_EXTRA", 36)),
                  EnvironmentNumber("ORVEL_SWEEP_STRIDE", 1), {Fault::NoSpace});
}

// The same with a failing disk.
TEST(FaultSweep, IoErrorAtAnyCallEndsOldWithNineOrNewWithZero) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    RunFaultSweep(static_cast<int>(EnvironmentNumber("ORVEL_SWEEP_EXTRA", 36)),
                  EnvironmentNumber("ORVEL_SWEEP_STRIDE", 1), {Fault::IoError});
}

// Killed half way, the update is rolled back by the next start, which says so and then
// applies the update; killed after its commit, the next start keeps it and says so.
TEST(Recovery, TheNextStartSaysWhatItFoundAndWhatItDid) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(6);
    ASSERT_FALSE(::testing::Test::HasFailure());
    Scenario& s = update.s;

    (void)RunBundle(s, s.bundle, FaultAssignments(update.calls / 2, ""));
    EXPECT_FALSE(s.logContains("Exit code: 0"));
    ASSERT_TRUE(FileExists(kStateFolder + "/update-in-progress"));
    ASSERT_EQ(RunBundle(s, s.bundle), 0);
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_EQ(update.count("Found an update of " + s.installDir + " that did not finish: process"),
              1);
    EXPECT_EQ(update.count("Rolling it back from the journal in "), 1);
    EXPECT_EQ(update.count("The unfinished update was rolled back: " + s.installDir +
                           " is at its old version again"),
              1);
    EXPECT_EQ(OwnedSnapshot(s.app), update.newTree);
    EXPECT_FALSE(FileExists(kStateFolder + "/update-in-progress"));
    EXPECT_FALSE(FileExists("/opt/.orvel-patcher-backup"));
    // The dead run's working folder is gone too; only the return code is left.
    EXPECT_EQ(update.count("Removed the working folder /tmp/OrvelQX3/PatcherApp_"), 1);
    for (const auto& entry : fs::directory_iterator("/tmp/OrvelQX3"))
        EXPECT_EQ(entry.path().filename(), "retVal");

    // The last changing calls remove the record and then the backups; killed at the last
    // call that leaves the record, the run had committed.
    for (long long n = update.calls; n > 0; --n) {
        ResetInstallation(s);
        (void)RunBundle(s, s.bundle, FaultAssignments(n, ""));
        if (FileExists(kStateFolder + "/update-in-progress"))
            break;
    }
    ASSERT_TRUE(FileExists(kStateFolder + "/update-in-progress"));
    ASSERT_EQ(RunBundle(s, s.bundle), 3);
    EXPECT_EQ(s.returnCode(), "3");
    EXPECT_EQ(update.count("That update had been committed: " + s.installDir +
                           " is at its new version; its journal is discarded"),
              1);
    EXPECT_EQ(OwnedSnapshot(s.app), update.newTree);
    EXPECT_FALSE(FileExists(kStateFolder + "/update-in-progress"));
}

// A disk that fails for good half way: the rollback fails too. The silent run ends with 10
// (its exit status and its return code say so), and once the disk works again the next
// start finishes the rollback from the journal and applies the update.
TEST(Recovery, ADiskThatFailsForGoodEndsWithTenAndTheNextStartRepairs) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(6);
    ASSERT_FALSE(::testing::Test::HasFailure());
    Scenario& s = update.s;

    auto failing = FaultAssignments(update.calls / 2, "EIO");
    failing.push_back("ORVEL_FAULT_ONWARD=1");
    EXPECT_EQ(RunBundle(s, s.bundle, failing), 10) << ReadTextFile(s.logFile);
    EXPECT_EQ(s.returnCode(), "10");
    EXPECT_TRUE(s.logContains("Rollback failed. Application left in undeterminate state."))
        << ReadTextFile(s.logFile);
    EXPECT_NE(OwnedSnapshot(s.app), update.newTree);

    ::unlink(s.returnCodeFile.c_str());
    ASSERT_EQ(RunBundle(s, s.bundle), 0) << ReadTextFile(s.logFile);
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_EQ(update.count("Rolling it back from the journal in "), 1) << ReadTextFile(s.logFile);
    EXPECT_EQ(OwnedSnapshot(s.app), update.newTree);
    EXPECT_FALSE(FileExists(kStateFolder + "/update-in-progress"));
}

// SIGTERM, SIGHUP and SIGINT in the middle of the walk cancel the update: rolled back, 9.
TEST(Signals, TermHupAndIntDuringTheWalkRollBackWithNine) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(6);
    ASSERT_FALSE(::testing::Test::HasFailure());
    Scenario& s = update.s;
    const std::vector<std::pair<std::string, std::string>> signals = {
        {"TERM", "Signal 15"}, {"HUP", "Signal 1"}, {"INT", "Signal 2"}};
    for (const auto& [name, logged] : signals) {
        SCOPED_TRACE(name);
        ResetInstallation(s);
        auto env = FaultAssignments(update.calls / 2, "");
        env.push_back("ORVEL_FAULT_SIGNAL=" + name);
        ASSERT_EQ(RunBundle(s, s.bundle, env), 9) << s.patcherOutput();
        EXPECT_EQ(s.returnCode(), "9");
        EXPECT_EQ(update.count(logged + " "), 1) << ReadTextFile(s.logFile);
        EXPECT_EQ(update.count("received: the update is cancelled"), 1);
        EXPECT_TRUE(s.logContains("Rollback successful"));
        EXPECT_EQ(OwnedSnapshot(s.app), update.oldTree);
        EXPECT_FALSE(FileExists(kStateFolder + "/update-in-progress"));
    }
}

// Patchers started together on one installation: one applies the update, the others wait
// for it and then find the editor up to date. Never a mixed tree, never two entries.
TEST(Concurrency, TwoAndFourPatchersAtOnceNeverMix) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(6);
    ASSERT_FALSE(::testing::Test::HasFailure());
    Scenario& s = update.s;
    for (const int together : {2, 2, 2, 4, 4}) {
        SCOPED_TRACE(together);
        ResetInstallation(s);
        std::vector<ChildProcess> patchers;
        for (int i = 0; i < together; ++i)
            patchers.push_back(StartBundle(s, s.bundle, {}));
        // One applies (0); the others waited for it and find the editor up to date (3).
        for (auto& patcher : patchers) {
            const auto status = patcher.wait(120s);
            EXPECT_TRUE(status == 0 || status == 3) << status.value_or(-1);
        }
        EXPECT_EQ(OwnedSnapshot(s.app), update.newTree);
        EXPECT_EQ(update.count("Exit code: 0"), 1) << ReadTextFile(s.logFile);
        EXPECT_EQ(update.count("App is already up-to-date"), together - 1);
        const std::string history = ReadTextFile(s.historyFile);
        size_t entries = 0;
        for (size_t at = history.find("<Patcher "); at != std::string::npos;
             at = history.find("<Patcher ", at + 1))
            ++entries;
        EXPECT_EQ(entries, 1u);
        if (::testing::Test::HasFailure())
            return;
    }
}

// While another process holds the lock, a silent run waits, and gives up with 12 after its
// limit; once the lock is free, it goes on.
TEST(Lock, ASilentRunWaitsForTheLockAndGivesUpWithTwelve) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(0);
    ASSERT_FALSE(::testing::Test::HasFailure());
    Scenario& s = update.s;
    const std::string lock = kStateFolder + "/patcher.lock";
    const std::string held = s.work + "/lock-held";
    ChildProcess holder({"flock", "--close", lock, "sh", "-c", "touch '" + held + "'; sleep 60"},
                        CleanEnvironment({}));
    ASSERT_TRUE(WaitUntil([&] { return FileExists(held); }, 10s));

    ASSERT_EQ(RunBundle(s, s.bundle, {"ORVEL_PATCHER_LOCK_WAIT=1"}), 12);
    EXPECT_EQ(s.returnCode(), "12");
    EXPECT_EQ(update.count("is updating this machine; waiting for it to finish"), 1);
    EXPECT_EQ(update.count("Another patcher is still updating this machine: giving up after 1 s"),
              1);
    EXPECT_EQ(OwnedSnapshot(s.app), update.oldTree);

    // A run that waits longer goes on once the holder has ended.
    ChildProcess patcher = StartBundle(s, s.bundle, {"ORVEL_PATCHER_LOCK_WAIT=60"});
    ASSERT_TRUE(WaitUntil([&] { return update.count("waiting for it to finish") == 2; }, 10s));
    holder.kill();
    EXPECT_EQ(patcher.wait(60s), 0);
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_TRUE(s.logContains("The other patcher has finished"));
    EXPECT_EQ(OwnedSnapshot(s.app), update.newTree);
}

namespace {

bool MountSmallTmpfs(const std::string& folder, const std::string& size) {
    fs::create_directories(folder);
    const std::string options = "size=" + size + ",mode=0755";
    return ::mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// The run ends at 1.0 with 9, and its log names the full disk.
void ExpectRolledBackForWantOfSpace(PreparedUpdate& update,
                                    const std::string& logged = "No space left on device") {
    Scenario& s = update.s;
    ASSERT_EQ(RunBundle(s, s.bundle), 9) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "9") << ReadTextFile(s.logFile);
    EXPECT_GE(update.count(logged), 1) << ReadTextFile(s.logFile);
    EXPECT_TRUE(s.logContains("Rollback successful"));
    EXPECT_EQ(OwnedSnapshot(s.app), update.oldTree);
    EXPECT_FALSE(FileExists(kStateFolder + "/update-in-progress"));
}

} // namespace

// The working folder's volume holds less than the payload (a 2 MB new file).
TEST(FullDisk, AFullTmpLeavesTheEditorOldWithNine) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(0);
    ASSERT_FALSE(::testing::Test::HasFailure());
    ASSERT_TRUE(MountSmallTmpfs("/tmp/OrvelQX3", "1m"));
    // Seen before a byte is unpacked, from the size the payload declares.
    ExpectRolledBackForWantOfSpace(update, "bytes free");
}

// The backup place (the state folder, as the installation's volume is open to others)
// cannot hold the copy of the 3 MB data file that the update patches.
TEST(FullDisk, AFullBackupPlaceLeavesTheEditorOldWithNine) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(0);
    ASSERT_FALSE(::testing::Test::HasFailure());
    fs::permissions("/opt", fs::perms::group_write, fs::perm_options::add);
    ASSERT_TRUE(MountSmallTmpfs(kStateFolder, "512k"));
    ::chmod(kStateFolder.c_str(), 0700);
    ExpectRolledBackForWantOfSpace(update);
    EXPECT_TRUE(update.s.logContains("Backups and journal in " + kStateFolder + "/backup"));
}

// The installation's volume has room for the editor and little more: the new data file
// does not fit beside the old one.
TEST(FullDisk, AFullInstallationVolumeLeavesTheEditorOldWithNine) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    PreparedUpdate update(0);
    ASSERT_FALSE(::testing::Test::HasFailure());
    Scenario& s = update.s;
    uintmax_t used = 0;
    for (const auto& entry : fs::recursive_directory_iterator(kSavedApp))
        if (entry.is_regular_file() && !entry.is_symlink())
            used += entry.file_size();
    RunTool({"rm", "-rf", s.app});
    ASSERT_TRUE(MountSmallTmpfs(s.installDir, std::to_string(used / 1024 + 1600) + "k"));
    ASSERT_EQ(RunTool({"cp", "-a", kSavedApp, s.app}), 0);
    ExpectRolledBackForWantOfSpace(update);
}

// A run killed in its walk leaves the service it stopped stopped; the next start rolls the
// editor back and starts the service again.
TEST(Recovery, TheServiceAnUnfinishedUpdateStoppedIsStartedAgain) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    static const std::string kService = "orvel-crash-indexer";
    Scenario s;
    ASSERT_TRUE(StartSleeperService(kService));
    WriteTextFile("/tmp/authTokenData", std::string(32, 'a'));
    s.installApplication();
    s.registerInstallation();
    const auto entries = s.updateEntries();
    s.assemble(s.manifest(entries, true, true, ServiceSetXml(kService)));
    fs::create_directories(kStateFolder);
    ASSERT_EQ(RunTool({"cp", "-a", s.app, kSavedApp}), 0);
    MakeProbeBundle(s);
    const auto oldTree = OwnedSnapshot(s.app);

    const std::string countFile = s.work + "/calls.txt";
    ASSERT_EQ(RunBundle(s, s.bundle, FaultAssignments(0, "", countFile)), 0);
    ASSERT_EQ(s.returnCode(), "0");
    const long long calls = std::atoll(ReadTextFile(countFile).c_str());
    ResetInstallation(s);
    ASSERT_TRUE(ProcessAlive(ServicePid(kService)));

    // Killed in the middle of its walk, with the service stopped.
    (void)RunBundle(s, s.bundle, FaultAssignments(calls * 2 / 3, ""));
    ASSERT_TRUE(s.logContains("Successfully stopped."));
    ASSERT_FALSE(s.logContains("Long task finished"));
    EXPECT_TRUE(WaitUntil([] { return !ProcessAlive(ServicePid(kService)); }, 10s));

    const auto probe = RunBundle(s, kProbe);
    ASSERT_TRUE(probe && s.returnCode() && std::to_string(*probe) == *s.returnCode());
    EXPECT_TRUE(s.logContains("Starting the services that update had stopped: " + kService));
    EXPECT_TRUE(WaitUntil([] { return ProcessAlive(ServicePid(kService)); }, 10s));
    EXPECT_EQ(OwnedSnapshot(s.app), oldTree);
}
