#include "report/RunningApplicationHandler.h"

#include "base/Path.h"
#include "base/PropertyList.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"

#include <algorithm>
#include <climits>
#include <dirent.h>
#include <memory>
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

} // namespace

std::vector<std::string> RunningApplications::launchedApplications() const {
    std::vector<std::pair<long, std::string>> found;
    std::unique_ptr<DIR, DirCloser> dir(::opendir(_procRoot.c_str()));
    if (!dir)
        return {};
    while (dirent* entry = ::readdir(dir.get())) {
        const std::string pid = entry->d_name;
        if (pid.empty() || !std::all_of(pid.begin(), pid.end(), ::isdigit))
            continue;
        char target[PATH_MAX];
        const std::string link = _procRoot + "/" + pid + "/exe";
        ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
        if (n <= 0)
            continue; // kernel threads, processes gone meanwhile, or not ours to see
        // The path is the process's own: in another mount namespace (a container) the same
        // path can name another file here, so its bundle is read through the process's root
        // when that can be reached.
        const std::string root = _procRoot + "/" + pid + "/root";
        const bool seesRoot = ::access((root + "/").c_str(), X_OK) == 0;
        found.emplace_back(std::stol(pid), DisplayNameOfExecutable(
                                               std::string(target, static_cast<size_t>(n)),
                                               seesRoot ? root : std::string(), _protectedFolders));
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    names.reserve(found.size());
    for (auto& [pid, name] : found)
        names.push_back(std::move(name));
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
