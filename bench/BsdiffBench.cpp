// Compares `mkpatcher bsdiff` with Debian's `bsdiff` on real binaries, in one run: wall
// time, processor time, peak memory of each child process, and patch size. Every patch of
// ours is applied with Debian's `bspatch` and checked against the new file.
//
//   BsdiffBench [--work DIR] [--runs N] [--skip-large]
//
// Pairs: two related CMake programs (cpack -> ctest), the crypto library and a modified
// copy, a ~32 MB program and a modified copy, a ~100 MB file made of real programs put end
// to end with a modified copy of it, and libLLVM 14 -> 15 when both are installed (the
// large pairs take several minutes for Debian's bsdiff; --skip-large leaves them out). Files are
// made in the work folder (default: a new folder under /tmp), which is removed at the end.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Measure {
    double wall = 0;
    double cpu = 0;
    long peakKb = 0;
    uint64_t patchBytes = 0;
    bool ok = false;
};

// Runs the command under /usr/bin/time, whose small process is what the command is started
// from: a child forked straight from this program would count this program's memory in its
// peak (the peak survives exec).
Measure RunChild(const std::vector<std::string>& command, const std::string& patch,
                 const std::string& statsPath) {
    Measure m;
    std::vector<std::string> argv{"/usr/bin/time", "-f", "%U %S %M", "-o", statsPath};
    argv.insert(argv.end(), command.begin(), command.end());
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::fflush(stdout); // the child must not write our buffered lines again
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::freopen("/dev/null", "w", stdout) == nullptr)
            ::_exit(127);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid)
        return m;
    m.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    m.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    double user = 0, system = 0;
    if (FILE* stats = std::fopen(statsPath.c_str(), "r")) {
        if (std::fscanf(stats, "%lf %lf %ld", &user, &system, &m.peakKb) != 3)
            m.ok = false;
        std::fclose(stats);
    } else {
        m.ok = false;
    }
    m.cpu = user + system;
    std::error_code ec;
    m.patchBytes = fs::file_size(patch, ec);
    return m;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
}

// A new version as a rebuild makes it: a byte changed every 64 KiB or so, a few KiB
// inserted and removed every few MB, a tail appended.
std::string Modified(std::string data, unsigned seed) {
    unsigned state = seed;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return state >> 8;
    };
    for (size_t i = 4096; i < data.size(); i += 60000 + next() % 10000)
        data[i] = static_cast<char>(data[i] ^ (1 + next() % 255));
    for (size_t at = 1000000; at + 10000 < data.size(); at += 3000000 + next() % 1000000) {
        std::string inserted(2000 + next() % 3000, '\0');
        for (auto& c : inserted)
            c = static_cast<char>(next());
        data.insert(at, inserted);
        data.erase(at + inserted.size() + 50000, 1000 + next() % 3000);
    }
    return data + "appended in the new version";
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Pair {
    std::string name;
    std::string oldPath;
    std::string newPath;
    int runs;
};

} // namespace

