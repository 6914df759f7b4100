// The real PatcherApp, run as root, against what an unprivileged local user can plant or a
// crafted bundle can carry: nothing outside the installation changes, the application
// stays at its old version, and the log says why.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

constexpr uid_t kAttacker = 65534;

// Runs a shell command as the unprivileged attacker; its exit status.
int AsAttacker(const std::string& command) {
    return RunTool({"setpriv", "--reuid=" + std::to_string(kAttacker),
                    "--regid=" + std::to_string(kAttacker), "--clear-groups", "/bin/sh", "-c",
                    command});
}

// The editor at 1.0 for one case of a table: the installation database outlives the cases,
// so the installation is registered for the first case only.
void InstallForCase(Scenario& s, bool& registered) {
    s.installApplication();
    if (!std::exchange(registered, true))
        s.registerInstallation();
}

// The editor at 1.0, registered, and the entries of its update.
std::vector<FileEntry> PrepareUpdate(Scenario& s) {
    bool registered = false;
    InstallForCase(s, registered);
    return s.updateEntries();
}

TEST(HostileInput, AGroupWritableDatabaseLibraryIsNotLoaded) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.assemble(s.manifest(PrepareUpdate(s)));
    const std::string library = s.bundle + "/Contents/Frameworks/orvel_zoth.framework/orvel_zoth";
    ASSERT_EQ(::chmod(library.c_str(), 0664), 0);
    const auto before = Md5OfFile(s.app + "/Contents/Info.plist");

    ASSERT_EQ(s.runPatcher({"-Silent"}), 5) << s.patcherOutput();
    // Without the library the installation cannot be found.
    EXPECT_EQ(s.returnCode(), "5");
    EXPECT_TRUE(s.logContains("The library " + library + " is not loaded: " + library +
                              " belongs to user 0 with mode 664"));
    EXPECT_EQ(Md5OfFile(s.app + "/Contents/Info.plist"), before);
    EXPECT_FALSE(FileExists(s.historyFile));
}

