#include "patch/Bspatch.h"

#include "patch/BsdiffFormat.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bzlib.h>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

Bytes ReadBytes(const std::string& path) {
    const std::string text = ReadTextFile(path);
    return Bytes(text.begin(), text.end());
}

void WriteBytes(const std::string& path, const Bytes& data) {
    WriteTextFile(path, std::string(data.begin(), data.end()));
}

Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes Bzip2(const Bytes& data) {
    unsigned size = static_cast<unsigned>(data.size() + data.size() / 100 + 600);
    Bytes out(size);
    const int rc = BZ2_bzBuffToBuffCompress(
        reinterpret_cast<char*>(out.data()), &size,
        const_cast<char*>(reinterpret_cast<const char*>(data.empty() ? out.data() : data.data())),
        static_cast<unsigned>(data.size()), 9, 0, 0);
    EXPECT_EQ(rc, BZ_OK);
    out.resize(size);
    return out;
}

Bytes ControlBytes(const std::vector<BsdiffControl>& controls) {
    Bytes bytes(controls.size() * kBsdiffControlSize);
    for (size_t i = 0; i < controls.size(); ++i)
        EncodeBsdiffControl(controls[i],
                            std::span<uint8_t, kBsdiffControlSize>(
                                bytes.data() + i * kBsdiffControlSize, kBsdiffControlSize));
    return bytes;
}

// A patch from compressed blocks; the header's block lengths default to the real ones.
Bytes BuildPatch(const Bytes& control, const Bytes& diff, const Bytes& extra, int64_t newSize,
                 std::optional<int64_t> controlLength = std::nullopt,
                 std::optional<int64_t> diffLength = std::nullopt) {
    Bytes patch(kBsdiffHeaderSize);
    EncodeBsdiffHeader({controlLength.value_or(static_cast<int64_t>(control.size())),
                        diffLength.value_or(static_cast<int64_t>(diff.size())), newSize},
                       std::span<uint8_t, kBsdiffHeaderSize>(patch.data(), kBsdiffHeaderSize));
    patch.insert(patch.end(), control.begin(), control.end());
    patch.insert(patch.end(), diff.begin(), diff.end());
    patch.insert(patch.end(), extra.begin(), extra.end());
    return patch;
}

// A well-formed patch from plain blocks.
Bytes MakePatch(const std::vector<BsdiffControl>& controls, const Bytes& diff, const Bytes& extra,
                int64_t newSize) {
    return BuildPatch(Bzip2(ControlBytes(controls)), Bzip2(diff), Bzip2(extra), newSize);
}

std::vector<std::string> FolderEntries(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

Bytes RandomBytes(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes data(size);
    for (auto& byte : data)
        byte = static_cast<uint8_t>(random());
    return data;
}

// Old file, new file and a patch between them made by Debian's bsdiff.
struct Fixture {
    TempDir dir;
    TempDir logs; // the program's error output, kept out of dir
    std::string oldPath = dir.file("old");
    std::string newPath = dir.file("new");
    std::string patchPath = dir.file("patch");
    std::string outPath = dir.file("out");

    void makePatchWithBsdiff(const std::string& from, const std::string& to) {
        ASSERT_EQ(RunProgram({"/usr/bin/bsdiff", from, to, patchPath}), 0);
    }
};

// ---- cross-check with Debian's bsdiff/bspatch on real binaries ----

TEST(BspatchTest, AppliesBsdiffPatchBetweenTwoRealProgramsByteForByte) {
    const std::string from = CPACK_PROGRAM;
    const std::string to = CTEST_PROGRAM;
    if (!FileExists(from) || !FileExists(to))
        GTEST_SKIP() << "cpack or ctest not found";
    Fixture f;
    f.makePatchWithBsdiff(from, to);
    ASSERT_EQ(RunProgram({BSPATCH_PROGRAM, from, f.outPath, f.patchPath}), 0);
    EXPECT_TRUE(ReadBytes(f.outPath) == ReadBytes(to));
    // Debian's bspatch agrees.
    ASSERT_EQ(RunProgram({"/usr/bin/bspatch", from, f.newPath, f.patchPath}), 0);
    EXPECT_TRUE(ReadBytes(f.outPath) == ReadBytes(f.newPath));
}

TEST(BspatchTest, AppliesBsdiffPatchOfAModifiedLibraryCopy) {
    const std::string library = CRYPTO_LIBRARY;
    if (!FileExists(library))
        GTEST_SKIP() << "libcrypto not found";
    Fixture f;
    Bytes data = ReadBytes(library);
    ASSERT_GT(data.size(), 2u * 1024 * 1024);
    WriteBytes(f.oldPath, data);
    // Scattered byte changes, an inserted block, a removed block and a new tail.
    for (size_t i = 0; i < data.size() / 3; i += 997)
        data[i] ^= 0x5A;
    const Bytes inserted = RandomBytes(4096, 7);
    data.insert(data.begin() + static_cast<long>(data.size() / 2), inserted.begin(),
                inserted.end());
    data.erase(data.end() - 200000, data.end() - 190000);
    const Bytes tail = Text(std::string(400, 't'));
    data.insert(data.end(), tail.begin(), tail.end());
    WriteBytes(f.newPath, data);

    f.makePatchWithBsdiff(f.oldPath, f.newPath);
    std::string detail;
    ASSERT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath, &detail), BspatchResult::Success)
        << detail;
    EXPECT_TRUE(ReadBytes(f.outPath) == data);
    // Backwards as well.
    const std::string backPatch = f.dir.file("back.patch");
    ASSERT_EQ(RunProgram({"/usr/bin/bsdiff", f.newPath, f.oldPath, backPatch}), 0);
    ASSERT_EQ(RunProgram({BSPATCH_PROGRAM, f.outPath, f.outPath, backPatch}), 0);
    EXPECT_TRUE(ReadBytes(f.outPath) == ReadBytes(f.oldPath));
}

