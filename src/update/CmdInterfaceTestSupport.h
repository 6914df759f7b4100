#pragma once

// Helpers shared by the file-operation and journal tests: a snapshot of a tree, checksums
// of texts, and the replay of a journal the way the manifest processor runs it.

#include "base/Path.h"
#include "base/Xml.h"
#include "runtime/PlatformPaths.h"
#include "update/CmdInterface.h"
#include "update/FileOperationInfo.h"
#include "update/MD5cksum.h"

#include "TestSupport.h"
#include "base/Md5.h"

#include <cstdint>
#include <dirent.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fileops_test {

// Every entry below root (not following links): "D" for a folder, "F:<contents>" for a
// file, "L:<target>" for a link. Modes and owners are not part of it.
inline void SnapshotInto(const std::string& root, const std::string& relative,
                         std::map<std::string, std::string>& out) {
    const std::string path = relative.empty() ? root : root + "/" + relative;
    DIR* dir = ::opendir(path.c_str());
    if (!dir)
        return;
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    ::closedir(dir);
    for (const auto& name : names) {
        const std::string rel = relative.empty() ? name : relative + "/" + name;
        const std::string full = root + "/" + rel;
        struct stat info {};
        if (::lstat(full.c_str(), &info) != 0)
            continue;
        if (S_ISLNK(info.st_mode)) {
            char buffer[4096];
            const ssize_t n = ::readlink(full.c_str(), buffer, sizeof buffer);
            out[rel] = "L:" + std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
        } else if (S_ISDIR(info.st_mode)) {
            out[rel] = "D";
            SnapshotInto(root, rel, out);
        } else {
            out[rel] = "F:" + ReadTextFile(full);
        }
    }
}

inline std::map<std::string, std::string> Snapshot(const std::string& root) {
    std::map<std::string, std::string> out;
    SnapshotInto(root, "", out);
    return out;
}

// The MD5 hex text of a text, through the checksum class itself.
inline mode_t ModeOf(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

// A manifest field as the processor reads it: present only when the expression yields
// exactly one element; otherwise the absent marker.
inline std::string ReadField(const XmlNode& entry, const std::string& expression) {
    const auto nodes = entry.select(expression);
    return IsSingleElement(nodes) ? nodes.front().stringValue() : std::string(kAbsentMarker);
}

// "dir" joined with the localized name or "defName", as the processor builds a path.
inline std::string ReadPath(const XmlNode& entry, const std::string& expression) {
    const auto nodes = entry.select(expression);
    if (!IsSingleElement(nodes))
        return kAbsentMarker;
    const auto dir = nodes.front().attribute("dir").value_or("");
    const auto name = nodes.front().attribute("defName").value_or("");
    return JoinPath(dir, name);
}

inline FileOperationInfo ReadFileEntry(const XmlNode& entry) {
    FileOperationInfo info;
    info.Operation = ReadField(entry, "./Operation");
    info.ObjectName = ReadField(entry, "./ObjectName");
    info.Touch = ReadField(entry, "./Touch");
    info.DestinationPath = ReadPath(entry, "./DestinationPath");
    info.BeforePatch = ReadField(entry, "./Checksum/BeforePatch");
    info.AfterPatch = ReadField(entry, "./Checksum/AfterPatch");
    info.RenamePath = ReadPath(entry, "./RenamePath");
    info.UserID = ReadField(entry, "./Permissions/mac/UserID");
    info.GroupID = ReadField(entry, "./Permissions/mac/GroupID");
    info.Permission = ReadField(entry, "./Permissions/mac/Permission");
    return info;
}

struct ParsedJournal {
    bool parsed = false;
    std::vector<FileOperationInfo> files;
    std::vector<DirectoryOperationInfo> directories;
};

inline ParsedJournal ParseJournal(const std::string& path,
                                  XmlParseMode mode = XmlParseMode::StrictThenRecover) {
    ParsedJournal journal;
    const auto result = XmlDocument::parseFile(path, mode);
    if (!result.document)
        return journal;
    journal.parsed = true;
    const XmlNode root = XmlDocument::root(result.document);
    for (const auto& entry : root.select("/Manifest/FileSet/File"))
        journal.files.push_back(ReadFileEntry(entry));
    for (const auto& entry : root.select("/Manifest/DirectorySet/Directory")) {
        DirectoryOperationInfo info;
        info.Operation = ReadField(entry, "./Operation");
        info.DirectoryBase = ReadField(entry, "./DirectoryBase");
        journal.directories.push_back(info);
    }
    return journal;
}

// Replays a journal as the manifest processor's rollback does: the backup folder is the
// payload folder, nothing is journaled, last entry first (folders, then files), stopping at
// the first failure. 0 when every entry succeeded, 1 otherwise, -1 when the journal cannot
// be read.
inline int32_t ReplayJournal(
    const std::string& journalPath, const std::string& backupDir, const std::string& resourceDir,
    const std::vector<std::string>& protectedFolders = PlatformPaths::defaults().protectedFolders) {
    const ParsedJournal journal = ParseJournal(journalPath);
    if (!journal.parsed)
        return -1;
    CmdInterface::Options options;
    options.isRepairMode = false;
    options.protectedFolders = protectedFolders;
    CmdInterface replay(backupDir, resourceDir, std::nullopt, options);
    for (auto info = journal.directories.rbegin(); info != journal.directories.rend(); ++info) {
        if (replay.performDirectoryUpdationWithInfo(*info) != 0)
            return 1;
    }
    for (auto info = journal.files.rbegin(); info != journal.files.rend(); ++info) {
        if (replay.performFileUpdationWithInfo(*info) != 0)
            return 1;
    }
    return 0;
}

} // namespace fileops_test
