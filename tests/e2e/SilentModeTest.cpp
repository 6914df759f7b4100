// Silent runs of the real PatcherApp in bundles made by mkpatcher: every return code, each
// provoked by the situation that calls for it, with the tree, the log and the patch history
// it leaves.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <algorithm>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

const std::string kZero = "00000000000000000000000000000000";

// The installed editor at 1.0, registered, and the entries of its full update.
std::vector<FileEntry> PrepareUpdate(Scenario& s) {
    s.config.appRunning = {s.appDisplayName};
    s.installApplication();
    s.registerInstallation();
    return s.updateEntries();
}

TEST(SilentMode, ValidUpdateReturnsZeroAndRecordsThePatch) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    const auto entries = PrepareUpdate(s);
    s.assemble(s.manifest(entries));

    ASSERT_EQ(s.runPatcher({"-Silent"}), 0) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "0");

    const std::string res = s.app + "/Contents/Resources";
    EXPECT_EQ(ReadTextFile(res + "/new.txt"), "a new file\n");
    EXPECT_FALSE(FileExists(res + "/old.txt"));
    EXPECT_EQ(ReadTextFile(res + "/keep.txt"), "version two\n");
    EXPECT_EQ(Md5OfFile(s.app + "/Contents/MacOS/Editor").value_or(""), s.md5["editor2"]);
    EXPECT_FALSE(FileExists(res + "/rename-me.txt"));
    EXPECT_EQ(ReadTextFile(res + "/renamed.txt"), "renamed content\n");
    EXPECT_EQ(fs::read_symlink(s.app + "/Contents/newlink"), "Resources/new.txt");
    EXPECT_FALSE(FileExists(s.app + "/Contents/oldlink"));
    struct stat info {};
    ASSERT_EQ(::stat((res + "/tool.sh").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0755u);
    EXPECT_EQ(Md5OfFile(s.app + "/Contents/Info.plist").value_or(""), s.md5["plist2"]);
    EXPECT_TRUE(fs::is_directory(s.app + "/Contents/PlugIns/Filters"));
    EXPECT_FALSE(FileExists(s.app + "/Contents/Obsolete"));
    // The patched editor still runs.
    EXPECT_EQ(RunTool({s.app + "/Contents/MacOS/Editor", "0"}), 0);
    // The working folder with the payload and the journal is gone.
    EXPECT_TRUE(
        fs::is_empty("/tmp/OrvelQX3") ||
        (fs::directory_iterator("/tmp/OrvelQX3")->path().filename() == "retVal" &&
         std::distance(fs::directory_iterator("/tmp/OrvelQX3"), fs::directory_iterator()) == 1));

    EXPECT_TRUE(s.logContains("Mode of Execution: SILENT MODE"));
    EXPECT_TRUE(s.logContains("App valid for update"));
    EXPECT_TRUE(s.logContains("Install Mode"));
    EXPECT_TRUE(s.logContains("Applications were Quit result (non zero mean quit) = 1"));
    EXPECT_TRUE(s.logContains("Proceed for update ..."));
    EXPECT_TRUE(s.logContains("Exit code: 0"));
    EXPECT_FALSE(s.logContains("Show Welcome Dialog"));

    // The patch history names this patch, its versions and the manifest it applied.
    ASSERT_TRUE(FileExists(s.historyFile));
    const std::string history = ReadTextFile(s.historyFile);
    EXPECT_NE(history.find("<PBSHistory ProductName=\"Orvel Editor\" "
                           "ProductFamily=\"Orvel Creative\""),
              std::string::npos)
        << history;
    EXPECT_NE(history.find("<Patcher SequenceID=\"1\" PatcherID=\"EDT-200-01\">"),
              std::string::npos)
        << history;
    EXPECT_NE(history.find("<OldVersion>1.0</OldVersion>"), std::string::npos) << history;
    EXPECT_NE(history.find("<NewVersion>2.0</NewVersion>"), std::string::npos) << history;
    EXPECT_NE(history.find("<BundleSet>"), std::string::npos) << history;

    // The same patcher again: the editor is now up to date.
    const auto updated = Snapshot(s.app);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 3);
    EXPECT_EQ(s.returnCode(), "3");
    EXPECT_TRUE(s.logContains("Verifying from patch file:"));
    EXPECT_TRUE(s.logContains("Repair Mode"));
    EXPECT_TRUE(s.logContains("App is already up-to-date"));
    EXPECT_EQ(Snapshot(s.app), updated);
}

