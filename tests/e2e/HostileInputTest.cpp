// The real PatcherApp, run as root, against what an unprivileged local user can plant or a
// crafted bundle can carry: nothing outside the installation changes, the application
// stays at its old version, and the log says why.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <filesystem>
#include <sys/stat.h>

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

} // namespace
