#include "update/PayloadHandler.h"

#include "TestSupport.h"
#include "runtime/Environment.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/FileManager.h"
#include "update/MD5cksum.h"
#include "update/PayloadFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

void SetTimes(const std::string& path, time_t seconds) {
    const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// Everything below root (not root itself), without following links: type, mode, size,
// modification time of files and folders, contents of files, targets of links.
std::map<std::string, std::string> Snapshot(const std::string& root,
                                            const std::string& skip = std::string()) {
    std::map<std::string, std::string> entries;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const std::string path = it->path().string();
        if (!skip.empty() && path == skip) {
            it.disable_recursion_pending();
            continue;
        }
        struct stat info {};
        EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
        std::string description = "mode " + std::to_string(info.st_mode);
        if (S_ISLNK(info.st_mode)) {
            description += " -> " + fs::read_symlink(it->path()).string();
        } else {
            description += " mtime " + std::to_string(info.st_mtim.tv_sec);
            if (S_ISREG(info.st_mode))
                description += " content " + ReadTextFile(path);
        }
        entries[it->path().lexically_relative(root).string()] = description;
    }
    return entries;
}

std::string CurrentFolder() {
    return fs::current_path().string();
}

class PayloadHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetENVverbosityLevel("debug");
        fs::create_directories(_resources);
        fs::create_directories(_stage);
        fs::create_directories(_root.file("work"));
    }

    // Runs a shell script; the test fails when it does not exit 0.
    void Shell(const std::string& script) {
        ASSERT_EQ(RunProgram({"/bin/sh", "-c", "set -e; " + script}, {"LC_ALL=C"}, {},
                             _root.file("shell-errors")),
                  0)
            << script << "\n"
            << ReadTextFile(_root.file("shell-errors"));
    }

    // Archives the names that listCommand prints in folder, with GNU cpio, into the payload.
    void MakePayload(const std::string& folder, const std::string& listCommand,
                     const std::string& format = "newc") {
        Shell("cd '" + folder + "' && " + listCommand + " | cpio -o -H " + format +
              " --quiet | gzip -9 -c > '" + _archive + "'");
    }

    // The names inside the payload, as GNU cpio lists them.
    std::string ListPayload() {
        const std::string listing = _root.file("listing");
        Shell("gzip -dc '" + _archive + "' | cpio -it --quiet > '" + listing + "'");
        return ReadTextFile(listing);
    }

    // A tree with what an update carries: nested folders, an executable, private and
    // read-only files, a read-only folder, an empty file, names with blanks, hard and
    // symbolic links. Times are set to fixed past dates so that their restoring shows.
    void MakeSampleTree() {
        const std::string s = _stage;
        WriteTextFile(s + "/App.app/Contents/Info.plist", "<plist>1.0</plist>\n");
        WriteTextFile(s + "/App.app/Contents/MacOS/tool", RandomText(200000, 5));
        ::chmod((s + "/App.app/Contents/MacOS/tool").c_str(), 0755);
        fs::create_directories(s + "/App.app/Contents/Resources");
        ASSERT_EQ(::symlink("../MacOS/tool", (s + "/App.app/Contents/Resources/current").c_str()),
                  0);
        WriteTextFile(s + "/empty", "");
        WriteTextFile(s + "/private", "only mine\n");
        ::chmod((s + "/private").c_str(), 0600);
        WriteTextFile(s + "/dir with space/file name with space.txt", "spaced\n");
        WriteTextFile(s + "/readonly/inner.txt", "read only\n");
        ::chmod((s + "/readonly/inner.txt").c_str(), 0444);
        WriteTextFile(s + "/hard1", "hard linked\n");
        ASSERT_EQ(::link((s + "/hard1").c_str(), (s + "/hard2").c_str()), 0);
        time_t when = 981158400; // 2001-02-03
        std::vector<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(s))
            paths.push_back(entry.path().string());
        // Deepest first, so setting a folder's time is not undone by its contents.
        std::sort(paths.rbegin(), paths.rend());
        for (const auto& path : paths)
            SetTimes(path, when += 3600);
        ::chmod((s + "/readonly").c_str(), 0555);
    }

    std::vector<std::string> FailureLines(const LogCapture& log) {
        std::vector<std::string> lines;
        for (const auto& line : log.lines()) {
            if (line.rfind("Failed to extract \"" + _archive + "\": ", 0) == 0)
                lines.push_back(line);
        }
        return lines;
    }

    TempDir _root;
    const std::string _resources = _root.file("Resources");
    const std::string _archive = _resources + "/Payload.cpio.gz";
    const std::string _stage = _root.file("stage");
    const std::string _payload = _root.file("work/payload");
};

