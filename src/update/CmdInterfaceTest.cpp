#include "update/CmdInterface.h"
#include "base/Path.h"
#include "update/FileManager.h"

#include "CmdInterfaceTestSupport.h"
#include "TestSupport.h"
#include "base/Md5.h"
#include "runtime/Environment.h"
#include "system/FileSystem.h"
#include "update/RollBackHandler.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace fileops_test;

namespace {

const std::string kOld = "old contents of the installed file\n";
const std::string kNew = "new contents from the payload, a little longer\n";
const std::string kOther = "contents nobody expects\n";
const std::string X = kAbsentMarker;

const std::string& mOld() {
    static const std::string value = Md5OfBytes(kOld);
    return value;
}
const std::string& mNew() {
    static const std::string value = Md5OfBytes(kNew);
    return value;
}
const std::string& mOther() {
    static const std::string value = Md5OfBytes(kOther);
    return value;
}

// The patch tool the bundle carries, as PATCH finds it in the resource folder.
std::string PatchToolSource() {
    return BUNDLED_BSPATCH;
}

// A patcher's world in a temporary folder: an installed bundle, a payload folder with its
// backup folder, and a resource folder holding the patch tool.
struct Env {
    TempDir temp;
    std::string root = temp.path();
    std::string app = root + "/App.app";
    std::string res = app + "/Contents/Resources";
    std::string payload = root + "/payload";
    std::string backup = payload + "/backupDir";
    std::string tools = root + "/tools";
    // What the blind-overwrite rule answers, and what it was asked.
    bool allowReplace = true;
    std::vector<std::pair<std::string, std::string>> replaceQuestions;

    Env() {
        EXPECT_TRUE(FileManager().createDirectoryAtPath(res));
        EXPECT_TRUE(FileManager().createDirectoryAtPath(backup));
        EXPECT_TRUE(FileManager().createDirectoryAtPath(tools));
        // Something that stays, so the resource folder is never emptied by a test.
        WriteTextFile(res + "/Keep.txt", "keep\n");
        EXPECT_TRUE(FileManager().copyItem(PatchToolSource(), tools + "/bspatch", false));
    }

    std::string in(const std::string& relative) const { return res + "/" + relative; }
    void put(const std::string& path, const std::string& text, mode_t mode = 0644) const {
        EXPECT_TRUE(FileManager().createDirectoryAtPath(ParentPath(path)));
        WriteTextFile(path, text);
        ::chmod(path.c_str(), mode);
    }
    void putPayload(const std::string& name, const std::string& text) const {
        put(payload + "/" + name, text);
    }
    void link(const std::string& path, const std::string& target) const {
        EXPECT_TRUE(FileManager().createDirectoryAtPath(ParentPath(path)));
        EXPECT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    }
    // Makes a bsdiff patch from old to new text into the payload.
    void putPatch(const std::string& name, const std::string& oldText,
                  const std::string& newText) const {
        TempDir work;
        WriteTextFile(work.file("old"), oldText);
        WriteTextFile(work.file("new"), newText);
        ASSERT_EQ(RunProgram({"/usr/bin/bsdiff", work.file("old"), work.file("new"),
                              payload + "/" + name}),
                  0);
    }

