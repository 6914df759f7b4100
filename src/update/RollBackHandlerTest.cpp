#include "update/RollBackHandler.h"
#include "base/Path.h"
#include "system/FileSystem.h"
#include "update/FileManager.h"

#include "CmdInterfaceTestSupport.h"
#include "TestSupport.h"
#include "base/Xml.h"
#include "runtime/Environment.h"
#include "runtime/MainLoop.h"
#include "update/CmdInterface.h"
#include "update/ProcessManifest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace fileops_test;

namespace {

const std::string X = kAbsentMarker;

class RollBackHandlerTest : public ::testing::Test {
protected:
    void SetUp() override { SetENVverbosityLevel("debug"); }
    TempDir _dir;
    std::string journal() const { return _dir.file(RollBackHandler::kJournalName); }
};

std::string Text(const XmlNode& entry, const std::string& expression) {
    const auto nodes = entry.select(expression);
    return nodes.size() == 1 ? nodes.front().stringValue() : std::string("<none>");
}
std::string Attr(const XmlNode& entry, const std::string& expression, const std::string& name) {
    const auto nodes = entry.select(expression);
    return nodes.size() == 1 ? nodes.front().attribute(name).value_or("<none>") : "<none>";
}

enum class Backup { None, File, Link };

struct InverseCase {
    std::string forward;
    Backup backup;
    bool rename;                          // the forward entry has a rename path
    std::optional<std::string> journaled; // nothing: no entry
    bool swapped = true;
    bool pathsExchanged = false;
};

TEST_F(RollBackHandlerTest, InverseKeywordTable) {
    const std::string kUnknown = RollBackHandler::kNoInverseOperation;
    const std::vector<InverseCase> cases = {
        {"ADD", Backup::None, false, "REMOVE"},
        {"ADD", Backup::File, false, std::nullopt},
        {"add", Backup::None, false, "REMOVE"},
        {"REMOVE", Backup::File, false, "ADD"},
        {"REMOVE", Backup::None, false, std::nullopt},
        {"REMOVE", Backup::Link, false, "CREATELINK"},
        {"OVERWRITE", Backup::File, false, "OVERWRITE"},
        // A missing destination is added by an overwrite: the undo removes it.
        {"OVERWRITE", Backup::None, false, "REMOVE"},
        {"BLINDOVERWRITE", Backup::File, false, "OVERWRITE"},
        {"BLINDOVERWRITE", Backup::None, false, "REMOVE"},
        {"PATCH", Backup::File, false, "OVERWRITE"},
        {"PATCH", Backup::None, false, std::nullopt},
        {"TOUCH", Backup::File, false, "OVERWRITE"},
        {"TOUCH", Backup::None, false, std::nullopt},
        {"RENAME", Backup::File, true, "RENAME", false, true},
        {"RENAME", Backup::None, true, std::nullopt},
        {"CHANGEPERM", Backup::File, false, "CHANGEPERM", false},
        {"CHANGEPERM", Backup::None, false, std::nullopt},
        {"CREATELINK", Backup::File, true, "OVERWRITE"},
        {"CREATELINK", Backup::None, true, "REMOVE"},
        {"CREATELINK", Backup::Link, true, "CREATELINK"},
        {"IGNORE", Backup::None, false, "IGNORE"},
        {"IGNORE", Backup::File, false, "IGNORE"},
        {"REMOVELINK", Backup::Link, false, "CREATELINK"},
        {"REMOVELINK", Backup::None, false, kUnknown},
        {"SOMETHING", Backup::None, false, kUnknown},
    };
    const std::string backupText = "the installed file\n";
    const std::string backupChecksum = Md5OfBytes(backupText);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.forward + " backup " + std::to_string(static_cast<int>(c.backup)));
        TempDir dir;
        const std::string backup = dir.file("obj");
        if (c.backup == Backup::File) {
            WriteTextFile(backup, backupText);
            ::chmod(backup.c_str(), 0640);
            ::chown(backup.c_str(), 65534, 65534);
        } else if (c.backup == Backup::Link) {
            ASSERT_EQ(::symlink("../link/target", backup.c_str()), 0);
        }
        FileOperationInfo forward;
        forward.Operation = c.forward;
        forward.ObjectName = "obj";
        forward.DestinationPath = "/opt/App.app/dest";
        forward.RenamePath = c.rename ? "/opt/App.app/renamed" : X;
        forward.BeforePatch = "before";
        forward.AfterPatch = "after";
        forward.UserID = "alice";
        forward.GroupID = "staff";
        forward.Permission = "755";

