#include "runtime/LoggerUtility.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "runtime/CommonUtility.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/syscall.h>
#include <unistd.h>

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

bool StartLogging(const std::string& path) {
    if (path.empty())
        return false;
    const std::string parent = ParentPath(path);
    if (!PathExists(path) && !PathExists(parent) && !CreateDirectoryAtPath(parent))
        return false;
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!fd.valid())
        return false;
    std::fflush(stderr);
    if (::dup2(fd.get(), STDERR_FILENO) < 0)
        return false;
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
