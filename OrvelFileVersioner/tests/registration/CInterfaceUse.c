/* Compiled as C: the interface header must stay usable from C programs. */
#include "xplat/OrvelFileVersioner.h"

#include <string.h>

int32_t OFVTest_CompareFromC(const char* inPath1, const char* inPath2, OFV_Result* outCode) {
    int32_t result = 99;
    *outCode = OFV_CompareFiles(inPath1, inPath2, true, &result);
    return result;
}

OFV_FileType OFVTest_TypeFromC(const char* inPath) {
    OFV_FileVersion version;
    OFV_FileType type = OFV_FileTypeUnknown;
    memset(&version, 0xFF, sizeof version);
    if (OFV_GetFileVersion(inPath, &version, &type) != OFV_Success) {
        return OFV_FileTypeUnknown;
    }
    return type;
}