        LogCapture log;
        RollBackHandler handler(dir.path(), RealFileSystem::instance());
        EXPECT_TRUE(handler.addUndoFileCommand(forward));
        const std::string path = dir.file(RollBackHandler::kJournalName);
        if (!c.journaled) {
            EXPECT_FALSE(FileExists(path));
            if (!EqualsIgnoringCase(c.forward, "ADD")) {
                EXPECT_TRUE(log.contains("No rollback written as file does not exist."));
            }
            continue;
        }
        const auto parsed = XmlDocument::parseFile(path, XmlParseMode::Strict);
        ASSERT_TRUE(parsed.document);
        const auto files = XmlDocument::root(parsed.document).select("/Manifest/FileSet/File");
        ASSERT_EQ(files.size(), 1u);
        const XmlNode& entry = files[0];
        EXPECT_EQ(Text(entry, "./Operation"), *c.journaled);
        EXPECT_EQ(Text(entry, "./ObjectName"), "obj");
        EXPECT_EQ(Attr(entry, "./DestinationPath", "defName"), "");
        EXPECT_EQ(Attr(entry, "./RenamePath", "defName"), "");
        if (c.backup == Backup::Link) {
            EXPECT_EQ(Attr(entry, "./DestinationPath", "dir"), "/opt/App.app/dest");
            EXPECT_EQ(Attr(entry, "./RenamePath", "dir"), "../link/target");
        } else if (c.pathsExchanged) {
            EXPECT_EQ(Attr(entry, "./DestinationPath", "dir"), "/opt/App.app/renamed");
            EXPECT_EQ(Attr(entry, "./RenamePath", "dir"), "/opt/App.app/dest");
        } else {
            EXPECT_EQ(Attr(entry, "./DestinationPath", "dir"), "/opt/App.app/dest");
            EXPECT_EQ(Attr(entry, "./RenamePath", "dir"), forward.RenamePath);
        }
        const bool fileBackup = c.backup == Backup::File;
        if (c.swapped) {
            EXPECT_EQ(Text(entry, "./Checksum/BeforePatch"), "after");
            EXPECT_EQ(Text(entry, "./Checksum/AfterPatch"), fileBackup ? backupChecksum : "before");
        } else {
            EXPECT_EQ(Text(entry, "./Checksum/BeforePatch"), "before");
            EXPECT_EQ(Text(entry, "./Checksum/AfterPatch"), "after");
        }
        EXPECT_EQ(Text(entry, "./Permissions/UserID"), fileBackup ? "65534" : "alice");
        EXPECT_EQ(Text(entry, "./Permissions/GroupID"), fileBackup ? "65534" : "staff");
        EXPECT_EQ(Text(entry, "./Permissions/Permission"), fileBackup ? "640" : "755");
        // The replay reads owner, group and mode under "mac": the file's own, from its
        // backup, so that they are put back.
        if (fileBackup) {
            EXPECT_EQ(Text(entry, "./Permissions/mac/UserID"), "65534");
            EXPECT_EQ(Text(entry, "./Permissions/mac/GroupID"), "65534");
            EXPECT_EQ(Text(entry, "./Permissions/mac/Permission"), "640");
        } else {
            EXPECT_TRUE(entry.select("./Permissions/mac").empty());
        }
    }
}

TEST_F(RollBackHandlerTest, DirectoryEntries) {
    struct Case {
        std::string forward;
        bool folderExists;
        std::optional<std::string> journaled;
    };
    const std::vector<Case> cases = {
        {"ADD", false, "REMOVE"},        {"ADD", true, "REMOVE"},
        {"REMOVE", true, "ADD"},         {"remove", true, "ADD"},
        {"REMOVE", false, std::nullopt}, {"OTHER", false, RollBackHandler::kNoInverseOperation},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.forward);
        TempDir dir;
        const std::string folder = dir.file("Folder");
        if (c.folderExists) {
            ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
        }
        RollBackHandler handler(dir.path(), RealFileSystem::instance());
        DirectoryOperationInfo info;
        info.Operation = c.forward;
        info.DirectoryBase = folder;
        EXPECT_TRUE(handler.addUndoDirectoryCommand(info));
        const auto journal =
            ParseJournal(dir.file(RollBackHandler::kJournalName), XmlParseMode::Strict);
        if (!c.journaled) {
            EXPECT_FALSE(journal.parsed);
            continue;
        }
        ASSERT_TRUE(journal.parsed);
        ASSERT_EQ(journal.directories.size(), 1u);
        EXPECT_EQ(journal.directories[0].Operation, *c.journaled);
        EXPECT_EQ(journal.directories[0].DirectoryBase, folder);
        EXPECT_TRUE(journal.files.empty());
    }
}

