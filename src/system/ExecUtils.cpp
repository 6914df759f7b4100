#include "system/ExecUtils.h"

#include "base/Format.h"
#include "system/FileSystemPath.h"
#include "system/FileSystemUtils.h"
#include "system/ServiceBackend.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace ExecUtils {

namespace {

// Both ends close on exec and lie above the standard descriptors, so that connecting a
// child's standard input and output can never overwrite one of them.
bool MakePipe(UniqueFd& readEnd, UniqueFd& writeEnd) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    UniqueFd ends[2] = {UniqueFd(fds[0]), UniqueFd(fds[1])};
    for (UniqueFd& end : ends) {
        if (end.get() <= STDERR_FILENO) {
            int moved = ::fcntl(end.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
            if (moved < 0)
                return false;
            end.reset(moved);
        }
    }
    readEnd = std::move(ends[0]);
    writeEnd = std::move(ends[1]);
    return true;
}

// Only async-signal-safe calls from here to the exec: the parent may have other threads.
[[noreturn]] void FailInChild(int reportFd) {
    int error = errno;
    if (reportFd >= 0) {
        ssize_t ignored = ::write(reportFd, &error, sizeof error);
        (void)ignored;
    }
    ::_exit(kExecFailureStatus);
}

[[noreturn]] void RunChild(const ExecId* identity, int inputRead, int outputWrite, int reportFd,
                           char* const* argv, char* const* envp) {
    if (identity != nullptr && ::geteuid() == 0) {
        if (identity->flags & kExecIdSetGid) {
            const gid_t effective = ::getegid();
            if (::setgid(identity->gid) != 0 || ::setegid(effective) != 0)
                FailInChild(reportFd);
        }
        if ((identity->flags & kExecIdSetEgid) && ::setegid(identity->egid) != 0)
            FailInChild(reportFd);
        if ((identity->flags & kExecIdSetUid) && ::setuid(identity->uid) != 0)
            FailInChild(reportFd);
        if ((identity->flags & kExecIdSetEuid) && ::geteuid() == 0 &&
            ::seteuid(identity->euid) != 0)
            FailInChild(reportFd);
    }
    if (::dup2(inputRead, STDIN_FILENO) < 0 || ::dup2(outputWrite, STDOUT_FILENO) < 0)
        FailInChild(reportFd);
    // A child starts with the default broken-pipe action and no blocked signals, whatever
    // the patcher chose for itself (RunExecutable may ignore SIGPIPE for the process).
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    ::sigaction(SIGPIPE, &defaultAction, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(argv[0], argv, envp);
    FailInChild(reportFd);
}

pid_t Spawn(const std::vector<std::string>& args, const ExecId* identity, UniqueFd& inputFd,
            UniqueFd& outputFd, int* execError) {
    std::vector<char> argBuffer;
    std::vector<char*> argv;
    if (args.empty() || args.front().empty() || !FormExecArgv(args, argBuffer, argv))
        return -1;
    const std::vector<std::string> environment = CleanedEnvironment(environ);
    std::vector<char> envBuffer;
    std::vector<char*> envp;
    if (!FormExecArgv(environment, envBuffer, envp))
        return -1;

    UniqueFd inputRead, inputWrite, outputRead, outputWrite, reportRead, reportWrite;
    if (!MakePipe(inputRead, inputWrite) || !MakePipe(outputRead, outputWrite))
        return -1;
    if (execError != nullptr && !MakePipe(reportRead, reportWrite))
        return -1;

    const pid_t pid = ::fork();
    if (pid < 0)
        return -1; // every end is closed by its owner
    if (pid == 0)
        RunChild(identity, inputRead.get(), outputWrite.get(), reportWrite.get(), argv.data(),
                 envp.data());

    inputRead.reset();
    outputWrite.reset();
    if (execError != nullptr) {
        reportWrite.reset();
        int error = 0;
        ssize_t n;
        do {
            n = ::read(reportRead.get(), &error, sizeof error);
        } while (n < 0 && errno == EINTR);
        *execError = n == static_cast<ssize_t>(sizeof error) ? (error != 0 ? error : EIO) : 0;
    }
    inputFd = std::move(inputWrite);
    outputFd = std::move(outputRead);
    return pid;
}

bool SetNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool IsRetryable(int error) {
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

} // namespace

pid_t OpenExecutable(const std::vector<std::string>& args, const ExecId* identity,
                     UniqueFd& inputFd, UniqueFd& outputFd) {
    return Spawn(args, identity, inputFd, outputFd, nullptr);
}

pid_t OpenExecutable(const std::vector<std::string>& args, UniqueFd& inputFd, UniqueFd& outputFd) {
    return Spawn(args, nullptr, inputFd, outputFd, nullptr);
}

pid_t StartExecutable(const std::vector<std::string>& args, const ExecId* identity,
                      UniqueFd& inputFd, UniqueFd& outputFd, int& execError) {
    execError = 0;
    return Spawn(args, identity, inputFd, outputFd, &execError);
}

int RunExecutable(const std::vector<std::string>& args, const ExecId* identity, const void* input,
                  size_t inputLength, std::vector<char>* output, bool& ioError,
                  bool ignoreBrokenPipe) {
    ioError = false;
    UniqueFd toChild, fromChild;
    const pid_t pid = OpenExecutable(args, identity, toChild, fromChild);
    if (pid < 0)
        return kExecFailureStatus;

    const char* pending = static_cast<const char*>(input);
    size_t remaining = input != nullptr ? inputLength : 0;
    if (remaining > 0) {
        if (ignoreBrokenPipe)
            ::signal(SIGPIPE, SIG_IGN);
        if (!SetNonBlocking(toChild.get())) {
            ioError = true;
            toChild.reset();
        }
    } else {
        toChild.reset();
    }
    if (!SetNonBlocking(fromChild.get())) {
        ioError = true;
        fromChild.reset();
    }

    std::vector<char> chunk(kReadChunkSize);
    while (toChild.valid() || fromChild.valid()) {
        pollfd fds[2];
        nfds_t count = 0;
        int writeIndex = -1, readIndex = -1;
        if (toChild.valid()) {
            writeIndex = static_cast<int>(count);
            fds[count++] = pollfd{toChild.get(), POLLOUT, 0};
        }
        if (fromChild.valid()) {
            readIndex = static_cast<int>(count);
            fds[count++] = pollfd{fromChild.get(), POLLIN, 0};
        }
        if (::poll(fds, count, -1) < 0) {
            if (errno == EINTR)
                continue;
            ioError = true;
            break;
        }
        if (writeIndex >= 0 && fds[writeIndex].revents != 0) {
            ssize_t n = ::write(toChild.get(), pending, remaining);
            if (n > 0) {
                pending += n;
                remaining -= static_cast<size_t>(n);
                if (remaining == 0)
                    toChild.reset();
            } else if (n < 0 && IsRetryable(errno)) {
                // try again when the pipe has room
            } else {
                ioError = true;
                toChild.reset();
            }
        }
        if (readIndex >= 0 && fds[readIndex].revents != 0) {
            ssize_t n = ::read(fromChild.get(), chunk.data(), chunk.size());
            if (n > 0) {
                if (output != nullptr)
                    output->insert(output->end(), chunk.data(), chunk.data() + n);
            } else if (n == 0) {
                fromChild.reset();
            } else if (!IsRetryable(errno)) {
                ioError = true;
                fromChild.reset();
            }
        }
    }
    toChild.reset();
    fromChild.reset();

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return kExecFailureStatus;
    }
    return ExitStatusFromWaitStatus(status);
}

int RunExecutable(const std::vector<std::string>& args, const void* input, size_t inputLength,
                  std::vector<char>* output, bool& ioError, bool ignoreBrokenPipe) {
    return RunExecutable(args, nullptr, input, inputLength, output, ioError, ignoreBrokenPipe);
}

bool FormExecArgv(const std::vector<std::string>& args, std::vector<char>& buffer,
                  std::vector<char*>& argv) {
    buffer.clear();
    argv.clear();
    size_t total = 0;
    for (const std::string& arg : args) {
        if (arg.find('\0') != std::string::npos)
            return false;
        total += arg.size() + 1;
    }
    buffer.reserve(total);
    std::vector<size_t> offsets;
    offsets.reserve(args.size());
    for (const std::string& arg : args) {
        offsets.push_back(buffer.size());
        buffer.insert(buffer.end(), arg.begin(), arg.end());
        buffer.push_back('\0');
    }
    argv.reserve(args.size() + 1);
    for (size_t offset : offsets)
        argv.push_back(buffer.data() + offset);
    argv.push_back(nullptr);
    return true;
}

std::vector<std::string> CleanedEnvironment(const char* const* environment) {
    static constexpr std::string_view kPassed[] = {"__CF_USER_TEXT_ENCODING", "SECURITYSESSIONID"};
    std::vector<std::string> cleaned;
    for (const char* const* entry = environment; entry != nullptr && *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        std::string_view name = text.substr(0, text.find('='));
        for (std::string_view passed : kPassed) {
            if (name == passed && name.size() < text.size())
                cleaned.emplace_back(text);
        }
    }
    cleaned.push_back(std::string("PATH=") + kChildSearchPath);
    return cleaned;
}

int ExitStatusFromWaitStatus(int status) {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 129;
    if (WIFSTOPPED(status))
        return WSTOPSIG(status) + 128;
    return kExecFailureStatus;
}

bool WaitWhileProcessExists(pid_t pid, int timeoutSeconds) {
    if (pid == ::getpid())
        return false;
    return WaitForPID(pid, timeoutSeconds) == 0;
}

} // namespace ExecUtils

