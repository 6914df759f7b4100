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

TEST(FileManagerAttributes, WhatAFileHasAlreadyIsNotSetAgain) {
    TempDir dir;
    const std::string file = dir.file("program");
    WriteTextFile(file, "#!/bin/sh\n");
    ASSERT_EQ(::chmod(file.c_str(), 0755), 0);
    FaultInjectingFileSystem counting;
    const FileManager files(counting);
    // The mode, owner and group it has: no call at all.
    EXPECT_TRUE(files.setAttribute(file, 0755, "root", "root"));
    EXPECT_EQ(counting.calls(), 0u);
    // Another mode is set.
    EXPECT_TRUE(files.setAttribute(file, 0700, std::nullopt, std::nullopt));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_all);
    EXPECT_EQ(counting.calls(), 1u);
    // Giving a set-user-ID program its own owner still clears that bit, as a real change of
    // owner does, when no mode is given to set afterwards.
    ASSERT_EQ(::chmod(file.c_str(), 04755), 0);
    EXPECT_TRUE(files.setAttribute(file, 0, "root", std::nullopt));
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    // With the mode given, it ends as given.
    ASSERT_EQ(::chmod(file.c_str(), 04755), 0);
    EXPECT_TRUE(files.setAttribute(file, 04755, "root", "root"));
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 04755u);
}
