// libFuzzer target for the manifest reader. The input is written as manifest.xml into a
// scratch folder and read by ProcessManifest::getRootNodeOfXMLGivenPath, as a run reads it.
// Then the whole manifest's confinement is checked (ManifestConfinement), the sets are
// selected, every File, Bundle and Directory entry is read with the expressions, in the
// order, of ProcessManifest's set processors, each path checked as the processor checks it,
// and the files to checksum ahead are worked out. No entry is applied: the processors' reading
// is repeated here, without a CmdInterface, so nothing outside the scratch folder changes;
// when the processors read an entry differently, this reading has to follow. A path that the
// confinement lets through must be the path the processor uses and lie inside its token's
// folder, and there must be one list of files to checksum per entry; a broken promise stops
// the run (a trap).
#include "update/ProcessManifest.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "base/Xml.h"
#include "base/fuzz/FuzzScratchFolder.h"
#include "base/fuzz/XmlFuzzSetup.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"
#include "runtime/PlatformPaths.h"
#include "target/DirTokenResolver.h"
#include "update/FileOperationInfo.h"
#include "update/ManifestConfinement.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr const char* kAppPath = "/opt/Orvel Paint/Orvel Paint.app";
constexpr const char* kPayloadDir = "/tmp/OrvelQX3/PatcherApp_1";
// What an installed bundle's property list says, for the bundles' version check.
constexpr const char* kInstalledBundleVersion = "5.0.1";

volatile size_t gSink = 0;

void Use(const std::string& value) {
    gSink = gSink + value.size();
}

// The single element's string value, when the query gives exactly one element.
std::optional<std::string> SingleValue(const XmlNode& node, const std::string& expression) {
    auto nodes = node.select(expression);
    if (!ProcessManifest::isSingleElementType(nodes))
        return std::nullopt;
    return nodes.front().stringValue();
}

void ReadOptional(const XmlNode& node, const char* expression, std::string& field) {
    if (auto value = SingleValue(node, expression))
        field = *value;
}

// A path element's text: its file name (the run's language first, then "defName") joined to
// its "dir", tokens not expanded; nothing when it names no file.
std::optional<std::string> ReadPath(const XmlNode& entry, const char* element) {
    const std::string expression = std::string("./") + element;
    const auto nodes = entry.select(expression);
    if (!ProcessManifest::isSingleElementType(nodes))
        return std::nullopt;
    auto name = ProcessManifest::getLocalizedNameGivenArray(entry.select(expression + "/FileName"));
    if (!name)
        name = nodes.front().attribute("defName");
    if (!name)
        return std::nullopt;
    return JoinPath(nodes.front().attribute("dir").value_or(""), *name);
}

// A manifest path, expanded as the processor expands it and checked as
// ProcessManifest::pathStaysConfined checks it. A path the confinement lets through must
// expand to the path the processor uses, and that path, normalised, must still lie inside the
// token's folder.
std::string ExpandAndConfine(const std::string& path, const DirTokenResolver& dirToken) {
    const std::string used = dirToken.expandDirectoryTokenForPath(path, kAppPath);
    std::string expanded;
    std::string base;
    if (ManifestConfinement(dirToken, kAppPath).pathProblem(path, &expanded, &base))
        return used;
    if (expanded != used)
        __builtin_trap();
    std::filesystem::path folder = std::filesystem::path(base).lexically_normal();
    if (folder.filename().empty())
        folder = folder.parent_path();
    const std::filesystem::path normal = std::filesystem::path(expanded).lexically_normal();
    if (folder.empty() ||
        std::mismatch(folder.begin(), folder.end(), normal.begin(), normal.end()).first !=
            folder.end())
        __builtin_trap();
    if (const auto link = ManifestConfinement::linkOnTheWay(base, expanded))
        Use(*link);
    return used;
}

// One File entry, read as ProcessManifest::processFileSet reads it.
void ReadFileEntry(const XmlNode& node, const DirTokenResolver& dirToken) {
    FileOperationInfo info;
    ReadOptional(node, "./Operation", info.Operation);
    ReadOptional(node, "./ObjectName", info.ObjectName);
    ReadOptional(node, "./Touch", info.Touch);
    const auto destination = ReadPath(node, "DestinationPath");
    if (!destination)
        return; // the processor skips it (or stops the set)
    info.DestinationPath = ExpandAndConfine(*destination, dirToken);
    ReadOptional(node, "./Checksum/BeforePatch", info.BeforePatch);
    ReadOptional(node, "./Checksum/AfterPatch", info.AfterPatch);
    if (const auto rename = ReadPath(node, "RenamePath")) {
        // A link's content is written as it is, never followed: it is not confined.
        info.RenamePath = EqualsIgnoringCase(info.Operation, "CREATELINK")
                              ? dirToken.expandDirectoryTokenForPath(*rename, kAppPath)
                              : ExpandAndConfine(*rename, dirToken);
    }
    ReadOptional(node, "./Permissions/mac/UserID", info.UserID);
    ReadOptional(node, "./Permissions/mac/GroupID", info.GroupID);
    ReadOptional(node, "./Permissions/mac/Permission", info.Permission);
    Use(IsAbsentField(info.RenamePath) ? info.DestinationPath : info.RenamePath);
}

