#include "base/Md5.h"

#include "base/FileUtil.h"

#include <cerrno>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <unistd.h>

namespace {

constexpr size_t kReadSize = 256 * 1024;

struct DigestContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

} // namespace

struct Md5Stream::Context {
    std::unique_ptr<EVP_MD_CTX, DigestContextDeleter> digest{EVP_MD_CTX_new()};
    bool failed = false;
};

Md5Stream::Md5Stream() : _context(std::make_unique<Context>()) {
    _context->failed =
        !_context->digest || EVP_DigestInit_ex(_context->digest.get(), EVP_md5(), nullptr) != 1;
}

Md5Stream::~Md5Stream() = default;

void Md5Stream::update(const void* data, size_t size) {
    if (!_context->failed && size > 0)
        _context->failed = EVP_DigestUpdate(_context->digest.get(), data, size) != 1;
}

std::optional<std::string> Md5Stream::finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool failed =
        _context->failed || EVP_DigestFinal_ex(_context->digest.get(), digest, &length) != 1;
    _context->failed = true; // finished: later updates are refused
    if (failed)
        return std::nullopt;
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * length);
    for (unsigned int i = 0; i < length; ++i) {
        text += kHex[digest[i] >> 4];
        text += kHex[digest[i] & 0x0F];
    }
    return text;
}

std::string Md5OfBytes(std::string_view bytes) {
    Md5Stream stream;
    stream.update(bytes.data(), bytes.size());
    return stream.finish().value_or("");
}

std::optional<std::string> Md5OfDescriptor(int fd, const std::atomic<bool>* stop) {
    Md5Stream stream;
    if (stop && stop->load(std::memory_order_relaxed))
        return std::nullopt;
    const bool read = ReadInChunks(fd, kReadSize, [&](const char* data, size_t size) {
        stream.update(data, size);
        return !(stop && stop->load(std::memory_order_relaxed));
    });
    if (!read)
        return std::nullopt;
    return stream.finish();
}

std::optional<std::string> Md5OfFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd.valid())
        return std::nullopt;
    const int flags = ::fcntl(fd.get(), F_GETFL);
    if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return std::nullopt;
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return Md5OfDescriptor(fd.get());
}

void Md5ReleaseThreadState() {
    OPENSSL_thread_stop();
}