// The early ends: nothing is touched, nothing is recorded, and the log gives the reason.
void ExpectEarlyEnd(const Scenario& s, const std::map<std::string, std::string>& before,
                    const std::string& code, const std::string& message) {
    EXPECT_EQ(s.returnCode(), code);
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_FALSE(FileExists(s.historyFile));
    EXPECT_TRUE(s.logContains(message)) << message;
    EXPECT_FALSE(s.logContains("App valid for update"));
    EXPECT_FALSE(s.logContains("Proceed for update ..."));
    EXPECT_LT(s.logIndex("Mode of Execution: SILENT MODE"), s.logIndex(message));
}

TEST(SilentMode, NoDatabaseEntryReturnsFive) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    // The database knows another installation only.
    ASSERT_EQ(RunTool({ORVEL_ZOTHCTL, "add", "--code", "{0E2E-0THE-0002}", "--installdir",
                       "/opt/Orvel/Other", "--version", "1.0"}),
              0);
    s.updateEntries();
    s.assemble(s.manifest({}));
    const auto before = Snapshot(s.app);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 5) << s.patcherOutput();
    ExpectEarlyEnd(s, before, "5", "The application to update could not be found.");
    EXPECT_TRUE(s.logContains("No entry for OrvelCode GUID (1) : " + s.code));
}

TEST(SilentMode, WrongInstalledVersionReturnsSix) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation("0.9");
    s.assemble(s.manifest(s.updateEntries()));
    const auto before = Snapshot(s.app);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 6) << s.patcherOutput();
    ExpectEarlyEnd(s, before, "6", "The installed application cannot be updated by this patch.");
    EXPECT_TRUE(s.logContains("Version of installed App: 0.9"));
    EXPECT_TRUE(s.logContains("Version does not match."));
}

TEST(SilentMode, WrongBundleIdentifierReturnsSix) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    s.assemble(s.manifest(s.updateEntries()));
    // Another application of the same name sits where the editor was installed.
    std::string plist = ReadTextFile(s.app + "/Contents/Info.plist");
    plist.replace(plist.find("com.orvel.editor"), 16, "com.example.other");
    WriteTextFile(s.app + "/Contents/Info.plist", plist);
    const auto before = Snapshot(s.app);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 6) << s.patcherOutput();
    ExpectEarlyEnd(s, before, "6", "The installed application cannot be updated by this patch.");
    EXPECT_TRUE(s.logContains("BundleIdentifier does not match"));
}

TEST(SilentMode, TooLittleSpaceOnTheApplicationsVolumeReturnsSeven) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    // The application's own small volume: 2 MB, of which the update would need 4 MB.
    fs::create_directories(s.installDir);
    ASSERT_EQ(::mount("tmpfs", s.installDir.c_str(), "tmpfs", 0, "size=2M,mode=0755"), 0);
    s.config.targetKB = "4096";
    s.installApplication();
    s.registerInstallation();
    s.assemble(s.manifest(s.updateEntries()));
    const auto before = Snapshot(s.app);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 7) << s.patcherOutput();
    ExpectEarlyEnd(s, before, "7",
                   "There is not enough free space on the application's disk to install the "
                   "update.");
    EXPECT_TRUE(s.logContains("Space availability check ... "));
    EXPECT_FALSE(s.logContains("Passed."));
    ::umount(s.installDir.c_str());
}

TEST(SilentMode, TooLittleSpaceOnTheSystemVolumeReturnsSeven) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    // Two terabytes on the volume of /tmp.
    s.config.systemKB = "2000000000";
    s.installApplication();
    s.registerInstallation();
    s.assemble(s.manifest(s.updateEntries()));
    const auto before = Snapshot(s.app);
    ASSERT_EQ(s.runPatcher({"-Silent"}), 7) << s.patcherOutput();
    ExpectEarlyEnd(s, before, "7",
                   "There is not enough free space on the system disk to install the update.");
}