TEST(HostileInput, TheLogInAUsersHomeIsTheUsersAndNeverFollowsALink) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.assemble(s.manifest(PrepareUpdate(s)));
    ASSERT_EQ(::chown(s.home.c_str(), kAttacker, kAttacker), 0);
    // The user points the log's folder at a folder of root's.
    const std::string canary = "/var/opt/canary";
    fs::create_directories(canary);
    ASSERT_EQ(::chmod(canary.c_str(), 0700), 0);
    ASSERT_EQ(AsAttacker("mkdir -p '" + s.home + "/.local/state/Orvel' && ln -s '" + canary +
                         "' '" + s.home + "/.local/state/Orvel/SoftwareUpdates'"),
              0);

    ASSERT_EQ(s.runPatcher({"-Silent"}), 0) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "0"); // the update goes on without its log
    EXPECT_TRUE(fs::is_empty(canary));

    // The same with /etc, seen here through an overlay, so that a mistake could reach only
    // the overlay's upper folder, never the machine's own /etc.
    const std::string upper = "/var/opt/etc-upper";
    fs::create_directories(upper);
    fs::create_directories("/var/opt/etc-work");
    // The overlay shows the machine's /etc without the private /etc/orvel mounted over it,
    // so that is mounted again on top (the trusted key).
    const int orvelEtc = ::open("/etc/orvel", O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(orvelEtc, 0);
    ASSERT_EQ(::mount("overlay", "/etc", "overlay", 0,
                      ("lowerdir=/etc,upperdir=" + upper + ",workdir=/var/opt/etc-work").c_str()),
              0)
        << std::strerror(errno);
    ASSERT_EQ(::mount(("/proc/self/fd/" + std::to_string(orvelEtc)).c_str(), "/etc/orvel", nullptr,
                      MS_BIND, nullptr),
              0)
        << std::strerror(errno);
    ::close(orvelEtc);
    ASSERT_EQ(AsAttacker("rm '" + s.home + "/.local/state/Orvel/SoftwareUpdates' && ln -s /etc '" +
                         s.home + "/.local/state/Orvel/SoftwareUpdates'"),
              0);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 3) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "3");
    EXPECT_TRUE(fs::is_empty(upper));
    EXPECT_FALSE(FileExists("/etc/OrvelSoftwareUpdate.log"));
    ASSERT_EQ(::umount("/etc/orvel"), 0);
    ASSERT_EQ(::umount("/etc"), 0);

    // Without the link the log is the user's, made as the user, and the user can append.
    ASSERT_EQ(AsAttacker("rm '" + s.home + "/.local/state/Orvel/SoftwareUpdates'"), 0);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 3) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "3");
    struct stat info {};
    ASSERT_EQ(::lstat(s.logFile.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_uid, kAttacker);
    ASSERT_EQ(::lstat((s.home + "/.local/state/Orvel/SoftwareUpdates").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, kAttacker);
    EXPECT_EQ(AsAttacker("echo appended >> '" + s.logFile + "'"), 0);
    EXPECT_TRUE(s.logContains("appended"));
}

// A root-only folder outside the installation with a root-only file in it, as the attacker's
// target; its snapshot is what must not change.
struct Canary {
    const std::string folder = "/var/opt/canary";
    const std::string secret = "/var/opt/canary/secret";
    Canary() {
        fs::create_directories(folder);
        ::chmod(folder.c_str(), 0700);
        WriteTextFile(secret, "root's alone\n");
        ::chmod(secret.c_str(), 0600);
    }
    std::map<std::string, std::string> snapshot() const {
        return SnapshotTree(folder, TreeDetail::ContentsAndModes);
    }
};

// Takes away what one case of a table left (the application, the canary, the return code
// and the log), so that the next case starts as the first did.
void ClearCase(const Scenario& s, const Canary& canary) {
    fs::remove_all(s.app);
    fs::remove_all(canary.folder);
    fs::remove(s.returnCodeFile);
    fs::remove(s.logFile);
}

// Manifests whose destinations lead outside the installation, by their text or through a
// link planted on the way: refused before anything changes, with code 9.
TEST(HostileInput, DestinationsOutsideTheInstallationAreRefusedBeforeAnyChange) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    const std::string contents = "[INSTALLDIR]/Editor.app/Contents";
    struct Case {
        std::string name;
        std::function<void(Scenario&, const Canary&)> plant;
        std::vector<FileEntry> entries;
        std::string logged;
        std::vector<std::string> assignments = {};
    };
    const std::string noToken = "does not start with a directory token of a known folder";
    const std::string throughLink = "is reached through the symbolic link ";
    auto linkInApp = [](Scenario& s, const Canary& canary) {
        ASSERT_EQ(::symlink(canary.folder.c_str(), (s.app + "/Contents/Linked").c_str()), 0);
    };
    std::vector<FileEntry> many;
    for (int i = 0; i < 25; ++i)
        many.push_back({"ADD", "new.txt", contents + "/Linked", "f" + std::to_string(i)});
    const std::vector<Case> cases = {
        {"..",
         nullptr,
         {{"ADD", "new.txt", "[INSTALLDIR]/../../../var/opt/canary", "x"}},
         "has a \"..\" component"},
        {"absolute ADD", nullptr, {{"ADD", "new.txt", "/var/opt/canary", "x"}}, noToken},
        {"absolute REMOVE", nullptr, {{"REMOVE", "secret", "/var/opt/canary", "secret"}}, noToken},
        {"token-less", nullptr, {{"ADD", "new.txt", "var/opt/canary", "x"}}, noToken},
        {"rename out",
         nullptr,
         {{"RENAME", "rename-me.txt", contents + "/Resources", "rename-me.txt", "", "",
           "/var/opt/canary", "x"}},
         noToken},
        {"a folder of the application linked to a root-only folder", linkInApp, many, throughLink},
        {"REMOVE through a linked folder",
         linkInApp,
         {{"REMOVE", "secret", contents + "/Linked", "secret"}},
         throughLink},
        {"a folder the user controls linked to a root-only folder",
         [](Scenario&, const Canary& canary) {
             fs::create_directories("/home/nobody");
             ASSERT_EQ(::chown("/home/nobody", kAttacker, kAttacker), 0);
             ASSERT_EQ(AsAttacker("mkdir -p /home/nobody/.config && ln -s " + canary.folder +
                                  " /home/nobody/.config/Orvel"),
                       0);
         },
         {{"ADD", "new.txt", "[UserPreferences]/Orvel", "settings.plist"}},
         throughLink,
         {"SUDO_USER=nobody"}},
    };
    bool registered = false;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Scenario s;
        Canary canary;
        InstallForCase(s, registered);
        auto entries = s.updateEntries();
        entries.insert(entries.end(), c.entries.begin(), c.entries.end());
        s.assemble(s.manifest(entries));
        if (c.plant)
            c.plant(s, canary);
        const auto app = SnapshotTree(s.app, TreeDetail::ContentsAndModes);
        const auto outside = canary.snapshot();

        ASSERT_EQ(s.runPatcher({"-Silent"}, c.assignments), 9) << s.patcherOutput();
        EXPECT_EQ(s.returnCode(), "9");
        EXPECT_GE(s.logIndex("The manifest is refused, nothing was changed: ", true), 0);
        EXPECT_GE(s.logIndex(c.logged, true), 0);
        EXPECT_EQ(SnapshotTree(s.app, TreeDetail::ContentsAndModes), app);
        EXPECT_EQ(canary.snapshot(), outside);
        EXPECT_FALSE(FileExists(s.historyFile));
        fs::remove_all(s.app);
        fs::remove_all(canary.folder);
        fs::remove_all("/home/nobody");
    }
}

