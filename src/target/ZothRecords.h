/*
 * The installation database library "orvel_zoth": the records it fills, the status codes
 * it returns and the signatures of the functions it exports. The library and every client
 * include this one header, so both sides agree on the layouts.
 *
 * Clients load the library by path and look each function up by the name given below.
 * Every function returns a ZothStatus (0 success). Texts handed out by the library (version
 * texts, domain values) and the collection arrays belong to the session that produced them
 * and stay valid until the next call of the same function on that session or until the
 * session is closed; copy them when they must live longer.
 *
 * Plain C so that programs in any language can use it.
 */
#ifndef ORVEL_ZOTH_ZOTHRECORDS_H
#define ORVEL_ZOTH_ZOTHRECORDS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes. */
enum ZothStatus {
    kZothNoError = 0,
    kZothInitializationError = 1,
    kZothDeinitializationError = 2,
    kZothMemoryError = 3,
    kZothDiskError = 4,
    kZothResourceError = 5, /* database missing or damaged */
    kZothUnknownError = 6,
    kZothRecordExistsError = 7,
    kZothRecordNotFoundError = 8,
    kZothInvalidSessionError = 9,
    kZothParameterError = 10,
    kZothAuthorizationError = 11, /* no permission, or a write through a cache session */
    kZothInternalError = 12,
    kZothIncompatibleSchemaError = 13,
    kZothLockTimeoutError = 14,
    kZothThreadError = 15
};

/* The text of a status; any code outside the table is "ZOTH unknown error". */
static inline const char* ZothStatusText(int status) {
    switch (status) {
    case 0:
        return "No Error";
    case 1:
        return "ZOTH initialization error";
    case 2:
        return "ZOTH de-initialization error";
    case 3:
        return "ZOTH memory error";
    case 4:
        return "ZOTH disk error";
    case 5:
        return "ZOTH resource missing or damaged error";
    case 7:
        return "ZOTH record already exists error";
    case 8:
        return "ZOTH record not found error";
    case 9:
        return "ZOTH invalid session error";
    case 10:
        return "ZOTH parameter error";
    case 11:
        return "ZOTH authorization error";
    case 12:
        return "ZOTH internal error";
    case 13:
        return "ZOTH incompatible schema error";
    case 14:
        return "ZOTH lock timeout error";
    case 15:
        return "ZOTH thread error";
    default:
        return "ZOTH unknown error";
    }
}

/* Domains of per-payload data. */
#define ZOTH_DOMAIN_PAYLOAD 0 /* the payload's own data: INSTALLDIR, installLanguage, ... */
#define ZOTH_DOMAIN_KVR 4     /* kept up to date by the application: KVRConfigPath */

/* The kind of collection that groups the payloads of one installation. */
#define ZOTH_COLLECTION_KIND_INSTALLATION 2

/* The longest version text the library stores; a buffer of ZOTH_VERSION_BUFFER_SIZE bytes
 * always holds a version with its terminating zero. */
#define ZOTH_MAX_VERSION_LENGTH 255
#define ZOTH_VERSION_BUFFER_SIZE (ZOTH_MAX_VERSION_LENGTH + 1)

typedef struct ZothSession* ZothSessionRef;
typedef int32_t ZothCollectionID; /* 0 is never a collection; arrays end with 0 */

/* One payload. The words are numbered from 0 in declaration order; words 3 and 4 are the
 * ones clients rely on. */
typedef struct ZothPayloadRecord {
    int32_t recordSize;        /* 0: bytes filled by the library */
    int32_t payloadID;         /* 1: the payload's row in the database */
    int32_t state;             /* 2: 1 installed */
    const char* version;       /* 3: the recorded version text */
    int32_t payloadAttributes; /* 4: handed back unchanged to zothAddPayload */
    const char* code;          /* 5: the installation code as stored */
} ZothPayloadRecord;

/* One collection; words 2 and 3 are the installation and modification times (seconds since
 * 1970, as 32-bit words). */
typedef struct ZothCollectionRecord {
    int32_t recordSize;            /* 0 */
    ZothCollectionID collectionID; /* 1 */
    int32_t timeInstalled;         /* 2 */
    int32_t timeModified;          /* 3 */
    int32_t kind;                  /* 4 */
} ZothCollectionRecord;

/* The functions, by the names clients look up. */
#define ZOTH_FN_OPEN_SESSION "zothOpenSession"
#define ZOTH_FN_OPEN_CACHE_SESSION "zothOpenCacheSession"
#define ZOTH_FN_CLOSE_SESSION "zothCloseSession"
#define ZOTH_FN_SESSION_COMMIT "zothSessionCommit"
#define ZOTH_FN_GET_PAYLOAD "zothGetPayload"
#define ZOTH_FN_GET_PAYLOAD_COLLECTIONS "zothGetPayloadCollections"
#define ZOTH_FN_GET_COLLECTION "zothGetCollection"
#define ZOTH_FN_ADD_PAYLOAD "zothAddPayload"
#define ZOTH_FN_GET_PAYLOAD_DATA "zothGetPayloadData"
#define ZOTH_FN_GET_DOMAIN_DATA "zothGetDomainData"
#define ZOTH_FN_SET_DATABASE_PATH "zothSetDatabasePath"

/* Opens a session on the database (read-write when permitted, else read-only). */
typedef int (*ZothOpenSessionFn)(ZothSessionRef* session);
/* Opens a session on a snapshot of the database taken now; it never sees later changes
 * and refuses writes (kZothAuthorizationError). */
typedef int (*ZothOpenCacheSessionFn)(ZothSessionRef* session);
/* Commits what the session changed and closes it. */
typedef int (*ZothCloseSessionFn)(ZothSessionRef session);
/* Commits what the session changed so far. */
typedef int (*ZothSessionCommitFn)(ZothSessionRef session);
typedef int (*ZothGetPayloadFn)(ZothSessionRef session, const char* code,
                                ZothPayloadRecord* record);
/* *collections receives an array of the collections of the kind that hold the payload,
 * ending with 0; kZothRecordNotFoundError when there is none. */
typedef int (*ZothGetPayloadCollectionsFn)(ZothSessionRef session, int32_t kind, const char* code,
                                           ZothCollectionID** collections);
typedef int (*ZothGetCollectionFn)(ZothSessionRef session, ZothCollectionID collection,
                                   ZothCollectionRecord* record);
/* Adds the payload to the collection, or records it again when it is there: version (not
 * empty, at most ZOTH_MAX_VERSION_LENGTH bytes), name and note are the payload's texts (a
 * null name or note keeps the stored one); the collection's modification time becomes now. */
typedef int (*ZothAddPayloadFn)(ZothSessionRef session, ZothCollectionID collection,
                                const char* code, const char* version, const char* name,
                                const char* note, int32_t payloadAttributes);
typedef int (*ZothGetPayloadDataFn)(ZothSessionRef session, const char* code, int32_t domain,
                                    const char* key, const char** value);
/* The same data as zothGetPayloadData, arguments in the order of the cache interface. */
typedef int (*ZothGetDomainDataFn)(ZothSessionRef session, int32_t domain, const char* code,
                                   const char* key, const char** value);
/* Chooses the database file of the sessions opened afterwards in this process; null goes
 * back to the default (the environment variable ORVEL_ZOTH_DB when set, else
 * /var/opt/Orvel/zoth/zoth.db). */
typedef int (*ZothSetDatabasePathFn)(const char* path);

#ifdef __cplusplus
}
#endif

#endif
