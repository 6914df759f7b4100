#pragma once

#include "system/FileSystemPath.h"

#include <string>
#include <vector>

// Portable file operations. Each answers with true when it worked; on failure the output
// arguments are left untouched. None of them throws.
namespace FileSystemUtils {

// 0 when the text is a valid full path; 3 when it is empty or does not start with "/";
// 2 when it is longer than 1024 bytes or one of its components is 256 bytes or longer.
int ValidateUTF8FullPathString(const std::string& text);
inline int ValidateNativeFullPathString(const std::string& text) {
    return ValidateUTF8FullPathString(text);
}

// The entry exists (the link itself for a symbolic link).
[[nodiscard]] bool Exists(const FileSystemPath& path);
// isDirectory is true for a directory; a link to a directory is not one.
[[nodiscard]] bool IsDirectory(const FileSystemPath& path, bool& isDirectory);
// Removes the entry; recursive is not consulted (a directory is never removed here).
[[nodiscard]] bool DeleteFile(const FileSystemPath& path, bool recursive = false);
// The whole file (links followed); an empty file gives an empty buffer.
[[nodiscard]] bool LoadFileContents(const FileSystemPath& path, std::vector<char>& outFileContents);
// A name "<directory>/.tempXXXXXX" that did not exist when asked; no file is created.
[[nodiscard]] bool TempFilenameInDirectory(const FileSystemPath& directory,
                                           FileSystemPath& outPath);
[[nodiscard]] bool SetWorkingDirectory(const FileSystemPath& path);
// Removable drives are not listed on this platform: always false, the list untouched.
[[nodiscard]] bool GetRemovableDrives(std::vector<FileSystemPath>& drives);

// Compares two version texts cut at the separator into at most four signed parts:
// 1 when a is newer, -1 when older, 0 when equal. A part counts only when a separator ends
// it, so "1.2.3" reads as 1, 2, unset, unset; an unset part is the smallest 32-bit integer
// and sorts below every number. After a separator the next one is looked for from the
// second character after it on. An empty separator yields no parts.
int CompareVersionStrings(const std::string& a, const std::string& b, const std::string& separator);

} // namespace FileSystemUtils