    CmdInterface::Options options() {
        CmdInterface::Options options;
        options.isRepairMode = false;
        options.fileVersionCompareAllowsReplace = [this](const std::string& a,
                                                         const std::string& b) {
            replaceQuestions.emplace_back(a, b);
            return allowReplace;
        };
        return options;
    }
    // The tree the tests compare: everything but the payload and the tools.
    std::map<std::string, std::string> tree() const {
        auto all = Snapshot(root);
        std::map<std::string, std::string> result;
        for (const auto& [path, value] : all) {
            if (path.rfind("payload", 0) != 0 && path.rfind("tools", 0) != 0)
                result[path] = value;
        }
        return result;
    }
    std::string journal() const { return backup + "/" + RollBackHandler::kJournalName; }
};

FileOperationInfo Rec(const std::string& operation, const std::string& objectName,
                      const std::string& destination, const std::string& before,
                      const std::string& after, const std::string& rename = X) {
    FileOperationInfo info;
    info.Operation = operation;
    info.ObjectName = objectName;
    info.DestinationPath = destination;
    info.BeforePatch = before;
    info.AfterPatch = after;
    info.RenamePath = rename;
    return info;
}

// What a journal entry must say (the fields the replay reads).
struct Entry {
    std::string Operation, ObjectName, DestinationPath, RenamePath, BeforePatch, AfterPatch;
};

enum class Replay {
    Restores,     // the replay succeeds and the tree is the one before the operation
    KeepsForward, // the replay succeeds and the operation's result stays (nothing journaled)
    Fails,        // the replay reports a failure
    Custom,       // checked by replayCheck
    NotRun,
};

struct FileCase {
    std::string name;
    std::function<void(Env&)> setup;
    std::function<FileOperationInfo(Env&)> record;
    int32_t result;
    std::function<std::vector<std::string>(Env&)> logs; // lines that must be in the log
    std::function<void(Env&)> check;                    // the tree after the operation
    std::function<std::vector<Entry>(Env&)> journal;    // the file entries written
    Replay replay;
    std::function<void(Env&, int32_t)> replayCheck = nullptr;
};

auto NoJournal = [](Env&) { return std::vector<Entry>{}; };
// What an entry that only sets attributes on a.txt journals: its owner, group and mode.
auto AttributesEntry = [](Env& e) {
    return std::vector<Entry>{{"CHANGEPERM", "a.txt", e.in("a.txt"), X, X, X}};
};
auto NoCheck = [](Env&) {};

std::string Success(const std::string& op) {
    return "Successfully performed \"" + op + "\" file Operation";
}
std::string NoNeed(const std::string& op) {
    return "No need to perform \"" + op + "\" file Operation";
}
std::string Failed(const std::string& op) {
    return "Failed to perform \"" + op + "\" file Operation";
}

bool IsLinkTo(const std::string& path, const std::string& target) {
    char buffer[4096];
    const ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
    return n > 0 && std::string(buffer, static_cast<size_t>(n)) == target;
}

timespec MtimeOf(const std::string& path) {
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return info.st_mtim;
}

void SetOldMtime(const std::string& path) {
    const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

std::vector<FileCase> FileCases() {
    std::vector<FileCase> cases;
    // ---- ADD
    cases.push_back(
        {"Add_DestinationMissing", [](Env& e) { e.putPayload("a.txt", kNew); },
         [](Env& e) { return Rec("ADD", "a.txt", e.in("a.txt"), X, mNew()); }, 0,
         [](Env& e) {
             return std::vector<std::string>{"Copying file \"" + e.payload + "/a.txt\" to \"" +
                                                 e.in("a.txt") + "\" during perform.",
                                             Success("ADD")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew); },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("a.txt"), X, mNew(), X}};
         },
         Replay::Restores});
    cases.push_back(
        {"Add_FolderMissingIsCreated", [](Env& e) { e.putPayload("a.txt", kNew); },
         [](Env& e) { return Rec("ADD", "a.txt", e.in("New/Sub/a.txt"), X, mNew()); }, 0,
         [](Env&) { return std::vector<std::string>{Success("ADD")}; },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("New/Sub/a.txt")), kNew); },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("New/Sub/a.txt"), X, mNew(), X}};
         },
         Replay::Restores});
    cases.push_back({"Add_AlreadyAtAfterPatch",
                     [](Env& e) {
                         e.putPayload("a.txt", kNew);
                         e.put(e.in("a.txt"), kNew);
                     },
                     [](Env& e) { return Rec("ADD", "a.txt", e.in("a.txt"), X, mNew()); }, 0,
                     [](Env&) {
                         return std::vector<std::string>{
                             "File to add already exists. Need not add.", NoNeed("ADD")};
                     },
                     [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew); }, NoJournal,
                     Replay::Restores});
    cases.push_back(
        {"Add_DifferentFileIsNeverReplaced",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("a.txt"), kOther);
         },
         [](Env& e) { return Rec("ADD", "a.txt", e.in("a.txt"), X, mNew()); }, 1,
         [](Env&) {
             return std::vector<std::string>{"File copy operation failed.", Failed("ADD")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOther); }, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Add_SourceMissing", NoCheck,
         [](Env& e) { return Rec("ADD", "a.txt", e.in("a.txt"), X, mNew()); }, 1,
         [](Env&) {
             return std::vector<std::string>{"File copy operation failed.", Failed("ADD")};
         },
         [](Env& e) { EXPECT_FALSE(FileExists(e.in("a.txt"))); },
         // Journaled before the copy was tried.
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("a.txt"), X, mNew(), X}};
         },
         Replay::Restores});
    cases.push_back(
        {"Add_CopyFailsItsChecksumAndIsJournaled", [](Env& e) { e.putPayload("a.txt", kNew); },
         [](Env& e) { return Rec("ADD", "a.txt", e.in("a.txt"), X, mOther()); }, 1,
         [](Env& e) {
             return std::vector<std::string>{
                 "CheckSum verification fail for file " + e.in("a.txt"),
                 "File Checksum \"" + mNew() + "\", checksum from manifest \"" + mOther() + "\"."};
         },
         NoCheck,
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("a.txt"), X, mOther(), X}};
         },
         Replay::Restores});
    cases.push_back(
        {"Add_WithTouchAndPermission",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             ::chmod((e.payload + "/a.txt").c_str(), 0755);
             SetOldMtime(e.payload + "/a.txt");
         },
         [](Env& e) {
             auto info = Rec("ADD", "a.txt", e.in("a.txt"), X, mNew());
             info.Touch = "true";
             info.Permission = "644";
             return info;
         },
         0,
         [](Env&) {
             return std::vector<std::string>{"Successfully performed touch file Operation",
                                             "Old Permission: 755"};
         },
         [](Env& e) {
             EXPECT_EQ(ModeOf(e.in("a.txt")), 0644u);
             EXPECT_GT(MtimeOf(e.in("a.txt")).tv_sec, 1000000000);
         },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("a.txt"), X, mNew(), X}};
         },
         Replay::Restores});

    // ---- REMOVE and REMOVELINK
    cases.push_back({"Remove_Existing", [](Env& e) { e.put(e.in("a.txt"), kOld); },
                     [](Env& e) { return Rec("REMOVE", "a.txt", e.in("a.txt"), X, X); }, 0,
                     [](Env& e) {
                         return std::vector<std::string>{"Removing File \"" + e.in("a.txt") + "\".",
                                                         Success("REMOVE")};
                     },
                     [](Env& e) { EXPECT_FALSE(FileExists(e.in("a.txt"))); },
                     [](Env& e) {
                         return std::vector<Entry>{{"ADD", "a.txt", e.in("a.txt"), X, X, mOld()}};
                     },
                     Replay::Restores});
    cases.push_back(
        {"Remove_Missing", NoCheck,
         [](Env& e) { return Rec("REMOVE", "a.txt", e.in("a.txt"), X, X); }, 0,
         [](Env&) {
             return std::vector<std::string>{"File to delete does not exist", NoNeed("REMOVE")};
         },
         NoCheck, NoJournal, Replay::Restores});
    cases.push_back({"Remove_ThroughLinkedFolderIsRefused",
                     [](Env& e) {
                         e.put(e.root + "/Elsewhere/a.txt", kOld);
                         e.link(e.in("Linked"), e.root + "/Elsewhere");
                     },
                     [](Env& e) { return Rec("REMOVE", "a.txt", e.in("Linked/a.txt"), X, X); }, 0,
                     [](Env&) {
                         return std::vector<std::string>{
                             "Do not remove because intermediate path contains symlink.",
                             NoNeed("REMOVE")};
                     },
                     [](Env& e) { EXPECT_EQ(ReadTextFile(e.root + "/Elsewhere/a.txt"), kOld); },
                     NoJournal, Replay::Restores});
    cases.push_back(
        {"Remove_LinkIsRemovedAndRecreatedOnReplay",
         [](Env& e) {
             e.put(e.in("target.txt"), kOld);
             e.link(e.in("link"), "target.txt");
         },
         [](Env& e) { return Rec("REMOVE", "link", e.in("link"), X, X); }, 0,
         [](Env&) { return std::vector<std::string>{Success("REMOVE")}; },
         [](Env& e) {
             EXPECT_FALSE(FileExists(e.in("link")));
             EXPECT_EQ(ReadTextFile(e.in("target.txt")), kOld);
         },
         [](Env& e) {
             return std::vector<Entry>{{"CREATELINK", "link", e.in("link"), "target.txt", X, X}};
         },
         Replay::Restores});
    cases.push_back({"RemoveLink_DanglingLink",
                     [](Env& e) { e.link(e.in("link"), "/nonexistent/target"); },
                     [](Env& e) { return Rec("REMOVELINK", "link", e.in("link"), X, X); }, 0,
                     [](Env&) { return std::vector<std::string>{Success("REMOVELINK")}; },
                     [](Env& e) { EXPECT_FALSE(IsLinkTo(e.in("link"), "/nonexistent/target")); },
                     [](Env& e) {
                         return std::vector<Entry>{
                             {"CREATELINK", "link", e.in("link"), "/nonexistent/target", X, X}};
                     },
                     Replay::Restores});
    cases.push_back(
        {"Remove_LastFileTakesEmptyFoldersAndDSStoreWithIt",
         [](Env& e) {
             e.put(e.in("Sub/Deeper/a.txt"), kOld);
             e.put(e.in("Sub/.DS_Store"), "finder\n");
         },
         [](Env& e) { return Rec("REMOVE", "a.txt", e.in("Sub/Deeper/a.txt"), X, X); }, 0,
         [](Env& e) {
             return std::vector<std::string>{
                 "Also removing empty Directory \"" + e.in("Sub/Deeper") + "\".",
                 "Removing .DS_Store file at " + e.in("Sub"),
                 "Also removing empty Directory \"" + e.in("Sub") + "\"."};
         },
         [](Env& e) {
             EXPECT_FALSE(FileExists(e.in("Sub")));
             EXPECT_TRUE(FileExists(e.in("Keep.txt")));
         },
         [](Env& e) {
             return std::vector<Entry>{{"ADD", "a.txt", e.in("Sub/Deeper/a.txt"), X, X, mOld()}};
         },
         Replay::Custom,
         [](Env& e, int32_t replayed) {
             // The file and its folders come back; ".DS_Store" is the Finder's
             // and is not kept.
             EXPECT_EQ(replayed, 0);
             EXPECT_EQ(ReadTextFile(e.in("Sub/Deeper/a.txt")), kOld);
             EXPECT_FALSE(FileExists(e.in("Sub/.DS_Store")));
         }});

    // ---- OVERWRITE
    cases.push_back(
        {"Overwrite_AtBeforePatch",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("a.txt"), kOld);
         },
         [](Env& e) { return Rec("OVERWRITE", "a.txt", e.in("a.txt"), mOld(), mNew()); }, 0,
         [](Env& e) {
             return std::vector<std::string>{"Overwriting file \"" + e.in("a.txt") + "\" ",
                                             Success("OVERWRITE")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew); },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.txt", e.in("a.txt"), X, mNew(), mOld()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Overwrite_AtAfterPatch",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("a.txt"), kNew);
         },
         [](Env& e) { return Rec("OVERWRITE", "a.txt", e.in("a.txt"), mOld(), mNew()); }, 0,
         [](Env&) { return std::vector<std::string>{NoNeed("OVERWRITE")}; },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew); }, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Overwrite_AtNeither",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("a.txt"), kOther);
         },
         [](Env& e) { return Rec("OVERWRITE", "a.txt", e.in("a.txt"), mOld(), mNew()); }, 1,
         [](Env& e) {
             return std::vector<std::string>{
                 "Checksum verification fail for file " + e.in("a.txt"),
                 "File Checksum \"" + mOther() + "\", preChecksum from manifest \"" + mOld() +
                     "\", postChecksum from manifest \"" + mNew() + "\".",
                 Failed("OVERWRITE")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOther); }, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Overwrite_DestinationMissingIsAddedAndJournaled",
         [](Env& e) { e.putPayload("a.txt", kNew); },
         [](Env& e) { return Rec("OVERWRITE", "a.txt", e.in("a.txt"), mOld(), mNew()); }, 0,
         [](Env&) {
             return std::vector<std::string>{
                 "Destination file does not exist. Simply adding the new file...",
                 Success("OVERWRITE")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew); },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("a.txt"), X, mNew(), mOld()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Overwrite_SourceMissingLeavesTheFileAlone", [](Env& e) { e.put(e.in("a.txt"), kOld); },
         [](Env& e) { return Rec("OVERWRITE", "a.txt", e.in("a.txt"), mOld(), mNew()); }, 1,
         [](Env&) {
             return std::vector<std::string>{"File copy operation failed.", Failed("OVERWRITE")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOld); },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.txt", e.in("a.txt"), X, mNew(), mOld()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Overwrite_WrongPayloadLeavesTheFileAlone",
         [](Env& e) {
             e.putPayload("a.txt", kOther);
             e.put(e.in("a.txt"), kOld);
         },
         [](Env& e) { return Rec("OVERWRITE", "a.txt", e.in("a.txt"), mOld(), mNew()); }, 1,
         [](Env& e) {
             return std::vector<std::string>{"Checksum verification fail for file " +
                                             e.in("a.txt")};
         },
         // The copy is checked before it takes the file's place.
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOld); },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.txt", e.in("a.txt"), X, mNew(), mOld()}};
         },
         Replay::Restores});

    // ---- BLINDOVERWRITE
    cases.push_back(
        {"Blind_DestinationMissing", [](Env& e) { e.putPayload("a.txt", kNew); },
         [](Env& e) { return Rec("BLINDOVERWRITE", "a.txt", e.in("a.txt"), X, mNew()); }, 0,
         [](Env& e) {
             return std::vector<std::string>{
                 "Blind Overwriting file \"" + e.in("a.txt") + "\" ",
                 "Destination file does not exist. Simply adding the new file...",
                 Success("BLINDOVERWRITE")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew); },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("a.txt"), X, mNew(), X}};
         },
         Replay::Restores});
    cases.push_back(
        {"Blind_AtAfterPatch",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("a.txt"), kNew);
         },
         [](Env& e) { return Rec("BLINDOVERWRITE", "a.txt", e.in("a.txt"), X, mNew()); }, 0,
         [](Env&) { return std::vector<std::string>{NoNeed("BLINDOVERWRITE")}; },
         [](Env& e) { EXPECT_TRUE(e.replaceQuestions.empty()); }, NoJournal, Replay::Restores});
    cases.push_back(
        {"Blind_OlderInstalledIsReplaced",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("a.txt"), kOther);
         },
         [](Env& e) { return Rec("BLINDOVERWRITE", "a.txt", e.in("a.txt"), X, mNew()); }, 0,
         [](Env& e) {
             return std::vector<std::string>{"Checksum verification fail for file " + e.in("a.txt"),
                                             "File Checksum \"" + mOther() +
                                                 "\", postChecksum from manifest \"" + mNew() +
                                                 "\".",
                                             Success("BLINDOVERWRITE")};
         },
         [](Env& e) {
             EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew);
             ASSERT_EQ(e.replaceQuestions.size(), 1u);
             EXPECT_EQ(e.replaceQuestions[0].first, e.payload + "/a.txt");
             EXPECT_EQ(e.replaceQuestions[0].second, e.in("a.txt"));
         },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.txt", e.in("a.txt"), X, mNew(), mOther()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Blind_NewerInstalledIsKept",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("a.txt"), kOther);
             e.allowReplace = false;
         },
         [](Env& e) { return Rec("BLINDOVERWRITE", "a.txt", e.in("a.txt"), X, mNew()); }, 0,
         [](Env&) { return std::vector<std::string>{NoNeed("BLINDOVERWRITE")}; },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOther); }, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Blind_OldPathReplacedByNewPlace",
         [](Env& e) {
             e.putPayload("a.txt", kNew);
             e.put(e.in("old.txt"), kOther);
         },
         [](Env& e) {
             return Rec("BLINDOVERWRITE", "a.txt", e.in("new.txt"), X, mNew(), e.in("old.txt"));
         },
         0, [](Env&) { return std::vector<std::string>{Success("BLINDOVERWRITE")}; },
         [](Env& e) {
             EXPECT_FALSE(FileExists(e.in("old.txt")));
             EXPECT_EQ(ReadTextFile(e.in("new.txt")), kNew);
             ASSERT_EQ(e.replaceQuestions.size(), 1u);
             EXPECT_EQ(e.replaceQuestions[0].second, e.in("old.txt"));
         },
         // The old place is kept and journaled too.
         [](Env& e) {
             return std::vector<Entry>{{"ADD", "old.txt", e.in("old.txt"), X, mNew(), mOther()},
                                       {"REMOVE", "a.txt", e.in("new.txt"), X, mNew(), X}};
         },
         Replay::Restores});
    cases.push_back(
        {"Blind_OldPathMissingAddsNewFile", [](Env& e) { e.putPayload("a.txt", kNew); },
         [](Env& e) {
             return Rec("BLINDOVERWRITE", "a.txt", e.in("new.txt"), X, mNew(), e.in("old.txt"));
         },
         0,
         [](Env&) {
             return std::vector<std::string>{
                 "Destination file does not exist. Simply adding the new file..."};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("new.txt")), kNew); },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", "a.txt", e.in("new.txt"), X, mNew(), X}};
         },
         Replay::Restores});
    cases.push_back({"Blind_OldPathNewerIsKept",
                     [](Env& e) {
                         e.putPayload("a.txt", kNew);
                         e.put(e.in("old.txt"), kOther);
                         e.allowReplace = false;
                     },
                     [](Env& e) {
                         return Rec("BLINDOVERWRITE", "a.txt", e.in("new.txt"), X, mNew(),
                                    e.in("old.txt"));
                     },
                     0, [](Env&) { return std::vector<std::string>{NoNeed("BLINDOVERWRITE")}; },
                     [](Env& e) {
                         EXPECT_EQ(ReadTextFile(e.in("old.txt")), kOther);
                         EXPECT_FALSE(FileExists(e.in("new.txt")));
                     },
                     NoJournal, Replay::Restores});

    // ---- PATCH
    cases.push_back(
        {"Patch_AtBeforePatch",
         [](Env& e) {
             e.putPatch("a.patch", kOld, kNew);
             e.put(e.in("tool"), kOld, 0755);
         },
         [](Env& e) { return Rec("PATCH", "a.patch", e.in("tool"), mOld(), mNew()); }, 0,
         [](Env& e) {
             return std::vector<std::string>{
                 "PatchTool : " + e.tools + "/bspatch", "FileToPatch : " + e.in("tool"),
                 "OutPutFile : " + e.in(".orvel-new.tool"), "PatchFile : " + e.payload + "/a.patch",
                 Success("PATCH")};
         },
         [](Env& e) {
             EXPECT_EQ(ReadTextFile(e.in("tool")), kNew);
             EXPECT_EQ(ModeOf(e.in("tool")), 0755u);
             EXPECT_FALSE(FileExists(e.in(".orvel-new.tool")));
         },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.patch", e.in("tool"), X, mNew(), mOld()}};
         },
         Replay::Restores});
    cases.push_back({"Patch_AtAfterPatch",
                     [](Env& e) {
                         e.putPatch("a.patch", kOld, kNew);
                         e.put(e.in("tool"), kNew);
                     },
                     [](Env& e) { return Rec("PATCH", "a.patch", e.in("tool"), mOld(), mNew()); },
                     0, [](Env&) { return std::vector<std::string>{NoNeed("PATCH")}; },
                     [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("tool")), kNew); }, NoJournal,
                     Replay::Restores});
    cases.push_back(
        {"Patch_AtNeither",
         [](Env& e) {
             e.putPatch("a.patch", kOld, kNew);
             e.put(e.in("tool"), kOther);
         },
         [](Env& e) { return Rec("PATCH", "a.patch", e.in("tool"), mOld(), mNew()); }, 1,
         [](Env& e) {
             return std::vector<std::string>{"CheckSum verification fail for file " + e.in("tool"),
                                             "File Checksum \"" + mOther() +
                                                 "\", checksum from manifest \"" + mOld() + "\".",
                                             Failed("PATCH")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("tool")), kOther); }, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Patch_FileMissing", [](Env& e) { e.putPatch("a.patch", kOld, kNew); },
         [](Env& e) { return Rec("PATCH", "a.patch", e.in("tool"), mOld(), mNew()); }, 1,
         [](Env&) { return std::vector<std::string>{"File to patch is not present"}; },
         [](Env& e) { EXPECT_FALSE(FileExists(e.in("tool"))); }, NoJournal, Replay::Restores});
    cases.push_back(
        {"Patch_CorruptPatch",
         [](Env& e) {
             e.putPayload("a.patch", "BSDIFF40 but nothing that follows makes sense");
             e.put(e.in("tool"), kOld);
         },
         [](Env& e) { return Rec("PATCH", "a.patch", e.in("tool"), mOld(), mNew()); }, 1,
         [](Env& e) {
             return std::vector<std::string>{
                 e.tools + "/bspatch: corrupt patch: the header's block lengths "
                           "reach past the end of the patch",
                 "Unable to apply patch."};
         },
         [](Env& e) {
             EXPECT_EQ(ReadTextFile(e.in("tool")), kOld);
             EXPECT_FALSE(FileExists(e.in(".orvel-new.tool")));
         },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.patch", e.in("tool"), X, mNew(), mOld()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Patch_ResultFailsItsChecksum",
         [](Env& e) {
             e.putPatch("a.patch", kOld, kNew);
             e.put(e.in("tool"), kOld);
         },
         [](Env& e) { return Rec("PATCH", "a.patch", e.in("tool"), mOld(), mOther()); }, 1,
         [](Env& e) {
             return std::vector<std::string>{
                 "CheckSum after patch operation not validated for file " + e.in("tool"),
                 "Patched file Checksum \"" + mNew() + "\", checksum from manifest \"" + mOther() +
                     "\"."};
         },
         [](Env& e) {
             EXPECT_EQ(ReadTextFile(e.in("tool")), kOld);
             EXPECT_FALSE(FileExists(e.in(".orvel-new.tool")));
         },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.patch", e.in("tool"), X, mOther(), mOld()}};
         },
         Replay::Restores});

    // ---- RENAME (the checksum is the file's, unchanged by the move)
    cases.push_back(
        {"Rename_TargetMissing", [](Env& e) { e.put(e.in("a.txt"), kOld); },
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("Sub/b.txt")); },
         0,
         [](Env& e) {
             return std::vector<std::string>{"FileToRename : " + e.in("a.txt"),
                                             "TargetFile : " + e.in("Sub/b.txt"),
                                             Success("RENAME")};
         },
         [](Env& e) {
             EXPECT_FALSE(FileExists(e.in("a.txt")));
             EXPECT_EQ(ReadTextFile(e.in("Sub/b.txt")), kOld);
         },
         [](Env& e) {
             return std::vector<Entry>{
                 {"RENAME", "a.txt", e.in("Sub/b.txt"), e.in("a.txt"), X, mOld()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Rename_AlreadyRenamed", [](Env& e) { e.put(e.in("b.txt"), kOld); },
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("b.txt")); }, 0,
         [](Env&) { return std::vector<std::string>{NoNeed("RENAME")}; }, NoCheck, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Rename_NeitherExists", NoCheck,
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("b.txt")); }, 1,
         [](Env&) { return std::vector<std::string>{"File to be renamed does not exist."}; },
         NoCheck, NoJournal, Replay::Restores});
    cases.push_back(
        {"Rename_TargetAtWrongChecksum", [](Env& e) { e.put(e.in("b.txt"), kOther); },
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("b.txt")); }, 1,
         [](Env& e) {
             return std::vector<std::string>{"CheckSum verification fail for file " + e.in("b.txt"),
                                             "File Checksum \"" + mOther() +
                                                 "\", checksum from manifest \"" + mOld() + "\"."};
         },
         NoCheck, NoJournal, Replay::Restores});
    cases.push_back(
        {"Rename_SourceAtWrongChecksum", [](Env& e) { e.put(e.in("a.txt"), kOther); },
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("b.txt")); }, 1,
         [](Env& e) {
             return std::vector<std::string>{"CheckSum verification fail for file " +
                                             e.in("a.txt")};
         },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOther); }, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Rename_SamePathIgnoringCase", [](Env& e) { e.put(e.in("a.txt"), kOld); },
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("A.TXT")); }, 0,
         [](Env&) { return std::vector<std::string>{NoNeed("RENAME")}; },
         [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOld); }, NoJournal,
         Replay::Restores});
    cases.push_back(
        {"Rename_TargetWithOtherContentIsReplaced",
         [](Env& e) {
             e.put(e.in("a.txt"), kOld);
             e.put(e.in("b.txt"), kOther);
         },
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("b.txt")); }, 0,
         [](Env&) { return std::vector<std::string>{Success("RENAME")}; },
         [](Env& e) {
             EXPECT_FALSE(FileExists(e.in("a.txt")));
             EXPECT_EQ(ReadTextFile(e.in("b.txt")), kOld);
         },
         [](Env& e) {
             // The replaced target is kept and journaled first; the replay, last entry
             // first, moves the file back and then puts the target back.
             return std::vector<Entry>{
                 {"ADD", "b.txt", e.in("b.txt"), X, mOld(), mOther()},
                 {"RENAME", "a.txt", e.in("b.txt"), e.in("a.txt"), X, mOld()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Rename_TargetAlreadyRightKeepsBoth",
         [](Env& e) {
             e.put(e.in("a.txt"), kOld);
             e.put(e.in("b.txt"), kOld);
         },
         [](Env& e) { return Rec("RENAME", "a.txt", e.in("a.txt"), X, mOld(), e.in("b.txt")); }, 0,
         [](Env&) { return std::vector<std::string>{NoNeed("RENAME")}; },
         [](Env& e) {
             EXPECT_TRUE(FileExists(e.in("a.txt")));
             EXPECT_TRUE(FileExists(e.in("b.txt")));
         },
         NoJournal, Replay::Restores});

    // ---- CREATELINK
    cases.push_back(
        {"Link_New", [](Env& e) { e.put(e.in("target.txt"), kNew); },
         [](Env& e) { return Rec("CREATELINK", X, e.in("link"), X, X, "target.txt"); }, 0,
         [](Env& e) {
             return std::vector<std::string>{"Dont care if remove operation failed here.",
                                             "Create link of : target.txt",
                                             "Create link at : " + e.in("link"),
                                             "Link created successfully", Success("CREATELINK")};
         },
         [](Env& e) { EXPECT_TRUE(IsLinkTo(e.in("link"), "target.txt")); },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", X, e.in("link"), "target.txt", X, X}};
         },
         Replay::Restores});
    cases.push_back({"Link_FolderMissingIsCreated", NoCheck,
                     [](Env& e) { return Rec("CREATELINK", X, e.in("Sub/link"), X, X, "/bin"); }, 0,
                     [](Env&) { return std::vector<std::string>{"Link created successfully"}; },
                     [](Env& e) { EXPECT_TRUE(IsLinkTo(e.in("Sub/link"), "/bin")); },
                     [](Env& e) {
                         return std::vector<Entry>{{"REMOVE", X, e.in("Sub/link"), "/bin", X, X}};
                     },
                     Replay::Restores});
    cases.push_back(
        {"Link_OverFile",
         [](Env& e) {
             e.put(e.in("target.txt"), kNew);
             e.put(e.in("link"), kOld);
         },
         [](Env& e) { return Rec("CREATELINK", "link", e.in("link"), X, mNew(), "target.txt"); }, 0,
         [](Env&) { return std::vector<std::string>{Success("CREATELINK")}; },
         [](Env& e) { EXPECT_TRUE(IsLinkTo(e.in("link"), "target.txt")); },
         [](Env& e) {
             return std::vector<Entry>{
                 {"OVERWRITE", "link", e.in("link"), "target.txt", mNew(), mOld()}};
         },
         Replay::Restores});
    cases.push_back(
        {"Link_OverLink",
         [](Env& e) {
             e.put(e.in("target.txt"), kNew);
             e.link(e.in("link"), "Old/target");
         },
         [](Env& e) { return Rec("CREATELINK", "link", e.in("link"), X, mNew(), "target.txt"); }, 0,
         [](Env&) { return std::vector<std::string>{Success("CREATELINK")}; },
         [](Env& e) { EXPECT_TRUE(IsLinkTo(e.in("link"), "target.txt")); },
         [](Env& e) {
             return std::vector<Entry>{
                 {"CREATELINK", "link", e.in("link"), "Old/target", mNew(), X}};
         },
         Replay::Restores});
    cases.push_back(
        {"Link_WithoutTarget", NoCheck,
         [](Env& e) { return Rec("CREATELINK", X, e.in("link"), X, X, X); }, 1,
         [](Env&) {
             return std::vector<std::string>{"Failed to create the symlink", Failed("CREATELINK")};
         },
         [](Env& e) { EXPECT_FALSE(FileExists(e.in("link"))); },
         [](Env& e) {
             return std::vector<Entry>{{"REMOVE", X, e.in("link"), X, X, X}};
         },
         Replay::Restores});

    // ---- TOUCH
    cases.push_back(
        {"Touch_Existing",
         [](Env& e) {
             e.put(e.in("a.txt"), kOld);
             SetOldMtime(e.in("a.txt"));
         },
         [](Env& e) { return Rec("TOUCH", "a.txt", e.in("a.txt"), X, X); }, 0,
         [](Env&) { return std::vector<std::string>{Success("TOUCH")}; },
         [](Env& e) { EXPECT_GT(MtimeOf(e.in("a.txt")).tv_sec, 1000000000); },
         [](Env& e) {
             return std::vector<Entry>{{"OVERWRITE", "a.txt", e.in("a.txt"), X, X, mOld()}};
         },
         Replay::Restores});
    cases.push_back({"Touch_Missing", NoCheck,
                     [](Env& e) { return Rec("TOUCH", "a.txt", e.in("a.txt"), X, X); }, 1,
                     [](Env&) { return std::vector<std::string>{Failed("TOUCH")}; }, NoCheck,
                     NoJournal, Replay::Restores});
    cases.push_back(
        {"TouchFlag_MissingDestinationFails", NoCheck,
         [](Env& e) {
             auto info = Rec("REMOVE", "a.txt", e.in("a.txt"), X, X);
             info.Touch = "TRUE";
             return info;
         },
         1, [](Env&) { return std::vector<std::string>{"Failed to perform touch file Operation"}; },
         NoCheck, NoJournal, Replay::Restores});

    // ---- CHANGEPERM, IGNORE and unknown keywords: attributes only
    cases.push_back(
        {"ChangePerm_SetsModeWhichReplayRestores", [](Env& e) { e.put(e.in("a.txt"), kOld, 0755); },
         [](Env& e) {
             auto info = Rec("CHANGEPERM", "a.txt", e.in("a.txt"), X, X);
             info.Permission = "644";
             return info;
         },
         0,
         [](Env&) {
             return std::vector<std::string>{"TBD", "Old Permission: 755", "Old UserID: root",
                                             "Old GroupID: root"};
         },
         [](Env& e) { EXPECT_EQ(ModeOf(e.in("a.txt")), 0644u); }, AttributesEntry, Replay::Custom,
         [](Env& e, int32_t replayed) {
             EXPECT_EQ(replayed, 0);
             EXPECT_EQ(ModeOf(e.in("a.txt")), 0755u);
         }});
    cases.push_back({"ChangePerm_ZeroLeavesMode", [](Env& e) { e.put(e.in("a.txt"), kOld, 0755); },
                     [](Env& e) {
                         auto info = Rec("CHANGEPERM", "a.txt", e.in("a.txt"), X, X);
                         info.Permission = "0";
                         return info;
                     },
                     0, [](Env&) { return std::vector<std::string>{"TBD"}; },
                     [](Env& e) { EXPECT_EQ(ModeOf(e.in("a.txt")), 0755u); }, AttributesEntry,
                     Replay::Restores});
    cases.push_back({"ChangePerm_OwnerAndGroupByName", [](Env& e) { e.put(e.in("a.txt"), kOld); },
                     [](Env& e) {
                         auto info = Rec("CHANGEPERM", "a.txt", e.in("a.txt"), X, X);
                         info.UserID = "nobody";
                         info.GroupID = "nogroup";
                         return info;
                     },
                     0, [](Env&) { return std::vector<std::string>{"TBD"}; },
                     [](Env& e) {
                         struct stat info {};
                         ASSERT_EQ(::stat(e.in("a.txt").c_str(), &info), 0);
                         EXPECT_EQ(info.st_uid, 65534u);
                         EXPECT_EQ(info.st_gid, 65534u);
                     },
                     AttributesEntry, Replay::Custom,
                     [](Env& e, int32_t replayed) {
                         EXPECT_EQ(replayed, 0);
                         struct stat info {};
                         ASSERT_EQ(::stat(e.in("a.txt").c_str(), &info), 0);
                         EXPECT_EQ(info.st_uid, ::geteuid());
                         EXPECT_EQ(info.st_gid, ::getegid());
                     }});
    cases.push_back(
        {"ChangePerm_UnknownAccountIsLoggedNotFatal", [](Env& e) { e.put(e.in("a.txt"), kOld); },
         [](Env& e) {
             auto info = Rec("CHANGEPERM", "a.txt", e.in("a.txt"), X, X);
             info.UserID = "no-such-account-here";
             return info;
         },
         0,
         [](Env& e) {
             return std::vector<std::string>{"Failed to set owner \"no-such-account-here\" on \"" +
                                             e.in("a.txt") + "\""};
         },
         NoCheck, AttributesEntry, Replay::Restores});
    cases.push_back({"Ignore_DoesNothing", [](Env& e) { e.put(e.in("a.txt"), kOld); },
                     [](Env& e) { return Rec("IGNORE", "a.txt", e.in("a.txt"), X, X); }, 0,
                     [](Env&) { return std::vector<std::string>{"TBD"}; },
                     [](Env& e) { EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOld); }, NoJournal,
                     Replay::Restores});
    cases.push_back(
        {"UnknownKeyword_OnlyAttributes", [](Env& e) { e.put(e.in("a.txt"), kOld, 0644); },
         [](Env& e) {
             auto info = Rec("FROBNICATE", "a.txt", e.in("a.txt"), X, X);
             info.Permission = "600";
             return info;
         },
         0, [](Env&) { return std::vector<std::string>{"Old Permission: 644"}; },
         [](Env& e) { EXPECT_EQ(ModeOf(e.in("a.txt")), 0600u); }, AttributesEntry, Replay::NotRun});
    return cases;
}