// Appending by position must give the very bytes the pretty printer would write for the
// whole document, in every order of file and directory entries.
TEST_F(RollBackHandlerTest, FileIsTheWellFormedPrettyPrintedManifestAfterEveryEntry) {
    const std::vector<std::string> orders = {"",     "F",    "D",     "FFF",  "DDD",
                                             "FFDD", "DDFF", "FDFDF", "DFDFD"};
    for (const auto& order : orders) {
        SCOPED_TRACE(order);
        TempDir dir;
        RollBackHandler handler(dir.path(), RealFileSystem::instance());
        const std::string path = dir.file(RollBackHandler::kJournalName);
        EXPECT_FALSE(FileExists(path)); // nothing before the first entry
        std::vector<std::string> fileDestinations, directoryBases;
        for (size_t i = 0; i < order.size(); ++i) {
            if (order[i] == 'F') {
                FileOperationInfo info;
                info.Operation = "ADD";
                info.ObjectName = "o" + std::to_string(i);
                info.DestinationPath = "/opt/A & B <\"quoted\">/\tÜnïcode\r\n " + std::to_string(i);
                info.AfterPatch = "after" + std::to_string(i);
                ASSERT_TRUE(handler.addUndoFileCommand(info));
                fileDestinations.push_back(info.DestinationPath);
            } else {
                DirectoryOperationInfo info;
                info.Operation = "ADD";
                info.DirectoryBase = "/opt/dir & <\"\t\r\n" + std::to_string(i) + ">";
                ASSERT_TRUE(handler.addUndoDirectoryCommand(info));
                directoryBases.push_back(info.DirectoryBase);
            }
            const auto parsed = XmlDocument::parseFile(path, XmlParseMode::Strict);
            ASSERT_TRUE(parsed.document) << ReadTextFile(path);
            EXPECT_EQ(ReadTextFile(path), XmlDocument::toXmlString(parsed.document));
            const auto children = XmlDocument::root(parsed.document).childElements();
            ASSERT_EQ(children.size(), 2u);
            EXPECT_EQ(children[0].name(), "FileSet");
            EXPECT_EQ(children[1].name(), "DirectorySet");
        }
        if (order.empty())
            continue;
        const auto journal = ParseJournal(path, XmlParseMode::Strict);
        ASSERT_EQ(journal.files.size(), fileDestinations.size());
        for (size_t i = 0; i < fileDestinations.size(); ++i)
            EXPECT_EQ(journal.files[i].DestinationPath, fileDestinations[i]);
        ASSERT_EQ(journal.directories.size(), directoryBases.size());
        for (size_t i = 0; i < directoryBases.size(); ++i)
            EXPECT_EQ(journal.directories[i].DirectoryBase, directoryBases[i]);
    }
}

TEST_F(RollBackHandlerTest, EntryTextLayout) {
    FileOperationInfo entry;
    entry.Operation = "REMOVE";
    entry.ObjectName = "a.txt";
    entry.DestinationPath = "/opt/a.txt";
    entry.BeforePatch = "b";
    entry.AfterPatch = "a";
    EXPECT_EQ(RollBackHandler::fileEntryText(entry),
              "    <File>\n"
              "      <Operation>REMOVE</Operation>\n"
              "      <ObjectName>a.txt</ObjectName>\n"
              "      <DestinationPath defName=\"\" dir=\"/opt/a.txt\"/>\n"
              "      <Checksum>\n"
              "        <BeforePatch>b</BeforePatch>\n"
              "        <AfterPatch>a</AfterPatch>\n"
              "      </Checksum>\n"
              "      <RenamePath defName=\"\" dir=\"x1y2z3\"/>\n"
              "      <Permissions>\n"
              "        <UserID>x1y2z3</UserID>\n"
              "        <GroupID>x1y2z3</GroupID>\n"
              "        <Permission>x1y2z3</Permission>\n"
              "      </Permissions>\n"
              "    </File>\n");
}

