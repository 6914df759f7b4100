// The manifest processor end to end: a real installed tree, a real payload archive made by
// GNU cpio, real bsdiff patches applied by the bundled bspatch, the worker thread and the
// main loop, the journal and its replay.

#include "update/ProcessManifest.h"

#include "ManifestText.h"
#include "TestSupport.h"
#include "report/KORInstallerResultsWrapper.h"
#include "report/ProgressWindowController.h"
#include "report/UserInterface.h"
#include "runtime/Environment.h"
#include "runtime/MainLoop.h"
#include "target/LoadConfigData.h"
#include "target/OrvelCodeFileHandler.h"
#include "update/MD5cksum.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string Md5(const std::string& path) {
    return MD5cksum::getMD5cksumOfFile(path).value_or("");
}

class RecordingUserInterface : public UserInterface {
public:
    std::vector<std::string> messages;
    int runAlertPanel(AlertStyle, const std::string& title, const std::string& message,
                      const std::string&, const std::string&, const std::string&) override {
        messages.push_back(title + "|" + message);
        return kAlertDefaultReturn;
    }
};

// A progress window whose user presses cancel, and confirms it, when entry cancelAt is
// shown.
class CancellingView : public ProgressView {
public:
    ProgressWindowController* controller = nullptr;
    int cancelAt = -1;
    std::vector<double> values;
    std::function<void(int)> pending;
    std::function<void(int)> onValue;

    void setTitle(const std::string&) override {}
    void setStatusLine(const std::string&) override {}
    void setBarIndeterminate(bool) override {}
    void setBarRange(double, double) override {}
    void setBarValue(double value) override {
        values.push_back(value);
        if (onValue)
            onValue(static_cast<int>(value));
        if (static_cast<int>(value) == cancelAt && controller) {
            controller->cancelButtonClicked();
            if (pending)
                pending(0);
        }
    }
    void setCancelButtonTitle(const std::string&) override {}
    void setCancelButtonVisible(bool) override {}
    void setCancelButtonEnabled(bool) override {}
    void showWindow() override {}
    void closeWindow() override {}
    void beginCancelSheet(const std::string&, const std::string&, const std::string&,
                          const std::string&, std::function<void(int)> answered) override {
        pending = std::move(answered);
    }
};

class ProcessManifestTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetENVsilentFlag(true);
        ClearENVinstallLanguage();
        paths.returnCodeFile = root + "/retVal/retVal";
        paths.patchHistoryFolder = root + "/history/";
        paths.protectedFolders.push_back(root);
        paths.protectedFolders.push_back(root + "/opt");
        paths.protectedFolders.push_back(root + "/opt/Suite");

        // The installed application.
        WriteTextFile(app + "/Contents/Info.plist", VersionPlist("1.0"));
        WriteTextFile(app + "/Contents/MacOS/Editor", RandomText(300000, 1));
        WriteTextFile(app + "/Contents/Resources/old.txt", "to be removed\n");
        WriteTextFile(app + "/Contents/Resources/keep.txt", "version one\n");
        WriteTextFile(app + "/Contents/Resources/rename-me.txt", "renamed content\n");
        WriteTextFile(app + "/Contents/Resources/tool.sh", "#!/bin/sh\n");
        ::chmod((app + "/Contents/Resources/tool.sh").c_str(), 0644);
        fs::create_directories(app + "/Contents/Obsolete");
        fs::create_symlink("Resources/keep.txt", app + "/Contents/oldlink");

        // The new files and the patch, packed as the payload.
        WriteTextFile(staging + "/new.txt", "a new file\n");
        WriteTextFile(staging + "/keep.txt", "version two\n");
        WriteTextFile(staging + "/Info.plist", VersionPlist("2.0"));
        std::string newEditor = RandomText(300000, 1);
        for (size_t i = 1000; i < 1100; ++i)
            newEditor[i] = 'x';
        newEditor += "appended tail";
        WriteTextFile(root + "/Editor.new", newEditor);
        fs::create_directories(resources);
        EXPECT_EQ(RunProgram({"bsdiff", app + "/Contents/MacOS/Editor", root + "/Editor.new",
                              staging + "/Editor.patch"}),
                  0);
        EXPECT_EQ(PackPayload(staging, resources + "/Payload.cpio.gz"), 0);
        fs::copy_file(BUNDLED_BSPATCH, resources + "/bspatch");

        newMd5 = {{"new", Md5(staging + "/new.txt")},
                  {"keep1", Md5(app + "/Contents/Resources/keep.txt")},
                  {"keep2", Md5(staging + "/keep.txt")},
                  {"editor1", Md5(app + "/Contents/MacOS/Editor")},
                  {"editor2", Md5(root + "/Editor.new")},
                  {"rename", Md5(app + "/Contents/Resources/rename-me.txt")},
                  {"plist1", Md5(app + "/Contents/Info.plist")},
                  {"plist2", Md5(staging + "/Info.plist")}};
        entries = {
            {"ADD", "new.txt", "[INSTALLDIR]/Contents/Resources", "new.txt", "", newMd5["new"]},
            {"REMOVE", "old.txt", "[INSTALLDIR]/Contents/Resources", "old.txt", "", ""},
            {"OVERWRITE", "keep.txt", "[INSTALLDIR]/Contents/Resources", "keep.txt",
             newMd5["keep1"], newMd5["keep2"]},
            {"PATCH", "Editor.patch", "[INSTALLDIR]/Contents/MacOS", "Editor", newMd5["editor1"],
             newMd5["editor2"]},
            {"RENAME", "rename-me.txt", "[INSTALLDIR]/Contents/Resources", "rename-me.txt", "",
             newMd5["rename"], "[INSTALLDIR]/Contents/Resources", "renamed.txt"},
            {"CREATELINK", "newlink", "[INSTALLDIR]/Contents", "newlink", "", "", "",
             "Resources/new.txt"},
            {"REMOVELINK", "oldlink", "[INSTALLDIR]/Contents", "oldlink", "", ""},
            {"CHANGEPERM", "tool.sh", "[INSTALLDIR]/Contents/Resources", "tool.sh", "", "", "", "",
             "755"},
        };
    }

    void TearDown() override {
        (void)OrvelCodeFileHandler::releaseInstance();
        SetENVsilentFlag(false);
    }

    std::string Manifest(const std::vector<FileEntry>& files, bool withBundle = true,
                         bool withDirectories = true) const {
        std::string xml = "<?xml version=\"1.0\"?>\n<Manifest>\n<FileSet>\n";
        for (const auto& e : files)
            xml += FileEntryXml(e);
        xml += "</FileSet>\n";
        if (withBundle) {
            xml += BundleSetXml("[INSTALLDIR]/Contents/Info.plist", "1.0",
                                {{"OVERWRITE", "Info.plist", "[INSTALLDIR]/Contents", "Info.plist",
                                  newMd5.at("plist1"), newMd5.at("plist2")}});
        }
        if (withDirectories) {
            xml += "<DirectorySet>" +
                   DirectoryEntryXml("ADD", "[INSTALLDIR]/Contents/PlugIns/Filters") +
                   DirectoryEntryXml("REMOVE", "[INSTALLDIR]/Contents/Obsolete") +
                   "</DirectorySet>\n";
        }
        return xml + "</Manifest>\n";
    }

    // The processor as the engine makes it, for the manifest in resources; it unpacks the
    // payload.
    std::unique_ptr<ProcessManifest> MakeProcessor(HeadlessMainLoop& loop) {
        ManifestRunEnvironment environment;
        environment.loop = &loop;
        environment.paths = paths;
        environment.history = OrvelCodeFileHandler::getInstance();
        environment.silent = GetENVsilentFlag();
        environment.reporter = &reporter;
        environment.cmdOptions.protectedFolders = paths.protectedFolders;
        return std::make_unique<ProcessManifest>(resources + "/manifest.xml", payload, app,
                                                 resources, &config, std::move(environment));
    }

    // Runs the processor as the engine does and returns the silent return code ("" if none).
    std::string Run(const std::string& manifest, ProgressWindowController* progress = nullptr,
                    HeadlessMainLoop* givenLoop = nullptr) {
        WriteTextFile(resources + "/manifest.xml", manifest);
        HeadlessMainLoop ownLoop;
        HeadlessMainLoop& loop = givenLoop ? *givenLoop : ownLoop;
        auto processor = MakeProcessor(loop);
        lastBackupDir = processor->backupDir();
        if (!processor->performAction(progress))
            return "not started";
        loop.run();
        exitCode = processor->exitCode();
        rollbackState = processor->rollbackState();
        processor.reset();
        return FileExists(paths.returnCodeFile) ? ReadTextFile(paths.returnCodeFile) : "";
    }

    TempDir temp;
    std::string root = temp.path();
    std::string app = root + "/opt/Suite/Editor.app";
    std::string staging = root + "/staging";
    std::string resources = root + "/Patch.app/Contents/Resources";
    std::string payload = root + "/work/PatcherApp_1";
    PlatformPaths paths;
    LoadConfigData config;
    KORInstallerResultsWrapper reporter{ReportingContext{}};
    std::map<std::string, std::string> newMd5;
    std::vector<FileEntry> entries;
    std::string lastBackupDir;
    int exitCode = -1;
    int rollbackState = -1;
};