class CmdInterfaceTest : public ::testing::Test {
protected:
    void SetUp() override { SetENVverbosityLevel("debug"); }
};

std::string WithoutBackupNumber(const std::string& name) {
    const size_t dash = name.find('-');
    return dash == std::string::npos ? name : name.substr(dash + 1);
}

bool HasLine(const std::vector<std::string>& lines, const std::string& line) {
    for (const auto& l : lines) {
        if (l == line)
            return true;
    }
    return false;
}

TEST_F(CmdInterfaceTest, EveryKeywordAndBranchWithItsJournalAndReplay) {
    for (const auto& c : FileCases()) {
        SCOPED_TRACE(c.name);
        Env env;
        c.setup(env);
        const auto before = env.tree();
        int32_t result = -1;
        std::vector<std::string> lines;
        {
            LogCapture log;
            CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
            const FileOperationInfo info = c.record(env);
            result = cmd.performFileUpdationWithInfo(info);
            lines = log.lines();
        }
        EXPECT_EQ(result, c.result);
        for (const auto& expected : c.logs(env))
            EXPECT_TRUE(HasLine(lines, expected)) << "missing log line: " << expected;
        c.check(env);

        // The journal: exactly the expected file entries, no directory entries.
        const auto expected = c.journal(env);
        if (expected.empty()) {
            EXPECT_FALSE(FileExists(env.journal()));
        } else {
            const auto journal = ParseJournal(env.journal(), XmlParseMode::Strict);
            ASSERT_TRUE(journal.parsed);
            ASSERT_EQ(journal.files.size(), expected.size());
            EXPECT_TRUE(journal.directories.empty());
            for (size_t i = 0; i < expected.size(); ++i) {
                const auto& got = journal.files[i];
                EXPECT_EQ(got.Operation, expected[i].Operation);
                // Each entry's backup has a name of its own: a number, "-", the file's name.
                EXPECT_EQ(WithoutBackupNumber(got.ObjectName),
                          LastPathComponent(expected[i].ObjectName == X
                                                ? expected[i].DestinationPath
                                                : expected[i].ObjectName));
                EXPECT_EQ(got.DestinationPath, expected[i].DestinationPath);
                EXPECT_EQ(got.RenamePath, expected[i].RenamePath);
                EXPECT_EQ(got.BeforePatch, expected[i].BeforePatch);
                EXPECT_EQ(got.AfterPatch, expected[i].AfterPatch);
                // The replay puts back the owner, group and mode a file had before.
                if (got.Permission != X) {
                    EXPECT_EQ(got.UserID, std::to_string(::geteuid()));
                    EXPECT_NE(got.Permission.find_first_of("01234567"), std::string::npos);
                }
            }
        }

        if (c.replay == Replay::NotRun)
            continue;
        const auto forward = env.tree();
        int32_t replayed = 0;
        {
            LogCapture log;
            replayed =
                FileExists(env.journal()) ? ReplayJournal(env.journal(), env.backup, env.tools) : 0;
        }
        switch (c.replay) {
        case Replay::Restores:
            EXPECT_EQ(replayed, 0);
            EXPECT_EQ(env.tree(), before);
            break;
        case Replay::KeepsForward:
            EXPECT_EQ(replayed, 0);
            EXPECT_EQ(env.tree(), forward);
            EXPECT_NE(env.tree(), before);
            break;
        case Replay::Fails:
            EXPECT_EQ(replayed, 1);
            break;
        case Replay::Custom:
            c.replayCheck(env, replayed);
            break;
        case Replay::NotRun:
            break;
        }
    }
}

