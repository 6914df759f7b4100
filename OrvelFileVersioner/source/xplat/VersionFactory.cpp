#include "xplat/VersionFactory.h"

#include "CMapVersioner.h"
#include "ColorProfileVersioner.h"
#include "FontDatabaseVersioner.h"
#include "ICUVersioner.h"
#include "JSXVersioner.h"
#include "OTFFontVersioner.h"
#include "PFBFontVersioner.h"
#include "UnicodeMapVersioner.h"

std::vector<VersionFactory::CreateVersionerFunc>& VersionFactory::GetVersionerFuncs() {
    static std::vector<CreateVersionerFunc> versionMethods;
    return versionMethods;
}

bool VersionFactory::RegisterVersionMethod(CreateVersionerFunc inFunc) {
    GetVersionerFuncs().push_back(inFunc);
    return true;
}

bool VersionFactory::GetFileVersion(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                    OFV_FileType& outType) {
    for (CreateVersionerFunc create : GetVersionerFuncs()) {
        // The versioner is destroyed on every way out, an exception included.
        const std::unique_ptr<VersionerABC> versioner = create();
        if (versioner->VersionFile(inPath, outVersion, outType)) {
            return true;
        }
    }
    return false;
}

// Definitions within one unit are initialised in the order written, which is the order in which
// the versioners are tried; the first that recognises a file wins. The order matters: a CMap is
// recognised by content whatever its name, and the colour-profile name test also claims .pfb
// fonts of 36 bytes or more before the PFB versioner is asked.
const bool VersionFactory::RegisterCMapVersioner =
    VersionFactory::RegisterVersionMethod(&CMapVersioner::CreateVersioner);
const bool VersionFactory::RegisterColorProfileVersioner =
    VersionFactory::RegisterVersionMethod(&ColorProfileVersioner::CreateVersioner);
const bool VersionFactory::RegisterOTFFontVersioner =
    VersionFactory::RegisterVersionMethod(&OTFFontVersioner::CreateVersioner);
const bool VersionFactory::RegisterPFBFontVersioner =
    VersionFactory::RegisterVersionMethod(&PFBFontVersioner::CreateVersioner);
const bool VersionFactory::RegisterUnicodeMapVersioner =
    VersionFactory::RegisterVersionMethod(&UnicodeMapVersioner::CreateVersioner);
const bool VersionFactory::RegisterICUVersioner =
    VersionFactory::RegisterVersionMethod(&ICUVersioner::CreateVersioner);
const bool VersionFactory::RegisterFontDatabaseVersioner =
    VersionFactory::RegisterVersionMethod(&FontDatabaseVersioner::CreateVersioner);
const bool VersionFactory::RegisterJSXVersioner =
    VersionFactory::RegisterVersionMethod(&JSXVersioner::CreateVersioner);