TEST_F(PayloadHandlerTest, ExtractsArchivesOfEveryCpioFormatOfGnuCpio) {
    MakeSampleTree();
    const auto expected = Snapshot(_stage);
    ASSERT_EQ(expected.size(), 15u);
    for (const std::string format : {"newc", "odc", "bin", "crc"}) {
        SCOPED_TRACE(format);
        MakePayload(_stage, "find .", format);
        const std::string before = CurrentFolder();
        EXPECT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance()), 0);
        EXPECT_EQ(CurrentFolder(), before);
        EXPECT_EQ(Snapshot(_payload), expected);
        ASSERT_EQ(PayloadHandler::cleanupDir(_payload, RealFileSystem::instance()), 0);
    }
}

// The files that entries only copy are held in memory, with their checksums, modes and
// times, and a copy of one is the file it would have been on disk; the rest is unpacked.
TEST_F(PayloadHandlerTest, FilesNamedToBeHeldStayInMemoryAndCopyAsFromDisk) {
    MakeSampleTree();
    MakePayload(_stage, "find .");
    const std::string tool = "App.app/Contents/MacOS/tool";
    const std::unordered_set<std::string> held = {"private", "empty", "hard1", tool, "missing"};
    FaultInjectingFileSystem counting;
    ASSERT_EQ(PayloadHandler::extractFile(_resources, _payload, counting, PayloadLimits(), &held),
              0);
    auto unpacked = Snapshot(_stage);
    // hard2 is a hard link to hard1 in the archive: hard1 is written out for it after all.
    for (const std::string name : {"private", "empty", tool.c_str()})
        EXPECT_EQ(unpacked.erase(name), 1u) << name;
    EXPECT_EQ(Snapshot(_payload), unpacked);
    for (const std::string name : {"private", "empty", tool.c_str()}) {
        SCOPED_TRACE(name);
        const std::string path = _payload + "/" + name;
        EXPECT_FALSE(fs::exists(fs::symlink_status(path)));
        const auto file = PayloadFiles::find(path);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->checksum, *MD5cksum::getMD5cksumOfFile(_stage + "/" + name));
        // Copied, it is the file the archive carries: bytes, mode and modification time.
        const std::string copy = _root.file("copy-" + std::to_string(file->size));
        LogCapture quiet;
        ASSERT_TRUE(FileManager(counting).copyItem(path, copy, true, true));
        EXPECT_EQ(ReadTextFile(copy), ReadTextFile(_stage + "/" + name));
        struct stat original {
        }, copied{};
        ASSERT_EQ(::stat((_stage + "/" + name).c_str(), &original), 0);
        ASSERT_EQ(::stat(copy.c_str(), &copied), 0);
        EXPECT_EQ(copied.st_mode, original.st_mode);
        EXPECT_EQ(copied.st_mtim.tv_sec, original.st_mtim.tv_sec);
        // Its checksum is known without reading it.
        EXPECT_EQ(MD5cksum::rememberedChecksumOfFile(copy, copied), file->checksum);
    }
    EXPECT_FALSE(PayloadFiles::find(_payload + "/hard1"));
    EXPECT_EQ(ReadTextFile(_payload + "/hard1"), "hard linked\n");
    // Cleaning up lets go of them.
    ASSERT_EQ(PayloadHandler::cleanupDir(_payload, RealFileSystem::instance()), 0);
    EXPECT_FALSE(PayloadFiles::find(_payload + "/private"));
    EXPECT_EQ(PayloadFiles::heldBytes(), 0u);
}

