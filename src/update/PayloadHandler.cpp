#include "update/PayloadHandler.h"

#include "base/FileUtil.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace {

// ditto's "-x --rsrc" made safe: nothing outside the current folder (which is the target
// folder while extracting) can be named or reached through a symbolic link. Modes and times
// come from the archive; owners do not, so every file belongs to the patcher, as the copies
// made from them get the manifest's owners later anyway.
constexpr int kExtractFlags = ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                              ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS | ARCHIVE_EXTRACT_PERM |
                              ARCHIVE_EXTRACT_TIME;
constexpr size_t kReadSize = 64 * 1024;

struct ArchiveReadDeleter {
    void operator()(archive* handle) const { archive_read_free(handle); }
};
struct ArchiveWriteDeleter {
    void operator()(archive* handle) const { archive_write_free(handle); }
};
using ArchiveReader = std::unique_ptr<archive, ArchiveReadDeleter>;
using ArchiveWriter = std::unique_ptr<archive, ArchiveWriteDeleter>;

std::string AppendPathComponent(const std::string& folder, const std::string& name) {
    if (folder.empty())
        return name;
    if (folder.back() == '/')
        return folder + name;
    return folder + "/" + name;
}

bool IsReadableFile(const std::string& path) {
    struct stat info {};
    // Checked with the effective ids: they are what the patcher reads with when raised.
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
}

bool ExistsWithoutFollowing(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

// Removes path and everything below it, never following symbolic links. Folders are made
// writable first, so read-only folders that came out of an archive go as well.
bool RemoveTree(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return false;
    if (!S_ISDIR(info.st_mode))
        return ::unlink(path.c_str()) == 0;
    namespace fs = std::filesystem;
    std::error_code error;
    ::chmod(path.c_str(), info.st_mode | S_IRWXU);
    for (auto it = fs::recursive_directory_iterator(
             path, fs::directory_options::skip_permission_denied, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        std::error_code ignored;
        if (it->symlink_status(ignored).type() == fs::file_type::directory)
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    error.clear();
    fs::remove_all(path, error);
    return !error && !ExistsWithoutFollowing(path);
}

// Makes a folder the process's current folder while it lives, then puts the previous one
// back.
class CurrentFolderScope {
public:
    CurrentFolderScope() = default;
    ~CurrentFolderScope() {
        if (_entered && ::fchdir(_previous.get()) != 0)
            NSLevelledLog(0, "Cannot return to the previous current folder.");
    }
    CurrentFolderScope(const CurrentFolderScope&) = delete;
    CurrentFolderScope& operator=(const CurrentFolderScope&) = delete;

    [[nodiscard]] bool enter(const std::string& folder) {
        _previous.reset(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
        UniqueFd target(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!_previous.valid() || !target.valid() || ::fchdir(target.get()) != 0)
            return false;
        _entered = true;
        return true;
    }

private:
    UniqueFd _previous;
    bool _entered = false;
};

// The archive's gzip layer, decompressed with zlib rather than libarchive's gzip filter
// because that filter does not verify the gzip checksum: a damaged payload must be refused,
// not unpacked into damaged files. Concatenated gzip members are read as one stream, like
// gzip does; anything that is not gzip fails at its first bytes.
class GzipSource {
public:
    GzipSource()
        : _input(std::make_unique_for_overwrite<unsigned char[]>(kReadSize)),
          _output(std::make_unique_for_overwrite<unsigned char[]>(kReadSize)) {}
    ~GzipSource() {
        if (_initialized)
            inflateEnd(&_stream);
    }
    GzipSource(const GzipSource&) = delete;
    GzipSource& operator=(const GzipSource&) = delete;

    [[nodiscard]] bool open(const std::string& path) {
        _fd.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
        if (!_fd.valid()) {
            fail("the archive cannot be opened");
            return false;
        }
        _stream = z_stream{};
        // 16 + window bits: gzip wrapper only, with its checksum and length verified.
        _initialized = inflateInit2(&_stream, 16 + MAX_WBITS) == Z_OK;
        if (!_initialized)
            fail("no memory for decompression");
        return _initialized;
    }

    // The next piece of the decompressed archive: its size, 0 at the end of the last gzip
    // member, -1 on damaged, truncated or unreadable data (see reason()).
    ssize_t read(const void** data) {
        if (!_reason.empty())
            return -1;
        _stream.next_out = _output.get();
        _stream.avail_out = kReadSize;
        while (_stream.avail_out == kReadSize) {
            if (_stream.avail_in == 0 && !_inputEnded && !fill())
                return -1;
            if (_memberEnded) {
                if (_stream.avail_in == 0 && _inputEnded)
                    break;
                // More bytes after a member: they must be another gzip member.
                inflateReset(&_stream);
                _memberEnded = false;
            }
            const int rc = inflate(&_stream, Z_NO_FLUSH);
            if (rc == Z_STREAM_END) {
                _memberEnded = true;
            } else if (rc == Z_BUF_ERROR && _stream.avail_in == 0 && _inputEnded) {
                fail("the archive is truncated");
                return -1;
            } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
                fail(std::string("gzip: ") + (_stream.msg ? _stream.msg : "damaged data"));
                return -1;
            }
        }
        *data = _output.get();
        return static_cast<ssize_t>(kReadSize - _stream.avail_out);
    }

    // Reads what the cpio layer left (padding, gzip trailers) so that every checksum is
    // verified; true when the archive ended cleanly.
    [[nodiscard]] bool finish() {
        const void* data = nullptr;
        ssize_t got = 0;
        while ((got = read(&data)) > 0) {
        }
        return got == 0;
    }

    const std::string& reason() const { return _reason; }

private:
    bool fill() {
        for (;;) {
            const ssize_t got = ::read(_fd.get(), _input.get(), kReadSize);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0) {
                fail("the archive cannot be read");
                return false;
            }
            _inputEnded = got == 0;
            _stream.next_in = _input.get();
            _stream.avail_in = static_cast<uInt>(got);
            return true;
        }
    }
    void fail(const std::string& reason) {
        if (_reason.empty())
            _reason = reason;
    }

    UniqueFd _fd;
    z_stream _stream{};
    bool _initialized = false;
    bool _inputEnded = false;
    bool _memberEnded = false;
    std::unique_ptr<unsigned char[]> _input;
    std::unique_ptr<unsigned char[]> _output;
    std::string _reason;
};

ssize_t ReadGzipSource(archive* handle, void* source, const void** data) {
    auto* gzip = static_cast<GzipSource*>(source);
    const ssize_t got = gzip->read(data);
    if (got < 0)
        archive_set_error(handle, EIO, "%s", gzip->reason().c_str());
    return got;
}

std::string ErrorOf(archive* handle) {
    const char* text = archive_error_string(handle);
    return text ? text : "unknown error";
}

// Extracts every entry of the archive into targetFolder; false with a reason at the first
// entry that cannot be extracted safely and whole.
bool ExtractArchive(const std::string& archivePath, const std::string& targetFolder,
                    std::string& reason) {
    CurrentFolderScope scope;
    if (!scope.enter(targetFolder)) {
        reason = "the target folder cannot be entered";
        return false;
    }
    ArchiveReader in(archive_read_new());
    ArchiveWriter out(archive_write_disk_new());
    if (!in || !out) {
        reason = "out of memory";
        return false;
    }
    archive_read_support_format_cpio(in.get());
    archive_write_disk_set_options(out.get(), kExtractFlags);

    GzipSource gzip;
    if (!gzip.open(archivePath)) {
        reason = gzip.reason();
        return false;
    }
    if (archive_read_open(in.get(), &gzip, nullptr, ReadGzipSource, nullptr) != ARCHIVE_OK) {
        reason = gzip.reason().empty() ? ErrorOf(in.get()) : gzip.reason();
        return false;
    }

    for (;;) {
        archive_entry* entry = nullptr;
        int rc = archive_read_next_header(in.get(), &entry);
        if (rc == ARCHIVE_EOF)
            break;
        if (rc < ARCHIVE_WARN) {
            reason = gzip.reason().empty() ? ErrorOf(in.get()) : gzip.reason();
            return false;
        }
        const char* name = archive_entry_pathname(entry);
        const std::string entryName = name ? name : "";
        // The payload carries files, folders and links; device nodes, pipes and sockets have
        // no place in it.
        const auto type = archive_entry_filetype(entry);
        if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK &&
            !archive_entry_hardlink(entry)) {
            reason = "\"" + entryName + "\" is not a file, folder or symbolic link";
            return false;
        }
        rc = archive_write_header(out.get(), entry);
        if (rc < ARCHIVE_WARN) {
            reason = "\"" + entryName + "\": " + ErrorOf(out.get());
            return false;
        }
        for (;;) {
            const void* data = nullptr;
            size_t size = 0;
            la_int64_t offset = 0;
            rc = archive_read_data_block(in.get(), &data, &size, &offset);
            if (rc == ARCHIVE_EOF)
                break;
            if (rc < ARCHIVE_WARN) {
                reason = "\"" + entryName + "\": " + ErrorOf(in.get());
                return false;
            }
            if (archive_write_data_block(out.get(), data, size, offset) < ARCHIVE_WARN) {
                reason = "\"" + entryName + "\": " + ErrorOf(out.get());
                return false;
            }
        }
        if (archive_write_finish_entry(out.get()) < ARCHIVE_WARN) {
            reason = "\"" + entryName + "\": " + ErrorOf(out.get());
            return false;
        }
    }
    if (!gzip.finish()) {
        reason = gzip.reason();
        return false;
    }
    // Folder modes and times are set last, when nothing more goes into them.
    if (archive_write_close(out.get()) < ARCHIVE_WARN) {
        reason = ErrorOf(out.get());
        return false;
    }
    return true;
}

} // namespace

