#include "update/RollBackHandler.h"

#include "base/Path.h"
#include "base/Xml.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/MD5cksum.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Manifest>\n";
constexpr const char* kFileSetOpen = "  <FileSet>\n";
constexpr const char* kFileSetClose = "  </FileSet>\n";
constexpr const char* kFileSetEmpty = "  <FileSet/>\n";
constexpr const char* kDirectorySetOpen = "  <DirectorySet>\n";
constexpr const char* kDirectorySetClose = "  </DirectorySet>\n";
constexpr const char* kDirectorySetEmpty = "  <DirectorySet/>\n";
constexpr const char* kRootClose = "</Manifest>\n";

void AddTextElement(std::string& out, int indent, const char* name, const std::string& text) {
    out.append(static_cast<size_t>(indent), ' ');
    if (text.empty()) {
        out += "<" + std::string(name) + "/>\n";
        return;
    }
    out +=
        "<" + std::string(name) + ">" + XmlEscape(text, XmlEscapeFor::Text) + "</" + name + ">\n";
}

void AddPathElement(std::string& out, int indent, const char* name, const std::string& dir) {
    out.append(static_cast<size_t>(indent), ' ');
    out += "<" + std::string(name) + " defName=\"\" dir=\"" +
           XmlEscape(dir, XmlEscapeFor::Attribute) + "\"/>\n";
}

bool IsOverwriteFamily(const std::string& operation) {
    return EqualsIgnoringCase(operation, "OVERWRITE") ||
           EqualsIgnoringCase(operation, "BLINDOVERWRITE") ||
           EqualsIgnoringCase(operation, "PATCH") || EqualsIgnoringCase(operation, "TOUCH");
}

// Overwrites that add the file when the destination is missing.
bool IsAddingOverwrite(const std::string& operation) {
    return EqualsIgnoringCase(operation, "OVERWRITE") ||
           EqualsIgnoringCase(operation, "BLINDOVERWRITE");
}

} // namespace

RollBackHandler::RollBackHandler(std::string backupDir, FileSystem& fileSystem)
    : rollBackFile(JoinPath(backupDir, kJournalName)), _backupDir(std::move(backupDir)),
      _fs(fileSystem), _files(fileSystem) {}

// ---------------------------------------------------------------------------------------
// Backup copies

int32_t RollBackHandler::backupFileOperation(const FileOperationInfo& info) {
    struct stat installed {};
    return backupFileOperation(
        info, ::lstat(info.DestinationPath.c_str(), &installed) == 0 ? &installed : nullptr);
}

int32_t RollBackHandler::backupFileOperation(const FileOperationInfo& info,
                                             const struct stat* installed,
                                             std::optional<struct stat>* linked) {
    const std::string& destination = info.DestinationPath;
    if (linked)
        linked->reset();
    if (!installed)
        return 0; // nothing installed, nothing to keep
    const struct stat& entry = *installed;
    // A link is kept as a link, whatever it points to, so that the replay can put it back
    // as it was; a real folder is not a file entry's business.
    if (!S_ISLNK(entry.st_mode) && S_ISDIR(entry.st_mode))
        return 0;
    const std::string backup = JoinPath(_backupDir, info.ObjectName);
    NSLevelledLog(3, "Creating backup: Copying \"%@\" to \"%@\" ", destination, backup);
    const std::string folder = ParentPath(backup);
    if (!folder.empty() && folder != _backupDir)
        (void)_files.createDirectoryAtPath(folder); // a failure shows in the copy
    if (!keep(destination, entry, backup, linked)) {
        const int error = errno;
        NSLevelledLog(3, "File copy operation failed.");
        if (error == EEXIST) {
            NSLevelledLog(0, "Cannot keep \"%@\": the backup \"%@\" exists already", destination,
                          backup);
            return 1;
        }
        NSLevelledLog(0, "Cannot keep \"%@\" as \"%@\": %@", destination, backup,
                      std::string(std::strerror(error)));
        return 1;
    }
    return 0;
}