TEST_F(PayloadHandlerTest, HeldFilesAreKeptInTheUnpackedArchiveRatherThanCopied) {
    MakeSampleTree();
    MakePayload(_stage, "find .");
    const std::string tool = "App.app/Contents/MacOS/tool";
    const std::unordered_set<std::string> held = {"private", tool};
    ASSERT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance(),
                                          PayloadLimits(), &held),
              0);
    const auto first = PayloadFiles::find(_payload + "/private");
    const auto second = PayloadFiles::find(_payload + "/" + tool);
    ASSERT_TRUE(first && second);
    // One memory, the archive inflated whole, owns both.
    EXPECT_FALSE(first->bytes.owner_before(second->bytes) ||
                 second->bytes.owner_before(first->bytes));
    EXPECT_NE(first->bytes.get(), second->bytes.get());
    for (const auto& [file, name] : {std::pair{first, std::string("private")}, {second, tool}}) {
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(file->bytes.get()), file->size),
                  ReadTextFile(_stage + "/" + name))
            << name;
    }
    ASSERT_EQ(PayloadHandler::cleanupDir(_payload, RealFileSystem::instance()), 0);
    EXPECT_EQ(PayloadFiles::heldBytes(), 0u);
}

TEST_F(PayloadHandlerTest, APayloadInflatedAheadIsUnpackedFromThatMemory) {
    MakeSampleTree();
    MakePayload(_stage, "find .");
    PayloadHandler::InflateAhead ahead(_resources);
    const std::unordered_set<std::string> held = {"private"};
    ASSERT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance(),
                                          PayloadLimits(), &held, {}, &ahead),
              0);
    EXPECT_TRUE(ahead.used());
    auto expected = Snapshot(_stage);
    expected.erase("private");
    EXPECT_EQ(Snapshot(_payload), expected);
    const auto kept = PayloadFiles::find(_payload + "/private");
    ASSERT_TRUE(kept);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(kept->bytes.get()), kept->size),
              "only mine\n");
    ASSERT_EQ(PayloadHandler::cleanupDir(_payload, RealFileSystem::instance()), 0);
}

TEST_F(PayloadHandlerTest, APayloadReplacedAfterItWasInflatedAheadIsInflatedAgain) {
    MakeSampleTree();
    for (const bool inPlace : {true, false}) {
        SCOPED_TRACE(inPlace ? "rewritten in place" : "a new file renamed over it");
        WriteTextFile(_stage + "/private", "only mine\n");
        MakePayload(_stage, "find .");
        PayloadHandler::InflateAhead ahead(_resources);
        // Another archive in its place before the unpacking.
        WriteTextFile(_stage + "/private", "only mine, version two\n");
        if (inPlace) {
            MakePayload(_stage, "find ."); // the shell's > truncates and writes the same file
        } else {
            Shell("cd '" + _stage + "' && find . | cpio -o -H newc --quiet | gzip -c > '" +
                  _archive + ".new' && mv '" + _archive + ".new' '" + _archive + "'");
        }
        ASSERT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance(),
                                              PayloadLimits(), nullptr, {}, &ahead),
                  0);
        EXPECT_FALSE(ahead.used());
        EXPECT_EQ(ReadTextFile(_payload + "/private"), "only mine, version two\n");
        EXPECT_EQ(Snapshot(_payload), Snapshot(_stage));
    }
}

TEST_F(PayloadHandlerTest, EachFileWrittenIsAnnouncedWholeWhileTheRestIsUnpacked) {
    MakeSampleTree();
    // The archive's order: two files first, then everything (again) in find's order.
    MakePayload(_stage, "{ echo private; echo App.app/Contents/MacOS/tool; find .; }");
    const std::unordered_set<std::string> held = {"empty"};
    std::vector<std::string> announced;
    std::map<std::string, std::string> contents;
    const auto fileUnpacked = [&](const std::string& relative) {
        announced.push_back(relative);
        contents[relative] = ReadTextFile(_payload + "/" + relative);
        // The first is announced before the entries after it are unpacked.
        if (announced.size() == 1) {
            EXPECT_FALSE(fs::exists(_payload + "/hard1"));
        }
    };
    ASSERT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance(),
                                          PayloadLimits(), &held, fileUnpacked),
              0);
    ASSERT_GE(announced.size(), 2u);
    EXPECT_EQ(announced[0], "private");
    EXPECT_EQ(announced[1], "App.app/Contents/MacOS/tool");
    // Whole when announced (but for hard links: cpio carries their data with the last name);
    // folders, symbolic links and files held in memory are not announced.
    for (const auto& [relative, content] : contents) {
        if (relative != "hard1" && relative != "hard2") {
            EXPECT_EQ(content, ReadTextFile(_stage + "/" + relative)) << relative;
        }
    }
    for (const std::string name : {"readonly/inner.txt", "hard1", "hard2",
                                   "dir with space/file name with space.txt", "private"})
        EXPECT_EQ(contents.count(name), 1u) << name;
    for (const std::string name :
         {"empty", "App.app/Contents/Resources/current", "readonly", "App.app"})
        EXPECT_EQ(contents.count(name), 0u) << name;
}

