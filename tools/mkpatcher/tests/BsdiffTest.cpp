// mkpatcher's bsdiff: patches of real binaries that Debian's bspatch and ours apply byte for
// byte, the edge cases, and the size against Debian's bsdiff.

#include "Bsdiff.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

// A new version of a program as a rebuild makes it: bytes changed here and there, a piece
// inserted, a piece removed, a tail appended.
std::string Modified(std::string data) {
    for (size_t i = 4096; i + 8 < data.size(); i += 65521)
        data[i] = static_cast<char>(data[i] + 1);
    if (data.size() > 200000) {
        data.insert(data.size() / 3, RandomText(5000, 7));
        data.erase(data.size() / 2, 3000);
    }
    return data + "new tail of the file";
}

class BsdiffTest : public ::testing::Test {
protected:
    // Makes a patch with mkpatcher and applies it with Debian's bspatch and with ours.
    Bsdiff::Stats RoundTrip(const std::string& oldData, const std::string& newData) {
        const std::string oldPath = temp.file("old");
        const std::string newPath = temp.file("new");
        WriteTextFile(oldPath, oldData);
        WriteTextFile(newPath, newData);
        EXPECT_EQ(RunProgram({MKPATCHER_PROGRAM, "bsdiff", oldPath, newPath, temp.file("patch")},
                             {}, temp.file("stdout"), temp.file("stderr")),
                  0)
            << ReadTextFile(temp.file("stderr"));
        EXPECT_EQ(RunProgram({"bspatch", oldPath, temp.file("debian-out"), temp.file("patch")}), 0);
        EXPECT_TRUE(ReadTextFile(temp.file("debian-out")) == newData)
            << "Debian's bspatch gave a different file";
        EXPECT_EQ(RunProgram({OUR_BSPATCH, oldPath, temp.file("our-out"), temp.file("patch")}), 0);
        EXPECT_TRUE(ReadTextFile(temp.file("our-out")) == newData)
            << "our bspatch gave a different file";

        // The library gives the same patch as the program.
        Bsdiff::Stats stats;
        std::vector<uint8_t> patch;
        std::string error;
        EXPECT_TRUE(Bsdiff::diff({reinterpret_cast<const uint8_t*>(oldData.data()), oldData.size()},
                                 {reinterpret_cast<const uint8_t*>(newData.data()), newData.size()},
                                 &patch, &error, &stats))
            << error;
        EXPECT_TRUE(std::string(patch.begin(), patch.end()) == ReadTextFile(temp.file("patch")));
        EXPECT_EQ(stats.patchBytes, patch.size());
        return stats;
    }

    TempDir temp;
};

TEST_F(BsdiffTest, RealLibraryWithRebuildLikeChanges) {
    const std::string old = ReadTextFile(CRYPTO_LIBRARY);
    ASSERT_GT(old.size(), 1000000u);
    const std::string changed = Modified(old);
    const auto stats = RoundTrip(old, changed);
    // Most of the file is found in the old one: the patch is a small part of the new file.
    EXPECT_LT(stats.patchBytes, changed.size() / 50);
    EXPECT_LT(stats.extraBytes, 20000u);
}

TEST_F(BsdiffTest, TwoRelatedRealPrograms) {
    // Two programs of the same package, built from mostly the same sources.
    const std::string old = ReadTextFile(CPACK_PROGRAM);
    const std::string changed = ReadTextFile(CTEST_PROGRAM);
    ASSERT_GT(old.size(), 1000000u);
    const auto stats = RoundTrip(old, changed);
    EXPECT_LT(stats.patchBytes, changed.size() / 2);
}

TEST_F(BsdiffTest, PatchIsNoLargerThanDebiansBsdiff) {
    const std::string old = ReadTextFile(CRYPTO_LIBRARY);
    const std::string changed = Modified(old);
    WriteTextFile(temp.file("old"), old);
    WriteTextFile(temp.file("new"), changed);
    ASSERT_EQ(RunProgram({"bsdiff", temp.file("old"), temp.file("new"), temp.file("debian")}), 0);
    Bsdiff::Stats stats;
    std::string error;
    ASSERT_TRUE(
        Bsdiff::diffFiles(temp.file("old"), temp.file("new"), temp.file("ours"), &error, &stats))
        << error;
    const auto debianSize = fs::file_size(temp.file("debian"));
    EXPECT_LE(static_cast<double>(stats.patchBytes), 1.02 * static_cast<double>(debianSize))
        << "ours " << stats.patchBytes << ", Debian's " << debianSize;
}

TEST_F(BsdiffTest, EdgeCases) {
    const std::string binary = ReadTextFile(CRYPTO_LIBRARY).substr(0, 300000);
    struct Case {
        const char* name;
        std::string oldData;
        std::string newData;
    };
    const std::vector<Case> cases = {
        {"both empty", "", ""},
        {"empty old", "", binary},
        {"empty new", binary, ""},
        {"identical", binary, binary},
        {"one byte each", "a", "b"},
        {"unrelated", RandomText(200000, 1), RandomText(150000, 2)},
        {"new is a piece of old", binary, binary.substr(100000, 50000)},
        {"old is a piece of new", binary.substr(100000, 50000), binary},
        {"long runs of one byte", std::string(100000, '\0') + "x" + std::string(100000, '\0'),
         std::string(150000, '\0') + "yz" + std::string(70000, '\0')},
        {"repeated pattern shifted",
         [] {
             std::string s;
             for (int i = 0; i < 20000; ++i)
                 s += "abcdefg";
             return s;
         }(),
         [] {
             std::string s = "X";
             for (int i = 0; i < 20000; ++i)
                 s += "abcdefg";
             return s;
         }()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto stats = RoundTrip(c.oldData, c.newData);
        EXPECT_EQ(stats.diffBytes + stats.extraBytes, c.newData.size());
        if (std::string(c.name) == "identical") {
            EXPECT_EQ(stats.extraBytes, 0u);
            EXPECT_LT(stats.patchBytes, 200u);
        }
        if (std::string(c.name) == "empty old") {
            EXPECT_EQ(stats.extraBytes, c.newData.size());
        }
    }
}

TEST_F(BsdiffTest, ProgramReportsItsFailures) {
    WriteTextFile(temp.file("new"), "data");
    EXPECT_EQ(RunProgram({MKPATCHER_PROGRAM, "bsdiff", temp.file("absent"), temp.file("new"),
                          temp.file("patch")},
                         {}, temp.file("stdout"), temp.file("stderr")),
              1);
    EXPECT_NE(ReadTextFile(temp.file("stderr")).find("cannot open " + temp.file("absent")),
              std::string::npos);
    EXPECT_FALSE(fs::exists(temp.file("patch")));
    EXPECT_EQ(RunProgram({MKPATCHER_PROGRAM, "bsdiff", temp.file("new")}, {}, temp.file("stdout"),
                         temp.file("stderr")),
              2);
    EXPECT_NE(ReadTextFile(temp.file("stderr")).find("bsdiff needs OLD NEW PATCH"),
              std::string::npos);
    // A folder is not a file to diff.
    EXPECT_EQ(
        RunProgram({MKPATCHER_PROGRAM, "bsdiff", temp.path(), temp.file("new"), temp.file("patch")},
                   {}, temp.file("stdout"), temp.file("stderr")),
        1);
    EXPECT_NE(ReadTextFile(temp.file("stderr")).find("is not a regular file"), std::string::npos);
}

} // namespace
