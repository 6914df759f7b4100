#pragma once

#include "xplat/OrvelFileVersioner.h"

#include <string>

// A path as the operating system takes it. On POSIX systems that is the UTF-8 byte string.
using PlatformFilePath = std::string;

// One way of recognising a kind of file and reading its version. Versioners keep no state;
// a fresh object is made for every file.
class VersionerABC {
public:
    // Returns true when the file at inPath is of this versioner's kind; outVersion and outType
    // are then filled. On false the outputs may have been partly written and mean nothing.
    virtual bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                             OFV_FileType& outType) = 0;
    virtual ~VersionerABC() = default;
};
