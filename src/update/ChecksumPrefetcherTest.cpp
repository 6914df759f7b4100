#include "update/ChecksumPrefetcher.h"

#include "ManifestText.h"
#include "TestSupport.h"
#include "base/Md5.h"
#include "base/Xml.h"
#include "runtime/Environment.h"
#include "runtime/PlatformPaths.h"
#include "target/DirTokenResolver.h"
#include "update/CmdInterface.h"
#include "update/MD5cksum.h"
#include "update/ProcessManifest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sys/stat.h>
#include <thread>

namespace {

// What the prefetcher left in MD5cksum's memory for path; nothing when the file is not
// remembered as it is now.
std::optional<std::string> Remembered(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return std::nullopt;
    return MD5cksum::rememberedChecksumOfFile(path, info);
}

bool WaitForEntries(const ChecksumPrefetcher& prefetcher, size_t entries) {
    return WaitUntil([&] { return prefetcher.entriesDone() >= entries; });
}

class ChecksumPrefetcherTest : public ::testing::Test {
protected:
    void SetUp() override { SetENVverbosityLevel("debug"); }

    // Entry i holds the file "f<i>", with contents of its own.
    std::vector<std::vector<std::string>> Entries(size_t count) {
        std::vector<std::vector<std::string>> entries;
        for (size_t i = 0; i < count; ++i) {
            const std::string path = _dir.file("f" + std::to_string(i));
            WriteTextFile(path, "contents of entry " + std::to_string(i));
            entries.push_back({path});
        }
        return entries;
    }

    std::string Sum(size_t entry) {
        return MD5cksum::getMD5cksumOfFile(_dir.file("f" + std::to_string(entry))).value();
    }

