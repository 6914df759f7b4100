#include "app/Elevation.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

Elevation DecideElevation(bool isRoot, FrontEndKind kind, bool pkexecInstalled) {
    if (isRoot)
        return Elevation::NotNeeded;
    switch (kind) {
    case FrontEndKind::Qt:
        return pkexecInstalled ? Elevation::ThroughPkexec : Elevation::Unavailable;
    case FrontEndKind::Terminal:
        return Elevation::UseSudo;
    case FrontEndKind::Headless:
        break;
    }
    return Elevation::NotNeeded;
}

std::vector<std::string>
PkexecCommandLine(const std::string& pkexec, const std::string& launcher,
                  const std::string& program, const std::vector<std::string>& arguments,
                  const std::function<std::optional<std::string>(const std::string&)>& variable) {
    std::vector<std::string> line = {pkexec, launcher};
    for (const std::string& name : kElevatedEnvironment) {
        if (auto value = variable(name); value && !value->empty())
            line.push_back(name + "=" + *value);
    }
    line.push_back(program);
    line.insert(line.end(), arguments.begin(), arguments.end());
    return line;
}

std::string ElevationLauncher(const std::string& patchersLauncher) {
    struct stat status {};
    // What pkexec runs as root must be root's alone, like the program it starts.
    if (::stat(patchersLauncher.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
        (status.st_mode & S_IXUSR) != 0)
        return patchersLauncher;
    return "/usr/bin/env";
}

bool ElevationWasRefused(int pkexecStatus) {
    // 126: the dialog was dismissed; 127: not authorised (or no agent to ask).
    return pkexecStatus == 126 || pkexecStatus == 127;
}

int RunAndWait(const std::vector<std::string>& commandLine) {
    std::vector<char*> argv;
    for (const std::string& arg : commandLine)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child < 0)
        return 127;
    if (child == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return 127;
    }
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}
