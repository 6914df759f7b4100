#include "update/MD5cksum.h"

#include "TestSupport.h"
#include "runtime/Environment.h"
#include "system/FileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <future>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class MD5cksumTest : public ::testing::Test {
protected:
    void SetUp() override { SetENVverbosityLevel("debug"); }

    // What md5sum prints for the file.
    std::string Md5sum(const std::string& path) {
        const std::string output = _dir.file("md5sum.out");
        EXPECT_EQ(RunProgram({"/usr/bin/md5sum", path}, {}, output), 0);
        return ReadTextFile(output).substr(0, 32);
    }

    TempDir _dir;
};

TEST_F(MD5cksumTest, MatchesMd5sumForFilesOfEverySize) {
    const std::vector<std::pair<std::string, std::string>> files = {
        {"empty", ""},
        {"hello", "hello\n"},
        {"one block", RandomText(256 * 1024, 1)},
        {"one block and a byte", RandomText(256 * 1024 + 1, 2)},
        {"several megabytes", RandomText(7 * 1024 * 1024 + 13, 3)},
        {"name with spaces and = signs", "= not a separator\n"},
    };
    for (const auto& [name, content] : files) {
        SCOPED_TRACE(name);
        const std::string path = _dir.file(name);
        WriteTextFile(path, content);
        LogCapture log;
        const auto digest = MD5cksum::getMD5cksumOfFile(path);
        ASSERT_TRUE(digest);
        EXPECT_EQ(*digest, Md5sum(path));
        EXPECT_EQ(digest->size(), 32u);
        EXPECT_TRUE(std::all_of(digest->begin(), digest->end(), [](char c) {
            return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        }));
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{"Checksum of file : " + path + " is : " + *digest}));
    }
    EXPECT_EQ(*MD5cksum::getMD5cksumOfFile(_dir.file("empty")), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_F(MD5cksumTest, AChecksumFromMemoryIsLoggedAsAFilesChecksum) {
    LogCapture log;
    EXPECT_EQ(MD5cksum::logChecksumOfFile("/opt/a file", "0123"), "0123");
    EXPECT_EQ(MD5cksum::logChecksumOfFile("/opt/unread", std::nullopt), std::nullopt);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Checksum of file : /opt/a file is : 0123",
                                                     "Failed to get file check sum"}));
}

TEST_F(MD5cksumTest, ARememberedChecksumHoldsOnlyWhileTheFileIsUnchanged) {
    const std::string path = _dir.file("kept");
    WriteTextFile(path, "version one\n");
    auto remember = [&] {
        struct stat info {};
        ASSERT_EQ(::stat(path.c_str(), &info), 0);
        MD5cksum::rememberChecksumOfFile(path, info, "remembered");
    };
    remember();
    {
        LogCapture log;
        EXPECT_EQ(MD5cksum::getMD5cksumOfFile(path), "remembered") << "answered from memory";
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{"Checksum of file : " + path + " is : remembered"}));
    }
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(path), "remembered");

    ::chmod(path.c_str(), 0600); // a new change time
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(path), Md5sum(path));

    remember();
    WriteTextFile(path, "version two, longer\n");
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(path), Md5sum(path));

    remember();
    const std::string other = _dir.file("other");
    WriteTextFile(other, "version 3, longer\n"); // the same size, another inode
    ASSERT_EQ(::rename(other.c_str(), path.c_str()), 0);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(path), Md5sum(path));

    remember();
    const timespec times[2] = {{0, UTIME_OMIT}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(path), Md5sum(path));
}

TEST_F(MD5cksumTest, OnlyTheLastFewFilesAreRemembered) {
    std::vector<std::string> paths;
    for (size_t i = 0; i <= MD5cksum::kRememberedFiles; ++i) {
        paths.push_back(_dir.file("file" + std::to_string(i)));
        WriteTextFile(paths.back(), "content " + std::to_string(i));
        struct stat info {};
        ASSERT_EQ(::stat(paths.back().c_str(), &info), 0);
        MD5cksum::rememberChecksumOfFile(paths.back(), info, "remembered");
    }
    for (size_t i = 1; i < paths.size(); ++i)
        EXPECT_EQ(MD5cksum::getMD5cksumOfFile(paths[i]), "remembered") << paths[i];
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(paths.front()), Md5sum(paths.front()));
}

