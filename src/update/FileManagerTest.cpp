#include "update/FileManager.h"

#include "TestSupport.h"
#include "system/FileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// A folder of count files, a large subfolder, and a link to a file outside that must stay.
std::string LargeFolder(const TempDir& dir, size_t count) {
    const std::string folder = dir.file("large");
    for (size_t i = 0; i < count; ++i)
        WriteTextFile(folder + "/f" + std::to_string(i), "file " + std::to_string(i));
    for (size_t i = 0; i < FileManager::kEntriesForTwoThreads; ++i)
        WriteTextFile(folder + "/sub/g" + std::to_string(i), "inner " + std::to_string(i));
    WriteTextFile(dir.file("outside.txt"), "keep me");
    EXPECT_EQ(::symlink(dir.file("outside.txt").c_str(), (folder + "/link").c_str()), 0);
    return folder;
}

} // namespace

TEST(FileManagerRemove, ALargeFolderIsRemovedWholeAndNothingALinkLeadsTo) {
    TempDir dir;
    const std::string folder = LargeFolder(dir, 1000);
    EXPECT_TRUE(FileManager().removeItem(folder));
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder)));
    EXPECT_EQ(ReadTextFile(dir.file("outside.txt")), "keep me");
}

TEST(FileManagerRemove, AFailedRemovalInEitherHalfFailsTheFolder) {
    for (const uint64_t failing : {3u, 700u, 1200u}) {
        TempDir dir;
        const std::string folder = LargeFolder(dir, 1000);
        FaultInjectingFileSystem faulty;
        faulty.failCall(failing, EIO);
        EXPECT_FALSE(FileManager(faulty).removeItem(folder)) << "call " << failing;
        EXPECT_TRUE(faulty.failed()) << "call " << failing;
        EXPECT_TRUE(fs::is_directory(folder)) << "call " << failing;
        // A second try, with the fault gone, finishes the work.
        EXPECT_TRUE(FileManager().removeItem(folder));
        EXPECT_FALSE(fs::exists(fs::symlink_status(folder)));
        EXPECT_EQ(ReadTextFile(dir.file("outside.txt")), "keep me");
    }
}