TEST(BspatchTest, AppliesBsdiffPatchesOfSmallAndUnrelatedFiles) {
    Fixture f;
    const std::vector<std::pair<Bytes, Bytes>> pairs = {
        {Text("a"), Text("b")},
        {Text("hello world\n"), Text("hello brave new world\n")},
        {Text("identical content"), Text("identical content")},
        {RandomBytes(100000, 1), RandomBytes(150000, 2)},
        {RandomBytes(300000, 3), Text("short")},
    };
    for (const auto& [oldData, newData] : pairs) {
        WriteBytes(f.oldPath, oldData);
        WriteBytes(f.newPath, newData);
        f.makePatchWithBsdiff(f.oldPath, f.newPath);
        std::string detail;
        ASSERT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath, &detail),
                  BspatchResult::Success)
            << detail;
        EXPECT_TRUE(ReadBytes(f.outPath) == newData) << newData.size();
    }
}

// ---- the format's own rules, checked against Debian's bspatch ----

TEST(BspatchTest, OldBytesOutsideTheOldFileCountAsZero) {
    Fixture f;
    WriteBytes(f.oldPath, Text("ABCDEFGH"));
    // Add 4 bytes from old position -2 (two outside, two inside), copy 2 extra bytes, jump
    // far past the end, add 3 bytes there (all outside), then come back and add the tail.
    const std::vector<BsdiffControl> controls = {{0, 0, -2}, {4, 2, 100}, {3, 0, -103}, {4, 0, 0}};
    const Bytes diff = {1, 1, 1, 1, 'x', 'y', 'z', 0, 0, 0, 1};
    const Bytes extra = Text("!?");
    WriteBytes(f.patchPath, MakePatch(controls, diff, extra, 13));
    std::string detail;
    ASSERT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath, &detail), BspatchResult::Success)
        << detail;
    const Bytes expected = {1, 1, 'B', 'C', '!', '?', 'x', 'y', 'z', 'C', 'D', 'E', 'G'};
    EXPECT_TRUE(ReadBytes(f.outPath) == expected);
    ASSERT_EQ(RunProgram({"/usr/bin/bspatch", f.oldPath, f.newPath, f.patchPath}), 0);
    EXPECT_TRUE(ReadBytes(f.newPath) == expected);
}

