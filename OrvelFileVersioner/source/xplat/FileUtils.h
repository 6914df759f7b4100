// File access shared by the interface functions and the versioners.
#pragma once

#include "xplat/VersionerABC.h"

#include <cstddef>
#include <vector>

namespace ofv {

// Copies inUTF8Path to outPath unchanged (POSIX paths are UTF-8 bytes); false when it is empty.
[[nodiscard]] bool UTF8ToPlatformFilePath(const char* inUTF8Path, PlatformFilePath& outPath);

// Whether the file can be opened for reading in binary mode. It is opened and closed again.
[[nodiscard]] bool DoesFilePathExist(const PlatformFilePath& inPath);

// Reads up to inCount bytes from the start of the file into outBytes, which ends up holding
// exactly the bytes read (the whole file when it is shorter). False when the file cannot be
// opened or the read fails.
[[nodiscard]] bool ReadFileBytes(const PlatformFilePath& inPath, std::size_t inCount,
                                 std::vector<char>& outBytes);

// Called after every ReadFileBytes with the byte count asked for and the number of bytes in the
// buffer afterwards (0 when the read failed). Lets tests and the fuzz target check how much
// each versioner reads. Null (the default) turns it off.
using ReadObserver = void (*)(const PlatformFilePath& inPath, std::size_t inRequested,
                              std::size_t inRead);
void SetReadObserver(ReadObserver inObserver);

} // namespace ofv
