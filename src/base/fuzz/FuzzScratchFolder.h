#pragma once

#include <string>

// A folder of its own for a fuzz target's input files, made under TMPDIR (or /tmp) with
// the name's prefix given, and removed with what is in it at exit.
class FuzzScratchFolder {
public:
    explicit FuzzScratchFolder(const std::string& prefix);
    ~FuzzScratchFolder();
    FuzzScratchFolder(const FuzzScratchFolder&) = delete;
    FuzzScratchFolder& operator=(const FuzzScratchFolder&) = delete;

    const std::string& path() const { return _path; }

private:
    std::string _path;
};