// A payload refused part way holds nothing, as it leaves nothing on disk.
TEST_F(PayloadHandlerTest, ARefusedPayloadHoldsNothing) {
    WriteTextFile(_stage + "/good", "good\n");
    ASSERT_EQ(::symlink("/etc", (_stage + "/link").c_str()), 0);
    MakePayload(_stage, "printf 'good\nlink\nlink/passwd\n'");
    const std::unordered_set<std::string> held = {"good"};
    LogCapture log;
    ASSERT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance(),
                                          PayloadLimits(), &held),
              0);
    EXPECT_EQ(FailureLines(log).size(), 1u) << log.text();
    EXPECT_FALSE(PayloadFiles::find(_payload + "/good"));
    EXPECT_EQ(PayloadFiles::heldBytes(), 0u);
}

TEST_F(PayloadHandlerTest, LogsTheSetupAndReplacesAnEarlierPayload) {
    WriteTextFile(_stage + "/new.txt", "new\n");
    MakePayload(_stage, "echo new.txt");
    WriteTextFile(_payload + "/stale.txt", "from an earlier run\n");
    WriteTextFile(_payload + "/old/deeper.txt", "from an earlier run\n");
    ::chmod((_payload + "/old").c_str(), 0500);

    LogCapture log;
    EXPECT_EQ(PayloadHandler::extractFile(_resources + "/", _payload, RealFileSystem::instance()),
              0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               ComposeHeadingLine(3, "SETUP for Update"),
                               "Extracting updater files ...",
                               ComposeHeadingLine(3, "TEARDOWN for Update"),
                               "Cleanup \"" + _payload + "\".",
                               "Done",
                           }));
    EXPECT_EQ(log.lines()[0], "....................... SETUP for Update .......................");
    EXPECT_EQ(Snapshot(_payload).size(), 1u);
    EXPECT_EQ(ReadTextFile(_payload + "/new.txt"), "new\n");
}

TEST_F(PayloadHandlerTest, NoArchiveMeansNoPayloadAndIsNoError) {
    LogCapture log;
    EXPECT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance()), 0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               ComposeHeadingLine(3, "SETUP for Update"),
                               "Extracting updater files ...",
                               "No files in the Payload.",
                               "Done",
                           }));
    EXPECT_FALSE(FileExists(_payload));

    // A folder in the archive's place is no archive either, and an existing target is left.
    fs::create_directories(_archive);
    WriteTextFile(_payload + "/kept.txt", "kept\n");
    EXPECT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance()), 0);
    EXPECT_EQ(ReadTextFile(_payload + "/kept.txt"), "kept\n");
}

TEST_F(PayloadHandlerTest, ASymbolicLinkInTheTargetsPlaceIsReplacedNotFollowed) {
    WriteTextFile(_stage + "/file.txt", "payload\n");
    MakePayload(_stage, "echo file.txt");
    WriteTextFile(_root.file("elsewhere/precious.txt"), "keep me\n");
    fs::create_directories(_root.file("work"));
    ASSERT_EQ(::symlink(_root.file("elsewhere").c_str(), _payload.c_str()), 0);

    EXPECT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance()), 0);
    EXPECT_EQ(ReadTextFile(_root.file("elsewhere/precious.txt")), "keep me\n");
    EXPECT_FALSE(fs::is_symlink(_payload));
    EXPECT_EQ(ReadTextFile(_payload + "/file.txt"), "payload\n");
}

