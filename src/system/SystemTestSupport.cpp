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
