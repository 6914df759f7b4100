#include "target/ZOTHService.h"

#include <cstdio>
#include <cstring>

namespace {
// The process's client; created and destroyed only by the class operations.
ZOTHService* gInstance = nullptr;
} // namespace

ZOTHService::ZOTHService(std::string libraryPath, bool useCache, KVRServiceLoader& loader)
    : KVRService(loader), _useCache(useCache), _libraryPath(std::move(libraryPath)) {
    _loader.AddLibraryName(_libraryPath);
}

ZOTHService::~ZOTHService() {
    if (!_session)
        return;
    const int status = CloseSession(_session);
    _session = nullptr;
    if (status != kZothNoError)
        std::fprintf(stderr, "Couldn't close ZOTH session, error = %d\n", status);
}

void ZOTHService::CreateInstance(const std::string& libraryPath, bool useCache) {
    if (!gInstance)
        gInstance = new ZOTHService(libraryPath, useCache);
}

ZOTHService* ZOTHService::GetInstance(bool) {
    return gInstance;
}

void ZOTHService::ReleaseInstance() {
    delete gInstance;
    gInstance = nullptr;
}

const char* ZOTHService::ErrorString(int code) {
    return ZothStatusText(code);
}

template <typename Fn> Fn ZOTHService::Function(const char* name) {
    return reinterpret_cast<Fn>(_loader.FunctionPointerForName(_libraryPath, name));
}

int ZOTHService::Initialize() {
    if (_session)
        return kZothNoError;
    return _useCache ? OpenCacheSession(&_session) : OpenSession(&_session);
}

void ZOTHService::EnsureSession() {
    // A failure shows in the status of the call that follows, made without a session.
    if (!_session)
        (void)Initialize();
}

ZothSessionRef ZOTHService::Session() {
    EnsureSession();
    return _session;
}

int ZOTHService::OpenSession(ZothSessionRef* session) {
    auto open = Function<ZothOpenSessionFn>(ZOTH_FN_OPEN_SESSION);
    return open ? open(session) : kFunctionMissing;
}

int ZOTHService::OpenCacheSession(ZothSessionRef* session) {
    auto open = Function<ZothOpenCacheSessionFn>(ZOTH_FN_OPEN_CACHE_SESSION);
    return open ? open(session) : kFunctionMissing;
}

int ZOTHService::CloseSession(ZothSessionRef session) {
    auto close = Function<ZothCloseSessionFn>(ZOTH_FN_CLOSE_SESSION);
    return close ? close(session) : kFunctionMissing;
}

int ZOTHService::SessionCommit(ZothSessionRef session) {
    auto commit = Function<ZothSessionCommitFn>(ZOTH_FN_SESSION_COMMIT);
    return commit ? commit(session) : kFunctionMissing;
}

int ZOTHService::GetVersionUsingPayloadID(const char* code, char* buffer) {
    EnsureSession();
    auto getPayload = Function<ZothGetPayloadFn>(ZOTH_FN_GET_PAYLOAD);
    if (!getPayload)
        return kFunctionMissing;
    ZothPayloadRecord record{};
    const int status = getPayload(_session, code, &record);
    if (status != kZothNoError || !buffer)
        return status;
    // The library never stores longer versions; the bound keeps a foreign one from
    // overrunning the caller's buffer.
    const char* version = record.version ? record.version : "";
    const size_t length = ::strnlen(version, ZOTH_MAX_VERSION_LENGTH);
    std::memcpy(buffer, version, length);
    buffer[length] = '\0';
    return status;
}

int ZOTHService::InstallationOf(const char* code, ZothPayloadRecord& payload,
                                ZothCollectionID& collection) {
    EnsureSession();
    auto getPayload = Function<ZothGetPayloadFn>(ZOTH_FN_GET_PAYLOAD);
    if (!getPayload)
        return kFunctionMissing;
    (void)getPayload(_session, code, &payload);
    auto getCollections = Function<ZothGetPayloadCollectionsFn>(ZOTH_FN_GET_PAYLOAD_COLLECTIONS);
    if (!getCollections)
        return kFunctionMissing;
    ZothCollectionID* collections = nullptr;
    const int status =
        getCollections(_session, ZOTH_COLLECTION_KIND_INSTALLATION, code, &collections);
    if (status != kZothNoError)
        return status;
    if (!collections || collections[0] == 0)
        return kZothRecordNotFoundError;
    collection = collections[0];
    return kZothNoError;
}