bool RollBackHandler::keep(const std::string& destination, const struct stat& entry,
                           const std::string& backup, std::optional<struct stat>* linkedState) {
    // New content never goes into an installed file in place (it replaces the file by a
    // rename), so a second name for the installed file keeps its content as it is now,
    // without copying it, where both are on one file system. Its checksum is the file's.
    bool kept = false;
    // The new name changes the file's change time, not its content: a checksum known from
    // before the link holds for both names afterwards, so that neither is read again for it.
    // One being read ahead is waited for first: a read across the link is dropped for that
    // change, and its entry would read the file again.
    const std::optional<std::string> known =
        S_ISREG(entry.st_mode) ? MD5cksum::awaitedChecksumOfFile(destination, entry) : std::nullopt;
    // Never over a backup of that name (a second name fails then with EEXIST, as a copy does).
    const bool linked = S_ISREG(entry.st_mode) && _fs.link(destination, backup);
    if (!linked && S_ISREG(entry.st_mode) && errno == EEXIST)
        return false;
    if (linked) {
        kept = true;
        struct stat both {};
        if (::lstat(backup.c_str(), &both) == 0) {
            if (linkedState)
                *linkedState = both;
            if (known) {
                MD5cksum::rememberChecksumOfFile(backup, both, *known);
                MD5cksum::rememberChecksumOfFile(destination, both, *known);
            }
        }
    } else {
        // A copy, synced, with its checksum taken on the way. It gets the installed file's
        // owner and group too, so that the journal entry records them from it.
        kept = _files.copyItem(destination, backup, !_deferSync, true);
        if (kept && !S_ISLNK(entry.st_mode))
            (void)_fs.setOwner(backup, entry.st_uid, entry.st_gid);
    }
    // The backup's name is on disk before the journal names it.
    return kept && (_deferSync || _fs.syncFolder(ParentPath(backup)));
}

// ---------------------------------------------------------------------------------------
// Entries

bool RollBackHandler::addUndoFileCommand(const FileOperationInfo& info,
                                         const struct stat* backupState) {
    const std::string backup = JoinPath(_backupDir, info.ObjectName);
    // The backup is what the backup folder holds under that name: a file, or a link kept as
    // a link (never followed).
    struct stat backupInfo {};
    if (backupState)
        backupInfo = *backupState;
    const bool backupFound = backupState || ::lstat(backup.c_str(), &backupInfo) == 0;
    const bool backupIsLink = backupFound && S_ISLNK(backupInfo.st_mode);
    std::string linkTarget;
    if (backupIsLink)
        linkTarget = _fs.readLink(backup).value_or("");
    const bool backupExists = backupFound && !backupIsLink;
    const bool backupPresent = backupFound;
    const std::optional<std::string> backupChecksum =
        backupExists ? MD5cksum::getMD5cksumOfFile(backup, _fs, backupInfo) : std::nullopt;

    const std::string& operation = info.Operation;
    std::optional<std::string> inverse;
    bool swapped = true;
    if (EqualsIgnoringCase(operation, "ADD")) {
        if (backupPresent)
            return true; // the file was there before: nothing to undo
        inverse = "REMOVE";
    } else if (EqualsIgnoringCase(operation, "REMOVE")) {
        if (backupPresent)
            inverse = "ADD";
    } else if (IsOverwriteFamily(operation)) {
        if (backupPresent)
            inverse = "OVERWRITE";
        else if (IsAddingOverwrite(operation))
            inverse = "REMOVE"; // the destination was missing: the new file is added

    } else if (EqualsIgnoringCase(operation, "RENAME")) {
        if (backupPresent)
            inverse = "RENAME";
        swapped = false;
    } else if (EqualsIgnoringCase(operation, "CHANGEPERM")) {
        if (backupPresent)
            inverse = "CHANGEPERM";
        swapped = false;
    } else if (EqualsIgnoringCase(operation, "CREATELINK")) {
        inverse = backupPresent ? "OVERWRITE" : "REMOVE";
    } else if (EqualsIgnoringCase(operation, "IGNORE")) {
        inverse = "IGNORE";
    } else {
        inverse = kNoInverseOperation;
    }
    if (!inverse) {
        NSLevelledLog(3, "No rollback written as file does not exist.");
        return true;
    }

    FileOperationInfo entry;
    entry.Operation = *inverse;
    entry.ObjectName = info.ObjectName;
    if (backupIsLink) {
        // The replay recreates the link that was there.
        entry.Operation = "CREATELINK";
        entry.DestinationPath = info.DestinationPath;
        entry.RenamePath = linkTarget;
    } else if (IsAbsentField(info.RenamePath) || EqualsIgnoringCase(operation, "CREATELINK")) {
        entry.DestinationPath = info.DestinationPath;
        entry.RenamePath = info.RenamePath;
    } else {
        // A rename is undone by moving the file back.
        entry.DestinationPath = info.RenamePath;
        entry.RenamePath = info.DestinationPath;
    }
    if (swapped) {
        entry.BeforePatch = info.AfterPatch;
        entry.AfterPatch = backupChecksum ? *backupChecksum : info.BeforePatch;
    } else {
        entry.BeforePatch = info.BeforePatch;
        entry.AfterPatch = info.AfterPatch;
    }
    if (backupExists) {
        entry.UserID = std::to_string(backupInfo.st_uid);
        entry.GroupID = std::to_string(backupInfo.st_gid);
        entry.Permission =
            StringWithFormat("%o", static_cast<unsigned>(backupInfo.st_mode & 07777));
    } else {
        entry.UserID = info.UserID;
        entry.GroupID = info.GroupID;
        entry.Permission = info.Permission;
    }
    return appendFileEntry(fileEntryText(entry, backupExists));
}

