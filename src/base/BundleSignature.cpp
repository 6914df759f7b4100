#include "base/BundleSignature.h"

#include "base/FileUtil.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::string_view kHeader = "orvel-bundle-signature 1\n";
constexpr std::string_view kEnd = "end\n";
constexpr size_t kPublicKeySize = 32;
constexpr size_t kSignatureSize = 64;
// A signature file is a few lines per file of the bundle; this is far above any bundle.
constexpr size_t kMostSignatureBytes = 64 * 1024 * 1024;
constexpr size_t kMostFiles = 1000000;
const std::string kCannotCopy = "cannot copy ";

struct PkeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct MdContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
struct BioDeleter {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using MdContextPtr = std::unique_ptr<EVP_MD_CTX, MdContextDeleter>;

std::string Hex(const unsigned char* bytes, size_t size) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += kHex[bytes[i] >> 4];
        text += kHex[bytes[i] & 0x0F];
    }
    return text;
}

std::string Base64(std::string_view bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3), '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(std::max(length, 0)));
    return text;
}

// The bytes of canonical base64 text of exactly size bytes; nothing otherwise.
std::optional<std::string> FromBase64(std::string_view text, size_t size) {
    if (text.size() != 4 * ((size + 2) / 3))
        return std::nullopt;
    std::string bytes(text.size(), '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
    if (length < 0 || static_cast<size_t>(length) < size)
        return std::nullopt;
    bytes.resize(size);
    if (Base64(bytes) != text) // padding bits and '=' exactly as written
        return std::nullopt;
    return bytes;
}

std::string Sha256OfBytes(std::string_view bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        return {};
    return Hex(digest, length);
}

// The digest of everything readable from fd, also written to copy when that is a
// descriptor; nothing on a read or write error.
std::optional<std::string> Sha256OfDescriptor(int fd, uint64_t* size, int copy = -1,
                                              bool* copyFailed = nullptr) {
    MdContextPtr context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        return std::nullopt;
    uint64_t total = 0;
    const bool read = ReadInChunks(fd, 1024 * 1024, [&](const char* data, size_t got) {
        total += got;
        if (EVP_DigestUpdate(context.get(), data, got) != 1)
            return false;
        if (copy >= 0 && !WriteAll(copy, data, got)) {
            if (copyFailed)
                *copyFailed = true;
            return false;
        }
        return true;
    });
    if (!read)
        return std::nullopt;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1)
        return std::nullopt;
    *size = total;
    return Hex(digest, length);
}