TEST(BspatchTest, EmptyOldAndEmptyNewFiles) {
    Fixture f;
    WriteBytes(f.oldPath, {});
    WriteBytes(f.patchPath, MakePatch({{0, 5, 0}}, {}, Text("fresh"), 5));
    ASSERT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath), BspatchResult::Success);
    EXPECT_EQ(ReadTextFile(f.outPath), "fresh");

    WriteBytes(f.oldPath, Text("something"));
    WriteBytes(f.patchPath, MakePatch({}, {}, {}, 0));
    ASSERT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath), BspatchResult::Success);
    EXPECT_TRUE(FileExists(f.outPath));
    EXPECT_EQ(ReadTextFile(f.outPath), "");
}

// ---- hostile and damaged patches ----

struct HostileCase {
    const char* name;
    Bytes patch;
    BspatchResult expected;
};

std::vector<HostileCase> HostileCases() {
    const Bytes fiveBytes = Text("12345");
    const Bytes goodControl = Bzip2(ControlBytes({{5, 0, 0}}));
    const Bytes goodDiff = Bzip2({0, 0, 0, 0, 0});
    const Bytes emptyExtra = Bzip2({});
    auto header = [](int64_t control, int64_t diff, int64_t newSize) {
        Bytes bytes(kBsdiffHeaderSize);
        EncodeBsdiffHeader({control, diff, newSize},
                           std::span<uint8_t, kBsdiffHeaderSize>(bytes.data(), kBsdiffHeaderSize));
        return bytes;
    };
    auto withSign = [](Bytes patch, size_t field) {
        patch[8 + field * 8 + 7] |= 0x80;
        return patch;
    };
    const Bytes good = BuildPatch(goodControl, goodDiff, emptyExtra, 5);
    Bytes wrongMagic = good;
    wrongMagic[6] = '3';
    Bytes trailingGarbage = good;
    trailingGarbage.push_back(0);
    Bytes damagedDiff = good;
    damagedDiff[kBsdiffHeaderSize + goodControl.size() + goodDiff.size() / 2] ^= 0x10;

    return {
        {"empty file", {}, BspatchResult::NotBsdiffPatch},
        {"short header", Text("BSDIFF40abc"), BspatchResult::NotBsdiffPatch},
        {"wrong magic", wrongMagic, BspatchResult::NotBsdiffPatch},
        {"negative control length", withSign(good, 0), BspatchResult::NotBsdiffPatch},
        {"negative diff length", withSign(good, 1), BspatchResult::NotBsdiffPatch},
        {"negative new size", withSign(good, 2), BspatchResult::NotBsdiffPatch},
        {"huge control length", BuildPatch(goodControl, goodDiff, emptyExtra, 5, kMax),
         BspatchResult::CorruptPatch},
        {"huge diff length", BuildPatch(goodControl, goodDiff, emptyExtra, 5, std::nullopt, kMax),
         BspatchResult::CorruptPatch},
        {"control and diff lengths overflow together",
         BuildPatch(goodControl, goodDiff, emptyExtra, 5, kMax - 10, kMax - 10),
         BspatchResult::CorruptPatch},
        {"header only, with blocks promised", header(40, 40, 5), BspatchResult::CorruptPatch},
        {"huge new size", BuildPatch(goodControl, goodDiff, emptyExtra, int64_t{1} << 62),
         BspatchResult::CorruptPatch},
        {"negative add length", MakePatch({{-5, 10, 0}}, fiveBytes, fiveBytes, 5),
         BspatchResult::CorruptPatch},
        {"negative copy length", MakePatch({{5, -5, 0}}, fiveBytes, fiveBytes, 5),
         BspatchResult::CorruptPatch},
        {"add past the new size", MakePatch({{6, 0, 0}}, Text("123456"), {}, 5),
         BspatchResult::CorruptPatch},
        {"huge add length", MakePatch({{kMax, 0, 0}}, fiveBytes, {}, 5),
         BspatchResult::CorruptPatch},
        {"copy past the new size", MakePatch({{2, 4, 0}}, Text("12"), Text("3456"), 5),
         BspatchResult::CorruptPatch},
        {"huge copy length", MakePatch({{0, kMax, 0}}, {}, fiveBytes, 5),
         BspatchResult::CorruptPatch},
        {"old position overflows on seek",
         MakePatch({{1, 0, kMax}, {1, 0, kMax}, {3, 0, 0}}, fiveBytes, {}, 5),
         BspatchResult::CorruptPatch},
        {"old position overflows on add", MakePatch({{0, 0, kMax}, {5, 0, 0}}, fiveBytes, {}, 5),
         BspatchResult::CorruptPatch},
        {"old position underflows",
         MakePatch({{0, 0, -kMax}, {0, 0, -kMax}, {5, 0, 0}}, fiveBytes, {}, 5),
         BspatchResult::CorruptPatch},
        {"diff block too short", MakePatch({{5, 0, 0}}, Text("123"), {}, 5),
         BspatchResult::CorruptPatch},
        {"extra block too short", MakePatch({{0, 5, 0}}, {}, Text("123"), 5),
         BspatchResult::CorruptPatch},
        {"control block too short", MakePatch({{2, 0, 0}}, fiveBytes, {}, 5),
         BspatchResult::CorruptPatch},
        {"control block not bzip2", BuildPatch(ControlBytes({{5, 0, 0}}), goodDiff, emptyExtra, 5),
         BspatchResult::CorruptPatch},
        {"control entries after the end", MakePatch({{5, 0, 0}, {0, 0, 0}}, fiveBytes, {}, 5),
         BspatchResult::CorruptPatch},
        {"unused diff bytes", MakePatch({{5, 0, 0}}, Text("123456"), {}, 5),
         BspatchResult::CorruptPatch},
        {"unused extra bytes", MakePatch({{5, 0, 0}}, fiveBytes, Text("x"), 5),
         BspatchResult::CorruptPatch},
        {"garbage after the extra block", trailingGarbage, BspatchResult::CorruptPatch},
        {"damaged diff block", damagedDiff, BspatchResult::CorruptPatch},
        {"new size never reached", MakePatch({{5, 0, 0}}, fiveBytes, {}, 6),
         BspatchResult::CorruptPatch},
    };
}

