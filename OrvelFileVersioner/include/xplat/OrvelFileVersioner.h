/*
 * OrvelFileVersioner: reads the version number stored inside data files that carry no common
 * version resource (colour profiles, fonts, character maps, Unicode maps, ICU data, font
 * databases, scripts) and compares two such versions.
 *
 * Plain C interface. No function lets an exception escape; failures are result codes.
 */
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
#define OFV_ENUM32(name) enum name : int32_t
#define OFV_NODISCARD [[nodiscard]]
#else
#define OFV_ENUM32(name) enum name
#define OFV_NODISCARD
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A four-part version, part 0 most significant. A part equal to -1 (all bits set) is unset;
 * a fresh record has every byte set to 0xFF. */
typedef struct OFV_FileVersion {
    int32_t majorVersion; /* part 0 */
    int32_t minorVersion; /* part 1 */
    int32_t fixVersion;   /* part 2 */
    int32_t buildVersion; /* part 3 */
#ifdef __cplusplus
    /* True when none of the four parts is -1. */
    bool IsValid() const {
        return majorVersion != -1 && minorVersion != -1 && fixVersion != -1 && buildVersion != -1;
    }
#endif
} OFV_FileVersion;

/* Which versioner recognised a file. The values are stable: they are reported to callers and
 * compared between two files. */
typedef OFV_ENUM32(OFV_FileType){
    OFV_FileTypeUnknown = 0,
    /* 1 is reserved. */
    OFV_FileTypeColorProfile = 2,
    OFV_FileTypeOTFFont = 3,
    OFV_FileTypePFBFont = 4,
    OFV_FileTypeUnicodeMap = 5,
    OFV_FileTypeICU = 6,
    OFV_FileTypeFontDatabase = 7,
    OFV_FileTypeCMap = 8,
    OFV_FileTypeJSX = 9,
} OFV_FileType;

/* Result codes of every interface function; 0 is success. */
typedef OFV_ENUM32(OFV_Result){
    OFV_Success = 0,
    /* No versioner recognised the file, or an internal failure. */
    OFV_ErrorGeneral = 1,
    /* The path is empty or the file cannot be opened for reading. */
    OFV_ErrorFileNotFound = 2,
    /* 3 is reserved. */
    /* A version handed to a comparison has a part equal to -1. */
    OFV_ErrorInvalidVersion = 4,
    /* Two files compared with the same type required are of different types. */
    OFV_ErrorTypeMismatch = 5,
} OFV_Result;

/* Finds the version of the file at inUTF8Path. On OFV_Success both outputs are filled; on any
 * other result they hold nothing meaningful. Null arguments abort the process. */
OFV_NODISCARD OFV_Result OFV_GetFileVersion(const char* inUTF8Path, OFV_FileVersion* outVersion,
                                            OFV_FileType* outType);

/* Compares two versions: *outResult becomes -1 when inVersion1 is lower, 1 when higher, 0 when
 * equal. OFV_ErrorInvalidVersion, with *outResult untouched, when any part of either is -1.
 * Null arguments abort the process. */
OFV_NODISCARD OFV_Result OFV_CompareVersions(const OFV_FileVersion* inVersion1,
                                             const OFV_FileVersion* inVersion2, int32_t* outResult);

/* Finds the versions of both files and compares them as OFV_CompareVersions does. The first
 * non-zero code of a version look-up is returned as it is; OFV_ErrorTypeMismatch when
 * requireSameType is set and the two files are of different types. */
OFV_NODISCARD OFV_Result OFV_CompareFiles(const char* inUTF8Path1, const char* inUTF8Path2,
                                          bool requireSameType, int32_t* outResult);

#ifdef __cplusplus
}
#endif

#undef OFV_ENUM32
#undef OFV_NODISCARD