std::string Errno(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// Lists the files and links below the folder (relative paths under prefix); links are
// digested here, files later.
bool ListFolder(int bundle, const std::string& prefix, std::vector<SignedFile>* entries,
                std::string* problem) {
    const int folderFd =
        prefix.empty()
            ? ::dup(bundle)
            : OpenBeneath(bundle, prefix, O_RDONLY | O_DIRECTORY | O_CLOEXEC, true).release();
    if (folderFd < 0) {
        *problem = Errno("cannot open " + (prefix.empty() ? std::string(".") : prefix));
        return false;
    }
    DIR* folder = ::fdopendir(folderFd);
    if (!folder) {
        ::close(folderFd);
        *problem = Errno("cannot list " + prefix);
        return false;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> owner(folder, ::closedir);
    std::vector<std::string> subfolders;
    while (const dirent* entry = ::readdir(folder)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string path = prefix.empty() ? name : prefix + "/" + name;
        if (path.find('\n') != std::string::npos) {
            *problem = "a file name holds a line break";
            return false;
        }
        struct stat info {};
        if (::fstatat(::dirfd(folder), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
            *problem = Errno("cannot read " + path);
            return false;
        }
        if (S_ISDIR(info.st_mode)) {
            subfolders.push_back(path);
        } else if (S_ISLNK(info.st_mode)) {
            std::string target(PATH_MAX, '\0');
            const ssize_t length =
                ::readlinkat(::dirfd(folder), name.c_str(), target.data(), target.size());
            if (length < 0) {
                *problem = Errno("cannot read the link " + path);
                return false;
            }
            target.resize(static_cast<size_t>(length));
            entries->push_back(
                {SignedFile::Kind::Link, path, target.size(), Sha256OfBytes(target)});
        } else if (S_ISREG(info.st_mode)) {
            if (path != BundleSignature::kSignatureFile)
                entries->push_back({SignedFile::Kind::File, path, 0, {}});
        } else {
            *problem = path + " is neither a file, a link nor a folder";
            return false;
        }
        if (entries->size() > kMostFiles) {
            *problem = "more than " + std::to_string(kMostFiles) + " files";
            return false;
        }
    }
    owner.reset();
    for (const auto& subfolder : subfolders) {
        if (!ListFolder(bundle, subfolder, entries, problem))
            return false;
    }
    return true;
}

std::optional<std::string> ReadSignatureFile(const std::string& bundle, bool* missing,
                                             std::string* problem) {
    UniqueFd folder(::open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    *missing = false;
    if (!folder.valid()) {
        *problem = Errno("cannot open the bundle " + bundle);
        return std::nullopt;
    }
    UniqueFd file = OpenBeneath(folder.get(), BundleSignature::kSignatureFile,
                                O_RDONLY | O_NONBLOCK | O_CLOEXEC, true);
    if (!file.valid()) {
        *missing = errno == ENOENT;
        *problem = Errno(std::string("cannot open ") + BundleSignature::kSignatureFile);
        return std::nullopt;
    }
    struct stat info {};
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        *problem = std::string(BundleSignature::kSignatureFile) + " is not a file";
        return std::nullopt;
    }
    if (static_cast<uint64_t>(info.st_size) > kMostSignatureBytes) {
        *problem = std::string(BundleSignature::kSignatureFile) + " is too large";
        return std::nullopt;
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(file.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            *problem = Errno(std::string("cannot read ") + BundleSignature::kSignatureFile);
            return std::nullopt;
        }
        if (got == 0)
            break;
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > kMostSignatureBytes) {
            *problem = std::string(BundleSignature::kSignatureFile) + " is too large";
            return std::nullopt;
        }
    }
    return text;
}

bool HasNoLineBreak(const std::string& text) {
    return text.find('\n') == std::string::npos && text.find('\r') == std::string::npos;
}

} // namespace

// ---- Ed25519Key

struct Ed25519Key::Key {
    PkeyPtr pkey;
};

Ed25519Key::Ed25519Key(std::unique_ptr<Key> key, bool hasPrivate)
    : _key(std::move(key)), _private(hasPrivate) {}
Ed25519Key::Ed25519Key(Ed25519Key&&) noexcept = default;
Ed25519Key& Ed25519Key::operator=(Ed25519Key&&) noexcept = default;
Ed25519Key::~Ed25519Key() = default;

std::optional<Ed25519Key> Ed25519Key::generate(std::string* problem) {
    std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> context(
        EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* made = nullptr;
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
        EVP_PKEY_keygen(context.get(), &made) != 1) {
        *problem = "the crypto library cannot make an Ed25519 key";
        return std::nullopt;
    }
    auto key = std::make_unique<Key>();
    key->pkey.reset(made);
    return Ed25519Key(std::move(key), true);
}

std::optional<Ed25519Key> Ed25519Key::fromPem(std::string_view pem, std::string* problem) {
    const auto read = [pem](bool privateKey) -> PkeyPtr {
        std::unique_ptr<BIO, BioDeleter> bio(
            BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        if (!bio)
            return nullptr;
        return PkeyPtr(privateKey ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr)
                                  : PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    };
    const bool privateKey = pem.find("PRIVATE KEY-----") != std::string_view::npos;
    PkeyPtr pkey = read(privateKey);
    if (!pkey) {
        *problem = privateKey ? "not a readable PEM private key (PKCS #8)"
                              : "not a readable PEM public key";
        return std::nullopt;
    }
    if (EVP_PKEY_get_id(pkey.get()) != EVP_PKEY_ED25519) {
        *problem = "not an Ed25519 key";
        return std::nullopt;
    }
    auto key = std::make_unique<Key>();
    key->pkey = std::move(pkey);
    return Ed25519Key(std::move(key), privateKey);
}

std::optional<Ed25519Key> Ed25519Key::readPemFile(const std::string& path, std::string* problem) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!file.valid() || ::fstat(file.get(), &info) != 0) {
        *problem = Errno("cannot open " + path);
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode) || info.st_size > 65536) {
        *problem = path + " is not a key file";
        return std::nullopt;
    }
    std::string pem(static_cast<size_t>(info.st_size), '\0');
    size_t done = 0;
    while (done < pem.size()) {
        const ssize_t got = ::read(file.get(), pem.data() + done, pem.size() - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += static_cast<size_t>(got);
    }
    pem.resize(done);
    std::string why;
    auto key = fromPem(pem, &why);
    if (!key)
        *problem = path + ": " + why;
    return key;
}