TEST(BspatchTest, HostilePatchesFailWithoutWritingTheNewFile) {
    Fixture f;
    WriteBytes(f.oldPath, Text("abcdefgh"));
    for (const HostileCase& c : HostileCases()) {
        SCOPED_TRACE(c.name);
        WriteBytes(f.patchPath, c.patch);
        std::string detail;
        EXPECT_EQ(ApplyBsdiffPatch(f.oldPath, f.newPath, f.patchPath, &detail), c.expected);
        EXPECT_FALSE(detail.empty());
        EXPECT_EQ(FolderEntries(f.dir.path()), (std::vector<std::string>{"old", "patch"}));
    }
}

TEST(BspatchTest, HostilePatchesMakeTheProgramFail) {
    Fixture f;
    WriteBytes(f.oldPath, Text("abcdefgh"));
    for (const HostileCase& c : HostileCases()) {
        SCOPED_TRACE(c.name);
        WriteBytes(f.patchPath, c.patch);
        EXPECT_EQ(RunProgram({BSPATCH_PROGRAM, f.oldPath, f.newPath, f.patchPath}, {}, {},
                             f.logs.file("stderr")),
                  1);
        EXPECT_EQ(FolderEntries(f.dir.path()), (std::vector<std::string>{"old", "patch"}));
    }
}

TEST(BspatchTest, EveryTruncationOfARealPatchFails) {
    Fixture f;
    Bytes oldData = RandomBytes(20000, 11);
    Bytes newData = oldData;
    for (size_t i = 0; i < newData.size(); i += 301)
        newData[i] = static_cast<uint8_t>(newData[i] + 3);
    newData.insert(newData.begin() + 5000, 300, 'N');
    WriteBytes(f.oldPath, oldData);
    WriteBytes(f.newPath, newData);
    f.makePatchWithBsdiff(f.oldPath, f.newPath);
    const Bytes patch = ReadBytes(f.patchPath);
    ASSERT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath), BspatchResult::Success);
    ASSERT_TRUE(ReadBytes(f.outPath) == newData);

    // An earlier output stays as it was when a later patch fails.
    WriteTextFile(f.outPath, "earlier output");
    const std::string cut = f.dir.file("cut");
    for (size_t length = 0; length < patch.size(); ++length) {
        WriteBytes(cut, Bytes(patch.begin(), patch.begin() + static_cast<long>(length)));
        const BspatchResult result = ApplyBsdiffPatch(f.oldPath, f.outPath, cut);
        ASSERT_NE(result, BspatchResult::Success) << "truncated to " << length;
        ASSERT_EQ(ReadTextFile(f.outPath), "earlier output");
    }
    EXPECT_EQ(FolderEntries(f.dir.path()),
              (std::vector<std::string>{"cut", "new", "old", "out", "patch"}));
}

