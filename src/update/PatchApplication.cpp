#include "update/PatchApplication.h"

#include "base/FileUtil.h"
#include "base/Md5.h"
#include "patch/BsdiffFormat.h"
#include "patch/Bspatch.h"
#include "patch/PipelinedWriter.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/MD5cksum.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <unistd.h>

namespace {

// Patched files from this size on are written on a second thread.
constexpr size_t kPipelinedPatchSize = 1024 * 1024;

// The end of writing a patched file: its mode, its sync and its close, or, after any failure,
// no output file and the failure logged.
std::optional<std::string> FinishOutput(FileSystem& fileSystem, UniqueFd& out, BspatchResult result,
                                        int writeError, std::string& detail,
                                        const std::optional<std::string>& checksum,
                                        const std::string& patchTool, const std::string& output,
                                        mode_t mode, bool sync) {
    // The new file replaces an installed one by a rename: its mode and bytes are on disk
    // first.
    const int outFd = out.get();
    if (result == BspatchResult::Success &&
        (!fileSystem.setModeOfFile(outFd, mode) || (sync && !fileSystem.syncFile(outFd, false)) ||
         !fileSystem.close(out))) {
        writeError = errno;
        result = BspatchResult::OutputFailed;
    }
    if (result != BspatchResult::Success) {
        out.reset();
        (void)fileSystem.removeFile(output); // no output: the patch was not applied
        if (writeError != 0)
            detail = std::strerror(writeError); // says more than "cannot be written"
        NSLevelledLog(3, "%@: %s: %@", patchTool, DescribeBspatchResult(result), detail);
        return std::nullopt;
    }
    return MD5cksum::logChecksumOfFile(output, checksum);
}

} // namespace

std::optional<size_t> PatchedSizeOf(int patchFd) {
    uint8_t header[kBsdiffHeaderSize];
    size_t got = 0;
    while (got < sizeof header) {
        const ssize_t read =
            ::pread(patchFd, header + got, sizeof header - got, static_cast<off_t>(got));
        if (read < 0 && errno == EINTR)
            continue;
        if (read <= 0)
            return std::nullopt;
        got += static_cast<size_t>(read);
    }
    const auto parsed = ParseBsdiffHeader(std::span<const uint8_t, kBsdiffHeaderSize>(header));
    if (!parsed)
        return std::nullopt;
    return static_cast<size_t>(parsed->newSize);
}

BspatchResult PatchIntoMemory(std::span<const uint8_t> oldData, int patchFd, size_t newSize,
                              PatchedFile& made, std::string* detail, const std::atomic<bool>* stop,
                              bool withChecksum) {
    try {
        if (!made.bytes || made.capacity < newSize) {
            made.bytes.reset();
            made.capacity = std::max<size_t>(newSize, 1);
            made.bytes = std::make_unique_for_overwrite<uint8_t[]>(made.capacity);
        }
    } catch (const std::bad_alloc&) {
        made.capacity = 0;
        if (detail)
            *detail = "out of memory";
        return BspatchResult::OutOfMemory;
    }
    size_t filled = 0;
    Md5Stream digest;
    // Made in place: the pieces only pass by here for their checksum.
    BspatchResult result = ApplyBsdiffPatchInto(
        oldData, patchFd, {made.bytes.get(), newSize},
        [&](const uint8_t* data, size_t size) {
            if ((stop && stop->load()) || size > newSize - filled)
                return false;
            if (withChecksum)
                digest.update(data, size);
            filled += size;
            return true;
        },
        detail);
    const auto checksum = result == BspatchResult::Success && withChecksum
                              ? digest.finish()
                              : std::optional<std::string>(std::string());
    if (result == BspatchResult::Success && (!checksum || filled != newSize)) {
        result = BspatchResult::OutputFailed;
        if (detail)
            *detail = "the new file's checksum cannot be worked out";
    }
    if (result != BspatchResult::Success) {
        made = PatchedFile{};
        return result;
    }
    made.size = newSize;
    made.checksum = *checksum;
    return result;
}

