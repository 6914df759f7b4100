#include "update/PayloadHandler.h"

#include "base/FileUtil.h"
#include "base/Md5Lanes.h"
#include "base/Path.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/FileManager.h"
#include "update/PayloadFiles.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <libdeflate.h>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <unordered_set>
#include <vector>
#include <zlib.h>

namespace {

constexpr size_t kReadSize = 64 * 1024;
// An archive of one gzip member that declares at most this many unpacked bytes is inflated
// whole, in memory, by libdeflate, about twice as fast as zlib's inflate a piece at a time;
// any other (larger, several members, damaged) goes through zlib, which also words the
// reason when it is refused.
constexpr uint64_t kWholeInflateLimit = 256 << 20;

struct ArchiveReadDeleter {
    void operator()(archive* handle) const { archive_read_free(handle); }
};
using ArchiveReader = std::unique_ptr<archive, ArchiveReadDeleter>;

bool IsReadableFile(const std::string& path) {
    struct stat info {};
    // Checked with the effective ids: they are what the patcher reads with when raised.
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
}

// The unpacked size an archive's last gzip member declares in its trailer: the whole size
// (modulo 4 GiB) for the single member a payload is; nothing for a file too short to be gzip.
std::optional<uint64_t> DeclaredSize(int fd) {
    struct stat info {};
    unsigned char trailer[4];
    if (::fstat(fd, &info) != 0 || info.st_size < 18 ||
        ::pread(fd, trailer, sizeof trailer, info.st_size - 4) != 4)
        return std::nullopt;
    return uint64_t{trailer[0]} | uint64_t{trailer[1]} << 8 | uint64_t{trailer[2]} << 16 |
           uint64_t{trailer[3]} << 24;
}

// The whole archive inflated at once, when it is small enough and libdeflate reads it as one
// good gzip member (checksum and length verified); nothing otherwise. Read with pread, so the
// file's offset stays where it was.
std::shared_ptr<PayloadHandler::InflateAhead::Whole> InflateWhole(int fd) {
    struct stat info {};
    const std::optional<uint64_t> declared = DeclaredSize(fd);
    if (!declared || ::fstat(fd, &info) != 0 ||
        static_cast<uint64_t>(info.st_size) > kWholeInflateLimit || *declared > kWholeInflateLimit)
        return nullptr;
    try {
        const auto size = static_cast<size_t>(info.st_size);
        auto input = std::make_unique_for_overwrite<uint8_t[]>(size);
        for (size_t got = 0; got < size;) {
            const ssize_t read =
                ::pread(fd, input.get() + got, size - got, static_cast<off_t>(got));
            if (read < 0 && errno == EINTR)
                continue;
            if (read <= 0)
                return nullptr;
            got += static_cast<size_t>(read);
        }
        auto whole = std::make_shared<PayloadHandler::InflateAhead::Whole>();
        whole->identity = info;
        whole->bytes = std::make_shared_for_overwrite<uint8_t[]>(
            std::max<size_t>(static_cast<size_t>(*declared), 1));
        const std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> inflater(
            libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
        size_t used = 0;
        size_t produced = 0;
        if (!inflater ||
            libdeflate_gzip_decompress_ex(inflater.get(), input.get(), size, whole->bytes.get(),
                                          static_cast<size_t>(*declared), &used,
                                          &produced) != LIBDEFLATE_SUCCESS ||
            used != size || produced != *declared)
            return nullptr;
        whole->size = produced;
        return whole;
    } catch (const std::bad_alloc&) {
        return nullptr; // inflated a piece at a time instead
    }
}

// The same file with the same bytes as far as the file system tells.
bool SameArchive(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

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
        if (!_wholeTried) {
            _wholeTried = true;
            inflateWhole();
        }
        if (_whole) {
            // In one piece: each file's data then comes from libarchive as one block of this
            // memory, which a file held in memory keeps instead of a copy (share()).
            const size_t piece = _wholeSize - _wholeOffset;
            *data = _whole.get() + _wholeOffset;
            _wholeOffset += piece;
            _unpacked += piece;
            if (_unpacked > _limit) {
                fail("the archive unpacks to more than " + std::to_string(_limit) + " bytes");
                return -1;
            }
            return static_cast<ssize_t>(piece);
        }
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
        const size_t produced = kReadSize - _stream.avail_out;
        _unpacked += produced;
        if (_unpacked > _limit) {
            fail("the archive unpacks to more than " + std::to_string(_limit) + " bytes");
            return -1;
        }
        *data = _output.get();
        return static_cast<ssize_t>(produced);
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

    // The bytes [data, data + size) as a share of the archive inflated whole in memory, when
    // they lie in it; nothing otherwise. That memory (at most kWholeInflateLimit) then lasts
    // until the last share of it is let go.
    std::shared_ptr<const uint8_t[]> share(const void* data, size_t size) const {
        const auto* begin = static_cast<const uint8_t*>(data);
        if (!_whole || begin < _whole.get() || size > _wholeSize ||
            begin > _whole.get() + (_wholeSize - size))
            return nullptr;
        return std::shared_ptr<const uint8_t[]>(_whole, begin);
    }

    // The unpacked size the archive declares (DeclaredSize).
    std::optional<uint64_t> declaredSize() const { return DeclaredSize(_fd.get()); }

    // Takes the archive inflated ahead when it is the file opened here, unchanged; true then.
    bool useInflatedAhead(PayloadHandler::InflateAhead& ahead) {
        const std::shared_ptr<const PayloadHandler::InflateAhead::Whole> whole = ahead.take();
        struct stat info {};
        if (!whole || _wholeTried || ::fstat(_fd.get(), &info) != 0 ||
            !SameArchive(info, whole->identity))
            return false;
        _wholeTried = true;
        _whole = whole->bytes;
        _wholeSize = whole->size;
        ahead.markUsed();
        return true;
    }

    // Fails the reading once more than limit bytes have come out of it.
    void limitUnpackedSize(uint64_t limit) { _limit = limit; }

private:
    // The whole archive inflated at once (InflateWhole), or nothing changes.
    void inflateWhole() {
        if (const auto whole = InflateWhole(_fd.get())) {
            _whole = whole->bytes;
            _wholeSize = whole->size;
        }
    }

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
    uint64_t _unpacked = 0;
    uint64_t _limit = UINT64_MAX;
    std::unique_ptr<unsigned char[]> _input;
    std::unique_ptr<unsigned char[]> _output;
    bool _wholeTried = false;
    std::shared_ptr<uint8_t[]> _whole; // the whole archive, inflated at once
    size_t _wholeSize = 0;
    size_t _wholeOffset = 0;
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

// Writes the archive's entries below one folder through the file-system seam, refusing
// any entry that could reach outside it: ".." and absolute names, and every path through
// a symbolic link (the archive's own links included). Modes and times come from the
// archive; owners do not, so every file belongs to the patcher, as the copies made from
// them get the manifest's owners later anyway.
class PayloadWriter {
public:
    // The regular files named in heldNames (names below the folder) are held in memory
    // (PayloadFiles) rather than written, as long as they fit in what may be held.
    // A file's data that source has in memory whole is held there rather than copied.
    PayloadWriter(FileSystem& fileSystem, std::string folder,
                  const std::unordered_set<std::string>* heldNames = nullptr,
                  const GzipSource* source = nullptr)
        : _fs(fileSystem), _folder(std::move(folder)), _heldNames(heldNames), _source(source) {}

    // Writes one entry, its data read from in; false with a reason when it cannot be
    // written safely and whole.
    [[nodiscard]] bool write(archive* in, archive_entry* entry, std::string& reason) {
        _fileWritten.clear();
        const char* name = archive_entry_pathname(entry);
        _entryName = name ? name : "";
        std::string relative;
        if (!confine(_entryName, relative, reason))
            return false;
        // "." is the target folder itself, which stays as the patcher made it.
        if (relative.empty())
            return true;
        if (!makeParents(relative, reason))
            return false;
        const std::string path = _folder + "/" + relative;
        if (const char* hardlink = archive_entry_hardlink(entry))
            return writeHardLink(in, entry, hardlink, path, reason) && wrote(relative);
        switch (archive_entry_filetype(entry)) {
        case AE_IFDIR:
            return writeFolder(entry, path, reason);
        case AE_IFLNK:
            return writeSymbolicLink(entry, path, reason);
        default:
            if (_heldNames && _heldNames->count(relative) && archive_entry_size_is_set(entry) &&
                archive_entry_size(entry) >= 0 &&
                static_cast<uint64_t>(archive_entry_size(entry)) <= roomToHold())
                return holdFile(in, entry, path, reason);
            return writeFile(in, entry, path, reason) && wrote(relative);
        }
    }

    // The regular file the last write() put on disk whole (its name relative to the
    // folder), or nothing.
    const std::string& fileWritten() const { return _fileWritten; }

    // Gives the folders their modes and times, deepest first, when nothing more goes into
    // them.
    [[nodiscard]] bool finish(std::string& reason) {
        holdFiles();
        std::sort(_folders.begin(), _folders.end(),
                  [](const Fixup& a, const Fixup& b) { return a.path > b.path; });
        for (const Fixup& folder : _folders) {
            if (!_fs.setMode(folder.path, folder.mode) || !_fs.setTimes(folder.path, folder.times))
                return failed(folder.path, reason);
        }
        return true;
    }

private:
    struct Fixup {
        std::string path;
        mode_t mode;
        timespec times[2];
    };

    bool wrote(const std::string& relative) {
        _fileWritten = relative;
        return true;
    }

    // The name made relative to the folder with "." and empty components dropped.
    static bool confine(const std::string& name, std::string& relative, std::string& reason) {
        if (!name.empty() && name.front() == '/') {
            reason = "\"" + name + "\": Path is absolute";
            return false;
        }
        relative.clear();
        size_t start = 0;
        while (start <= name.size()) {
            size_t end = name.find('/', start);
            if (end == std::string::npos)
                end = name.size();
            const std::string component = name.substr(start, end - start);
            if (component == "..") {
                reason = "\"" + name + "\": Path contains '..'";
                return false;
            }
            if (!component.empty() && component != ".")
                relative += (relative.empty() ? "" : "/") + component;
            start = end + 1;
        }
        return true;
    }

    // Makes the missing folders above relative; refuses a symbolic link or a file among
    // them.
    bool makeParents(const std::string& relative, std::string& reason) {
        for (size_t slash = relative.find('/'); slash != std::string::npos;
             slash = relative.find('/', slash + 1)) {
            const std::string path = _folder + "/" + relative.substr(0, slash);
            struct stat info {};
            if (::lstat(path.c_str(), &info) != 0) {
                if (errno != ENOENT || !_fs.makeFolder(path, 0755))
                    return failed(path, reason);
                continue;
            }
            if (S_ISLNK(info.st_mode)) {
                reason = "\"" + _entryName + "\": Cannot extract through symlink " + path;
                return false;
            }
            if (!S_ISDIR(info.st_mode)) {
                reason = "\"" + _entryName + "\": " + path + " is not a folder";
                return false;
            }
        }
        return true;
    }

    // Clears the entry's place: an earlier file or link of the same name goes (a link
    // itself, never what it points to). A folder there stays for a folder entry (then
    // *folderThere is set) and refuses any other.
    bool clearPlace(const std::string& path, bool* folderThere, std::string& reason) {
        if (const auto held = _held.find(path); held != _held.end()) {
            _heldBytes -= held->second.size;
            _held.erase(held);
        }
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0)
            return errno == ENOENT || failed(path, reason);
        if (S_ISDIR(info.st_mode)) {
            if (folderThere)
                return *folderThere = true;
            reason = "\"" + _entryName + "\": a folder is in its place";
            return false;
        }
        return _fs.removeFile(path) || failed(path, reason);
    }

    bool writeFolder(archive_entry* entry, const std::string& path, std::string& reason) {
        bool exists = false;
        if (!clearPlace(path, &exists, reason))
            return false;
        // Writable for the patcher until finish() gives it the archive's mode.
        if (!exists && !_fs.makeFolder(path, 0700))
            return failed(path, reason);
        Fixup fixup{path, modeOf(entry), {}};
        timesOf(entry, fixup.times);
        _folders.push_back(fixup);
        return true;
    }

    bool writeSymbolicLink(archive_entry* entry, const std::string& path, std::string& reason) {
        const char* content = archive_entry_symlink(entry);
        if (!content) {
            reason = "\"" + _entryName + "\": a symbolic link without a target";
            return false;
        }
        if (!clearPlace(path, nullptr, reason))
            return false;
        timespec times[2];
        timesOf(entry, times);
        return (_fs.symlink(content, path) && _fs.setTimes(path, times)) || failed(path, reason);
    }

    bool writeFile(archive* in, archive_entry* entry, const std::string& path,
                   std::string& reason) {
        if (!clearPlace(path, nullptr, reason))
            return false;
        UniqueFd fd = _fs.createFile(path, 0600);
        if (!fd.valid())
            return failed(path, reason);
        return writeDataAndAttributes(in, entry, fd, path, reason);
    }

    // A hard link to an earlier entry, which may carry the shared data (cpio puts it with
    // the last name).
    bool writeHardLink(archive* in, archive_entry* entry, const std::string& target,
                       const std::string& path, std::string& reason) {
        std::string relativeTarget;
        if (!confine(target, relativeTarget, reason))
            return false;
        const std::string existing = _folder + "/" + relativeTarget;
        if (!writeOutHeld(existing, reason))
            return false;
        struct stat info {};
        if (relativeTarget.empty() || ::lstat(existing.c_str(), &info) != 0 ||
            !S_ISREG(info.st_mode) || !makeParents(relativeTarget, reason)) {
            if (reason.empty())
                reason = "\"" + _entryName + "\": no earlier file \"" + target + "\" to link to";
            return false;
        }
        if (!clearPlace(path, nullptr, reason))
            return false;
        if (!_fs.link(existing, path))
            return failed(path, reason);
        if (archive_entry_size(entry) <= 0)
            return true;
        UniqueFd fd = _fs.openForWriting(path);
        if (!fd.valid())
            return failed(path, reason);
        return writeDataAndAttributes(in, entry, fd, path, reason);
    }

    // Hands each block of the entry's data to take (false stops the reading: false then).
    template <typename Take> bool readData(archive* in, std::string& reason, Take&& take) {
        for (;;) {
            const void* data = nullptr;
            size_t size = 0;
            la_int64_t offset = 0;
            const int rc = archive_read_data_block(in, &data, &size, &offset);
            if (rc == ARCHIVE_EOF)
                return true;
            if (rc < ARCHIVE_WARN) {
                reason = "\"" + _entryName + "\": " + ErrorOf(in);
                return false;
            }
            if (!take(data, size, offset))
                return false;
        }
    }

    bool writeDataAndAttributes(archive* in, archive_entry* entry, UniqueFd& fd,
                                const std::string& path, std::string& reason) {
        uint64_t end = 0;
        if (!readData(in, reason, [&](const void* data, size_t size, la_int64_t offset) {
                if (size > 0 && !_fs.writeAt(fd.get(), data, size, static_cast<uint64_t>(offset)))
                    return failed(path, reason);
                end = std::max(end, static_cast<uint64_t>(offset) + size);
                return true;
            }))
            return false;
        // A sparse tail is a hole the writes did not reach.
        const auto size = static_cast<uint64_t>(std::max<la_int64_t>(archive_entry_size(entry), 0));
        if (end < size && !_fs.truncate(fd.get(), size))
            return failed(path, reason);
        timespec times[2];
        timesOf(entry, times);
        if (!_fs.setModeOfFile(fd.get(), modeOf(entry)) || !_fs.setTimesOfFile(fd.get(), times) ||
            !_fs.close(fd))
            return failed(path, reason);
        return true;
    }

    uint64_t roomToHold() const {
        const uint64_t elsewhere = PayloadFiles::heldBytes();
        const uint64_t used = elsewhere + _heldBytes;
        return used >= PayloadFiles::kHeldBytes ? 0 : PayloadFiles::kHeldBytes - used;
    }

    // Reads a regular file's data into memory, to be held once the whole payload is read.
    bool holdFile(archive* in, archive_entry* entry, const std::string& path, std::string& reason) {
        if (!clearPlace(path, nullptr, reason))
            return false;
        PayloadFiles::File file;
        file.size = static_cast<size_t>(archive_entry_size(entry));
        std::shared_ptr<const uint8_t[]> shared; // the data, where the unpacked archive has it
        std::shared_ptr<uint8_t[]> bytes;        // or a copy
        size_t end = 0;
        if (!readData(in, reason, [&](const void* data, size_t size, la_int64_t offset) {
                if (offset < 0 || static_cast<uint64_t>(offset) > file.size ||
                    size > file.size - static_cast<size_t>(offset) || (shared && size > 0)) {
                    reason = "\"" + _entryName + "\": more data than the entry's size";
                    return false;
                }
                if (!bytes && offset == 0 && size == file.size && size > 0 && _source &&
                    (shared = _source->share(data, size))) {
                    end = size;
                    return true;
                }
                if (!bytes)
                    bytes =
                        std::make_shared_for_overwrite<uint8_t[]>(std::max<size_t>(file.size, 1));
                const auto at = static_cast<size_t>(offset);
                if (at > end)
                    std::memset(bytes.get() + end, 0, at - end); // a hole
                if (size > 0)
                    std::memcpy(bytes.get() + at, data, size);
                end = std::max(end, at + size);
                return true;
            }))
            return false;
        if (shared) {
            file.bytes = std::move(shared);
        } else {
            if (!bytes)
                bytes = std::make_shared_for_overwrite<uint8_t[]>(std::max<size_t>(file.size, 1));
            if (end < file.size)
                std::memset(bytes.get() + end, 0, file.size - end);
            file.bytes = std::move(bytes);
        }
        file.mode = modeOf(entry);
        timesOf(entry, file.times);
        _heldBytes += file.size;
        _held.insert_or_assign(path, std::move(file));
        return true;
    }

    // A file held so far is written to the folder after all (another entry links to it).
    bool writeOutHeld(const std::string& path, std::string& reason) {
        const auto held = _held.find(path);
        if (held == _held.end())
            return true;
        const PayloadFiles::File file = std::move(held->second);
        _heldBytes -= file.size;
        _held.erase(held);
        UniqueFd fd = _fs.createFile(path, 0600);
        if (!fd.valid() || (file.size > 0 && !_fs.write(fd.get(), file.bytes.get(), file.size)) ||
            !_fs.setModeOfFile(fd.get(), file.mode) || !_fs.setTimesOfFile(fd.get(), file.times) ||
            !_fs.close(fd))
            return failed(path, reason);
        return true;
    }

    // The files read into memory get their checksums, several at a time, and are held.
    void holdFiles() {
        std::vector<std::string_view> contents;
        contents.reserve(_held.size());
        for (const auto& [path, file] : _held)
            contents.emplace_back(reinterpret_cast<const char*>(file.bytes.get()), file.size);
        const std::vector<std::string> checksums = Md5OfAll(contents);
        size_t index = 0;
        for (auto& [path, file] : _held) {
            file.checksum = checksums[index++];
            PayloadFiles::hold(path, std::move(file));
        }
        _held.clear();
        _heldBytes = 0;
    }

    // The archive's permission bits; set-user-ID and set-group-ID only when the archive's
    // owner or group is the patcher's, as the file stays the patcher's.
    mode_t modeOf(archive_entry* entry) const {
        mode_t mode = archive_entry_perm(entry) & 07777;
        if (archive_entry_uid(entry) != static_cast<la_int64_t>(_user))
            mode &= ~static_cast<mode_t>(S_ISUID);
        if (archive_entry_gid(entry) != static_cast<la_int64_t>(_group))
            mode &= ~static_cast<mode_t>(S_ISGID);
        return mode;
    }

    static void timesOf(archive_entry* entry, timespec times[2]) {
        times[0] = archive_entry_atime_is_set(entry)
                       ? timespec{archive_entry_atime(entry), archive_entry_atime_nsec(entry)}
                       : timespec{0, UTIME_OMIT};
        times[1] = archive_entry_mtime_is_set(entry)
                       ? timespec{archive_entry_mtime(entry), archive_entry_mtime_nsec(entry)}
                       : timespec{0, UTIME_OMIT};
    }

    // Sets the reason from errno for path; always false.
    bool failed(const std::string& path, std::string& reason) const {
        if (reason.empty())
            reason = "\"" + _entryName + "\": " + path + ": " + std::strerror(errno);
        return false;
    }

    FileSystem& _fs;
    const std::string _folder;
    const std::unordered_set<std::string>* _heldNames;
    const GzipSource* _source;
    std::map<std::string, PayloadFiles::File> _held; // read, held once the payload is whole
    uint64_t _heldBytes = 0;
    std::string _entryName;
    std::string _fileWritten;
    std::vector<Fixup> _folders;
    const uid_t _user = ::geteuid(); // the patcher's, whose files these become
    const gid_t _group = ::getegid();
};

// Extracts every entry of the archive into targetFolder; false with a reason at the first
// entry that cannot be extracted safely and whole.
bool ExtractArchive(const std::string& archivePath, const std::string& targetFolder,
                    FileSystem& fileSystem, const PayloadLimits& limits,
                    const std::unordered_set<std::string>* heldNames,
                    const PayloadHandler::FileUnpacked& fileUnpacked,
                    PayloadHandler::InflateAhead* inflatedAhead, std::string& reason) {
    ArchiveReader in(archive_read_new());
    if (!in) {
        reason = "out of memory";
        return false;
    }
    archive_read_support_format_cpio(in.get());

    GzipSource gzip;
    if (!gzip.open(archivePath)) {
        reason = gzip.reason();
        return false;
    }
    if (inflatedAhead)
        (void)gzip.useInflatedAhead(*inflatedAhead);
    if (archive_read_open(in.get(), &gzip, nullptr, ReadGzipSource, nullptr) != ARCHIVE_OK) {
        reason = gzip.reason().empty() ? ErrorOf(in.get()) : gzip.reason();
        return false;
    }

    // Room for the unpacked payload is checked before anything is written, from the size
    // the archive declares, and again before each file from the sizes its entries declare,
    // so a payload that does not fit is refused rather than unpacked in part.
    const std::optional<uint64_t> room = fileSystem.freeSpace(targetFolder);
    if (!room) {
        reason = "cannot tell the free space of " + targetFolder + ": " + std::strerror(errno);
        return false;
    }
    auto tooLarge = [&](uint64_t size) {
        reason = "the payload unpacks to " + std::to_string(size) + " bytes or more, and " +
                 targetFolder + " has " + std::to_string(*room) + " bytes free";
        return false;
    };
    if (const auto declared = gzip.declaredSize(); declared && *declared > *room)
        return tooLarge(*declared);
    gzip.limitUnpackedSize(std::min(limits.bytes, *room));

    PayloadWriter writer(fileSystem, WithoutTrailingSlashes(targetFolder), heldNames, &gzip);
    uint64_t entries = 0;
    uint64_t declaredBytes = 0;
    for (;;) {
        archive_entry* entry = nullptr;
        const int rc = archive_read_next_header(in.get(), &entry);
        if (rc == ARCHIVE_EOF)
            break;
        if (rc < ARCHIVE_WARN) {
            reason = gzip.reason().empty() ? ErrorOf(in.get()) : gzip.reason();
            return false;
        }
        if (++entries > limits.entries) {
            reason = "the payload has more than " + std::to_string(limits.entries) + " entries";
            return false;
        }
        declaredBytes += static_cast<uint64_t>(std::max<la_int64_t>(archive_entry_size(entry), 0));
        if (declaredBytes > *room)
            return tooLarge(declaredBytes);
        // The payload carries files, folders and links; device nodes, pipes and sockets have
        // no place in it.
        const auto type = archive_entry_filetype(entry);
        if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK &&
            !archive_entry_hardlink(entry)) {
            const char* name = archive_entry_pathname(entry);
            reason =
                "\"" + std::string(name ? name : "") + "\" is not a file, folder or symbolic link";
            return false;
        }
        if (!writer.write(in.get(), entry, reason))
            return false;
        if (fileUnpacked && !writer.fileWritten().empty())
            fileUnpacked(writer.fileWritten());
    }
    if (!gzip.finish()) {
        reason = gzip.reason();
        return false;
    }
    return writer.finish(reason);
}

} // namespace