// A destination that is itself a link (to a root-only file) is replaced as a link or
// refused, never written through.
TEST(HostileInput, ADestinationThatIsALinkToARootFileIsNeverWrittenThrough) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Canary canary;
    s.assemble(s.manifest(PrepareUpdate(s)));
    const std::string keep = s.app + "/Contents/Resources/keep.txt";
    fs::remove(keep);
    ASSERT_EQ(::symlink(canary.secret.c_str(), keep.c_str()), 0);
    const auto outside = canary.snapshot();
    ASSERT_EQ(s.runPatcher({"-Silent"}), 9) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "9"); // the link's target is not the file the update expects
    EXPECT_EQ(canary.snapshot(), outside);
    EXPECT_EQ(fs::read_symlink(keep), canary.secret);
}

// Variables that would make a root run load code or data from elsewhere are removed, the
// run starts itself again without them, says so, and applies the update as usual (with the
// machine's installation database, not the one a variable names).
TEST(HostileInput, ARootRunIgnoresVariablesThatPointItElsewhere) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.assemble(s.manifest(PrepareUpdate(s)));
    fs::create_directories("/tmp/elsewhere");
    ASSERT_EQ(
        s.runPatcher({"-Silent"},
                     {"LD_LIBRARY_PATH=/tmp/elsewhere", "GCONV_PATH=/tmp/elsewhere",
                      "QT_PLUGIN_PATH=/tmp/elsewhere", "ORVEL_ZOTH_DB=/tmp/elsewhere/zoth.db"}),
        0)
        << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "0");
    const long line =
        s.logIndex("A root run does not honour these variables; they were removed: ", true);
    ASSERT_GE(line, 0) << ReadTextFile(s.logFile);
    for (const char* name : {"LD_LIBRARY_PATH", "GCONV_PATH", "QT_PLUGIN_PATH", "ORVEL_ZOTH_DB"})
        EXPECT_NE(s.logLines()[static_cast<size_t>(line)].find(name), std::string::npos) << name;
    EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
    EXPECT_EQ(Md5OfFile(s.app + "/Contents/Info.plist").value_or(""), s.md5["plist2"]);
}

// The update manager's results library is used only when root alone could have changed it;
// a group-writable one counts as missing, so no result is sent through it.
TEST(HostileInput, AGroupWritableResultsLibraryIsNotLoaded) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.assemble(s.manifest(PrepareUpdate(s)));
    const std::string library = s.bundle + "/Contents/Frameworks/libKORInstallerResults.so";
    ASSERT_EQ(::chmod(library.c_str(), 0664), 0);
    int status = 0;
    const std::string output = s.runUnderUpdateManager({}, &status);
    EXPECT_EQ(output.find("code: "), std::string::npos) << output;
    EXPECT_EQ(status, 1); // no result arrived
    EXPECT_TRUE(s.logContains("The library " + s.bundle +
                              "/Contents/Frameworks/libKORInstallerResults.so is not loaded: " +
                              library + " belongs to user 0 with mode 664"))
        << ReadTextFile(s.logFile);
}

// The folder of the return code, in /tmp where every local user can make names.
const std::string kResultFolder = "/tmp/OrvelQX3";
// How long a run against hostile input may take before it counts as hanging.
constexpr std::chrono::seconds kRunLimit{30};