std::optional<std::string> ApplyPatchToFile(FileSystem& fileSystem,
                                            std::span<const uint8_t> oldData,
                                            const std::string& patchFile,
                                            const std::string& patchTool, const std::string& output,
                                            mode_t mode, bool sync) {
    // The bundle's bspatch tool is linked in: the same code, applied without starting two
    // processes (env and the tool) per patched file, which cost more than the patching
    // itself for the small files most updates change. The output is checksummed as it is
    // written.
    const UniqueFd patch = fileSystem.openForReading(patchFile);
    if (!patch.valid()) {
        NSLevelledLog(3, "%@: cannot open the patch %@: %s", patchTool, patchFile,
                      std::strerror(errno));
        return std::nullopt;
    }
    const std::optional<size_t> newSize = PatchedSizeOf(patch.get());
    if (newSize && *newSize <= kPatchedInMemoryLimit) {
        PatchedFile made;
        std::string detail;
        const BspatchResult result = PatchIntoMemory(oldData, patch.get(), *newSize, made, &detail);
        if (result != BspatchResult::Success) {
            NSLevelledLog(3, "%@: %s: %@", patchTool, DescribeBspatchResult(result), detail);
            return std::nullopt;
        }
        return WritePatchedFile(fileSystem, {made.bytes.get(), made.size}, made.checksum, patchTool,
                                output, mode, sync);
    }
    UniqueFd out = fileSystem.createFile(output, 0600);
    if (!out.valid()) {
        NSLevelledLog(3, "%@: cannot create %@: %s", patchTool, output, std::strerror(errno));
        return std::nullopt;
    }
    const int outFd = out.get();
    // A large file is written and checksummed on a second thread while the patch goes on.
    std::optional<PipelinedWriter> pipeline;
    if (oldData.size() >= kPipelinedPatchSize)
        pipeline.emplace([&fileSystem, outFd](const uint8_t* data, size_t size) {
            return fileSystem.write(outFd, data, size);
        });
    Md5Stream digest;
    int writeError = 0;
    std::string detail;
    BspatchResult result = ApplyBsdiffPatchToSink(
        oldData, patch.get(),
        [&](const uint8_t* data, size_t size) {
            if (pipeline)
                return pipeline->write(data, size);
            digest.update(data, size);
            if (fileSystem.write(outFd, data, size))
                return true;
            writeError = errno;
            return false;
        },
        &detail);
    std::optional<std::string> checksum;
    if (pipeline) {
        const PipelinedWriter::Result written = pipeline->finish();
        if (!written.written) {
            writeError = written.error;
            if (result == BspatchResult::Success) {
                result = BspatchResult::OutputFailed;
                detail = "the new file cannot be written";
            }
        }
        checksum = written.digest;
    } else if (result == BspatchResult::Success) {
        checksum = digest.finish();
    }
    pipeline.reset();
    return FinishOutput(fileSystem, out, result, writeError, detail, checksum, patchTool, output,
                        mode, sync);
}

std::optional<std::string> WritePatchedFile(FileSystem& fileSystem, std::span<const uint8_t> bytes,
                                            const std::string& checksum,
                                            const std::string& patchTool, const std::string& output,
                                            mode_t mode, bool sync) {
    UniqueFd out = fileSystem.createFile(output, 0600);
    if (!out.valid()) {
        NSLevelledLog(3, "%@: cannot create %@: %s", patchTool, output, std::strerror(errno));
        return std::nullopt;
    }
    BspatchResult result = BspatchResult::Success;
    int writeError = 0;
    std::string detail;
    if (!fileSystem.write(out.get(), bytes.data(), bytes.size())) {
        writeError = errno;
        result = BspatchResult::OutputFailed;
    }
    return FinishOutput(fileSystem, out, result, writeError, detail, checksum, patchTool, output,
                        mode, sync);
}

std::optional<std::string> WritePatchedFile(FileSystem& fileSystem, PatchedFile& made,
                                            const std::string& patchTool, const std::string& output,
                                            mode_t mode, bool sync) {
    if (!made.written.valid())
        return WritePatchedFile(fileSystem, {made.bytes.get(), made.size}, made.checksum, patchTool,
                                output, mode, sync);
    if (!fileSystem.linkFile(made.written.get(), output)) {
        NSLevelledLog(3, "%@: cannot create %@: %s", patchTool, output, std::strerror(errno));
        return std::nullopt;
    }
    UniqueFd out = std::move(made.written);
    std::string detail;
    return FinishOutput(fileSystem, out, BspatchResult::Success, 0, detail, made.checksum,
                        patchTool, output, mode, sync);
}