TEST_F(RollBackHandlerTest, FirstEntryReplacesAnOlderJournal) {
    WriteTextFile(journal(), "<Manifest><FileSet><File><Operation>REMOVE</Operation></File>"
                             "</FileSet></Manifest>");
    RollBackHandler handler(_dir.path(), RealFileSystem::instance());
    DirectoryOperationInfo info;
    info.Operation = "ADD";
    info.DirectoryBase = "/opt/x";
    ASSERT_TRUE(handler.addUndoDirectoryCommand(info));
    const auto parsed = ParseJournal(journal(), XmlParseMode::Strict);
    EXPECT_TRUE(parsed.files.empty());
    EXPECT_EQ(parsed.directories.size(), 1u);
}

TEST_F(RollBackHandlerTest, BackupCopies) {
    struct Case {
        std::string name;
        std::string objectName;
        std::function<std::string(TempDir&)> setup; // returns the destination
        int32_t result;
        std::optional<std::string> backupContent; // "L:<target>" for a link
        bool copyFailedLogged = false;
    };
    const std::vector<Case> cases = {
        {"Missing", "m", [](TempDir& t) { return t.file("app/missing"); }, 0, std::nullopt},
        {"Folder", "f",
         [](TempDir& t) {
             EXPECT_TRUE(FileManager().createDirectoryAtPath(t.file("app/folder")));
             return t.file("app/folder");
         },
         0, std::nullopt},
        {"File", "file.txt",
         [](TempDir& t) {
             EXPECT_TRUE(FileManager().createDirectoryAtPath(t.file("app")));
             WriteTextFile(t.file("app/file.txt"), "installed\n");
             return t.file("app/file.txt");
         },
         0, "installed\n"},
        {"FileIntoSubfolderName", "Contents/Info.plist",
         [](TempDir& t) {
             EXPECT_TRUE(FileManager().createDirectoryAtPath(t.file("app")));
             WriteTextFile(t.file("app/Info.plist"), "plist\n");
             return t.file("app/Info.plist");
         },
         0, "plist\n"},
        {"LinkKeptAsLink", "link",
         [](TempDir& t) {
             EXPECT_TRUE(FileManager().createDirectoryAtPath(t.file("app")));
             EXPECT_EQ(::symlink("Versions/A", t.file("app/link").c_str()), 0);
             return t.file("app/link");
         },
         0, "L:Versions/A"},
        {"OlderBackupIsKept", "file.txt",
         [](TempDir& t) {
             EXPECT_TRUE(FileManager().createDirectoryAtPath(t.file("app")));
             WriteTextFile(t.file("app/file.txt"), "second state\n");
             WriteTextFile(t.file("backup/file.txt"), "first state\n");
             return t.file("app/file.txt");
         },
         1, "first state\n", true},
        {"OlderBackupOfALinkIsKept", "link",
         [](TempDir& t) {
             EXPECT_TRUE(FileManager().createDirectoryAtPath(t.file("app")));
             EXPECT_EQ(::symlink("Versions/B", t.file("app/link").c_str()), 0);
             EXPECT_EQ(::symlink("Versions/A", t.file("backup/link").c_str()), 0);
             return t.file("app/link");
         },
         1, "L:Versions/A", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir temp;
        ASSERT_TRUE(FileManager().createDirectoryAtPath(temp.file("backup")));
        FileOperationInfo info;
        info.Operation = "OVERWRITE";
        info.ObjectName = c.objectName;
        info.DestinationPath = c.setup(temp);
        LogCapture log;
        RollBackHandler handler(temp.file("backup"), RealFileSystem::instance());
        EXPECT_EQ(handler.backupFileOperation(info), c.result);
        const std::string backup = temp.file("backup/" + c.objectName);
        if (!c.backupContent) {
            EXPECT_EQ(Snapshot(temp.file("backup")).size(), 0u);
        } else if (c.backupContent->rfind("L:", 0) == 0) {
            char buffer[256];
            const ssize_t n = ::readlink(backup.c_str(), buffer, sizeof buffer);
            ASSERT_GT(n, 0);
            EXPECT_EQ("L:" + std::string(buffer, static_cast<size_t>(n)), *c.backupContent);
        } else {
            EXPECT_EQ(ReadTextFile(backup), *c.backupContent);
        }
        if (c.result == 0 && c.backupContent) {
            EXPECT_TRUE(log.contains("Creating backup: Copying \"" + info.DestinationPath +
                                     "\" to \"" + backup + "\" "));
        }
        EXPECT_EQ(log.contains("File copy operation failed."), c.copyFailedLogged);
        if (c.name.rfind("Older", 0) == 0) {
            EXPECT_TRUE(log.contains("Cannot keep \"" + info.DestinationPath + "\": the backup \"" +
                                     backup + "\" exists already"));
        }
    }
}

FileOperationInfo AddEntry(size_t i) {
    FileOperationInfo info;
    info.Operation = "ADD";
    info.ObjectName = "object-" + std::to_string(i);
    info.DestinationPath = "/opt/Orvel/App.app/Contents/Resources/file-" + std::to_string(i);
    info.AfterPatch = "0123456789abcdef0123456789abcdef";
    return info;
}

// Every File entry of a journal, as the replay reads it, has all six children, in order: no
// entry is half there. A journal written to the end must be whole as it stands.
void ExpectWholeEntries(const std::string& path, size_t& count, bool tornTailAllowed = false) {
    const std::string text = ReadTextFile(path);
    const auto read = RollBackHandler::readWholeEntries(text);
    ASSERT_TRUE(read.document) << "the journal does not begin as one";
    if (!tornTailAllowed) {
        ASSERT_FALSE(read.torn) << "the journal is not whole";
    }
    const auto parsed = XmlDocument::parseMemory(*read.document, XmlParseMode::Strict);
    ASSERT_TRUE(parsed.document && parsed.errors.empty()) << "the journal is not well-formed";
    const auto files = XmlDocument::root(parsed.document).select("/Manifest/FileSet/File");
    for (size_t i = 0; i < files.size(); ++i) {
        const auto children = files[i].childElements();
        ASSERT_EQ(children.size(), 6u);
        EXPECT_EQ(Attr(files[i], "./DestinationPath", "dir"), AddEntry(i).DestinationPath);
    }
    count = files.size();
}

TEST_F(RollBackHandlerTest, FullDiskKeepsTheJournalWholeWithEveryWrittenEntry) {
    LogCapture log;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{16 * 1024, 16 * 1024};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        RollBackHandler handler(_dir.path(), RealFileSystem::instance());
        size_t written = 0;
        while (written < 200 && handler.addUndoFileCommand(AddEntry(written)))
            ++written;
        // One more failure after the first must not damage the file either.
        (void)handler.addUndoFileCommand(AddEntry(written));
        ::_exit(static_cast<int>(written));
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    const size_t written = static_cast<size_t>(WEXITSTATUS(status));
    EXPECT_GT(written, 5u);
    EXPECT_LT(written, 200u);
    size_t count = 0;
    ExpectWholeEntries(journal(), count);
    EXPECT_EQ(count, written);
    EXPECT_LE(ReadTextFile(journal()).size(), 16u * 1024u);
    EXPECT_NE(log.text().find("Failed to write the rollback journal \"" + journal() + "\": "),
              std::string::npos);
}

TEST_F(RollBackHandlerTest, KilledWhileWritingLeavesEveryCompletedEntry) {
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        TempDir dir;
        int pipeFds[2];
        ASSERT_EQ(::pipe(pipeFds), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(pipeFds[0]);
            RollBackHandler handler(dir.path(), RealFileSystem::instance());
            for (size_t i = 0;; ++i) {
                if (!handler.addUndoFileCommand(AddEntry(i)))
                    ::_exit(1);
                if (i == 20)
                    (void)!::write(pipeFds[1], "x", 1); // under way
            }
        }
        ::close(pipeFds[1]);
        char c = 0;
        ASSERT_EQ(::read(pipeFds[0], &c, 1), 1);
        ::close(pipeFds[0]);
        std::this_thread::sleep_for(std::chrono::milliseconds(10 + 17 * round));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status));
        // A kill between two pages of a write may leave a torn tail: the reader cuts it off.
        size_t count = 0;
        ExpectWholeEntries(dir.file(RollBackHandler::kJournalName), count, true);
        EXPECT_GT(count, 20u);
    }
}

