// The installation database client against the real orvel_zoth library and databases made
// by zothctl.
#include "target/ZOTHService.h"

#include "TestSupport.h"
#include "target/ZothClientTestSupport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cctype>
#include <chrono>
#include <cstring>
#include <vector>

namespace {

const char* const kCode = "{6A1B2C3D-0000-4000-8000-00000000A001}";

class ZOTHServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RunZothctl(db(), {"add", "--code", kCode, "--installdir", "/opt/Orvel/Suite",
                                    "--language", "ja_JP", "--version", "12.0.1", "--kvr",
                                    "/opt/Orvel/Suite/App.app/Contents/Resources/App.kvr",
                                    "--installed", "1600000000", "--modified", "1600000900"}),
                  0);
        ASSERT_EQ(RunZothctl(db(), {"set", "--code", kCode, "--domain", "4", "KVRConfigPath",
                                    "/media/Other/Suite/App.app/Contents/Resources/App.kvr"}),
                  0);
    }
    void TearDown() override { ReleaseZOTHService(); }
    std::string db() const { return _dir.file("zoth.db"); }

    TempDir _dir;
    ScopedEnvironment _database{"ORVEL_ZOTH_DB", _dir.file("zoth.db")};
};

TEST_F(ZOTHServiceTest, ReadsEveryValueThroughTheCFunctions) {
    InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    ZOTHService* service = ZOTHService::GetInstance(false);
    ASSERT_NE(service, nullptr);
    EXPECT_FALSE(service->usesCache());
    EXPECT_FALSE(service->hasSession());
    EXPECT_EQ(service->UILanguage(), "en_US");

    int status = -2;
    EXPECT_EQ(ReadZOTHValue(GetInstallDirFromZOTH, kCode, &status), "/opt/Orvel/Suite");
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(service->hasSession());
    EXPECT_EQ(ReadZOTHValue(GetInstallLanguageFromZOTH, kCode), "ja_JP");
    EXPECT_EQ(ReadZOTHValue(GetKVRFilePathFromZOTH, kCode),
              "/opt/Orvel/Suite/App.app/Contents/Resources/App.kvr");
    EXPECT_EQ(ReadZOTHValue(GetKVRFilePathFromZOTHForKVRDomain, kCode),
              "/media/Other/Suite/App.app/Contents/Resources/App.kvr");

    char version[ZOTH_VERSION_BUFFER_SIZE] = "";
    EXPECT_EQ(GetVersionFromZOTH(kCode, version), 0);
    EXPECT_STREQ(version, "12.0.1");
    int32_t installed = 0;
    int32_t modified = 0;
    EXPECT_EQ(GetInstalledAndModifiedTimeStime(kCode, &installed, &modified), 0);
    EXPECT_EQ(installed, 1600000000);
    EXPECT_EQ(modified, 1600000900);
}

TEST_F(ZOTHServiceTest, UnknownCodesAndCodesWithQuotes) {
    InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    const std::vector<std::string> codes = {"{unknown}", "{6A1B2C3D' OR '1'='1}",
                                            "\"" + std::string(kCode) + "\"",
                                            std::string(kCode) + "';--"};
    for (const std::string& code : codes) {
        char* value = reinterpret_cast<char*>(1);
        EXPECT_EQ(GetInstallDirFromZOTH(code.c_str(), &value), kZothRecordNotFoundError);
        EXPECT_EQ(value, nullptr);
        char version[ZOTH_VERSION_BUFFER_SIZE] = "kept";
        EXPECT_EQ(GetVersionFromZOTH(code.c_str(), version), kZothRecordNotFoundError);
        EXPECT_STREQ(version, "kept");
        int32_t installed = 7;
        int32_t modified = 8;
        EXPECT_EQ(GetInstalledAndModifiedTimeStime(code.c_str(), &installed, &modified),
                  kZothRecordNotFoundError);
        EXPECT_EQ(installed, 7);
        EXPECT_EQ(UpdateVersionInZOTH(code.c_str(), "1", "n", "c"), kZothRecordNotFoundError);
    }
    // The codes compare without regard to case, as GUIDs do.
    std::string lower = kCode;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(ReadZOTHValue(GetInstallDirFromZOTH, lower), "/opt/Orvel/Suite");
}

TEST_F(ZOTHServiceTest, ASecondInstantiationIsIgnored) {
    InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    ZOTHService* first = ZOTHService::GetInstance(false);
    InstantiateZOTHService("/nonexistent/orvel_zoth");
    ZOTHService::CreateInstance("/nonexistent/orvel_zoth", true);
    EXPECT_EQ(ZOTHService::GetInstance(true), first);
    EXPECT_EQ(first->libraryPath(), ZOTH_LIBRARY_PATH);
    EXPECT_FALSE(first->usesCache());
    EXPECT_EQ(ReadZOTHValue(GetInstallDirFromZOTH, kCode), "/opt/Orvel/Suite");
    ReleaseZOTHService();
    EXPECT_EQ(ZOTHService::GetInstance(false), nullptr);
    ReleaseZOTHService();
}

