// Writes the journal reader's seed corpus into the folder given as the only argument: the
// journals RollBackHandler writes for a few forward runs, and torn copies of each, as a kill
// in the middle of a write or a power cut before its sync leaves them. The committed
// fuzz/corpus/journal is this program's output.
//
// The runs work in a scratch folder that is the working directory, on relative paths, so the
// journals name the same paths wherever they are made (the owner and group in them are those
// of the user who runs this).
#include "update/RollBackHandler.h"

#include "base/FileUtil.h"
#include "system/FileSystem.h"
#include "update/FileOperationInfo.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "MakeJournalCorpus: %s\n", what.c_str());
    std::exit(1);
}

void MakeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
    std::error_code error;
    fs::create_directories(fs::path(path).parent_path(), error);
    if (!WriteFile(path, content) || ::chmod(path.c_str(), mode) != 0)
        Fail("cannot make " + path);
}

void MakeLink(const std::string& path, const std::string& target) {
    std::error_code error;
    fs::create_directories(fs::path(path).parent_path(), error);
    if (::symlink(target.c_str(), path.c_str()) != 0)
        Fail("cannot make the link " + path);
}

void MakeFolder(const std::string& path) {
    std::error_code error;
    fs::create_directories(path, error);
    if (error)
        Fail("cannot make " + path);
}

std::string MadeFolder(const std::string& path) {
    MakeFolder(path);
    return path;
}

FileOperationInfo Entry(const std::string& operation, const std::string& objectName,
                        const std::string& destination) {
    FileOperationInfo info;
    info.Operation = operation;
    info.ObjectName = objectName;
    info.DestinationPath = destination;
    info.BeforePatch = "0123456789abcdef0123456789abcdef";
    info.AfterPatch = "fedcba9876543210fedcba9876543210";
    return info;
}

// One forward run's journal: each entry is kept and journaled as the file operations do it,
// and the journal's text is taken after every entry that was written.
class ForwardRun {
public:
    explicit ForwardRun(const std::string& name)
        : _backupDir(MadeFolder("backup-" + name)),
          _handler(_backupDir, RealFileSystem::instance()) {}

    void file(const FileOperationInfo& info) {
        if (_handler.backupFileOperation(info) != 0)
            Fail("cannot keep " + info.DestinationPath);
        if (!_handler.addUndoFileCommand(info))
            Fail("cannot journal " + info.DestinationPath);
        takeText();
    }

    void directory(const std::string& operation, const std::string& base) {
        DirectoryOperationInfo info;
        info.Operation = operation;
        info.DirectoryBase = base;
        if (!_handler.addUndoDirectoryCommand(info))
            Fail("cannot journal " + base);
        takeText();
    }

    const std::vector<std::string>& texts() const { return _texts; }

private:
    void takeText() {
        const auto text = ReadFileText(_handler.rollBackFilePath());
        if (text && (_texts.empty() || _texts.back() != *text))
            _texts.push_back(*text);
    }

    std::string _backupDir;
    RollBackHandler _handler;
    std::vector<std::string> _texts;
};

struct Scenario {
    const char* name;
    std::function<void(ForwardRun&)> run;
};

// Where the last entry of a journal begins and ends; both 0 when it holds none.
std::pair<size_t, size_t> LastEntry(const std::string& text) {
    const size_t file = text.rfind("    <File>\n");
    const size_t folder = text.rfind("    <Directory>\n");
    size_t begin = std::string::npos;
    const char* close = nullptr;
    if (file != std::string::npos && (folder == std::string::npos || file > folder)) {
        begin = file;
        close = "\n    </File>\n";
    } else if (folder != std::string::npos) {
        begin = folder;
        close = "\n    </Directory>\n";
    }
    if (begin == std::string::npos)
        return {0, 0};
    const size_t end = text.find(close, begin);
    if (end == std::string::npos)
        Fail("an entry without its end");
    return {begin, end + std::string(close).size()};
}

size_t CommonPrefix(const std::string& a, const std::string& b) {
    size_t n = 0;
    while (n < a.size() && n < b.size() && a[n] == b[n])
        ++n;
    return n;
}

