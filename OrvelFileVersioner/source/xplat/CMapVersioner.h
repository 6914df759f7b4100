#pragma once

#include "xplat/Versioner.h"

// PostScript CMaps: any file with "begincmap" in its first 8192 bytes, versioned by
// its /CMapVersion line.
class CMapVersioner : public Versioner<CMapVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