TEST_F(ZOTHServiceTest, WithoutALibraryEveryCallGivesMinusOne) {
    TempDir dir;
    WriteTextFile(dir.file("orvel_zoth"), "not a library");
    const std::vector<std::string> paths = {dir.file("missing/orvel_zoth"), dir.file("orvel_zoth"),
                                            "libc.so.6"};
    for (const std::string& path : paths) {
        InstantiateZOTHService(path.c_str());
        ZOTHService* service = ZOTHService::GetInstance(false);
        ASSERT_NE(service, nullptr);
        char* value = nullptr;
        EXPECT_EQ(GetInstallDirFromZOTH(kCode, &value), -1) << path;
        EXPECT_EQ(value, nullptr);
        EXPECT_EQ(GetInstallLanguageFromZOTH(kCode, &value), -1);
        EXPECT_EQ(GetKVRFilePathFromZOTH(kCode, &value), -1);
        EXPECT_EQ(GetKVRFilePathFromZOTHForKVRDomain(kCode, &value), -1);
        char version[ZOTH_VERSION_BUFFER_SIZE] = "";
        EXPECT_EQ(GetVersionFromZOTH(kCode, version), -1);
        int32_t installed = 0;
        int32_t modified = 0;
        EXPECT_EQ(GetInstalledAndModifiedTimeStime(kCode, &installed, &modified), -1);
        EXPECT_EQ(UpdateVersionInZOTH(kCode, "1", "2", "3"), -1);
        EXPECT_EQ(service->Initialize(), -1);
        EXPECT_EQ(service->Session(), nullptr);
        ZothSessionRef session = nullptr;
        EXPECT_EQ(service->OpenSession(&session), -1);
        EXPECT_EQ(service->OpenCacheSession(&session), -1);
        EXPECT_EQ(service->CloseSession(session), -1);
        EXPECT_EQ(service->SessionCommit(session), -1);
        // Still usable: the same client answers again.
        EXPECT_EQ(ZOTHService::GetInstance(false), service);
        EXPECT_EQ(GetInstallDirFromZOTH(kCode, &value), -1);
        ReleaseZOTHService();
    }
    // Without any client.
    char* value = nullptr;
    EXPECT_EQ(GetInstallDirFromZOTH(kCode, &value), -1);
    char version[ZOTH_VERSION_BUFFER_SIZE] = "";
    EXPECT_EQ(GetVersionFromZOTH(kCode, version), -1);
}

TEST_F(ZOTHServiceTest, TheLibraryIsOpenedAtTheFirstLookupAndTheSessionAtTheFirstRead) {
    KVRServiceLoader loader;
    ZOTHService service(ZOTH_LIBRARY_PATH, false, loader);
    EXPECT_TRUE(loader.HasLibraryName(ZOTH_LIBRARY_PATH));
    EXPECT_FALSE(loader.IsLibraryOpen(ZOTH_LIBRARY_PATH));
    EXPECT_FALSE(service.hasSession());
    const char* value = nullptr;
    ASSERT_EQ(service.ReadDomainDataKey(kCode, "INSTALLDIR", &value), 0);
    EXPECT_STREQ(value, "/opt/Orvel/Suite");
    EXPECT_TRUE(loader.IsLibraryOpen(ZOTH_LIBRARY_PATH));
    ZothSessionRef session = service.Session();
    EXPECT_NE(session, nullptr);
    EXPECT_EQ(service.Initialize(), 0);
    EXPECT_EQ(service.Session(), session);
    ASSERT_EQ(service.ReadKVRDomainDataKey(kCode, "KVRConfigPath", &value), 0);
    EXPECT_STREQ(value, "/media/Other/Suite/App.app/Contents/Resources/App.kvr");
    EXPECT_EQ(service.SessionCommit(session), 0);
}

TEST_F(ZOTHServiceTest, TheCacheVariantReadsASnapshotThroughTheDomainFunction) {
    KVRServiceLoader loader;
    ZOTHService service(ZOTH_LIBRARY_PATH, true, loader);
    const char* value = nullptr;
    ASSERT_EQ(service.GetDomainData(0, kCode, "INSTALLDIR", &value), 0);
    EXPECT_STREQ(value, "/opt/Orvel/Suite");
    ASSERT_EQ(RunZothctl(db(), {"set", "--code", kCode, "INSTALLDIR", "/opt/Moved"}), 0);
    ASSERT_EQ(service.GetDomainData(0, kCode, "INSTALLDIR", &value), 0);
    EXPECT_STREQ(value, "/opt/Orvel/Suite");
    EXPECT_EQ(service.UpdateVersion(kCode, "13.0", nullptr, nullptr), kZothAuthorizationError);
}