namespace {

bool IsAllDigits(const char* text) {
    if (*text == '\0')
        return false;
    for (; *text != '\0'; ++text) {
        if (!std::isdigit(static_cast<unsigned char>(*text)))
            return false;
    }
    return true;
}

// "<pid> (<name>) <state> <parent pid> ...": the name may hold blanks and parentheses, so
// it ends at the last ")".
bool ParseStatLine(const std::string& line, BSDProcessRecord& record) {
    const size_t open = line.find('(');
    const size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open ||
        close + 4 > line.size())
        return false;
    record.name = line.substr(open + 1, close - open - 1);
    record.state = line[close + 2];
    record.parentPid = static_cast<pid_t>(std::atoi(line.c_str() + close + 4));
    return true;
}

bool IsAlive(const BSDProcessRecord& record) {
    return record.state != 'Z' && record.state != 'X' && record.state != 'x';
}

} // namespace

int GetBSDProcessList(std::unique_ptr<BSDProcessRecord[]>& list, size_t& count,
                      const std::string& procRoot) {
    DIR* folder = ::opendir(procRoot.c_str());
    if (folder == nullptr)
        return errno != 0 ? errno : EIO;
    std::vector<BSDProcessRecord> records;
    while (dirent* entry = ::readdir(folder)) {
        if (!IsAllDigits(entry->d_name))
            continue;
        const std::string folderPath = procRoot + "/" + entry->d_name;
        struct stat info {};
        if (::stat(folderPath.c_str(), &info) != 0)
            continue; // ended while the list was read
        auto text = ReadFileText(folderPath + "/stat", 64 * 1024);
        BSDProcessRecord record;
        if (!text || !ParseStatLine(*text, record))
            continue;
        record.pid = static_cast<pid_t>(std::atoi(entry->d_name));
        record.uid = info.st_uid;
        records.push_back(std::move(record));
    }
    ::closedir(folder);
    auto array = std::make_unique<BSDProcessRecord[]>(records.size());
    for (size_t i = 0; i < records.size(); ++i)
        array[i] = std::move(records[i]);
    list = std::move(array);
    count = records.size();
    return 0;
}

