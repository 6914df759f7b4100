#include "runtime/LoggerUtility.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "runtime/CommonUtility.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <pthread.h>
#include <strings.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::string_view kSeparators[] = {
    "*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*",
    "=================================================================",
    "-----------------------------------------------------------------",
    ".................................................................",
};

// The process and thread ids of the prefix, asked of the kernel once (a line costs one
// system call, its write); a forked child asks again.
std::atomic<pid_t> gProcessId{0};
thread_local pid_t tThreadId = 0;
thread_local pid_t tThreadIdOfProcess = 0;

void ForgetProcessId() {
    gProcessId.store(0, std::memory_order_relaxed);
}

pid_t ProcessId() {
    static const bool watching = ::pthread_atfork(nullptr, nullptr, ForgetProcessId) == 0;
    (void)watching;
    pid_t known = gProcessId.load(std::memory_order_relaxed);
    if (known == 0) {
        known = ::getpid();
        gProcessId.store(known, std::memory_order_relaxed);
    }
    return known;
}

pid_t ThreadId() {
    const pid_t process = ProcessId();
    if (tThreadId == 0 || tThreadIdOfProcess != process) {
        tThreadId = static_cast<pid_t>(::syscall(SYS_gettid));
        tThreadIdOfProcess = process;
    }
    return tThreadId;
}

} // namespace

namespace {

// The file-system ids of the calling thread (setfsuid is a thread's own, unlike setuid),
// set for the life of this object.
class FileSystemIds {
public:
    FileSystemIds(uid_t uid, gid_t gid)
        : _gid(static_cast<gid_t>(::setfsgid(gid))), _uid(static_cast<uid_t>(::setfsuid(uid))) {}
    ~FileSystemIds() {
        (void)::setfsuid(_uid);
        (void)::setfsgid(_gid);
    }
    FileSystemIds(const FileSystemIds&) = delete;
    FileSystemIds& operator=(const FileSystemIds&) = delete;

private:
    gid_t _gid;
    uid_t _uid;
};

std::string Reason(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// Gives a folder or file that a root run made to owner (a file only while it has this one
// name, so that nothing reachable by another name is given away).
void GiveRootsToOwner(int fd, const struct stat& owner) {
    struct stat info {};
    if (::fstat(fd, &info) == 0 && info.st_uid == 0 &&
        (S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && info.st_nlink == 1)))
        (void)::fchown(fd, owner.st_uid, owner.st_gid);
}

// The log file at relativePath below the folder handle, made where missing, opened for
// appending without following a link or waiting on a FIFO. With giveTo, what a root run
// made on the way is given to that owner.
UniqueFd OpenLogBelow(int top, const std::string& relativePath, std::string& problem,
                      const struct stat* giveTo = nullptr) {
    std::vector<std::string> names;
    for (size_t start = 0; start < relativePath.size();) {
        const size_t end = std::min(relativePath.find('/', start), relativePath.size());
        const std::string name = relativePath.substr(start, end - start);
        if (name == "..") {
            problem = "\"..\" in " + relativePath;
            return UniqueFd();
        }
        if (!name.empty() && name != ".")
            names.push_back(name);
        start = end + 1;
    }
    if (names.empty()) {
        problem = "no file name";
        return UniqueFd();
    }
    UniqueFd folder(::fcntl(top, F_DUPFD_CLOEXEC, 0));
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        const char* name = names[i].c_str();
        if (::mkdirat(folder.get(), name, 0755) != 0 && errno != EEXIST) {
            problem = Reason("cannot make the folder " + names[i]);
            return UniqueFd();
        }
        UniqueFd next(
            ::openat(folder.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next.valid()) {
            problem = Reason(names[i] + " is not a folder that can be opened without following "
                                        "a link");
            return UniqueFd();
        }
        if (giveTo)
            GiveRootsToOwner(next.get(), *giveTo);
        folder = std::move(next);
    }
    UniqueFd file(::openat(folder.get(), names.back().c_str(),
                           O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                           0644));
    if (!file.valid()) {
        problem = Reason("cannot open " + names.back());
        return UniqueFd();
    }
    if (giveTo)
        GiveRootsToOwner(file.get(), *giveTo);
    return file;
}

} // namespace

bool StartLogging(const std::string& folder, const std::string& relativePath,
                  std::string* problem) {
    std::string why;
    auto fail = [&](std::string reason) {
        if (problem)
            *problem = std::move(reason);
        return false;
    };
    if (folder.empty() || relativePath.empty())
        return fail("no log file");
    // The folder itself is the account's (a home folder may well be a link); what lies
    // below it is its owner's, and is reached as its owner.
    UniqueFd top(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat owner {};
    if (!top.valid() || ::fstat(top.get(), &owner) != 0)
        return fail(Reason("cannot open " + folder));
    const bool asOwner = ::geteuid() == 0 && owner.st_uid != 0;
    UniqueFd file;
    int error = 0;
    {
        std::optional<FileSystemIds> ids;
        if (asOwner)
            ids.emplace(owner.st_uid, owner.st_gid);
        file = OpenLogBelow(top.get(), relativePath, why);
        error = errno;
    }
    if (!file.valid() && asOwner && error == EACCES) {
        // Folders or a log that a root run made before the log was opened as its owner:
        // they are given to the owner, and the log is used.
        std::string rootWhy;
        file = OpenLogBelow(top.get(), relativePath, rootWhy, &owner);
        struct stat info {};
        if (file.valid() && (::fstat(file.get(), &info) != 0 || info.st_uid != owner.st_uid))
            file.reset();
    }
    if (!file.valid())
        return fail(why);
    struct stat info {};
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return fail("the log is not a regular file");
    const int flags = ::fcntl(file.get(), F_GETFL);
    if (flags < 0 || ::fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return fail(Reason("cannot set up the log"));
    std::fflush(stderr);
    if (::dup2(file.get(), STDERR_FILENO) < 0)
        return fail(Reason("cannot redirect the log"));
    return true;
}

unsigned ResolveLogLevelString(const std::string& name) {
    struct Entry {
        const char* name;
        unsigned level;
    };
    static constexpr Entry kNames[] = {{"error", 0}, {"0", 0}, {"warning", 1}, {"1", 1},
                                       {"info", 2},  {"2", 2}, {"debug", 3},   {"3", 3}};
    for (const auto& entry : kNames) {
        if (::strcasecmp(name.c_str(), entry.name) == 0)
            return entry.level;
    }
    return 0;
}

std::string GetSeparatorStringGivenType(int type) {
    if (type < 0 || type > 3)
        return std::to_string(type);
    return std::string(kSeparators[type]);
}

void NSLog(std::string_view message) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03lld ",
                  local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec, static_cast<long long>(millis));
    std::string line = stamp;
    line += program_invocation_short_name;
    line += "[" + std::to_string(ProcessId()) + ":" + std::to_string(ThreadId()) + "] ";
    line += message;
    if (line.back() != '\n')
        line += '\n';
    // One write per line: with O_APPEND the line lands whole even with concurrent writers.
    (void)WriteAll(STDERR_FILENO, line.data(), line.size());
}

std::string ComposeHeadingLine(int type, const std::string& heading) {
    const std::string separator = GetSeparatorStringGivenType(type);
    if (separator.size() > 4 && heading.size() < separator.size() - 4) {
        const size_t padLength = (65 - heading.size() - 2) / 2;
        const std::string pad = separator.substr(0, padLength);
        return pad + " " + heading + " " + pad;
    }
    return heading;
}

void NSFormatLog(int type) {
    NSLog(GetSeparatorStringGivenType(type));
}