TEST_F(MD5cksumTest, AFileReadOnceIsKnownUnderEachOfItsNames) {
    const std::string file = _dir.file("installed");
    const std::string backup = _dir.file("backup");
    WriteTextFile(file, "installed content\n");
    ASSERT_EQ(::link(file.c_str(), backup.c_str()), 0);
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    MD5cksum::rememberChecksumOfFile(file, info, "remembered");
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(backup), "remembered");
    // Read once, then answered from memory under both names.
    const std::string other = _dir.file("other");
    const std::string otherLink = _dir.file("other-link");
    WriteTextFile(other, "other content\n");
    ASSERT_EQ(::link(other.c_str(), otherLink.c_str()), 0);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(other), Md5sum(other));
    ASSERT_EQ(::stat(other.c_str(), &info), 0);
    EXPECT_EQ(MD5cksum::rememberedChecksumOfFile(other, info), Md5sum(other));
    EXPECT_EQ(MD5cksum::rememberedChecksumOfFile(otherLink, info), Md5sum(other));
    // A change through either name is seen.
    WriteTextFile(otherLink, "changed, and longer than before\n");
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(other), Md5sum(otherLink));
}

TEST_F(MD5cksumTest, AFileBeingReadAheadIsWaitedForAndNotReadTwice) {
    const std::string path = _dir.file("big");
    WriteTextFile(path, RandomText(3 * 1024 * 1024, 9));
    auto ahead = MD5cksum::openFileAhead(path);
    ASSERT_TRUE(ahead);
    // While it is being read ahead, no second read of it starts.
    EXPECT_FALSE(MD5cksum::openFileAhead(path));

    FaultInjectingFileSystem counting;
    auto asked =
        std::async(std::launch::async, [&] { return MD5cksum::getMD5cksumOfFile(path, counting); });
    EXPECT_EQ(asked.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout)
        << "answered before the read ahead ended";
    EXPECT_TRUE(MD5cksum::rememberChecksumOfFileAhead(*ahead, std::string("read ahead")));
    ahead.reset();
    EXPECT_EQ(asked.get(), "read ahead");
    EXPECT_EQ(counting.calls(), 0u);
}

TEST_F(MD5cksumTest, AReadAheadThatEndsWithoutADigestLetsTheFileBeReadOnce) {
    const std::string path = _dir.file("dropped");
    WriteTextFile(path, "dropped read\n");
    auto ahead = MD5cksum::openFileAhead(path);
    ASSERT_TRUE(ahead);
    FaultInjectingFileSystem counting;
    auto asked =
        std::async(std::launch::async, [&] { return MD5cksum::getMD5cksumOfFile(path, counting); });
    EXPECT_EQ(asked.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    ahead.reset(); // a stopped prefetcher drops its reads
    EXPECT_EQ(asked.get(), Md5sum(path));
    EXPECT_EQ(counting.calls(), 1u);
    // Ended, the file can be read ahead again once it changes.
    WriteTextFile(path, "changed since, and longer\n");
    EXPECT_TRUE(MD5cksum::openFileAhead(path));
}

TEST_F(MD5cksumTest, FollowsSymbolicLinks) {
    WriteTextFile(_dir.file("target"), "linked content\n");
    ASSERT_EQ(::symlink("target", _dir.file("link").c_str()), 0);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(_dir.file("link")), Md5sum(_dir.file("target")));
}

TEST_F(MD5cksumTest, AbsentPath) {
    LogCapture log;
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(std::nullopt), std::nullopt);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"File path should not be null"}));
}

TEST_F(MD5cksumTest, MissingFileAndDanglingLink) {
    ASSERT_EQ(::symlink("nowhere", _dir.file("dangling").c_str()), 0);
    LogCapture log;
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(_dir.file("missing")), std::nullopt);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(_dir.file("dangling")), std::nullopt);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(std::string()), std::nullopt);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"File does not exist", "File does not exist",
                                                     "File does not exist"}));
}

TEST_F(MD5cksumTest, UnreadableFiles) {
    LogCapture log;
    // A folder opens but cannot be read.
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(_dir.path()), std::nullopt);
    // The process's memory file fails its first read (nothing is mapped at address 0).
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(std::string("/proc/self/mem")), std::nullopt);
    std::vector<std::string> expected = {"Failed to get file check sum",
                                         "Failed to get file check sum"};
    if (::geteuid() != 0) {
        WriteTextFile(_dir.file("secret"), "no access");
        ASSERT_EQ(::chmod(_dir.file("secret").c_str(), 0), 0);
        EXPECT_EQ(MD5cksum::getMD5cksumOfFile(_dir.file("secret")), std::nullopt);
        expected.push_back("Failed to get file check sum");
    }
    EXPECT_EQ(log.lines(), expected);
}

TEST_F(MD5cksumTest, FailureIsLoggedAtErrorLevelOnly) {
    SetENVverbosityLevel("error");
    LogCapture log;
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(std::nullopt), std::nullopt);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(_dir.file("missing")), std::nullopt);
    EXPECT_EQ(MD5cksum::getMD5cksumOfFile(_dir.path()), std::nullopt);
    WriteTextFile(_dir.file("plain"), "x");
    EXPECT_TRUE(MD5cksum::getMD5cksumOfFile(_dir.file("plain")));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Failed to get file check sum"}));
}

} // namespace