int32_t PayloadHandler::extractFile(const std::string& archiveFolder,
                                    const std::string& targetFolder, FileSystem& fileSystem,
                                    const PayloadLimits& limits,
                                    const std::unordered_set<std::string>* heldNames,
                                    const FileUnpacked& fileUnpacked, InflateAhead* inflatedAhead) {
    PayloadFiles::forgetBelow(targetFolder);
    NSFormatLogWithHeading(3, "SETUP for Update");
    const std::string archivePath = JoinPath(archiveFolder, kPayloadArchiveName);
    NSLevelledLog(3, "Extracting updater files ...");
    if (!IsReadableFile(archivePath)) {
        NSLevelledLog(3, "No files in the Payload.");
    } else if (!WorkingFolderIsSafe(targetFolder)) {
        // Nothing is unpacked: every source then shows up as missing.
    } else {
        // A symbolic link in the target's place is removed itself, never what it points to.
        if (PathExistsNoFollow(targetFolder))
            (void)cleanupDir(targetFolder, fileSystem);
        // Root's alone, so that no one else can read the new files or swap them.
        if (::mkdir(targetFolder.c_str(), 0700) != 0)
            NSLevelledLog(0, "Cannot make the working folder %@: %@", targetFolder,
                          std::string(std::strerror(errno)));
        std::string reason;
        if (!ExtractArchive(archivePath, targetFolder, fileSystem, limits, heldNames, fileUnpacked,
                            inflatedAhead, reason)) {
            // Half a payload is worse than none: the manifest would mix new and missing
            // files. An empty folder makes every source show up as missing.
            NSLevelledLog(0, "Failed to extract \"%@\": %@", archivePath, reason);
            if (!FileManager(fileSystem).removeItem(targetFolder) &&
                PathExistsNoFollow(targetFolder))
                NSLevelledLog(0, "Remove operation failed.");
            (void)::mkdir(targetFolder.c_str(), 0700);
        }
    }
    NSLevelledLog(3, "Done");
    return 0;
}

