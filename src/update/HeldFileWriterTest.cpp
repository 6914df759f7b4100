#include "update/HeldFileWriter.h"

#include "TestSupport.h"
#include "base/Md5.h"
#include "update/FileManager.h"
#include "update/MD5cksum.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

namespace {

bool WaitForWritten(const HeldFileWriter& writer, size_t count) {
    return WaitUntil([&] { return writer.written() >= count; });
}

// The bytes of an unnamed file open for writing only, read back through /proc.
std::string Contents(const UniqueFd& file) {
    return ReadTextFile("/proc/self/fd/" + std::to_string(file.get()));
}

class HeldFileWriterTest : public ::testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(installed); }
    void TearDown() override { PayloadFiles::forgetBelow(payload); }

    // Holds a payload file with text, mode and a modification time of its own.
    HeldFileWriter::Copy hold(const std::string& name, const std::string& text,
                              mode_t mode = 0644) {
        PayloadFiles::File file;
        auto bytes = std::make_shared<uint8_t[]>(std::max<size_t>(text.size(), 1));
        std::memcpy(bytes.get(), text.data(), text.size());
        file.bytes = bytes;
        file.size = text.size();
        file.mode = mode;
        file.times[0] = {1700000000, 0};
        file.times[1] = {1700000000 + static_cast<time_t>(text.size()), 0};
        file.checksum = Md5OfBytes(text);
        PayloadFiles::hold(payload + "/" + name, std::move(file));
        return {payload + "/" + name, installed};
    }

    TempDir dir;
    const std::string payload = dir.file("payload");
    const std::string installed = dir.file("Editor.app/Contents/Resources");
};

} // namespace

TEST_F(HeldFileWriterTest, TheComingCopiesAreWrittenWithoutANameAndTakenByTheirEntries) {
    const std::string textA = RandomText(100000, 3);
    const auto a = hold("a", textA, 0755);
    const auto b = hold("b", "the new b");
    HeldFileWriter writer({a, std::nullopt, b});
    ASSERT_TRUE(WaitForWritten(writer, 2));
    EXPECT_TRUE(SnapshotTree(installed).empty()) << "nothing named in the folder yet";

    writer.entryStarting(0);
    const UniqueFd fileA = writer.take(a.source, a.folder);
    ASSERT_TRUE(fileA.valid());
    EXPECT_EQ(Contents(fileA), textA);
    struct stat info {};
    ASSERT_EQ(::fstat(fileA.get(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    EXPECT_EQ(info.st_mtim.tv_sec, 1700000000 + static_cast<time_t>(textA.size()));
    EXPECT_FALSE(writer.take(a.source, a.folder).valid()) << "taken once";

    writer.entryStarting(1);
    EXPECT_FALSE(writer.take(b.source, b.folder).valid()) << "entry 1 copies nothing";
    writer.entryStarting(2);
    EXPECT_FALSE(writer.take(b.source, dir.file("elsewhere")).valid()) << "not entry 2's folder";
}

TEST_F(HeldFileWriterTest, FilesWaitingStayWithinTheEntriesAndBytesAllowed) {
    const auto a = hold("a", RandomText(4000, 1));
    const auto b = hold("b", RandomText(4000, 2));
    const auto c = hold("c", RandomText(100, 3));
    // Room for one file of 4,000 bytes at a time.
    HeldFileWriter writer({a, b, c}, 8, 5000);
    ASSERT_TRUE(WaitForWritten(writer, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(writer.written(), 1u) << "b waits until a is taken";
    writer.entryStarting(0);
    EXPECT_TRUE(writer.take(a.source, a.folder).valid());
    ASSERT_TRUE(WaitForWritten(writer, 3));

    // Passing an entry drops its file, untaken.
    writer.entryStarting(2);
    const UniqueFd fileC = writer.take(c.source, c.folder);
    ASSERT_TRUE(fileC.valid());
    EXPECT_TRUE(SnapshotTree(installed).empty());
}

TEST_F(HeldFileWriterTest, ACopyIntoAFolderNotMadeYetIsLeftToItsEntry) {
    auto a = hold("a", "into a new folder");
    a.folder = installed + "/New";
    const auto b = hold("b", "into the folder");
    HeldFileWriter writer({a, b});
    ASSERT_TRUE(WaitForWritten(writer, 1)); // b
    writer.entryStarting(0);
    EXPECT_FALSE(writer.take(a.source, a.folder).valid());
    writer.entryStarting(1);
    EXPECT_TRUE(writer.take(b.source, b.folder).valid());
}

TEST_F(HeldFileWriterTest, AFileWrittenAheadIsNamedByTheCopyOfItsEntry) {
    const auto a = hold("a", "the new a", 0750);
    HeldFileWriter writer({a});
    ASSERT_TRUE(WaitForWritten(writer, 1));
    writer.entryStarting(0);
    UniqueFd fileA = writer.take(a.source, a.folder);
    ASSERT_TRUE(fileA.valid());

    FaultInjectingFileSystem recording;
    const FileManager files(recording);
    const std::string temporary = installed + "/.orvel-new.a";
    ASSERT_TRUE(files.copyItem(a.source, temporary, false, true, std::move(fileA)));
    EXPECT_EQ(ReadTextFile(temporary), "the new a");
    struct stat info {};
    ASSERT_EQ(::stat(temporary.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0750u);
    EXPECT_EQ(info.st_mtim.tv_sec, 1700000009);
    EXPECT_EQ(MD5cksum::rememberedChecksumOfFile(temporary, info), Md5OfBytes("the new a"));
    // Named, not written again.
    const auto calls = recording.callLog();
    EXPECT_EQ(calls.front(), "link-fd " + temporary);
    for (const std::string& call : calls)
        EXPECT_NE(call.rfind("write ", 0), 0u) << call;

    // Without a file written ahead, the copy is written as before.
    const std::string again = installed + "/.orvel-new.again";
    ASSERT_TRUE(files.copyItem(a.source, again, false, true));
    EXPECT_EQ(ReadTextFile(again), "the new a");
}

TEST_F(HeldFileWriterTest, StoppingDropsTheFilesNotTaken) {
    const auto a = hold("a", "never taken");
    const auto b = hold("b", "never written");
    {
        HeldFileWriter writer({a, b}, 1);
        ASSERT_TRUE(WaitForWritten(writer, 1));
    }
    EXPECT_TRUE(SnapshotTree(installed).empty());
}
