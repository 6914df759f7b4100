#include "ZothStore.h"

#include <sqlite3.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace zoth {
namespace {

// 'ZOTH' in the database header, so a foreign SQLite file is told apart from ours.
constexpr int kApplicationId = 0x5A4F5448;
constexpr int kLayoutVersion = 1;

constexpr const char* kLayout = R"sql(
CREATE TABLE payload(
  id INTEGER PRIMARY KEY,
  code TEXT NOT NULL UNIQUE COLLATE NOCASE,
  version TEXT NOT NULL DEFAULT '',
  name TEXT NOT NULL DEFAULT '',
  note TEXT NOT NULL DEFAULT '',
  attributes INTEGER NOT NULL DEFAULT 0);
CREATE TABLE collection(
  id INTEGER PRIMARY KEY,
  kind INTEGER NOT NULL,
  installed INTEGER NOT NULL,
  modified INTEGER NOT NULL);
CREATE TABLE collection_member(
  collection INTEGER NOT NULL REFERENCES collection(id) ON DELETE CASCADE,
  payload INTEGER NOT NULL REFERENCES payload(id) ON DELETE CASCADE,
  PRIMARY KEY(collection, payload));
CREATE TABLE domain_data(
  payload INTEGER NOT NULL REFERENCES payload(id) ON DELETE CASCADE,
  domain INTEGER NOT NULL,
  key TEXT NOT NULL,
  value TEXT NOT NULL,
  PRIMARY KEY(payload, domain, key));
PRAGMA application_id = 1515148360;
PRAGMA user_version = 1;
)sql";
static_assert(kApplicationId == 1515148360, "the layout text repeats the application id");

struct StatementDeleter {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

struct DatabaseDeleter {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Database = std::unique_ptr<sqlite3, DatabaseDeleter>;

int Prepare(sqlite3* db, const char* sql, Statement& statement) {
    sqlite3_stmt* raw = nullptr;
    const int rc = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
    statement.reset(raw);
    return StatusFromSqlite(rc);
}

int BindText(sqlite3_stmt* statement, int index, const std::string& text) {
    return StatusFromSqlite(sqlite3_bind_text(statement, index, text.data(),
                                              static_cast<int>(text.size()), SQLITE_TRANSIENT));
}

std::string ColumnText(sqlite3_stmt* statement, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    return text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement, column)))
                : std::string();
}

// Steps a statement that returns no rows.
int Run(sqlite3_stmt* statement) {
    const int rc = sqlite3_step(statement);
    return rc == SQLITE_DONE ? kZothNoError : StatusFromSqlite(rc);
}

int BusyTimeoutMs() {
    const char* text = std::getenv(kBusyTimeoutVariable);
    if (!text || !*text)
        return kDefaultBusyTimeoutMs;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < 0 || value > INT_MAX)
        return kDefaultBusyTimeoutMs;
    return static_cast<int>(value);
}

int OpenConnection(const std::string& path, int flags, Database& db) {
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    db.reset(raw);
    if (rc != SQLITE_OK)
        return StatusFromSqlite(rc);
    sqlite3_extended_result_codes(raw, 1);
    sqlite3_busy_timeout(raw, BusyTimeoutMs());
    return kZothNoError;
}

// Creates the missing folders of the database's folder, mode 0755.
bool CreateParentFolders(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return true;
    const std::string folder = path.substr(0, slash);
    struct stat info {};
    if (::stat(folder.c_str(), &info) == 0)
        return S_ISDIR(info.st_mode);
    if (!CreateParentFolders(folder))
        return false;
    return ::mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST;
}

} // namespace

std::string DefaultDatabasePath() {
    const char* path = std::getenv(kDatabasePathVariable);
    return path && *path ? std::string(path) : std::string(kDefaultDatabasePath);
}

