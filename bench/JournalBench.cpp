// The cost of one rollback-journal entry as the journal grows. Prints the time per entry at
// 100, 1,000 and 10,000 entries for the journal as the patcher writes it (each entry
// appended in place and synced), and, for comparison, the time of one whole-document
// rewrite at those sizes, which is what an entry would cost if the document were saved
// again after every entry.
//
// Usage: JournalBench [folder]   (default: $TMPDIR or /tmp; the journal goes to a fresh
// folder inside it, removed at the end)

#include "base/Path.h"
#include "base/Xml.h"
#include "runtime/Environment.h"
#include "system/FileSystem.h"
#include "update/FileOperationInfo.h"
#include "update/RollBackHandler.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMarks[] = {100, 1000, 10000};
constexpr size_t kWindow = 100; // entries averaged at each mark (the last ones before it)

FileOperationInfo ForwardAdd(size_t i) {
    FileOperationInfo info;
    info.Operation = "ADD";
    info.ObjectName = "Contents/Resources/file-" + std::to_string(i) + ".dat";
    info.DestinationPath =
        "/opt/Orvel/Suite/App.app/Contents/Resources/file-" + std::to_string(i) + ".dat";
    info.BeforePatch = "x1y2z3";
    info.AfterPatch = "0123456789abcdef0123456789abcdef";
    return info;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

double Mean(const std::vector<double>& values) {
    double sum = 0;
    for (double v : values)
        sum += v;
    return values.empty() ? 0 : sum / static_cast<double>(values.size());
}

// One whole-document save of a journal of n entries, in microseconds (median of a few).
double RewriteMicros(const std::string& folder, size_t n) {
    auto document = XmlDocument::create("Manifest");
    XmlNode root = XmlDocument::root(document);
    XmlNode fileSet = root.addChild("FileSet");
    root.addChild("DirectorySet");
    for (size_t i = 0; i < n; ++i) {
        const FileOperationInfo f = ForwardAdd(i);
        XmlNode file = fileSet.addChild("File");
        file.addChild("Operation", std::string("REMOVE"));
        file.addChild("ObjectName", f.ObjectName);
        XmlNode destination = file.addChild("DestinationPath");
        destination.setAttribute("defName", "");
        destination.setAttribute("dir", f.DestinationPath);
        XmlNode checksum = file.addChild("Checksum");
        checksum.addChild("BeforePatch", f.AfterPatch);
        checksum.addChild("AfterPatch", f.BeforePatch);
        XmlNode rename = file.addChild("RenamePath");
        rename.setAttribute("defName", "");
        rename.setAttribute("dir", "x1y2z3");
        XmlNode permissions = file.addChild("Permissions");
        permissions.addChild("UserID", std::string("x1y2z3"));
        permissions.addChild("GroupID", std::string("x1y2z3"));
        permissions.addChild("Permission", std::string("x1y2z3"));
    }
    std::vector<double> times;
    const std::string path = folder + "/Rewrite.xml";
    for (int round = 0; round < 5; ++round) {
        const auto start = Clock::now();
        if (!XmlDocument::save(document, path, true))
            std::fprintf(stderr, "rewrite failed\n");
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return Median(times);
}

} // namespace

int main(int argc, char** argv) {
    SetENVverbosityLevel("error"); // the journal's own log lines are not what is measured
    const char* tmp = std::getenv("TMPDIR");
    std::string base = argc > 1 ? argv[1] : (tmp && *tmp ? tmp : "/tmp");
    std::string pattern = base + "/JournalBench-XXXXXX";
    if (!::mkdtemp(pattern.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string folder = pattern;

    std::vector<double> micros;
    micros.reserve(kMarks[2]);
    {
        RollBackHandler handler(folder, RealFileSystem::instance());
        for (size_t i = 0; i < kMarks[2]; ++i) {
            const auto start = Clock::now();
            if (!handler.addUndoFileCommand(ForwardAdd(i))) {
                std::fprintf(stderr, "journal write failed at entry %zu\n", i + 1);
                return 1;
            }
            micros.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
    }
    std::error_code error;
    const auto journalSize =
        std::filesystem::file_size(folder + "/" + RollBackHandler::kJournalName, error);

    std::printf("Rollback journal: time per entry (entries %zu before each mark, in %s)\n", kWindow,
                folder.c_str());
    std::printf("%10s %14s %14s %22s\n", "entries", "mean us", "median us", "whole rewrite us");
    // The verdict uses the median: a mean of 100 synced writes on a shared machine is
    // dominated by the few writes that waited for other processes' disk traffic.
    double first = 0, last = 0;
    for (size_t mark : kMarks) {
        const std::vector<double> window(micros.begin() + static_cast<long>(mark - kWindow),
                                         micros.begin() + static_cast<long>(mark));
        const double median = Median(window);
        if (mark == kMarks[0])
            first = median;
        last = median;
        std::printf("%10zu %14.1f %14.1f %22.1f\n", mark, Mean(window), median,
                    RewriteMicros(folder, mark));
    }
    std::printf("journal size at %zu entries: %llu bytes\n", kMarks[2],
                static_cast<unsigned long long>(error ? 0 : journalSize));
    std::printf("median ratio 10,000 / 100: %.2f (%s 2x)\n", last / first,
                last <= 2 * first ? "within" : "NOT within");
    std::filesystem::remove_all(folder, error);
    return 0;
}
