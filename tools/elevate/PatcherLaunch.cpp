#include "PatcherLaunch.h"

#include "app/ElevatedEnvironment.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <sys/stat.h>

namespace {

constexpr const char* kProgramTail = "/Contents/MacOS/PatcherApp";

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// /somewhere/Name.app/Contents/MacOS/PatcherApp, with a non-empty Name.
bool IsPatcherProgram(const std::string& path) {
    if (path.empty() || path.front() != '/' || !EndsWith(path, kProgramTail))
        return false;
    const std::string bundle = path.substr(0, path.size() - std::string(kProgramTail).size());
    const std::string name = bundle.substr(bundle.rfind('/') + 1);
    return name.size() > 4 && EndsWith(name, ".app");
}

} // namespace

std::optional<PatcherLaunch>
PlanPatcherLaunch(const std::vector<std::string>& words,
                  std::optional<std::string> (*realPath)(const std::string&), std::string* error) {
    PatcherLaunch launch;
    size_t at = 0;
    for (; at < words.size(); ++at) {
        const std::string& word = words[at];
        const size_t equals = word.find('=');
        if (word.empty() || word.front() == '/' || equals == std::string::npos)
            break;
        const std::string name = word.substr(0, equals);
        if (std::find(kElevatedEnvironment.begin(), kElevatedEnvironment.end(), name) ==
            kElevatedEnvironment.end()) {
            *error = "the variable " + name + " is not passed on to a patcher";
            return std::nullopt;
        }
        launch.variables.emplace_back(name, word.substr(equals + 1));
    }
    if (at == words.size()) {
        *error = "no patcher program given";
        return std::nullopt;
    }
    const std::string& program = words[at];
    if (!IsPatcherProgram(program)) {
        *error = program + " is not a patcher program (/.../Name.app" + kProgramTail + ")";
        return std::nullopt;
    }
    // What runs is what the links lead to; that must be a patcher program too.
    const auto resolved = realPath(program);
    if (!resolved) {
        *error = program + " is not a file";
        return std::nullopt;
    }
    if (!IsPatcherProgram(*resolved)) {
        *error = program + " leads to " + *resolved + ", which is not a patcher program";
        return std::nullopt;
    }
    launch.program = *resolved;
    launch.arguments.assign(words.begin() + static_cast<std::ptrdiff_t>(at) + 1, words.end());
    return launch;
}

std::optional<std::string> ResolvedRegularFile(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) == nullptr)
        return std::nullopt;
    struct stat status {};
    if (::stat(resolved, &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return std::string(resolved);
}