int StatusFromSqlite(int sqliteCode) {
    switch (sqliteCode & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return kZothNoError;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return kZothLockTimeoutError;
    case SQLITE_NOMEM:
        return kZothMemoryError;
    case SQLITE_IOERR:
    case SQLITE_FULL:
        return kZothDiskError;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CANTOPEN:
    case SQLITE_EMPTY:
    case SQLITE_FORMAT:
        return kZothResourceError;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
        return kZothAuthorizationError;
    case SQLITE_CONSTRAINT:
        return kZothRecordExistsError;
    case SQLITE_MISUSE:
    case SQLITE_RANGE:
    case SQLITE_TOOBIG:
        return kZothParameterError;
    case SQLITE_SCHEMA:
        return kZothIncompatibleSchemaError;
    default:
        return kZothInternalError;
    }
}

// Steps a query that should give a row: kZothNoError on a row, not found when there is
// none, else the failure.
int StepToRow(sqlite3_stmt* statement) {
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW)
        return kZothNoError;
    if (rc == SQLITE_DONE)
        return kZothRecordNotFoundError;
    return StatusFromSqlite(rc);
}

Store::~Store() {
    if (_inTransaction)
        rollback();
    sqlite3_close_v2(_db);
}

int Store::open(const std::string& path, OpenMode mode, std::unique_ptr<Store>& store) {
    if (path.empty())
        return kZothParameterError;
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        if (errno == EACCES)
            return kZothAuthorizationError;
        if (mode != OpenMode::Create)
            return kZothResourceError;
        if (!CreateParentFolders(path))
            return errno == EACCES ? kZothAuthorizationError : kZothDiskError;
    } else {
        if (!S_ISREG(info.st_mode))
            return kZothResourceError;
        if (::access(path.c_str(), R_OK) != 0)
            return kZothAuthorizationError;
    }

    int flags = SQLITE_OPEN_FULLMUTEX;
    if (mode == OpenMode::Snapshot)
        flags |= SQLITE_OPEN_READONLY;
    else
        flags |= SQLITE_OPEN_READWRITE | (mode == OpenMode::Create ? SQLITE_OPEN_CREATE : 0);
    Database db;
    if (int status = OpenConnection(path, flags, db))
        return status;
    std::unique_ptr<Store> opened(new Store(db.release(), false));
    if (int status = opened->exec("PRAGMA foreign_keys = ON"))
        return status;
    int status = opened->checkLayout();
    if (status == kZothRecordNotFoundError)
        status = mode == OpenMode::Create ? opened->createLayout() : kZothResourceError;
    if (status != kZothNoError)
        return status;
    if (mode != OpenMode::Snapshot) {
        store = std::move(opened);
        return kZothNoError;
    }

    // The copy is taken inside a read transaction of the file, so it waits for a writer's
    // commit like any reader and sees one consistent state.
    Database memory;
    if (int openStatus = OpenConnection(
            ":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, memory))
        return openStatus;
    if (int beginStatus = opened->exec("BEGIN; SELECT count(*) FROM payload;"))
        return beginStatus;
    sqlite3_backup* backup = sqlite3_backup_init(memory.get(), "main", opened->_db, "main");
    if (!backup) {
        opened->rollback();
        return StatusFromSqlite(sqlite3_errcode(memory.get()));
    }
    const int rc = sqlite3_backup_step(backup, -1);
    sqlite3_backup_finish(backup);
    opened->rollback();
    if (rc != SQLITE_DONE)
        return StatusFromSqlite(rc);
    store.reset(new Store(memory.release(), true));
    return kZothNoError;
}

int Store::exec(const char* sql) {
    Statement statement;
    const char* rest = sql;
    while (rest && *rest) {
        sqlite3_stmt* raw = nullptr;
        const char* tail = nullptr;
        int rc = sqlite3_prepare_v2(_db, rest, -1, &raw, &tail);
        statement.reset(raw);
        if (rc != SQLITE_OK)
            return StatusFromSqlite(rc);
        rest = tail;
        if (!raw)
            continue;
        while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
        }
        if (rc != SQLITE_DONE)
            return StatusFromSqlite(rc);
    }
    return kZothNoError;
}

