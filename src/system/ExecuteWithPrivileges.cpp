#include "system/ExecuteWithPrivileges.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "runtime/LoggerUtility.h"
#include "system/ExecUtils.h"
#include "system/NotificationCenter.h"
#include "system/Utf8Text.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The callers use the shared instance from one thread at a time; the lock only keeps the
// making and forgetting of the pointer itself whole.
std::mutex gInstanceLock;
std::unique_ptr<ExecuteWithPrivileges> gInstance;

} // namespace

ExecuteWithPrivileges* ExecuteWithPrivileges::getInstance() {
    std::lock_guard<std::mutex> guard(gInstanceLock);
    if (!gInstance)
        gInstance = std::make_unique<ExecuteWithPrivileges>();
    return gInstance.get();
}

ExecuteWithPrivileges* ExecuteWithPrivileges::getInstanceUsingToken(const std::string& tokenFile) {
    std::lock_guard<std::mutex> guard(gInstanceLock);
    if (!gInstance)
        gInstance = initWithToken(tokenFile);
    return gInstance.get();
}

bool ExecuteWithPrivileges::releaseInstance() {
    std::unique_ptr<ExecuteWithPrivileges> released;
    {
        std::lock_guard<std::mutex> guard(gInstanceLock);
        released = std::move(gInstance);
    }
    return true;
}

ExecuteWithPrivileges::ExecuteWithPrivileges() {
    raisePrivileges();
}

ExecuteWithPrivileges::ExecuteWithPrivileges(FromToken, std::vector<char> token)
    : _authRef(std::move(token)) {
    raisePrivileges();
}

std::unique_ptr<ExecuteWithPrivileges>
ExecuteWithPrivileges::initWithToken(const std::string& tokenFile) {
    // The file is in /tmp, where any local user can make names: only a regular file of
    // root's counts, opened without following a link and without waiting on a pipe, and
    // no more than a token's length of it is read.
    UniqueFd fd(::open(tokenFile.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno == ELOOP)
            NSLevelledLog(0, "Ignoring %@: it is a symbolic link", tokenFile);
        NSLevelledLog(2, "Error. Execute with privileges cannot be initialized.");
        return nullptr;
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != 0) {
        NSLevelledLog(0, "Ignoring %@: only a regular file of root's is a token", tokenFile);
        NSLevelledLog(2, "Error. Execute with privileges cannot be initialized.");
        return nullptr;
    }
    // The token is the update manager's business; it is read as handed over and never
    // interpreted (an unreadable token is simply empty).
    std::vector<char> token;
    {
        token.resize(kTokenLength);
        size_t done = 0;
        while (done < token.size()) {
            ssize_t n = ::read(fd.get(), token.data() + done, token.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        token.resize(done);
    }
    return std::unique_ptr<ExecuteWithPrivileges>(
        new ExecuteWithPrivileges(FromToken{}, std::move(token)));
}

void ExecuteWithPrivileges::raisePrivileges() {
    _savedUID = ::getuid();
    _savedeUID = ::geteuid();
    if (::seteuid(0) == 0 && ::setuid(0) == 0) {
        NSLevelledLog(2, "Elevated privileges");
        return;
    }
    NSLevelledLog(0, "Failed to elevate the privileges");
    NSLevelledLog(3, "UID:%d EUID:%d", _savedUID, _savedeUID);
    NSLevelledLog(3, "UID:%d EUID:%d", ::getuid(), ::geteuid());
}

ExecuteWithPrivileges::~ExecuteWithPrivileges() {
    // Only the real id is set back first: setuid() by the super-user would also replace
    // the saved set-user-id, and a process that started with an effective id of 0 could
    // then never raise its ids again.
    int ignored = ::setresuid(_savedUID, static_cast<uid_t>(-1), static_cast<uid_t>(-1));
    ignored = ::seteuid(_savedeUID);
    (void)ignored;
    NSLevelledLog(3, "uid:%@ euid:%@", StringWithFormat("%d", ::getuid()),
                  StringWithFormat("%d", ::geteuid()));
}

bool ExecuteWithPrivileges::executeCommand(
    const std::optional<std::string>& command,
    const std::optional<std::vector<std::string>>& arguments) {
    _waitStatus = -1;
    bool result = false;
    if (!command || command->empty()) {
        NSLevelledLog(3, "No command to execute");
    } else {
        std::vector<std::string> args{*command};
        if (arguments) {
            std::vector<char> buffer;
            std::vector<char*> pointers;
            if (ExecUtils::FormExecArgv(*arguments, buffer, pointers))
                args.insert(args.end(), arguments->begin(), arguments->end());
            else
                NSLevelledLog(3, "Unable to convert arguments, using empty argument list");
        }
        UniqueFd input, output;
        int execError = 0;
        const pid_t pid = ExecUtils::StartExecutable(args, nullptr, input, output, execError);
        if (pid > 0) {
            input.reset();
            // The output is not wanted, but it is read to its end so that a talkative
            // command never blocks on a full pipe.
            char sink[ExecUtils::kReadChunkSize];
            for (;;) {
                ssize_t n = ::read(output.get(), sink, sizeof sink);
                if (n < 0 && errno == EINTR)
                    continue;
                if (n <= 0)
                    break;
            }
            output.reset();
            int status = 0;
            pid_t waited;
            do {
                waited = ::waitpid(pid, &status, 0);
            } while (waited < 0 && errno == EINTR);
            if (waited == pid && execError == 0) {
                _waitStatus = status;
                result = true;
            }
        }
    }
    NotificationCenter::defaultCenter().postNotification(kExitNotification, this);
    return result;
}

std::string
ExecuteWithPrivileges::performTask(const std::string& launchPath,
                                   const std::optional<std::vector<std::string>>& arguments) {
    std::vector<std::string> args{launchPath};
    if (arguments)
        args.insert(args.end(), arguments->begin(), arguments->end());
    // The program gets the cleaned environment of every child (ExecUtils): with raised ids
    // the caller's variables (LD_PRELOAD, PATH...) must not steer it.
    std::vector<char> output;
    bool ioError = false;
    const int status = ExecUtils::RunExecutable(args, nullptr, 0, &output, ioError, false);
    if (status != 0 || ioError || output.empty())
        return {};
    std::string text(output.begin(), output.end());
    if (!IsValidUTF8(text))
        return {};
    return text;
}
