#include "PayloadArchive.h"

#include "base/FileUtil.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct ArchiveWriteFree {
    void operator()(archive* handle) const { archive_write_free(handle); }
};
struct ArchiveEntryFree {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using ArchiveWriter = std::unique_ptr<archive, ArchiveWriteFree>;
using ArchiveEntry = std::unique_ptr<archive_entry, ArchiveEntryFree>;

// The newc header stores sizes in 32 bits.
constexpr uint64_t kMaxEntrySize = 0xffffffffull;

bool Fail(std::string* error, const std::string& message) {
    if (error)
        *error = message;
    return false;
}

// Every entry below folder, relative to it, sorted by name.
bool ListTree(const std::string& folder, std::vector<std::string>* relative, std::string* error) {
    std::error_code ec;
    auto it = fs::recursive_directory_iterator(folder, fs::directory_options::none, ec);
    if (ec)
        return Fail(error, "cannot read the payload folder " + folder + ": " + ec.message());
    for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (ec)
            return Fail(error, "cannot read the payload folder " + folder + ": " + ec.message());
        relative->push_back(it->path().lexically_relative(folder).string());
    }
    if (ec)
        return Fail(error, "cannot read the payload folder " + folder + ": " + ec.message());
    std::sort(relative->begin(), relative->end());
    return true;
}

bool WriteEntry(archive* writer, const std::string& folder, const std::string& relative,
                PayloadArchive::Summary* summary, std::string* error) {
    const std::string path = folder + "/" + relative;
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return Fail(error, "cannot read " + path + ": " + std::strerror(errno));

    ArchiveEntry entry(archive_entry_new());
    if (!entry)
        return Fail(error, "out of memory");
    archive_entry_set_pathname(entry.get(), relative.c_str());
    archive_entry_set_perm(entry.get(), info.st_mode & 07777);
    archive_entry_set_mtime(entry.get(), info.st_mtim.tv_sec, 0);
    archive_entry_set_uid(entry.get(), 0);
    archive_entry_set_gid(entry.get(), 0);

    UniqueFd fd;
    if (S_ISDIR(info.st_mode)) {
        archive_entry_set_filetype(entry.get(), AE_IFDIR);
        archive_entry_set_size(entry.get(), 0);
    } else if (S_ISLNK(info.st_mode)) {
        std::error_code ec;
        const auto target = fs::read_symlink(path, ec);
        if (ec)
            return Fail(error, "cannot read the link " + path + ": " + ec.message());
        archive_entry_set_filetype(entry.get(), AE_IFLNK);
        archive_entry_set_symlink(entry.get(), target.c_str());
        archive_entry_set_size(entry.get(), 0);
    } else if (S_ISREG(info.st_mode)) {
        if (static_cast<uint64_t>(info.st_size) > kMaxEntrySize)
            return Fail(error, path + " is larger than the payload format allows (4 GiB)");
        fd.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd.valid())
            return Fail(error, "cannot open " + path + ": " + std::strerror(errno));
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_size(entry.get(), info.st_size);
    } else {
        return Fail(error, path + " is neither a file, a folder nor a symbolic link");
    }

    if (archive_write_header(writer, entry.get()) != ARCHIVE_OK)
        return Fail(error, "cannot write the payload entry " + relative + ": " +
                               archive_error_string(writer));
    if (fd.valid()) {
        std::vector<char> buffer(1 << 20);
        uint64_t written = 0;
        for (;;) {
            const ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return Fail(error, "cannot read " + path + ": " + std::strerror(errno));
            if (n == 0)
                break;
            if (archive_write_data(writer, buffer.data(), static_cast<size_t>(n)) != n)
                return Fail(error, "cannot write the payload entry " + relative + ": " +
                                       archive_error_string(writer));
            written += static_cast<uint64_t>(n);
        }
        if (written != static_cast<uint64_t>(info.st_size))
            return Fail(error, path + " changed while it was packed");
        if (summary) {
            ++summary->files;
            summary->bytes += written;
        }
    }
    return true;
}

} // namespace

bool PayloadArchive::write(const std::string& folder, const std::string& archivePath,
                           Summary* summary, std::string* error,
                           const std::set<std::string>& first) {
    if (summary)
        *summary = Summary{};
    std::vector<std::string> entries;
    if (!folder.empty() && !ListTree(folder, &entries, error))
        return false;
    // A file put first has its folders made as it is unpacked; they come again, with their
    // modes, in their own places.
    std::stable_partition(entries.begin(), entries.end(),
                          [&](const std::string& relative) { return first.count(relative) != 0; });

    ArchiveWriter writer(archive_write_new());
    if (!writer)
        return Fail(error, "out of memory");
    if (archive_write_set_format_cpio_newc(writer.get()) != ARCHIVE_OK ||
        archive_write_add_filter_gzip(writer.get()) != ARCHIVE_OK ||
        archive_write_open_filename(writer.get(), archivePath.c_str()) != ARCHIVE_OK)
        return Fail(error,
                    "cannot create " + archivePath + ": " + archive_error_string(writer.get()));

    bool ok = true;
    for (const auto& relative : entries) {
        if (!WriteEntry(writer.get(), folder, relative, summary, error)) {
            ok = false;
            break;
        }
    }
    if (ok && archive_write_close(writer.get()) != ARCHIVE_OK) {
        ok =
            Fail(error, "cannot finish " + archivePath + ": " + archive_error_string(writer.get()));
    }
    writer.reset();
    if (!ok) {
        std::error_code ec;
        fs::remove(archivePath, ec);
    }
    return ok;
}
