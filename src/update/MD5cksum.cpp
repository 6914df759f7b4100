#include "update/MD5cksum.h"

#include "base/FileUtil.h"
#include "run/LoggerUtility.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace {

constexpr size_t kReadSize = 256 * 1024;

struct DigestContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextDeleter>;

// The lower-case hex MD5 of everything readable from fd; nothing on a read or digest error,
// or when stop is set meanwhile.
std::optional<std::string> DigestOfDescriptor(int fd, const std::atomic<bool>* stop = nullptr) {
    MD5cksum::Stream stream;
    const auto buffer = std::make_unique_for_overwrite<unsigned char[]>(kReadSize);
    for (;;) {
        if (stop && stop->load(std::memory_order_relaxed))
            return std::nullopt;
        const ssize_t got = ::read(fd, buffer.get(), kReadSize);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        stream.update(buffer.get(), static_cast<size_t>(got));
    }
    return stream.finish();
}

bool SameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The files whose checksums are known without reading them: a list, newest first, and an
// index of it by path.
struct RememberedChecksum {
    std::string path;
    struct stat identity;
    std::string digest;
};
std::mutex gRememberedMutex;
std::list<RememberedChecksum> gRemembered;
std::unordered_map<std::string, std::list<RememberedChecksum>::iterator> gRememberedByPath;

void ForgetLocked(std::list<RememberedChecksum>::iterator entry) {
    gRememberedByPath.erase(entry->path);
    gRemembered.erase(entry);
}

} // namespace

std::optional<std::string> MD5cksum::rememberedChecksumOfFile(const std::string& path,
                                                              const struct stat& current) {
    const std::lock_guard lock(gRememberedMutex);
    const auto found = gRememberedByPath.find(path);
    if (found == gRememberedByPath.end())
        return std::nullopt;
    if (!MD5cksum::sameFileState(found->second->identity, current)) {
        ForgetLocked(found->second); // changed since: read it again
        return std::nullopt;
    }
    return found->second->digest;
}

bool MD5cksum::sameFileState(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           SameTime(a.st_mtim, b.st_mtim) && SameTime(a.st_ctim, b.st_ctim);
}

void MD5cksum::rememberChecksumOfFile(const std::string& path, const struct stat& identity,
                                      const std::string& digest) {
    if (!S_ISREG(identity.st_mode))
        return;
    const std::lock_guard lock(gRememberedMutex);
    if (const auto found = gRememberedByPath.find(path); found != gRememberedByPath.end())
        ForgetLocked(found->second);
    gRemembered.push_front(RememberedChecksum{path, identity, digest});
    gRememberedByPath.emplace(path, gRemembered.begin());
    if (gRemembered.size() > kRememberedFiles)
        ForgetLocked(std::prev(gRemembered.end()));
}

bool MD5cksum::rememberChecksumOfFileAhead(const std::string& path, const std::atomic<bool>& stop) {
    // Only a regular file is opened: opening a device can have effects of its own.
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode))
        return false;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat before {};
    if (!fd.valid() || ::fstat(fd.get(), &before) != 0 || !S_ISREG(before.st_mode))
        return false;
    if (rememberedChecksumOfFile(path, before))
        return true;
    const auto digest = DigestOfDescriptor(fd.get(), &stop);
    struct stat after {};
    if (!digest || ::fstat(fd.get(), &after) != 0 || !sameFileState(before, after))
        return false;
    rememberChecksumOfFile(path, after, *digest);
    return true;
}

struct MD5cksum::Stream::Context {
    DigestContext digest{EVP_MD_CTX_new()};
    bool failed = false;
};

MD5cksum::Stream::Stream() : _context(std::make_unique<Context>()) {
    _context->failed =
        !_context->digest || EVP_DigestInit_ex(_context->digest.get(), EVP_md5(), nullptr) != 1;
}

MD5cksum::Stream::~Stream() = default;

void MD5cksum::Stream::update(const void* data, size_t size) {
    if (!_context->failed && size > 0)
        _context->failed = EVP_DigestUpdate(_context->digest.get(), data, size) != 1;
}

std::optional<std::string> MD5cksum::Stream::finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (_context->failed || EVP_DigestFinal_ex(_context->digest.get(), digest, &length) != 1) {
        _context->failed = true;
        return std::nullopt;
    }
    _context->failed = true; // finished: later updates are refused
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * length);
    for (unsigned int i = 0; i < length; ++i) {
        text += kHex[digest[i] >> 4];
        text += kHex[digest[i] & 0x0F];
    }
    return text;
}

std::optional<std::string> MD5cksum::logChecksumOfFile(const std::string& path,
                                                       const std::optional<std::string>& digest) {
    if (!digest) {
        NSLevelledLog(0, "Failed to get file check sum");
        return std::nullopt;
    }
    NSLevelledLog(3, "Checksum of file : %@ is : %@", path, *digest);
    return digest;
}

std::optional<std::string> MD5cksum::getMD5cksumOfFile(const std::optional<std::string>& path) {
    if (!path) {
        NSLevelledLog(3, "File path should not be null");
        return std::nullopt;
    }
    struct stat info {};
    if (::stat(path->c_str(), &info) != 0) {
        NSLevelledLog(3, "File does not exist");
        return std::nullopt;
    }
    if (auto remembered = rememberedChecksumOfFile(*path, info))
        return logChecksumOfFile(*path, remembered);
    // Opened without blocking so that a FIFO without a writer cannot hold up the run.
    UniqueFd fd(::open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    std::optional<std::string> digest;
    if (fd.valid()) {
        const int flags = ::fcntl(fd.get(), F_GETFL);
        if (flags >= 0 && ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) == 0) {
            ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
            digest = DigestOfDescriptor(fd.get());
        }
    }
    return logChecksumOfFile(*path, digest);
}

void MD5cksum::releaseThreadState() {
    OPENSSL_thread_stop();
}
