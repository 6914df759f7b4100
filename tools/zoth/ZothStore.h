#pragma once

#include "target/ZothRecords.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

// The installation database over SQLite, shared by the orvel_zoth library and zothctl.
//
// Layout: payload (one row per installation code; codes compare without regard to ASCII
// case, as GUIDs do), collection (a group of payloads with its installation and modification
// times), collection_member, and domain_data (key/value texts of a payload per domain). The
// file carries application_id 'ZOTH' and user_version 1; any other file is refused.
//
// Locking: SQLite's rollback journal with a busy time-out. Any number of readers and one
// writer may use the file at the same time; a reader waits (up to the time-out) only for
// the moment a writer commits. The rollback journal rather than WAL because the patcher
// and other unprivileged readers must be able to read a database in a folder they cannot
// write, which WAL's shared-memory file does not allow.
namespace zoth {

constexpr const char* kDefaultDatabasePath = "/var/opt/Orvel/zoth/zoth.db";
// Environment variables read when a database is opened: another database file (tests and
// staging installs) and another busy time-out in milliseconds.
constexpr const char* kDatabasePathVariable = "ORVEL_ZOTH_DB";
constexpr const char* kBusyTimeoutVariable = "ORVEL_ZOTH_BUSY_TIMEOUT_MS";
constexpr int kDefaultBusyTimeoutMs = 5000;

// ORVEL_ZOTH_DB when set and not empty, else kDefaultDatabasePath.
std::string DefaultDatabasePath();
// The ZothStatus for an SQLite result code.
int StatusFromSqlite(int sqliteCode);

struct PayloadInfo {
    int64_t id = 0;
    std::string code;
    std::string version;
    std::string name;
    std::string note;
    int32_t attributes = 0;
};

struct CollectionInfo {
    int64_t id = 0;
    int32_t kind = 0;
    int64_t installed = 0;
    int64_t modified = 0;
};

struct DomainValue {
    int32_t domain = 0;
    std::string key;
    std::string value;
};

// What an installer records for a new installation.
struct Installation {
    std::string code;
    std::string installDir;
    std::optional<std::string> language;
    std::string version;
    std::optional<std::string> kvrPath; // recorded in the payload and in the KVR domain
    int64_t installed = 0;
    int64_t modified = 0;
};

enum class OpenMode {
    ReadWrite, // an existing database; read-only when the file cannot be written
    Create,    // as ReadWrite, creating the file and its layout when missing
    Snapshot,  // an in-memory copy of the database taken now, read-only
};

class Store {
public:
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Opens the database at path. Returns a ZothStatus; store is set only on success.
    // Missing or damaged files give kZothResourceError, a file of another layout
    // kZothIncompatibleSchemaError, a file that may not be read kZothAuthorizationError.
    [[nodiscard]] static int open(const std::string& path, OpenMode mode,
                                  std::unique_ptr<Store>& store);

    bool isSnapshot() const { return _snapshot; }

    // Reads. kZothRecordNotFoundError when the code (or collection, or key) is unknown.
    [[nodiscard]] int getPayload(const std::string& code, PayloadInfo& payload);
    [[nodiscard]] int getCollections(const std::string& code, int32_t kind,
                                     std::vector<ZothCollectionID>& collections);
    [[nodiscard]] int getCollection(int64_t id, CollectionInfo& collection);
    [[nodiscard]] int getData(const std::string& code, int32_t domain, const std::string& key,
                              std::string& value);
    [[nodiscard]] int allData(const std::string& code, std::vector<DomainValue>& values);
    [[nodiscard]] int listCodes(std::vector<std::string>& codes);

    // Writes. Each runs inside the store's open transaction when there is one (see begin),
    // else in a transaction of its own.
    [[nodiscard]] int addPayload(int64_t collection, const std::string& code,
                                 const std::string& version, const char* name, const char* note,
                                 int32_t attributes);
    // A new payload in a new collection of kind ZOTH_COLLECTION_KIND_INSTALLATION with its
    // domain data; kZothRecordExistsError when the code is registered already.
    [[nodiscard]] int registerInstallation(const Installation& installation);
    [[nodiscard]] int setData(const std::string& code, int32_t domain, const std::string& key,
                              const std::string& value);
    [[nodiscard]] int setVersion(const std::string& code, const std::string& version);
    // Sets the times of every installation collection of the payload.
    [[nodiscard]] int setTimes(const std::string& code, std::optional<int64_t> installed,
                               std::optional<int64_t> modified);
    // Removes the payload, its data, and collections left without members.
    [[nodiscard]] int removePayload(const std::string& code);

    // A write transaction that stays open until commit or rollback; waits up to the busy
    // time-out for other writers.
    [[nodiscard]] int begin();
    [[nodiscard]] int commit();
    void rollback();
    bool inTransaction() const { return _inTransaction; }

private:
    explicit Store(sqlite3* db, bool snapshot) : _db(db), _snapshot(snapshot) {}
    [[nodiscard]] int checkLayout();
    [[nodiscard]] int createLayout();
    [[nodiscard]] int exec(const char* sql);
    // Runs body inside the open transaction, or inside a new one committed on success.
    template <typename Body> int writing(Body body);
    // As writing, for a change to one payload: body(id) runs with the payload's row id, and
    // not at all (not found) when code names no payload.
    template <typename Body> int writingPayload(const std::string& code, Body body);
    [[nodiscard]] int payloadId(const std::string& code, int64_t& id);

    sqlite3* _db;
    bool _snapshot;
    bool _inTransaction = false;
};

} // namespace zoth