struct HostileArchive {
    std::string name;
    // What the log's failure line says.
    std::string reason;
    // Prepares the stage and writes the archive; may leave things the check must not find.
    std::function<void()> make;
};

TEST_F(PayloadHandlerTest, HostileAndDamagedArchivesAreRefusedWhole) {
    const std::string inner = _stage + "/inner";
    const std::string outside = _root.file("outside");
    auto resetStage = [&] {
        RemoveTree(_stage);
        RemoveTree(outside);
        fs::create_directories(inner);
        fs::create_directories(outside);
        WriteTextFile(inner + "/good", "a good file first\n");
    };
    const std::vector<HostileArchive> cases = {
        {"parent folder entry", "Path contains '..'",
         [&] {
             WriteTextFile(_stage + "/escaped", "x\n");
             MakePayload(inner, "printf 'good\\n../escaped\\n'");
             EXPECT_NE(ListPayload().find("../escaped"), std::string::npos);
         }},
        {"parent folder inside a path", "Path contains '..'",
         [&] {
             WriteTextFile(_stage + "/escaped", "x\n");
             fs::create_directories(inner + "/sub");
             MakePayload(inner, "printf 'good\\nsub/../../escaped\\n'");
         }},
        {"absolute path", "Path is absolute",
         [&] {
             WriteTextFile(outside + "/absolute", "x\n");
             MakePayload(inner, "printf 'good\\n" + outside + "/absolute\\n'");
             EXPECT_NE(ListPayload().find(outside + "/absolute"), std::string::npos);
             RemoveTree(outside + "/absolute");
         }},
        {"file written through a link to an outside folder", "Cannot extract through symlink",
         [&] {
             ASSERT_EQ(::symlink(outside.c_str(), (inner + "/link").c_str()), 0);
             WriteTextFile(outside + "/through", "x\n");
             MakePayload(inner, "printf 'good\\nlink\\nlink/through\\n'");
             RemoveTree(outside + "/through");
         }},
        {"file written through a relative link upward", "Cannot extract through symlink",
         [&] {
             // From the stage and from the target alike, "../.." is the test's top folder.
             ASSERT_EQ(::symlink("../..", (inner + "/up").c_str()), 0);
             WriteTextFile(_root.file("through-up"), "x\n");
             MakePayload(inner, "printf 'good\\nup\\nup/through-up\\n'");
             EXPECT_NE(ListPayload().find("up/through-up"), std::string::npos);
             RemoveTree(_root.file("through-up"));
         }},
        {"file written through a link inside the payload", "Cannot extract through symlink",
         [&] {
             WriteTextFile(inner + "/real/file", "x\n");
             ASSERT_EQ(::symlink("real", (inner + "/alias").c_str()), 0);
             MakePayload(inner, "printf 'good\\nreal\\nalias\\nalias/file\\n'");
         }},
        {"named pipe", "is not a file, folder or symbolic link",
         [&] {
             Shell("mkfifo '" + inner + "/pipe'");
             MakePayload(inner, "printf 'good\\npipe\\n'");
         }},
        {"truncated archive", "the archive is truncated",
         [&] {
             for (int i = 0; i < 8; ++i)
                 WriteTextFile(inner + "/file" + std::to_string(i), RandomText(100000, i));
             MakePayload(inner, "find .");
             const std::string whole = ReadTextFile(_archive);
             WriteTextFile(_archive, whole.substr(0, whole.size() * 6 / 10));
         }},
        {"damaged compressed data", "gzip: incorrect data check",
         [&] {
             std::string text;
             for (int i = 0; i < 20000; ++i)
                 text += "line " + std::to_string(i * 7919 % 10007) + "\n";
             WriteTextFile(inner + "/big", text);
             MakePayload(inner, "find .");
             std::string whole = ReadTextFile(_archive);
             whole[whole.size() / 2] = static_cast<char>(whole[whole.size() / 2] ^ 0x55);
             WriteTextFile(_archive, whole);
         }},
        {"wrong gzip checksum", "gzip: incorrect data check",
         [&] {
             MakePayload(inner, "find .");
             std::string whole = ReadTextFile(_archive);
             whole[whole.size() - 6] = static_cast<char>(whole[whole.size() - 6] ^ 0x01);
             WriteTextFile(_archive, whole);
         }},
        {"cpio without gzip", "gzip: incorrect header check",
         [&] {
             Shell("cd '" + inner + "' && find . | cpio -o -H newc --quiet > '" + _archive + "'");
         }},
        {"bzip2-compressed cpio", "gzip: incorrect header check",
         [&] {
             Shell("cd '" + inner + "' && find . | cpio -o -H newc --quiet | bzip2 -c > '" +
                   _archive + "'");
         }},
        {"gzip-compressed tar", "Unrecognized archive format",
         [&] { Shell("cd '" + inner + "' && tar -czf '" + _archive + "' ."); }},
        {"gzip-compressed garbage", "Unrecognized archive format",
         [&] {
             WriteTextFile(_root.file("garbage"), RandomText(5000, 4));
             Shell("gzip -c '" + _root.file("garbage") + "' > '" + _archive + "'");
             RemoveTree(_root.file("garbage"));
         }},
        {"random bytes", "gzip: incorrect header check",
         [&] { WriteTextFile(_archive, RandomText(5000, 3)); }},
        {"empty file", "the archive is truncated", [&] { WriteTextFile(_archive, ""); }},
    };

    for (const HostileArchive& c : cases) {
        SCOPED_TRACE(c.name);
        resetStage();
        c.make();
        if (::testing::Test::HasFatalFailure())
            return;
        // The target's parent folder changes when the target is made again; it may hold
        // nothing else.
        const std::string work = _root.file("work");
        const auto before = Snapshot(_root.path(), work);
        const std::string folder = CurrentFolder();
        LogCapture log;
        EXPECT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance()), 0);
        EXPECT_EQ(CurrentFolder(), folder);
        EXPECT_EQ(FailureLines(log).size(), 1u) << log.text();
        for (const auto& l : FailureLines(log))
            std::printf("%s => %s\n", c.name.c_str(), l.c_str());
        EXPECT_EQ(log.lines().back(), "Done");
        // Nothing outside the target changed, and the target holds nothing.
        EXPECT_EQ(Snapshot(_root.path(), work), before);
        EXPECT_EQ(Snapshot(work).size(), 1u);
        EXPECT_TRUE(fs::is_directory(_payload));
        EXPECT_TRUE(Snapshot(_payload).empty());
    }
}

