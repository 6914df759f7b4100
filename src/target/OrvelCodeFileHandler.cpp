#include "target/OrvelCodeFileHandler.h"

#include "base/FileState.h"
#include "base/FileUtil.h"
#include "base/Format.h"
#include "base/Path.h"
#include "base/Xml.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

std::mutex gInstanceMutex;
std::unique_ptr<OrvelCodeFileHandler> gInstance;

// Matches a whole history root whose installation time equals the variable's value, and
// the entry of a sequence number. The values are XPath variables, so quote characters in
// them cannot change the expression.
constexpr const char* kCurrentHistoryQuery = "/PBSHistory[@tsInstalled = $tsInstalled]";
constexpr const char* kEntryQuery = "/PBSHistory/Patcher[@SequenceID = $sequenceID]";

bool CanAddressFile(const std::string& path) {
    return !path.empty() && path.find('\0') == std::string::npos;
}

bool IsRegularFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// The document of a file that parses without any reported error; nothing for anything
// else. Only regular files are read: a pipe would block the run and a device never ends.
XmlDocumentHandle ParseWithoutErrors(const std::string& path) {
    if (!IsRegularFile(path))
        return nullptr;
    XmlParseResult parsed = XmlDocument::parseFile(path, XmlParseMode::StrictThenRecover);
    if (!parsed.errors.empty())
        return nullptr;
    return parsed.document;
}

