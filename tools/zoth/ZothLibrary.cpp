// The exported functions of the orvel_zoth library. Each session owns its own connection to
// the database; a handle is checked against the table of open sessions before use, so a
// stale or foreign handle gives kZothInvalidSessionError instead of a crash. No exception
// leaves the library.
#include "ZothStore.h"
#include "target/ZothRecords.h"

#include <climits>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#define ZOTH_EXPORT extern "C" __attribute__((visibility("default")))

struct ZothSession {
    std::mutex mutex; // one call at a time per session
    std::unique_ptr<zoth::Store> store;
    // What the last calls handed out; valid until the next like call or the close.
    std::string version;
    std::string code;
    std::string value;
    std::vector<ZothCollectionID> collections;
};

namespace {

std::mutex gSessionsMutex;
std::map<ZothSessionRef, std::shared_ptr<ZothSession>> gSessions;
std::optional<std::string> gDatabasePath;

std::string DatabasePath() {
    std::lock_guard lock(gSessionsMutex);
    return gDatabasePath ? *gDatabasePath : zoth::DefaultDatabasePath();
}

std::shared_ptr<ZothSession> FindSession(ZothSessionRef handle) {
    std::lock_guard lock(gSessionsMutex);
    auto it = gSessions.find(handle);
    return it == gSessions.end() ? nullptr : it->second;
}

int OpenSession(ZothSessionRef* handle, zoth::OpenMode mode) {
    if (!handle)
        return kZothParameterError;
    *handle = nullptr;
    auto session = std::make_shared<ZothSession>();
    if (int status = zoth::Store::open(DatabasePath(), mode, session->store))
        return status;
    std::lock_guard lock(gSessionsMutex);
    gSessions.emplace(session.get(), session);
    *handle = session.get();
    return kZothNoError;
}

// Runs body with the locked session; turns exceptions into status codes.
template <typename Body> int WithSession(ZothSessionRef handle, Body body) {
    try {
        auto session = FindSession(handle);
        if (!session)
            return kZothInvalidSessionError;
        std::lock_guard lock(session->mutex);
        return body(*session);
    } catch (const std::bad_alloc&) {
        return kZothMemoryError;
    } catch (...) {
        return kZothInternalError;
    }
}

int Guarded(int (*body)(ZothSessionRef*), ZothSessionRef* handle) {
    try {
        return body(handle);
    } catch (const std::bad_alloc&) {
        return kZothMemoryError;
    } catch (...) {
        return kZothInternalError;
    }
}

int GetData(ZothSessionRef handle, const char* code, int32_t domain, const char* key,
            const char** value) {
    if (!value)
        return kZothParameterError;
    *value = nullptr;
    if (!code || !key)
        return kZothParameterError;
    return WithSession(handle, [&](ZothSession& session) {
        std::string text;
        if (int status = session.store->getData(code, domain, key, text))
            return status;
        session.value = std::move(text);
        *value = session.value.c_str();
        return static_cast<int>(kZothNoError);
    });
}

} // namespace

ZOTH_EXPORT int zothOpenSession(ZothSessionRef* session) {
    return Guarded(
        [](ZothSessionRef* handle) { return OpenSession(handle, zoth::OpenMode::ReadWrite); },
        session);
}

ZOTH_EXPORT int zothOpenCacheSession(ZothSessionRef* session) {
    return Guarded(
        [](ZothSessionRef* handle) { return OpenSession(handle, zoth::OpenMode::Snapshot); },
        session);
}

ZOTH_EXPORT int zothCloseSession(ZothSessionRef handle) {
    try {
        std::shared_ptr<ZothSession> session;
        {
            std::lock_guard lock(gSessionsMutex);
            auto it = gSessions.find(handle);
            if (it == gSessions.end())
                return kZothInvalidSessionError;
            session = it->second;
            gSessions.erase(it);
        }
        std::lock_guard lock(session->mutex);
        return session->store->commit();
    } catch (...) {
        return kZothDeinitializationError;
    }
}

