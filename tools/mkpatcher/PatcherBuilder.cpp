#include "PatcherBuilder.h"

#include "Bsdiff.h"
#include "BundleAssembler.h"
#include "base/FileUtil.h"
#include "base/Md5.h"
#include "base/PropertyList.h"
#include "base/Xml.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* kInstallDir = "[INSTALLDIR]";
constexpr const char* kInfoPlist = "Contents/Info.plist";

int Fail(std::string* error, const std::string& message) {
    if (error)
        *error = message;
    return 1;
}

struct TreeEntry {
    enum Kind { File, Link, Folder } kind = File;
    unsigned mode = 0;
    uint64_t size = 0;
    std::string target; // of a link
    bool empty = false; // of a folder
};
// Relative path -> entry; in name order, so a folder comes before what it holds.
using Tree = std::map<std::string, TreeEntry>;

bool ScanTree(const std::string& root, Tree* tree, std::string* error) {
    std::error_code ec;
    if (!fs::is_directory(fs::symlink_status(root, ec))) {
        Fail(error, root + " is not a folder");
        return false;
    }
    auto it = fs::recursive_directory_iterator(root, fs::directory_options::none, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const std::string path = it->path().string();
        const std::string relative = it->path().lexically_relative(root).string();
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) {
            Fail(error, "cannot read " + path + ": " + std::strerror(errno));
            return false;
        }
        TreeEntry entry;
        entry.mode = info.st_mode & 07777;
        if (S_ISREG(info.st_mode)) {
            entry.kind = TreeEntry::File;
            entry.size = static_cast<uint64_t>(info.st_size);
        } else if (S_ISLNK(info.st_mode)) {
            entry.kind = TreeEntry::Link;
            entry.target = fs::read_symlink(path, ec).string();
            if (ec)
                break;
        } else if (S_ISDIR(info.st_mode)) {
            entry.kind = TreeEntry::Folder;
            entry.empty = fs::is_empty(path, ec);
            if (ec)
                break;
        } else {
            Fail(error, path + " is neither a file, a folder nor a symbolic link");
            return false;
        }
        (*tree)[relative] = entry;
    }
    if (ec) {
        Fail(error, "cannot read the tree " + root + ": " + ec.message());
        return false;
    }
    return true;
}

// Whether two files hold the same bytes, read only as far as they agree; nothing with a
// message when one cannot be read.
std::optional<bool> SameContents(const std::string& first, const std::string& second,
                                 std::string* error) {
    std::ifstream a(first, std::ios::binary);
    std::ifstream b(second, std::ios::binary);
    for (const auto& [stream, path] : {std::pair{&a, &first}, std::pair{&b, &second}}) {
        if (!*stream) {
            Fail(error, "cannot read " + *path);
            return std::nullopt;
        }
    }
    constexpr std::streamsize kChunk = 64 * 1024;
    std::vector<char> x(kChunk);
    std::vector<char> y(kChunk);
    for (;;) {
        a.read(x.data(), kChunk);
        b.read(y.data(), kChunk);
        if (a.bad() || b.bad()) {
            Fail(error, "cannot read " + (a.bad() ? first : second));
            return std::nullopt;
        }
        const std::streamsize n = a.gcount();
        if (n != b.gcount() || !std::equal(x.begin(), x.begin() + n, y.begin()))
            return false;
        if (n < kChunk)
            return true;
    }
}

// Whether the trees differ in an entry, a kind, a mode, a size or a link target; only when
// all of that agrees are the files' contents compared, up to the first difference.
std::optional<bool> TreesDiffer(const std::string& oldRoot, const Tree& oldTree,
                                const std::string& newRoot, const Tree& newTree,
                                std::string* error) {
    if (oldTree.size() != newTree.size())
        return true;
    for (auto o = oldTree.begin(), n = newTree.begin(); o != oldTree.end(); ++o, ++n) {
        const TreeEntry& was = o->second;
        const TreeEntry& now = n->second;
        if (o->first != n->first || was.kind != now.kind || was.mode != now.mode ||
            was.size != now.size || was.target != now.target)
            return true;
    }
    for (const auto& [relative, entry] : newTree) {
        if (entry.kind != TreeEntry::File)
            continue;
        const auto same = SameContents(oldRoot + "/" + relative, newRoot + "/" + relative, error);
        if (!same)
            return std::nullopt;
        if (!*same)
            return true;
    }
    return false;
}

