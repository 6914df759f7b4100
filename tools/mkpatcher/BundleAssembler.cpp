#include "BundleAssembler.h"

#include "PayloadArchive.h"
#include "base/FileUtil.h"
#include "base/PropertyList.h"
#include "base/Xml.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <spawn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace fs = std::filesystem;

namespace {

constexpr const char* kExecutable = "Contents/MacOS/PatcherApp";
constexpr const char* kZothLibrary = "Contents/Frameworks/orvel_zoth.framework/orvel_zoth";
constexpr const char* kResultsLibrary = "Contents/Frameworks/libKORInstallerResults.so";
constexpr const char* kPatchTool = "Contents/Resources/bspatch";
constexpr const char* kLocale = "Contents/Resources/locale";

int Fail(std::string* error, const std::string& message) {
    if (error)
        *error = message;
    return 1;
}

// The patcher's Info.plist: the built bundle's identifier and versions, the given name.
std::string InfoPlist(const std::string& builtBundle, const std::string& name) {
    std::string identifier = "com.orvel.patcher";
    std::string shortVersion = "1.0";
    std::string version = "1.0";
    if (auto plist = PropertyList::readDictionaryFromFile(builtBundle + "/Contents/Info.plist")) {
        identifier = plist->stringForKey("CFBundleIdentifier").value_or(identifier);
        shortVersion = plist->stringForKey("CFBundleShortVersionString").value_or(shortVersion);
        version = plist->stringForKey("CFBundleVersion").value_or(version);
    }
    auto entry = [](const std::string& key, const std::string& value) {
        return "\t<key>" + key + "</key>\n\t<string>" + XmlEscape(value, XmlEscapeFor::Text) +
               "</string>\n";
    };
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           entry("CFBundleExecutable", "PatcherApp") + entry("CFBundleIdentifier", identifier) +
           entry("CFBundleName", name) + entry("CFBundlePackageType", "APPL") +
           entry("CFBundleShortVersionString", shortVersion) + entry("CFBundleVersion", version) +
           "</dict>\n</plist>\n";
}

// A fresh folder beside path, for building the bundle before it is moved into place.
std::optional<std::string> MakeStagingFolder(const std::string& outPath, std::string* error) {
    const fs::path out = fs::absolute(outPath);
    std::string pattern =
        (out.parent_path() / ("." + out.filename().string() + ".XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        if (error)
            *error = "cannot create a folder beside " + outPath + ": " + std::strerror(errno);
        return std::nullopt;
    }
    return pattern;
}

// Removes a staging folder unless it was moved into place.
class StagingGuard {
public:
    explicit StagingGuard(std::string path) : _path(std::move(path)) {}
    ~StagingGuard() {
        if (!_path.empty()) {
            std::error_code ec;
            fs::remove_all(_path, ec);
        }
    }
    StagingGuard(const StagingGuard&) = delete;
    StagingGuard& operator=(const StagingGuard&) = delete;
    void release() { _path.clear(); }

private:
    std::string _path;
};

bool CopyItem(const std::string& from, const std::string& to, std::string* error) {
    std::error_code ec;
    fs::create_directories(fs::path(to).parent_path(), ec);
    if (!ec)
        fs::copy(from, to,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks |
                     fs::copy_options::overwrite_existing,
                 ec);
    if (ec) {
        if (error)
            *error = "cannot copy " + from + " to " + to + ": " + ec.message();
        return false;
    }
    return true;
}

bool CopyFileTo(const std::string& from, const std::string& to, std::string* error) {
    std::error_code ec;
    fs::create_directories(fs::path(to).parent_path(), ec);
    if (!ec)
        fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    if (ec) {
        if (error)
            *error = "cannot copy " + from + " to " + to + ": " + ec.message();
        return false;
    }
    return true;
}

} // namespace

std::optional<std::string> BundleAssembler::findBuiltBundle() {
    std::error_code ec;
    fs::path folder = fs::read_symlink("/proc/self/exe", ec).parent_path();
    if (ec)
        return std::nullopt;
    const fs::path programFolder = folder;
    for (int level = 0; level < 4 && !folder.empty(); ++level) {
        const fs::path candidate = folder / "PatcherApp.app";
        if (fs::is_regular_file(candidate / kExecutable, ec))
            return candidate.string();
        if (folder == folder.root_path())
            break;
        folder = folder.parent_path();
    }
#ifdef ORVEL_INSTALLED_TEMPLATE
    // Installed: the template's place relative to the programs' folder, so any prefix works.
    const fs::path installed = (programFolder / ORVEL_INSTALLED_TEMPLATE).lexically_normal();
    if (fs::is_regular_file(installed / kExecutable, ec))
        return installed.string();
#endif
    return std::nullopt;
}

bool BundleAssembler::stripDebugInfo(const std::string& path, std::string* error) {
    auto failed = [error](const std::string& why) {
        if (error)
            *error = why;
        return false;
    };
    const char* const argv[] = {"objcopy", "--strip-debug", path.c_str(), nullptr};
    pid_t child = 0;
    const int spawned = ::posix_spawnp(&child, "objcopy", nullptr, nullptr,
                                       const_cast<char* const*>(argv), environ);
    if (spawned != 0)
        return failed(std::string("cannot run objcopy: ") + std::strerror(spawned));
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return failed(std::string("cannot wait for objcopy: ") + std::strerror(errno));
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return failed("objcopy --strip-debug " + path + " failed");
    return true;
}

std::optional<std::string> BundleAssembler::checkBuiltBundle(const std::string& builtBundle) {
    std::error_code ec;
    for (const char* part : {kExecutable, kZothLibrary, kResultsLibrary, kPatchTool}) {
        if (!fs::is_regular_file(fs::path(builtBundle) / part, ec))
            return builtBundle + " has no " + part;
    }
    bool anyCatalogue = false;
    const fs::path locale = fs::path(builtBundle) / kLocale;
    if (fs::is_directory(locale, ec)) {
        for (const auto& language : fs::directory_iterator(locale, ec))
            anyCatalogue |= fs::is_regular_file(language.path() / "LC_MESSAGES/PatcherApp.mo", ec);
    }
    if (!anyCatalogue)
        return builtBundle + " has no string tables in " + kLocale;
    return std::nullopt;
}

bool BundleAssembler::outputTaken(const std::string& path) {
    std::error_code ec;
    const auto status = fs::symlink_status(path, ec);
    if (ec || status.type() == fs::file_type::not_found)
        return false;
    if (status.type() != fs::file_type::directory)
        return true;
    return !fs::is_empty(path, ec) || ec;
}

std::optional<std::string> BundleAssembler::checkXmlRoot(const std::string& path,
                                                         const std::string& rootName) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec))
        return path + ": no such file";
    const auto parsed = XmlDocument::parseFile(path, XmlParseMode::Strict);
    if (!parsed.document) {
        std::string why = path + ": not well-formed XML";
        if (!parsed.errors.empty())
            why += " (line " + std::to_string(parsed.errors.front().line) + ": " +
                   parsed.errors.front().message + ")";
        while (!why.empty() && (why.back() == '\n' || why.back() == ' '))
            why.pop_back();
        return why;
    }
    const XmlNode root = XmlDocument::root(parsed.document);
    if (!root || root.name() != rootName)
        return path + ": the root element is \"" + (root ? root.name() : std::string()) +
               "\", not \"" + rootName + "\"";
    return std::nullopt;
}