// Every write of the extraction goes through the file-system seam; whichever call fails,
// the payload is either whole or empty, and the failure is logged, never half a payload.
TEST_F(PayloadHandlerTest, AFailedWriteAtAnyPointLeavesAnEmptyPayload) {
    MakeSampleTree();
    MakePayload(_stage, "find .");
    const auto expected = Snapshot(_stage);
    FaultInjectingFileSystem counting;
    ASSERT_EQ(PayloadHandler::extractFile(_resources, _payload, counting), 0);
    ASSERT_EQ(Snapshot(_payload), expected);
    // Folders, files, links, hard links, modes and times: several calls per entry.
    const uint64_t calls = counting.calls();
    EXPECT_GT(calls, 2 * expected.size());

    // A failure while the previous payload is removed is logged apart and extraction goes
    // on over what is left; every other failure refuses the payload.
    uint64_t refused = 0;
    for (const int error : {ENOSPC, EIO}) {
        for (uint64_t n = 1; n <= calls; ++n) {
            SCOPED_TRACE("call " + std::to_string(n) + " fails with " + std::strerror(error));
            FaultInjectingFileSystem failing;
            failing.failCall(n, error);
            LogCapture log;
            EXPECT_EQ(PayloadHandler::extractFile(_resources, _payload, failing), 0);
            ASSERT_TRUE(failing.failed());
            const auto lines = FailureLines(log);
            if (lines.empty()) {
                EXPECT_EQ(Snapshot(_payload), expected) << failing.callLog()[n - 1];
                continue;
            }
            ++refused;
            EXPECT_TRUE(Snapshot(_payload).empty()) << failing.callLog()[n - 1];
            ASSERT_EQ(lines.size(), 1u) << log.text();
            EXPECT_NE(lines[0].find(std::strerror(error)), std::string::npos) << lines[0];
        }
    }
    EXPECT_GT(refused, calls);
    std::printf("Extraction failed at each of its %llu calls with ENOSPC and with EIO: %llu "
                "refused\n",
                static_cast<unsigned long long>(calls), static_cast<unsigned long long>(refused));
}