// ---- Directories

struct DirectoryCase {
    std::string name;
    std::function<void(Env&)> setup;
    std::string operation;
    std::string folder; // below the resource folder
    int32_t result;
    std::vector<std::string> logs; // "%F" stands for the folder's full path
    std::function<void(Env&)> check;
    std::optional<std::string> journaled; // the directory entry's Operation
    Replay replay;
    std::function<void(Env&)> replayCheck = nullptr;
};

std::string Expand(std::string text, const std::string& folder) {
    const size_t at = text.find("%F");
    if (at != std::string::npos)
        text.replace(at, 2, folder);
    return text;
}

TEST_F(CmdInterfaceTest, DirectoryOperationsWithTheirJournalAndReplay) {
    const std::vector<DirectoryCase> cases = {
        {"Add_New",
         NoCheck,
         "ADD",
         "NewDir",
         0,
         {"Successfully performed \"ADD\" directory Operation"},
         [](Env& e) { EXPECT_TRUE(FileExists(e.in("NewDir"))); },
         "REMOVE",
         Replay::Restores},
        {"Add_WithIntermediatesRemovesThemOnReplay",
         NoCheck,
         "ADD",
         "One/Two",
         0,
         {},
         [](Env& e) { EXPECT_TRUE(FileExists(e.in("One/Two"))); },
         "REMOVE",
         Replay::Custom,
         [](Env& e) {
             // The intermediate folder the ADD created is undone as well.
             EXPECT_FALSE(FileExists(e.in("One/Two")));
             EXPECT_FALSE(FileExists(e.in("One")));
         }},
        {"Add_ExistingIsTheOldTreesAndNotJournaled",
         [](Env& e) { e.put(e.in("Dir/file"), "x"); },
         "ADD",
         "Dir",
         0,
         {},
         NoCheck,
         std::nullopt,
         Replay::Restores},
        {"Add_UnderAFileFails",
         [](Env& e) { e.put(e.in("Blocker"), "x"); },
         "ADD",
         "Blocker/Dir",
         1,
         {"Failed to create directory: %F", "Failed to perform \"ADD\" directory Operation"},
         NoCheck,
         "REMOVE",
         Replay::Restores},
        {"Remove_Empty",
         [](Env& e) { ASSERT_TRUE(FileManager().createDirectoryAtPath(e.in("Empty"))); },
         "REMOVE",
         "Empty",
         0,
         {"Remove Directory \"%F\".", "Removing Directory \"%F\".",
          "Successfully performed \"REMOVE\" directory Operation"},
         [](Env& e) { EXPECT_FALSE(FileExists(e.in("Empty"))); },
         "ADD",
         Replay::Restores},
        {"Remove_Missing",
         NoCheck,
         "REMOVE",
         "Missing",
         0,
         {"Minor Error. Directory \"%F\" to be deleted does not exist"},
         NoCheck,
         std::nullopt,
         Replay::Restores},
        {"Remove_NotEmpty",
         [](Env& e) { e.put(e.in("Full/file"), "x"); },
         "REMOVE",
         "Full",
         0,
         {"Directory \"%F\" is not empty."},
         [](Env& e) { EXPECT_TRUE(FileExists(e.in("Full/file"))); },
         "ADD",
         Replay::Restores},
        {"Remove_FileInsteadOfFolder",
         [](Env& e) { e.put(e.in("File"), "x"); },
         "REMOVE",
         "File",
         0,
         {"Minor Error. Directory base is actually pointing to a file."},
         [](Env& e) { EXPECT_FALSE(FileExists(e.in("File"))); },
         "ADD",
         Replay::Custom,
         [](Env& e) {
             // The replay puts a folder where the file was.
             struct stat info {};
             ASSERT_EQ(::stat(e.in("File").c_str(), &info), 0);
             EXPECT_TRUE(S_ISDIR(info.st_mode));
         }},
        {"UnknownKeyword",
         NoCheck,
         "FROB",
         "Whatever",
         0,
         {"Successfully performed \"FROB\" directory Operation"},
         NoCheck,
         RollBackHandler::kNoInverseOperation,
         Replay::Restores},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Env env;
        c.setup(env);
        const auto before = env.tree();
        const std::string folder = env.in(c.folder);
        int32_t result = -1;
        std::vector<std::string> lines;
        {
            LogCapture log;
            CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
            DirectoryOperationInfo info;
            info.Operation = c.operation;
            info.DirectoryBase = folder;
            result = cmd.performDirectoryUpdationWithInfo(info);
            lines = log.lines();
        }
        EXPECT_EQ(result, c.result);
        for (const auto& expected : c.logs)
            EXPECT_TRUE(HasLine(lines, Expand(expected, folder))) << Expand(expected, folder);
        c.check(env);
        if (c.journaled) {
            const auto journal = ParseJournal(env.journal(), XmlParseMode::Strict);
            ASSERT_TRUE(journal.parsed);
            // An ADD journals one entry per folder it creates, the outermost first (the
            // replay runs them last first).
            ASSERT_GE(journal.directories.size(), 1u);
            EXPECT_TRUE(journal.files.empty());
            EXPECT_EQ(journal.directories.back().Operation, *c.journaled);
            EXPECT_EQ(journal.directories.back().DirectoryBase, folder);
            for (size_t i = 1; i < journal.directories.size(); ++i)
                EXPECT_EQ(ParentPath(journal.directories[i].DirectoryBase),
                          journal.directories[i - 1].DirectoryBase);
        } else {
            EXPECT_FALSE(FileExists(env.journal()));
        }
        int32_t replayed = 0;
        {
            LogCapture log;
            if (FileExists(env.journal()))
                replayed = ReplayJournal(env.journal(), env.backup, env.tools);
        }
        EXPECT_EQ(replayed, 0);
        if (c.replay == Replay::Restores)
            EXPECT_EQ(env.tree(), before);
        else if (c.replayCheck)
            c.replayCheck(env);
    }
}

