#include "update/PatchPrefetcher.h"

#include "ManifestText.h"
#include "TestSupport.h"
#include "base/Md5.h"
#include "base/Xml.h"
#include "patch/Bspatch.h"
#include "runtime/PlatformPaths.h"
#include "target/DirTokenResolver.h"
#include "update/CmdInterface.h"
#include "update/MD5cksum.h"
#include "update/PayloadFiles.h"
#include "update/ProcessManifest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unordered_set>

namespace {

bool WaitForMade(const PatchPrefetcher& patches, size_t count) {
    return WaitUntil([&] { return patches.made() >= count; });
}

// The bytes of a new file, in memory or written ahead (read back through /proc: the unnamed
// file is open for writing only).
std::string Text(const PatchPrefetcher::NewFile& file) {
    if (!file.written.valid())
        return {reinterpret_cast<const char*>(file.bytes.get()), file.size};
    return ReadTextFile("/proc/self/fd/" + std::to_string(file.written.get()));
}

class PatchPrefetcherTest : public ::testing::Test {
protected:
    // Entry name's old file "<name>.old" holds oldText, and its patch "<name>.patch" (made by
    // Debian's bsdiff) turns it into newText.
    PatchPrefetcher::Patch patch(const std::string& name, const std::string& oldText,
                                 const std::string& newText) {
        const PatchPrefetcher::Patch made{_dir.file(name + ".old"), _dir.file(name + ".patch")};
        WriteTextFile(made.oldFile, oldText);
        WriteTextFile(_dir.file(name + ".new"), newText);
        EXPECT_EQ(
            RunProgram({"/usr/bin/bsdiff", made.oldFile, _dir.file(name + ".new"), made.patchFile}),
            0);
        return made;
    }

    TempDir _dir;
};

} // namespace

TEST_F(PatchPrefetcherTest, TheComingPatchesAreMadeAndTakenByTheirEntries) {
    const std::string newA = RandomText(300000, 2) + "version two of a";
    const auto a = patch("a", RandomText(300000, 2) + "version one of a", newA);
    const auto b = patch("b", "the old b, short", "the new b, short and changed");
    PatchPrefetcher patches({a, std::nullopt, b});
    ASSERT_TRUE(WaitForMade(patches, 2));

    patches.entryStarting(0);
    auto madeA = patches.take(a.oldFile, a.patchFile);
    ASSERT_TRUE(madeA);
    EXPECT_EQ(Text(*madeA), newA);
    EXPECT_EQ(madeA->checksum, Md5OfFile(_dir.file("a.new")));
    EXPECT_FALSE(patches.take(a.oldFile, a.patchFile)) << "taken once";

    patches.entryStarting(1);
    EXPECT_FALSE(patches.take(b.oldFile, b.patchFile)) << "entry 1 patches nothing";
    patches.entryStarting(2);
    EXPECT_FALSE(patches.take(a.oldFile, b.patchFile)) << "not the files of entry 2";
}

TEST_F(PatchPrefetcherTest, AnOldFileReplacedSinceIsLeftToItsEntry) {
    const auto a = patch("a", "old contents of a", "new contents of a");
    const auto b = patch("b", "old contents of b", "new contents of b");
    PatchPrefetcher patches({a, b});
    ASSERT_TRUE(WaitForMade(patches, 2));

    // Replaced by a rename, as every change of this updater is made: another inode.
    WriteTextFile(a.oldFile + ".next", "old contents of a");
    ASSERT_EQ(std::rename((a.oldFile + ".next").c_str(), a.oldFile.c_str()), 0);
    patches.entryStarting(0);
    EXPECT_FALSE(patches.take(a.oldFile, a.patchFile));

    // Kept by a hard link (the backup) before the entry patches: still the same bytes.
    ASSERT_EQ(::link(b.oldFile.c_str(), _dir.file("b.kept").c_str()), 0);
    patches.entryStarting(1);
    const auto madeB = patches.take(b.oldFile, b.patchFile);
    ASSERT_TRUE(madeB);
    EXPECT_EQ(Text(*madeB), "new contents of b");
}

