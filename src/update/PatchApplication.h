#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>

class FileSystem;

// Writes output (a new file with mode) from the old file's bytes and a BSDIFF40 patch, with
// the patch code linked in, and checksums it on the way; with sync the output is on disk
// when this returns (else whoever renames it syncs its file system first). The
// output's MD5, or nothing (and no output file) when the patch could not be applied; every
// failure is logged, named after patchTool, the bundle's tool that holds the same code.
std::optional<std::string> ApplyPatchToFile(FileSystem& fileSystem,
                                            std::span<const uint8_t> oldData,
                                            const std::string& patchFile,
                                            const std::string& patchTool, const std::string& output,
                                            mode_t mode, bool sync = true);
