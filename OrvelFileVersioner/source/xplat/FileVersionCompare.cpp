#include "xplat/FileVersionCompare.h"

#include "VersionRegex.h"
#include "xplat/OrvelFileVersioner.h"

bool FileVersionCompareAllowsReplace(const char* newFilePath, const char* installedFilePath) {
    int32_t result = 0;
    if (newFilePath == nullptr || installedFilePath == nullptr) {
        return true;
    }

    OFV_FileVersion installedVersion;
    OFV_FileVersion newVersion;
    ofv::ResetVersion(installedVersion);
    ofv::ResetVersion(newVersion);
    OFV_FileType installedType = OFV_FileTypeUnknown;
    OFV_FileType newType = OFV_FileTypeUnknown;

    // The result codes are not needed: a file that is missing or of no known type keeps the
    // unknown type, and unknown types never block a replacement. Types are only written when a
    // versioner recognised the file.
    (void)OFV_GetFileVersion(installedFilePath, &installedVersion, &installedType);
    (void)OFV_GetFileVersion(newFilePath, &newVersion, &newType);

    if (installedType != OFV_FileTypeUnknown && installedType != static_cast<OFV_FileType>(-1) &&
        newType == installedType) {
        // Leaves result at 0 when a version has an unset part.
        (void)OFV_CompareVersions(&newVersion, &installedVersion, &result);
    }
    return result >= 0;
}

bool FileVersionCompareAllowsReplace(const std::string& newFilePath,
                                     const std::string& installedFilePath) {
    return FileVersionCompareAllowsReplace(newFilePath.c_str(), installedFilePath.c_str());
}