TEST_F(PatchPrefetcherTest, NewFilesWaitingStayWithinTheMemoryAllowed) {
    const std::string newA = RandomText(4000, 5);
    const auto a = patch("a", RandomText(4000, 4), newA);
    const auto b = patch("b", RandomText(4000, 6), RandomText(4000, 7));
    const auto big = patch("big", RandomText(6000, 8), RandomText(6000, 9));
    const auto c = patch("c", "small old c", "small new c");
    // Room for one new file of 4,000 bytes at a time; none for the one of 6,000. (Kept in
    // memory: a file written ahead holds none.)
    PatchPrefetcher patches({a, b, big, c}, 5000, RealFileSystem::instance(), false);
    ASSERT_TRUE(WaitForMade(patches, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(patches.made(), 1u) << "b waits until a is taken";

    patches.entryStarting(0);
    const auto madeA = patches.take(a.oldFile, a.patchFile);
    ASSERT_TRUE(madeA);
    EXPECT_EQ(Text(*madeA), newA);
    ASSERT_TRUE(WaitForMade(patches, 3)) << "b, and c beside it";

    // Passing an entry drops its new file, untaken.
    patches.entryStarting(2);
    EXPECT_FALSE(patches.take(big.oldFile, big.patchFile)) << "larger than the memory allowed";
    patches.entryStarting(3);
    const auto madeC = patches.take(c.oldFile, c.patchFile);
    ASSERT_TRUE(madeC);
    EXPECT_EQ(Text(*madeC), "small new c");
}

TEST_F(PatchPrefetcherTest, ANewFileIsWrittenAheadBesideItsOldFileWithoutAName) {
    const std::string newA = RandomText(200000, 3);
    const auto a = patch("a", RandomText(200000, 2), newA);
    const auto names = SnapshotTree(_dir.path());
    PatchPrefetcher patches({a});
    ASSERT_TRUE(WaitForMade(patches, 1));
    EXPECT_EQ(SnapshotTree(_dir.path()), names) << "nothing named in the folder yet";

    patches.entryStarting(0);
    auto madeA = patches.take(a.oldFile, a.patchFile);
    ASSERT_TRUE(madeA);
    ASSERT_TRUE(madeA->written.valid());
    EXPECT_FALSE(madeA->bytes) << "its memory let go once written";
    EXPECT_EQ(Text(*madeA), newA);
    // Its entry names it, with the mode it is given.
    const std::string output = _dir.file(".orvel-new.a");
    const auto checksum =
        WritePatchedFile(RealFileSystem::instance(), *madeA, "bspatch", output, 0751, false);
    ASSERT_TRUE(checksum);
    EXPECT_EQ(*checksum, Md5OfFile(_dir.file("a.new")));
    EXPECT_EQ(ReadTextFile(output), newA);
    struct stat info {};
    ASSERT_EQ(::stat(output.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0751u);
}

TEST_F(PatchPrefetcherTest, NewFilesWrittenAheadLeaveTheMemoryToTheNext) {
    // Room in memory for one new file at a time: each goes to its unnamed file once made.
    const auto a = patch("a", RandomText(4000, 4), RandomText(4000, 5));
    const auto b = patch("b", RandomText(4000, 6), RandomText(4000, 7));
    const auto c = patch("c", RandomText(4000, 8), RandomText(4000, 9));
    PatchPrefetcher patches({a, b, c}, 5000);
    ASSERT_TRUE(WaitForMade(patches, 3)) << "none waits for an entry to take one";
    for (size_t i = 0; i < 3; ++i) {
        patches.entryStarting(i);
        const auto& entry = i == 0 ? a : i == 1 ? b : c;
        const auto made = patches.take(entry.oldFile, entry.patchFile);
        ASSERT_TRUE(made);
        EXPECT_TRUE(made->written.valid());
        EXPECT_EQ(Text(*made), ReadTextFile(_dir.file(std::string(1, "abc"[i]) + ".new")));
    }
}

TEST_F(PatchPrefetcherTest, TwoThreadsGiveTheRoomToTheEntriesInTheirOrder) {
    // Room in memory for two new files at a time, patches between entries that patch nothing,
    // and one too large for the room (its entry patches it). Each entry starts once every
    // patch up to its own is made: a later patch holding the room that an earlier one waits
    // for would never let that happen.
    std::vector<std::optional<PatchPrefetcher::Patch>> entries;
    std::vector<std::string> newTexts;
    for (size_t i = 0; i < 24; ++i) {
        const std::string name = "p" + std::to_string(i);
        const size_t size = i == 9 ? 30000 : 9000 + 300 * i;
        newTexts.push_back(RandomText(size, 100 + i) + name);
        entries.push_back(patch(name, RandomText(size, 200 + i), newTexts.back()));
        if (i % 3 == 0) {
            entries.emplace_back();
            newTexts.emplace_back();
        }
    }
    for (const bool writingAhead : {false, true}) {
        SCOPED_TRACE(writingAhead ? "written ahead" : "in memory");
        PatchPrefetcher patches(entries, 25000, RealFileSystem::instance(), writingAhead, 2);
        size_t patchesSoFar = 0;
        for (size_t i = 0; i < entries.size(); ++i) {
            if (!entries[i])
                continue;
            if (newTexts[i].size() > 25000) {
                patches.entryStarting(i);
                EXPECT_FALSE(patches.take(entries[i]->oldFile, entries[i]->patchFile));
                continue;
            }
            ASSERT_TRUE(WaitForMade(patches, ++patchesSoFar)) << "entry " << i;
            patches.entryStarting(i);
            const auto made = patches.take(entries[i]->oldFile, entries[i]->patchFile);
            ASSERT_TRUE(made) << "entry " << i;
            EXPECT_EQ(made->written.valid(), writingAhead);
            EXPECT_EQ(Text(*made), newTexts[i]) << "entry " << i;
        }
        EXPECT_EQ(patches.made(), patchesSoFar);
    }
}

TEST_F(PatchPrefetcherTest, AtMostSoManyNewFilesWaitWrittenAhead) {
    std::vector<std::optional<PatchPrefetcher::Patch>> entries;
    const size_t count = PatchPrefetcher::kFilesWrittenAhead + 2;
    for (size_t i = 0; i < count; ++i) {
        const std::string name = "p" + std::to_string(i);
        entries.push_back(patch(name, "old " + name, "new contents of " + name));
    }
    PatchPrefetcher patches(entries);
    ASSERT_TRUE(WaitForMade(patches, PatchPrefetcher::kFilesWrittenAhead));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(patches.made(), PatchPrefetcher::kFilesWrittenAhead) << "each holds a descriptor";

    // Taking one makes room for one more.
    patches.entryStarting(0);
    const auto first = patches.take(entries[0]->oldFile, entries[0]->patchFile);
    ASSERT_TRUE(first);
    EXPECT_EQ(Text(*first), "new contents of p0");
    ASSERT_TRUE(WaitForMade(patches, PatchPrefetcher::kFilesWrittenAhead + 1));
}

TEST_F(PatchPrefetcherTest, TheOldFileIsChecksummedFromTheBytesReadForItsPatch) {
    const auto a = patch("a", RandomText(300000, 21), RandomText(300000, 22));
    const auto b = patch("b", "old contents of b", "new contents of b");
    PatchPrefetcher patches({a, b});
    ASSERT_TRUE(WaitForMade(patches, 2));
    for (const auto& entry : {a, b}) {
        struct stat info {};
        ASSERT_EQ(::stat(entry.oldFile.c_str(), &info), 0);
        EXPECT_EQ(MD5cksum::rememberedChecksumOfFile(entry.oldFile, info), Md5OfFile(entry.oldFile))
            << entry.oldFile;
    }

    // Changed since it was read: the checksum remembered is given up.
    WriteTextFile(b.oldFile, "old contents of b, changed");
    struct stat changed {};
    ASSERT_EQ(::stat(b.oldFile.c_str(), &changed), 0);
    EXPECT_EQ(MD5cksum::rememberedChecksumOfFile(b.oldFile, changed), std::nullopt);
}

TEST_F(PatchPrefetcherTest, APatchIsMadeInTheMemoryGivenWhenItHasRoom) {
    const std::string newText = RandomText(30000, 31);
    const auto a = patch("a", RandomText(30000, 30), newText);
    BspatchOldFile old;
    ASSERT_TRUE(old.read(a.oldFile));
    const int fd = ::open(a.patchFile.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const auto size = PatchedSizeOf(fd);
    ASSERT_EQ(size, newText.size());

    PatchedFile made;
    made.capacity = newText.size() + 100;
    made.bytes = std::make_unique<uint8_t[]>(made.capacity);
    const uint8_t* given = made.bytes.get();
    ASSERT_EQ(PatchIntoMemory(old.bytes(), fd, *size, made, nullptr), BspatchResult::Success);
    EXPECT_EQ(made.bytes.get(), given);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(made.bytes.get()), made.size), newText);
    EXPECT_EQ(made.checksum, Md5OfFile(_dir.file("a.new")));

    // Too small: new memory.
    PatchedFile small;
    small.capacity = 10;
    small.bytes = std::make_unique<uint8_t[]>(small.capacity);
    ASSERT_EQ(PatchIntoMemory(old.bytes(), fd, *size, small, nullptr), BspatchResult::Success);
    EXPECT_GE(small.capacity, newText.size());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(small.bytes.get()), small.size), newText);
    ::close(fd);
}