// A file of tests/e2e/fixtures/hostile (made by make-fixtures.sh there, or written by hand).
std::string Fixture(const std::string& name) {
    const std::string path = std::string(ORVEL_HOSTILE_FIXTURES) + "/" + name;
    EXPECT_TRUE(FileExists(path)) << "no fixture " << path;
    return path;
}

void CopyFixture(const std::string& name, const std::string& to) {
    fs::copy_file(Fixture(name), to, fs::copy_options::overwrite_existing);
}

// Runs the patcher silently for at most limit; false, with a failure, when it had not ended
// by then (it is killed).
bool RunSilentWithin(const Scenario& s, std::chrono::seconds limit,
                     const std::vector<std::string>& assignments = {}) {
    ChildProcess patcher = s.startPatcher({"-Silent"}, assignments);
    const auto status = patcher.wait(limit);
    if (!status) {
        ADD_FAILURE() << "PatcherApp did not end within " << limit.count() << " s\n"
                      << s.patcherOutput();
        return false;
    }
    // A silent run ends with its return code, written or not, and never by a signal.
    EXPECT_LT(*status, 128) << s.patcherOutput();
    if (const auto code = s.returnCode()) {
        EXPECT_EQ(std::to_string(*status), *code) << s.patcherOutput();
    }
    return true;
}

// The names in a folder (a link to a folder is not followed), sorted.
std::vector<std::string> NamesIn(const std::string& folder) {
    std::vector<std::string> names;
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// Every file below root whose name holds "retVal" (the code, or the file it is written to
// before its rename), links not followed.
std::vector<std::string> ReturnCodeFilesBelow(const std::string& root) {
    std::vector<std::string> found;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(
             root, fs::directory_options::skip_permission_denied, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        if (it->path().filename().string().find("retVal") != std::string::npos)
            found.push_back(it->path().string());
    }
    return found;
}

// Every file below root with the set-user-ID or set-group-ID bit.
std::vector<std::string> SetIdFilesBelow(const std::string& root) {
    std::vector<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat info {};
        if (::lstat(entry.path().c_str(), &info) == 0 && (info.st_mode & (S_ISUID | S_ISGID)))
            found.push_back(entry.path().string());
    }
    return found;
}

// The user the run acts for (sudo started it for them) owns the code's folder and plants a
// link to a root-only file as the code: the code replaces the link and the file stays as it
// was. A folder of the user's is no place for the payload, so the update is rolled back.
TEST(HostileInput, TheReturnCodeReplacesALinkPlantedInItsPlace) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Canary canary;
    s.assemble(s.manifest(PrepareUpdate(s)));
    ASSERT_EQ(AsAttacker("mkdir -m 0755 " + kResultFolder + " && ln -s " + canary.secret + " " +
                         s.returnCodeFile),
              0);
    const auto app = SnapshotTree(s.app, TreeDetail::ContentsAndModes);
    const auto outside = canary.snapshot();

    ASSERT_TRUE(RunSilentWithin(s, kRunLimit, {"SUDO_UID=" + std::to_string(kAttacker)}));
    EXPECT_EQ(canary.snapshot(), outside);
    struct stat info {};
    ASSERT_EQ(::lstat(s.returnCodeFile.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(s.returnCode(), "9");
    EXPECT_GE(
        s.logIndex(" is not used: " + kResultFolder + " belongs to user 65534 with mode 755", true),
        0)
        << ReadTextFile(s.logFile);
    EXPECT_EQ(SnapshotTree(s.app, TreeDetail::ContentsAndModes), app);
    EXPECT_FALSE(FileExists(s.historyFile));
}

// A hard link to a root-only file as the code (only root can make one: protected_hardlinks
// stops users) is replaced by a new file; the linked file keeps its content and its one name.
TEST(HostileInput, TheReturnCodeReplacesAHardLinkToARootFile) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.assemble(s.manifest(PrepareUpdate(s)));
    // A hard link cannot leave its file system, so the root file is in /tmp too.
    const std::string folder = "/tmp/root-only";
    const std::string secret = folder + "/secret";
    fs::create_directories(folder);
    ASSERT_EQ(::chmod(folder.c_str(), 0700), 0);
    WriteTextFile(secret, "root's alone\n");
    ASSERT_EQ(::chmod(secret.c_str(), 0600), 0);
    fs::create_directories(kResultFolder);
    ASSERT_EQ(::chmod(kResultFolder.c_str(), 0755), 0);
    ASSERT_EQ(::link(secret.c_str(), s.returnCodeFile.c_str()), 0);

    ASSERT_TRUE(RunSilentWithin(s, kRunLimit));
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_EQ(ReadTextFile(secret), "root's alone\n");
    struct stat secretInfo {};
    struct stat codeInfo {};
    ASSERT_EQ(::lstat(secret.c_str(), &secretInfo), 0);
    ASSERT_EQ(::lstat(s.returnCodeFile.c_str(), &codeInfo), 0);
    EXPECT_EQ(secretInfo.st_nlink, 1u);
    EXPECT_EQ(secretInfo.st_mode & 07777, 0600u);
    EXPECT_NE(codeInfo.st_ino, secretInfo.st_ino);
    EXPECT_EQ(Md5OfFile(s.app + "/Contents/Info.plist").value_or(""), s.md5["plist2"]);
}