std::set<std::string> BundleAssembler::patchFilesOf(const std::string& manifestPath) {
    std::set<std::string> names;
    const auto parsed = XmlDocument::parseFile(manifestPath, XmlParseMode::Strict);
    if (!parsed.document)
        return names;
    for (const XmlNode& entry : XmlDocument::root(parsed.document).childElements()) {
        if (entry.name() != "FileSet")
            continue;
        for (const XmlNode& file : entry.childElements()) {
            std::optional<std::string> operation;
            std::optional<std::string> objectName;
            for (const XmlNode& field : file.childElements()) {
                if (field.name() == "Operation")
                    operation = field.stringValue();
                else if (field.name() == "ObjectName")
                    objectName = field.stringValue();
            }
            if (operation && objectName && ::strcasecmp(operation->c_str(), "PATCH") == 0)
                names.insert(fs::path(*objectName).lexically_normal().string());
        }
    }
    return names;
}

int BundleAssembler::assemble(const Options& options, Result* result, std::string* error) {
    const fs::path out = fs::path(options.outPath).lexically_normal();
    std::string outName = out.filename().string();
    if (outName.empty())
        outName = out.parent_path().filename().string();
    if (outName.size() <= 4 || outName.substr(outName.size() - 4) != ".app")
        return Fail(error, "the output folder must be named <Name>.app: " + options.outPath);
    const std::string outPath = out.filename().empty() ? out.parent_path().string() : out.string();
    const std::string name = options.name.value_or(outName.substr(0, outName.size() - 4));
    if (name.empty())
        return Fail(error, "the patcher name is empty");
    // A taken output is refused before anything is read or copied.
    if (outputTaken(outPath) && !options.force)
        return Fail(error, outPath + " exists; use --force to replace it");

    if (auto why = checkXmlRoot(options.configPath, "PatcherConfig"))
        return Fail(error, "configuration " + *why);
    if (auto why = checkXmlRoot(options.manifestPath, "Manifest"))
        return Fail(error, "manifest " + *why);
    std::error_code ec;
    if (options.payloadDir && !fs::is_directory(*options.payloadDir, ec))
        return Fail(error, "the payload folder " + *options.payloadDir + " is not a folder");

    std::string builtBundle;
    if (options.builtBundle) {
        builtBundle = *options.builtBundle;
    } else if (auto found = findBuiltBundle()) {
        builtBundle = *found;
    } else {
        return Fail(error, "no built PatcherApp.app next to this program; name one with --from");
    }
    if (auto why = checkBuiltBundle(builtBundle))
        return Fail(error, "the built bundle is incomplete: " + *why);

    fs::create_directories(fs::absolute(outPath).parent_path(), ec);
    if (ec)
        return Fail(error, "cannot create the folder of " + outPath + ": " + ec.message());

    const auto staging = MakeStagingFolder(outPath, error);
    if (!staging)
        return 1;
    StagingGuard guard(*staging);
    if (::chmod(staging->c_str(), 0755) != 0)
        return Fail(error, "cannot set the mode of " + *staging + ": " + std::strerror(errno));
    const std::string contents = *staging + "/Contents";
    const std::string resources = contents + "/Resources";

    std::string message;
    if (!CopyItem(builtBundle + "/" + kExecutable, *staging + "/" + kExecutable, &message) ||
        !CopyItem(builtBundle + "/Contents/Frameworks", contents + "/Frameworks", &message) ||
        !CopyItem(builtBundle + "/" + kPatchTool, *staging + "/" + kPatchTool, &message) ||
        !CopyItem(builtBundle + "/" + kLocale, *staging + "/" + kLocale, &message) ||
        !CopyFileTo(options.configPath, resources + "/config.xml", &message) ||
        !CopyFileTo(options.manifestPath, resources + "/manifest.xml", &message))
        return Fail(error, message);
    if (!options.keepDebugInfo) {
        for (const char* part : {kExecutable, kZothLibrary, kResultsLibrary, kPatchTool}) {
            // A bundle with debug sections still works; it is only larger.
            if (!stripDebugInfo(*staging + "/" + part, &message))
                std::fprintf(stderr, "mkpatcher: %s; %s is copied with its debug information\n",
                             message.c_str(), part);
        }
    }
    if (!WriteFile(contents + "/Info.plist", InfoPlist(builtBundle, name), &message))
        return Fail(error, "cannot write Info.plist: " + message);

    PayloadArchive::Summary summary;
    const std::string archivePath = resources + "/Payload.cpio.gz";
    if (!PayloadArchive::write(options.payloadDir.value_or(""), archivePath, &summary, &message,
                               patchFilesOf(options.manifestPath)))
        return Fail(error, message);

    if (outputTaken(outPath) || fs::exists(fs::symlink_status(outPath, ec))) {
        fs::remove_all(outPath, ec);
        if (ec)
            return Fail(error, "cannot replace " + outPath + ": " + ec.message());
    }
    if (::rename(staging->c_str(), outPath.c_str()) != 0)
        return Fail(error, "cannot move the bundle to " + outPath + ": " + std::strerror(errno));
    guard.release();

    if (result) {
        result->bundlePath = outPath;
        result->payloadFiles = summary.files;
        result->payloadBytes = summary.bytes;
        result->payloadArchiveBytes =
            fs::file_size(outPath + "/Contents/Resources/Payload.cpio.gz", ec);
    }
    return 0;
}