int main(int argc, char** argv) {
    std::string work;
    int runs = 3;
    bool skipLarge = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--work" && i + 1 < argc)
            work = argv[++i];
        else if (arg == "--runs" && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--skip-large")
            skipLarge = true;
        else {
            std::fprintf(stderr, "usage: BsdiffBench [--work DIR] [--runs N] [--skip-large]\n");
            return 2;
        }
    }
    bool ownWork = false;
    if (work.empty()) {
        std::string pattern = "/tmp/orvel-bsdiff-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            return 1;
        }
        work = pattern;
        ownWork = true;
    }
    fs::create_directories(work);

    std::vector<Pair> pairs;
    pairs.push_back(
        {"cpack -> ctest (related programs)", "/usr/bin/cpack", "/usr/bin/ctest", runs});
    const std::string crypto = fs::canonical("/usr/lib/x86_64-linux-gnu/libcrypto.so.3").string();
    WriteAll(work + "/crypto.new", Modified(ReadAll(crypto), 1));
    pairs.push_back({"libcrypto + modified copy", crypto, work + "/crypto.new", runs});
    const std::string lto = "/usr/bin/x86_64-linux-gnu-lto-dump-12";
    if (fs::exists(lto)) {
        WriteAll(work + "/lto.new", Modified(ReadAll(lto), 2));
        pairs.push_back({"lto-dump (32 MB) + modified copy", lto, work + "/lto.new", 1});
    }
    if (!skipLarge) {
        std::string joined;
        for (const char* program :
             {"/usr/bin/ctest", "/usr/bin/cmake", "/usr/bin/cpack", "/usr/bin/gdb", "/usr/bin/perf",
              "/usr/bin/x86_64-linux-gnu-lto-dump-12", "/usr/bin/shellcheck", "/usr/bin/git"}) {
            if (fs::exists(program))
                joined += ReadAll(program);
        }
        WriteAll(work + "/joined.old", joined);
        WriteAll(work + "/joined.new", Modified(joined, 3));
        pairs.push_back({"~100 MB of programs end to end + modified copy", work + "/joined.old",
                         work + "/joined.new", 1});
        // Two real releases of a large library, when both are installed.
        const std::string llvm14 = "/usr/lib/x86_64-linux-gnu/libLLVM-14.so.1";
        const std::string llvm15 = "/usr/lib/x86_64-linux-gnu/libLLVM-15.so.1";
        if (fs::exists(llvm14) && fs::exists(llvm15))
            pairs.push_back({"libLLVM 14 -> 15 (two releases)", llvm14, llvm15, 1});
    }

    std::printf("%-48s %9s %9s | %-8s %8s %8s %9s %11s\n", "pair", "old MB", "new MB", "tool",
                "wall s", "cpu s", "peak MB", "patch B");
    int failures = 0;
    for (const auto& pair : pairs) {
        const double oldMb = static_cast<double>(fs::file_size(pair.oldPath)) / 1e6;
        const double newMb = static_cast<double>(fs::file_size(pair.newPath)) / 1e6;
        // Both read the files once before timing, so the page cache is warm for both.
        (void)ReadAll(pair.oldPath).size();
        (void)ReadAll(pair.newPath).size();
        std::vector<double> wall[2], cpu[2];
        long peak[2] = {0, 0};
        uint64_t bytes[2] = {0, 0};
        const char* tools[2] = {"debian", "mkpatcher"};
        for (int run = 0; run < pair.runs; ++run) {
            for (int t = 0; t < 2; ++t) {
                const std::string patch = work + "/patch." + tools[t];
                std::vector<std::string> cmd =
                    t == 0 ? std::vector<std::string>{"bsdiff", pair.oldPath, pair.newPath, patch}
                           : std::vector<std::string>{MKPATCHER_PROGRAM, "bsdiff", pair.oldPath,
                                                      pair.newPath, patch};
                const Measure m = RunChild(cmd, patch, work + "/stats");
                if (!m.ok) {
                    std::printf("%s failed on %s\n", tools[t], pair.name.c_str());
                    ++failures;
                    continue;
                }
                wall[t].push_back(m.wall);
                cpu[t].push_back(m.cpu);
                peak[t] = std::max(peak[t], m.peakKb);
                bytes[t] = m.patchBytes;
            }
        }
        if (wall[0].empty() || wall[1].empty())
            continue;
        // Our patch must give the new file through Debian's bspatch.
        const std::string applied = work + "/applied";
        const Measure apply =
            RunChild({"bspatch", pair.oldPath, applied, work + "/patch.mkpatcher"}, applied,
                     work + "/stats");
        const bool identical = apply.ok && ReadAll(applied) == ReadAll(pair.newPath);
        fs::remove(applied);
        if (!identical)
            ++failures;
        for (int t = 0; t < 2; ++t) {
            std::printf("%-48s %9.1f %9.1f | %-8s %8.2f %8.2f %9.1f %11llu\n",
                        t == 0 ? pair.name.c_str() : "", oldMb, newMb, tools[t], Median(wall[t]),
                        Median(cpu[t]), static_cast<double>(peak[t]) / 1024.0,
                        static_cast<unsigned long long>(bytes[t]));
        }
        std::printf("%-48s   faster x%.2f (cpu x%.2f), patch size x%.4f, peak memory x%.2f, "
                    "Debian's bspatch applies ours: %s\n",
                    "", Median(wall[0]) / Median(wall[1]), Median(cpu[0]) / Median(cpu[1]),
                    static_cast<double>(bytes[1]) / static_cast<double>(bytes[0]),
                    static_cast<double>(peak[1]) / static_cast<double>(peak[0]),
                    identical ? "identical" : "DIFFERENT");
        std::fflush(stdout);
    }
    if (ownWork)
        fs::remove_all(work);
    return failures == 0 ? 0 : 1;
}
