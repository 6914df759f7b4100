// libFuzzer target for the patch reader. An input is the old file's length (two bytes, least
// significant first), the old file, then the patch. The patch goes through a memory file, as
// the reader takes a descriptor; the new file's bytes are counted and dropped.
#include "patch/Bspatch.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int patchFd = ::memfd_create("patch", MFD_CLOEXEC);
    if (patchFd < 0)
        std::abort();
    if (size < 2)
        return 0;
    const size_t oldSize = std::min<size_t>(data[0] | (data[1] << 8), size - 2);
    const std::span<const uint8_t> oldData(data + 2, oldSize);
    const uint8_t* patch = data + 2 + oldSize;
    const size_t patchSize = size - 2 - oldSize;
    if (::ftruncate(patchFd, 0) != 0 || (patchSize > 0 && ::pwrite(patchFd, patch, patchSize, 0) !=
                                                              static_cast<ssize_t>(patchSize)))
        std::abort();
    uint64_t produced = 0;
    const BspatchResult result =
        ApplyBsdiffPatchToSink(oldData, patchFd, [&produced](const uint8_t*, size_t bytes) {
            produced += bytes;
            return true;
        });
    (void)result;
    return 0;
}
