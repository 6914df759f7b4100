#pragma once

#include "xplat/Versioner.h"

// Colour profiles, recognised by name alone (.icm, .csf, .icc or .pf anywhere in the path)
// and versioned by the creation date and time in the profile header.
class ColorProfileVersioner : public Versioner<ColorProfileVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