std::optional<Ed25519Key> Ed25519Key::fromPublicBytes(std::string_view bytes) {
    if (bytes.size() != kPublicKeySize)
        return std::nullopt;
    PkeyPtr pkey(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                             reinterpret_cast<const unsigned char*>(bytes.data()),
                                             bytes.size()));
    if (!pkey)
        return std::nullopt;
    auto key = std::make_unique<Key>();
    key->pkey = std::move(pkey);
    return Ed25519Key(std::move(key), false);
}

std::string Ed25519Key::publicBytes() const {
    std::string bytes(kPublicKeySize, '\0');
    size_t length = bytes.size();
    if (EVP_PKEY_get_raw_public_key(_key->pkey.get(),
                                    reinterpret_cast<unsigned char*>(bytes.data()), &length) != 1)
        return {};
    bytes.resize(length);
    return bytes;
}

std::string Ed25519Key::fingerprint() const {
    return Sha256OfBytes(publicBytes()).substr(0, 32);
}

std::string Ed25519Key::publicPem() const {
    std::unique_ptr<BIO, BioDeleter> bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PUBKEY(bio.get(), _key->pkey.get()) != 1)
        return {};
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}

std::string Ed25519Key::privatePem() const {
    std::unique_ptr<BIO, BioDeleter> bio(BIO_new(BIO_s_mem()));
    if (!_private || !bio ||
        PEM_write_bio_PKCS8PrivateKey(bio.get(), _key->pkey.get(), nullptr, nullptr, 0, nullptr,
                                      nullptr) != 1)
        return {};
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}

std::optional<std::string> Ed25519Key::sign(std::string_view message) const {
    if (!_private)
        return std::nullopt;
    MdContextPtr context(EVP_MD_CTX_new());
    std::string signature(kSignatureSize, '\0');
    size_t length = signature.size();
    if (!context ||
        EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, _key->pkey.get()) != 1 ||
        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) != 1 ||
        length != kSignatureSize)
        return std::nullopt;
    return signature;
}

bool Ed25519Key::verify(std::string_view message, std::string_view signature) const {
    if (signature.size() != kSignatureSize)
        return false;
    MdContextPtr context(EVP_MD_CTX_new());
    return context &&
           EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, _key->pkey.get()) == 1 &&
           EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                            signature.size(),
                            reinterpret_cast<const unsigned char*>(message.data()),
                            message.size()) == 1;
}

// ---- SignedStatement

