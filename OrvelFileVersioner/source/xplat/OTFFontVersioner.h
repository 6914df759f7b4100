#pragma once

#include "xplat/Versioner.h"

// OpenType fonts (path ending in .otf) versioned by their "<version>;ORVL;" mark.
class OTFFontVersioner : public Versioner<OTFFontVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
