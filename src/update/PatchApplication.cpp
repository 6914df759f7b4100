#include "update/PatchApplication.h"

#include "base/FileUtil.h"
#include "base/Md5.h"
#include "patch/Bspatch.h"
#include "patch/PipelinedWriter.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/MD5cksum.h"

#include <cerrno>
#include <cstring>

namespace {

// Patched files from this size on are written on a second thread.
constexpr size_t kPipelinedPatchSize = 1024 * 1024;

} // namespace

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
    // The new file replaces an installed one by a rename: its mode and bytes are on disk
    // first.
    if (result == BspatchResult::Success &&
        (!fileSystem.setModeOfFile(outFd, mode) || (sync && !fileSystem.syncFile(outFd, false)) ||
         !fileSystem.close(out))) {
        writeError = errno;
        result = BspatchResult::OutputFailed;
    }
    if (result != BspatchResult::Success) {
        pipeline.reset();
        out.reset();
        (void)fileSystem.removeFile(output); // no output: the patch was not applied
        if (writeError != 0)
            detail = std::strerror(writeError); // says more than "cannot be written"
        NSLevelledLog(3, "%@: %s: %@", patchTool, DescribeBspatchResult(result), detail);
        return std::nullopt;
    }
    return MD5cksum::logChecksumOfFile(output, checksum);
}
