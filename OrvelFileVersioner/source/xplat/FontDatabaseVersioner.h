#pragma once

#include "xplat/Versioner.h"

// Orvel font database texts versioned by their version= entry.
class FontDatabaseVersioner : public Versioner<FontDatabaseVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
