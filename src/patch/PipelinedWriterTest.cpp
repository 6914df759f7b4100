#include "patch/PipelinedWriter.h"

#include "TestSupport.h"
#include "base/Md5.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Gives the bytes to the writer in pieces of changing sizes, some empty.
bool WriteInPieces(PipelinedWriter& writer, const std::string& bytes) {
    size_t at = 0;
    for (size_t piece = 0; at < bytes.size(); piece = (piece * 31 + 4099) % 300000) {
        const size_t size = std::min(piece, bytes.size() - at);
        if (!writer.write(reinterpret_cast<const uint8_t*>(bytes.data()) + at, size))
            return false;
        at += size;
    }
    return true;
}

TEST(PipelinedWriterTest, WritesEveryByteInOrderAndChecksumsThem) {
    TempDir dir;
    const size_t buffer = PipelinedWriter::kBufferSize;
    const size_t all = PipelinedWriter::kBuffers * buffer;
    for (const size_t size :
         {size_t{0}, size_t{1}, buffer - 1, buffer, buffer + 1, all, all + 7, 3 * all + 5}) {
        SCOPED_TRACE(size);
        const std::string bytes = RandomText(size, static_cast<unsigned>(size));
        const std::string path = dir.file("out" + std::to_string(size));
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        PipelinedWriter::Result result;
        {
            PipelinedWriter writer(fd);
            ASSERT_TRUE(WriteInPieces(writer, bytes));
            result = writer.finish();
            EXPECT_FALSE(writer.write(reinterpret_cast<const uint8_t*>("x"), 1))
                << "nothing is taken after finish";
        }
        ::close(fd);
        EXPECT_TRUE(result.written);
        EXPECT_EQ(result.error, 0);
        EXPECT_EQ(result.digest, Md5OfBytes(bytes));
        EXPECT_EQ(ReadTextFile(path), bytes);
    }
}

TEST(PipelinedWriterTest, AFailedWriteIsReportedWithItsError) {
    const int fd = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    PipelinedWriter writer(fd);
    // The writer learns of the failure a buffer later; sooner or later write() refuses.
    const std::string bytes =
        RandomText(4 * PipelinedWriter::kBuffers * PipelinedWriter::kBufferSize, 7);
    EXPECT_FALSE(WriteInPieces(writer, bytes));
    const PipelinedWriter::Result result = writer.finish();
    ::close(fd);
    EXPECT_FALSE(result.written);
    EXPECT_EQ(result.error, ENOSPC);
    EXPECT_EQ(result.digest, std::nullopt);
}

TEST(PipelinedWriterTest, LeftUnfinishedItStopsAndWritesNoMore) {
    TempDir dir;
    const std::string path = dir.file("abandoned");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const std::string bytes = RandomText(PipelinedWriter::kBufferSize / 2, 9);
    {
        PipelinedWriter writer(fd);
        ASSERT_TRUE(WriteInPieces(writer, bytes));
    }
    ::close(fd);
    EXPECT_EQ(ReadTextFile(path), "") << "a partly filled buffer is never written";
}

} // namespace