int ZOTHService::GetTimeStamps(const char* code, int32_t* installed, int32_t* modified) {
    ZothPayloadRecord payload{};
    ZothCollectionID installation = 0;
    int status = InstallationOf(code, payload, installation);
    if (status != kZothNoError)
        return status;
    auto getCollection = Function<ZothGetCollectionFn>(ZOTH_FN_GET_COLLECTION);
    if (!getCollection)
        return kFunctionMissing;
    ZothCollectionRecord collection{};
    status = getCollection(_session, installation, &collection);
    if (status != kZothNoError)
        return status;
    if (installed)
        *installed = collection.timeInstalled;
    if (modified)
        *modified = collection.timeModified;
    return kZothNoError;
}

int ZOTHService::UpdateVersion(const char* code, const char* version, const char* name,
                               const char* note) {
    ZothPayloadRecord payload{};
    ZothCollectionID installation = 0;
    const int status = InstallationOf(code, payload, installation);
    if (status != kZothNoError)
        return status;
    auto addPayload = Function<ZothAddPayloadFn>(ZOTH_FN_ADD_PAYLOAD);
    if (!addPayload)
        return kFunctionMissing;
    return addPayload(_session, installation, code, version, name, note, payload.payloadAttributes);
}

int ZOTHService::GetDomainData(int32_t domain, const char* code, const char* key,
                               const char** value) {
    EnsureSession();
    if (value)
        *value = nullptr;
    if (!_useCache) {
        auto getData = Function<ZothGetPayloadDataFn>(ZOTH_FN_GET_PAYLOAD_DATA);
        return getData ? getData(_session, code, domain, key, value) : kFunctionMissing;
    }
    auto getData = Function<ZothGetDomainDataFn>(ZOTH_FN_GET_DOMAIN_DATA);
    return getData ? getData(_session, domain, code, key, value) : kFunctionMissing;
}

int ZOTHService::ReadKVRDomainDataKey(const char* code, const char* key, const char** value) {
    return GetDomainData(ZOTH_DOMAIN_KVR, code, key, value);
}

int ZOTHService::ReadDomainDataKey(const char* code, const char* key, const char** value) {
    return GetDomainData(ZOTH_DOMAIN_PAYLOAD, code, key, value);
}

namespace {

int CopyOut(int status, const char* text, char** value) {
    if (status == kZothNoError && text) {
        *value = ::strdup(text);
        if (!*value)
            return kZothMemoryError;
    }
    return status;
}

int ReadValue(int32_t domain, const char* code, const char* key, char** value) {
    if (!value)
        return kZothParameterError;
    *value = nullptr;
    ZOTHService* service = ZOTHService::GetInstance(false);
    if (!service)
        return ZOTHService::kFunctionMissing;
    const char* text = nullptr;
    const int status = service->GetDomainData(domain, code, key, &text);
    return CopyOut(status, text, value);
}

} // namespace

extern "C" {

void InstantiateZOTHService(const char* libraryPath) {
    ZOTHService::CreateInstance(libraryPath ? libraryPath : "", false);
}

void ReleaseZOTHService(void) {
    ZOTHService::ReleaseInstance();
}

int GetInstallDirFromZOTH(const char* code, char** value) {
    return ReadValue(ZOTH_DOMAIN_PAYLOAD, code, "INSTALLDIR", value);
}

int GetInstallLanguageFromZOTH(const char* code, char** value) {
    return ReadValue(ZOTH_DOMAIN_PAYLOAD, code, "installLanguage", value);
}

int GetKVRFilePathFromZOTH(const char* code, char** value) {
    return ReadValue(ZOTH_DOMAIN_PAYLOAD, code, "KVRConfigPath", value);
}

int GetKVRFilePathFromZOTHForKVRDomain(const char* code, char** value) {
    return ReadValue(ZOTH_DOMAIN_KVR, code, "KVRConfigPath", value);
}

int GetVersionFromZOTH(const char* code, char* buffer) {
    ZOTHService* service = ZOTHService::GetInstance(false);
    return service ? service->GetVersionUsingPayloadID(code, buffer)
                   : ZOTHService::kFunctionMissing;
}

int GetInstalledAndModifiedTimeStime(const char* code, int32_t* installed, int32_t* modified) {
    ZOTHService* service = ZOTHService::GetInstance(false);
    return service ? service->GetTimeStamps(code, installed, modified)
                   : ZOTHService::kFunctionMissing;
}

int UpdateVersionInZOTH(const char* code, const char* version, const char* name, const char* note) {
    ZOTHService* service = ZOTHService::GetInstance(false);
    return service ? service->UpdateVersion(code, version, name, note)
                   : ZOTHService::kFunctionMissing;
}

} // extern "C"

std::optional<std::string> ReadZOTHValue(int (*function)(const char*, char**),
                                         const std::string& code, int* status) {
    char* raw = nullptr;
    const int result = function(code.c_str(), &raw);
    ZOTHString value(raw);
    if (status)
        *status = result;
    if (result != kZothNoError || !value)
        return std::nullopt;
    return std::string(value.get());
}