// The whole journal and the torn copies of it: cut inside the last entry, cut right behind
// it, cut in the closing tail, a stretch of the last entry never written (zeros, as a page
// that a power cut kept from the disk), and the write of the last entry stopped after its
// first bytes, with the older journal's tail still behind them.
std::vector<std::pair<std::string, std::string>> Seeds(const std::string& name,
                                                       const std::vector<std::string>& texts) {
    std::vector<std::pair<std::string, std::string>> seeds;
    const std::string& whole = texts.back();
    seeds.emplace_back(name, whole);
    const auto [begin, end] = LastEntry(whole);
    if (end == 0)
        return seeds;
    seeds.emplace_back(name + ".torn-in-entry", whole.substr(0, begin + (end - begin) / 2));
    seeds.emplace_back(name + ".torn-after-entry", whole.substr(0, end));
    seeds.emplace_back(name + ".torn-in-tail", whole.substr(0, whole.size() - 5));
    std::string zeroed = whole;
    const size_t from = begin + (end - begin) / 3;
    zeroed.replace(from, std::min<size_t>(24, end - from), std::min<size_t>(24, end - from), '\0');
    seeds.emplace_back(name + ".torn-zeroed", zeroed);
    // Zeros over the line end of the entry before the last and the start of the last, as a
    // group of entries written without a sync between them can come back after a power cut.
    // The last entry's closing line is still there: the two must not pass as one entry.
    const std::string_view ahead = std::string_view(whole).substr(0, begin);
    if (ahead.ends_with("</File>\n") || ahead.ends_with("</Directory>\n")) {
        std::string between = whole;
        between.replace(begin - 1, 12, 12, '\0');
        seeds.emplace_back(name + ".torn-zeros-between-entries", between);
    }
    if (texts.size() >= 2) {
        const std::string& before = texts[texts.size() - 2];
        const size_t at = CommonPrefix(before, whole);
        const size_t written = at + 12;
        std::string stale = whole.substr(0, std::min(written, whole.size()));
        if (before.size() > stale.size())
            stale += before.substr(stale.size());
        seeds.emplace_back(name + ".torn-stale-tail", stale);
    }
    return seeds;
}

void MakeApplication() {
    MakeFile("app/Contents/Info.plist", "<plist><dict/></plist>\n");
    MakeFile("app/Contents/Resources/a.txt", "installed a\n");
    MakeFile("app/Contents/Resources/b.txt", "installed b\n");
    MakeFile("app/Contents/Resources/old.txt", "old\n", 0600);
    MakeFile("app/Contents/MacOS/Paint", std::string(3000, 'P'), 0755);
    MakeFile("app/Contents/MacOS/tool", "#!/bin/sh\n", 0755);
    MakeLink("app/Contents/Frameworks/Current", "A");
    MakeFolder("app/Contents/Obsolete");
    MakeFile("app/Contents/Resources/R&D <\"Notes\"> 'q'.txt", "escaped\n");
    MakeFile("app/Contents/Resources/\xc3\x9c"
             "bersicht \xe2\x80\x93 \xe6\x97\xa5\xe6\x9c\xac.txt",
             "utf-8\n");
    MakeFile("app/Contents/Resources/line\nbreak\t.txt", "control\n");
    MakeFolder("app/Contents/Caf\xc3\xa9 & Co");
}