bool RollBackHandler::addUndoDirectoryCommand(const DirectoryOperationInfo& info) {
    DirectoryOperationInfo entry;
    entry.DirectoryBase = info.DirectoryBase;
    if (EqualsIgnoringCase(info.Operation, "ADD")) {
        entry.Operation = "REMOVE";
    } else if (EqualsIgnoringCase(info.Operation, "REMOVE")) {
        struct stat folder {};
        if (::stat(info.DirectoryBase.c_str(), &folder) != 0)
            return true; // nothing will be removed, nothing to put back
        entry.Operation = "ADD";
    } else {
        entry.Operation = kNoInverseOperation;
    }
    return appendDirectoryEntry(directoryEntryText(entry));
}

std::string RollBackHandler::fileEntryText(const FileOperationInfo& entry,
                                           bool restoresAttributes) {
    std::string out = "    <File>\n";
    AddTextElement(out, 6, "Operation", entry.Operation);
    AddTextElement(out, 6, "ObjectName", entry.ObjectName);
    AddPathElement(out, 6, "DestinationPath", entry.DestinationPath);
    out += "      <Checksum>\n";
    AddTextElement(out, 8, "BeforePatch", entry.BeforePatch);
    AddTextElement(out, 8, "AfterPatch", entry.AfterPatch);
    out += "      </Checksum>\n";
    AddPathElement(out, 6, "RenamePath", entry.RenamePath);
    out += "      <Permissions>\n";
    AddTextElement(out, 8, "UserID", entry.UserID);
    AddTextElement(out, 8, "GroupID", entry.GroupID);
    AddTextElement(out, 8, "Permission", entry.Permission);
    if (restoresAttributes) {
        // Where a manifest keeps the attributes to set: the replay puts back the owner,
        // group and mode the file had.
        out += "        <mac>\n";
        AddTextElement(out, 10, "UserID", entry.UserID);
        AddTextElement(out, 10, "GroupID", entry.GroupID);
        AddTextElement(out, 10, "Permission", entry.Permission);
        out += "        </mac>\n";
    }
    out += "      </Permissions>\n";
    out += "    </File>\n";
    return out;
}

std::string RollBackHandler::directoryEntryText(const DirectoryOperationInfo& entry) {
    std::string out = "    <Directory>\n";
    AddTextElement(out, 6, "Operation", entry.Operation);
    AddTextElement(out, 6, "DirectoryBase", entry.DirectoryBase);
    out += "    </Directory>\n";
    return out;
}

// ---------------------------------------------------------------------------------------
// The file

std::string RollBackHandler::fileSectionTail() const {
    return _fileCount > 0 ? kFileSetClose : kFileSetEmpty;
}

std::string RollBackHandler::directorySection() const {
    if (_directoryCount == 0)
        return std::string(kDirectorySetEmpty) + kRootClose;
    return kDirectorySetOpen + _directoryEntries + kDirectorySetClose + kRootClose;
}

