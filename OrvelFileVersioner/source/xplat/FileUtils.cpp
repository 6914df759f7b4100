#include "FileUtils.h"

#include <atomic>
#include <fstream>

namespace ofv {

namespace {
std::atomic<ReadObserver> gReadObserver{nullptr};

void ReportRead(const PlatformFilePath& inPath, std::size_t inRequested, std::size_t inRead) {
    if (ReadObserver observer = gReadObserver.load(std::memory_order_relaxed)) {
        observer(inPath, inRequested, inRead);
    }
}
} // namespace

void SetReadObserver(ReadObserver inObserver) {
    gReadObserver.store(inObserver, std::memory_order_relaxed);
}

bool UTF8ToPlatformFilePath(const char* inUTF8Path, PlatformFilePath& outPath) {
    outPath = inUTF8Path;
    return !outPath.empty();
}

bool DoesFilePathExist(const PlatformFilePath& inPath) {
    std::ifstream file(inPath, std::ios::in | std::ios::binary);
    const bool isOpen = file.is_open();
    file.close();
    return isOpen;
}

bool ReadFileBytes(const PlatformFilePath& inPath, std::size_t inCount,
                   std::vector<char>& outBytes) {
    bool good = false;
    try {
        outBytes.resize(inCount);
        std::ifstream file(inPath, std::ios::in | std::ios::binary);
        if (file.is_open()) {
            file.read(outBytes.data(), static_cast<std::streamsize>(inCount));
            // A short file only sets eof and fail; bad means the read itself broke down (for
            // example on a directory).
            good = !file.bad();
            if (good) {
                outBytes.resize(static_cast<std::size_t>(file.gcount()));
            }
            file.close();
        }
    } catch (...) {
        good = false;
    }
    ReportRead(inPath, inCount, good ? outBytes.size() : 0);
    return good;
}

} // namespace ofv