// ---- Cleanup of empty folders

TEST_F(CmdInterfaceTest, CleanupOfEmptyFolders) {
    struct Case {
        std::string name;
        std::vector<std::string> files; // created below the temporary root
        std::vector<std::string> folders;
        std::string start;
        bool onlyInBundle;
        bool protectRoot; // the temporary root counts as a protected folder
        std::vector<std::string> gone;
        std::vector<std::string> kept;
    };
    const std::vector<Case> cases = {
        {"DSStoreOnlyFolderInBundleIsRemoved",
         {"A.app/Contents/Resources/Keep", "A.app/Contents/Resources/Sub/.DS_Store"},
         {},
         "A.app/Contents/Resources/Sub",
         true,
         false,
         {"A.app/Contents/Resources/Sub"},
         {"A.app/Contents/Resources/Keep"}},
        {"DSStoreBesideAnotherFileIsKept",
         {"A.app/Contents/Resources/Sub/.DS_Store", "A.app/Contents/Resources/Sub/other"},
         {},
         "A.app/Contents/Resources/Sub",
         true,
         false,
         {},
         {"A.app/Contents/Resources/Sub/.DS_Store", "A.app/Contents/Resources/Sub/other"}},
        {"WholeBundleGoesWhenEmptied",
         {},
         {"A.app/Contents/Resources"},
         "A.app/Contents/Resources",
         true,
         false,
         {"A.app"},
         {}},
        {"LprojIsInsideTheBundle",
         {"A.app/Contents/Keep"},
         {"A.app/Contents/Resources/en.lproj"},
         "A.app/Contents/Resources/en.lproj",
         true,
         false,
         {"A.app/Contents/Resources"},
         {"A.app/Contents/Keep"}},
        {"FolderOutsideAnyBundleIsKept",
         {},
         {"Plain/Sub"},
         "Plain/Sub",
         true,
         false,
         {},
         {"Plain/Sub"}},
        {"FolderUnderProtectedFolderIsKept", {}, {"Top"}, "Top", true, true, {}, {"Top"}},
        {"WithoutBundleRuleUpToTheProtectedFolder",
         {},
         {"Top/Middle/Leaf"},
         "Top/Middle/Leaf",
         false,
         true,
         {"Top"},
         {}},
        {"OtherContentStopsTheWalk",
         {"A.app/Contents/Resources/Sub/file"},
         {},
         "A.app/Contents/Resources/Sub",
         true,
         false,
         {},
         {"A.app/Contents/Resources/Sub/file"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir temp;
        for (const auto& f : c.files) {
            ASSERT_TRUE(FileManager().createDirectoryAtPath(ParentPath(temp.file(f))));
            WriteTextFile(temp.file(f), "x");
        }
        for (const auto& d : c.folders)
            ASSERT_TRUE(FileManager().createDirectoryAtPath(temp.file(d)));
        CmdInterface::Options options;
        options.isRepairMode = false;
        if (c.protectRoot)
            options.protectedFolders.push_back(temp.path());
        LogCapture log;
        FileManager().cleanupEmptyParentDir(temp.file(c.start), true, c.onlyInBundle,
                                            options.protectedFolders);
        for (const auto& g : c.gone)
            EXPECT_FALSE(FileExists(temp.file(g))) << g;
        for (const auto& k : c.kept)
            EXPECT_TRUE(FileExists(temp.file(k))) << k;
        EXPECT_TRUE(FileExists(temp.path()));
    }
}

TEST_F(CmdInterfaceTest, CleanupLogsTheFoldersThatGoAndLeavesALinkedFolder) {
    TempDir temp;
    const std::string resources = temp.file("A.app/Contents/Resources");
    ASSERT_TRUE(FileManager().createDirectoryAtPath(JoinPath(resources, "Real")));
    ASSERT_TRUE(FileManager().createDirectoryAtPath(JoinPath(resources, "Empty")));
    WriteTextFile(JoinPath(resources, "Keep"), "x");
    ASSERT_EQ(::symlink("Real", JoinPath(resources, "Link").c_str()), 0);

    LogCapture log;
    // A link is not a folder to remove, and what it points to is not its to remove.
    FileManager().cleanupEmptyParentDir(JoinPath(resources, "Link"), true, true, {});
    EXPECT_TRUE(PathExistsNoFollow(JoinPath(resources, "Link")));
    EXPECT_TRUE(FolderExists(JoinPath(resources, "Real")));
    // An empty folder goes, and the walk stops at the first folder with something in it.
    FileManager().cleanupEmptyParentDir(JoinPath(resources, "Empty"), true, true, {});
    EXPECT_FALSE(PathExistsNoFollow(JoinPath(resources, "Empty")));
    EXPECT_TRUE(FolderExists(resources));

    const std::string text = log.text();
    EXPECT_NE(text.find("Also removing empty Directory \"" + JoinPath(resources, "Empty") + "\"."),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("Also removing empty Directory \"" + resources + "\""), std::string::npos)
        << text;
    EXPECT_EQ(text.find("Link"), std::string::npos) << text;
    EXPECT_EQ(text.find("Minor Error"), std::string::npos) << text;
}

TEST_F(CmdInterfaceTest, PermissionTextIsReadAsOctalDigits) {
    const std::vector<std::pair<std::string, mode_t>> cases = {
        {"755", 0755},    {"644", 0644},    {"0644", 0644},  {"600", 0600},     {"0", 0600},
        {"x1y2z3", 0600}, {"X1Y2Z3", 0600}, {"4755", 04755}, {"garbage", 0600},
    };
    for (const auto& [text, mode] : cases) {
        SCOPED_TRACE(text);
        TempDir temp;
        WriteTextFile(temp.file("f"), "x");
        ::chmod(temp.file("f").c_str(), 0600);
        FileOperationInfo info;
        info.DestinationPath = temp.file("f");
        info.Permission = text;
        LogCapture log;
        EXPECT_EQ(CmdInterface("", "", std::nullopt).setAttributeForFile(info), 0);
        EXPECT_EQ(ModeOf(temp.file("f")), mode);
    }
}

TEST_F(CmdInterfaceTest, PathHelpers) {
    EXPECT_EQ(JoinPath("/a/b", "c"), "/a/b/c");
    EXPECT_EQ(JoinPath("/a/b/", "/c"), "/a/b/c");
    EXPECT_EQ(JoinPath("/a/b", ""), "/a/b");
    EXPECT_EQ(JoinPath("/", "c"), "/c");
    EXPECT_EQ(ParentPath("/a/b/c"), "/a/b");
    EXPECT_EQ(ParentPath("/a"), "/");
    EXPECT_EQ(LastPathComponent("/a/b/c.txt"), "c.txt");
    EXPECT_EQ(LastPathComponent("/a/b/"), "b");
}

TEST_F(CmdInterfaceTest, UndoEnvironmentTakesBackupsAsSourcesAndJournalsNothing) {
    Env env;
    LogCapture log;
    CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
    EXPECT_TRUE(cmd.writesUndo());
    cmd.setUndoEnvironment();
    EXPECT_FALSE(cmd.writesUndo());
    EXPECT_EQ(cmd.payloadDir(), env.backup);
    env.put(env.backup + "/a.txt", kNew);
    EXPECT_EQ(cmd.performFileUpdationWithInfo(Rec("ADD", "a.txt", env.in("a.txt"), X, mNew())), 0);
    EXPECT_EQ(ReadTextFile(env.in("a.txt")), kNew);
    EXPECT_FALSE(FileExists(env.journal()));
    EXPECT_TRUE(log.contains("init CmdInterface"));
}

TEST_F(CmdInterfaceTest, RepairModeComesFromOptions) {
    CmdInterface::Options options;
    options.isRepairMode = true;
    LogCapture log;
    CmdInterface repair("/nonexistent", "/nonexistent", std::nullopt, options);
    EXPECT_TRUE(repair.isRepairMode());
    // Without a patch-history handler the run is no repair.
    CmdInterface plain("/nonexistent", "/nonexistent", std::nullopt);
    EXPECT_FALSE(plain.isRepairMode());
}

// ---- Whole runs: a forward run of many entries, and its rollback after a kill at every step

struct Scenario {
    std::vector<FileOperationInfo> files;
    std::vector<DirectoryOperationInfo> directories;
};

// Builds an installed tree and the payload of a patch that touches it in every way.
Scenario MakeScenario(Env& e) {
    e.put(e.in("keep/overwrite.txt"), kOld);
    e.put(e.in("remove.txt"), kOld);
    e.put(e.in("Gone/Deep/remove2.txt"), kOld);
    e.put(e.in("program"), kOld, 0755);
    e.put(e.in("rename-me.txt"), kOld);
    e.put(e.in("target-a.txt"), kOld);
    e.link(e.in("Current"), "target-a.txt");
    e.link(e.in("remove-link"), "../Contents");
    e.put(e.in("blind.txt"), kOther);
    EXPECT_TRUE(FileManager().createDirectoryAtPath(e.in("EmptyDir")));
    e.putPayload("overwrite.txt", kNew);
    e.putPayload("added.txt", kNew);
    e.putPayload("blind.txt", kNew);
    e.putPatch("program.patch", kOld, kNew);
    e.put(e.in("target-b.txt"), kNew);

    Scenario s;
    s.files.push_back(
        Rec("OVERWRITE", "overwrite.txt", e.in("keep/overwrite.txt"), mOld(), mNew()));
    s.files.push_back(Rec("ADD", "added.txt", e.in("New/Folder/added.txt"), X, mNew()));
    s.files.push_back(Rec("REMOVE", "remove.txt", e.in("remove.txt"), X, X));
    s.files.push_back(Rec("REMOVE", "remove2.txt", e.in("Gone/Deep/remove2.txt"), X, X));
    s.files.push_back(Rec("PATCH", "program.patch", e.in("program"), mOld(), mNew()));
    s.files.push_back(Rec("RENAME", "rename-me.txt", e.in("rename-me.txt"), X, mOld(),
                          e.in("Moved/renamed.txt")));
    s.files.push_back(Rec("CREATELINK", "Current", e.in("Current"), X, mNew(), "target-b.txt"));
    s.files.push_back(Rec("REMOVELINK", "remove-link", e.in("remove-link"), X, X));
    s.files.push_back(Rec("BLINDOVERWRITE", "blind.txt", e.in("blind.txt"), X, mNew()));
    s.files.push_back(Rec("CREATELINK", X, e.in("NewLink"), X, X, "program"));
    DirectoryOperationInfo addDir;
    addDir.Operation = "ADD";
    addDir.DirectoryBase = e.in("AddedDir");
    DirectoryOperationInfo removeDir;
    removeDir.Operation = "REMOVE";
    removeDir.DirectoryBase = e.in("EmptyDir");
    s.directories = {addDir, removeDir};
    return s;
}

TEST_F(CmdInterfaceTest, ForwardRunThenReplayRestoresTheTreeExactly) {
    Env env;
    const Scenario s = MakeScenario(env);
    const auto before = env.tree();
    {
        LogCapture log;
        CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
        for (const auto& f : s.files)
            ASSERT_EQ(cmd.performFileUpdationWithInfo(f), 0)
                << f.Operation << " " << f.DestinationPath;
        for (const auto& d : s.directories)
            ASSERT_EQ(cmd.performDirectoryUpdationWithInfo(d), 0);
    }
    EXPECT_EQ(ReadTextFile(env.in("program")), kNew);
    EXPECT_TRUE(IsLinkTo(env.in("Current"), "target-b.txt"));
    EXPECT_NE(env.tree(), before);
    {
        LogCapture log;
        EXPECT_EQ(ReplayJournal(env.journal(), env.backup, env.tools), 0) << log.text();
    }
    EXPECT_EQ(env.tree(), before);
    EXPECT_EQ(ModeOf(env.in("program")), 0755u);
    // A second replay finds everything in place already.
    {
        LogCapture log;
        EXPECT_EQ(ReplayJournal(env.journal(), env.backup, env.tools), 0);
    }
    EXPECT_EQ(env.tree(), before);
}

// The run is killed after each of its steps in turn; what it left on disk (journal and
// backups) must always bring the old tree back.
TEST_F(CmdInterfaceTest, KilledAfterAnyStepTheJournalOnDiskRestoresTheTree) {
    size_t steps = 0;
    {
        Env probe;
        const Scenario s = MakeScenario(probe);
        steps = s.files.size() + s.directories.size();
    }
    for (size_t killAfter = 0; killAfter <= steps; ++killAfter) {
        SCOPED_TRACE(killAfter);
        Env env;
        const Scenario s = MakeScenario(env);
        const auto before = env.tree();
        LogCapture log;
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
            size_t done = 0;
            for (const auto& f : s.files) {
                if (done++ == killAfter)
                    ::raise(SIGKILL);
                if (cmd.performFileUpdationWithInfo(f) != 0)
                    ::_exit(3);
            }
            for (const auto& d : s.directories) {
                if (done++ == killAfter)
                    ::raise(SIGKILL);
                if (cmd.performDirectoryUpdationWithInfo(d) != 0)
                    ::_exit(3);
            }
            ::raise(SIGKILL);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status));
        if (killAfter == 0) {
            EXPECT_FALSE(FileExists(env.journal()));
        } else {
            ASSERT_TRUE(ParseJournal(env.journal(), XmlParseMode::Strict).parsed);
            EXPECT_EQ(ReplayJournal(env.journal(), env.backup, env.tools), 0);
        }
        EXPECT_EQ(env.tree(), before);
    }
}