// Creates the missing folders of path (mode 0755, owned by whoever runs the patcher: the
// history belongs to the machine, not to the desktop user).
bool MakeFolders(const std::string& path) {
    const std::string withSlash = path + "/";
    for (size_t slash = withSlash.find('/', 1); slash != std::string::npos;
         slash = withSlash.find('/', slash + 1)) {
        const std::string level = withSlash.substr(0, slash);
        if (::mkdir(level.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

} // namespace

OrvelCodeFileHandler::OrvelCodeFileHandler(std::string filePath,
                                           std::optional<std::string> identifier,
                                           std::optional<std::string> patcherOldVersion,
                                           std::optional<std::string> patcherNewVersion,
                                           std::optional<std::string> productName,
                                           std::optional<std::string> productFamily,
                                           int64_t timeInstalled, int64_t timeModified)
    : tsInstalled(StringWithFormat("%d", timeInstalled)),
      tsModified(StringWithFormat("%d", timeModified)), ocPatchFilePath(std::move(filePath)),
      patcherID(std::move(identifier)), PatchBaseVer(std::move(patcherOldVersion)),
      PatchNewVer(std::move(patcherNewVersion)), ProductName(std::move(productName)),
      ProductFamily(std::move(productFamily)) {}

OrvelCodeFileHandler* OrvelCodeFileHandler::createInstance(
    const std::string& filePath, const std::optional<std::string>& patcherID,
    const std::optional<std::string>& patcherOldVersion,
    const std::optional<std::string>& patcherNewVersion,
    const std::optional<std::string>& productName, const std::optional<std::string>& productFamily,
    int64_t timeInstalled, int64_t timeModified) {
    auto handler = std::make_unique<OrvelCodeFileHandler>(
        filePath, patcherID, patcherOldVersion, patcherNewVersion, productName, productFamily,
        timeInstalled, timeModified);
    std::optional<std::string> versionFound;
    handler->getPatcherModeAndInstalledAppBuildVersion(versionFound);
    std::lock_guard lock(gInstanceMutex);
    gInstance = std::move(handler);
    return gInstance.get();
}

OrvelCodeFileHandler* OrvelCodeFileHandler::getInstance() {
    std::lock_guard lock(gInstanceMutex);
    return gInstance.get();
}

bool OrvelCodeFileHandler::releaseInstance() {
    std::lock_guard lock(gInstanceMutex);
    gInstance.reset();
    return true;
}

std::string OrvelCodeFileHandler::patchFilePathForCode(const PlatformPaths& paths,
                                                       const std::string& code) {
    std::string folder = paths.patchHistoryFolder;
    if (!folder.empty() && folder.back() != '/')
        folder += '/';
    return folder + code + ".patch";
}

int OrvelCodeFileHandler::getPatcherModeAndInstalledAppBuildVersion(
    std::optional<std::string>& versionFound) {
    versionFound.reset();
    const auto finish = [&](int mode) {
        patcherMode = mode;
        // A new entry records the configured old version, once the installed version is
        // known.
        InstVer = versionFound ? PatchBaseVer.value_or("") : std::string();
        return mode;
    };

    // A path that cannot name a file cannot be tested for existence either.
    if (!CanAddressFile(ocPatchFilePath)) {
        NSLevelledLog(0, "Can't create an URL from file path %@.", ocPatchFilePath);
        return finish(kModeInstall);
    }
    // A dangling link counts as a file: nothing is ever written through a link that the
    // handler did not make.
    if (!PathExistsNoFollow(ocPatchFilePath)) {
        versionFound = PatchBaseVer;
        return finish(kModeInstall);
    }
    XmlDocumentHandle document = ParseWithoutErrors(ocPatchFilePath);
    if (!document)
        return finish(kModeInstall);

    const XmlNode root = XmlDocument::root(document);
    const size_t childCount = root.childElements().size();
    const bool isCurrent =
        root.select(kCurrentHistoryQuery, {{"tsInstalled", tsInstalled}}).size() == 1;
    if (!isCurrent)
        NSLevelledLog(0, "Patch file is out of date.");

    if (childCount == 0 || !isCurrent) {
        document.reset();
        if (!removeOutOfDatePatchFile()) {
            // The file could be neither used nor moved aside; a first install would have to
            // write into it, so nothing is patched.
            NSLevelledLog(0, "Failed to move file %@ aside", ocPatchFilePath);
            return finish(kModeNotPatchable);
        }
        versionFound = PatchBaseVer;
        return finish(kModeInstall);
    }

    const std::string sequenceID = std::to_string(childCount);
    std::vector<XmlNode> entries = root.select(kEntryQuery, {{"sequenceID", sequenceID}});
    if (entries.size() != 1) {
        NSLevelledLog(0, "Patch file is corrupted. Multiple entries found for SequenceID: %d",
                      sequenceID);
        return finish(kModeNotPatchable);
    }
    std::vector<XmlNode> newVersions = entries.front().select("./NewVersion");
    if (newVersions.size() != 1) {
        NSLevelledLog(0, "Patch file is corrupted. New version is missing for SequenceID: %d",
                      sequenceID);
        return finish(kModeNotPatchable);
    }
    versionFound = newVersions.front().stringValue();
    NSLog(StringWithFormat("Version from patch file: %@", *versionFound));
    if (!PatchBaseVer || !PatchNewVer)
        return finish(kModeNotPatchable);

    int mode = kModeNotPatchable;
    const int oldAgainstFound = DotSeparatedVersionCompare(PatchBaseVer, versionFound);
    if (oldAgainstFound == 0) {
        mode = kModeInstall;
    } else if (oldAgainstFound < 0) {
        const int newAgainstFound = DotSeparatedVersionCompare(PatchNewVer, versionFound);
        if (newAgainstFound == 0)
            mode = kModeRepair;
        else if (newAgainstFound > 0)
            mode = kModeComboPatch;
    }
    return finish(mode);
}

XmlDocumentHandle OrvelCodeFileHandler::newHistoryDocument() const {
    XmlDocumentHandle document = XmlDocument::create("PBSHistory");
    if (!document)
        return nullptr;
    XmlNode root = XmlDocument::root(document);
    root.setAttribute("ProductName", ProductName.value_or(""));
    root.setAttribute("ProductFamily", ProductFamily.value_or(""));
    root.setAttribute("tsInstalled", tsInstalled);
    root.setAttribute("tsModified", tsModified);
    return document;
}

bool OrvelCodeFileHandler::createOCPatchFile() {
    if (!CanAddressFile(ocPatchFilePath) || !MakeFolders(ParentPath(ocPatchFilePath)))
        return false;
    XmlDocumentHandle document = newHistoryDocument();
    // Whole or not at all: a half-written history would refuse every later entry.
    return document && XmlDocument::save(document, ocPatchFilePath, true);
}

bool OrvelCodeFileHandler::addPatcherEntry(const std::string& manifestPath,
                                           const std::optional<std::string>& saveAs) {
    return addPatcherEntry(manifestPath, saveAs, std::nullopt);
}

std::optional<OrvelCodeFileHandler::PreparedEntry>
OrvelCodeFileHandler::preparePatcherEntry(const std::string& manifestPath) const {
    PreparedEntry prepared;
    prepared.manifestPath = manifestPath;
    if (::stat(manifestPath.c_str(), &prepared.manifest) != 0)
        return std::nullopt;
    // A missing history is made when the entry is added, as a new one is.
    prepared.historyMissing = ::stat(ocPatchFilePath.c_str(), &prepared.history) != 0;
    if (prepared.historyMissing && errno != ENOENT)
        return std::nullopt;
    XmlDocumentHandle history;
    if (prepared.historyMissing) {
        history = newHistoryDocument();
    } else {
        XmlParseResult parsed =
            XmlDocument::parseFile(ocPatchFilePath, XmlParseMode::StrictThenRecover);
        if (parsed.errors.empty())
            history = std::move(parsed.document);
    }
    const XmlParseResult manifest =
        XmlDocument::parseFile(manifestPath, XmlParseMode::StrictThenRecover);
    if (!history || !manifest.errors.empty() || !manifest.document)
        return std::nullopt;
    auto text = historyWithEntry(history, manifest.document);
    if (!text || !stillAsPrepared(prepared))
        return std::nullopt;
    prepared.text = std::move(*text);
    return prepared;
}

bool OrvelCodeFileHandler::stillAsPrepared(const PreparedEntry& prepared) const {
    struct stat history {
    }, manifest{};
    if (::stat(prepared.manifestPath.c_str(), &manifest) != 0 ||
        !SameFileState(manifest, prepared.manifest))
        return false;
    if (::stat(ocPatchFilePath.c_str(), &history) != 0)
        return prepared.historyMissing && errno == ENOENT;
    return !prepared.historyMissing && SameFileState(history, prepared.history);
}

std::optional<std::string>
OrvelCodeFileHandler::historyWithEntry(const XmlDocumentHandle& history,
                                       const XmlDocumentHandle& manifest) const {
    XmlNode root = XmlDocument::root(history);
    // Only the history of the current installation is ever edited.
    if (root.select(kCurrentHistoryQuery, {{"tsInstalled", tsInstalled}}).size() != 1)
        return std::nullopt;
    const size_t childCount = root.childElements().size();
    XmlNode patcher = root.addChild("Patcher");
    patcher.setAttribute("SequenceID", std::to_string(childCount + 1));
    patcher.setAttribute("PatcherID", patcherID.value_or(""));
    patcher.addChild("OldVersion", InstVer);
    patcher.addChild("NewVersion", PatchNewVer.value_or(""));
    if (!patcher.addCopyOf(XmlDocument::root(manifest)))
        return std::nullopt;
    // Only the indentation goes, so that the pretty-printed file indents old and new
    // entries alike.
    root.removeIndentation();
    std::string text = XmlDocument::toXmlString(history);
    if (text.empty())
        return std::nullopt;
    return text;
}

bool OrvelCodeFileHandler::addPatcherEntry(const std::string& manifestPath,
                                           const std::optional<std::string>& saveAs,
                                           const std::optional<PreparedEntry>& prepared) {
    if (!CanAddressFile(ocPatchFilePath)) {
        NSLevelledLog(0, "Can't create an URL from file path %@.", ocPatchFilePath);
        return false;
    }
    const std::string& target = saveAs ? *saveAs : ocPatchFilePath;
    if (prepared && prepared->manifestPath == manifestPath && stillAsPrepared(*prepared) &&
        CanAddressFile(manifestPath)) {
        if (prepared->historyMissing && !createOCPatchFile()) {
            NSLevelledLog(0, "Failed to create Patch file");
            return false;
        }
        NSLevelledLog(3, "%@", manifestPath);
        std::string error;
        if (!WriteFileAtomically(target, prepared->text, &error)) {
            NSLevelledLog(0, "Failed to write Patch file %@: %@", target, error);
            return false;
        }
        return true;
    }
    if (!PathExistsNoFollow(ocPatchFilePath) && !createOCPatchFile()) {
        NSLevelledLog(0, "Failed to create Patch file");
        return false;
    }
    XmlDocumentHandle historyDocument = ParseWithoutErrors(ocPatchFilePath);
    if (!historyDocument)
        return false;
    // Only the history of the current installation is ever edited.
    if (XmlDocument::root(historyDocument)
            .select(kCurrentHistoryQuery, {{"tsInstalled", tsInstalled}})
            .size() != 1) {
        NSLevelledLog(0, "Patch file is out of date.");
        return false;
    }
    NSLevelledLog(3, "%@", manifestPath);
    if (!CanAddressFile(manifestPath)) {
        NSLevelledLog(0, "Can't create an URL from file path %@.", manifestPath);
        return false;
    }
    XmlDocumentHandle manifestDocument = ParseWithoutErrors(manifestPath);
    if (!manifestDocument)
        return false;
    const auto text = historyWithEntry(historyDocument, manifestDocument);
    std::string error = "the document could not be serialised";
    if (!text || !WriteFileAtomically(target, *text, &error)) {
        NSLevelledLog(0, "Failed to write Patch file %@: %@", target, error);
        return false;
    }
    return true;
}

bool OrvelCodeFileHandler::removeOutOfDatePatchFile() {
    std::string backupPath;
    for (int n = 1; n > 0; ++n) {
        backupPath = ocPatchFilePath + StringWithFormat("_backup%d", n);
        if (!PathExistsNoFollow(backupPath))
            break;
    }
    NSLog(StringWithFormat("Moving file %@ to %@", ocPatchFilePath, backupPath));
    return ::rename(ocPatchFilePath.c_str(), backupPath.c_str()) == 0;
}

bool OrvelCodeFileHandler::removeAllOCPatchFilesAtGivenPath(const std::string& folder) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::recursive_directory_iterator entry(folder, error);
    if (error)
        return true; // nothing to enumerate, nothing failed
    for (const fs::recursive_directory_iterator end; entry != end; entry.increment(error)) {
        if (error)
            return false;
        std::error_code statusError;
        // Folders are never deleted, whatever their name; links are deleted, not followed.
        if (entry->symlink_status(statusError).type() == fs::file_type::directory)
            continue;
        if (entry->path().extension() != ".patch")
            continue;
        if (::unlink(entry->path().c_str()) != 0)
            return false;
    }
    return !error;
}
