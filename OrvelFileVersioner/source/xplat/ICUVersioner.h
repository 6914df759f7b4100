#pragma once

#include "xplat/Versioner.h"

// ICU data files (converters, and common-data packages) versioned by the format and data
// versions of their ICU data header.
class ICUVersioner : public Versioner<ICUVersioner> {
public:
    bool VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                     OFV_FileType& outType) override;
};