// A working folder too small for the payload: the write that fails is seen, and no file of
// the payload is left cut short.
// A payload that does not fit the working folder is refused before a byte is written:
// from the size its gzip trailer declares, from the sizes its entries declare when the
// trailer lies, and a stream that inflates past the free space (a compression bomb behind
// the archive's end) is cut off.
TEST_F(PayloadHandlerTest, APayloadLargerThanTheFreeSpaceIsRefusedWhole) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "mounting a small file system needs root";
    WriteTextFile(_stage + "/small.txt", "small\n");
    WriteTextFile(_stage + "/big.bin", RandomText(3 * 1024 * 1024, 7));
    // The gzip trailer's last four bytes are the unpacked size; a hostile archive can say 0.
    const std::string lieAboutSize =
        "truncate -s -4 '" + _archive + "' && printf '\\0\\0\\0\\0' >> '" + _archive + "'";
    struct Case {
        std::string name;
        std::function<void()> make;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"declared by gzip", [&] { MakePayload(_stage, "find ."); }, "the payload unpacks to "},
        {"declared by the entries",
         [&] {
             MakePayload(_stage, "find .");
             Shell(lieAboutSize);
         },
         "the payload unpacks to "},
        {"a bomb behind the archive",
         [&] {
             Shell("cd '" + _stage + "' && { echo ./small.txt | cpio -o -H newc --quiet; " +
                   "head -c 8000000 /dev/zero; } | gzip -9 -c > '" + _archive + "'");
             Shell(lieAboutSize);
         },
         "the archive unpacks to more than "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.make();
        // The small file system is mounted in a child's private mount namespace, so that it
        // is gone with the child whatever happens; the child's exit code tells what it found.
        const std::string small = _root.file("small");
        const std::string payload = small + "/payload";
        const std::string logText = _root.file("child-log");
        fs::create_directories(small);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (::unshare(CLONE_NEWNS) != 0 ||
                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m,mode=0755") != 0)
                ::_exit(2);
            LogCapture log;
            (void)PayloadHandler::extractFile(_resources, payload, RealFileSystem::instance());
            const auto lines = FailureLines(log);
            (void)WriteFile(logText, log.text());
            const bool seen = lines.size() == 1 && lines[0].find(c.expected) != std::string::npos &&
                              lines[0].find(std::strerror(ENOSPC)) == std::string::npos;
            ::_exit(!Snapshot(payload).empty() ? 3 : seen ? 0 : 4);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0)
            << "2: no namespace, 3: payload not empty, 4: failure not logged\n"
            << ReadTextFile(logText);
    }
}

TEST_F(PayloadHandlerTest, APayloadOverItsLimitsIsRefusedWhole) {
    for (int i = 0; i < 101; ++i)
        WriteTextFile(_stage + "/f" + std::to_string(i), std::string(1000, 'x'));
    MakePayload(_stage, "find . -type f");
    struct Case {
        PayloadLimits limits;
        std::string expected;
    };
    for (const Case& c : {Case{{100, 1 << 20}, "the payload has more than 100 entries"},
                          Case{{1000, 50'000}, "the archive unpacks to more than 50000 bytes"}}) {
        SCOPED_TRACE(c.expected);
        LogCapture log;
        (void)PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance(),
                                          c.limits);
        const auto lines = FailureLines(log);
        ASSERT_EQ(lines.size(), 1u) << log.text();
        EXPECT_NE(lines[0].find(c.expected), std::string::npos) << lines[0];
        EXPECT_TRUE(Snapshot(_payload).empty());
    }
}

TEST_F(PayloadHandlerTest, CleanupRemovesTheFolderWithReadOnlyContents) {
    WriteTextFile(_payload + "/backupDir/RollBack.xml", "<journal/>\n");
    WriteTextFile(_payload + "/a/b/c/file", "deep\n");
    ASSERT_EQ(::symlink("/", (_payload + "/root-link").c_str()), 0);
    ::chmod((_payload + "/a/b/c").c_str(), 0500);
    ::chmod((_payload + "/a").c_str(), 0);

    LogCapture log;
    EXPECT_EQ(PayloadHandler::cleanupDir(_payload, RealFileSystem::instance()), 0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               ComposeHeadingLine(3, "TEARDOWN for Update"),
                               "Cleanup \"" + _payload + "\".",
                           }));
    EXPECT_EQ(log.lines()[0], "...................... TEARDOWN for Update ......................");
    EXPECT_FALSE(FileExists(_payload));
    EXPECT_TRUE(fs::is_directory(_root.file("work")));
}

