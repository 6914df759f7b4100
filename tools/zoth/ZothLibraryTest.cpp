// The built orvel_zoth library, loaded by path as the patcher loads it, over databases
// made by zothctl.
#include "target/ZothRecords.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <dlfcn.h>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

int Zothctl(const std::vector<std::string>& args, const std::string& stderrPath = {}) {
    std::vector<std::string> argv{ZOTHCTL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, {}, {}, stderrPath);
}

class ZothLibraryTest : public ::testing::Test {
protected:
    void SetUp() override {
        _handle = ::dlopen(ZOTH_LIBRARY_PATH, RTLD_LAZY | RTLD_LOCAL);
        ASSERT_NE(_handle, nullptr) << ::dlerror();
        ASSERT_EQ(Zothctl({"--db", db(), "add", "--code", "{GUID-1}", "--installdir",
                           "/opt/Orvel/Suite", "--language", "fr_FR", "--version", "4.2.0", "--kvr",
                           "/opt/Orvel/Suite/App.app/Contents/App.kvr", "--installed", "1700000000",
                           "--modified", "1700000500"}),
                  0);
        ASSERT_EQ(fn<ZothSetDatabasePathFn>(ZOTH_FN_SET_DATABASE_PATH)(db().c_str()), 0);
    }
    void TearDown() override {
        if (_handle) {
            (void)fn<ZothSetDatabasePathFn>(ZOTH_FN_SET_DATABASE_PATH)(nullptr);
            ::dlclose(_handle);
        }
    }
    template <typename Fn> Fn fn(const char* name) {
        void* symbol = ::dlsym(_handle, name);
        EXPECT_NE(symbol, nullptr) << name;
        return reinterpret_cast<Fn>(symbol);
    }
    std::string db() const { return _dir.file("zoth.db"); }
    ZothSessionRef open() {
        ZothSessionRef session = nullptr;
        EXPECT_EQ(fn<ZothOpenSessionFn>(ZOTH_FN_OPEN_SESSION)(&session), 0);
        return session;
    }
    int close(ZothSessionRef session) {
        return fn<ZothCloseSessionFn>(ZOTH_FN_CLOSE_SESSION)(session);
    }

    TempDir _dir;
    void* _handle = nullptr;
};

TEST_F(ZothLibraryTest, ExportsExactlyTheClientFunctions) {
    for (const char* name :
         {ZOTH_FN_OPEN_SESSION, ZOTH_FN_OPEN_CACHE_SESSION, ZOTH_FN_CLOSE_SESSION,
          ZOTH_FN_SESSION_COMMIT, ZOTH_FN_GET_PAYLOAD, ZOTH_FN_GET_PAYLOAD_COLLECTIONS,
          ZOTH_FN_GET_COLLECTION, ZOTH_FN_ADD_PAYLOAD, ZOTH_FN_GET_PAYLOAD_DATA,
          ZOTH_FN_GET_DOMAIN_DATA, ZOTH_FN_SET_DATABASE_PATH})
        EXPECT_NE(::dlsym(_handle, name), nullptr) << name;

    // Nothing else is visible: the store stays inside.
    const std::string symbols = _dir.file("symbols.txt");
    if (RunProgram({"nm", "-D", "--defined-only", ZOTH_LIBRARY_PATH}, {}, symbols) != 0)
        GTEST_SKIP() << "nm is not available";
    std::set<std::string> exported;
    std::istringstream lines(ReadTextFile(symbols));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string address, type, name;
        if (fields >> address >> type >> name && (type == "T" || type == "W"))
            exported.insert(name);
    }
    EXPECT_EQ(exported, (std::set<std::string>{
                            "zothOpenSession", "zothOpenCacheSession", "zothCloseSession",
                            "zothSessionCommit", "zothGetPayload", "zothGetPayloadCollections",
                            "zothGetCollection", "zothAddPayload", "zothGetPayloadData",
                            "zothGetDomainData", "zothSetDatabasePath"}));
}