// kZothRecordNotFoundError for an empty database that still needs its layout.
int Store::checkLayout() {
    Statement statement;
    int applicationId = 0;
    int layoutVersion = 0;
    if (int status = Prepare(_db, "PRAGMA application_id", statement))
        return status;
    int rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW)
        return StatusFromSqlite(rc == SQLITE_DONE ? SQLITE_CORRUPT : rc);
    applicationId = sqlite3_column_int(statement.get(), 0);
    if (int status = Prepare(_db, "PRAGMA user_version", statement))
        return status;
    rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW)
        return StatusFromSqlite(rc == SQLITE_DONE ? SQLITE_CORRUPT : rc);
    layoutVersion = sqlite3_column_int(statement.get(), 0);
    if (applicationId == kApplicationId)
        return layoutVersion == kLayoutVersion ? kZothNoError : kZothIncompatibleSchemaError;
    if (applicationId != 0 || layoutVersion != 0)
        return kZothIncompatibleSchemaError;
    if (int status = Prepare(_db, "SELECT count(*) FROM sqlite_master", statement))
        return status;
    rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW)
        return StatusFromSqlite(rc);
    return sqlite3_column_int(statement.get(), 0) == 0 ? kZothRecordNotFoundError
                                                       : kZothIncompatibleSchemaError;
}

int Store::createLayout() {
    if (int status = exec("BEGIN IMMEDIATE"))
        return status;
    // Another process may have made the layout while this one waited for the lock.
    int status = checkLayout();
    if (status == kZothRecordNotFoundError)
        status = exec(kLayout);
    if (status == kZothNoError)
        status = exec("COMMIT");
    if (status != kZothNoError)
        (void)exec("ROLLBACK");
    return status;
}

int Store::begin() {
    if (_snapshot)
        return kZothAuthorizationError;
    if (_inTransaction)
        return kZothNoError;
    if (int status = exec("BEGIN IMMEDIATE"))
        return status;
    _inTransaction = true;
    return kZothNoError;
}

int Store::commit() {
    if (!_inTransaction)
        return kZothNoError;
    const int status = exec("COMMIT");
    if (status != kZothNoError)
        rollback();
    _inTransaction = false;
    return status;
}

void Store::rollback() {
    if (sqlite3_get_autocommit(_db) == 0)
        (void)exec("ROLLBACK");
    _inTransaction = false;
}

template <typename Body> int Store::writing(Body body) {
    if (_snapshot)
        return kZothAuthorizationError;
    if (_inTransaction || sqlite3_get_autocommit(_db) == 0) {
        if (int status = exec("SAVEPOINT write_step"))
            return status;
        const int status = body();
        if (status != kZothNoError)
            (void)exec("ROLLBACK TO write_step");
        (void)exec("RELEASE write_step");
        return status;
    }
    if (int status = exec("BEGIN IMMEDIATE"))
        return status;
    int status = body();
    if (status == kZothNoError)
        status = exec("COMMIT");
    if (status != kZothNoError && sqlite3_get_autocommit(_db) == 0)
        (void)exec("ROLLBACK");
    return status;
}

template <typename Body> int Store::writingPayload(const std::string& code, Body body) {
    return writing([&]() -> int {
        int64_t id = 0;
        if (int status = payloadId(code, id))
            return status;
        return body(id);
    });
}

int Store::payloadId(const std::string& code, int64_t& id) {
    Statement statement;
    if (int status = Prepare(_db, "SELECT id FROM payload WHERE code = ?1", statement))
        return status;
    if (int status = BindText(statement.get(), 1, code))
        return status;
    if (int status = StepToRow(statement.get()))
        return status;
    id = sqlite3_column_int64(statement.get(), 0);
    return kZothNoError;
}

