#include "report/RunningApplicationHandler.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "base/PropertyList.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <dirent.h>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <unistd.h>

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

// root: where the process's own files are seen (its "root" link in /proc), or empty.
std::string DisplayNameOfExecutable(std::string executable, const std::string& root,
                                    const std::vector<std::string>& protectedFolders) {
    const std::string deleted = " (deleted)";
    if (executable.size() > deleted.size() &&
        executable.compare(executable.size() - deleted.size(), deleted.size(), deleted) == 0)
        executable.resize(executable.size() - deleted.size());
    std::string app;
    if (GetPathToAppGivenSubDirPath(executable, app, protectedFolders)) {
        if (auto info = PropertyList::readDictionaryFromFile(root + app + "/Contents/Info.plist")) {
            if (auto name = info->stringForKey("CFBundleName"); name && !name->empty())
                return *name;
        }
        const std::string folder = LastPathComponent(app);
        return folder.substr(0, folder.size() - 4); // without ".app"
    }
    return LastPathComponent(executable);
}

// Where a process stands in the process tree, from its stat file.
struct Lineage {
    long parent = 0;              // 0: none (the first process, kernel threads)
    unsigned long long start = 0; // clock ticks after boot; 0 when not given
};

// "<pid> (<name>) <state> <parent pid> ... <start time> ...", the start time being the 22nd
// field: the name may hold blanks and parentheses, so the fields are counted from its last
// ")". Nothing when the file is gone (the process ended) or unreadable.
std::optional<Lineage> ReadLineage(const std::string& statPath) {
    const auto text = ReadFileText(statPath, 64 * 1024);
    if (!text)
        return std::nullopt;
    const size_t close = text->rfind(')');
    if (close == std::string::npos)
        return std::nullopt;
    std::istringstream fields(text->substr(close + 1));
    std::string state;
    Lineage lineage;
    if (!(fields >> state >> lineage.parent))
        return std::nullopt;
    std::string skipped;
    for (int field = 5; field < 22 && (fields >> skipped); ++field) {
    }
    unsigned long long start = 0;
    if (fields >> start)
        lineage.start = start;
    return lineage;
}

// Which of the listed processes are self or descend from it. The walk up the parents stops
// at a process whose lineage is unknown (it ended while the list was read, or the stat file
// could not be read): nothing more can be said of it. A parent that started after its child
// is a newer process that got the pid of the ended parent, and stops the walk as well.
class Family {
public:
    Family(const std::map<long, Lineage>& lineages, long self) : _lineages(lineages), _self(self) {}

    bool contains(long pid) {
        std::vector<long> walked;
        bool inFamily = false;
        for (long current = pid;;) {
            if (current == _self) {
                inFamily = true;
                break;
            }
            if (auto known = _known.find(current); known != _known.end()) {
                inFamily = known->second;
                break;
            }
            const auto lineage = _lineages.find(current);
            if (lineage == _lineages.end() || lineage->second.parent <= 0)
                break;
            const long parent = lineage->second.parent;
            if (const auto parentLineage = _lineages.find(parent);
                parentLineage != _lineages.end() && parentLineage->second.start != 0 &&
                lineage->second.start != 0 && parentLineage->second.start > lineage->second.start)
                break;
            walked.push_back(current);
            // Stat files read at different times (or a fake tree) can make a loop.
            if (walked.size() > _lineages.size())
                break;
            current = parent;
        }
        for (long member : walked)
            _known[member] = inFamily;
        return inFamily;
    }

private:
    const std::map<long, Lineage>& _lineages;
    long _self;
    std::map<long, bool> _known;
};

} // namespace

std::vector<std::string> RunningApplications::launchedApplications() const {
    struct Candidate {
        std::string executable;
        std::string root; // empty when the process's root cannot be reached
    };
    std::map<long, Candidate> candidates;
    std::map<long, Lineage> lineages;
    {
        std::unique_ptr<DIR, DirCloser> dir(::opendir(_procRoot.c_str()));
        if (!dir)
            return {};
        while (dirent* entry = ::readdir(dir.get())) {
            const std::string pid = entry->d_name;
            if (pid.empty() || pid.size() > 18 ||
                !std::all_of(pid.begin(), pid.end(),
                             [](unsigned char c) { return std::isdigit(c) != 0; }))
                continue;
            const long id = std::stol(pid);
            const std::string folder = _procRoot + "/" + pid;
            // The executable is read before the stat file: when the process ends in between
            // and a new one gets its pid, the name is that of a process gone anyway, never
            // that of a running one judged by another's parents.
            char target[PATH_MAX];
            const ssize_t n = ::readlink((folder + "/exe").c_str(), target, sizeof target - 1);
            // Processes whose executable cannot be read (kernel threads, others' processes
            // when not root) are not listed, but may still link a descendant to self.
            if (auto lineage = ReadLineage(folder + "/stat"))
                lineages.emplace(id, *lineage);
            if (n <= 0)
                continue;
            // The path is the process's own: in another mount namespace (a container) the
            // same path can name another file here, so its bundle is read through the
            // process's root when that can be reached.
            const std::string root = folder + "/root";
            const bool seesRoot = ::access((root + "/").c_str(), X_OK) == 0;
            candidates.emplace(id, Candidate{std::string(target, static_cast<size_t>(n)),
                                             seesRoot ? root : std::string()});
        }
    }
    Family family(lineages, _self > 0 ? static_cast<long>(_self) : static_cast<long>(::getpid()));
    std::vector<std::string> names;
    names.reserve(candidates.size());
    for (auto& [pid, candidate] : candidates) {
        if (family.contains(pid))
            continue;
        names.push_back(DisplayNameOfExecutable(std::move(candidate.executable), candidate.root,
                                                _protectedFolders));
    }
    return names;
}

RunningApplicationHandler::RunningApplicationHandler(
    std::vector<XmlNode> appsToQuit, bool showUI, RunningAppsWindowController* runningAppsWindowH,
    const RunningApplications& runningApplications)
    : _appsToQuit(std::move(appsToQuit)), _showUI(showUI), _runningAppsWindowH(runningAppsWindowH),
      _runningApplications(runningApplications) {}

bool RunningApplicationHandler::areOrvelAppsRunning(std::string& names) const {
    names.clear();
    std::vector<std::string> patterns;
    patterns.reserve(_appsToQuit.size());
    for (const auto& entry : _appsToQuit)
        patterns.push_back(entry.stringValue());
    const auto running = _runningApplications.launchedApplications();
    for (auto app = running.rbegin(); app != running.rend(); ++app) {
        for (auto pattern = patterns.rbegin(); pattern != patterns.rend(); ++pattern) {
            if (IsStrEqualToRegEx(app->c_str(), pattern->c_str())) {
                NSLevelledLog(3, "%@ application was found running.", *pattern);
                names += *app + "\n";
                break;
            }
        }
    }
    return !names.empty();
}

bool RunningApplicationHandler::shutdownOrvelApplications(std::string& names) const {
    bool running = areOrvelAppsRunning(names);
    if (!_showUI || !_runningAppsWindowH)
        return !running;
    while (running) {
        _runningAppsWindowH->resetRunningApplications(names);
        _runningAppsWindowH->runModal();
        int action = 0;
        while ((action = _runningAppsWindowH->getUserAction()) == 0)
            ::usleep(10000);
        if (action == 2)
            return false;
        running = areOrvelAppsRunning(names);
    }
    return true;
}