// ---- Bad input: a full disk, unreadable files

// Runs body in a child whose files may not grow beyond limit bytes; its exit status.
int InChildWithFileSizeLimit(rlim_t limit, const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit rl{limit, limit};
        ::setrlimit(RLIMIT_FSIZE, &rl);
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(CmdInterfaceTest, FullDiskFailsTheCopyWithoutLeavingAPartialFile) {
    Env env;
    env.putPayload("big.bin", std::string(1 << 20, 'b'));
    const std::string bigChecksum = MD5cksum::getMD5cksumOfFile(env.payload + "/big.bin").value();
    env.put(env.in("old.bin"), kOld);
    LogCapture log;
    const int status = InChildWithFileSizeLimit(64 * 1024, [&] {
        CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
        const int32_t add = cmd.performFileUpdationWithInfo(
            Rec("ADD", "big.bin", env.in("big.bin"), X, bigChecksum));
        const int32_t overwrite = cmd.performFileUpdationWithInfo(
            Rec("OVERWRITE", "big.bin", env.in("old.bin"), mOld(), bigChecksum));
        return add == 1 && overwrite == 1 ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(FileExists(env.in("big.bin")));
    // The new copy never took the old file's place, and nothing is left beside it.
    EXPECT_EQ(ReadTextFile(env.in("old.bin")), kOld);
    EXPECT_FALSE(FileExists(FileManager::TemporaryPathFor(env.in("old.bin"))));
    EXPECT_FALSE(FileExists(FileManager::TemporaryPathFor(env.in("big.bin"))));
    EXPECT_TRUE(log.contains("File copy operation failed."));
    EXPECT_TRUE(log.contains(Failed("ADD")));
    EXPECT_EQ(ReplayJournal(env.journal(), env.backup, env.tools), 0);
    EXPECT_EQ(ReadTextFile(env.in("old.bin")), kOld);
}

TEST_F(CmdInterfaceTest, ACopyKnowsTheChecksumOfBothEnds) {
    Env env;
    const std::string source = env.payload + "/source.bin";
    const std::string copy = env.payload + "/copy.bin";
    env.putPayload("source.bin", std::string(3 * 1024 * 1024 + 5, 's') + kNew);
    const std::string expected = MD5cksum::getMD5cksumOfFile(source).value();
    ASSERT_TRUE(FileManager().copyItem(source, copy, false, true));
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(copy), expected);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(source), expected);
    // A copy that is then changed is read again.
    WriteTextFile(copy, kOther);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(copy), mOther());
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(source), expected);
}

