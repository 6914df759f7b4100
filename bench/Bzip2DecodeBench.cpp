// Decompression speed of src/patch's Bzip2Decoder against libbz2's BZ2_bzDecompress, in one
// run: each input is compressed once (level 9, as bsdiff does), then decompressed by the two
// in turn, several rounds, into 256 KB pieces as the patcher reads them. Prints megabytes of
// output per second (medians) and the ratio.
//
//   Bzip2DecodeBench [--rounds N]
//
// Inputs, 8 MB each: a bsdiff-like diff block (zeros with a small value every hundred bytes
// or so), program bytes (files of /usr/bin put end to end), pseudo-random bytes, and text.

#include "patch/Bzip2Decoder.h"

#include <algorithm>
#include <bzlib.h>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kSize = 8 << 20;
constexpr size_t kPiece = 256 * 1024;

Bytes SparseDiff(size_t size) {
    std::mt19937 random(1);
    Bytes data(size, 0);
    for (size_t i = 0; i < size; i += 50 + random() % 100)
        data[i] = static_cast<uint8_t>(static_cast<int>(random() % 17) - 8);
    return data;
}

Bytes ProgramBytes(size_t size) {
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/usr/bin", ec))
        if (entry.is_regular_file(ec) && !entry.is_symlink(ec))
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    Bytes data;
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        data.insert(data.end(), std::istreambuf_iterator<char>(in),
                    std::istreambuf_iterator<char>());
        if (data.size() >= size)
            break;
    }
    data.resize(size);
    return data;
}

Bytes RandomBytes(size_t size) {
    std::mt19937_64 random(2);
    Bytes data(size);
    for (auto& byte : data)
        byte = static_cast<uint8_t>(random() >> 56);
    return data;
}

Bytes Text(size_t size) {
    static const char* const kWords[] = {"the", "patch", "file",    "of",    "a",  "bundle",
                                         "is",  "old",   "new",     "bytes", "to", "block",
                                         "run", "\n",    "version", "and",   "in", "update"};
    std::mt19937 random(3);
    Bytes text;
    while (text.size() < size) {
        const char* word = kWords[random() % std::size(kWords)];
        text.insert(text.end(), word, word + std::strlen(word));
        text.push_back(' ');
    }
    text.resize(size);
    return text;
}

Bytes Compress(Bytes data) {
    unsigned size = static_cast<unsigned>(data.size() + data.size() / 100 + 600);
    Bytes out(size);
    if (BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &size,
                                 reinterpret_cast<char*>(data.data()),
                                 static_cast<unsigned>(data.size()), 9, 0, 0) != BZ_OK) {
        std::fprintf(stderr, "compression failed\n");
        std::exit(1);
    }
    out.resize(size);
    return out;
}

// Seconds to decompress the stream into out; false when it did not give out's size.
bool DecodeWithLibbz2(const Bytes& stream, Bytes& out, double& seconds) {
    const auto start = std::chrono::steady_clock::now();
    bz_stream s{};
    if (BZ2_bzDecompressInit(&s, 0, 0) != BZ_OK)
        return false;
    s.next_in = const_cast<char*>(reinterpret_cast<const char*>(stream.data()));
    s.avail_in = static_cast<unsigned>(stream.size());
    size_t done = 0;
    int rc = BZ_OK;
    while (rc == BZ_OK && done < out.size()) {
        const size_t piece = std::min(kPiece, out.size() - done);
        s.next_out = reinterpret_cast<char*>(out.data() + done);
        s.avail_out = static_cast<unsigned>(piece);
        rc = BZ2_bzDecompress(&s);
        done += piece - s.avail_out;
    }
    BZ2_bzDecompressEnd(&s);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return rc == BZ_STREAM_END && done == out.size();
}

bool DecodeWithDecoder(const Bytes& stream, Bytes& out, double& seconds) {
    const auto start = std::chrono::steady_clock::now();
    Bzip2Decoder decoder(stream);
    size_t done = 0;
    while (done < out.size()) {
        const auto got = decoder.read(out.data() + done, std::min(kPiece, out.size() - done));
        if (!got || *got == 0)
            return false;
        done += *got;
    }
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return decoder.ended();
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    int rounds = 7;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
            rounds = std::max(1, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr, "usage: %s [--rounds N]\n", argv[0]);
            return 2;
        }
    }
    struct Input {
        const char* name;
        Bytes data;
    };
    const Input inputs[] = {{"bsdiff-like diff", SparseDiff(kSize)},
                            {"program bytes", ProgramBytes(kSize)},
                            {"random bytes", RandomBytes(kSize)},
                            {"text", Text(kSize)}};
    std::printf("%-18s %10s %14s %14s %7s\n", "input (8 MB)", "bzip2 size", "libbz2 MB/s",
                "decoder MB/s", "ratio");
    for (const Input& input : inputs) {
        const Bytes stream = Compress(input.data);
        Bytes out(input.data.size());
        std::vector<double> theirs;
        std::vector<double> ours;
        for (int round = 0; round < rounds; ++round) {
            double seconds = 0;
            std::fill(out.begin(), out.end(), uint8_t{0x55});
            if (!DecodeWithLibbz2(stream, out, seconds) || out != input.data) {
                std::fprintf(stderr, "%s: libbz2 gave other bytes\n", input.name);
                return 1;
            }
            theirs.push_back(static_cast<double>(out.size()) / 1e6 / seconds);
            std::fill(out.begin(), out.end(), uint8_t{0x55});
            if (!DecodeWithDecoder(stream, out, seconds) || out != input.data) {
                std::fprintf(stderr, "%s: the decoder gave other bytes\n", input.name);
                return 1;
            }
            ours.push_back(static_cast<double>(out.size()) / 1e6 / seconds);
        }
        const double a = Median(theirs);
        const double b = Median(ours);
        std::printf("%-18s %10zu %14.0f %14.0f %6.2fx\n", input.name, stream.size(), a, b, b / a);
    }
    return 0;
}
