// Runs launched by the update manager: kor-launch starts the real PatcherApp of a bundle
// made by mkpatcher for the installed editor and prints the result the patcher sent back.

#include "E2eSupport.h"
#include "TestSupport.h"

namespace {

const std::string kZero = "00000000000000000000000000000000";

void PrepareUpdate(Scenario& s, std::vector<FileEntry>& entries) {
    s.config.appRunning = {s.appDisplayName};
    s.installApplication();
    s.registerInstallation();
    entries = s.updateEntries();
}

TEST(UpdateManager, SuccessfulUpdateSendsZeroWithoutMessage) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    std::vector<FileEntry> entries;
    PrepareUpdate(s, entries);
    s.assemble(s.manifest(entries));
    int status = -1;
    EXPECT_EQ(s.runUnderUpdateManager({}, &status), "code: 0\nmessage:\n") << s.patcherOutput();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadTextFile(s.app + "/Contents/Resources/keep.txt"), "version two\n");
    EXPECT_TRUE(FileExists(s.historyFile));
    EXPECT_EQ(s.returnCode(), std::nullopt);
    EXPECT_TRUE(s.logContains("Mode of Execution: KOR MODE"));
    EXPECT_TRUE(s.logContains("App valid for update"));
    EXPECT_FALSE(s.logContains("Show Welcome Dialog"));
    EXPECT_TRUE(s.logContains("_reportUpToDate"));
    EXPECT_TRUE(s.logContains("Exit code: 0"));
}

TEST(UpdateManager, RunningEditorSendsTwoWithItsName) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    std::vector<FileEntry> entries;
    PrepareUpdate(s, entries);
    s.assemble(s.manifest(entries));
    const auto before = Snapshot(s.app);
    ChildProcess editor = s.startEditor();
    int status = -1;
    const std::string output = s.runUnderUpdateManager({}, &status);
    EXPECT_EQ(output, "code: 2\nmessage: Quit these applications and try again: " +
                          s.appDisplayName + "\n\n")
        << s.patcherOutput();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(editor.running());
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_EQ(s.returnCode(), std::nullopt);
    EXPECT_TRUE(s.logContains("Mode of Execution: KOR MODE"));
    EXPECT_TRUE(s.logContains("Applications were Quit result (non zero mean quit) = 0"));
}

TEST(UpdateManager, FailingEntrySendsFourWithTheFailureText) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    std::vector<FileEntry> entries;
    PrepareUpdate(s, entries);
    // The last entry expects a tool.sh that the editor does not have.
    entries.push_back({"OVERWRITE", "keep.txt", "[INSTALLDIR]/Editor.app/Contents/Resources",
                       "tool.sh", kZero, kZero});
    s.assemble(s.manifest(entries, false, false));
    const auto before = Snapshot(s.app);
    int status = -1;
    EXPECT_EQ(s.runUnderUpdateManager({}, &status),
              "code: 4\nmessage: An error occurred while updating. Your application has been "
              "restored to its previous state.\n")
        << s.patcherOutput();
    EXPECT_EQ(status, 0);
    const auto after = Snapshot(s.app);
    EXPECT_EQ(after.size(), before.size());
    for (const auto& [path, entry] : before) {
        // Contents and links come back; the mode that CHANGEPERM set stays.
        if (path != "Contents/Resources/tool.sh") {
            EXPECT_EQ(after.at(path), entry) << path;
        }
    }
    EXPECT_TRUE(s.logContains("Rollback successful"));
    EXPECT_TRUE(s.logContains("_reportUpdateFailed"));
    EXPECT_EQ(s.returnCode(), std::nullopt);
}

TEST(UpdateManager, WrongVersionSendsFourWithTheValidationText) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    // Neither the version the update comes from nor one it would take back.
    s.registerInstallation("1.5");
    s.assemble(s.manifest(s.updateEntries()));
    int status = -1;
    EXPECT_EQ(s.runUnderUpdateManager({}, &status),
              "code: 4\nmessage: The installed application cannot be updated by this patch.\n")
        << s.patcherOutput();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(s.logContains("Version does not match."));
}

TEST(UpdateManager, SilentRunWritesTheReturnCodeFileInstead) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    std::vector<FileEntry> entries;
    PrepareUpdate(s, entries);
    s.assemble(s.manifest(entries));
    int status = -1;
    // Nothing reaches the launcher: it reports that no result arrived.
    EXPECT_EQ(s.runUnderUpdateManager({"-Silent"}, &status), "") << s.patcherOutput();
    EXPECT_EQ(status, 1);
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_EQ(ReadTextFile(s.app + "/Contents/Resources/keep.txt"), "version two\n");
    EXPECT_TRUE(s.logContains("Mode of Execution: KOR MODE"));
    EXPECT_TRUE(s.logContains("Exit code: 0"));
    EXPECT_FALSE(s.logContains("_reportUpToDate"));

    // The same launch again finds the editor up to date: 3 in the file, still nothing sent.
    EXPECT_EQ(s.runUnderUpdateManager({"-Silent"}, &status), "");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(s.returnCode(), "3");
    EXPECT_TRUE(s.logContains("App is already up-to-date"));
}

} // namespace
