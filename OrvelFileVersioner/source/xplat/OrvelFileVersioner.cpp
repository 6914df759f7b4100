#include "xplat/OrvelFileVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"
#include "xplat/OFVAssert.h"
#include "xplat/VersionFactory.h"
#include "xplat/VersionOps.h"

#include <functional>

// Every interface function maps an escaping exception to OFV_ErrorGeneral: C callers cannot
// handle one.

OFV_Result OFV_GetFileVersion(const char* inUTF8Path, OFV_FileVersion* outVersion,
                              OFV_FileType* outType) {
    OFV_ASSERT(inUTF8Path);
    OFV_ASSERT(outVersion);
    OFV_ASSERT(outType);
    try {
        PlatformFilePath path;
        if (!ofv::UTF8ToPlatformFilePath(inUTF8Path, path)) {
            return OFV_ErrorFileNotFound;
        }
        if (!ofv::DoesFilePathExist(path)) {
            return OFV_ErrorFileNotFound;
        }
        return VersionFactory::GetFileVersion(path, *outVersion, *outType) ? OFV_Success
                                                                           : OFV_ErrorGeneral;
    } catch (...) {
        return OFV_ErrorGeneral;
    }
}

OFV_Result OFV_CompareVersions(const OFV_FileVersion* inVersion1, const OFV_FileVersion* inVersion2,
                               int32_t* outResult) {
    OFV_ASSERT(inVersion1);
    OFV_ASSERT(inVersion2);
    OFV_ASSERT(outResult);
    try {
        // Checked here so that unset parts are an error code for callers, not an assertion.
        if (!inVersion1->IsValid() || !inVersion2->IsValid()) {
            return OFV_ErrorInvalidVersion;
        }
        *outResult = 0;
        if (VersionOps::CompareVersions(*inVersion1, *inVersion2, std::less<int32_t>())) {
            *outResult = -1;
        } else if (VersionOps::CompareVersions(*inVersion2, *inVersion1, std::less<int32_t>())) {
            *outResult = 1;
        }
        return OFV_Success;
    } catch (...) {
        return OFV_ErrorGeneral;
    }
}

OFV_Result OFV_CompareFiles(const char* inUTF8Path1, const char* inUTF8Path2, bool requireSameType,
                            int32_t* outResult) {
    try {
        OFV_FileVersion version1;
        OFV_FileVersion version2;
        ofv::ResetVersion(version1);
        ofv::ResetVersion(version2);
        OFV_FileType type1 = OFV_FileTypeUnknown;
        OFV_FileType type2 = OFV_FileTypeUnknown;

        OFV_Result result = OFV_GetFileVersion(inUTF8Path1, &version1, &type1);
        if (result != OFV_Success) {
            return result;
        }
        result = OFV_GetFileVersion(inUTF8Path2, &version2, &type2);
        if (result != OFV_Success) {
            return result;
        }
        if (requireSameType && type1 != type2) {
            return OFV_ErrorTypeMismatch;
        }
        return OFV_CompareVersions(&version1, &version2, outResult);
    } catch (...) {
        return OFV_ErrorGeneral;
    }
}