TEST(BspatchTest, EveryDamagedByteOfARealPatchFailsOrGivesTheRightFile) {
    Fixture f;
    Bytes oldData = RandomBytes(8000, 21);
    Bytes newData = oldData;
    for (size_t i = 0; i < newData.size(); i += 97)
        newData[i] ^= 0xFF;
    newData.insert(newData.end(), 500, 'T');
    WriteBytes(f.oldPath, oldData);
    WriteBytes(f.newPath, newData);
    f.makePatchWithBsdiff(f.oldPath, f.newPath);
    const Bytes patch = ReadBytes(f.patchPath);

    const std::string damaged = f.dir.file("damaged");
    int unharmed = 0;
    int refused = 0;
    for (size_t at = 0; at < patch.size(); ++at) {
        for (uint8_t mask : {uint8_t{0x01}, uint8_t{0x80}}) {
            Bytes copy = patch;
            copy[at] ^= mask;
            WriteBytes(damaged, copy);
            // Some bits of a bzip2 stream do not change what it decodes to (the block size
            // digit, code lengths of unused symbols, padding); those may give the right file.
            // Every other change must fail whole: the block checksums catch wrong output.
            const BspatchResult result = ApplyBsdiffPatch(f.oldPath, f.outPath, damaged);
            if (result == BspatchResult::Success) {
                ++unharmed;
                ASSERT_TRUE(ReadBytes(f.outPath) == newData) << "byte " << at;
                ASSERT_EQ(::unlink(f.outPath.c_str()), 0);
            } else {
                ++refused;
                ASSERT_FALSE(FileExists(f.outPath)) << "byte " << at;
            }
        }
    }
    EXPECT_EQ(refused + unharmed, static_cast<int>(2 * patch.size()));
    EXPECT_GT(refused, 9 * unharmed);
}

TEST(BspatchTest, FuzzSeedsAreWholePatches) {
    // Each seed is the old file's length (two bytes), the old file and a bsdiff patch.
    Fixture f;
    int seeds = 0;
    for (const auto& entry : std::filesystem::directory_iterator(FUZZ_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        const Bytes seed = ReadBytes(entry.path().string());
        ASSERT_GE(seed.size(), 2u);
        const size_t oldSize = seed[0] | (seed[1] << 8);
        ASSERT_GE(seed.size(), 2 + oldSize + kBsdiffHeaderSize);
        WriteBytes(f.oldPath,
                   Bytes(seed.begin() + 2, seed.begin() + 2 + static_cast<long>(oldSize)));
        WriteBytes(f.patchPath, Bytes(seed.begin() + 2 + static_cast<long>(oldSize), seed.end()));
        std::string detail;
        EXPECT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath, &detail),
                  BspatchResult::Success)
            << detail;
        ++seeds;
    }
    EXPECT_GE(seeds, 3);
}

// ---- the program ----