TEST_F(ZothLibraryTest, FillsTheNamedWordsOfTheRecords) {
    ZothSessionRef session = open();
    ASSERT_NE(session, nullptr);
    ZothPayloadRecord payload{};
    ASSERT_EQ(fn<ZothGetPayloadFn>(ZOTH_FN_GET_PAYLOAD)(session, "{guid-1}", &payload), 0);
    EXPECT_EQ(payload.recordSize, static_cast<int32_t>(sizeof(ZothPayloadRecord)));
    ASSERT_NE(payload.version, nullptr);
    EXPECT_STREQ(payload.version, "4.2.0");
    EXPECT_STREQ(payload.code, "{GUID-1}");

    ZothCollectionID* collections = nullptr;
    ASSERT_EQ(fn<ZothGetPayloadCollectionsFn>(ZOTH_FN_GET_PAYLOAD_COLLECTIONS)(
                  session, ZOTH_COLLECTION_KIND_INSTALLATION, "{GUID-1}", &collections),
              0);
    ASSERT_NE(collections, nullptr);
    EXPECT_GT(collections[0], 0);
    EXPECT_EQ(collections[1], 0);
    ZothCollectionRecord collection{};
    ASSERT_EQ(fn<ZothGetCollectionFn>(ZOTH_FN_GET_COLLECTION)(session, collections[0], &collection),
              0);
    EXPECT_EQ(collection.timeInstalled, 1700000000);
    EXPECT_EQ(collection.timeModified, 1700000500);
    EXPECT_EQ(collection.kind, 2);

    const char* value = nullptr;
    auto payloadData = fn<ZothGetPayloadDataFn>(ZOTH_FN_GET_PAYLOAD_DATA);
    auto domainData = fn<ZothGetDomainDataFn>(ZOTH_FN_GET_DOMAIN_DATA);
    ASSERT_EQ(payloadData(session, "{GUID-1}", 0, "INSTALLDIR", &value), 0);
    EXPECT_STREQ(value, "/opt/Orvel/Suite");
    ASSERT_EQ(domainData(session, 0, "{GUID-1}", "installLanguage", &value), 0);
    EXPECT_STREQ(value, "fr_FR");
    ASSERT_EQ(domainData(session, 4, "{GUID-1}", "KVRConfigPath", &value), 0);
    EXPECT_STREQ(value, "/opt/Orvel/Suite/App.app/Contents/App.kvr");
    EXPECT_EQ(payloadData(session, "{GUID-1}", 4, "INSTALLDIR", &value), kZothRecordNotFoundError);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(close(session), 0);
}

TEST_F(ZothLibraryTest, UnknownCodesQuotesAndBadArguments) {
    ZothSessionRef session = open();
    const char* value = "untouched";
    auto payloadData = fn<ZothGetPayloadDataFn>(ZOTH_FN_GET_PAYLOAD_DATA);
    EXPECT_EQ(payloadData(session, "{nobody}", 0, "INSTALLDIR", &value), kZothRecordNotFoundError);
    EXPECT_EQ(payloadData(session, "{GUID-1}' OR '1'='1", 0, "INSTALLDIR", &value),
              kZothRecordNotFoundError);
    EXPECT_EQ(payloadData(session, "\"{GUID-1}\"", 0, "INSTALLDIR", &value),
              kZothRecordNotFoundError);
    EXPECT_EQ(payloadData(session, nullptr, 0, "INSTALLDIR", &value), kZothParameterError);
    EXPECT_EQ(payloadData(session, "{GUID-1}", 0, "INSTALLDIR", nullptr), kZothParameterError);
    ZothPayloadRecord payload{};
    EXPECT_EQ(fn<ZothGetPayloadFn>(ZOTH_FN_GET_PAYLOAD)(session, "{nobody}", &payload),
              kZothRecordNotFoundError);
    EXPECT_EQ(payload.version, nullptr);
    ZothCollectionID* collections = nullptr;
    EXPECT_EQ(fn<ZothGetPayloadCollectionsFn>(ZOTH_FN_GET_PAYLOAD_COLLECTIONS)(
                  session, 2, "{nobody}", &collections),
              kZothRecordNotFoundError);
    ZothCollectionRecord collection{};
    EXPECT_EQ(fn<ZothGetCollectionFn>(ZOTH_FN_GET_COLLECTION)(session, 12345, &collection),
              kZothRecordNotFoundError);
    EXPECT_EQ(fn<ZothOpenSessionFn>(ZOTH_FN_OPEN_SESSION)(nullptr), kZothParameterError);
    EXPECT_EQ(close(session), 0);
}

TEST_F(ZothLibraryTest, StaleAndForeignSessionHandlesAreRefused) {
    ZothSessionRef session = open();
    ASSERT_EQ(close(session), 0);
    const char* value = nullptr;
    auto payloadData = fn<ZothGetPayloadDataFn>(ZOTH_FN_GET_PAYLOAD_DATA);
    EXPECT_EQ(payloadData(session, "{GUID-1}", 0, "INSTALLDIR", &value), kZothInvalidSessionError);
    EXPECT_EQ(payloadData(nullptr, "{GUID-1}", 0, "INSTALLDIR", &value), kZothInvalidSessionError);
    int notASession = 0;
    EXPECT_EQ(payloadData(reinterpret_cast<ZothSessionRef>(&notASession), "{GUID-1}", 0,
                          "INSTALLDIR", &value),
              kZothInvalidSessionError);
    EXPECT_EQ(close(session), kZothInvalidSessionError);
    EXPECT_EQ(fn<ZothSessionCommitFn>(ZOTH_FN_SESSION_COMMIT)(nullptr), kZothInvalidSessionError);
}

