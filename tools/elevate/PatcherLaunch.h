#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

// What orvel-run-patcher is asked to do, checked: pkexec starts it as root with
//   [NAME=VALUE ...] /path/Name.app/Contents/MacOS/PatcherApp [ARGUMENTS ...]
// and it starts the patcher program with those variables set. Only the names of
// kElevatedEnvironment are taken, and only a patcher program is started, so the launcher
// that polkit's "Update an Orvel application" action covers cannot be used to run anything
// else as root.
struct PatcherLaunch {
    std::vector<std::pair<std::string, std::string>> variables;
    std::string program;                // the patcher program, as resolved
    std::vector<std::string> arguments; // its arguments, without the program
};

// The launch the command line asks for, or why it is refused (error set, nothing returned).
// realPath resolves a path the way the system will open it (symbolic links followed);
// nothing when it does not exist.
std::optional<PatcherLaunch>
PlanPatcherLaunch(const std::vector<std::string>& words,
                  std::optional<std::string> (*realPath)(const std::string&), std::string* error);

// The path with its links resolved (realpath(3)), when it is a regular file.
std::optional<std::string> ResolvedRegularFile(const std::string& path);