// Nothing when no path is a folder in one tree and something else in the other; else why not.
// The undo journal is replayed in the order it was written, so it would put a file back
// before the folder's new contents were gone: such a change cannot be undone.
std::optional<std::string> KindChangeProblem(const Tree& oldTree, const Tree& newTree) {
    for (const auto& [relative, entry] : oldTree) {
        const auto now = newTree.find(relative);
        if (now == newTree.end() ||
            (entry.kind == TreeEntry::Folder) == (now->second.kind == TreeEntry::Folder))
            continue;
        if (entry.kind == TreeEntry::Folder)
            return "the folder " + relative +
                   " becomes a file or link in the new version; make that change in two releases";
        return "the " + std::string(entry.kind == TreeEntry::File ? "file " : "link ") + relative +
               " becomes a folder in the new version; make that change in two releases";
    }
    return std::nullopt;
}

// The bytes of the tree's regular files.
uint64_t FileBytes(const Tree& tree) {
    uint64_t bytes = 0;
    for (const auto& [relative, entry] : tree) {
        if (entry.kind == TreeEntry::File)
            bytes += entry.size;
    }
    return bytes;
}

constexpr std::string_view kComparing = "Comparing the trees";
constexpr std::string_view kPatching = "Making patches";
constexpr std::string_view kAssembling = "Assembling the bundle";

// Counts the bytes a phase of create has handled, file by file, and hands each step to the
// progress. done never goes back and never passes total, even for a file that grew after
// the trees were scanned.
class PhaseMeter {
public:
    PhaseMeter(const PatcherBuilder::Progress& progress, std::string_view phase, uint64_t total)
        : _progress(progress), _phase(phase), _total(total) {
        report({}, 0, false);
    }

    // handled bytes of the file item, of size bytes when scanned, are done.
    void within(std::string_view item, uint64_t size, uint64_t handled) const {
        report(item, _finished + std::min(handled, size), false);
    }
    // The file item, of size bytes when scanned, is done.
    void finished(std::string_view item, uint64_t size) {
        _finished += size;
        report(item, _finished, false);
    }
    void end() const { report({}, _total, true); }

private:
    void report(std::string_view item, uint64_t done, bool last) const {
        if (_progress)
            _progress(
                PatcherBuilder::ProgressStep{_phase, std::min(done, _total), _total, item, last});
    }

    const PatcherBuilder::Progress& _progress;
    std::string_view _phase;
    uint64_t _total;
    uint64_t _finished = 0;
};

// Checksums of a tree's regular files, by relative path.
using Checksums = std::map<std::string, std::string>;