int32_t PayloadHandler::extractFile(const std::string& archiveFolder,
                                    const std::string& targetFolder) {
    NSFormatLogWithHeading(3, "SETUP for Update");
    const std::string archivePath = AppendPathComponent(archiveFolder, kPayloadArchiveName);
    NSLevelledLog(3, "Extracting updater files ...");
    if (!IsReadableFile(archivePath)) {
        NSLevelledLog(3, "No files in the Payload.");
    } else {
        // A symbolic link in the target's place is removed itself, never what it points to.
        if (ExistsWithoutFollowing(targetFolder))
            (void)cleanupDir(targetFolder);
        (void)CreateDirectoryAtPath(targetFolder);
        std::string reason;
        if (!ExtractArchive(archivePath, targetFolder, reason)) {
            // Half a payload is worse than none: the manifest would mix new and missing
            // files. An empty folder makes every source show up as missing.
            NSLevelledLog(0, "Failed to extract \"%@\": %@", archivePath, reason);
            if (!RemoveTree(targetFolder) && ExistsWithoutFollowing(targetFolder))
                NSLevelledLog(0, "Remove operation failed.");
            (void)CreateDirectoryAtPath(targetFolder);
        }
    }
    NSLevelledLog(3, "Done");
    return 0;
}

int32_t PayloadHandler::cleanupDir(const std::string& folder) {
    NSFormatLogWithHeading(3, "TEARDOWN for Update");
    NSLevelledLog(3, "Cleanup \"%@\".", folder);
    if (!RemoveTree(folder)) {
        NSLevelledLog(3, "Remove operation failed.");
        return 1;
    }
    return 0;
}
