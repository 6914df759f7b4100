// orvel-run-patcher: the program that pkexec starts when a desktop user's patcher asks for
// an administrator (see PatcherLaunch.h). It sets the variables it was given and replaces
// itself with the patcher program; pkexec reports the patcher's exit status.
#include "PatcherLaunch.h"
#include "base/Version.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

const char* const kUsage =
    "usage: orvel-run-patcher [NAME=VALUE...] /PATH/NAME.app/Contents/MacOS/PatcherApp [ARGS...]\n"
    "Started by pkexec for a patcher that needs root: sets the display and language\n"
    "variables given (DISPLAY, WAYLAND_DISPLAY, XAUTHORITY, XDG_RUNTIME_DIR, HOME, LANG,\n"
    "LANGUAGE, LC_ALL, LC_MESSAGES; no others) and runs the patcher program with ARGS.\n"
    "Exit status: the patcher's, or 127 when the command line is refused.\n";

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("orvel-run-patcher (Orvel patcher) %s\n", kOrvelVersion);
        return 0;
    }
    std::string error;
    const auto launch = PlanPatcherLaunch(std::vector<std::string>(argv + 1, argv + argc),
                                          ResolvedRegularFile, &error);
    if (!launch) {
        std::fprintf(stderr, "orvel-run-patcher: %s; nothing was started\n%s", error.c_str(),
                     kUsage);
        return 127;
    }
    for (const auto& [name, value] : launch->variables)
        ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> args;
    args.push_back(const_cast<char*>(launch->program.c_str()));
    for (const std::string& argument : launch->arguments)
        args.push_back(const_cast<char*>(argument.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    std::fprintf(stderr, "orvel-run-patcher: cannot start %s: %s\n", args[0], std::strerror(errno));
    return 127;
}