TEST(BspatchTest, ProgramExitStatusAndArguments) {
    Fixture f;
    WriteBytes(f.oldPath, Text("old content"));
    WriteBytes(f.newPath, Text("new content, longer"));
    f.makePatchWithBsdiff(f.oldPath, f.newPath);
    const std::string errors = f.logs.file("stderr");

    // A wrong command line: 2, as for the other tools.
    EXPECT_EQ(RunProgram({BSPATCH_PROGRAM}, {}, {}, errors), 2);
    EXPECT_EQ(RunProgram({BSPATCH_PROGRAM, f.oldPath, f.outPath}, {}, {}, errors), 2);
    EXPECT_EQ(RunProgram({BSPATCH_PROGRAM, f.oldPath, f.outPath, f.patchPath, "x"}, {}, {}, errors),
              2);
    EXPECT_FALSE(FileExists(f.outPath));

    // Missing inputs and an output folder that does not exist.
    EXPECT_EQ(RunProgram({BSPATCH_PROGRAM, f.dir.file("missing"), f.outPath, f.patchPath}, {}, {},
                         errors),
              1);
    EXPECT_EQ(
        RunProgram({BSPATCH_PROGRAM, f.oldPath, f.outPath, f.dir.file("missing")}, {}, {}, errors),
        1);
    EXPECT_EQ(
        RunProgram({BSPATCH_PROGRAM, f.oldPath, f.dir.file("no/such/folder/out"), f.patchPath}, {},
                   {}, errors),
        1);
    EXPECT_EQ(RunProgram({BSPATCH_PROGRAM, f.oldPath, f.outPath, f.dir.path()}, {}, {}, errors), 1);
    EXPECT_FALSE(FileExists(f.outPath));
    EXPECT_EQ(ApplyBsdiffPatch(f.dir.file("missing"), f.outPath, f.patchPath),
              BspatchResult::OldFileUnreadable);
    EXPECT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.dir.file("missing")),
              BspatchResult::PatchUnreadable);
    EXPECT_EQ(ApplyBsdiffPatch(f.oldPath, f.dir.file("no/such/folder/out"), f.patchPath),
              BspatchResult::OutputFailed);

    // Success replaces an existing file whole, with mode 0666 less the umask, like Debian's.
    WriteTextFile(f.outPath, "something that was there before and is longer than the result");
    ::chmod(f.outPath.c_str(), 0700);
    ASSERT_EQ(RunProgram({BSPATCH_PROGRAM, f.oldPath, f.outPath, f.patchPath}), 0);
    EXPECT_EQ(ReadTextFile(f.outPath), "new content, longer");
    const std::string reference = f.dir.file("reference");
    ASSERT_EQ(RunProgram({"/usr/bin/bspatch", f.oldPath, reference, f.patchPath}), 0);
    struct stat ours {};
    struct stat theirs {};
    ASSERT_EQ(::stat(f.outPath.c_str(), &ours), 0);
    ASSERT_EQ(::stat(reference.c_str(), &theirs), 0);
    EXPECT_EQ(ours.st_mode & 07777, theirs.st_mode & 07777);
    EXPECT_EQ(FolderEntries(f.dir.path()),
              (std::vector<std::string>{"new", "old", "out", "patch", "reference"}));
}

TEST(BspatchTest, TheBundleCarriesTheProgram) {
    const std::string bundled = BUNDLED_BSPATCH;
    ASSERT_TRUE(FileExists(bundled));
    EXPECT_EQ(::access(bundled.c_str(), X_OK), 0);
    EXPECT_TRUE(ReadBytes(bundled) == ReadBytes(BSPATCH_PROGRAM));
}

struct ChildRun {
    int status = -1;    // exit status; -1 when it did not run or did not exit normally
    long peakBytes = 0; // peak resident memory
};