TEST_F(ZothLibraryTest, AddedPayloadsAreKeptWhenTheSessionCloses) {
    ZothSessionRef session = open();
    ZothPayloadRecord payload{};
    ASSERT_EQ(fn<ZothGetPayloadFn>(ZOTH_FN_GET_PAYLOAD)(session, "{GUID-1}", &payload), 0);
    ZothCollectionID* collections = nullptr;
    ASSERT_EQ(fn<ZothGetPayloadCollectionsFn>(ZOTH_FN_GET_PAYLOAD_COLLECTIONS)(
                  session, 2, "{GUID-1}", &collections),
              0);
    ASSERT_EQ(fn<ZothAddPayloadFn>(ZOTH_FN_ADD_PAYLOAD)(session, collections[0], "{GUID-1}",
                                                        "4.3.0", "Suite", "patched",
                                                        payload.payloadAttributes),
              0);
    // Not yet visible to another session: the change waits for the commit.
    ZothSessionRef other = nullptr;
    ASSERT_EQ(fn<ZothOpenCacheSessionFn>(ZOTH_FN_OPEN_CACHE_SESSION)(&other), 0);
    ZothPayloadRecord seen{};
    ASSERT_EQ(fn<ZothGetPayloadFn>(ZOTH_FN_GET_PAYLOAD)(other, "{GUID-1}", &seen), 0);
    EXPECT_STREQ(seen.version, "4.2.0");
    EXPECT_EQ(fn<ZothAddPayloadFn>(ZOTH_FN_ADD_PAYLOAD)(other, collections[0], "{GUID-1}", "9",
                                                        nullptr, nullptr, 0),
              kZothAuthorizationError);
    EXPECT_EQ(close(other), 0);
    EXPECT_EQ(close(session), 0);

    session = open();
    ASSERT_EQ(fn<ZothGetPayloadFn>(ZOTH_FN_GET_PAYLOAD)(session, "{GUID-1}", &seen), 0);
    EXPECT_STREQ(seen.version, "4.3.0");
    EXPECT_EQ(close(session), 0);
}

TEST_F(ZothLibraryTest, DatabaseChoiceByFunctionAndEnvironment) {
    ASSERT_EQ(fn<ZothSetDatabasePathFn>(ZOTH_FN_SET_DATABASE_PATH)(nullptr), 0);
    ::setenv("ORVEL_ZOTH_DB", db().c_str(), 1);
    ZothSessionRef session = open();
    EXPECT_NE(session, nullptr);
    EXPECT_EQ(close(session), 0);
    ::setenv("ORVEL_ZOTH_DB", _dir.file("missing.db").c_str(), 1);
    session = reinterpret_cast<ZothSessionRef>(1);
    EXPECT_EQ(fn<ZothOpenSessionFn>(ZOTH_FN_OPEN_SESSION)(&session), kZothResourceError);
    EXPECT_EQ(session, nullptr);
    ::unsetenv("ORVEL_ZOTH_DB");
    EXPECT_EQ(fn<ZothSetDatabasePathFn>(ZOTH_FN_SET_DATABASE_PATH)(""), kZothParameterError);
}

TEST_F(ZothLibraryTest, CorruptAndLockedDatabases) {
    WriteTextFile(_dir.file("corrupt.db"), "SQLite format 3 but not really\n");
    ASSERT_EQ(fn<ZothSetDatabasePathFn>(ZOTH_FN_SET_DATABASE_PATH)(_dir.file("corrupt.db").c_str()),
              0);
    ZothSessionRef session = nullptr;
    EXPECT_EQ(fn<ZothOpenSessionFn>(ZOTH_FN_OPEN_SESSION)(&session), kZothResourceError);
    EXPECT_EQ(fn<ZothOpenCacheSessionFn>(ZOTH_FN_OPEN_CACHE_SESSION)(&session), kZothResourceError);

    ASSERT_EQ(fn<ZothSetDatabasePathFn>(ZOTH_FN_SET_DATABASE_PATH)(db().c_str()), 0);
    ::setenv("ORVEL_ZOTH_BUSY_TIMEOUT_MS", "200", 1);
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(db().c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fn<ZothOpenSessionFn>(ZOTH_FN_OPEN_SESSION)(&session), kZothLockTimeoutError);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    ASSERT_EQ(sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(holder);
    ::unsetenv("ORVEL_ZOTH_BUSY_TIMEOUT_MS");
    session = open();
    EXPECT_EQ(close(session), 0);
}

} // namespace
