#pragma once

#include <string>

// The blind-overwrite rule: may the new file at newFilePath replace the installed file at
// installedFilePath? True unless both files are of the same known type and the new file's
// version is older than the installed one's. Files of unknown or different types, missing
// files and absent (null) paths therefore allow the replacement.
//
// The argument order is new file first, installed file second. Nothing is logged: the answer
// is the whole outcome, and callers log the decision they take from it.
[[nodiscard]] bool FileVersionCompareAllowsReplace(const char* newFilePath,
                                                   const char* installedFilePath);
[[nodiscard]] bool FileVersionCompareAllowsReplace(const std::string& newFilePath,
                                                   const std::string& installedFilePath);