// Runs a program with an optional limit on the size of the files it writes; writes past the
// limit fail with EFBIG instead of raising SIGXFSZ.
ChildRun RunChild(const std::vector<std::string>& argv, rlim_t fileSizeLimit = RLIM_INFINITY) {
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ChildRun run;
    const pid_t pid = ::fork();
    if (pid < 0)
        return run;
    if (pid == 0) {
        if (fileSizeLimit != RLIM_INFINITY) {
            const struct rlimit limit = {fileSizeLimit, fileSizeLimit};
            ::setrlimit(RLIMIT_FSIZE, &limit);
            ::signal(SIGXFSZ, SIG_IGN);
        }
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    struct rusage usage {};
    if (::wait4(pid, &status, 0, &usage) != pid)
        return run;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.peakBytes = usage.ru_maxrss * 1024L;
    return run;
}

TEST(BspatchTest, AFailedWriteLeavesNoPartialFile) {
    Fixture f;
    const Bytes oldData = RandomBytes(300000, 41);
    Bytes diff(oldData.size(), 0);
    diff[1000] = 1;
    WriteBytes(f.oldPath, oldData);
    WriteBytes(f.patchPath, MakePatch({{static_cast<int64_t>(oldData.size()), 0, 0}}, diff, {},
                                      static_cast<int64_t>(oldData.size())));
    WriteTextFile(f.outPath, "previous output");
    // The program may write at most 64 KiB per file: the new file cannot be completed.
    EXPECT_EQ(RunChild({BSPATCH_PROGRAM, f.oldPath, f.outPath, f.patchPath}, 64 * 1024).status, 1);
    EXPECT_EQ(ReadTextFile(f.outPath), "previous output");
    EXPECT_EQ(FolderEntries(f.dir.path()), (std::vector<std::string>{"old", "out", "patch"}));
    // Without the limit the same run succeeds.
    EXPECT_EQ(RunChild({BSPATCH_PROGRAM, f.oldPath, f.outPath, f.patchPath}).status, 0);
    Bytes expected = oldData;
    expected[1000] = static_cast<uint8_t>(expected[1000] + 1);
    EXPECT_TRUE(ReadBytes(f.outPath) == expected);
}

// A patch that cuts 10,000 bytes out of 200,000 random ones and inserts a short text there,
// in a memory file: the old bytes, and the new file it makes.
struct CutAndInsert {
    Bytes oldData;
    Bytes expected;
    int fd = -1;
    explicit CutAndInsert(uint32_t seed) : oldData(RandomBytes(200000, seed)) {
        const Bytes extra = Text("inserted text");
        const std::vector<BsdiffControl> controls = {{50000, 13, 10000}, {140000, 0, 0}};
        const Bytes patch = MakePatch(controls, Bytes(190000, 0), extra, 190013);
        expected.assign(oldData.begin(), oldData.begin() + 50000);
        expected.insert(expected.end(), extra.begin(), extra.end());
        expected.insert(expected.end(), oldData.begin() + 60000, oldData.end());
        fd = ::memfd_create("patch", MFD_CLOEXEC);
        if (fd >= 0 &&
            ::write(fd, patch.data(), patch.size()) != static_cast<ssize_t>(patch.size())) {
            ::close(fd);
            fd = -1;
        }
    }
    ~CutAndInsert() {
        if (fd >= 0)
            ::close(fd);
    }
    CutAndInsert(const CutAndInsert&) = delete;
    CutAndInsert& operator=(const CutAndInsert&) = delete;
};

TEST(BspatchTest, PatchesIntoASinkAndStopsWhenItRefuses) {
    const CutAndInsert sample(51);
    ASSERT_GE(sample.fd, 0);
    Bytes received;
    EXPECT_EQ(ApplyBsdiffPatchToSink(sample.oldData, sample.fd,
                                     [&](const uint8_t* data, size_t size) {
                                         received.insert(received.end(), data, data + size);
                                         return true;
                                     }),
              BspatchResult::Success);
    EXPECT_TRUE(received == sample.expected);

    size_t accepted = 0;
    std::string detail;
    EXPECT_EQ(ApplyBsdiffPatchToSink(
                  sample.oldData, sample.fd,
                  [&](const uint8_t*, size_t size) {
                      accepted += size;
                      return accepted < 100000;
                  },
                  &detail),
              BspatchResult::OutputFailed);
    EXPECT_LT(accepted, 100000u + 64 * 1024);
    EXPECT_EQ(detail, "the new file cannot be written");
}

TEST(BspatchTest, PatchesInPlaceIntoTheMemoryGiven) {
    const CutAndInsert sample(52);
    ASSERT_GE(sample.fd, 0);
    // Every piece the sink sees is the next stretch of the memory given.
    Bytes into(sample.expected.size() + 7, 0xAA);
    size_t at = 0;
    EXPECT_EQ(ApplyBsdiffPatchInto(sample.oldData, sample.fd, into,
                                   [&](const uint8_t* data, size_t size) {
                                       EXPECT_EQ(data, into.data() + at);
                                       at += size;
                                       return true;
                                   }),
              BspatchResult::Success);
    EXPECT_EQ(at, sample.expected.size());
    EXPECT_TRUE(Bytes(into.begin(), into.begin() + static_cast<std::ptrdiff_t>(at)) ==
                sample.expected);
    EXPECT_EQ(into.back(), 0xAA) << "nothing written past the new file";

    // Too little room: nothing made.
    Bytes small(sample.expected.size() - 1, 0);
    std::string detail;
    EXPECT_EQ(
        ApplyBsdiffPatchInto(
            sample.oldData, sample.fd, small, [](const uint8_t*, size_t) { return true; }, &detail),
        BspatchResult::OutputFailed);
    EXPECT_EQ(detail, "the new file is larger than the memory given for it");
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

TEST(BspatchTest, MemoryStaysWithinOldSizePlusAConstant) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer's shadow memory hides the program's own use";
    Fixture f;
    size_t oldSize = 0;
    {
        // 16 MB of old data whose new version differs throughout.
        const Bytes oldData = RandomBytes(16 * 1024 * 1024, 31);
        Bytes newData = oldData;
        for (size_t i = 0; i < newData.size(); i += 4096)
            newData[i] ^= 1;
        WriteBytes(f.oldPath, oldData);
        WriteBytes(f.newPath, newData);
        // Built by hand (bsdiff would take long on 16 MB): add everything, with the diff block
        // holding the few changed bytes.
        Bytes diff(newData.size(), 0);
        for (size_t i = 0; i < newData.size(); i += 4096)
            diff[i] = static_cast<uint8_t>(newData[i] - oldData[i]);
        WriteBytes(f.patchPath, MakePatch({{static_cast<int64_t>(newData.size()), 0, 0}}, diff, {},
                                          static_cast<int64_t>(newData.size())));
        oldSize = oldData.size();
    }
    // The buffers are gone before the fork: a child's peak includes what it was forked with.
    const ChildRun run = RunChild({BSPATCH_PROGRAM, f.oldPath, f.outPath, f.patchPath});
    ASSERT_EQ(run.status, 0);
    EXPECT_TRUE(ReadBytes(f.outPath) == ReadBytes(f.newPath));
    std::printf("bspatch peak memory: %ld KiB for a %zu KiB old file\n", run.peakBytes / 1024,
                oldSize / 1024);
    EXPECT_LT(run.peakBytes, static_cast<long>(oldSize) + 24L * 1024 * 1024);
}

} // namespace