// A write of the last entry that reached the disk only in part (cut at any byte, the rest
// stale, zeros or missing) is read back as every entry before it, and as that entry too
// once its closing tag is there.
TEST_F(RollBackHandlerTest, ATornLastWriteIsReadBackAsEveryWholeEntryBeforeIt) {
    for (const char kind : {'F', 'D'}) {
        SCOPED_TRACE(kind);
        TempDir dir;
        RollBackHandler handler(dir.path(), RealFileSystem::instance());
        const std::string path = dir.file(RollBackHandler::kJournalName);
        DirectoryOperationInfo folder;
        folder.Operation = "ADD";
        auto add = [&](char what, size_t i) {
            if (what == 'F') {
                ASSERT_TRUE(handler.addUndoFileCommand(AddEntry(i)));
            } else {
                folder.DirectoryBase = "/opt/Orvel/App.app/Contents/Folder" + std::to_string(i);
                ASSERT_TRUE(handler.addUndoDirectoryCommand(folder));
            }
        };
        // As a forward run writes them: file entries, then folder entries.
        const std::string beforeOrder = kind == 'F' ? "FF" : "FFDD";
        for (size_t i = 0; i < beforeOrder.size(); ++i)
            add(beforeOrder[i], i);
        const std::string before = ReadTextFile(path);
        add(kind, beforeOrder.size());
        const std::string after = ReadTextFile(path);
        size_t offset = 0;
        while (offset < before.size() && before[offset] == after[offset])
            ++offset;
        offset = after.rfind('\n', offset - 1) + 1; // the write began at a line's start
        const std::string close = kind == 'F' ? "    </File>\n" : "    </Directory>\n";
        const size_t entryEnd = after.find(close, offset) + close.size();
        const size_t wholeBefore = kind == 'F' ? 2 : 2 + 2;

        for (size_t k = 0; k <= after.size() - offset; ++k) {
            const std::string written = after.substr(0, offset + k);
            std::vector<std::string> torn = {
                written, written + std::string(after.size() - written.size(), '\0')};
            if (before.size() > written.size())
                torn.push_back(written + before.substr(written.size()));
            for (const std::string& text : torn) {
                SCOPED_TRACE("written up to " + std::to_string(offset + k) + " of " +
                             std::to_string(after.size()) + ", " + std::to_string(text.size()) +
                             " bytes in the file");
                const auto read = RollBackHandler::readWholeEntries(text);
                ASSERT_TRUE(read.document);
                EXPECT_EQ(read.torn, text != before && text != after);
                EXPECT_EQ(read.fileEntries + read.directoryEntries,
                          wholeBefore + (offset + k >= entryEnd ? 1 : 0));
                if (!read.torn) {
                    EXPECT_EQ(*read.document, text);
                    continue;
                }
                // What was read is a whole journal of its own, and its entries are the first
                // ones written.
                const size_t lastWholeEnd = offset + k >= entryEnd ? entryEnd : offset;
                EXPECT_LE(read.cutBytes, text.size() - lastWholeEnd);
                const auto again = RollBackHandler::readWholeEntries(*read.document);
                EXPECT_FALSE(again.torn);
                const auto parsed = XmlDocument::parseMemory(*read.document, XmlParseMode::Strict);
                ASSERT_TRUE(parsed.document && parsed.errors.empty());
                const XmlNode root = XmlDocument::root(parsed.document);
                const auto files = root.select("/Manifest/FileSet/File");
                for (size_t i = 0; i < files.size(); ++i)
                    EXPECT_EQ(Attr(files[i], "./DestinationPath", "dir"),
                              AddEntry(i).DestinationPath);
                EXPECT_EQ(files.size() + root.select("/Manifest/DirectorySet/Directory").size(),
                          read.fileEntries + read.directoryEntries);
            }
        }
    }
}