TEST_F(ProcessManifestTest, AppliesEveryKindOfEntry) {
    LogCapture log;
    EXPECT_EQ(Run(Manifest(entries)), "0");
    EXPECT_EQ(exitCode, 0);
    const std::string res = app + "/Contents/Resources";
    EXPECT_EQ(ReadTextFile(res + "/new.txt"), "a new file\n");
    EXPECT_FALSE(FileExists(res + "/old.txt"));
    EXPECT_EQ(ReadTextFile(res + "/keep.txt"), "version two\n");
    EXPECT_EQ(Md5(app + "/Contents/MacOS/Editor"), newMd5["editor2"]);
    EXPECT_FALSE(FileExists(res + "/rename-me.txt"));
    EXPECT_EQ(ReadTextFile(res + "/renamed.txt"), "renamed content\n");
    EXPECT_EQ(fs::read_symlink(app + "/Contents/newlink"), "Resources/new.txt");
    EXPECT_FALSE(FileExists(app + "/Contents/oldlink"));
    struct stat info {};
    ASSERT_EQ(::stat((res + "/tool.sh").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0755u);
    EXPECT_EQ(Md5(app + "/Contents/Info.plist"), newMd5["plist2"]);
    EXPECT_TRUE(fs::is_directory(app + "/Contents/PlugIns/Filters"));
    EXPECT_FALSE(FileExists(app + "/Contents/Obsolete"));
    // The payload folder, with the backups and the journal, is gone.
    EXPECT_FALSE(FileExists(payload));

    // The sets ran in their order, and the run ended with its exit code.
    const auto lines = log.lines();
    std::vector<std::string> headings;
    for (const auto& line : lines) {
        for (const char* h : {"PERFORMING FILE SET OPERATION", "PERFORMING BUNDLE SET OPERATION",
                              "PERFORMING DIRECTORY SET OPERATION"})
            if (line.find(std::string(" ") + h + " ") != std::string::npos)
                headings.push_back(h);
    }
    EXPECT_EQ(headings, (std::vector<std::string>{"PERFORMING FILE SET OPERATION",
                                                  "PERFORMING BUNDLE SET OPERATION",
                                                  "PERFORMING DIRECTORY SET OPERATION"}));
    EXPECT_TRUE(log.contains("Installed Bundle Version: 1.0"));
    EXPECT_TRUE(log.contains("Bundle is valid for update"));
    EXPECT_TRUE(log.contains("Exit code: 0"));
    EXPECT_TRUE(log.contains("There's nothing to rollback.") == false);
}

TEST_F(ProcessManifestTest, APatchPackedFirstIsMadeWhileThePayloadIsUnpacked) {
    // The patch first in the archive, as mkpatcher packs it.
    ASSERT_EQ(RunProgram({"bash", "-c",
                          "cd '" + staging +
                              "' && { echo ./Editor.patch; find . -mindepth 1 ! -name "
                              "Editor.patch; } | cpio -o -H newc 2>/dev/null | gzip > '" +
                              resources + "/Payload.cpio.gz'"}),
              0);
    WriteTextFile(resources + "/manifest.xml", Manifest(entries));
    HeadlessMainLoop loop;
    const auto installed = SnapshotTree(app, TreeDetail::ContentsAndModes);
    auto processor = MakeProcessor(loop); // silent, as SetUp makes every run
    // Made before the update starts, and nothing in the installation touched for it.
    EXPECT_TRUE(WaitUntil([&] { return processor->patchesMadeWhileUnpacking() == 1; }));
    EXPECT_EQ(SnapshotTree(app, TreeDetail::ContentsAndModes), installed);

    ASSERT_TRUE(processor->performAction(nullptr));
    loop.run();
    EXPECT_EQ(processor->exitCode(), 0);
    processor.reset();
    EXPECT_EQ(Md5(app + "/Contents/MacOS/Editor"), newMd5["editor2"]);
    EXPECT_EQ(ReadTextFile(app + "/Contents/Resources/keep.txt"), "version two\n");
}

TEST_F(ProcessManifestTest, FailureAtEveryPositionRestoresTheTreeExactly) {
    const auto original = SnapshotTree(app);
    const size_t count = entries.size();
    for (size_t k = 0; k < count; ++k) {
        SCOPED_TRACE("failing entry " + std::to_string(k));
        auto failing = entries;
        // A checksum that the result can never have makes entry k fail after the entries
        // before it have changed the tree.
        failing[k].after = "00000000000000000000000000000000";
        if (failing[k].operation == "REMOVE" || failing[k].operation == "REMOVELINK" ||
            failing[k].operation == "CREATELINK" || failing[k].operation == "CHANGEPERM") {
            // These do not check checksums: make the destination's folder unusable instead.
            failing[k] = FileEntry{"ADD",
                                   "missing-source",
                                   "[INSTALLDIR]/Contents",
                                   "nothing-here",
                                   "",
                                   "00000000000000000000000000000000"};
        }
        LogCapture log;
        EXPECT_EQ(Run(Manifest(failing)), "9");
        EXPECT_EQ(exitCode, 2);
        EXPECT_EQ(rollbackState, 0);
        EXPECT_TRUE(log.contains("Rollback successful"));
        EXPECT_EQ(SnapshotTree(app), original);
    }
}

TEST_F(ProcessManifestTest, FailureInTheBundleOrDirectorySetRollsBackTheFileSetToo) {
    const auto original = SnapshotTree(app);
    // A directory that cannot be made: a file stands where its parent should be.
    WriteTextFile(app + "/Contents/PlugIns", "not a folder");
    const auto withBlocker = SnapshotTree(app);
    LogCapture log;
    EXPECT_EQ(Run(Manifest(entries)), "9");
    EXPECT_EQ(SnapshotTree(app), withBlocker);
    fs::remove(app + "/Contents/PlugIns");
    EXPECT_EQ(SnapshotTree(app), original);
}

TEST_F(ProcessManifestTest, RollbackThatFailsGivesTen) {
    // A backup copy vanishes while the update runs (the disk lost it), and a later entry
    // fails: the replay cannot bring that file back.
    HeadlessMainLoop loop;
    CancellingView view;
    ProgressWindowController controller(view, loop, nullptr);
    view.onValue = [&](int value) {
        if (value != 3)
            return;
        // Each backup is named "<number>-<file name>".
        for (const auto& backup : fs::directory_iterator(payload + "/backupDir")) {
            const std::string name = backup.path().filename();
            if (name.size() > 9 && name.compare(name.size() - 9, 9, "-keep.txt") == 0)
                fs::remove(backup.path());
        }
    };
    auto failing = entries;
    failing.push_back(FileEntry("ADD", "missing-source", "[INSTALLDIR]/Contents", "nothing-here",
                                "", "00000000000000000000000000000000"));
    LogCapture log;
    EXPECT_EQ(Run(Manifest(failing, false, false), &controller, &loop), "10");
    EXPECT_EQ(exitCode, 2);
    EXPECT_EQ(rollbackState, 2);
    EXPECT_TRUE(log.contains("Rollback failed. Application left in undeterminate state."));
}

TEST_F(ProcessManifestTest, CancelAfterAnEntryRollsBackAndReportsCancelled) {
    const auto original = SnapshotTree(app);
    for (int k : {1, 4, 8}) {
        SCOPED_TRACE("cancel at " + std::to_string(k));
        HeadlessMainLoop loop;
        CancellingView view;
        ProgressWindowController controller(view, loop, nullptr);
        view.controller = &controller;
        view.cancelAt = k;
        LogCapture log;
        EXPECT_EQ(Run(Manifest(entries), &controller, &loop), "9");
        EXPECT_EQ(exitCode, 1);
        EXPECT_TRUE(log.contains("User wish to cancel the update."));
        EXPECT_EQ(SnapshotTree(app), original);
    }
}

TEST_F(ProcessManifestTest, ProgressCountsEveryStepIncludingAliases) {
    HeadlessMainLoop loop;
    CancellingView view;
    ProgressWindowController controller(view, loop, nullptr);
    std::string manifest = Manifest(entries);
    manifest.insert(manifest.find("</Manifest>"), "<AliasSet><Alias/><Alias/></AliasSet>\n");
    EXPECT_EQ(Run(manifest, &controller, &loop), "0");
    // 8 files + 1 bundle file + 2 aliases + 2 directories; the aliases are never worked.
    ASSERT_FALSE(view.values.empty());
    EXPECT_EQ(view.values.back(), 10);
}

TEST_F(ProcessManifestTest, HistoryEntryIsAddedForAnInstall) {
    OrvelCodeFileHandler::createInstance(
        paths.patchHistoryFolder + "CODE-1.patch", std::string("PATCH-2"), std::string("1.0"),
        std::string("2.0"), std::string("Suite"), std::string("Tavrin"), 100, 200);
    ASSERT_EQ(OrvelCodeFileHandler::getInstance()->getPatcherMode(),
              OrvelCodeFileHandler::kModeInstall);
    EXPECT_EQ(Run(Manifest(entries)), "0");
    const std::string history = ReadTextFile(paths.patchHistoryFolder + "CODE-1.patch");
    EXPECT_NE(history.find("PatcherID=\"PATCH-2\""), std::string::npos);
    EXPECT_NE(history.find("<Manifest>"), std::string::npos);
    EXPECT_EQ(OrvelCodeFileHandler::getInstance(), nullptr);
}

TEST_F(ProcessManifestTest, HistoryThatCannotBeWrittenRollsBackAsCancelled) {
    const auto original = SnapshotTree(app);
    // The history folder is a file: the entry cannot be written.
    WriteTextFile(root + "/history", "blocked");
    OrvelCodeFileHandler::createInstance(
        paths.patchHistoryFolder + "CODE-1.patch", std::string("PATCH-2"), std::string("1.0"),
        std::string("2.0"), std::string("Suite"), std::string("Tavrin"), 100, 200);
    EXPECT_EQ(Run(Manifest(entries)), "9");
    EXPECT_EQ(exitCode, 1);
    EXPECT_EQ(SnapshotTree(app), original);
}

TEST_F(ProcessManifestTest, NewerInstalledBundleIsSkipped) {
    WriteTextFile(app + "/Contents/Info.plist", VersionPlist("3.0"));
    const std::string before = Md5(app + "/Contents/Info.plist");
    EXPECT_EQ(Run(Manifest({entries[0]})), "0");
    EXPECT_EQ(Md5(app + "/Contents/Info.plist"), before);
}

TEST_F(ProcessManifestTest, EntryWithoutAnyNameIsSkipped) {
    std::string manifest = "<Manifest><FileSet><File><Operation>ADD</Operation>"
                           "<DestinationPath dir=\"[INSTALLDIR]\"><FileName lang=\"xx_XX\">x"
                           "</FileName></DestinationPath></File></FileSet></Manifest>";
    LogCapture log;
    EXPECT_EQ(Run(manifest), "0");
    EXPECT_TRUE(log.contains("Skip this operation"));
}

TEST_F(ProcessManifestTest, LocalizedNameFollowsTheInstallLanguage) {
    SetENVinstallLanguage("de_DE");
    std::string manifest =
        "<Manifest><FileSet><File><Operation>ADD</Operation><ObjectName>new.txt</ObjectName>"
        "<DestinationPath dir=\"[INSTALLDIR]/Contents\" defName=\"english.txt\">"
        "<FileName lang=\"fr_FR\">francais.txt</FileName>"
        "<FileName lang=\"de_DE\">deutsch.txt</FileName></DestinationPath>"
        "<Checksum><AfterPatch>" +
        newMd5["new"] + "</AfterPatch></Checksum></File></FileSet></Manifest>";
    EXPECT_EQ(Run(manifest), "0");
    EXPECT_TRUE(FileExists(app + "/Contents/deutsch.txt"));
    EXPECT_FALSE(FileExists(app + "/Contents/english.txt"));
}

TEST_F(ProcessManifestTest, MissingRequiredFieldsAreAPermanentError) {
    LogCapture log;
    EXPECT_EQ(
        Run("<Manifest><FileSet><File><ObjectName>x</ObjectName></File></FileSet></Manifest>"),
        "9");
    EXPECT_TRUE(log.contains("Operation field is missing."));
    EXPECT_TRUE(log.contains("There's nothing to rollback."));
    EXPECT_EQ(
        Run("<Manifest><FileSet><File><Operation>ADD</Operation></File></FileSet></Manifest>"),
        "9");
    EXPECT_TRUE(log.contains("Destination field is missing."));
}

TEST_F(ProcessManifestTest, ImproperManifestStartsNothing) {
    LogCapture log;
    EXPECT_EQ(Run("this is not a manifest"), "not started");
    EXPECT_TRUE(log.contains("Improper Manifest file"));
}

TEST_F(ProcessManifestTest, ReportsGoToTheUserWhenNotSilent) {
    SetENVsilentFlag(false);
    RecordingUserInterface ui;
    ReportingContext context;
    context.library = {};
    context.userInterface = &ui;
    reporter = KORInstallerResultsWrapper(context);
    EXPECT_EQ(Run(Manifest(entries)), "");
    ASSERT_EQ(ui.messages.size(), 1u);
    EXPECT_EQ(ui.messages[0], "UpToDate Title|Patcher successful message");

    auto failing = entries;
    failing.push_back({"ADD", "missing-source", "[INSTALLDIR]/Contents", "nothing-here", "",
                       "00000000000000000000000000000000"});
    // The tree is already updated: start again from a fresh copy of the entries' sources.
    EXPECT_EQ(Run(Manifest({failing.back()}, false, false)), "");
    ASSERT_EQ(ui.messages.size(), 2u);
    EXPECT_EQ(ui.messages[1], "Installing the patch title|Update failed message");
}

} // namespace
