// The real PatcherApp, run as root, against what an unprivileged local user can plant or a
// crafted bundle can carry: nothing outside the installation changes, the application
// stays at its old version, and the log says why.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <filesystem>
#include <functional>
#include <map>
#include <sys/stat.h>
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

std::vector<FileEntry> PrepareUpdate(Scenario& s) {
    s.installApplication();
    s.registerInstallation();
    return s.updateEntries();
}

TEST(HostileInput, AGroupWritableDatabaseLibraryIsNotLoaded) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.assemble(s.manifest(PrepareUpdate(s)));
    const std::string library = s.bundle + "/Contents/Frameworks/orvel_zoth.framework/orvel_zoth";
    ASSERT_EQ(::chmod(library.c_str(), 0664), 0);
    const auto before = Md5OfFile(s.app + "/Contents/Info.plist");

    ASSERT_EQ(s.runPatcher({"-Silent"}), 0) << s.patcherOutput();
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

    // Without the link the log is the user's, made as the user, and the user can append.
    ASSERT_EQ(AsAttacker("rm '" + s.home + "/.local/state/Orvel/SoftwareUpdates'"), 0);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 0) << s.patcherOutput();
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
        s.installApplication();
        if (!std::exchange(registered, true))
            s.registerInstallation();
        auto entries = s.updateEntries();
        entries.insert(entries.end(), c.entries.begin(), c.entries.end());
        s.assemble(s.manifest(entries));
        if (c.plant)
            c.plant(s, canary);
        const auto app = SnapshotTree(s.app, TreeDetail::ContentsAndModes);
        const auto outside = canary.snapshot();

        ASSERT_EQ(s.runPatcher({"-Silent"}, c.assignments), 0) << s.patcherOutput();
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
    ASSERT_EQ(s.runPatcher({"-Silent"}), 0) << s.patcherOutput();
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

} // namespace