// A power cut may leave zeros over an entry's end with a later entry's closing line intact
// behind them: the zeros end the reading there, though the XML reader would stop at the
// first zero without an error.
TEST_F(RollBackHandlerTest, ZerosBetweenEntriesEndTheReadingThere) {
    RollBackHandler handler(_dir.path(), RealFileSystem::instance());
    for (size_t i = 0; i < 3; ++i)
        ASSERT_TRUE(handler.addUndoFileCommand(AddEntry(i)));
    std::string text = ReadTextFile(journal());
    const std::string close = "\n    </File>\n";
    const size_t first = text.find(close);
    const size_t second = text.find(close, first + close.size());
    ASSERT_NE(second, std::string::npos);
    // From the line end behind the second entry's closing tag on, into the third entry.
    std::fill(text.begin() + static_cast<long>(second + close.size() - 1),
              text.begin() + static_cast<long>(second + close.size() + 30), '\0');
    const auto read = RollBackHandler::readWholeEntries(text);
    ASSERT_TRUE(read.document);
    EXPECT_TRUE(read.torn);
    EXPECT_EQ(read.fileEntries, 1u);
    const auto parsed = XmlDocument::parseMemory(*read.document, XmlParseMode::Strict);
    EXPECT_TRUE(parsed.document && parsed.errors.empty());
}