// The checksum of a regular file, read in pieces that the meter counts as they go; nothing
// when it cannot be read or is no longer a regular file.
std::optional<std::string> FileChecksum(const std::string& path, const std::string& relative,
                                        uint64_t size, const PhaseMeter& meter) {
    constexpr size_t kPiece = 256 * 1024;
    // Opened without blocking, so a FIFO put in the file's place since the scan holds
    // nothing up.
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat info {};
    if (!fd.valid() || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    const int flags = ::fcntl(fd.get(), F_GETFL);
    if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return std::nullopt;
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    Md5Stream stream;
    uint64_t handled = 0;
    const bool read = ReadInChunks(fd.get(), kPiece, [&](const char* data, size_t bytes) {
        stream.update(data, bytes);
        handled += bytes;
        meter.within(relative, size, handled);
        return true;
    });
    if (!read)
        return std::nullopt;
    return stream.finish();
}

// Reads every regular file of the tree for its checksum; false with a message when one
// cannot be read.
bool TreeChecksums(const std::string& root, const Tree& tree, PhaseMeter* meter,
                   Checksums* checksums, std::string* error) {
    for (const auto& [relative, entry] : tree) {
        if (entry.kind != TreeEntry::File)
            continue;
        const std::string path = root + "/" + relative;
        const auto md5 = FileChecksum(path, relative, entry.size, *meter);
        if (!md5) {
            Fail(error, "cannot read " + path);
            return false;
        }
        meter->finished(relative, entry.size);
        (*checksums)[relative] = *md5;
    }
    return true;
}

std::string Octal(unsigned mode) {
    char text[16];
    std::snprintf(text, sizeof text, "%o", mode);
    return text;
}

// One File entry of the manifest.
struct FileOp {
    std::string operation;
    std::string objectName;
    std::string relative; // below the application bundle
    std::string before;
    std::string after;
    std::optional<std::string> linkTarget;
    std::optional<unsigned> permission;
};

class ManifestWriter {
public:
    explicit ManifestWriter(std::string bundleDir) : _bundleDir(std::move(bundleDir)) {}

    void addFile(XmlNode parent, const FileOp& op) const {
        XmlNode file = parent.addChild("File");
        file.addChild("Operation", op.operation);
        file.addChild("ObjectName", op.objectName);
        const fs::path relative(op.relative);
        const std::string folder = relative.parent_path().string();
        XmlNode destination = file.addChild("DestinationPath");
        destination.setAttribute("dir", folder.empty() ? _bundleDir : _bundleDir + "/" + folder);
        destination.setAttribute("defName", relative.filename().string());
        // A folder has no content to check; every other entry carries both checksums.
        if (!op.before.empty() || !op.after.empty()) {
            XmlNode checksum = file.addChild("Checksum");
            checksum.addChild("BeforePatch", op.before);
            checksum.addChild("AfterPatch", op.after);
        }
        if (op.linkTarget) {
            // The link's text as it is written, relative or absolute.
            XmlNode rename = file.addChild("RenamePath");
            rename.setAttribute("dir", "");
            rename.setAttribute("defName", *op.linkTarget);
        }
        if (op.permission)
            file.addChild("Permissions")
                .addChild("mac")
                .addChild("Permission", Octal(*op.permission));
    }

    void addDirectory(XmlNode parent, const std::string& operation,
                      const std::string& relative) const {
        XmlNode directory = parent.addChild("Directory");
        directory.addChild("Operation", operation);
        directory.addChild("DirectoryBase", _bundleDir + "/" + relative);
    }

    const std::string& bundleDir() const { return _bundleDir; }

private:
    std::string _bundleDir;
};

std::string BundleFolderName(const std::string& tree) {
    return fs::path(tree).lexically_normal().filename().string().empty()
               ? fs::path(tree).lexically_normal().parent_path().filename().string()
               : fs::path(tree).lexically_normal().filename().string();
}

// Removes a folder and what it holds when it goes out of scope.
class TemporaryFolder {
public:
    explicit TemporaryFolder(std::string path) : _path(std::move(path)) {}
    ~TemporaryFolder() {
        std::error_code ec;
        if (!_path.empty())
            fs::remove_all(_path, ec);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

// Puts a file of the new tree into the payload: a hard link when both are on one file
// system, else a copy.
bool StageFile(const std::string& from, const std::string& to, std::string* error) {
    if (::link(from.c_str(), to.c_str()) == 0)
        return true;
    std::error_code ec;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    if (ec) {
        Fail(error, "cannot copy " + from + " into the payload: " + ec.message());
        return false;
    }
    return true;
}

bool ReadFileBytes(const std::string& path, std::vector<uint8_t>* data, std::string* error) {
    const auto text = ReadFileText(path, SIZE_MAX);
    if (!text) {
        Fail(error, "cannot read " + path);
        return false;
    }
    data->assign(text->begin(), text->end());
    return true;
}

std::string ShortName(const std::string& relative) {
    std::string name = fs::path(relative).filename().string();
    if (name.size() > 80)
        name = name.substr(name.size() - 80);
    return name;
}

// The real path: links resolved as far as the path exists, no "." or "..", no trailing
// separator. A path that does not exist yet is resolved through its nearest existing folder.
fs::path RealPath(const std::string& path) {
    std::error_code ec;
    fs::path real = fs::weakly_canonical(fs::absolute(path), ec);
    if (ec)
        real = fs::absolute(path).lexically_normal();
    while (real.has_relative_path() && real.filename().empty())
        real = real.parent_path();
    return real;
}

// Whether path is folder or lies below it; both real paths.
bool IsAtOrBelow(const fs::path& path, const fs::path& folder) {
    auto f = folder.begin();
    for (auto p = path.begin(); f != folder.end() && p != path.end(); ++f, ++p) {
        if (*f != *p)
            return false;
    }
    return f == folder.end();
}

bool HasAppName(const std::string& path) {
    const std::string name = BundleFolderName(path);
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".app") == 0;
}

// Nothing when path is an application bundle folder; else why not, naming the option.
std::optional<std::string> BundleProblem(const std::string& option, const std::string& path) {
    const std::string named = option + " " + path;
    std::error_code ec;
    const auto status = fs::status(path, ec);
    if (status.type() == fs::file_type::not_found)
        return named + " does not exist";
    if (ec)
        return named + " cannot be read: " + ec.message();
    if (status.type() != fs::file_type::directory)
        return named + " is not an application bundle (not a folder)";
    if (!HasAppName(path))
        return named + " is not an application bundle (its name does not end in .app)";
    if (!fs::is_regular_file(fs::path(path) / kInfoPlist, ec))
        return named + " is not an application bundle (no " + kInfoPlist + ")";
    return std::nullopt;
}

std::string BundleVersion(const std::string& tree) {
    const auto plist = PropertyList::readDictionaryFromFile(tree + "/" + kInfoPlist);
    return plist ? plist->stringForKey("CFBundleVersion").value_or("") : std::string();
}

// The checks of PatcherBuilder::checkInputs; the trees' scans are kept for the comparison.
int CheckInputs(const PatcherBuilder::Options& options, Tree* oldTree, Tree* newTree,
                std::string* error) {
    const std::pair<const char*, const std::string*> trees[] = {{"--old", &options.oldTree},
                                                                {"--new", &options.newTree}};
    for (const auto& [option, path] : trees) {
        if (auto why = BundleProblem(option, *path))
            return Fail(error, *why);
    }
    const fs::path oldReal = RealPath(options.oldTree);
    const fs::path newReal = RealPath(options.newTree);
    if (oldReal == newReal)
        return Fail(error, "--old and --new are the same: nothing to update");

    std::string versions[2] = {options.identity.oldVersion, options.identity.newVersion};
    for (int i = 0; i < 2; ++i) {
        if (versions[i].empty())
            versions[i] = BundleVersion(*trees[i].second);
        if (versions[i].empty())
            return Fail(error, std::string(trees[i].first) + " " + *trees[i].second +
                                   " has no version (no CFBundleVersion in its " + kInfoPlist +
                                   "; give " + trees[i].first + "-version)");
    }
    if (!options.allowDowngrade && PatcherBuilder::compareVersions(versions[1], versions[0]) <= 0)
        return Fail(error, "the new version " + versions[1] +
                               " is not newer than the old version " + versions[0] +
                               " (use --allow-downgrade)");
    if (options.identity.installationCodes.empty())
        return Fail(error, "no installation code given (--code, or OrvelCode/GUID in the "
                           "template): the patcher could not find the installed application");

    // The output is replaced as a whole; inside a tree it would also become part of the next
    // comparison, around a tree it would take the tree with it.
    if (!HasAppName(options.outPath))
        return Fail(error, "--out " + options.outPath + " is not named <Name>.app");
    const fs::path outReal = RealPath(options.outPath);
    for (const auto& [option, real] :
         {std::pair{"--old", &oldReal}, std::pair{"--new", &newReal}}) {
        const std::string tree = std::string(option) + " " + real->string();
        if (IsAtOrBelow(outReal, *real))
            return Fail(error, "--out must be outside --old and --new: " + options.outPath +
                                   (outReal == *real ? " is " : " lies in ") + tree);
        if (IsAtOrBelow(*real, outReal))
            return Fail(error, "--out must be outside --old and --new: " + options.outPath +
                                   " holds " + tree);
    }
    if (!options.force && BundleAssembler::outputTaken(options.outPath))
        return Fail(error, options.outPath + " exists; use --force to replace it");

    if (!ScanTree(options.oldTree, oldTree, error) || !ScanTree(options.newTree, newTree, error))
        return 1;
    const auto differ = TreesDiffer(options.oldTree, *oldTree, options.newTree, *newTree, error);
    if (!differ)
        return 1;
    if (!*differ)
        return Fail(error, "--old and --new are the same: nothing to update");
    return 0;
}

} // namespace

std::optional<PatcherIdentity> PatcherIdentity::fromTemplate(const std::string& path,
                                                             std::string* error) {
    if (auto why = BundleAssembler::checkXmlRoot(path, "PatcherConfig")) {
        if (error)
            *error = "configuration template " + *why;
        return std::nullopt;
    }
    const auto parsed = XmlDocument::parseFile(path, XmlParseMode::Strict);
    const XmlNode root = XmlDocument::root(parsed.document);
    auto single = [&root](const std::string& expression) {
        const auto nodes = root.select(expression);
        return IsSingleElement(nodes) ? nodes.front().stringValue() : std::string();
    };
    auto list = [&root](const std::string& expression) {
        std::vector<std::string> values;
        for (const auto& node : root.select(expression))
            values.push_back(node.stringValue());
        return values;
    };
    PatcherIdentity identity;
    identity.family = single("/PatcherConfig/Family");
    identity.productName = single("/PatcherConfig/Name");
    identity.patcherId = single("/PatcherConfig/PatcherID");
    identity.buildNumber = single("/PatcherConfig/BuildNumber");
    identity.combo = single("/PatcherConfig/ComboPatch") == "true";
    identity.appName = single("/PatcherConfig/ProductData/AppName");
    identity.bundleIdentifier = single("/PatcherConfig/ProductData/BundleIdentifier");
    if (identity.bundleIdentifier.empty())
        identity.bundleIdentifier =
            single("/PatcherConfig/PrePatchValidation/AppValidityCheck/BundleIdentifier");
    identity.oldVersion = single("/PatcherConfig/ProductData/OldVersion");
    identity.newVersion = single("/PatcherConfig/ProductData/NewVersion");
    identity.kvrFilePath = single("/PatcherConfig/ProductData/KVRFilePath");
    identity.installationCodes = list("/PatcherConfig/ProductData/OrvelCode/GUID");
    identity.runningApps = list("/PatcherConfig/PrePatchValidation/AppRunningList/AppRunning");
    auto number = [&](const std::string& expression) -> std::optional<uint64_t> {
        const std::string text = single(expression);
        if (text.empty())
            return std::nullopt;
        return std::strtoull(text.c_str(), nullptr, 10);
    };
    identity.spaceSystemKb = number("/PatcherConfig/PrePatchValidation/SpaceRequirement/System");
    identity.spaceTargetKb = number("/PatcherConfig/PrePatchValidation/SpaceRequirement/Target");
    return identity;
}

void PatcherIdentity::overrideWith(const PatcherIdentity& other) {
    for (auto [mine, theirs] : {std::pair{&family, &other.family},
                                {&productName, &other.productName},
                                {&patcherId, &other.patcherId},
                                {&buildNumber, &other.buildNumber},
                                {&appName, &other.appName},
                                {&bundleIdentifier, &other.bundleIdentifier},
                                {&oldVersion, &other.oldVersion},
                                {&newVersion, &other.newVersion},
                                {&kvrFilePath, &other.kvrFilePath}}) {
        if (!theirs->empty())
            *mine = *theirs;
    }
    if (!other.installationCodes.empty())
        installationCodes = other.installationCodes;
    if (!other.runningApps.empty())
        runningApps = other.runningApps;
    if (other.spaceSystemKb)
        spaceSystemKb = other.spaceSystemKb;
    if (other.spaceTargetKb)
        spaceTargetKb = other.spaceTargetKb;
    combo = combo || other.combo;
}

int PatcherBuilder::create(const Options& options, Report* report, std::string* error,
                           const Progress& progress) {
    Report result;

    Tree oldTree;
    Tree newTree;
    if (CheckInputs(options, &oldTree, &newTree, error) != 0)
        return 1;

    // The identity: given values, else what the two bundles say about themselves.
    PatcherIdentity identity = options.identity;
    const auto oldPlist =
        PropertyList::readDictionaryFromFile(options.oldTree + "/" + std::string(kInfoPlist));
    const auto newPlist =
        PropertyList::readDictionaryFromFile(options.newTree + "/" + std::string(kInfoPlist));
    auto fromPlist = [](const std::optional<PropertyList>& plist, const char* key) {
        return plist ? plist->stringForKey(key).value_or("") : std::string();
    };
    if (identity.appName.empty()) {
        const std::string folder = BundleFolderName(options.newTree);
        if (folder.size() > 4 && folder.substr(folder.size() - 4) == ".app")
            identity.appName = folder.substr(0, folder.size() - 4);
    }
    if (identity.appName.empty())
        return Fail(error, "the application name is not known: name the trees <App>.app or "
                           "give --app-name");
    if (identity.oldVersion.empty())
        identity.oldVersion = fromPlist(oldPlist, "CFBundleVersion");
    if (identity.newVersion.empty())
        identity.newVersion = fromPlist(newPlist, "CFBundleVersion");
    if (identity.oldVersion.empty() || identity.newVersion.empty())
        return Fail(error, "the old and new versions are not known: give --old-version and "
                           "--new-version or CFBundleVersion in both Info.plist files");
    if (identity.bundleIdentifier.empty())
        identity.bundleIdentifier = fromPlist(newPlist, "CFBundleIdentifier");
    if (identity.productName.empty())
        identity.productName = fromPlist(newPlist, "CFBundleName");
    if (identity.productName.empty())
        identity.productName = identity.appName;
    if (identity.family.empty())
        identity.family = "Tavrin";
    if (identity.patcherId.empty())
        identity.patcherId =
            identity.appName + "-" + identity.oldVersion + "-" + identity.newVersion;
    if (identity.runningApps.empty()) {
        const std::string running = fromPlist(oldPlist, "CFBundleName");
        identity.runningApps.push_back(running.empty() ? identity.appName : running);
    }

    // Every file of both trees is read once, for its checksum.
    PhaseMeter comparing(progress, kComparing, FileBytes(oldTree) + FileBytes(newTree));
    if (auto why = KindChangeProblem(oldTree, newTree))
        return Fail(error, *why);

    // Working folder beside the output for the payload, configuration and manifest.
    const fs::path out = fs::absolute(options.outPath).lexically_normal();
    std::error_code ec;
    fs::create_directories(out.parent_path(), ec);
    std::string pattern = (out.parent_path() / ".mkpatcher-work.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        return Fail(error, "cannot create a working folder beside " + out.string() + ": " +
                               std::strerror(errno));
    TemporaryFolder work(pattern);
    const std::string payload = work.path() + "/payload";
    fs::create_directories(payload, ec);
    if (ec)
        return Fail(error, "cannot create " + payload + ": " + ec.message());

    const ManifestWriter writer(std::string(kInstallDir) + "/" + identity.appName + ".app");
    std::vector<FileOp> removals;
    std::vector<FileOp> changes;
    std::vector<FileOp> folderModes;
    std::optional<FileOp> infoPlistOp;
    std::vector<std::string> foldersToAdd;
    std::vector<std::string> foldersToRemove;
    int serial = 0;
    auto objectName = [&serial](char kind, const std::string& relative, const char* suffix = "") {
        char number[16];
        std::snprintf(number, sizeof number, "%c%05d-", kind, ++serial);
        return number + ShortName(relative) + suffix;
    };
    uint64_t backupBytes = 0;
    uint64_t writtenBytes = 0;
    uint64_t largestPatched = 0;

    Checksums oldChecksums;
    Checksums newChecksums;
    if (!TreeChecksums(options.oldTree, oldTree, &comparing, &oldChecksums, error) ||
        !TreeChecksums(options.newTree, newTree, &comparing, &newChecksums, error))
        return 1;
    comparing.end();
    result.newTreeBytes = FileBytes(newTree);

    // The new files that changed, with their sizes for the progress.
    uint64_t changedBytes = 0;
    for (const auto& [relative, entry] : newTree) {
        const auto old = oldTree.find(relative);
        if (entry.kind == TreeEntry::File && old != oldTree.end() &&
            old->second.kind == TreeEntry::File &&
            oldChecksums.at(relative) != newChecksums.at(relative))
            changedBytes += entry.size;
    }

    // What went away. A path that changes between folder and not-folder was refused above.
    for (const auto& [relative, entry] : oldTree) {
        const bool gone = !newTree.contains(relative);
        if (entry.kind == TreeEntry::Folder) {
            if (gone)
                foldersToRemove.push_back(relative);
            continue;
        }
        if (!gone)
            continue;
        FileOp op;
        op.relative = relative;
        if (entry.kind == TreeEntry::File) {
            op.operation = "REMOVE";
            op.objectName = objectName('r', relative);
            op.before = op.after = oldChecksums.at(relative);
            backupBytes += entry.size;
            ++result.removed;
        } else {
            op.operation = "REMOVELINK";
            op.objectName = objectName('l', relative);
            op.before = op.after = Md5OfBytes(entry.target);
            ++result.linksRemoved;
        }
        removals.push_back(op);
    }

    // What is new or changed.
    PhaseMeter patching(progress, kPatching, changedBytes);
    for (const auto& [relative, entry] : newTree) {
        const auto oldIt = oldTree.find(relative);
        const TreeEntry* old = oldIt == oldTree.end() ? nullptr : &oldIt->second;
        const std::string newPath = options.newTree + "/" + relative;
        const std::string oldPath = options.oldTree + "/" + relative;
        if (entry.kind == TreeEntry::Folder) {
            const bool wasFolder = old && old->kind == TreeEntry::Folder;
            if (entry.empty && !(wasFolder && old->empty)) {
                foldersToAdd.push_back(relative);
                ++result.foldersAdded;
            }
            if ((wasFolder && old->mode != entry.mode) || (!wasFolder && entry.mode != 0755)) {
                folderModes.push_back(FileOp{
                    "CHANGEPERM", objectName('c', relative), relative, "", "", {}, entry.mode});
                ++result.permissionChanges;
            }
            continue;
        }
        if (entry.kind == TreeEntry::Link) {
            if (old && old->kind == TreeEntry::Link && old->target == entry.target)
                continue;
            FileOp op{"CREATELINK", objectName('l', relative), relative, "", "", entry.target, {}};
            // What the link shows in the new version, so that undoing a file replaced by this
            // link can check what it is undoing.
            op.after = Md5OfFile(newPath).value_or(Md5OfBytes(entry.target));
            op.before =
                old && old->kind == TreeEntry::File
                    ? oldChecksums.at(relative)
                    : (old && old->kind == TreeEntry::Link ? Md5OfBytes(old->target) : op.after);
            if (old && old->kind == TreeEntry::File)
                backupBytes += old->size;
            changes.push_back(op);
            ++result.linksCreated;
            continue;
        }

        // A regular file.
        const std::string& newMd5 = newChecksums.at(relative);
        FileOp op;
        op.relative = relative;
        op.after = newMd5;
        if (!old) {
            op.operation = "ADD";
            op.objectName = objectName('a', relative);
            op.before = newMd5;
            op.permission = entry.mode;
            if (!StageFile(newPath, payload + "/" + op.objectName, error))
                return 1;
            writtenBytes += entry.size;
            ++result.added;
        } else if (old->kind == TreeEntry::Link) {
            // A link becomes a file: overwritten through what the link shows now, so that the
            // undo puts the link itself back.
            const auto shown = Md5OfFile(oldPath);
            if (!shown)
                return Fail(error, "the link " + relative +
                                       " becomes a file, but the old link shows no file");
            op.operation = "OVERWRITE";
            op.objectName = objectName('o', relative);
            op.before = *shown;
            op.permission = entry.mode;
            if (!StageFile(newPath, payload + "/" + op.objectName, error))
                return 1;
            writtenBytes += entry.size;
            ++result.overwritten;
        } else {
            op.before = oldChecksums.at(relative);
            if (op.before == newMd5) {
                if (old->mode == entry.mode) {
                    ++result.unchanged;
                    continue;
                }
                op.operation = "CHANGEPERM";
                op.objectName = objectName('c', relative);
                op.permission = entry.mode;
                ++result.permissionChanges;
            } else {
                const std::string& name = relative;
                const uint64_t size = entry.size;
                patching.within(name, size, 0);
                std::vector<uint8_t> oldData;
                std::vector<uint8_t> newData;
                std::vector<uint8_t> patch;
                bool patched = false;
                if (entry.size >= options.minPatchSize && old->size > 0) {
                    if (!ReadFileBytes(oldPath, &oldData, error) ||
                        !ReadFileBytes(newPath, &newData, error))
                        return 1;
                    const auto diffed = [&patching, &name, size](double share) {
                        patching.within(name, size,
                                        static_cast<uint64_t>(share * static_cast<double>(size)));
                    };
                    if (!Bsdiff::diff(oldData, newData, &patch, error, nullptr, diffed))
                        return 1;
                    patched = static_cast<double>(patch.size()) <=
                              options.patchRatio * static_cast<double>(entry.size);
                }
                patching.finished(name, size);
                op.permission = entry.mode;
                if (patched) {
                    op.operation = "PATCH";
                    op.objectName = objectName('p', relative, ".patch");
                    std::string message;
                    if (!WriteFile(payload + "/" + op.objectName,
                                   std::string(patch.begin(), patch.end()), &message))
                        return Fail(error, "cannot write a patch: " + message);
                    largestPatched = std::max(largestPatched, entry.size);
                    ++result.patched;
                } else {
                    op.operation = "OVERWRITE";
                    op.objectName = objectName('o', relative);
                    if (!StageFile(newPath, payload + "/" + op.objectName, error))
                        return 1;
                    ++result.overwritten;
                }
                backupBytes += old->size;
                writtenBytes += entry.size;
            }
        }
        if (relative == kInfoPlist)
            infoPlistOp = op;
        else
            changes.push_back(op);
    }
    patching.end();
    result.foldersRemoved = static_cast<int>(foldersToRemove.size());

    // The manifest: removals first; then new and changed files; then folder modes, once the folders
    // exist. The application's Info.plist goes last, under its Bundle entry, so the bundle shows
    // its new version only when everything else is in place.
    const auto manifest = XmlDocument::create("Manifest");
    XmlNode root = XmlDocument::root(manifest);
    XmlNode fileSet = root.addChild("FileSet");
    for (const auto* list : {&removals, &changes, &folderModes})
        for (const auto& op : *list)
            writer.addFile(fileSet, op);
    if (infoPlistOp) {
        XmlNode bundle = root.addChild("BundleSet").addChild("Bundle");
        bundle.setAttribute("Path", writer.bundleDir() + "/" + kInfoPlist);
        bundle.setAttribute("Version", identity.oldVersion);
        bundle.setAttribute("Verify", "TRUE");
        writer.addFile(bundle, *infoPlistOp);
    }
    XmlNode directorySet = root.addChild("DirectorySet");
    for (const auto& relative : foldersToAdd)
        writer.addDirectory(directorySet, "ADD", relative);
    // Deepest first, so a folder is empty when its turn comes.
    std::sort(foldersToRemove.begin(), foldersToRemove.end(), std::greater<>());
    for (const auto& relative : foldersToRemove)
        writer.addDirectory(directorySet, "REMOVE", relative);

    // Space: the unpacked payload, the backups and one patched file in the working folder;
    // the new and changed files on the application's volume. One MiB spare on each.
    uint64_t payloadBytes = 0;
    for (const auto& item : fs::directory_iterator(payload, ec))
        payloadBytes += item.file_size(ec);
    if (!identity.spaceSystemKb)
        identity.spaceSystemKb = (payloadBytes + backupBytes + largestPatched) / 1024 + 1024;
    if (!identity.spaceTargetKb)
        identity.spaceTargetKb = writtenBytes / 1024 + 1024;

    // The configuration.
    const auto config = XmlDocument::create("PatcherConfig");
    XmlNode c = XmlDocument::root(config);
    c.addChild("Family", identity.family);
    c.addChild("Name", identity.productName);
    c.addChild("ComboPatch", identity.combo ? "true" : "false");
    c.addChild("PatcherID", identity.patcherId);
    if (!identity.buildNumber.empty())
        c.addChild("BuildNumber", identity.buildNumber);
    const std::string outName = out.filename().string();
    c.addChild("PatchExecutableName",
               options.name.value_or(outName.size() > 4 ? outName.substr(0, outName.size() - 4)
                                                        : outName));
    c.addChild("Version", identity.newVersion);
    XmlNode product = c.addChild("ProductData");
    product.addChild("AppName", identity.appName);
    if (!identity.bundleIdentifier.empty())
        product.addChild("BundleIdentifier", identity.bundleIdentifier);
    product.addChild("OldVersion", identity.oldVersion);
    product.addChild("NewVersion", identity.newVersion);
    if (!identity.kvrFilePath.empty())
        product.addChild("KVRFilePath", identity.kvrFilePath);
    XmlNode codes = product.addChild("OrvelCode");
    for (const auto& code : identity.installationCodes)
        codes.addChild("GUID", code);
    XmlNode validation = c.addChild("PrePatchValidation");
    XmlNode running = validation.addChild("AppRunningList");
    for (const auto& app : identity.runningApps)
        running.addChild("AppRunning", app);
    if (!identity.bundleIdentifier.empty())
        validation.addChild("AppValidityCheck")
            .addChild("BundleIdentifier", identity.bundleIdentifier);
    XmlNode space = validation.addChild("SpaceRequirement");
    space.addChild("System", std::to_string(*identity.spaceSystemKb));
    space.addChild("Target", std::to_string(*identity.spaceTargetKb));

    std::string message;
    const std::string configPath = work.path() + "/config.xml";
    const std::string manifestPath = work.path() + "/manifest.xml";
    if (!XmlDocument::save(config, configPath, false, &message) ||
        !XmlDocument::save(manifest, manifestPath, false, &message))
        return Fail(error, "cannot write the configuration or the manifest: " + message);

    PhaseMeter assembling(progress, kAssembling, 0);
    BundleAssembler::Options assemble;
    assemble.configPath = configPath;
    assemble.manifestPath = manifestPath;
    assemble.payloadDir = payload;
    assemble.name = options.name;
    assemble.outPath = options.outPath;
    assemble.builtBundle = options.builtBundle;
    assemble.force = options.force;
    assemble.keepDebugInfo = options.keepDebugInfo;
    BundleAssembler::Result assembled;
    if (BundleAssembler::assemble(assemble, &assembled, error) != 0)
        return 1;
    assembling.end();

    result.bundlePath = assembled.bundlePath;
    result.payloadBytes = assembled.payloadBytes;
    result.payloadArchiveBytes = assembled.payloadArchiveBytes;
    result.identity = identity;
    if (report)
        *report = result;
    return 0;
}

int PatcherBuilder::checkInputs(const Options& options, std::string* error) {
    Tree oldTree;
    Tree newTree;
    return CheckInputs(options, &oldTree, &newTree, error);
}

bool PatcherBuilder::isGuid(const std::string& text) {
    std::string_view digits = text;
    if (!digits.empty() && digits.front() == '{') {
        if (digits.size() < 2 || digits.back() != '}')
            return false;
        digits = digits.substr(1, digits.size() - 2);
    }
    constexpr size_t kGroups[] = {8, 4, 4, 4, 12};
    size_t at = 0;
    for (size_t group = 0; group < std::size(kGroups); ++group) {
        if (group > 0) {
            if (at >= digits.size() || digits[at] != '-')
                return false;
            ++at;
        }
        for (size_t i = 0; i < kGroups[group]; ++i, ++at) {
            if (at >= digits.size() || !std::isxdigit(static_cast<unsigned char>(digits[at])))
                return false;
        }
    }
    return at == digits.size();
}

int PatcherBuilder::compareVersions(const std::string& a, const std::string& b) {
    // One dotted part: its leading digits as a number (any length), then the rest.
    struct Part {
        std::string_view number;
        std::string_view rest;
    };
    auto split = [](std::string_view text) {
        std::vector<Part> parts;
        for (;;) {
            const size_t dot = text.find('.');
            const std::string_view part = text.substr(0, dot);
            size_t digits = 0;
            while (digits < part.size() && std::isdigit(static_cast<unsigned char>(part[digits])))
                ++digits;
            std::string_view number = part.substr(0, digits);
            while (!number.empty() && number.front() == '0')
                number.remove_prefix(1);
            parts.push_back(Part{number, part.substr(digits)});
            if (dot == std::string_view::npos)
                return parts;
            text.remove_prefix(dot + 1);
        }
    };
    const auto left = split(a);
    const auto right = split(b);
    for (size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
        const Part x = i < left.size() ? left[i] : Part{};
        const Part y = i < right.size() ? right[i] : Part{};
        if (x.number.size() != y.number.size())
            return x.number.size() < y.number.size() ? -1 : 1;
        if (const int c = x.number.compare(y.number); c != 0)
            return c < 0 ? -1 : 1;
        if (x.rest == y.rest)
            continue;
        if (x.rest.empty() || y.rest.empty())
            return x.rest.empty() ? 1 : -1;
        return x.rest < y.rest ? -1 : 1;
    }
    return 0;
}
