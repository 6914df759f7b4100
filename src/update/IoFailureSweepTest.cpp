// The I/O-failure sweep: an update that uses every File keyword, a Bundle set and a
// Directory set is run again and again, the Nth call of the file-system seam failing once
// (N = 1, 2, ... until a run gets through without reaching call N), with ENOSPC and with
// EIO. After every run the installed tree must be the new version with code 0, or the old
// version with code 9: never a mix.
#include "update/ProcessManifest.h"

#include "ManifestText.h"
#include "TestSupport.h"
#include "base/Md5.h"
#include "runtime/Environment.h"
#include "runtime/MainLoop.h"
#include "system/FileSystem.h"
#include "target/LoadConfigData.h"
#include "target/OrvelCodeFileHandler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

std::string FileMd5(const std::string& path) {
    return Md5OfFile(path).value_or("");
}

// The entries of two snapshots that differ, for the failure message.
std::string Difference(const std::map<std::string, std::string>& a,
                       const std::map<std::string, std::string>& b) {
    std::string text;
    for (const auto& [path, value] : a) {
        const auto other = b.find(path);
        if (other == b.end())
            text += "  only in the first: " + path + "\n";
        else if (other->second != value)
            text += "  differs: " + path + "\n";
    }
    for (const auto& [path, value] : b) {
        if (!a.count(path))
            text += "  only in the second: " + path + "\n";
    }
    return text;
}

// The tree without the empty folders that the expected tree does not have. Removing a
// folder that a removal left empty is best effort (a failure is logged as minor and the
// update goes on), so a completed update may leave one behind.
std::map<std::string, std::string>
WithoutLeftoverEmptyFolders(std::map<std::string, std::string> tree,
                            const std::map<std::string, std::string>& expected) {
    for (auto it = tree.begin(); it != tree.end();) {
        const auto next = std::next(it);
        const bool empty = next == tree.end() || next->first.rfind(it->first + "/", 0) != 0;
        if (it->second == "dir" && empty && !expected.count(it->first))
            it = tree.erase(it);
        else
            it = next;
    }
    return tree;
}

class IoFailureSweep : public ::testing::Test {
protected:
    void SetUp() override {
        SetENVsilentFlag(true);
        ClearENVinstallLanguage();
        paths.returnCodeFile = root + "/retVal/retVal";
        paths.patchHistoryFolder = root + "/history/";
        paths.protectedFolders = {root, root + "/opt", root + "/opt/Suite"};
        makeOldVersion();
        makePayloadAndManifest();
    }

    void TearDown() override {
        (void)OrvelCodeFileHandler::releaseInstance();
        SetENVsilentFlag(false);
    }

    // The installed version 1.0, kept as a pristine copy that every run starts from.
    void makeOldVersion() {
        const std::string c = pristine + "/Contents";
        WriteTextFile(c + "/Info.plist", VersionPlist("1.0"));
        WriteTextFile(c + "/MacOS/Editor", RandomText(3 * 1024 * 1024, 7));
        for (int i = 1; i <= 5; ++i)
            WriteTextFile(c + "/Resources/keep" + std::to_string(i) + ".txt",
                          "version one of " + std::to_string(i) + "\n");
        for (int i = 1; i <= 3; ++i)
            WriteTextFile(c + "/Resources/old" + std::to_string(i) + ".txt", "to be removed\n");
        WriteTextFile(c + "/Resources/Gone/last.txt", "the folder goes with me\n");
        WriteTextFile(c + "/Resources/blind1.txt", "old blind\n");
        WriteTextFile(c + "/Resources/blind2.txt", "old blind two\n");
        WriteTextFile(c + "/Resources/rename-me.txt", "renamed content\n");
        WriteTextFile(c + "/Resources/move-me.txt", "moved content\n");
        WriteTextFile(c + "/Resources/tool.sh", "#!/bin/sh\n");
        ::chmod((c + "/Resources/tool.sh").c_str(), 0644);
        WriteTextFile(c + "/Resources/touch.txt", "touched\n");
        WriteTextFile(c + "/Resources/ignored.txt", "left alone\n");
        fs::create_directories(c + "/Obsolete");
        fs::create_symlink("Resources/keep1.txt", c + "/oldlink");
        fs::create_symlink("Resources/keep2.txt", c + "/changedlink");
    }