TEST_F(PayloadHandlerTest, CleanupOfALinkRemovesOnlyTheLink) {
    WriteTextFile(_root.file("elsewhere/precious.txt"), "keep me\n");
    const std::string link = _root.file("link");
    ASSERT_EQ(::symlink(_root.file("elsewhere").c_str(), link.c_str()), 0);
    EXPECT_EQ(PayloadHandler::cleanupDir(link, RealFileSystem::instance()), 0);
    EXPECT_FALSE(FileExists(link));
    EXPECT_EQ(ReadTextFile(_root.file("elsewhere/precious.txt")), "keep me\n");
}

TEST_F(PayloadHandlerTest, CleanupOfAMissingFolderFails) {
    LogCapture log;
    EXPECT_EQ(PayloadHandler::cleanupDir(_root.file("missing"), RealFileSystem::instance()), 1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               ComposeHeadingLine(3, "TEARDOWN for Update"),
                               "Cleanup \"" + _root.file("missing") + "\".",
                               "Remove operation failed.",
                           }));
}

} // namespace

TEST_F(PayloadHandlerTest, TheWorkingFolderIsRootsAloneInsideAParentNoOneElseCanWrite) {
    WriteTextFile(_stage + "/file.txt", "payload\n");
    MakePayload(_stage, "echo file.txt");
    EXPECT_EQ(PayloadHandler::extractFile(_resources, _payload, RealFileSystem::instance()), 0);
    struct stat info {};
    ASSERT_EQ(::lstat(_payload.c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0700u);
    EXPECT_EQ(info.st_uid, ::geteuid());
}

TEST_F(PayloadHandlerTest, AParentAnotherUserCouldSwapIsNotUsed) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs the super-user";
    WriteTextFile(_stage + "/file.txt", "payload\n");
    MakePayload(_stage, "echo file.txt");
    struct Case {
        const char* name;
        std::function<void(const std::string& parent)> plant;
    };
    const std::vector<Case> cases = {
        {"another user's folder",
         [](const std::string& parent) {
             fs::create_directories(parent);
             ASSERT_EQ(::chown(parent.c_str(), 65534, 65534), 0);
         }},
        {"a folder anyone may write",
         [](const std::string& parent) {
             fs::create_directories(parent);
             ASSERT_EQ(::chmod(parent.c_str(), 01777), 0);
         }},
        {"a link to another folder",
         [this](const std::string& parent) {
             fs::create_directories(_root.file("elsewhere"));
             ASSERT_EQ(::symlink(_root.file("elsewhere").c_str(), parent.c_str()), 0);
         }},
    };
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string parent = _root.file("planted" + std::to_string(++index));
        const std::string payload = parent + "/PatcherApp_1";
        c.plant(parent);
        // What the other user left there stays as it is, and nothing is added.
        WriteTextFile(_root.file("elsewhere/PatcherApp_1/keep.txt"), "theirs\n");
        if (!fs::is_symlink(parent))
            WriteTextFile(payload + "/keep.txt", "theirs\n");
        LogCapture log;
        EXPECT_EQ(PayloadHandler::extractFile(_resources, payload, RealFileSystem::instance()), 0);
        EXPECT_EQ(PayloadHandler::cleanupDir(payload, RealFileSystem::instance()), 1);
        EXPECT_NE(log.text().find("The working folder " + payload + " is not used: " + parent),
                  std::string::npos)
            << log.text();
        EXPECT_EQ(ReadTextFile(payload + "/keep.txt"), "theirs\n");
        EXPECT_FALSE(fs::exists(payload + "/file.txt"));
        EXPECT_FALSE(fs::exists(_root.file("elsewhere/PatcherApp_1/file.txt")));
    }
}