    TempDir _dir;
};

TEST_F(ChecksumPrefetcherTest, TheEntriesAfterTheRunningOneAreChecksummedAhead) {
    const auto entries = Entries(5);
    ChecksumPrefetcher prefetcher(entries);
    prefetcher.entryStarting(0);
    ASSERT_TRUE(WaitForEntries(prefetcher, 4));
    // The running entry is its own business; the four after it are known.
    EXPECT_EQ(Remembered(entries[0][0]), std::nullopt);
    for (size_t i = 1; i < entries.size(); ++i)
        EXPECT_EQ(Remembered(entries[i][0]), Sum(i)) << entries[i][0];
}

TEST_F(ChecksumPrefetcherTest, ItStaysAFewEntriesAheadAndSkipsWhatIsBehind) {
    const size_t ahead = ChecksumPrefetcher::kEntriesAhead;
    const auto entries = Entries(3 * ahead);
    ChecksumPrefetcher prefetcher(entries);
    prefetcher.entryStarting(0);
    ASSERT_TRUE(WaitForEntries(prefetcher, ahead - 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(prefetcher.entriesDone(), ahead - 1) << "no further than its window";
    EXPECT_EQ(Remembered(entries[ahead][0]), std::nullopt);

    // The file set went on past the prefetcher: it goes on after the running entry.
    prefetcher.entryStarting(2 * ahead);
    ASSERT_TRUE(WaitForEntries(prefetcher, 2 * ahead - 2));
    EXPECT_EQ(Remembered(entries[2 * ahead + 1][0]), Sum(2 * ahead + 1));
    EXPECT_EQ(Remembered(entries[3 * ahead - 1][0]), Sum(3 * ahead - 1));
    for (size_t skipped = ahead; skipped <= 2 * ahead; ++skipped)
        EXPECT_EQ(Remembered(entries[skipped][0]), std::nullopt) << skipped;
}

TEST_F(ChecksumPrefetcherTest, AFileChangedAfterItWasReadIsReadAgain) {
    const auto entries = Entries(2);
    {
        ChecksumPrefetcher prefetcher(entries);
        prefetcher.entryStarting(0);
        ASSERT_TRUE(WaitForEntries(prefetcher, 1));
    }
    ASSERT_TRUE(Remembered(entries[1][0]));
    const std::string changed = "changed by an earlier entry";
    WriteTextFile(entries[1][0], changed);
    EXPECT_EQ(Remembered(entries[1][0]), std::nullopt);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(entries[1][0]), Md5OfBytes(changed));
}

TEST_F(ChecksumPrefetcherTest, WhatIsNoReadableFileIsLeftAlone) {
    const std::string folder = _dir.file("folder");
    ::mkdir(folder.c_str(), 0755);
    const std::string fifo = _dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    const std::string file = _dir.file("file");
    WriteTextFile(file, "a file");
    ChecksumPrefetcher prefetcher({{}, {_dir.file("missing"), folder, fifo}, {file}});
    prefetcher.entryStarting(0);
    ASSERT_TRUE(WaitForEntries(prefetcher, 2)) << "a FIFO without a writer holds nothing up";
    EXPECT_EQ(Remembered(folder), std::nullopt);
    EXPECT_EQ(Remembered(fifo), std::nullopt);
    EXPECT_EQ(Remembered(file), MD5cksum::getMD5cksumOfFile(file));
}

TEST_F(ChecksumPrefetcherTest, StoppingLeavesTheRestUndone) {
    // Sixteen files of 4 MB: far more reading than the moment between start and stop.
    std::vector<std::vector<std::string>> entries = {{}};
    for (int i = 0; i < 16; ++i) {
        entries.push_back({_dir.file("big" + std::to_string(i))});
        WriteTextFile(entries.back().front(), std::string(4 * 1024 * 1024, static_cast<char>(i)));
    }
    { ChecksumPrefetcher prefetcher(entries); }
    EXPECT_EQ(Remembered(entries.back().front()), std::nullopt);
    ChecksumPrefetcher none({});
    EXPECT_EQ(none.entriesDone(), 0u);
}

TEST_F(ChecksumPrefetcherTest, TheManifestNamesTheInstalledAndThePayloadFiles) {
    const std::string manifest = "<Manifest><FileSet>" +
                                 FileEntryXml({"PATCH", "p1.patch", "[INSTALLDIR]/MacOS", "Tool"}) +
                                 FileEntryXml({"ADD", "a2", "[INSTALLDIR]/Resources", "new.txt"}) +
                                 FileEntryXml({"RENAME", "r3", "[INSTALLDIR]", "old.txt", "", "",
                                               "[INSTALLDIR]/Moved", "new.txt"}) +
                                 FileEntryXml({"REMOVE", "", "[INSTALLDIR]", "gone.txt"}) +
                                 "<File><Operation>ADD</Operation></File>"
                                 "</FileSet></Manifest>";
    const auto document = XmlDocument::parseMemory(manifest, XmlParseMode::Strict);
    ASSERT_TRUE(document.document);
    const PlatformPaths paths;
    DirTokenResolver tokens(paths);
    CmdInterface cmd("/payload", "/resources", std::nullopt);
    WorkDictionary work;
    work.appPath = "/opt/App.app";
    work.cmdInterface = &cmd;
    work.dirToken = &tokens;
    work.workingNodesArray = XmlDocument::root(document.document).select("/Manifest/FileSet/File");
    ASSERT_EQ(work.workingNodesArray.size(), 5u);
    LogCapture log;
    const auto files = ProcessManifest::filesToChecksumAhead(work);
    EXPECT_EQ(files, (std::vector<std::vector<std::string>>{
                         {"/opt/App.app/MacOS/Tool"}, // a patch is read by the patch itself
                         {"/opt/App.app/Resources/new.txt", "/payload/a2"},
                         {"/opt/App.app/old.txt", "/opt/App.app/Moved/new.txt", "/payload/r3"},
                         {"/opt/App.app/gone.txt"},
                         {}}));
    EXPECT_TRUE(log.lines().empty()) << "worked out without a log line";
}

} // namespace

TEST_F(ChecksumPrefetcherTest, BeforeTheFileSetStartsItReadsFromTheFirstEntryOn) {
    const auto entries = Entries(5);
    ChecksumPrefetcher prefetcher(entries, ChecksumPrefetcher::kEntriesBeforeStart, true);
    ASSERT_TRUE(WaitForEntries(prefetcher, 5));
    for (size_t i = 0; i < entries.size(); ++i)
        EXPECT_EQ(Remembered(entries[i][0]), Sum(i)) << entries[i][0];
}