// A code folder that is a link, another user's, or writable by others takes no code: nothing
// is written into it or where it leads. It is no place for the payload either: nothing is
// unpacked, the update finds its new files missing and is rolled back.
TEST(HostileInput, TheReturnCodeIsNotWrittenIntoAFolderOthersControl) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    struct Case {
        std::string name;
        std::function<void()> plant;
        std::string problem;
    };
    auto rootsWithMode = [](mode_t mode) {
        return [mode] {
            fs::create_directories(kResultFolder);
            ASSERT_EQ(::chmod(kResultFolder.c_str(), mode), 0);
        };
    };
    const std::vector<Case> cases = {
        {"a link to a root-only folder",
         [] { ASSERT_EQ(AsAttacker("ln -s /var/opt/canary " + kResultFolder), 0); },
         kResultFolder + " is not a folder (Not a directory)"},
        {"another user's", [] { ASSERT_EQ(AsAttacker("mkdir -m 0755 " + kResultFolder), 0); },
         kResultFolder + " belongs to user 65534 with mode 755"},
        {"world-writable", rootsWithMode(0777), kResultFolder + " belongs to user 0 with mode 777"},
        {"world-writable and sticky", rootsWithMode(01777),
         kResultFolder + " belongs to user 0 with mode 1777"},
    };
    bool registered = false;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Scenario s;
        Canary canary;
        InstallForCase(s, registered);
        s.assemble(s.manifest(s.updateEntries()));
        c.plant();
        const auto app = SnapshotTree(s.app, TreeDetail::ContentsAndModes);
        const auto outside = canary.snapshot();

        ASSERT_TRUE(RunSilentWithin(s, kRunLimit));
        EXPECT_GE(s.logIndex("The return code is not written: " + c.problem +
                             "; only a folder of root or of this run's user that no one else "
                             "can write is used"),
                  0)
            << ReadTextFile(s.logFile);
        EXPECT_GE(s.logIndex(" is not used: " + c.problem, true), 0);
        EXPECT_FALSE(s.returnCode());
        EXPECT_TRUE(NamesIn(kResultFolder).empty());
        EXPECT_TRUE(ReturnCodeFilesBelow("/tmp").empty());
        EXPECT_TRUE(ReturnCodeFilesBelow("/var/opt").empty());
        EXPECT_EQ(canary.snapshot(), outside);
        EXPECT_EQ(SnapshotTree(s.app, TreeDetail::ContentsAndModes), app);
        EXPECT_FALSE(FileExists(s.historyFile));
        ClearCase(s, canary);
        fs::remove_all(kResultFolder);
    }
}