// An old and a new version of a file of several megabytes, the new one changed a little.
std::pair<std::string, std::string> LargeVersions() {
    const std::string old = RandomText(3 * 1024 * 1024 + 17, 5);
    std::string changed = old;
    for (size_t i = 100; i < changed.size(); i += 70000)
        changed[i] = static_cast<char>(changed[i] + 1);
    changed.insert(1000000, "inserted");
    return {old, changed};
}

TEST_F(CmdInterfaceTest, ALargeFileIsPatchedAndItsJournalRestoresIt) {
    Env env;
    const auto [old, changed] = LargeVersions();
    env.putPatch("big.patch", old, changed);
    env.put(env.in("big.bin"), old);
    {
        LogCapture log;
        CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
        EXPECT_EQ(cmd.performFileUpdationWithInfo(Rec("PATCH", "big.patch", env.in("big.bin"),
                                                      Md5OfBytes(old), Md5OfBytes(changed))),
                  0)
            << log.text();
        EXPECT_TRUE(
            log.contains("Checksum of file : " + FileManager::TemporaryPathFor(env.in("big.bin")) +
                         " is : " + Md5OfBytes(changed)));
    }
    EXPECT_EQ(ReadTextFile(env.in("big.bin")), changed);
    EXPECT_FALSE(FileExists(FileManager::TemporaryPathFor(env.in("big.bin"))));
    EXPECT_EQ(ReplayJournal(env.journal(), env.backup, env.tools), 0);
    EXPECT_EQ(ReadTextFile(env.in("big.bin")), old);
}

TEST_F(CmdInterfaceTest, ALargePatchThatCannotBeWrittenLeavesTheFileAlone) {
    Env env;
    const auto [old, changed] = LargeVersions();
    env.putPatch("big.patch", old, changed);
    env.put(env.in("big.bin"), old);
    LogCapture log;
    const int status = InChildWithFileSizeLimit(1024 * 1024, [&] {
        CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
        return cmd.performFileUpdationWithInfo(
            Rec("PATCH", "big.patch", env.in("big.bin"), Md5OfBytes(old), Md5OfBytes(changed)));
    });
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(log.contains(env.tools +
                             "/bspatch: the new file cannot be written: " + std::strerror(EFBIG)))
        << log.text();
    EXPECT_TRUE(log.contains("Unable to apply patch."));
    EXPECT_EQ(ReadTextFile(env.in("big.bin")), old);
    EXPECT_FALSE(FileExists(FileManager::TemporaryPathFor(env.in("big.bin"))));
}

TEST_F(CmdInterfaceTest, UnreadableFilesFailTheirChecksum) {
    Env env;
    ::chmod(env.root.c_str(), 0755);
    env.putPayload("a.txt", kNew);
    env.put(env.in("locked.txt"), kOld, 0000);
    ::chown(env.backup.c_str(), 65534, 65534);
    ::chown(env.res.c_str(), 65534, 65534);
    LogCapture log;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(2);
        CmdInterface cmd(env.payload, env.tools, env.backup, env.options());
        const int32_t result = cmd.performFileUpdationWithInfo(
            Rec("OVERWRITE", "a.txt", env.in("locked.txt"), mOld(), mNew()));
        ::_exit(result == 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // The file cannot be kept, so the entry fails before anything changes.
    EXPECT_TRUE(log.contains("File copy operation failed.")) << log.text();
    EXPECT_TRUE(log.contains(Failed("OVERWRITE")));
    EXPECT_EQ(ReadTextFile(env.in("locked.txt")), kOld);
}

} // namespace

// ---- Grouped changes: prepared entries wait for one sync, then are made in order

namespace {

long IndexOf(const std::vector<std::string>& calls,
             const std::function<bool(const std::string&)>& match) {
    const auto found = std::find_if(calls.begin(), calls.end(), match);
    return found == calls.end() ? -1 : static_cast<long>(found - calls.begin());
}

bool StartsWith(const std::string& text, const std::string& start) {
    return text.rfind(start, 0) == 0;
}

} // namespace