    void makePayloadAndManifest() {
        const std::string c = pristine + "/Contents";
        std::string editor = ReadTextFile(c + "/MacOS/Editor");
        for (size_t i = 100000; i < 100400; ++i)
            editor[i] = 'x';
        editor += "appended tail";
        WriteTextFile(root + "/Editor.new", editor);
        fs::create_directories(staging);
        ASSERT_EQ(RunProgram({"bsdiff", c + "/MacOS/Editor", root + "/Editor.new",
                              staging + "/Editor.patch"}),
                  0);
        for (int i = 1; i <= 5; ++i) {
            const std::string n = std::to_string(i);
            WriteTextFile(staging + "/new" + n + ".txt", "a new file " + n + "\n");
            WriteTextFile(staging + "/keep" + n + ".txt", "version two of " + n + "\n");
        }
        WriteTextFile(staging + "/blind1.txt", "new blind one\n");
        WriteTextFile(staging + "/blind2.txt", "new blind two\n");
        WriteTextFile(staging + "/Info.plist", VersionPlist("2.0"));
        fs::create_directories(resources);
        ASSERT_EQ(PackPayload(staging, resources + "/Payload.cpio.gz"), 0);
        fs::copy_file(BUNDLED_BSPATCH, resources + "/bspatch");

        const std::string res = "[INSTALLDIR]/Contents/Resources";
        std::vector<FileEntry> files;
        for (int i = 1; i <= 5; ++i) {
            const std::string n = std::to_string(i);
            const std::string folder = i == 5 ? "[INSTALLDIR]/Contents/Resources/Fresh/Deep" : res;
            files.push_back({"ADD", "new" + n + ".txt", folder, "new" + n + ".txt", "",
                             FileMd5(staging + "/new" + n + ".txt")});
            files.push_back({"OVERWRITE", "keep" + n + ".txt", res, "keep" + n + ".txt",
                             FileMd5(c + "/Resources/keep" + n + ".txt"),
                             FileMd5(staging + "/keep" + n + ".txt")});
        }
        for (int i = 1; i <= 3; ++i) {
            const std::string n = std::to_string(i);
            files.push_back({"REMOVE", "old" + n + ".txt", res, "old" + n + ".txt", "", ""});
        }
        files.push_back({"REMOVE", "last.txt", res + "/Gone", "last.txt", "", ""});
        files.push_back({"PATCH", "Editor.patch", "[INSTALLDIR]/Contents/MacOS", "Editor",
                         FileMd5(c + "/MacOS/Editor"), FileMd5(root + "/Editor.new")});
        files.push_back({"BLINDOVERWRITE", "blind1.txt", res, "blind1.txt", "",
                         FileMd5(staging + "/blind1.txt")});
        files.push_back({"BLINDOVERWRITE", "blind2.txt", res, "blind2.txt", "",
                         FileMd5(staging + "/blind2.txt")});
        files.push_back({"RENAME", "rename-me.txt", res, "rename-me.txt", "",
                         FileMd5(c + "/Resources/rename-me.txt"), res, "renamed.txt"});
        files.push_back({"RENAME", "move-me.txt", res, "move-me.txt", "",
                         FileMd5(c + "/Resources/move-me.txt"), res + "/Moved", "moved.txt"});
        files.push_back({"CREATELINK", "newlink", "[INSTALLDIR]/Contents", "newlink", "", "", "",
                         "Resources/new1.txt"});
        files.push_back({"CREATELINK", "changedlink", "[INSTALLDIR]/Contents", "changedlink", "",
                         "", "", "Resources/keep3.txt"});
        files.push_back({"REMOVELINK", "oldlink", "[INSTALLDIR]/Contents", "oldlink", "", ""});
        files.push_back({"CHANGEPERM", "tool.sh", res, "tool.sh", "", "", "", "", "755"});
        files.push_back({"TOUCH", "touch.txt", res, "touch.txt", "", ""});
        files.push_back({"IGNORE", "ignored.txt", res, "ignored.txt", "", ""});
        entryCount = files.size() + 1 + 3; // the bundle's entry and the folders

        std::string xml = "<?xml version=\"1.0\"?>\n<Manifest>\n<FileSet>\n";
        for (const auto& e : files)
            xml += FileEntryXml(e);
        xml += "</FileSet>\n";
        xml += BundleSetXml("[INSTALLDIR]/Contents/Info.plist", "1.0",
                            {{"OVERWRITE", "Info.plist", "[INSTALLDIR]/Contents", "Info.plist",
                              FileMd5(c + "/Info.plist"), FileMd5(staging + "/Info.plist")}});
        xml += "<DirectorySet>" +
               DirectoryEntryXml("ADD", "[INSTALLDIR]/Contents/PlugIns/Filters") +
               DirectoryEntryXml("ADD", "[INSTALLDIR]/Contents/Resources") +
               DirectoryEntryXml("REMOVE", "[INSTALLDIR]/Contents/Obsolete") + "</DirectorySet>\n";
        xml += "</Manifest>\n";
        WriteTextFile(resources + "/manifest.xml", xml);
    }