// The update with /tmp/authTokenData made by plant: the file is ignored as the log says
// (ignored: the rest of its line) or, when ignored is empty, taken as the token without a
// word; either way the update ends as usual, in bounded time, and the canary stays as it was.
void ExpectAnUpdateWithTokenFile(const std::function<void(const Canary&)>& plant,
                                 const std::string& ignored) {
    Scenario s;
    Canary canary;
    s.assemble(s.manifest(PrepareUpdate(s)));
    plant(canary);
    const auto outside = canary.snapshot();

    ASSERT_TRUE(RunSilentWithin(s, kRunLimit));
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_EQ(Md5OfFile(s.app + "/Contents/Info.plist").value_or(""), s.md5["plist2"]);
    if (ignored.empty()) {
        EXPECT_LT(s.logIndex("Ignoring ", true), 0) << ReadTextFile(s.logFile);
        EXPECT_LT(s.logIndex("Error. Execute with privileges cannot be initialized."), 0);
    } else {
        EXPECT_GE(s.logIndex("Ignoring /tmp/authTokenData: " + ignored), 0)
            << ReadTextFile(s.logFile);
    }
    EXPECT_EQ(canary.snapshot(), outside);
}

TEST(HostileInput, ATokenFileThatIsALinkIsIgnored) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    ExpectAnUpdateWithTokenFile(
        [](const Canary& canary) {
            ASSERT_EQ(AsAttacker("ln -s " + canary.secret + " /tmp/authTokenData"), 0);
        },
        "it is a symbolic link");
}

// A named pipe would block a reader that waits for a writer: the run must not hang on it.
TEST(HostileInput, ATokenFileThatIsAPipeIsIgnoredWithoutWaiting) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    ExpectAnUpdateWithTokenFile(
        [](const Canary&) { ASSERT_EQ(AsAttacker("mkfifo /tmp/authTokenData"), 0); },
        "only a regular file of root's is a token");
}

TEST(HostileInput, ATokenFileOfAnotherUserIsIgnored) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    ExpectAnUpdateWithTokenFile(
        [](const Canary&) {
            ASSERT_EQ(AsAttacker("printf 0123456789abcdef > /tmp/authTokenData"), 0);
        },
        "only a regular file of root's is a token");
}

// A regular file of root's is a token, but only a token's length of it is read.
TEST(HostileInput, AHugeTokenFileOfRootsIsReadOnlyAsFarAsAToken) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    ExpectAnUpdateWithTokenFile(
        [](const Canary&) {
            WriteTextFile("/tmp/authTokenData", "");
            ASSERT_EQ(::truncate("/tmp/authTokenData", 64 << 20), 0);
        },
        "");
}

// The update that adds new.txt, the first file of every payload fixture, and the extra
// entries; its payload is the fixture instead of the archive mkpatcher packed.
void AssembleWithPayload(Scenario& s, const std::string& fixture,
                         const std::vector<FileEntry>& extra = {}) {
    (void)s.updateEntries();
    std::vector<FileEntry> entries = {{"ADD", "new.txt",
                                       "[INSTALLDIR]/Editor.app/Contents/Resources", "new.txt", "",
                                       s.md5["new"]}};
    entries.insert(entries.end(), extra.begin(), extra.end());
    s.assemble(s.manifest(entries, false, false));
    CopyFixture(fixture, s.bundle + "/Contents/Resources/Payload.cpio.gz");
    s.sign(s.bundle);
}

// A refused payload: refused whole at its first hostile entry (new.txt, unpacked before it,
// goes too), so the update finds new.txt missing and is rolled back.
struct RefusedPayload {
    std::string fixture;
    std::string reason; // a stable part of what "Failed to extract" says
};

void ExpectPayloadsRefused(const std::vector<RefusedPayload>& cases) {
    bool registered = false;
    for (const RefusedPayload& c : cases) {
        SCOPED_TRACE(c.fixture);
        Scenario s;
        Canary canary;
        InstallForCase(s, registered);
        AssembleWithPayload(s, c.fixture);
        const auto app = SnapshotTree(s.app, TreeDetail::ContentsAndModes);
        const auto outside = canary.snapshot();

        ASSERT_TRUE(RunSilentWithin(s, kRunLimit));
        EXPECT_EQ(s.returnCode(), "9");
        EXPECT_GE(s.logIndex("Failed to extract \"" + s.bundle +
                                 "/Contents/Resources/Payload.cpio.gz\": " + c.reason,
                             true),
                  0)
            << ReadTextFile(s.logFile);
        EXPECT_EQ(SnapshotTree(s.app, TreeDetail::ContentsAndModes), app);
        EXPECT_EQ(canary.snapshot(), outside);
        EXPECT_FALSE(FileExists(s.historyFile));
        EXPECT_EQ(NamesIn(kResultFolder), std::vector<std::string>{"retVal"});
        ClearCase(s, canary);
    }
}

