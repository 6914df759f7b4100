#include "update/ManifestDryRun.h"

#include "base/Path.h"
#include "runtime/CommonUtility.h"
#include "target/DirTokenResolver.h"
#include "update/MD5cksum.h"
#include "update/ManifestConfinement.h"
#include "update/ProcessManifest.h"

#include <strings.h>
#include <sys/stat.h>

namespace {

std::optional<std::string> Field(const XmlNode& node, const char* path) {
    const auto nodes = node.select(path);
    if (!ProcessManifest::isSingleElementType(nodes))
        return std::nullopt;
    return nodes.front().stringValue();
}

// The destination of an entry as the run expands it; nothing when the entry names none.
std::optional<std::string> Destination(const XmlNode& node, const DirTokenResolver& tokens,
                                       const std::string& appPath) {
    const auto destination = node.select("./DestinationPath");
    if (!ProcessManifest::isSingleElementType(destination))
        return std::nullopt;
    auto name =
        ProcessManifest::getLocalizedNameGivenArray(node.select("./DestinationPath/FileName"));
    if (!name)
        name = destination.front().attribute("defName");
    if (!name)
        return std::nullopt;
    return tokens.expandDirectoryTokenForPath(
        JoinPath(destination.front().attribute("dir").value_or(""), *name), appPath);
}

bool Replaces(const std::string& operation) {
    for (const char* keyword :
         {"REMOVE", "OVERWRITE", "PATCH", "REPLACE", "RENAME", "REMOVELINK"}) {
        if (::strcasecmp(operation.c_str(), keyword) == 0)
            return true;
    }
    return false;
}

} // namespace

bool ManifestDryRun::wouldApply() const {
    return readable && !confinementProblem && checksumMismatches.empty() &&
           backupBytes <= backupFolderFreeBytes;
}

ManifestDryRun ManifestDryRun::check(const std::string& manifestPath, const std::string& appPath,
                                     const std::string& backupFolder, const PlatformPaths& paths) {
    ManifestDryRun result;
    result.backupFolder = backupFolder;
    const XmlNode root = ProcessManifest::getRootNodeOfXMLGivenPath(manifestPath);
    if (!root)
        return result;
    result.readable = true;
    const DirTokenResolver tokens(paths);
    result.confinementProblem = ManifestConfinement(tokens, appPath).manifestProblem(root);

    std::vector<XmlNode> files = root.select("/Manifest/FileSet/File");
    for (const XmlNode& file : root.select("/Manifest/BundleSet/Bundle/File"))
        files.push_back(file);
    for (const XmlNode& file : files) {
        ++result.entries;
        const std::string operation = Field(file, "./Operation").value_or("?");
        ++result.keywords[operation];
        const auto destination = Destination(file, tokens, appPath);
        if (!destination)
            continue;
        struct stat info {};
        const bool present = ::lstat(destination->c_str(), &info) == 0;
        if (present && S_ISREG(info.st_mode) && Replaces(operation))
            result.backupBytes += static_cast<uint64_t>(info.st_size);
        const auto before = Field(file, "./Checksum/BeforePatch");
        if (!before || before->empty() || !present || !S_ISREG(info.st_mode))
            continue;
        ++result.checksumsChecked;
        const auto found = MD5cksum::getMD5cksumOfFile(*destination).value_or("unreadable");
        if (::strcasecmp(found.c_str(), before->c_str()) == 0)
            continue;
        const auto after = Field(file, "./Checksum/AfterPatch");
        if (after && ::strcasecmp(found.c_str(), after->c_str()) == 0) {
            ++result.alreadyUpdated;
            continue;
        }
        result.checksumMismatches.push_back(*destination + ": found " + found + ", expected " +
                                            *before);
    }
    for (const XmlNode& folder : root.select("/Manifest/DirectorySet/Directory")) {
        ++result.entries;
        ++result.keywords["Directory " + Field(folder, "./Operation").value_or("?")];
    }
    for (const XmlNode& service : root.select("/Manifest/ServiceSet/Service")) {
        result.services.push_back(Field(service, "./ServiceName").value_or("?") + " (" +
                                  Field(service, "./Operation").value_or("?") + ")");
    }

    // The backups go to the nearest folder that exists on the way to the backup folder.
    std::string existing = backupFolder;
    while (!existing.empty() && existing != "/" && !FolderExists(existing))
        existing = ParentPath(existing);
    result.backupFolderFreeBytes = GetFreeDiskSpaceInBytes(existing.empty() ? "/" : existing);
    return result;
}
