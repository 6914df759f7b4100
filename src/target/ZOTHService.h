#pragma once

#include "target/KVRService.h"
#include "target/ZothRecords.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

// The client of the installation database library (orvel_zoth), which is loaded by path and
// called by function name. Every operation returns the library's status (0 success, see
// ErrorString) or kFunctionMissing when the library or the function cannot be found; each
// function is looked up again at every use. Data operations open the session first when
// none is open. One client exists per process (CreateInstance / GetInstance /
// ReleaseInstance), used from the main thread.
class ZOTHService : public KVRService {
public:
    static constexpr int kFunctionMissing = -1;

    // A client of the library at libraryPath; the library is entered in the loader now and
    // opened at the first lookup. With useCache, sessions are opened with the cache variant
    // and domain data are read with the domain function.
    ZOTHService(std::string libraryPath, bool useCache,
                KVRServiceLoader& loader = KVRServiceLoader::sharedInstance());
    // Closes an open session; a failure is written to standard error as
    // "Couldn't close ZOTH session, error = %d".
    ~ZOTHService() override;

    // Makes the process's client when there is none; later calls change nothing.
    static void CreateInstance(const std::string& libraryPath, bool useCache);
    // The process's client, or nullptr. The argument is not used.
    static ZOTHService* GetInstance(bool create = false);
    // Destroys the process's client (closing its session).
    static void ReleaseInstance();

    // The text of a library status; unknown codes give "ZOTH unknown error".
    static const char* ErrorString(int code);

    // Opens the session when none is open (the cache variant when the cache flag is set).
    // The status of the opening; 0 when a session was open already.
    [[nodiscard]] int Initialize();
    // The session, opened first when there is none; nullptr when it cannot be opened.
    ZothSessionRef Session();

    // Direct calls of the like-named library functions.
    [[nodiscard]] int OpenSession(ZothSessionRef* session);
    [[nodiscard]] int OpenCacheSession(ZothSessionRef* session);
    [[nodiscard]] int CloseSession(ZothSessionRef session);
    [[nodiscard]] int SessionCommit(ZothSessionRef session);

    // Copies the recorded version of the payload into buffer, which must hold
    // ZOTH_VERSION_BUFFER_SIZE bytes. The buffer is untouched unless the status is 0.
    [[nodiscard]] int GetVersionUsingPayloadID(const char* code, char* buffer);
    // The installation and modification times of the payload's first installation
    // collection. The outputs are untouched unless the status is 0.
    [[nodiscard]] int GetTimeStamps(const char* code, int32_t* installed, int32_t* modified);
    // Adds the payload again to its first installation collection with the three texts
    // (version, name, note), keeping the record's other words.
    [[nodiscard]] int UpdateVersion(const char* code, const char* version, const char* name,
                                    const char* note);
    // A value of the payload's data in the domain. *value points into the session and
    // stays valid until the next read or the session's close; nullptr unless the status
    // is 0.
    [[nodiscard]] int GetDomainData(int32_t domain, const char* code, const char* key,
                                    const char** value);
    [[nodiscard]] int ReadKVRDomainDataKey(const char* code, const char* key, const char** value);
    [[nodiscard]] int ReadDomainDataKey(const char* code, const char* key, const char** value);

    bool usesCache() const { return _useCache; }
    const std::string& libraryPath() const { return _libraryPath; }
    bool hasSession() const { return _session != nullptr; }

private:
    template <typename Fn> Fn Function(const char* name);
    void EnsureSession();
    // The payload record of code (left empty when the library has none) and the first
    // installation collection that holds it; the library's status, or kFunctionMissing.
    int InstallationOf(const char* code, ZothPayloadRecord& payload, ZothCollectionID& collection);

    ZothSessionRef _session = nullptr;
    bool _useCache;
    std::string _libraryPath;
};

// The functions the rest of the program calls. Each returns the library's status, or -1
// when there is no client or the library or a function cannot be found.
extern "C" {
// Makes the process's client, without the cache flag, for the library at the path (first
// call only).
void InstantiateZOTHService(const char* libraryPath);
// Destroys the process's client.
void ReleaseZOTHService(void);
// Domain 0 values "INSTALLDIR", "installLanguage", "KVRConfigPath", and "KVRConfigPath" of
// the KVR domain. On status 0, *value receives a copy to release with free(); otherwise
// nullptr.
int GetInstallDirFromZOTH(const char* code, char** value);
int GetInstallLanguageFromZOTH(const char* code, char** value);
int GetKVRFilePathFromZOTH(const char* code, char** value);
int GetKVRFilePathFromZOTHForKVRDomain(const char* code, char** value);
// The recorded version into buffer (ZOTH_VERSION_BUFFER_SIZE bytes).
int GetVersionFromZOTH(const char* code, char* buffer);
int GetInstalledAndModifiedTimeStime(const char* code, int32_t* installed, int32_t* modified);
// Adds the payload record again with the three texts.
int UpdateVersionInZOTH(const char* code, const char* version, const char* name, const char* note);
}

// Owns a text handed out by the functions above.
struct ZOTHStringDeleter {
    void operator()(char* text) const { std::free(text); }
};
using ZOTHString = std::unique_ptr<char, ZOTHStringDeleter>;

// Calls one of the value functions above; the value, or nothing when the status is not 0.
std::optional<std::string> ReadZOTHValue(int (*function)(const char*, char**),
                                         const std::string& code, int* status = nullptr);