// One Bundle, read as ProcessManifest::processBundleSet reads it: its attributes, the
// version check against an installed version, its File entries, the enclosing application.
void ReadBundle(const XmlNode& bundle, const DirTokenResolver& dirToken) {
    std::optional<std::string> path = bundle.attribute("Path");
    const auto version = bundle.attribute("Version");
    const auto verify = bundle.attribute("Verify");
    if (path)
        path = ExpandAndConfine(*path, dirToken);
    if (verify && EqualsIgnoringCase(*verify, "TRUE"))
        gSink = gSink + DotSeparatedVersionCompareAllowsReplace(
                            version, std::string(kInstalledBundleVersion));
    for (const XmlNode& file : bundle.childElements())
        ReadFileEntry(file, dirToken);
    if (path) {
        std::string app;
        if (GetPathToAppGivenSubDirPath(ParentPath(*path), app,
                                        PlatformPaths::defaults().protectedFolders))
            Use(app);
    }
}

// One Directory entry, read as ProcessManifest::processDirectorySet reads it.
void ReadDirectory(const XmlNode& node, const DirTokenResolver& dirToken) {
    DirectoryOperationInfo info;
    const auto operation = SingleValue(node, "./Operation");
    const auto base = SingleValue(node, "./DirectoryBase");
    if (!operation || !base)
        return;
    info.Operation = *operation;
    info.DirectoryBase = ExpandAndConfine(*base, dirToken);
    Use(info.DirectoryBase);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Every log line is formatted, so fuzzed values go through the log's formatting as well.
    // The log is standard error; scripts/fuzz.sh sends it away (-close_fd_mask=2).
    (void)SetENVverbosityLevel("debug");
    SetUpXmlForFuzzing();
    SetENVinstallLanguage("en_US");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzScratchFolder folder("manifest-fuzz");
    static const std::string path = folder.path() + "/manifest.xml";
    // The machine's table with a fixed user, so that no input depends on who runs this.
    static const DirTokenResolver dirToken(PlatformPaths::defaults(), std::string("fuzz"));
    if (!WriteFile(path, std::string(reinterpret_cast<const char*>(data), size))) {
        std::fprintf(stderr, "ManifestReaderFuzz: cannot write %s\n", path.c_str());
        std::abort();
    }

    const XmlNode root = ProcessManifest::getRootNodeOfXMLGivenPath(path);
    if (!root)
        return 0;

    // What ProcessManifest::performUpdate checks before anything is touched.
    if (const auto problem = ManifestConfinement(dirToken, kAppPath).manifestProblem(root))
        Use(*problem);

    // The selections of ProcessManifest::invokeAction (a rollback reads the same sets).
    const auto files = root.select("/Manifest/FileSet/File");
    const auto bundles = root.select("/Manifest/BundleSet/Bundle");
    const auto bundleFiles = root.select("/Manifest/BundleSet/Bundle/File");
    const auto aliases = root.select("/Manifest/AliasSet/Alias");
    const auto directories = root.select("/Manifest/DirectorySet/Directory");
    gSink = gSink + files.size() + bundleFiles.size() + aliases.size() + directories.size();

    // Every entry is read, also past an entry where a run would stop, so that the reading of
    // each one is tried.
    for (const XmlNode& file : files)
        ReadFileEntry(file, dirToken);
    for (const XmlNode& bundle : bundles)
        ReadBundle(bundle, dirToken);
    for (const XmlNode& directory : directories)
        ReadDirectory(directory, dirToken);

    // The checksums read ahead: at construction (the file set and the bundles' files,
    // without the payload), and for a set (with it). One list per entry, whatever it holds.
    std::vector<XmlNode> entries = files;
    entries.insert(entries.end(), bundleFiles.begin(), bundleFiles.end());
    for (const char* payloadDir : {"", kPayloadDir}) {
        const auto ahead =
            ProcessManifest::filesToChecksumAhead(entries, dirToken, kAppPath, payloadDir);
        if (ahead.size() != entries.size())
            __builtin_trap();
        for (const auto& entry : ahead) {
            for (const std::string& file : entry)
                Use(file);
        }
    }
    return 0;
}