TEST_F(RollBackHandlerTest, TextThatDoesNotBeginAsAJournalIsNotRead) {
    for (const std::string& text :
         std::vector<std::string>{"", "<?xml version=\"1.0\"", "<Manifest><FileSet/></Manifest>",
                                  std::string(4096, '\0')}) {
        EXPECT_FALSE(RollBackHandler::readWholeEntries(text).document);
    }
}

// The replay of a journal torn in its last entry undoes every change before it and leaves
// the file of the torn entry, whose change was never made, as it is.
TEST_F(RollBackHandlerTest, AReplayOfATornJournalUndoesEveryChangeBeforeTheTornEntry) {
    const std::string app = _dir.file("App.app");
    const std::string backups = _dir.file("backup");
    ASSERT_EQ(::mkdir(app.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(backups.c_str(), 0700), 0);
    RollBackHandler handler(backups, RealFileSystem::instance());
    std::string before;
    for (int i = 0; i < 4; ++i) {
        FileOperationInfo info;
        info.Operation = "REMOVE";
        info.ObjectName = std::to_string(i) + "-file";
        info.DestinationPath = app + "/file" + std::to_string(i);
        WriteTextFile(info.DestinationPath, "content " + std::to_string(i));
        if (FileExists(backups + "/RollBack.xml"))
            before = ReadTextFile(backups + "/RollBack.xml");
        ASSERT_EQ(handler.backupFileOperation(info), 0);
        ASSERT_TRUE(handler.addUndoFileCommand(info));
        if (i < 3) {
            ASSERT_EQ(::unlink(info.DestinationPath.c_str()), 0); // made; the last one is not
        }
    }
    // The last entry reached the disk only up to the middle of its own text.
    const std::string after = ReadTextFile(backups + "/RollBack.xml");
    size_t offset = 0;
    while (before[offset] == after[offset])
        ++offset;
    WriteTextFile(backups + "/RollBack.xml", after.substr(0, offset + 100));

    LogCapture log;
    HeadlessMainLoop loop;
    ManifestRunEnvironment environment;
    environment.loop = &loop;
    EXPECT_TRUE(ProcessManifest::replayJournal(backups, app, std::move(environment)));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(ReadTextFile(app + "/file" + std::to_string(i)), "content " + std::to_string(i));
    // Cut off behind the third entry: what was written of the fourth, 102 bytes.
    EXPECT_TRUE(log.contains("The rollback journal " + backups +
                             "/RollBack.xml ends in an entry that was not written whole: 102 "
                             "bytes cut off, 3 file and 0 folder entries replayed"))
        << log.text();
    EXPECT_TRUE(log.contains("Rollback successful"));
}

TEST_F(RollBackHandlerTest, MissingBackupFolderFailsTheChange) {
    LogCapture log;
    RollBackHandler handler(_dir.file("no/such/folder"), RealFileSystem::instance());
    EXPECT_FALSE(handler.addUndoFileCommand(AddEntry(0)));
    EXPECT_NE(log.text().find("Failed to write the rollback journal"), std::string::npos);
    // A change that cannot be journaled (or its file kept) is not made.
    CmdInterface cmd(_dir.path(), _dir.path(), _dir.file("no/such/folder"));
    WriteTextFile(_dir.file("a"), "a");
    FileOperationInfo info;
    info.Operation = "REMOVE";
    info.DestinationPath = _dir.file("a");
    EXPECT_EQ(cmd.performFileUpdationWithInfo(info), 1);
    EXPECT_EQ(ReadTextFile(_dir.file("a")), "a");
}

} // namespace
