// MD5 of many inputs in memory: OpenSSL's MD5 (EVP), one input after the other, against
// Md5OfAll, which hashes them together in SIMD lanes, with each kind the processor runs.
// All on the same inputs in the same run, taken in turns (OpenSSL, each kind, OpenSSL, ...),
// and the median of the rounds printed in MB/s (10^6 bytes per second) with the ratios.
//
//   Md5LanesBench [--rounds N]
//
// Sets: 16 inputs of 1 MB; 500 inputs of lognormal sizes (mean about 100 KB, from 0 to
// 8 MB); 2 inputs of 8 MB, where most lanes have nothing to do.

#include "base/Md5Lanes.h"

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct DigestContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// One context for all inputs, as a program hashing file after file would keep one.
std::vector<std::string> OpenSslOneByOne(const std::vector<std::string_view>& inputs) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::unique_ptr<EVP_MD_CTX, DigestContextDeleter> context(EVP_MD_CTX_new());
    std::vector<std::string> digests;
    digests.reserve(inputs.size());
    for (const std::string_view input : inputs) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1 ||
            EVP_DigestUpdate(context.get(), input.data(), input.size()) != 1 ||
            EVP_DigestFinal_ex(context.get(), digest, &length) != 1) {
            std::fprintf(stderr, "OpenSSL MD5 failed\n");
            std::exit(1);
        }
        std::string text;
        for (unsigned int i = 0; i < length; ++i) {
            text += kHex[digest[i] >> 4];
            text += kHex[digest[i] & 0x0F];
        }
        digests.push_back(std::move(text));
    }
    return digests;
}

std::string RandomBytes(size_t size, std::mt19937& random) {
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

const char* KindName(Md5Lanes::Kind kind) {
    switch (kind) {
    case Md5Lanes::Kind::Avx2:
        return "AVX2, 8 lanes";
    case Md5Lanes::Kind::Avx512:
        return "AVX-512, 16 lanes";
    case Md5Lanes::Kind::Scalar:
        break;
    }
    return "scalar, 1 lane";
}

struct Set {
    std::string name;
    std::vector<std::string> inputs;
};

// Prints one line per contender; false when a digest differs from OpenSSL's.
bool Measure(const Set& set, const std::vector<Md5Lanes::Kind>& kinds, int rounds) {
    const std::vector<std::string_view> views(set.inputs.begin(), set.inputs.end());
    double total = 0;
    for (const std::string& input : set.inputs)
        total += static_cast<double>(input.size());
    const std::vector<std::string> expected = OpenSslOneByOne(views);
    std::vector<double> openSsl;
    std::vector<std::vector<double>> lanes(kinds.size());
    for (int round = 0; round < rounds; ++round) {
        auto start = Clock::now();
        const std::vector<std::string> digests = OpenSslOneByOne(views);
        openSsl.push_back(total / std::chrono::duration<double>(Clock::now() - start).count());
        for (size_t k = 0; k < kinds.size(); ++k) {
            start = Clock::now();
            const std::vector<std::string> ours = Md5OfAll(views, kinds[k]);
            lanes[k].push_back(total / std::chrono::duration<double>(Clock::now() - start).count());
            if (ours != expected || digests != expected) {
                std::printf("%s: digests differ with %s\n", set.name.c_str(), KindName(kinds[k]));
                return false;
            }
        }
    }
    std::printf("%s (%.1f MB in all)\n", set.name.c_str(), total / 1e6);
    const double base = Median(openSsl);
    std::printf("  %-28s %8.0f MB/s\n", "OpenSSL one by one", base / 1e6);
    for (size_t k = 0; k < kinds.size(); ++k) {
        const double speed = Median(lanes[k]);
        std::printf("  Md5Lanes, %-18s %8.0f MB/s  %5.2fx\n", KindName(kinds[k]), speed / 1e6,
                    speed / base);
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    int rounds = 9;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--rounds" && i + 1 < argc) {
            rounds = std::max(1, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr, "usage: Md5LanesBench [--rounds N]\n");
            return 2;
        }
    }
    // Widest first: the default.
    std::vector<Md5Lanes::Kind> kinds;
    for (const Md5Lanes::Kind kind :
         {Md5Lanes::Kind::Avx512, Md5Lanes::Kind::Avx2, Md5Lanes::Kind::Scalar})
        if (Md5Lanes::supports(kind))
            kinds.push_back(kind);
    std::printf("Md5Lanes::lanes() = %zu, %d rounds, medians\n", Md5Lanes::lanes(), rounds);

    std::mt19937 random(1321);
    std::vector<Set> sets(3);
    sets[0].name = "16 inputs of 1 MB";
    for (int i = 0; i < 16; ++i)
        sets[0].inputs.push_back(RandomBytes(1000000, random));

    sets[1].name = "500 inputs of lognormal sizes";
    // A mean of exp(mu + sigma^2 / 2) = 100 KB.
    const double sigma = 1.5;
    std::lognormal_distribution<double> sizes(std::log(100e3) - sigma * sigma / 2, sigma);
    for (int i = 0; i < 500; ++i) {
        const double size = i == 0 ? 0 : std::min(sizes(random), 8e6);
        sets[1].inputs.push_back(RandomBytes(static_cast<size_t>(size), random));
    }

    sets[2].name = "2 inputs of 8 MB";
    for (int i = 0; i < 2; ++i)
        sets[2].inputs.push_back(RandomBytes(8000000, random));

    for (const Set& set : sets)
        if (!Measure(set, kinds, rounds))
            return 1;
    return 0;
}