TEST_F(ZOTHServiceTest, UpdateVersionIsKeptWhenTheClientIsReleased) {
    InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    ASSERT_EQ(UpdateVersionInZOTH(kCode, "12.0.2", "Suite", "patched"), 0);
    char version[ZOTH_VERSION_BUFFER_SIZE] = "";
    ASSERT_EQ(GetVersionFromZOTH(kCode, version), 0);
    EXPECT_STREQ(version, "12.0.2");
    ReleaseZOTHService();

    const std::string out = _dir.file("show.txt");
    ASSERT_EQ(RunProgram({ZOTHCTL_PATH, "--db", db(), "show", "--code", kCode}, {}, out), 0);
    EXPECT_NE(ReadTextFile(out).find("  version: 12.0.2\n"), std::string::npos);
    EXPECT_NE(ReadTextFile(out).find("  installed: 1600000000\n"), std::string::npos);
    EXPECT_EQ(UpdateVersionInZOTH(kCode, "x", "y", "z"), -1);
}

TEST_F(ZOTHServiceTest, AFailedCloseIsReportedOnStandardError) {
    ScopedEnvironment timeout("ORVEL_ZOTH_BUSY_TIMEOUT_MS", "200");
    InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    ASSERT_EQ(UpdateVersionInZOTH(kCode, "12.5", nullptr, nullptr), 0);
    // A reader in the middle of a transaction keeps the commit from finishing.
    sqlite3* reader = nullptr;
    ASSERT_EQ(sqlite3_open(db().c_str(), &reader), SQLITE_OK);
    ASSERT_EQ(
        sqlite3_exec(reader, "BEGIN; SELECT count(*) FROM payload;", nullptr, nullptr, nullptr),
        SQLITE_OK);
    {
        LogCapture capture;
        ReleaseZOTHService();
        EXPECT_NE(capture.text().find("Couldn't close ZOTH session, error = 14\n"),
                  std::string::npos)
            << capture.text();
    }
    ASSERT_EQ(sqlite3_exec(reader, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(reader);
    InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    char version[ZOTH_VERSION_BUFFER_SIZE] = "";
    ASSERT_EQ(GetVersionFromZOTH(kCode, version), 0);
    EXPECT_STREQ(version, "12.0.1");
}

TEST_F(ZOTHServiceTest, CorruptAndLockedDatabasesGiveStatusesWithoutHanging) {
    WriteTextFile(_dir.file("corrupt.db"), std::string(3000, 'Z'));
    {
        ScopedEnvironment corrupt("ORVEL_ZOTH_DB", _dir.file("corrupt.db"));
        InstantiateZOTHService(ZOTH_LIBRARY_PATH);
        EXPECT_EQ(ZOTHService::GetInstance()->Initialize(), kZothResourceError);
        char* value = nullptr;
        EXPECT_EQ(GetInstallDirFromZOTH(kCode, &value), kZothInvalidSessionError);
        EXPECT_EQ(value, nullptr);
        ReleaseZOTHService();
    }
    ScopedEnvironment timeout("ORVEL_ZOTH_BUSY_TIMEOUT_MS", "250");
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(db().c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ZOTHService::GetInstance()->Initialize(), kZothLockTimeoutError);
    char* value = nullptr;
    EXPECT_EQ(GetInstallDirFromZOTH(kCode, &value), kZothInvalidSessionError);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    ASSERT_EQ(sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(holder);
    // The lock is gone: the same client opens its session now.
    EXPECT_EQ(ReadZOTHValue(GetInstallDirFromZOTH, kCode), "/opt/Orvel/Suite");
}

TEST(ZOTHServiceErrors, ErrorStringTable) {
    const char* const texts[] = {"No Error",
                                 "ZOTH initialization error",
                                 "ZOTH de-initialization error",
                                 "ZOTH memory error",
                                 "ZOTH disk error",
                                 "ZOTH resource missing or damaged error",
                                 "ZOTH unknown error",
                                 "ZOTH record already exists error",
                                 "ZOTH record not found error",
                                 "ZOTH invalid session error",
                                 "ZOTH parameter error",
                                 "ZOTH authorization error",
                                 "ZOTH internal error",
                                 "ZOTH incompatible schema error",
                                 "ZOTH lock timeout error",
                                 "ZOTH thread error"};
    for (int code = 0; code <= 15; ++code)
        EXPECT_STREQ(ZOTHService::ErrorString(code), texts[code]) << code;
    for (int code : {16, 17, 100, -1, -100})
        EXPECT_STREQ(ZOTHService::ErrorString(code), "ZOTH unknown error") << code;
}

TEST(KVRService, UserInterfaceLanguage) {
    KVRServiceLoader loader;
    ZOTHService service("/nonexistent", false, loader);
    EXPECT_EQ(service.UILanguage(), "en_US");
    service.SetUILanguage("de_DE");
    EXPECT_EQ(service.UILanguage(), "de_DE");
}

} // namespace