bool RollBackHandler::appendFileEntry(const std::string& text) {
    if (!_started) {
        const std::string document =
            std::string(kHeader) + kFileSetOpen + text + kFileSetClose + directorySection();
        if (!replaceDocument(document))
            return false;
        _fileSectionStart = std::strlen(kHeader);
        _fileEntriesEnd = _fileSectionStart + std::strlen(kFileSetOpen) + text.size();
        _fileCount = 1;
        return true;
    }
    if (_directoryCount > 0) {
        // Written in place, the entry would go over the folder entries, and a torn write
        // would lose them: the document is made anew instead, from the file entries on disk.
        const auto current = ReadFileText(rollBackFile, SIZE_MAX);
        if (!current || current->size() < _fileEntriesEnd) {
            reportWriteFailure(current ? "the journal is shorter than written" : "cannot read it");
            return false;
        }
        const std::string entries = _fileCount > 0 ? current->substr(0, _fileEntriesEnd)
                                                   : std::string(kHeader) + kFileSetOpen;
        if (!replaceDocument(entries + text + kFileSetClose + directorySection()))
            return false;
        _fileEntriesEnd = entries.size() + text.size();
        ++_fileCount;
        return true;
    }
    // The new entry goes where the file section's tail begins, and a new tail behind it.
    const uint64_t offset = _fileCount > 0 ? _fileEntriesEnd : _fileSectionStart;
    const std::string oldTail = fileSectionTail() + directorySection();
    const uint64_t oldEnd = offset + oldTail.size();
    const std::string opening = _fileCount > 0 ? "" : kFileSetOpen;
    const std::string newText = opening + text + kFileSetClose + directorySection();
    if (!writeAt(offset, newText, oldEnd, oldTail))
        return false;
    _fileEntriesEnd = offset + opening.size() + text.size();
    ++_fileCount;
    return true;
}

bool RollBackHandler::appendDirectoryEntry(const std::string& text) {
    if (!_started) {
        const std::string document = std::string(kHeader) + kFileSetEmpty + kDirectorySetOpen +
                                     text + kDirectorySetClose + kRootClose;
        if (!replaceDocument(document))
            return false;
        _fileSectionStart = std::strlen(kHeader);
        _fileEntriesEnd = _fileSectionStart;
        _directoryEntries = text;
        _directoryCount = 1;
        return true;
    }
    const uint64_t sectionStart =
        (_fileCount > 0 ? _fileEntriesEnd : _fileSectionStart) + fileSectionTail().size();
    uint64_t offset = 0;
    std::string newText;
    if (_directoryCount == 0) {
        offset = sectionStart;
        newText = kDirectorySetOpen + text + kDirectorySetClose + kRootClose;
    } else {
        offset = sectionStart + std::strlen(kDirectorySetOpen) + _directoryEntries.size();
        newText = text + kDirectorySetClose + kRootClose;
    }
    const std::string oldTail = _directoryCount == 0 ? std::string(kDirectorySetEmpty) + kRootClose
                                                     : std::string(kDirectorySetClose) + kRootClose;
    if (!writeAt(offset, newText, offset + oldTail.size(), oldTail))
        return false;
    _directoryEntries += text;
    ++_directoryCount;
    return true;
}

bool RollBackHandler::replaceDocument(const std::string& text) {
    const std::string temporary = rollBackFile + ".new";
    (void)_fs.removeFile(temporary); // left by a run that was killed here
    UniqueFd file = _fs.createFile(temporary, 0600);
    bool written = file.valid() && _fs.write(file.get(), text.data(), text.size()) &&
                   _fs.syncFile(file.get(), false) && _fs.close(file);
    written = written && _fs.rename(temporary, rollBackFile) && _fs.syncFolder(_backupDir);
    if (written)
        _journalFd = _fs.openForWriting(rollBackFile);
    if (!written || !_journalFd.valid()) {
        const int error = errno;
        file.reset();
        (void)_fs.removeFile(temporary);
        reportWriteFailure(std::strerror(error));
        return false;
    }
    _started = true;
    return true;
}

bool RollBackHandler::writeAt(uint64_t offset, const std::string& text, uint64_t oldEnd,
                              const std::string& oldTail) {
    // One positioned write replaces the old tail with the new entry and a new tail, so a
    // process killed at any moment leaves either the old or the new document; the sync
    // makes the entry durable before the next change is made.
    const int fd = _journalFd.get();
    if (_fs.writeAt(fd, text.data(), text.size(), offset) &&
        (_deferSync || _fs.syncFile(fd, false)))
        return true;
    const int error = errno;

    // Put the old tail back and cut off what part of the new text got written, so the
    // journal stays the document it was.
    (void)_fs.writeAt(fd, oldTail.data(), oldTail.size(), offset);
    (void)_fs.truncate(fd, oldEnd);
    (void)_fs.syncFile(fd, false);
    reportWriteFailure(std::strerror(error));
    return false;
}

// ---------------------------------------------------------------------------------------
// Reading back