std::string SignedStatement::text() const {
    std::string text(kHeader);
    for (const auto& code : installationCodes)
        text += "installation-code " + code + "\n";
    for (const auto& version : fromVersions)
        text += "from-version " + version + "\n";
    text += "to-version " + toVersion + "\n";
    for (const auto& file : files) {
        text += file.kind == SignedFile::Kind::Link ? "link " : "file ";
        text += file.sha256 + " " + std::to_string(file.size) + " " + file.path + "\n";
    }
    text += kEnd;
    return text;
}

std::optional<std::string> SignedStatement::identityDiffers(const SignedStatement& identity) const {
    const auto join = [](const std::vector<std::string>& values) {
        std::string text;
        for (const auto& value : values)
            text += (text.empty() ? "" : ", ") + value;
        return text.empty() ? std::string("none") : text;
    };
    if (installationCodes != identity.installationCodes)
        return "signed for installation code " + join(installationCodes) + ", not " +
               join(identity.installationCodes);
    if (fromVersions != identity.fromVersions)
        return "signed to update from version " + join(fromVersions) + ", not " +
               join(identity.fromVersions);
    if (toVersion != identity.toVersion)
        return "signed to update to version " + toVersion + ", not " + identity.toVersion;
    return std::nullopt;
}

std::optional<SignedStatement> SignedStatement::parse(std::string_view text, std::string* problem) {
    SignedStatement statement;
    if (text.substr(0, kHeader.size()) != kHeader) {
        *problem = "the signature is not of a known kind";
        return std::nullopt;
    }
    size_t at = kHeader.size();
    bool ended = false;
    while (at < text.size() && !ended) {
        const size_t end = text.find('\n', at);
        if (end == std::string_view::npos)
            break;
        const std::string line(text.substr(at, end - at));
        at = end + 1;
        const size_t space = line.find(' ');
        const std::string word = line.substr(0, space);
        const std::string rest =
            space == std::string::npos ? std::string() : line.substr(space + 1);
        if (line == "end") {
            ended = true;
        } else if (word == "installation-code") {
            statement.installationCodes.push_back(rest);
        } else if (word == "from-version") {
            statement.fromVersions.push_back(rest);
        } else if (word == "to-version") {
            statement.toVersion = rest;
        } else if (word == "file" || word == "link") {
            SignedFile file;
            file.kind = word == "link" ? SignedFile::Kind::Link : SignedFile::Kind::File;
            const size_t sizeStart = rest.find(' ');
            const size_t pathStart =
                sizeStart == std::string::npos ? sizeStart : rest.find(' ', sizeStart + 1);
            if (pathStart == std::string::npos) {
                *problem = "a file line of the signature is not whole";
                return std::nullopt;
            }
            file.sha256 = rest.substr(0, sizeStart);
            const std::string size = rest.substr(sizeStart + 1, pathStart - sizeStart - 1);
            if (size.empty() || size.size() > 19 ||
                size.find_first_not_of("0123456789") != std::string::npos) {
                *problem = "a file line of the signature has no size";
                return std::nullopt;
            }
            file.size = std::stoull(size);
            file.path = rest.substr(pathStart + 1);
            if (file.sha256.size() != 64 ||
                file.sha256.find_first_not_of("0123456789abcdef") != std::string::npos ||
                file.path.empty() ||
                (!statement.files.empty() && !(statement.files.back().path < file.path))) {
                *problem = "the signed statement is not well-formed";
                return std::nullopt;
            }
            statement.files.push_back(std::move(file));
        } else {
            *problem = "the signature has a line it does not know";
            return std::nullopt;
        }
    }
    // One statement, one text: anything that does not read back the same is refused, so
    // that no two texts can carry the same signature with different meanings.
    if (!ended || statement.text() != text) {
        *problem = "the signed statement is not well-formed";
        return std::nullopt;
    }
    return statement;
}

// ---- BundleSignature