// Entries that lead out of the working folder, or that are neither files, folders nor links.
TEST(HostileInput, APayloadEntryOutsideItsFolderOrOfAnotherKindIsRefusedWhole) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    ExpectPayloadsRefused({
        {"payload-dotdot.cpio.gz", "\"../../../var/opt/canary/planted\": Path contains '..'"},
        {"payload-absolute.cpio.gz", "\"/var/opt/canary/planted\": Path is absolute"},
        {"payload-symlink-write-through.cpio.gz",
         "\"a/x\": Cannot extract through symlink " + kResultFolder + "/PatcherApp_"},
        {"payload-hardlink-outside.cpio.gz", "\"hard\": no earlier file \"link\" to link to"},
        {"payload-device.cpio.gz", "\"dev-null\" is not a file, folder or symbolic link"},
        {"payload-fifo.cpio.gz", "\"pipe\" is not a file, folder or symbolic link"},
    });
}

// Payloads that claim or inflate to more than the working folder holds (a 16 MB file system
// here): refused before the disk fills, whatever the gzip trailer says.
TEST(HostileInput, APayloadThatUnpacksTooLargeIsRefusedBeforeItFillsTheDisk) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    fs::create_directories(kResultFolder);
    ASSERT_EQ(::mount("tmpfs", kResultFolder.c_str(), "tmpfs", 0, "size=16m,mode=0755"), 0);
    const std::string room = "the payload unpacks to ";
    ExpectPayloadsRefused({
        {"payload-gzip-size-lies.cpio.gz",
         room + "4294967295 bytes or more, and " + kResultFolder + "/PatcherApp_"},
        {"payload-entry-size-huge.cpio.gz",
         room + "4294967306 bytes or more, and " + kResultFolder + "/PatcherApp_"},
        {"payload-bomb.cpio.gz", "the archive unpacks to more than "},
    });
}

// Set-user-ID and set-group-ID are kept only for an archive owner and group that are the
// patcher's: a program of user 1000 in the payload is installed as an ordinary program.
TEST(HostileInput, ASetUserIdProgramOfAnotherOwnerIsNotSetUserIdInTheInstallation) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    // The payload's suid-tool holds the same text as the installed tool.sh.
    const std::string text = Md5OfFile(s.app + "/Contents/Resources/tool.sh").value_or("");
    AssembleWithPayload(s, "payload-setuid-other-owner.cpio.gz",
                        {{"ADD", "suid-tool", "[INSTALLDIR]/Editor.app/Contents/Resources",
                          "suid-tool", "", text}});

    ASSERT_TRUE(RunSilentWithin(s, kRunLimit));
    EXPECT_EQ(s.returnCode(), "0") << ReadTextFile(s.logFile);
    const std::string tool = s.app + "/Contents/Resources/suid-tool";
    struct stat info {};
    ASSERT_EQ(::lstat(tool.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    EXPECT_TRUE(SetIdFilesBelow(s.app).empty());
}

// Patches that are cut short, carry impossible numbers or are not bzip2: the PATCH entry
// fails with bspatch's reason and the update is rolled back.
TEST(HostileInput, AMalformedPatchFailsItsEntryAndTheUpdateIsRolledBack) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    struct Case {
        std::string fixture;
        std::string logged;
    };
    const std::vector<Case> cases = {
        {"patch-truncated-header.bsdiff",
         "not a BSDIFF40 patch: the patch is shorter than its header"},
        {"patch-negative-header-length.bsdiff",
         "not a BSDIFF40 patch: the patch has no BSDIFF40 header or a negative length in it"},
        {"patch-negative-control-length.bsdiff",
         "corrupt patch: control entry 1 has a negative length"},
        {"patch-length-past-end.bsdiff",
         "corrupt patch: the header's block lengths reach past the end of the patch"},
        {"patch-control-outside-old.bsdiff",
         "corrupt patch: control entry 2 moves the old file position out of range"},
        {"patch-garbage-bz2.bsdiff",
         "corrupt patch: the control block is damaged or ends before the new file is complete"},
    };
    bool registered = false;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fixture);
        Scenario s;
        Canary canary;
        InstallForCase(s, registered);
        const auto entries = s.updateEntries();
        CopyFixture(c.fixture, s.payload + "/Editor.patch");
        s.assemble(s.manifest(entries));
        const auto app = SnapshotTree(s.app, TreeDetail::ContentsAndModes);
        const auto outside = canary.snapshot();

        ASSERT_TRUE(RunSilentWithin(s, kRunLimit));
        EXPECT_EQ(s.returnCode(), "9");
        EXPECT_GE(s.logIndex("/bspatch: " + c.logged, true), 0) << ReadTextFile(s.logFile);
        EXPECT_EQ(SnapshotTree(s.app, TreeDetail::ContentsAndModes), app);
        EXPECT_EQ(canary.snapshot(), outside);
        EXPECT_FALSE(FileExists(s.historyFile));
        ClearCase(s, canary);
    }
}

