#include "report/KORInstallerResults.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

constexpr size_t kMaxMessageBytes = 64 * 1024;

struct Handover {
    bool managed = false;
    std::string clientAppPath;
    int fd = -1;
};

std::optional<int> ParseFd(const char* text) {
    if (!text || !*text)
        return std::nullopt;
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < 0 || value > INT_MAX)
        return std::nullopt;
    return static_cast<int>(value);
}

// The parent of a process, from /proc/<pid>/stat ("pid (comm) state ppid ...").
std::optional<pid_t> ParentOf(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text))
        return std::nullopt;
    auto close = text.rfind(')');
    if (close == std::string::npos || close + 4 > text.size())
        return std::nullopt;
    long ppid = std::strtol(text.c_str() + close + 4, nullptr, 10);
    return ppid > 0 ? std::optional<pid_t>(static_cast<pid_t>(ppid)) : std::nullopt;
}

bool IsAncestor(pid_t candidate) {
    pid_t pid = ::getppid();
    for (int depth = 0; depth < 16 && pid > 0; ++depth) {
        if (pid == candidate)
            return true;
        auto parent = ParentOf(pid);
        if (!parent || *parent == pid)
            break;
        pid = *parent;
    }
    return false;
}

bool IsManagerSocket(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode))
        return false;
    int type = 0;
    socklen_t size = sizeof type;
    if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET)
        return false;
    struct ucred peer {};
    size = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid <= 0)
        return false;
    return IsAncestor(peer.pid);
}

const Handover& GetHandover() {
    static Handover handover;
    static std::once_flag once;
    std::call_once(once, [] {
        const char* path = std::getenv(KOR_CLIENT_APP_PATH_ENV);
        auto fd = ParseFd(std::getenv(KOR_RESULTS_FD_ENV));
        if (path && *path && fd && IsManagerSocket(*fd)) {
            handover.managed = true;
            handover.clientAppPath = path;
            handover.fd = *fd;
            ::fcntl(*fd, F_SETFD, FD_CLOEXEC);
        }
        ::unsetenv(KOR_CLIENT_APP_PATH_ENV);
        ::unsetenv(KOR_RESULTS_FD_ENV);
    });
    return handover;
}

} // namespace

extern "C" int KORGetClientAppPath(uint32_t* length, char* buffer) {
    if (!length)
        return 0;
    const Handover& handover = GetHandover();
    if (!handover.managed) {
        *length = 0;
        return 0;
    }
    const size_t needed = handover.clientAppPath.size();
    if (!buffer || *length < needed + 1) {
        *length = static_cast<uint32_t>(needed);
        return 0;
    }
    std::memcpy(buffer, handover.clientAppPath.c_str(), needed + 1);
    return 1;
}

extern "C" int KORSetInstallerResults(int32_t code, const char* message) {
    const Handover& handover = GetHandover();
    if (!handover.managed)
        return 0;
    std::string packet = std::to_string(code) + "\n" + (message ? "1\n" : "0\n");
    if (message)
        packet.append(message, ::strnlen(message, kMaxMessageBytes));
    ssize_t sent;
    do {
        sent = ::send(handover.fd, packet.data(), packet.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(packet.size()) ? 1 : 0;
}