int Store::getPayload(const std::string& code, PayloadInfo& payload) {
    Statement statement;
    if (int status = Prepare(
            _db, "SELECT id, code, version, name, note, attributes FROM payload WHERE code = ?1",
            statement))
        return status;
    if (int status = BindText(statement.get(), 1, code))
        return status;
    if (int status = StepToRow(statement.get()))
        return status;
    payload.id = sqlite3_column_int64(statement.get(), 0);
    payload.code = ColumnText(statement.get(), 1);
    payload.version = ColumnText(statement.get(), 2);
    payload.name = ColumnText(statement.get(), 3);
    payload.note = ColumnText(statement.get(), 4);
    payload.attributes = static_cast<int32_t>(sqlite3_column_int(statement.get(), 5));
    return kZothNoError;
}

int Store::getCollections(const std::string& code, int32_t kind,
                          std::vector<ZothCollectionID>& collections) {
    collections.clear();
    Statement statement;
    if (int status = Prepare(_db,
                             "SELECT c.id FROM collection c"
                             " JOIN collection_member m ON m.collection = c.id"
                             " JOIN payload p ON p.id = m.payload"
                             " WHERE p.code = ?1 AND c.kind = ?2 ORDER BY c.id",
                             statement))
        return status;
    if (int status = BindText(statement.get(), 1, code))
        return status;
    sqlite3_bind_int(statement.get(), 2, kind);
    int rc;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
        const int64_t id = sqlite3_column_int64(statement.get(), 0);
        if (id <= 0 || id > INT32_MAX)
            return kZothInternalError;
        collections.push_back(static_cast<ZothCollectionID>(id));
    }
    if (rc != SQLITE_DONE)
        return StatusFromSqlite(rc);
    return collections.empty() ? kZothRecordNotFoundError : kZothNoError;
}

int Store::getCollection(int64_t id, CollectionInfo& collection) {
    Statement statement;
    if (int status = Prepare(_db, "SELECT kind, installed, modified FROM collection WHERE id = ?1",
                             statement))
        return status;
    sqlite3_bind_int64(statement.get(), 1, id);
    if (int status = StepToRow(statement.get()))
        return status;
    collection.id = id;
    collection.kind = sqlite3_column_int(statement.get(), 0);
    collection.installed = sqlite3_column_int64(statement.get(), 1);
    collection.modified = sqlite3_column_int64(statement.get(), 2);
    return kZothNoError;
}

int Store::getData(const std::string& code, int32_t domain, const std::string& key,
                   std::string& value) {
    Statement statement;
    if (int status = Prepare(_db,
                             "SELECT d.value FROM domain_data d JOIN payload p ON p.id = d.payload"
                             " WHERE p.code = ?1 AND d.domain = ?2 AND d.key = ?3",
                             statement))
        return status;
    if (int status = BindText(statement.get(), 1, code))
        return status;
    sqlite3_bind_int(statement.get(), 2, domain);
    if (int status = BindText(statement.get(), 3, key))
        return status;
    if (int status = StepToRow(statement.get()))
        return status;
    value = ColumnText(statement.get(), 0);
    return kZothNoError;
}

int Store::allData(const std::string& code, std::vector<DomainValue>& values) {
    values.clear();
    int64_t id = 0;
    if (int status = payloadId(code, id))
        return status;
    Statement statement;
    if (int status = Prepare(_db,
                             "SELECT domain, key, value FROM domain_data WHERE payload = ?1"
                             " ORDER BY domain, key",
                             statement))
        return status;
    sqlite3_bind_int64(statement.get(), 1, id);
    int rc;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW)
        values.push_back({sqlite3_column_int(statement.get(), 0), ColumnText(statement.get(), 1),
                          ColumnText(statement.get(), 2)});
    return rc == SQLITE_DONE ? kZothNoError : StatusFromSqlite(rc);
}