TEST(SilentMode, RunningEditorReturnsEight) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.config.appRunning = {"Orvel Paint", s.appDisplayName};
    s.installApplication();
    s.registerInstallation();
    s.assemble(s.manifest(s.updateEntries()));
    const auto before = Snapshot(s.app);
    ChildProcess editor = s.startEditor();
    ASSERT_EQ(s.runPatcher({"-Silent"}), 8) << s.patcherOutput();
    EXPECT_TRUE(editor.running()) << "the patcher never quits applications itself";
    EXPECT_EQ(s.returnCode(), "8");
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_TRUE(s.logContains("App valid for update"));
    EXPECT_TRUE(s.logContains(s.appDisplayName + " application was found running."));
    EXPECT_TRUE(s.logContains("Applications were Quit result (non zero mean quit) = 0"));
    EXPECT_TRUE(s.logContains("Following apps were not shutdown " + s.appDisplayName));
    EXPECT_FALSE(s.logContains("Proceed for update ..."));
    EXPECT_FALSE(FileExists(s.historyFile));

    // Once the user has quit the editor the same patcher goes through.
    editor.kill();
    ASSERT_EQ(s.runPatcher({"-Silent"}), 0) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_TRUE(s.logContains("Applications were Quit result (non zero mean quit) = 1"));
}

// The user changed a file of the editor since it was installed: the update stops at that
// entry and every change made before it is undone.
TEST(SilentMode, FailingEntryIsRolledBackAndReturnsNine) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    auto entries = s.updateEntries();
    // The overwrite of keep.txt comes last among the files.
    std::rotate(entries.begin() + 2, entries.begin() + 3, entries.end());
    ASSERT_EQ(entries.back().objectName, "keep.txt");
    s.assemble(s.manifest(entries));
    WriteTextFile(s.app + "/Contents/Resources/keep.txt", "edited by the user\n");
    const auto before = Snapshot(s.app);

    ASSERT_EQ(s.runPatcher({"-Silent"}), 9) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "9");
    // Every content, link and mode is back.
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_FALSE(FileExists(s.historyFile));
    EXPECT_TRUE(s.logContains("Checksum verification fail for file " + s.app +
                              "/Contents/Resources/keep.txt"));
    EXPECT_TRUE(s.logContains("Process through rollback file..."));
    EXPECT_TRUE(s.logContains("Rollback successful"));
    EXPECT_TRUE(s.logContains("Exit code: 2"));
    // The bundle and directory sets never ran.
    EXPECT_LT(s.logIndex(HeadingLine("PERFORMING BUNDLE SET OPERATION"), true), 0);
    EXPECT_GT(s.logIndex(HeadingLine("ROLLBACK FILE SET OPERATION"), true),
              s.logIndex("Checksum verification fail for file", true));
}

// keep.txt is overwritten twice; the journal replays the last change first, so the file
// goes back through its second state to its first.
TEST(SilentMode, AFileChangedTwiceIsRolledBackToItsFirstState) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    auto all = s.updateEntries();
    WriteTextFile(s.payload + "/keep3.txt", "version three\n");
    const std::string res = "[INSTALLDIR]/Editor.app/Contents/Resources";
    const std::string keep3 = Md5OfFile(s.payload + "/keep3.txt").value_or("");
    std::vector<FileEntry> entries = {
        all[0], // ADD new.txt
        all[2], // OVERWRITE keep.txt: one -> two
        {"OVERWRITE", "keep3.txt", res, "keep.txt", s.md5["keep2"], keep3},
        // tool.sh is not what the update expects.
        {"OVERWRITE", "keep3.txt", res, "tool.sh", kZero, kZero},
    };
    s.assemble(s.manifest(entries, false, false));
    const auto before = Snapshot(s.app);

    ASSERT_EQ(s.runPatcher({"-Silent"}), 9) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "9");
    EXPECT_TRUE(s.logContains("Rollback successful"));
    EXPECT_TRUE(s.logContains("Exit code: 2"));
    EXPECT_FALSE(FileExists(s.historyFile));
    EXPECT_FALSE(FileExists(s.app + "/Contents/Resources/new.txt"));
    EXPECT_EQ(Snapshot(s.app), before);
}

} // namespace
