#pragma once

#include "base/FileUtil.h"
#include "update/PayloadFiles.h"

#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

class FileSystem;
struct FileOperationInfo;

// The file-manager primitives the file operations and the journal are built from: copy,
// move, remove, folders, attributes and times. Every change goes through the file-system
// seam it is given, so tests can count the calls and fail any one of them.
class FileManager {
public:
    // Over the machine's file system.
    FileManager();
    explicit FileManager(FileSystem& fileSystem) : _fs(&fileSystem) {}

    FileSystem& fileSystem() const { return *_fs; }

    // Copies a regular file (mode and modification time kept) or a symbolic link (as a
    // link). Fails when something is at the destination; a partly written copy is removed.
    // With sync the copy is on disk before returning. With rememberChecksum the bytes are
    // checksummed as they pass, and MD5cksum answers for both files without reading them
    // again (see MD5cksum::rememberChecksumOfFile). The copy of a payload file held in
    // memory may come written ahead (HeldFileWriter): then it is only given its name.
    // copyState, when given, receives the copy's state as the copy left it, or is left as it is
    // when that was not looked at (a link copied, no checksum remembered).
    [[nodiscard]] bool copyItem(const std::string& source, const std::string& destination,
                                bool sync, bool rememberChecksum = false,
                                UniqueFd writtenAhead = UniqueFd(),
                                struct stat* copyState = nullptr) const;
    // Where new content for destination is written before it takes destination's place: a
    // hidden name beside it, so that a rename puts it there whole. A run killed meanwhile
    // leaves it behind; replaying the journal removes it.
    static std::string TemporaryPathFor(const std::string& destination);
    // Puts temporary in destination's place in one rename (whatever was there goes). The
    // rename reaches the disk with the rest of the changes (syncChangedFileSystems): until
    // then a crash may forget it, which leaves the old content that the journal puts back
    // anyway.
    [[nodiscard]] bool replaceWith(const std::string& temporary,
                                   const std::string& destination) const;
    // Notes that changes are about to be made at path (a file or folder, existing or not).
    void noteChangeAt(const std::string& path) const;
    // Syncs each file system that holds a noted change, once (syncfs): every change made
    // there, names, contents and attributes, is then on disk. False (errno set) at the
    // first that cannot be synced.
    [[nodiscard]] bool syncChangedFileSystems() const;
    // Removes what an interrupted change may have left at destination's temporary path
    // (never a folder). True when something was removed.
    bool removeTemporaryOf(const std::string& destination) const;
    // Removes a file, a link (not what it points to) or a folder with all it holds.
    [[nodiscard]] bool removeItem(const std::string& path) const;
    // A folder with this many files or more has them removed by two threads.
    static constexpr size_t kEntriesForTwoThreads = 256;
    // Renames, or copies and removes across file systems. Fails when the target exists.
    [[nodiscard]] bool moveItem(const std::string& source, const std::string& target) const;
    // Folders a createDirectoryAtPath made, outermost first.
    using MadeFolders = std::vector<std::string>;
    // Creates every missing folder of the path (mode 0755), adding each to made when given.
    // All or nothing: false after "Failed to create directory: %@", with the folders this
    // call made removed again.
    [[nodiscard]] bool createDirectoryAtPath(const std::string& path,
                                             MadeFolders* made = nullptr) const;
    // Removes made folders again, innermost first, while they are empty.
    void removeMadeFolders(const MadeFolders& made) const;
    // After something went away from folder: removes the folder and its parents while they
    // are empty (or hold only ".DS_Store" when removeDSStore), inside the enclosing bundle
    // when onlyDirsInBundle, never one of protectedFolders.
    void cleanupEmptyParentDir(const std::string& folder, bool removeDSStore, bool onlyDirsInBundle,
                               const std::vector<std::string>& protectedFolders) const;

    // Sets the owner and the group by account name (each when given; a number is taken as
    // an id when no account has that name), then the mode (when non-zero). True when every
    // change the disk was asked for was made (each failure logged; a name unknown to this
    // machine leaves that attribute as it is and is no failure). A symbolic link keeps its mode
    // (links have none of their own) and gets the owner and group itself. What the file has
    // already is not set again.
    [[nodiscard]] bool setAttribute(const std::string& path, mode_t mode,
                                    const std::optional<std::string>& userName,
                                    const std::optional<std::string>& groupName) const;
    // Applies a manifest record's Permission (octal digits), UserID and GroupID to its
    // existing destination; fields the record leaves out stay as they are. Each change that
    // cannot be made is logged; false when the disk refused one. placed: the destination's
    // lstat when the caller took it right after putting the destination there.
    [[nodiscard]] bool setAttributesOfRecord(const FileOperationInfo& info,
                                             const struct stat* placed = nullptr) const;
    // Sets the modification time of an existing file to now; false for a missing file.
    [[nodiscard]] bool touchFile(const std::string& path) const;

    // The path with every symbolic link of its existing part resolved; the missing rest is
    // appended as it is.
    static std::string ResolveSymlinksInPath(const std::string& path);

private:
    // setAttribute with the path's lstat taken already.
    [[nodiscard]] bool setAttributeOf(const std::string& path, const struct stat& current,
                                      mode_t mode, const std::optional<std::string>& userName,
                                      const std::optional<std::string>& groupName) const;
    [[nodiscard]] bool copyRegularFile(const std::string& source, const std::string& destination,
                                       const struct stat& sourceInfo, bool sync,
                                       bool rememberChecksum, struct stat* copyState) const;
    // Closes and removes a file being made, keeping errno; false.
    bool discardNewFile(UniqueFd& file, const std::string& path) const;
    // A copy of a payload file held in memory: written in one call (or ahead, into
    // writtenAhead), its checksum known.
    [[nodiscard]] bool copyHeldFile(const PayloadFiles::File& held, const std::string& destination,
                                    bool sync, bool rememberChecksum, UniqueFd writtenAhead,
                                    struct stat* copyState) const;

    FileSystem* _fs;
    // One existing folder on each file system with noted changes, and the folders noted
    // since the last sync (whose file systems are among those).
    mutable std::map<dev_t, std::string> _changedFileSystems;
    mutable std::unordered_set<std::string> _notedFolders;
};
