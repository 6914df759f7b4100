#include "target/UpdateTrust.h"

#include "base/FileUtil.h"
#include "runtime/CommonUtility.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

namespace {

constexpr const char* kAllowUnsigned = "allow-unsigned-patchers";
// What the run reads of its bundle after the check, below the bundle folder.
const std::vector<std::string> kUsedResources = {"Contents/Resources/config.xml",
                                                 "Contents/Resources/manifest.xml",
                                                 "Contents/Resources/Payload.cpio.gz"};

// The text of a file that passed OpenFileOnlyRootControls; nothing when it is larger than
// maxBytes or cannot be read.
std::optional<std::string> ReadSmallFile(int fd, size_t maxBytes) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            return text;
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > maxBytes)
            return std::nullopt;
    }
}

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

} // namespace

PatcherPolicy PatcherPolicy::read(const std::string& path) {
    PatcherPolicy policy;
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        return policy;
    std::string problem;
    UniqueFd file = OpenFileOnlyRootControls(path, &problem);
    const auto text = file.valid() ? ReadSmallFile(file.get(), 64 * 1024) : std::nullopt;
    if (!text) {
        policy.notes.push_back("The patcher's policy " + path + " is not used: " +
                               (problem.empty() ? std::string("it cannot be read") : problem));
        return policy;
    }
    std::istringstream lines(*text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        line = Trimmed(line.substr(0, line.find('#')));
        if (line.empty())
            continue;
        const size_t equals = line.find('=');
        const std::string key = Trimmed(line.substr(0, equals));
        const std::string value =
            equals == std::string::npos ? std::string() : Trimmed(line.substr(equals + 1));
        if (key == kAllowUnsigned && (value == "yes" || value == "true" || value == "1")) {
            policy.allowUnsigned = true;
        } else if (key == kAllowUnsigned && (value == "no" || value == "false" || value == "0")) {
            policy.allowUnsigned = false;
        } else {
            policy.notes.push_back("The patcher's policy " + path + " line " +
                                   std::to_string(number) +
                                   " is not understood and is ignored: " + line);
        }
    }
    return policy;
}

std::vector<Ed25519Key> TrustedKeysIn(const std::string& folder, std::vector<std::string>* notes) {
    std::vector<Ed25519Key> keys;
    std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(folder.c_str()), ::closedir);
    if (!listing) {
        if (errno != ENOENT)
            notes->push_back("The trusted keys in " + folder +
                             " cannot be listed: " + std::strerror(errno));
        return keys;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".pem") == 0)
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        const std::string path = folder + "/" + name;
        std::string problem;
        UniqueFd file = OpenFileOnlyRootControls(path, &problem);
        const auto pem = file.valid() ? ReadSmallFile(file.get(), 64 * 1024) : std::nullopt;
        auto key = pem ? Ed25519Key::fromPem(*pem, &problem) : std::nullopt;
        if (key && key->hasPrivateKey())
            problem = "it holds a private key; only public keys are trusted";
        if (!key || key->hasPrivateKey()) {
            notes->push_back("The key " + path + " is not trusted: " +
                             (problem.empty() ? std::string("it cannot be read") : problem));
            continue;
        }
        keys.push_back(std::move(*key));
    }
    return keys;
}

UpdateTrust::~UpdateTrust() {
    if (_copyFolder.empty())
        return;
    for (const auto& path : kUsedResources)
        (void)::unlinkat(_copyFolderFd.get(), path.substr(path.rfind('/') + 1).c_str(), 0);
    _copyFolderFd.reset();
    (void)::rmdir(_copyFolder.c_str());
}