namespace BundleSignature {

std::optional<std::vector<SignedFile>> digestFiles(const std::string& bundle, std::string* problem,
                                                   uint64_t* bytesRead,
                                                   const CopyWhileReading* copies) {
    UniqueFd folder(::open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) {
        *problem = Errno("cannot open the bundle " + bundle);
        return std::nullopt;
    }
    std::vector<SignedFile> entries;
    if (!ListFolder(folder.get(), "", &entries, problem))
        return std::nullopt;

    // The largest first, on every core: the program and the payload make most of the bytes.
    std::vector<size_t> order;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].kind == SignedFile::Kind::File)
            order.push_back(i);
    }
    std::vector<off_t> sizes(entries.size(), 0);
    for (size_t i : order) {
        struct stat info {};
        if (::fstatat(folder.get(), entries[i].path.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            sizes[i] = info.st_size;
    }
    std::stable_sort(order.begin(), order.end(),
                     [&sizes](size_t a, size_t b) { return sizes[a] > sizes[b]; });
    std::atomic<size_t> next{0};
    std::atomic<uint64_t> total{0};
    std::vector<std::string> failures(entries.size());
    const auto work = [&] {
        for (size_t k = next++; k < order.size(); k = next++) {
            SignedFile& entry = entries[order[k]];
            UniqueFd file =
                OpenBeneath(folder.get(), entry.path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, true);
            struct stat info {};
            if (!file.valid() || ::fstat(file.get(), &info) != 0) {
                failures[order[k]] = Errno("cannot open " + entry.path);
                continue;
            }
            if (!S_ISREG(info.st_mode)) {
                failures[order[k]] = entry.path + " is not a file";
                continue;
            }
            UniqueFd copy;
            if (copies && std::find(copies->paths.begin(), copies->paths.end(), entry.path) !=
                              copies->paths.end()) {
                const std::string name = entry.path.substr(entry.path.rfind('/') + 1);
                copy.reset(::openat(copies->folder, name.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
                if (!copy.valid()) {
                    failures[order[k]] = Errno(kCannotCopy + entry.path);
                    continue;
                }
            }
            bool copyFailed = false;
            auto digest = Sha256OfDescriptor(file.get(), &entry.size, copy.get(), &copyFailed);
            if (!digest) {
                failures[order[k]] =
                    Errno((copyFailed ? kCannotCopy : "cannot read ") + entry.path);
                continue;
            }
            entry.sha256 = std::move(*digest);
            total += entry.size;
        }
    };
    const size_t helpers = std::min<size_t>(order.size() > 1 ? order.size() - 1 : 0,
                                            std::max(1u, std::thread::hardware_concurrency()) - 1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < helpers; ++i)
        threads.emplace_back([&work] {
            work();
            OPENSSL_thread_stop();
        });
    work();
    for (auto& thread : threads)
        thread.join();
    for (const auto& failure : failures) {
        if (!failure.empty()) {
            *problem = failure;
            return std::nullopt;
        }
    }
    std::sort(entries.begin(), entries.end(),
              [](const SignedFile& a, const SignedFile& b) { return a.path < b.path; });
    if (bytesRead)
        *bytesRead = total;
    return entries;
}

bool sign(const std::string& bundle, SignedStatement identity, const Ed25519Key& key,
          std::string* problem) {
    if (!key.hasPrivateKey()) {
        *problem = "signing needs a private key";
        return false;
    }
    if (identity.installationCodes.empty() || identity.toVersion.empty()) {
        *problem = "the bundle names no installation code or no version it updates to";
        return false;
    }
    for (const auto& value : identity.installationCodes) {
        if (!HasNoLineBreak(value) || value.empty()) {
            *problem = "an installation code is empty or holds a line break";
            return false;
        }
    }
    for (const auto& value : identity.fromVersions) {
        if (!HasNoLineBreak(value) || value.empty()) {
            *problem = "a version is empty or holds a line break";
            return false;
        }
    }
    if (!HasNoLineBreak(identity.toVersion)) {
        *problem = "the version holds a line break";
        return false;
    }
    auto files = digestFiles(bundle, problem);
    if (!files)
        return false;
    identity.files = std::move(*files);
    const std::string statement = identity.text();
    const auto signature = key.sign(statement);
    if (!signature) {
        *problem = "the crypto library cannot sign";
        return false;
    }
    const std::string text = statement + "key " + Base64(key.publicBytes()) + "\n" + "signature " +
                             Base64(*signature) + "\n";
    std::string error;
    if (!WriteFileAtomically(bundle + "/" + kSignatureFile, text, &error)) {
        *problem = std::string("cannot write ") + kSignatureFile + ": " + error;
        return false;
    }
    return true;
}

BundleVerdict verify(const std::string& bundle, const CopyWhileReading* copies) {
    BundleVerdict verdict;
    const auto bad = [&verdict](std::string problem) {
        verdict.state = BundleVerdict::State::Bad;
        verdict.problem = std::move(problem);
        return std::move(verdict);
    };
    bool missing = false;
    std::string problem;
    const auto text = ReadSignatureFile(bundle, &missing, &problem);
    if (!text) {
        if (missing) {
            verdict.state = BundleVerdict::State::Unsigned;
            verdict.problem = "the bundle is not signed";
            return verdict;
        }
        return bad(problem);
    }
    // statement, "key <base64>\n", "signature <base64>\n"
    const size_t statementEnd = text->find("\nend\n");
    if (statementEnd == std::string::npos)
        return bad("the signature file holds no whole statement");
    const std::string statementText = text->substr(0, statementEnd + 5);
    const std::string tail = text->substr(statementEnd + 5);
    const size_t lineEnd = tail.find('\n');
    if (tail.rfind("key ", 0) != 0 || lineEnd == std::string::npos ||
        tail.compare(lineEnd + 1, 10, "signature ") != 0 || tail.back() != '\n')
        return bad("the signature file does not end in a key and a signature");
    const auto keyBytes = FromBase64(tail.substr(4, lineEnd - 4), kPublicKeySize);
    const std::string signatureText = tail.substr(lineEnd + 11, tail.size() - lineEnd - 12);
    const auto signatureBytes = FromBase64(signatureText, kSignatureSize);
    if (!keyBytes || !signatureBytes)
        return bad("the signature file's key or signature is not well-formed");
    verdict.signer = Ed25519Key::fromPublicBytes(*keyBytes);
    if (!verdict.signer)
        return bad("the signature file's key is not an Ed25519 key");
    auto statement = SignedStatement::parse(statementText, &problem);
    if (!statement)
        return bad(problem);
    verdict.statement = std::move(*statement);
    if (!verdict.signer->verify(statementText, *signatureBytes))
        return bad("the signature does not verify with its key " + verdict.signer->fingerprint());

    auto files = digestFiles(bundle, &problem, &verdict.bytesRead, copies);
    if (!files) {
        verdict.copyFailed = problem.rfind(kCannotCopy, 0) == 0;
        return bad(problem);
    }
    const auto& signedFiles = verdict.statement.files;
    for (const auto& file : *files) {
        const auto match = std::lower_bound(
            signedFiles.begin(), signedFiles.end(), file.path,
            [](const SignedFile& entry, const std::string& path) { return entry.path < path; });
        if (match == signedFiles.end() || match->path != file.path)
            return bad(file.path + " is not signed");
        if (*match != file)
            return bad(file.path + " is not as signed");
    }
    if (files->size() != signedFiles.size()) {
        for (const auto& entry : signedFiles) {
            if (!std::binary_search(
                    files->begin(), files->end(), entry,
                    [](const SignedFile& a, const SignedFile& b) { return a.path < b.path; }))
                return bad(entry.path + " is signed but missing");
        }
        return bad("the bundle's files are not those signed");
    }
    verdict.state = BundleVerdict::State::Good;
    return verdict;
}

} // namespace BundleSignature
