#pragma once

#include "xplat/Versioner.h"

// PostScript Type 1 fonts (path ending in .pfb) versioned by their /version entry.
class PFBFontVersioner : public Versioner<PFBFontVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