bool UpdateTrust::makeCopyFolder() {
    std::string pattern = _paths.tmpVolume + "/orvel-checked-XXXXXX";
    // mkdtemp makes a new folder of root's alone (0700) under a name nobody could foresee;
    // in a sticky folder such as /tmp nobody else can rename or remove it.
    if (!::mkdtemp(pattern.data())) {
        _notes.push_back("No private folder can be made in " + _paths.tmpVolume + ": " +
                         std::strerror(errno));
        return false;
    }
    _copyFolder = pattern;
    _copyFolderFd.reset(
        ::open(_copyFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return _copyFolderFd.valid();
}

bool UpdateTrust::refuse(std::string problem) {
    _problem = std::move(problem);
    return false;
}

bool UpdateTrust::checkBundle(const std::optional<std::string>& bundle, bool copyChanging) {
    PatcherPolicy policy = PatcherPolicy::read(_paths.patcherPolicyFile);
    _notes.insert(_notes.end(), policy.notes.begin(), policy.notes.end());
    if (policy.allowUnsigned)
        _notes.push_back("Unsigned patchers are allowed on this machine: " +
                         _paths.patcherPolicyFile + " says " + kAllowUnsigned + " = yes");

    // Files that others could change after the check are copied while they are read.
    bool onlyRoot = true;
    for (const auto& path : copyChanging ? kUsedResources : std::vector<std::string>{}) {
        if (bundle && !OpenFileOnlyRootControls(*bundle + "/" + path).valid())
            onlyRoot = false;
    }
    BundleSignature::CopyWhileReading copies;
    if (bundle && !onlyRoot) {
        if (!makeCopyFolder())
            return refuse("The update cannot be checked: no private folder for its files");
        copies.folder = _copyFolderFd.get();
        copies.paths = kUsedResources;
    }
    const auto start = std::chrono::steady_clock::now();
    if (bundle)
        _verdict = BundleSignature::verify(*bundle, onlyRoot ? nullptr : &copies);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    switch (_verdict.state) {
    case BundleVerdict::State::Unsigned:
        if (!policy.allowUnsigned)
            return refuse("The update is not signed (" + bundle.value_or("the patcher") +
                          " has no " + BundleSignature::kSignatureFile + ")");
        _notes.push_back("This patcher is not signed; it runs only because " +
                         _paths.patcherPolicyFile + " allows unsigned patchers");
        if (bundle)
            _resourcesFolder = *bundle + "/Contents/Resources";
        return true;
    case BundleVerdict::State::Bad:
        return refuse("The update's signature does not hold: " + _verdict.problem);
    case BundleVerdict::State::Good:
        break;
    }
    _notes.push_back("The update is signed by key " + _verdict.signer->fingerprint() + ": " +
                     std::to_string(_verdict.statement.files.size()) + " files (" +
                     std::to_string(_verdict.bytesRead) + " bytes) checked in " +
                     std::to_string(took.count()) + " ms");
    _resourcesFolder = onlyRoot ? *bundle + "/Contents/Resources" : _copyFolder;
    if (!onlyRoot)
        _notes.push_back("Others can change the bundle, so its configuration, manifest and "
                         "payload are read from the copies checked in " +
                         _copyFolder);
    return true;
}

bool UpdateTrust::checkTarget(const SignedStatement& configIdentity,
                              const std::optional<std::string>& locatedCode,
                              const std::optional<std::string>& applicationBundle,
                              const std::optional<std::string>& installedVersion) {
    // Unsigned patchers (where allowed) are held to what their configuration says.
    const SignedStatement& identity = isSigned() ? _verdict.statement : configIdentity;
    if (isSigned()) {
        std::vector<Ed25519Key> keys = TrustedKeysIn(_paths.trustedKeysFolder, &_notes);
        if (applicationBundle) {
            auto pinned = TrustedKeysIn(*applicationBundle + "/" + kApplicationKeysFolder, &_notes);
            for (auto& key : pinned)
                keys.push_back(std::move(key));
        }
        if (keys.empty())
            return refuse("No key is trusted to sign updates: " + _paths.trustedKeysFolder +
                          " and the installed application hold none");
        const std::string signer = _verdict.signer->publicBytes();
        if (std::none_of(keys.begin(), keys.end(),
                         [&signer](const Ed25519Key& key) { return key.publicBytes() == signer; }))
            return refuse("The update is signed by key " + _verdict.signer->fingerprint() +
                          ", which is not trusted on this machine");
        if (auto differs = identity.identityDiffers(configIdentity))
            return refuse("The update's configuration is not what was signed: " + *differs);
        if (locatedCode &&
            std::find(identity.installationCodes.begin(), identity.installationCodes.end(),
                      *locatedCode) == identity.installationCodes.end())
            return refuse("The update is signed for another product: not for the installation " +
                          *locatedCode);
    }
    if (installedVersion && !identity.toVersion.empty() &&
        DotSeparatedVersionCompare(identity.toVersion, *installedVersion) < 0)
        return refuse("The update would take the installed version " + *installedVersion +
                      " back to the older version " + identity.toVersion +
                      "; a downgrade is refused");
    return true;
}