int Store::listCodes(std::vector<std::string>& codes) {
    codes.clear();
    Statement statement;
    if (int status = Prepare(_db, "SELECT code FROM payload ORDER BY code", statement))
        return status;
    int rc;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW)
        codes.push_back(ColumnText(statement.get(), 0));
    return rc == SQLITE_DONE ? kZothNoError : StatusFromSqlite(rc);
}

namespace {
bool ValidVersion(const std::string& version) {
    return !version.empty() && version.size() <= ZOTH_MAX_VERSION_LENGTH;
}
} // namespace

int Store::addPayload(int64_t collection, const std::string& code, const std::string& version,
                      const char* name, const char* note, int32_t attributes) {
    if (code.empty() || !ValidVersion(version))
        return kZothParameterError;
    return writing([&]() -> int {
        CollectionInfo existing;
        if (int status = getCollection(collection, existing))
            return status;
        Statement statement;
        if (int status = Prepare(_db,
                                 "INSERT INTO payload(code, version, name, note, attributes)"
                                 " VALUES(?1, ?2, coalesce(?3, ''), coalesce(?4, ''), ?5)"
                                 " ON CONFLICT(code) DO UPDATE SET version = excluded.version,"
                                 " name = coalesce(?3, name), note = coalesce(?4, note),"
                                 " attributes = excluded.attributes",
                                 statement))
            return status;
        if (int status = BindText(statement.get(), 1, code))
            return status;
        if (int status = BindText(statement.get(), 2, version))
            return status;
        if (name)
            (void)BindText(statement.get(), 3, name);
        if (note)
            (void)BindText(statement.get(), 4, note);
        sqlite3_bind_int(statement.get(), 5, attributes);
        if (int status = Run(statement.get()))
            return status;
        int64_t id = 0;
        if (int status = payloadId(code, id))
            return status;
        if (int status = Prepare(_db,
                                 "INSERT OR IGNORE INTO collection_member(collection, payload)"
                                 " VALUES(?1, ?2)",
                                 statement))
            return status;
        sqlite3_bind_int64(statement.get(), 1, collection);
        sqlite3_bind_int64(statement.get(), 2, id);
        if (int status = Run(statement.get()))
            return status;
        if (int status =
                Prepare(_db, "UPDATE collection SET modified = ?1 WHERE id = ?2", statement))
            return status;
        sqlite3_bind_int64(statement.get(), 1, static_cast<int64_t>(::time(nullptr)));
        sqlite3_bind_int64(statement.get(), 2, collection);
        return Run(statement.get());
    });
}

int Store::registerInstallation(const Installation& installation) {
    if (installation.code.empty() || installation.installDir.empty() ||
        installation.version.size() > ZOTH_MAX_VERSION_LENGTH)
        return kZothParameterError;
    return writing([&]() -> int {
        int64_t id = 0;
        int status = payloadId(installation.code, id);
        if (status == kZothNoError)
            return kZothRecordExistsError;
        if (status != kZothRecordNotFoundError)
            return status;
        Statement statement;
        if ((status = Prepare(_db, "INSERT INTO payload(code, version) VALUES(?1, ?2)", statement)))
            return status;
        (void)BindText(statement.get(), 1, installation.code);
        (void)BindText(statement.get(), 2, installation.version);
        if ((status = Run(statement.get())))
            return status;
        id = sqlite3_last_insert_rowid(_db);
        if ((status = Prepare(_db,
                              "INSERT INTO collection(kind, installed, modified)"
                              " VALUES(?1, ?2, ?3)",
                              statement)))
            return status;
        sqlite3_bind_int(statement.get(), 1, ZOTH_COLLECTION_KIND_INSTALLATION);
        sqlite3_bind_int64(statement.get(), 2, installation.installed);
        sqlite3_bind_int64(statement.get(), 3, installation.modified);
        if ((status = Run(statement.get())))
            return status;
        const int64_t collection = sqlite3_last_insert_rowid(_db);
        if ((status =
                 Prepare(_db, "INSERT INTO collection_member(collection, payload) VALUES(?1, ?2)",
                         statement)))
            return status;
        sqlite3_bind_int64(statement.get(), 1, collection);
        sqlite3_bind_int64(statement.get(), 2, id);
        if ((status = Run(statement.get())))
            return status;
        if ((status = setData(installation.code, ZOTH_DOMAIN_PAYLOAD, "INSTALLDIR",
                              installation.installDir)))
            return status;
        if (installation.language && (status = setData(installation.code, ZOTH_DOMAIN_PAYLOAD,
                                                       "installLanguage", *installation.language)))
            return status;
        if (installation.kvrPath) {
            if ((status = setData(installation.code, ZOTH_DOMAIN_PAYLOAD, "KVRConfigPath",
                                  *installation.kvrPath)))
                return status;
            if ((status = setData(installation.code, ZOTH_DOMAIN_KVR, "KVRConfigPath",
                                  *installation.kvrPath)))
                return status;
        }
        return kZothNoError;
    });
}