TEST_F(PatchPrefetcherTest, ANewFileThatCannotBeWrittenAheadStaysInMemory) {
    const auto a = patch("a", "old contents of a", "new contents of a");
    FaultInjectingFileSystem full;
    full.failCall(1, ENOSPC); // the unnamed file
    PatchPrefetcher patches({a}, PatchPrefetcher::kBytesAhead, full);
    ASSERT_TRUE(WaitForMade(patches, 1));
    EXPECT_TRUE(full.failed());
    patches.entryStarting(0);
    auto madeA = patches.take(a.oldFile, a.patchFile);
    ASSERT_TRUE(madeA);
    EXPECT_FALSE(madeA->written.valid());
    const std::string output = _dir.file(".orvel-new.a");
    ASSERT_TRUE(WritePatchedFile(RealFileSystem::instance(), *madeA, "bspatch", output, 0644));
    EXPECT_EQ(ReadTextFile(output), "new contents of a");
}

TEST_F(PatchPrefetcherTest, NewFilesStayInMemoryUntilWritingAheadStarts) {
    const auto a = patch("a", RandomText(50000, 11), RandomText(50000, 12));
    const auto b = patch("b", "old contents of b", "new contents of b");
    const auto c = patch("c", "old contents of c", "new contents of c");
    FaultInjectingFileSystem counting;
    PatchPrefetcher patches({a, b, c}, PatchPrefetcher::kBytesAhead, counting, false);
    ASSERT_TRUE(WaitForMade(patches, 3));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(counting.calls(), 0u) << "nothing written while the folders are not confined";

    // Passed before writing starts, a's new file goes without ever being written; b's and
    // c's are written ahead (an unnamed file and one write each).
    patches.entryStarting(1);
    patches.startWritingAhead();
    ASSERT_TRUE(WaitUntil([&] { return counting.calls() >= 4; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(counting.calls(), 4u);
    const auto madeB = patches.take(b.oldFile, b.patchFile);
    ASSERT_TRUE(madeB);
    EXPECT_TRUE(madeB->written.valid());
    EXPECT_EQ(Text(*madeB), "new contents of b");
    patches.entryStarting(2);
    const auto madeC = patches.take(c.oldFile, c.patchFile);
    ASSERT_TRUE(madeC);
    EXPECT_TRUE(madeC->written.valid());
    EXPECT_FALSE(madeC->bytes) << "its memory let go once written";
    EXPECT_EQ(Text(*madeC), "new contents of c");
}

TEST_F(PatchPrefetcherTest, ADamagedPatchIsLeftToItsEntry) {
    const auto a = patch("a", "old contents of a", "new contents of a");
    const auto b = patch("b", "old contents of b", "new contents of b");
    std::string damaged = ReadTextFile(a.patchFile);
    damaged.resize(damaged.size() - 5);
    WriteTextFile(a.patchFile, damaged);
    PatchPrefetcher patches({a, b});
    ASSERT_TRUE(WaitForMade(patches, 1)); // b, after a failed
    patches.entryStarting(0);
    EXPECT_FALSE(patches.take(a.oldFile, a.patchFile));
    patches.entryStarting(1);
    EXPECT_TRUE(patches.take(b.oldFile, b.patchFile));
}

TEST_F(PatchPrefetcherTest, StoppingEndsAThreadThatWaitsForRoom) {
    std::vector<std::optional<PatchPrefetcher::Patch>> entries;
    for (int i = 0; i < 3; ++i)
        entries.push_back(
            patch("p" + std::to_string(i), RandomText(100000, i), RandomText(100000, i + 100)));
    {
        // Room for one: the thread waits for an entry that never comes to take it.
        PatchPrefetcher patches(entries, 150000, RealFileSystem::instance(), false);
        ASSERT_TRUE(WaitForMade(patches, 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(patches.made(), 1u);
    }
    PatchPrefetcher none({std::nullopt, std::nullopt});
    EXPECT_EQ(none.made(), 0u);
}

TEST(PatchPrefetcherManifest, EachPatchEntryNamesItsInstalledFileAndItsPatch) {
    const std::string manifest = "<Manifest><FileSet>" +
                                 FileEntryXml({"PATCH", "p1.patch", "[INSTALLDIR]/MacOS", "Tool"}) +
                                 FileEntryXml({"ADD", "a2", "[INSTALLDIR]/Resources", "new.txt"}) +
                                 FileEntryXml({"patch", "p3.patch", "[INSTALLDIR]", "lib.so"}) +
                                 "<File><Operation>PATCH</Operation></File>"
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
    const auto patches = ProcessManifest::workAhead(work).patches;
    ASSERT_EQ(patches.size(), 4u);
    ASSERT_TRUE(patches[0]);
    EXPECT_EQ(patches[0]->oldFile, "/opt/App.app/MacOS/Tool");
    EXPECT_EQ(patches[0]->patchFile, "/payload/p1.patch");
    EXPECT_FALSE(patches[1]);
    ASSERT_TRUE(patches[2]);
    EXPECT_EQ(patches[2]->oldFile, "/opt/App.app/lib.so");
    EXPECT_EQ(patches[2]->patchFile, "/payload/p3.patch");
    EXPECT_FALSE(patches[3]) << "no file named";

    // A copy is written ahead only from a payload file held in memory.
    EXPECT_FALSE(ProcessManifest::workAhead(work).copies[1]);
    PayloadFiles::File held;
    held.bytes = std::make_shared<uint8_t[]>(1);
    PayloadFiles::hold("/payload/a2", std::move(held));
    const auto copies = ProcessManifest::workAhead(work).copies;
    PayloadFiles::forget("/payload/a2");
    ASSERT_EQ(copies.size(), 4u);
    ASSERT_TRUE(copies[1]);
    EXPECT_EQ(copies[1]->source, "/payload/a2");
    EXPECT_EQ(copies[1]->folder, "/opt/App.app/Resources");
    EXPECT_FALSE(copies[0]) << "a patch";
}

// The payload files kept in memory are those that only ADD and OVERWRITE entries name, in the
// file set or in a bundle, and only by a plain name.
TEST(PatchPrefetcherManifest, OnlyFilesThatAreOnlyCopiedAreHeld) {
    const std::string manifest =
        "<Manifest><FileSet>" + FileEntryXml({"ADD", "a1", "[INSTALLDIR]/Resources", "a1"}) +
        FileEntryXml({"overwrite", "o1", "[INSTALLDIR]/Resources", "o1"}) +
        FileEntryXml({"PATCH", "p1.patch", "[INSTALLDIR]/MacOS", "Tool"}) +
        FileEntryXml({"ADD", "shared", "[INSTALLDIR]/Resources", "shared"}) +
        FileEntryXml({"ADD", "sub/x", "[INSTALLDIR]/Resources", "x"}) + "</FileSet>" +
        BundleSetXml("[INSTALLDIR]/PlugIns/B.bundle/Contents/Info.plist", "2.0",
                     {{"ADD", "b1", "[INSTALLDIR]/PlugIns/B.bundle/Contents", "b1"},
                      {"BLINDOVERWRITE", "shared", "[INSTALLDIR]/PlugIns", "shared"}}) +
        "</Manifest>";
    const auto document = XmlDocument::parseMemory(manifest, XmlParseMode::Strict);
    ASSERT_TRUE(document.document);
    const auto held = ProcessManifest::payloadFilesToHold(XmlDocument::root(document.document));
    EXPECT_EQ(held, (std::unordered_set<std::string>{"a1", "o1", "b1"}));
}