// XML that points outside itself, expands without end or nests without end, as the manifest
// or as the configuration: no entity is loaded or expanded (nothing outside the document
// reaches the run or its log), and the run ends in bounded time with the code the document
// leads to.
struct HostileXml {
    std::string fixture;
    std::string code;
    std::vector<std::string> logged; // lines the run logs about the document
    bool applied = false;            // whether the update still goes through
};

void ExpectHostileXmlHandled(const std::string& resource, const std::vector<HostileXml>& cases) {
    bool registered = false;
    for (const HostileXml& c : cases) {
        SCOPED_TRACE(c.fixture);
        Scenario s;
        Canary canary;
        InstallForCase(s, registered);
        s.assemble(s.manifest(s.updateEntries()));
        CopyFixture(c.fixture, s.bundle + "/Contents/Resources/" + resource);
        s.unsign();
        const auto app = SnapshotTree(s.app, TreeDetail::ContentsAndModes);
        const auto outside = canary.snapshot();

        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(RunSilentWithin(s, kRunLimit));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        const std::string log = ReadTextFile(s.logFile);
        EXPECT_EQ(s.returnCode(), c.code) << log;
        for (const std::string& line : c.logged)
            EXPECT_GE(s.logIndex(line), 0) << line << "\n" << log;
        EXPECT_EQ(log.find("root's alone"), std::string::npos);
        EXPECT_EQ(log.find("lollol"), std::string::npos);
        EXPECT_EQ(canary.snapshot(), outside);
        EXPECT_EQ(NamesIn(kResultFolder), std::vector<std::string>{"retVal"});
        if (c.applied) {
            EXPECT_EQ(Md5OfFile(s.app + "/Contents/Info.plist").value_or(""), s.md5["plist2"]);
            RemoveTree("/var/opt/Orvel");
        } else {
            EXPECT_EQ(SnapshotTree(s.app, TreeDetail::ContentsAndModes), app);
            EXPECT_FALSE(FileExists(s.historyFile));
        }
        ClearCase(s, canary);
    }
}

// An entity left unexpanded is empty text: an entry without an ObjectName fails and the
// update is rolled back. A manifest that does not parse (libxml2 stops at an entity loop,
// code 89, or at 256 levels, code 1) is refused before anything changes.
TEST(HostileInput, AHostileManifestReadsNothingOutsideAndEndsInBoundedTime) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    ExpectHostileXmlHandled("manifest.xml",
                            {
                                {"manifest-external-entity.xml",
                                 "9",
                                 {"Object Name : ", "Failed to perform \"ADD\" file Operation"}},
                                {"manifest-billion-laughs.xml",
                                 "9",
                                 {" Error Code returned : 89", "Improper Manifest file"}},
                                {"manifest-deep-nesting.xml",
                                 "9",
                                 {" Error Code returned : 1", "Improper Manifest file"}},
                            });
}

// The configuration is parsed leniently: unexpanded entities leave the product name and
// build number empty and the update goes on; a document cut short at an entity loop or at
// 256 levels lacks the product's data, so the installation is not valid for it.
TEST(HostileInput, AHostileConfigurationReadsNothingOutsideAndEndsInBoundedTime) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    const std::string notValid = "The installed application cannot be updated by this patch.";
    ExpectHostileXmlHandled(
        "config.xml",
        {
            {"config-external-entity.xml",
             "0",
             {"Product Name is : ", "Patcher BuildNumber is : "},
             true},
            {"config-billion-laughs.xml", "6", {" Error Code returned : 89", notValid}},
            {"config-deep-nesting.xml", "6", {" Error Code returned : 1", notValid}},
        });
}

} // namespace