namespace {

bool StartsWith(std::string_view text, size_t at, std::string_view prefix) {
    return text.size() >= at && text.substr(at).starts_with(prefix);
}

// The whole entry of element name (written by this class at its indent) that begins at at,
// or nothing when what begins there is not one: cut short, or torn by a write that reached
// the disk in part. An entry counts only when it parses on its own and names its Operation.
std::optional<std::string_view> WholeEntryAt(std::string_view text, size_t at,
                                             std::string_view name) {
    const std::string open = "    <" + std::string(name) + ">\n";
    const std::string close = "\n    </" + std::string(name) + ">\n";
    if (!StartsWith(text, at, open))
        return std::nullopt;
    const size_t end = text.find(close, at);
    if (end == std::string_view::npos)
        return std::nullopt;
    const std::string_view entry = text.substr(at, end + close.size() - at);
    // libxml2 takes a NUL byte for the end of its input, without an error, so the parse below
    // would not see what follows one: zeros a power cut left behind an entry's end, with the
    // next entry's closing line after them, would pass as one entry.
    if (entry.find('\0') != std::string_view::npos)
        return std::nullopt;
    const auto parsed = XmlDocument::parseMemory(std::string(entry), XmlParseMode::Strict);
    if (!parsed.document || !parsed.errors.empty())
        return std::nullopt;
    const XmlNode root = XmlDocument::root(parsed.document);
    if (!root || root.name() != name || root.select("./Operation").size() != 1)
        return std::nullopt;
    return entry;
}

// The entries of one set, from at on; at is left behind the last whole one.
std::string WholeEntriesFrom(std::string_view text, size_t& at, std::string_view name,
                             size_t& count) {
    std::string entries;
    while (const auto entry = WholeEntryAt(text, at, name)) {
        entries += *entry;
        at += entry->size();
        ++count;
    }
    return entries;
}

// Moves at past prefix when the text has it there.
bool Take(std::string_view text, size_t& at, std::string_view prefix) {
    if (!StartsWith(text, at, prefix))
        return false;
    at += prefix.size();
    return true;
}

// How this class writes a set: empty, or opened, its entries of element name, closed.
struct SetText {
    std::string_view empty;
    std::string_view open;
    std::string_view close;
    std::string_view name;
};

// One set from at on: true when it is there whole, at then behind it; its whole entries go
// to entries (count of them) either way, at behind the last one.
bool TakeSet(std::string_view text, size_t& at, const SetText& set, std::string& entries,
             size_t& count) {
    if (Take(text, at, set.empty))
        return true;
    if (!Take(text, at, set.open))
        return false;
    entries = WholeEntriesFrom(text, at, set.name, count);
    return Take(text, at, set.close);
}

} // namespace

RollBackHandler::WholeEntries RollBackHandler::readWholeEntries(std::string_view text) {
    WholeEntries result;
    if (!StartsWith(text, 0, kHeader))
        return result;
    size_t at = std::strlen(kHeader);
    std::string files;
    std::string directories;
    // Each step reads one part of the document as this class writes it; the first part that
    // is not there whole ends the reading, and what came before it is the journal.
    const bool whole =
        TakeSet(text, at, {kFileSetEmpty, kFileSetOpen, kFileSetClose, "File"}, files,
                result.fileEntries) &&
        TakeSet(text, at, {kDirectorySetEmpty, kDirectorySetOpen, kDirectorySetClose, "Directory"},
                directories, result.directoryEntries) &&
        StartsWith(text, at, kRootClose) && at + std::strlen(kRootClose) == text.size();
    if (whole) {
        result.document = std::string(text);
        return result;
    }
    // Torn: the document of the whole entries read so far.
    std::string document = kHeader;
    document += files.empty() ? std::string(kFileSetEmpty) : kFileSetOpen + files + kFileSetClose;
    document += directories.empty() ? std::string(kDirectorySetEmpty)
                                    : kDirectorySetOpen + directories + kDirectorySetClose;
    document += kRootClose;
    result.torn = true;
    result.cutBytes = text.size() - at;
    result.document = std::move(document);
    return result;
}

void RollBackHandler::reportWriteFailure(const std::string& reason) const {
    // The change stands; only its undo is lost. There is no one to beep at on this
    // platform's headless runs, so the log carries the warning.
    NSLevelledLog(0, "Failed to write the rollback journal \"%@\": %@", rollBackFile, reason);
}