std::vector<Scenario> Scenarios() {
    const std::string resources = "app/Contents/Resources/";
    return {
        {"files",
         [=](ForwardRun& run) {
             run.file(Entry("OVERWRITE", "1-a.txt", resources + "a.txt"));
             run.file(Entry("ADD", "2-new.txt", resources + "new.txt"));
             run.file(Entry("REMOVE", "3-old.txt", resources + "old.txt"));
             FileOperationInfo rename = Entry("RENAME", "4-b.txt", resources + "b.txt");
             rename.RenamePath = resources + "c.txt";
             run.file(rename);
             FileOperationInfo mode = Entry("CHANGEPERM", "5-tool", "app/Contents/MacOS/tool");
             mode.Permission = "700";
             run.file(mode);
             FileOperationInfo link =
                 Entry("CREATELINK", "6-Current", "app/Contents/Frameworks/Current");
             link.RenamePath = "B";
             run.file(link);
             run.file(Entry("PATCH", "7-Paint", "app/Contents/MacOS/Paint"));
             run.file(Entry("IGNORE", "8-Info.plist", "app/Contents/Info.plist"));
             run.file(Entry("FROB", "9-unknown", resources + "unknown.txt"));
         }},
        {"folders",
         [](ForwardRun& run) {
             run.directory("ADD", "app/Contents/PlugIns/Filters");
             run.directory("REMOVE", "app/Contents/Obsolete");
         }},
        {"files-then-folders",
         [=](ForwardRun& run) {
             run.file(Entry("OVERWRITE", "1-a.txt", resources + "a.txt"));
             run.file(Entry("BLINDOVERWRITE", "2-added.txt", resources + "added.txt"));
             run.directory("ADD", "app/Contents/PlugIns");
             run.directory("REMOVE", "app/Contents/Obsolete");
         }},
        {"folders-then-files",
         [=](ForwardRun& run) {
             run.directory("ADD", "app/Contents/PlugIns");
             run.file(Entry("OVERWRITE", "1-a.txt", resources + "a.txt"));
             run.file(Entry("ADD", "2-new.txt", resources + "new.txt"));
         }},
        {"escaped-names",
         [=](ForwardRun& run) {
             run.file(Entry("OVERWRITE", "1-R&D.txt", resources + "R&D <\"Notes\"> 'q'.txt"));
             run.file(Entry("REMOVE", "2-utf8.txt",
                            resources + "\xc3\x9c"
                                        "bersicht \xe2\x80\x93 \xe6\x97\xa5\xe6\x9c\xac.txt"));
             run.file(Entry("OVERWRITE", "3-control.txt", resources + "line\nbreak\t.txt"));
             run.directory("REMOVE", "app/Contents/Caf\xc3\xa9 & Co");
         }},
        {"one-entry",
         [=](ForwardRun& run) { run.file(Entry("ADD", "1-only.txt", resources + "only.txt")); }},
    };
}

// A scratch folder that is the working directory while it lives.
class WorkFolder {
public:
    WorkFolder() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/journal-corpus-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            Fail("cannot make a scratch folder");
        _path = pattern;
        _previous = fs::current_path();
        fs::current_path(_path);
    }
    ~WorkFolder() {
        std::error_code ignored;
        fs::current_path(_previous, ignored);
        fs::remove_all(_path, ignored);
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

private:
    std::string _path;
    fs::path _previous;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
        return 2;
    }
    const fs::path corpus = fs::absolute(argv[1]);
    std::error_code error;
    fs::create_directories(corpus, error);
    if (error)
        Fail("cannot make " + corpus.string());
    ::umask(022);

    std::vector<std::pair<std::string, std::string>> seeds;
    {
        const WorkFolder work;
        for (const Scenario& scenario : Scenarios()) {
            // Each run starts from the same installed application.
            std::error_code ignored;
            fs::remove_all("app", ignored);
            MakeApplication();
            ForwardRun run(scenario.name);
            scenario.run(run);
            if (run.texts().empty())
                Fail(std::string("no journal for ") + scenario.name);
            for (auto& seed : Seeds(scenario.name, run.texts()))
                seeds.push_back(std::move(seed));
        }
    }
    // The document the reader makes of a journal torn inside its first entry: no entries.
    std::optional<std::string> noEntries;
    for (const auto& [name, text] : seeds) {
        if (name == "one-entry.torn-in-entry")
            noEntries = RollBackHandler::readWholeEntries(text).document;
    }
    if (!noEntries)
        Fail("the journal torn in its first entry gave no document");
    seeds.emplace_back("no-entries", *noEntries);

    for (const auto& [name, text] : seeds) {
        const fs::path path = corpus / (name + ".xml");
        if (!WriteFile(path.string(), text))
            Fail("cannot write " + path.string());
    }
    std::printf("wrote %zu seeds to %s\n", seeds.size(), corpus.c_str());
    return 0;
}
