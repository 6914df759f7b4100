#pragma once

#include "xplat/Versioner.h"

// Scripts versioned by their @@@BUILDINFO@@@ line.
class JSXVersioner : public Versioner<JSXVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