    // Puts the old version in place and runs the update with the seam given; the silent
    // return code ("" when none was written).
    std::string RunFromOldVersion(FileSystem* fileSystem) {
        fs::remove_all(app);
        fs::remove_all(payload);
        fs::remove_all(root + "/retVal");
        fs::create_directories(fs::path(app).parent_path());
        fs::copy(pristine, app, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        ::chmod((app + "/Contents/Resources/tool.sh").c_str(), 0644);

        HeadlessMainLoop loop;
        ManifestRunEnvironment environment;
        environment.loop = &loop;
        environment.paths = paths;
        environment.history = OrvelCodeFileHandler::getInstance();
        environment.silent = true;
        environment.cmdOptions.protectedFolders = paths.protectedFolders;
        environment.cmdOptions.fileSystem = fileSystem;
        environment.cmdOptions.fileVersionCompareAllowsReplace =
            [](const std::string&, const std::string&) { return true; };
        auto processor = std::make_unique<ProcessManifest>(
            resources + "/manifest.xml", payload, app, resources, &config, std::move(environment));
        if (!processor->performAction(nullptr))
            return "not started";
        loop.run();
        processor.reset();
        const std::string code = root + "/retVal/retVal";
        return fs::exists(code) ? ReadTextFile(code) : "";
    }

    // Sweeps N from 1 until a run completes without reaching call N; the number of N tried.
    int Sweep(int error) {
        int tried = 0;
        for (uint64_t n = 1;; ++n) {
            FaultInjectingFileSystem faulty;
            faulty.failCall(n, error);
            std::string code;
            {
                LogCapture log; // the runs' log lines stay out of the test output
                code = RunFromOldVersion(&faulty);
            }
            ++tried;
            const auto tree = SnapshotTree(app);
            if (code == "0") {
                EXPECT_EQ(WithoutLeftoverEmptyFolders(tree, newTree), newTree)
                    << "call " << n << " (" << std::strerror(error)
                    << ") ended with 0 but the tree is not the new one:\n"
                    << Difference(tree, newTree);
            } else if (code == "9") {
                EXPECT_EQ(tree, oldTree) << "call " << n << " (" << std::strerror(error) << ", "
                                         << faulty.callLog().at(n - 1)
                                         << ") ended with 9 but the tree is not the old one:\n"
                                         << Difference(tree, oldTree);
            } else {
                ADD_FAILURE() << "call " << n << " (" << std::strerror(error) << ", "
                              << faulty.callLog().at(n - 1) << ") ended with code \"" << code
                              << "\"";
            }
            if (!faulty.failed())
                break; // the run needed fewer calls than n: every call has been failed once
            if (::testing::Test::HasFailure() || n > 5000)
                break;
        }
        return tried;
    }

    TempDir temp;
    std::string root = temp.path();
    std::string pristine = root + "/pristine/Editor.app";
    std::string app = root + "/opt/Suite/Editor.app";
    std::string staging = root + "/staging";
    std::string resources = root + "/Patch.app/Contents/Resources";
    std::string payload = root + "/work/PatcherApp_1";
    PlatformPaths paths;
    LoadConfigData config;
    size_t entryCount = 0;
    std::map<std::string, std::string> oldTree;
    std::map<std::string, std::string> newTree;
};

TEST_F(IoFailureSweep, EveryFailedCallLeavesTheOldOrTheNewVersion) {
    oldTree = SnapshotTree(pristine);
    FaultInjectingFileSystem counting; // fails nothing: counts the calls of a whole run
    {
        LogCapture log;
        ASSERT_EQ(RunFromOldVersion(&counting), "0");
    }
    newTree = SnapshotTree(app);
    ASSERT_NE(newTree, oldTree);
    for (const char* expected :
         {"Contents/MacOS/Editor", "Contents/newlink", "Contents/PlugIns/Filters"})
        ASSERT_EQ(newTree.count(expected), 1u) << expected << " missing:\n"
                                               << Difference(newTree, oldTree);
    EXPECT_EQ(newTree.at("Contents/MacOS/Editor"), "file:" + FileMd5(root + "/Editor.new"));
    EXPECT_EQ(newTree.at("Contents/newlink"), "link:Resources/new1.txt");
    EXPECT_EQ(newTree.count("Contents/Obsolete"), 0u);
    EXPECT_EQ(newTree.count("Contents/PlugIns/Filters"), 1u);
    ASSERT_GT(counting.calls(), entryCount);

    const int triedNoSpace = Sweep(ENOSPC);
    const int triedIo = Sweep(EIO);
    std::cout << "I/O-failure sweep over " << entryCount << " entries, " << counting.calls()
              << " seam calls a run: tried N = 1.." << triedNoSpace << " with ENOSPC and N = 1.."
              << triedIo << " with EIO" << std::endl;
    // The sweep went on until a run had fewer calls than N. Runs differ by the work the
    // threads ahead got done in time: a checksum read ahead is not read through the seam, and
    // an entry whose new file was not written ahead yet writes it itself, a few calls more (on
    // a loaded machine, for several entries).
    const int slack = 8 + static_cast<int>(counting.calls()) / 10;
    EXPECT_NEAR(triedNoSpace, static_cast<int>(counting.calls()) + 1, slack);
    EXPECT_NEAR(triedIo, static_cast<int>(counting.calls()) + 1, slack);
}

// The order in which a run's changes reach the disk, read from the seam's call log: new
// content is synced before it is renamed over its target, the rename is followed by a
// sync of its folder or of its file system, and no change of the installed tree is made while a
// journal write is not yet synced (each undo entry is on disk before the change that it undoes).
TEST_F(IoFailureSweep, NewContentAndJournalEntriesAreOnDiskBeforeTheyCount) {
    FaultInjectingFileSystem recording; // fails nothing
    {
        LogCapture log;
        ASSERT_EQ(RunFromOldVersion(&recording), "0");
    }
    const std::vector<std::string> calls = recording.callLog();
    const std::string journal = payload + "/backupDir/RollBack.xml";
    // A file written ahead without a name is written when it is named (link-fd).
    const std::set<std::string> writing = {"create",    "write",    "write-at",
                                           "copy-data", "truncate", "link-fd"};
    const std::set<std::string> changing = {
        "create", "write",  "write-at", "copy-data", "truncate", "mkdir",
        "rmdir",  "unlink", "rename",   "link",      "link-fd",  "symlink",
        "chown",  "chmod",  "fchmod",   "utimens",   "futimens"};
    std::map<std::string, bool> unsynced; // file -> written since its last sync
    bool journalUnsynced = false;
    int journalSyncs = 0, replacements = 0, treeChanges = 0, syncs = 0;
    // The device of a path, or of its nearest folder that is still there (a temporary name
    // is gone after its rename).
    auto deviceOf = [](std::string path) {
        struct stat info {};
        while (::stat(path.c_str(), &info) != 0 && path.size() > 1)
            path = fs::path(path).parent_path().string();
        return info.st_dev;
    };
    for (size_t i = 0; i < calls.size(); ++i) {
        const std::string& call = calls[i];
        const auto space = call.find(' ');
        const std::string verb = call.substr(0, space);
        const std::string path = space == std::string::npos ? "" : call.substr(space + 1);
        // New content written under a temporary name beside its target, and a backup's
        // second name for an installed file, change nothing installed yet.
        const bool temporary = path.find("/.orvel-new.") != std::string::npos &&
                               path.find(" -> ") == std::string::npos;
        const bool backupName =
            verb == "link" && path.find(" -> " + app + "/") == std::string::npos;
        if (changing.count(verb) && path.rfind(app + "/", 0) == 0 && !temporary && !backupName) {
            ++treeChanges;
            EXPECT_FALSE(journalUnsynced) << "call " << i << " (" << call
                                          << ") changes the tree before the journal is synced";
        }
        if (writing.count(verb)) {
            if (path == journal)
                journalUnsynced = true;
            else
                unsynced[path] = true;
        } else if (verb == "sync-file") {
            ++syncs;
            if (path == journal) {
                journalUnsynced = false;
                ++journalSyncs;
            }
            unsynced[path] = false;
        } else if (verb == "sync-filesystem") {
            // Everything written on that file system is on disk.
            ++syncs;
            const dev_t device = deviceOf(path);
            for (auto& [file, dirty] : unsynced) {
                if (deviceOf(file) == device)
                    dirty = false;
            }
            if (deviceOf(journal) == device) {
                journalUnsynced = false;
                ++journalSyncs;
            }
        } else if (verb == "rename") {
            const std::string from = path.substr(0, path.find(" -> "));
            const std::string to = path.substr(path.find(" -> ") + 4);
            if (from.find("/.orvel-new.") == std::string::npos)
                continue;
            ++replacements;
            EXPECT_FALSE(unsynced[from])
                << "call " << i << " (" << call << ") renames content that is not synced";
            // Later, the folder itself or its whole file system is synced.
            const std::string folder = fs::path(to).parent_path().string();
            struct stat folderInfo {};
            ::stat(folder.c_str(), &folderInfo);
            const bool synced = std::any_of(
                calls.begin() + static_cast<long>(i), calls.end(), [&](const std::string& later) {
                    if (later == "sync-folder " + folder)
                        return true;
                    const std::string prefix = "sync-filesystem ";
                    struct stat info {};
                    return later.rfind(prefix, 0) == 0 &&
                           ::stat(later.substr(prefix.size()).c_str(), &info) == 0 &&
                           info.st_dev == folderInfo.st_dev;
                });
            EXPECT_TRUE(synced) << "call " << i << " (" << call
                                << ") is never followed by a sync of " << folder;
        }
    }
    EXPECT_FALSE(journalUnsynced);
    // Every kind of replacement took part: added, overwritten, patched, the bundle's file.
    EXPECT_GE(replacements, 10);
    EXPECT_GE(journalSyncs, 1);
    std::cout << entryCount << " entries, " << replacements << " replacements, " << syncs
              << " syncs of files and file systems, " << journalSyncs << " of the journal"
              << std::endl;
    EXPECT_GT(treeChanges, replacements);
}

} // namespace