ZOTH_EXPORT int zothSessionCommit(ZothSessionRef handle) {
    return WithSession(handle, [](ZothSession& session) { return session.store->commit(); });
}

ZOTH_EXPORT int zothGetPayload(ZothSessionRef handle, const char* code, ZothPayloadRecord* record) {
    if (!code || !record)
        return kZothParameterError;
    return WithSession(handle, [&](ZothSession& session) {
        zoth::PayloadInfo payload;
        if (int status = session.store->getPayload(code, payload))
            return status;
        if (payload.version.size() > ZOTH_MAX_VERSION_LENGTH || payload.id > INT32_MAX)
            return static_cast<int>(kZothResourceError);
        session.version = std::move(payload.version);
        session.code = std::move(payload.code);
        *record = ZothPayloadRecord{};
        record->recordSize = static_cast<int32_t>(sizeof(ZothPayloadRecord));
        record->payloadID = static_cast<int32_t>(payload.id);
        record->state = 1;
        record->version = session.version.c_str();
        record->payloadAttributes = payload.attributes;
        record->code = session.code.c_str();
        return static_cast<int>(kZothNoError);
    });
}

ZOTH_EXPORT int zothGetPayloadCollections(ZothSessionRef handle, int32_t kind, const char* code,
                                          ZothCollectionID** collections) {
    if (!collections)
        return kZothParameterError;
    *collections = nullptr;
    if (!code)
        return kZothParameterError;
    return WithSession(handle, [&](ZothSession& session) {
        std::vector<ZothCollectionID> found;
        if (int status = session.store->getCollections(code, kind, found))
            return status;
        found.push_back(0);
        session.collections = std::move(found);
        *collections = session.collections.data();
        return static_cast<int>(kZothNoError);
    });
}

ZOTH_EXPORT int zothGetCollection(ZothSessionRef handle, ZothCollectionID collection,
                                  ZothCollectionRecord* record) {
    if (!record || collection <= 0)
        return kZothParameterError;
    return WithSession(handle, [&](ZothSession& session) {
        zoth::CollectionInfo info;
        if (int status = session.store->getCollection(collection, info))
            return status;
        // The record's times are 32-bit words; a database holding other values is damaged.
        if (info.installed < INT32_MIN || info.installed > INT32_MAX || info.modified < INT32_MIN ||
            info.modified > INT32_MAX)
            return static_cast<int>(kZothResourceError);
        *record = ZothCollectionRecord{};
        record->recordSize = static_cast<int32_t>(sizeof(ZothCollectionRecord));
        record->collectionID = collection;
        record->timeInstalled = static_cast<int32_t>(info.installed);
        record->timeModified = static_cast<int32_t>(info.modified);
        record->kind = info.kind;
        return static_cast<int>(kZothNoError);
    });
}

ZOTH_EXPORT int zothAddPayload(ZothSessionRef handle, ZothCollectionID collection, const char* code,
                               const char* version, const char* name, const char* note,
                               int32_t payloadAttributes) {
    if (!code || !version || collection <= 0)
        return kZothParameterError;
    return WithSession(handle, [&](ZothSession& session) {
        // The change joins the session's transaction, committed by zothSessionCommit or
        // zothCloseSession.
        if (int status = session.store->begin())
            return status;
        return session.store->addPayload(collection, code, version, name, note, payloadAttributes);
    });
}

ZOTH_EXPORT int zothGetPayloadData(ZothSessionRef handle, const char* code, int32_t domain,
                                   const char* key, const char** value) {
    return GetData(handle, code, domain, key, value);
}

ZOTH_EXPORT int zothGetDomainData(ZothSessionRef handle, int32_t domain, const char* code,
                                  const char* key, const char** value) {
    return GetData(handle, code, domain, key, value);
}

ZOTH_EXPORT int zothSetDatabasePath(const char* path) {
    try {
        std::lock_guard lock(gSessionsMutex);
        if (path && !*path)
            return kZothParameterError;
        gDatabasePath = path ? std::optional<std::string>(path) : std::nullopt;
        return kZothNoError;
    } catch (...) {
        return kZothMemoryError;
    }
}
