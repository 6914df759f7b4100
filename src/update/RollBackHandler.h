#pragma once

#include "base/FileUtil.h"
#include "update/FileManager.h"
#include "update/FileOperationInfo.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>

// The undo journal of a forward run. Before a file is changed its installed copy is kept in
// the backup folder; after each change an entry describing the inverse change is added to
// "RollBack.xml" in that folder. The journal is a manifest ("Manifest" with "FileSet" and
// "DirectorySet"), so a rollback is one more manifest run over it with the backup folder
// as payload folder.
//
// Each entry is written over the closing tail of its set together with a fresh tail, in one
// positioned write followed by a data sync, so an entry costs the same however long the
// journal already is. The bytes of a written entry are never written again (a file entry
// that follows folder entries, which a forward run never makes, rewrites the whole file
// under a new name instead). A positioned write is not atomic, though: a kill between two
// of its pages or a power cut before its sync leaves a torn tail behind the last whole
// entry. No change covered by a torn entry was made (each change waits for its entry's
// sync), so the replay reads the journal through readWholeEntries, which cuts such a tail
// off. Everything the replay needs (the journal and the backup copies) is on disk; nothing
// lives only in this object.
class RollBackHandler {
public:
    static constexpr const char* kJournalName = "RollBack.xml";
    // The Operation written for a forward keyword that has no inverse: it matches no keyword,
    // so the replay does nothing for it.
    static constexpr const char* kNoInverseOperation = "NO_INVERSE_OPERATION";

    // Nothing is written until the first entry; the first entry replaces any older journal.
    // Every backup and every journal write goes through fileSystem.
    RollBackHandler(std::string backupDir, FileSystem& fileSystem);
    RollBackHandler(const RollBackHandler&) = delete;
    RollBackHandler& operator=(const RollBackHandler&) = delete;

    // Keeps the installed destination in the backup folder under ObjectName before it is
    // changed: a second name for the file (a hard link) where the backup folder is on the
    // same file system, else a copy with the file's owner, group and mode. 0 when kept
    // or when there is nothing to keep (no destination, a folder); 1 after "File copy
    // operation failed." when it cannot be kept or a backup of that name exists already.
    // Symbolic links are kept as links. The backup (its name, a copy's bytes) is synced to
    // disk, unless syncs are deferred.
    [[nodiscard]] int32_t backupFileOperation(const FileOperationInfo& info);
    // The same with the destination's lstat taken by the caller just before (nullptr: it does
    // not exist). linked, when given, receives the state of the file right after it was kept
    // by a second name (both names are that one file), and is left empty otherwise.
    [[nodiscard]] int32_t backupFileOperation(const FileOperationInfo& info,
                                              const struct stat* installed,
                                              std::optional<struct stat>* linked = nullptr);

    // Journals the inverse of a file change that is about to be made, from the backup
    // ObjectName names (or its absence): the file's content, owner, group and mode before the
    // change. The entry is on disk when this returns (with deferred syncs: after the caller's
    // sync), so the change may follow. True when an entry was written or none was due; false
    // when the journal could not be written (logged).
    // backupState: the backup's lstat when the caller has it (from backupFileOperation).
    [[nodiscard]] bool addUndoFileCommand(const FileOperationInfo& info,
                                          const struct stat* backupState = nullptr);
    // Journals the inverse of a directory operation that is about to run. As above.
    [[nodiscard]] bool addUndoDirectoryCommand(const DirectoryOperationInfo& info);

    // With deferred syncs, entries and backups are written without syncs of their own: the
    // caller syncs their file system (FileManager::syncChangedFileSystems) before it makes
    // any of the changes they cover, so that one sync serves a whole group of entries.
    void setDeferredSync(bool deferred) { _deferSync = deferred; }

    const std::string& rollBackFilePath() const { return rollBackFile; }
    const std::string& backupDir() const { return _backupDir; }

    // The XML text of one journal entry at its place in the document (indented, one line per
    // element, ending in a newline). Only Operation, ObjectName, DestinationPath,
    // BeforePatch, AfterPatch, RenamePath, UserID, GroupID and Permission are written; with
    // restoresAttributes the last three go under "mac" as well, where the replay reads the
    // attributes it sets.
    static std::string fileEntryText(const FileOperationInfo& entry,
                                     bool restoresAttributes = false);
    static std::string directoryEntryText(const DirectoryOperationInfo& entry);

    // What a journal file holds: every whole entry, in order, as a complete document (the
    // text itself when this class wrote it to the end); torn when the text ends in a part
    // that was not written whole, with the number of bytes cut off behind the last whole
    // entry. No document when the text does not even begin as a journal.
    struct WholeEntries {
        std::optional<std::string> document;
        size_t fileEntries = 0;
        size_t directoryEntries = 0;
        bool torn = false;
        size_t cutBytes = 0;
    };
    static WholeEntries readWholeEntries(std::string_view text);

private:
    [[nodiscard]] bool keep(const std::string& destination, const struct stat& entry,
                            const std::string& backup, std::optional<struct stat>* linkedState);
    [[nodiscard]] bool appendFileEntry(const std::string& text);
    [[nodiscard]] bool appendDirectoryEntry(const std::string& text);
    // Writes text at offset over the old tail and syncs it; on failure puts the old tail
    // back (oldEnd is the file size before) so the document stays whole.
    [[nodiscard]] bool writeAt(uint64_t offset, const std::string& text, uint64_t oldEnd,
                               const std::string& oldTail);
    // Writes the whole document under a temporary name, syncs it and renames it over the
    // journal, so the journal is either the old or the new document.
    [[nodiscard]] bool replaceDocument(const std::string& text);
    std::string fileSectionTail() const;
    std::string directorySection() const;
    void reportWriteFailure(const std::string& reason) const;

    std::string rollBackFile;
    std::string _backupDir;
    FileSystem& _fs;
    FileManager _files;
    UniqueFd _journalFd;
    bool _started = false;
    bool _deferSync = false;
    // Layout of the file: header, file section, directory section, closing root tag.
    uint64_t _fileSectionStart = 0; // where "<FileSet" begins
    uint64_t _fileEntriesEnd = 0;   // end of the last File entry
    uint64_t _fileCount = 0;
    uint64_t _directoryCount = 0;
    // The directory entries as written; kept so that a file entry that comes after them can
    // rewrite the (short) directory section behind itself.
    std::string _directoryEntries;
};