int IsProcessRunning(pid_t pid, const std::string& procRoot) {
    std::unique_ptr<BSDProcessRecord[]> list;
    size_t count = 0;
    if (GetBSDProcessList(list, count, procRoot) != 0)
        return 0;
    for (size_t i = 0; i < count; ++i) {
        if (list[i].pid == pid && IsAlive(list[i]))
            return 1;
    }
    return 0;
}

pid_t GetProcessID(const std::string& name, const std::string& procRoot) {
    std::unique_ptr<BSDProcessRecord[]> list;
    size_t count = 0;
    if (name.empty() || GetBSDProcessList(list, count, procRoot) != 0)
        return -1;
    const std::string kernelName = name.substr(0, 15);
    for (size_t i = 0; i < count; ++i) {
        if (list[i].name == kernelName && IsAlive(list[i]))
            return list[i].pid;
    }
    return -1;
}

int WaitForPID(pid_t pid, int timeoutSeconds) {
    if (pid <= 0)
        return EINVAL;
    UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!process.valid())
        return errno;
    using Clock = std::chrono::steady_clock;
    const bool limited = timeoutSeconds > 0;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
    for (;;) {
        int waitMs = -1;
        if (limited) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            waitMs = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        pollfd entry{process.get(), POLLIN, 0};
        int ready = ::poll(&entry, 1, waitMs);
        if (ready > 0)
            return 0;
        if (ready == 0)
            return ETIMEDOUT;
        if (errno != EINTR)
            return errno;
    }
}

int launchctlCommand(const ServiceBackend& backend, const std::string& pidFileFormat,
                     const char* serviceName, const char* command, int waitSeconds) {
    const std::string name = serviceName != nullptr ? serviceName : "";
    if (!AcceptServiceLabel(name) || command == nullptr || *command == '\0')
        return ExecUtils::kExecFailureStatus;

    const ExecUtils::ExecId superUser{ExecUtils::kExecIdSetUid | ExecUtils::kExecIdSetGid |
                                          ExecUtils::kExecIdSetEgid,
                                      0, 0, 0, 0};
    bool ioError = false;
    const int status = ExecUtils::RunExecutable(backend.controlCommand(command, name), &superUser,
                                                nullptr, 0, nullptr, ioError, true);
    if (status != 0)
        return status;

    try {
        const FileSystemPath pidFile(StringWithFormat(pidFileFormat, name));
        std::vector<char> contents;
        if (FileSystemUtils::Exists(pidFile) &&
            FileSystemUtils::LoadFileContents(pidFile, contents)) {
            std::string text(contents.begin(), contents.end());
            const pid_t pid = static_cast<pid_t>(std::atol(text.c_str()));
            if (pid > 0)
                ExecUtils::WaitWhileProcessExists(pid, waitSeconds);
        }
    } catch (const std::runtime_error&) {
        // no valid pid file path: nothing to wait for
    }
    return 0;
}

int launchctlCommand(const char* serviceName, const char* command) {
    const PlatformPaths& paths = PlatformPaths::defaults();
    const auto backend = ServiceBackend::forMachine(paths);
    return launchctlCommand(*backend, paths.pidFileFormat, serviceName, command,
                            kServiceWaitSeconds);
}
