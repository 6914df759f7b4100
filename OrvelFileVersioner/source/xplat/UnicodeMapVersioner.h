#pragma once

#include "xplat/Versioner.h"

// Unicode mapping tables versioned by their "##Orvel File Version:" line.
class UnicodeMapVersioner : public Versioner<UnicodeMapVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