int Store::setData(const std::string& code, int32_t domain, const std::string& key,
                   const std::string& value) {
    if (key.empty())
        return kZothParameterError;
    return writingPayload(code, [&](int64_t id) -> int {
        Statement statement;
        if (int status = Prepare(_db,
                                 "INSERT INTO domain_data(payload, domain, key, value)"
                                 " VALUES(?1, ?2, ?3, ?4) ON CONFLICT(payload, domain, key)"
                                 " DO UPDATE SET value = excluded.value",
                                 statement))
            return status;
        sqlite3_bind_int64(statement.get(), 1, id);
        sqlite3_bind_int(statement.get(), 2, domain);
        (void)BindText(statement.get(), 3, key);
        (void)BindText(statement.get(), 4, value);
        return Run(statement.get());
    });
}

int Store::setVersion(const std::string& code, const std::string& version) {
    if (!ValidVersion(version))
        return kZothParameterError;
    return writingPayload(code, [&](int64_t id) -> int {
        Statement statement;
        if (int status = Prepare(_db, "UPDATE payload SET version = ?1 WHERE id = ?2", statement))
            return status;
        (void)BindText(statement.get(), 1, version);
        sqlite3_bind_int64(statement.get(), 2, id);
        return Run(statement.get());
    });
}

int Store::setTimes(const std::string& code, std::optional<int64_t> installed,
                    std::optional<int64_t> modified) {
    return writingPayload(code, [&](int64_t id) -> int {
        Statement statement;
        if (int status = Prepare(_db,
                                 "UPDATE collection SET installed = coalesce(?1, installed),"
                                 " modified = coalesce(?2, modified)"
                                 " WHERE kind = ?3 AND id IN"
                                 " (SELECT collection FROM collection_member WHERE payload = ?4)",
                                 statement))
            return status;
        if (installed)
            sqlite3_bind_int64(statement.get(), 1, *installed);
        if (modified)
            sqlite3_bind_int64(statement.get(), 2, *modified);
        sqlite3_bind_int(statement.get(), 3, ZOTH_COLLECTION_KIND_INSTALLATION);
        sqlite3_bind_int64(statement.get(), 4, id);
        if (int status = Run(statement.get()))
            return status;
        return sqlite3_changes(_db) > 0 ? kZothNoError : kZothRecordNotFoundError;
    });
}

int Store::removePayload(const std::string& code) {
    return writingPayload(code, [&](int64_t id) -> int {
        Statement statement;
        if (int status = Prepare(_db, "DELETE FROM payload WHERE id = ?1", statement))
            return status;
        sqlite3_bind_int64(statement.get(), 1, id);
        if (int status = Run(statement.get()))
            return status;
        return exec("DELETE FROM collection WHERE id NOT IN"
                    " (SELECT collection FROM collection_member)");
    });
}

} // namespace zoth