TEST_F(CmdInterfaceTest, WhatAnInterruptedChangeLeftBesideTheFileGoesAndTheEntryIsMade) {
    for (const bool grouped : {false, true}) {
        SCOPED_TRACE(grouped ? "grouped" : "one by one");
        Env e;
        const Scenario s = MakeScenario(e);
        // A partial new file beside the overwritten one, and a link beside the added one
        // that leads to a file outside, as a crash or someone else may have left them.
        e.put(e.in("keep/.orvel-new.overwrite.txt"), "partial");
        e.put(e.root + "/outside.txt", kOther);
        e.put(e.in("Here/stays.txt"), kOld);
        e.link(e.in("Here/.orvel-new.added.txt"), e.root + "/outside.txt");
        FileOperationInfo add = s.files[1];
        add.DestinationPath = e.in("Here/added.txt");
        LogCapture log;
        CmdInterface cmd(e.payload, e.tools, e.backup, e.options());
        cmd.setGroupedChanges(grouped);

        ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[0]), 0); // OVERWRITE keep/overwrite.txt
        ASSERT_EQ(cmd.performFileUpdationWithInfo(add), 0);
        ASSERT_EQ(cmd.finishGroup(), 0);

        EXPECT_EQ(ReadTextFile(e.in("keep/overwrite.txt")), kNew);
        EXPECT_EQ(ReadTextFile(e.in("Here/added.txt")), kNew);
        EXPECT_FALSE(PathExistsNoFollow(e.in("keep/.orvel-new.overwrite.txt")));
        EXPECT_FALSE(PathExistsNoFollow(e.in("Here/.orvel-new.added.txt")));
        EXPECT_EQ(ReadTextFile(e.root + "/outside.txt"), kOther);
        EXPECT_TRUE(log.contains("Removed \"" + e.in("keep/.orvel-new.overwrite.txt") +
                                 "\", left by an interrupted change."));
        EXPECT_TRUE(log.contains("Removed \"" + e.in("Here/.orvel-new.added.txt") +
                                 "\", left by an interrupted change."));
    }
}

TEST_F(CmdInterfaceTest, GroupedEntriesWaitForOneSyncThenAreMadeInOrder) {
    Env e;
    const Scenario s = MakeScenario(e);
    const auto before = e.tree();
    FaultInjectingFileSystem recording; // fails nothing
    CmdInterface::Options options = e.options();
    options.fileSystem = &recording;
    LogCapture log;
    CmdInterface cmd(e.payload, e.tools, e.backup, options);
    cmd.setGroupedChanges(true);

    // An overwrite, a removal and a patch, each of one file in a folder that exists: all
    // three are prepared, none is made.
    ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[0]), 0); // OVERWRITE keep/overwrite.txt
    ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[2]), 0); // REMOVE remove.txt
    ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[4]), 0); // PATCH program
    EXPECT_EQ(cmd.waitingChanges(), 3u);
    EXPECT_EQ(ReadTextFile(e.in("keep/overwrite.txt")), kOld);
    EXPECT_EQ(ReadTextFile(e.in("remove.txt")), kOld);
    EXPECT_EQ(ReadTextFile(e.in("program")), kOld);
    EXPECT_EQ(ReadTextFile(e.in("keep/.orvel-new.overwrite.txt")), kNew);
    EXPECT_EQ(ReadTextFile(e.in(".orvel-new.program")), kNew);
    EXPECT_FALSE(log.contains("Successfully performed"));

    // An addition into folders that do not exist yet runs on its own: the group is made
    // first.
    ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[1]), 0); // ADD New/Folder/added.txt
    EXPECT_EQ(cmd.waitingChanges(), 0u);
    EXPECT_EQ(ReadTextFile(e.in("keep/overwrite.txt")), kNew);
    EXPECT_FALSE(PathExistsNoFollow(e.in("remove.txt")));
    EXPECT_EQ(ReadTextFile(e.in("program")), kNew);
    EXPECT_EQ(ModeOf(e.in("program")), 0755u);
    EXPECT_EQ(ReadTextFile(e.in("New/Folder/added.txt")), kNew);
    EXPECT_FALSE(PathExistsNoFollow(e.in("keep/.orvel-new.overwrite.txt")));

    // In the calls: the group's journal entries were written without a sync each, one sync
    // of the file system came before the first of its renames, and the changes were made
    // in the order of their entries.
    const auto calls = recording.callLog();
    const long sync =
        IndexOf(calls, [](const std::string& c) { return StartsWith(c, "sync-filesystem "); });
    const long firstRename = IndexOf(calls, [](const std::string& c) {
        return StartsWith(c, "rename ") && c.find("/.orvel-new.") != std::string::npos;
    });
    ASSERT_GE(sync, 0);
    ASSERT_GE(firstRename, 0);
    EXPECT_LT(sync, firstRename);
    const long journalSync =
        IndexOf(calls, [&](const std::string& c) { return c == "sync-file " + e.journal(); });
    EXPECT_TRUE(journalSync == -1 || journalSync > sync)
        << "the grouped entries are synced by the group's sync, not one by one";
    const long overwritten = IndexOf(calls, [&](const std::string& c) {
        return StartsWith(c, "rename ") &&
               c.find(" -> " + e.in("keep/overwrite.txt")) != std::string::npos;
    });
    const long removed =
        IndexOf(calls, [&](const std::string& c) { return c == "unlink " + e.in("remove.txt"); });
    const long patched = IndexOf(calls, [&](const std::string& c) {
        return StartsWith(c, "rename ") && c.find(" -> " + e.in("program")) != std::string::npos;
    });
    EXPECT_LT(sync, overwritten);
    EXPECT_LT(overwritten, removed);
    EXPECT_LT(removed, patched);
    const auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) {
                                return line.find("Successfully performed") != std::string::npos;
                            }),
              4);

    // The journal undoes all of it.
    EXPECT_EQ(ReplayJournal(e.journal(), e.backup, e.tools), 0) << log.text();
    EXPECT_EQ(e.tree(), before);
}

TEST_F(CmdInterfaceTest, AnEntryOnAWaitingPathMakesTheGroupFirst) {
    Env e;
    e.put(e.in("a.txt"), kOld);
    e.putPayload("a.txt", kNew);
    LogCapture log;
    CmdInterface cmd(e.payload, e.tools, e.backup, e.options());
    cmd.setGroupedChanges(true);
    ASSERT_EQ(
        cmd.performFileUpdationWithInfo(Rec("OVERWRITE", "a.txt", e.in("a.txt"), mOld(), mNew())),
        0);
    EXPECT_EQ(cmd.waitingChanges(), 1u);
    EXPECT_EQ(ReadTextFile(e.in("a.txt")), kOld);
    // The removal of the same file must see it replaced: the overwrite is made first, then
    // the removal waits in a group of its own.
    ASSERT_EQ(cmd.performFileUpdationWithInfo(Rec("REMOVE", "a.txt", e.in("a.txt"), X, X)), 0);
    EXPECT_EQ(cmd.waitingChanges(), 1u);
    EXPECT_EQ(ReadTextFile(e.in("a.txt")), kNew);
    ASSERT_EQ(cmd.finishGroup(), 0);
    EXPECT_FALSE(PathExistsNoFollow(e.in("a.txt")));
    // Something inside a waiting path counts too.
    e.put(e.in("Folder/b.txt"), kOld);
    ASSERT_EQ(cmd.performFileUpdationWithInfo(Rec("REMOVE", "Folder", e.in("Folder"), X, X)), 0);
    EXPECT_EQ(cmd.waitingChanges(), 1u);
    ASSERT_EQ(cmd.performFileUpdationWithInfo(Rec("REMOVE", "b.txt", e.in("Folder/b.txt"), X, X)),
              0);
    EXPECT_FALSE(PathExistsNoFollow(e.in("Folder")));
    EXPECT_EQ(cmd.waitingChanges(), 0u);
}

TEST_F(CmdInterfaceTest, ADroppedGroupChangesNothingAndLeavesNoNewContent) {
    Env e;
    const Scenario s = MakeScenario(e);
    const auto before = e.tree();
    LogCapture log;
    {
        CmdInterface cmd(e.payload, e.tools, e.backup, e.options());
        cmd.setGroupedChanges(true);
        ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[0]), 0);
        ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[2]), 0);
        ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[4]), 0);
        ASSERT_EQ(cmd.waitingChanges(), 3u);
        cmd.dropGroup();
        EXPECT_EQ(cmd.waitingChanges(), 0u);
        EXPECT_EQ(cmd.finishGroup(), 0); // nothing left to make
    }
    EXPECT_TRUE(log.contains("3 prepared changes not made"));
    EXPECT_FALSE(log.contains("Successfully performed"));
    // Only the journal and the backups were written; the replay finds nothing to undo.
    EXPECT_EQ(e.tree(), before);
    EXPECT_EQ(ReplayJournal(e.journal(), e.backup, e.tools), 0) << log.text();
    EXPECT_EQ(e.tree(), before);
}

TEST_F(CmdInterfaceTest, AGroupWhoseSyncFailsIsDroppedAndFailsItsEntry) {
    Env e;
    const Scenario s = MakeScenario(e);
    const auto before = e.tree();
    // Count the calls of a group of two and its finish, then fail the sync.
    uint64_t syncCall = 0;
    {
        Env probe;
        const Scenario p = MakeScenario(probe);
        FaultInjectingFileSystem counting;
        CmdInterface::Options options = probe.options();
        options.fileSystem = &counting;
        LogCapture log;
        CmdInterface cmd(probe.payload, probe.tools, probe.backup, options);
        cmd.setGroupedChanges(true);
        ASSERT_EQ(cmd.performFileUpdationWithInfo(p.files[0]), 0);
        ASSERT_EQ(cmd.performFileUpdationWithInfo(p.files[2]), 0);
        const auto calls = counting.callLog();
        ASSERT_EQ(cmd.finishGroup(), 0);
        const auto after = counting.callLog();
        syncCall = static_cast<uint64_t>(calls.size()) + 1;
        ASSERT_TRUE(StartsWith(after.at(calls.size()), "sync-filesystem "))
            << after.at(calls.size());
    }
    FaultInjectingFileSystem faulty;
    CmdInterface::Options options = e.options();
    options.fileSystem = &faulty;
    LogCapture log;
    CmdInterface cmd(e.payload, e.tools, e.backup, options);
    cmd.setGroupedChanges(true);
    faulty.failCall(syncCall, EIO);
    ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[0]), 0);
    ASSERT_EQ(cmd.performFileUpdationWithInfo(s.files[2]), 0);
    EXPECT_EQ(cmd.finishGroup(), 1);
    EXPECT_TRUE(faulty.failed());
    EXPECT_TRUE(log.contains("Cannot sync the changes to the disk: Input/output error"));
    EXPECT_TRUE(log.contains("2 prepared changes not made"));
    EXPECT_EQ(e.tree(), before);
}