PayloadHandler::InflateAhead::InflateAhead(const std::string& archiveFolder) {
    const std::string archivePath = JoinPath(archiveFolder, kPayloadArchiveName);
    auto fd =
        std::make_shared<UniqueFd>(::open(archivePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!fd->valid())
        return; // the unpacking says why
    try {
        _thread = std::thread([this, fd] { _whole = InflateWhole(fd->get()); });
    } catch (const std::system_error&) {
        // No thread to spare: the unpacking inflates it.
    }
}

PayloadHandler::InflateAhead::~InflateAhead() {
    if (_thread.joinable())
        _thread.join();
}

std::shared_ptr<const PayloadHandler::InflateAhead::Whole> PayloadHandler::InflateAhead::take() {
    if (_thread.joinable())
        _thread.join();
    return std::move(_whole);
}

bool PayloadHandler::WorkingFolderIsSafe(const std::string& folder) {
    // The working folder's parent is under /tmp, where any local user can make names: it is
    // used only when it is a real folder of this process's user (root) that no one else may
    // write, so that nobody can swap the folder or what is in it while the run uses it.
    std::string problem;
    const uid_t self = ::geteuid();
    if (OpenPrivateFolder(
            ParentPath(folder), 0755, [self](uid_t owner) { return owner == self; }, &problem)
            .valid())
        return true;
    NSLevelledLog(0, "The working folder %@ is not used: %@", folder, problem);
    return false;
}

int32_t PayloadHandler::cleanupDir(const std::string& folder, FileSystem& fileSystem) {
    PayloadFiles::forgetBelow(folder);
    NSFormatLogWithHeading(3, "TEARDOWN for Update");
    NSLevelledLog(3, "Cleanup \"%@\".", folder);
    if (!WorkingFolderIsSafe(folder))
        return 1;
    if (!FileManager(fileSystem).removeItem(folder)) {
        NSLevelledLog(3, "Remove operation failed.");
        return 1;
    }
    return 0;
}
