#include "SystemTestSupport.h"

#include "TestSupport.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

std::string SelfExecutable() {
    char buffer[4096];
    ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0)
        return {};
    return std::string(buffer, static_cast<size_t>(n));
}

int RunSelfWithPrefix(const std::vector<std::string>& prefix, const std::string& filter,
                      const std::vector<std::string>& extraEnv, std::string& output) {
    TempDir dir;
    ::chmod(dir.path().c_str(), 0777);
    std::vector<std::string> argv = prefix;
    argv.push_back(SelfExecutable());
    argv.push_back("--gtest_also_run_disabled_tests");
    argv.push_back("--gtest_filter=" + filter);
    const std::string logPath = dir.file("output.txt");
    int status = RunProgram(argv, extraEnv, logPath, logPath);
    output = FileExists(logPath) ? ReadTextFile(logPath) : std::string();
    return status;
}

std::string EnvironmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string MountNamespaceId() {
    char buffer[256];
    ssize_t n = ::readlink("/proc/self/ns/mnt", buffer, sizeof buffer - 1);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

pid_t StartSleeper(double seconds, const std::string& linkFolder, const std::string& name) {
    std::string program = "/bin/sleep";
    if (!linkFolder.empty()) {
        program = linkFolder + "/" + name;
        if (::symlink("/bin/sleep", program.c_str()) != 0 && errno != EEXIST)
            return -1;
    }
    std::ostringstream text;
    text << seconds;
    const std::string duration = text.str();
    pid_t pid = ::fork();
    if (pid == 0) {
        char* const argv[] = {const_cast<char*>(program.c_str()),
                              const_cast<char*>(duration.c_str()), nullptr};
        ::execv(program.c_str(), argv);
        ::_exit(127);
    }
    return pid;
}

void KillAndReap(pid_t pid) {
    if (pid <= 0)
        return;
    ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}