// New files of a megabyte and more have their diff block decompressed on a second thread:
// the same bytes, and the same failures, as when it is decompressed while reading.
TEST(BspatchTest, LargeFilesGiveTheSameResultsWithTheDiffBlockDecompressedAhead) {
    Fixture f;
    constexpr size_t kSize = 3 << 20;
    const Bytes oldData = RandomBytes(kSize, 5);
    Bytes delta(kSize, 0);
    for (size_t i = 0; i < delta.size(); i += 4093)
        delta[i] = static_cast<uint8_t>(i / 4093 + 1);
    Bytes newData = oldData;
    for (size_t i = 0; i < kSize; ++i)
        newData[i] = static_cast<uint8_t>(newData[i] + delta[i]);
    const Bytes tail = Text("and a tail from the extra block");
    newData.insert(newData.end(), tail.begin(), tail.end());
    WriteBytes(f.oldPath, oldData);
    const auto size = static_cast<int64_t>(kSize);
    const auto newSize = static_cast<int64_t>(newData.size());

    struct Case {
        const char* name;
        Bytes patch;
        BspatchResult expected;
    };
    Bytes shortDelta(delta.begin(), delta.end() - 1);
    Bytes longDelta = delta;
    longDelta.push_back(7);
    Bytes damagedDiff = Bzip2(delta);
    damagedDiff[damagedDiff.size() / 2] ^= 0x55;
    const std::vector<Case> cases = {
        {"good", MakePatch({{size, static_cast<int64_t>(tail.size()), 0}}, delta, tail, newSize),
         BspatchResult::Success},
        {"diff block too short",
         MakePatch({{size, static_cast<int64_t>(tail.size()), 0}}, shortDelta, tail, newSize),
         BspatchResult::CorruptPatch},
        {"unused diff bytes",
         MakePatch({{size, static_cast<int64_t>(tail.size()), 0}}, longDelta, tail, newSize),
         BspatchResult::CorruptPatch},
        {"damaged diff block",
         BuildPatch(Bzip2(ControlBytes({{size, static_cast<int64_t>(tail.size()), 0}})),
                    damagedDiff, Bzip2(tail), newSize),
         BspatchResult::CorruptPatch},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(f.outPath);
        WriteBytes(f.patchPath, c.patch);
        std::string detail;
        EXPECT_EQ(ApplyBsdiffPatch(f.oldPath, f.outPath, f.patchPath, &detail), c.expected)
            << detail;
        if (c.expected == BspatchResult::Success)
            EXPECT_EQ(ReadBytes(f.outPath), newData);
        else
            EXPECT_FALSE(std::filesystem::exists(f.outPath));
    }
}
