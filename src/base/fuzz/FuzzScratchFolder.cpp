#include "base/fuzz/FuzzScratchFolder.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <unistd.h>

FuzzScratchFolder::FuzzScratchFolder(const std::string& prefix) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/" + prefix + "-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror(("mkdtemp " + pattern).c_str());
        std::abort();
    }
    _path = pattern;
}

FuzzScratchFolder::~FuzzScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}
