#include "base/Md5.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/stat.h>

namespace {

// What md5sum prints for the file.
std::string Md5sum(const TempDir& dir, const std::string& path) {
    const std::string output = dir.file("md5sum.out");
    EXPECT_EQ(RunProgram({"/usr/bin/md5sum", path}, {}, output), 0);
    return ReadTextFile(output).substr(0, 32);
}

TEST(Md5Test, BytesFilesAndStreamsGiveWhatMd5sumPrints) {
    TempDir dir;
    for (const size_t size : {size_t{0}, size_t{6}, size_t{256 * 1024}, size_t{256 * 1024 + 1},
                              size_t{3 * 1024 * 1024 + 7}}) {
        SCOPED_TRACE(size);
        const std::string content = RandomText(size, static_cast<unsigned>(size));
        const std::string path = dir.file("f" + std::to_string(size));
        WriteTextFile(path, content);
        const std::string expected = Md5sum(dir, path);
        EXPECT_EQ(Md5OfBytes(content), expected);
        EXPECT_EQ(Md5OfFile(path), expected);

        Md5Stream stream;
        // Pieces of every awkward size, including empty ones.
        size_t at = 0;
        for (size_t piece = 0; at < content.size(); piece = (piece * 7 + 13) % 100000) {
            const size_t taken = std::min(piece, content.size() - at);
            stream.update(content.data() + at, taken);
            at += taken;
        }
        EXPECT_EQ(stream.finish(), expected);
        EXPECT_EQ(stream.finish(), std::nullopt) << "a finished stream gives nothing more";
    }
    EXPECT_EQ(Md5OfBytes(""), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5Test, WhatCannotBeReadHasNoDigest) {
    TempDir dir;
    EXPECT_EQ(Md5OfFile(dir.file("missing")), std::nullopt);
    EXPECT_EQ(Md5OfFile(dir.path()), std::nullopt) << "a folder cannot be read";
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    // Without a writer the FIFO reads as empty at once instead of waiting for one.
    EXPECT_EQ(Md5OfFile(fifo), "d41d8cd98f00b204e9800998ecf8427e");
}

} // namespace
