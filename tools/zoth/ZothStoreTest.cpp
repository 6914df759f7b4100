#include "ZothStore.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using zoth::OpenMode;
using zoth::Store;

zoth::Installation SampleInstallation(const std::string& code) {
    zoth::Installation installation;
    installation.code = code;
    installation.installDir = "/opt/Orvel/Suite";
    installation.language = "de_DE";
    installation.version = "2.0.1";
    installation.kvrPath = "/opt/Orvel/Suite/App.app/Contents/Resources/App.kvr";
    installation.installed = 1000;
    installation.modified = 2000;
    return installation;
}

// Keeps an environment variable for the life of the object.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : _name(name) {
        if (const char* old = std::getenv(name))
            _old = old;
        ::setenv(name, value, 1);
    }
    ~ScopedEnv() {
        if (_old)
            ::setenv(_name, _old->c_str(), 1);
        else
            ::unsetenv(_name);
    }

private:
    const char* _name;
    std::optional<std::string> _old;
};

class ZothStoreTest : public ::testing::Test {
protected:
    std::unique_ptr<Store> create() {
        std::unique_ptr<Store> store;
        EXPECT_EQ(Store::open(_dir.file("zoth.db"), OpenMode::Create, store), kZothNoError);
        return store;
    }
    std::string path() const { return _dir.file("zoth.db"); }
    TempDir _dir;
};

TEST_F(ZothStoreTest, RegistersAnInstallationWithItsCollectionAndData) {
    auto store = create();
    ASSERT_TRUE(store);
    ASSERT_EQ(store->registerInstallation(SampleInstallation("{A-1}")), kZothNoError);

    zoth::PayloadInfo payload;
    ASSERT_EQ(store->getPayload("{A-1}", payload), kZothNoError);
    EXPECT_EQ(payload.code, "{A-1}");
    EXPECT_EQ(payload.version, "2.0.1");
    std::vector<ZothCollectionID> collections;
    ASSERT_EQ(store->getCollections("{A-1}", ZOTH_COLLECTION_KIND_INSTALLATION, collections),
              kZothNoError);
    ASSERT_EQ(collections.size(), 1u);
    EXPECT_EQ(store->getCollections("{A-1}", 3, collections), kZothRecordNotFoundError);
    ASSERT_EQ(store->getCollections("{A-1}", 2, collections), kZothNoError);
    zoth::CollectionInfo collection;
    ASSERT_EQ(store->getCollection(collections[0], collection), kZothNoError);
    EXPECT_EQ(collection.kind, 2);
    EXPECT_EQ(collection.installed, 1000);
    EXPECT_EQ(collection.modified, 2000);

    std::string value;
    ASSERT_EQ(store->getData("{A-1}", 0, "INSTALLDIR", value), kZothNoError);
    EXPECT_EQ(value, "/opt/Orvel/Suite");
    ASSERT_EQ(store->getData("{A-1}", 0, "installLanguage", value), kZothNoError);
    EXPECT_EQ(value, "de_DE");
    ASSERT_EQ(store->getData("{A-1}", 4, "KVRConfigPath", value), kZothNoError);
    EXPECT_EQ(value, "/opt/Orvel/Suite/App.app/Contents/Resources/App.kvr");
    EXPECT_EQ(store->getData("{A-1}", 4, "INSTALLDIR", value), kZothRecordNotFoundError);
    EXPECT_EQ(store->getData("{A-1}", 0, "installdir", value), kZothRecordNotFoundError);
}

TEST_F(ZothStoreTest, CodesCompareWithoutCaseAndRegisterOnce) {
    auto store = create();
    ASSERT_EQ(store->registerInstallation(SampleInstallation("{abc-DEF}")), kZothNoError);
    EXPECT_EQ(store->registerInstallation(SampleInstallation("{ABC-def}")), kZothRecordExistsError);
    zoth::PayloadInfo payload;
    EXPECT_EQ(store->getPayload("{ABC-DEF}", payload), kZothNoError);
    EXPECT_EQ(payload.code, "{abc-DEF}");
}

TEST_F(ZothStoreTest, CodesWithQuotesAreDataNotSql) {
    auto store = create();
    const std::string code = "{x'); DROP TABLE payload; --\"}";
    ASSERT_EQ(store->registerInstallation(SampleInstallation(code)), kZothNoError);
    zoth::PayloadInfo payload;
    EXPECT_EQ(store->getPayload(code, payload), kZothNoError);
    EXPECT_EQ(store->getPayload("' OR '1'='1", payload), kZothRecordNotFoundError);
    std::vector<std::string> codes;
    ASSERT_EQ(store->listCodes(codes), kZothNoError);
    EXPECT_EQ(codes, std::vector<std::string>{code});
}

TEST_F(ZothStoreTest, MissingDamagedAndForeignFilesAreRefused) {
    std::unique_ptr<Store> store;
    EXPECT_EQ(Store::open(_dir.file("none.db"), OpenMode::ReadWrite, store), kZothResourceError);
    EXPECT_EQ(Store::open(_dir.file("none.db"), OpenMode::Snapshot, store), kZothResourceError);
    EXPECT_FALSE(FileExists(_dir.file("none.db")));
    EXPECT_EQ(Store::open("", OpenMode::Create, store), kZothParameterError);
    EXPECT_EQ(Store::open(_dir.path(), OpenMode::ReadWrite, store), kZothResourceError);

    WriteTextFile(_dir.file("garbage.db"), std::string(4096, 'x'));
    EXPECT_EQ(Store::open(_dir.file("garbage.db"), OpenMode::ReadWrite, store), kZothResourceError);
    EXPECT_EQ(Store::open(_dir.file("garbage.db"), OpenMode::Create, store), kZothResourceError);
    EXPECT_EQ(Store::open(_dir.file("garbage.db"), OpenMode::Snapshot, store), kZothResourceError);

    WriteTextFile(_dir.file("empty.db"), "");
    EXPECT_EQ(Store::open(_dir.file("empty.db"), OpenMode::ReadWrite, store), kZothResourceError);

    sqlite3* foreign = nullptr;
    ASSERT_EQ(sqlite3_open(_dir.file("foreign.db").c_str(), &foreign), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(foreign, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(foreign);
    EXPECT_EQ(Store::open(_dir.file("foreign.db"), OpenMode::Create, store),
              kZothIncompatibleSchemaError);
    EXPECT_FALSE(store);
}

TEST_F(ZothStoreTest, DamagedPagesAreReportedWhenRead) {
    {
        auto store = create();
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(
                store->registerInstallation(SampleInstallation("{C-" + std::to_string(i) + "}")),
                kZothNoError);
    }
    // Overwrite everything after the header page with noise.
    std::string bytes = ReadTextFile(path());
    ASSERT_GT(bytes.size(), 8192u);
    for (size_t i = 4096; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 7919) & 0xff);
    WriteTextFile(path(), bytes);
    std::unique_ptr<Store> store;
    int status = Store::open(path(), OpenMode::ReadWrite, store);
    if (status == kZothNoError) {
        std::vector<std::string> codes;
        status = store->listCodes(codes);
    }
    EXPECT_EQ(status, kZothResourceError);
}

TEST_F(ZothStoreTest, LockedDatabaseGivesLockTimeoutAfterTheBusyTimeOut) {
    ASSERT_EQ(create()->registerInstallation(SampleInstallation("{L}")), kZothNoError);
    ScopedEnv timeout(zoth::kBusyTimeoutVariable, "300");
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

    const auto start = std::chrono::steady_clock::now();
    std::unique_ptr<Store> store;
    EXPECT_EQ(Store::open(path(), OpenMode::ReadWrite, store), kZothLockTimeoutError);
    EXPECT_EQ(Store::open(path(), OpenMode::Snapshot, store), kZothLockTimeoutError);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(500));
    EXPECT_LT(elapsed, std::chrono::seconds(5));

    ASSERT_EQ(sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(holder);
    EXPECT_EQ(Store::open(path(), OpenMode::ReadWrite, store), kZothNoError);
}

TEST_F(ZothStoreTest, ReadersAndAWriterWorkAtTheSameTime) {
    ASSERT_EQ(create()->registerInstallation(SampleInstallation("{RW}")), kZothNoError);
    std::atomic<bool> writing{true};
    std::atomic<int> failures{0};
    std::atomic<int> reads{0};
    std::thread writer([&] {
        std::unique_ptr<Store> store;
        if (Store::open(path(), OpenMode::ReadWrite, store) != kZothNoError) {
            ++failures;
            writing = false;
            return;
        }
        for (int i = 1; i <= 200; ++i) {
            if (store->setData("{RW}", 0, "counter", std::to_string(i)) != kZothNoError)
                ++failures;
        }
        writing = false;
    });
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            int last = 0;
            do {
                std::unique_ptr<Store> store;
                if (Store::open(path(), OpenMode::ReadWrite, store) != kZothNoError) {
                    ++failures;
                    continue;
                }
                std::string value;
                const int status = store->getData("{RW}", 0, "counter", value);
                if (status == kZothNoError) {
                    const int seen = std::stoi(value);
                    if (seen < last)
                        ++failures; // a reader never goes back in time
                    last = seen;
                } else if (status != kZothRecordNotFoundError) {
                    ++failures;
                }
                ++reads;
            } while (writing);
        });
    }
    writer.join();
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(failures, 0);
    EXPECT_GT(reads, 0);
    std::unique_ptr<Store> store;
    ASSERT_EQ(Store::open(path(), OpenMode::ReadWrite, store), kZothNoError);
    std::string value;
    ASSERT_EQ(store->getData("{RW}", 0, "counter", value), kZothNoError);
    EXPECT_EQ(value, "200");
}

TEST_F(ZothStoreTest, SnapshotsAreFrozenAndRefuseWrites) {
    ASSERT_EQ(create()->registerInstallation(SampleInstallation("{S}")), kZothNoError);
    std::unique_ptr<Store> snapshot;
    ASSERT_EQ(Store::open(path(), OpenMode::Snapshot, snapshot), kZothNoError);
    EXPECT_TRUE(snapshot->isSnapshot());
    {
        auto writer = create();
        ASSERT_EQ(writer->setData("{S}", 0, "INSTALLDIR", "/elsewhere"), kZothNoError);
    }
    std::string value;
    ASSERT_EQ(snapshot->getData("{S}", 0, "INSTALLDIR", value), kZothNoError);
    EXPECT_EQ(value, "/opt/Orvel/Suite");
    EXPECT_EQ(snapshot->setData("{S}", 0, "INSTALLDIR", "/x"), kZothAuthorizationError);
    EXPECT_EQ(snapshot->begin(), kZothAuthorizationError);
}

TEST_F(ZothStoreTest, AddingAPayloadAgainUpdatesItsTexts) {
    auto store = create();
    ASSERT_EQ(store->registerInstallation(SampleInstallation("{P}")), kZothNoError);
    std::vector<ZothCollectionID> collections;
    ASSERT_EQ(store->getCollections("{P}", 2, collections), kZothNoError);
    ASSERT_EQ(store->addPayload(collections[0], "{P}", "3.0", "Suite", nullptr, 7), kZothNoError);
    ASSERT_EQ(store->addPayload(collections[0], "{P}", "3.1", nullptr, "note", 7), kZothNoError);
    zoth::PayloadInfo payload;
    ASSERT_EQ(store->getPayload("{P}", payload), kZothNoError);
    EXPECT_EQ(payload.version, "3.1");
    EXPECT_EQ(payload.name, "Suite");
    EXPECT_EQ(payload.note, "note");
    EXPECT_EQ(payload.attributes, 7);
    zoth::CollectionInfo collection;
    ASSERT_EQ(store->getCollection(collections[0], collection), kZothNoError);
    EXPECT_EQ(collection.installed, 1000);
    EXPECT_GT(collection.modified, 2000);

    // A new payload joins the collection.
    ASSERT_EQ(store->addPayload(collections[0], "{Q}", "1.0", nullptr, nullptr, 0), kZothNoError);
    ASSERT_EQ(store->getCollections("{Q}", 2, collections), kZothNoError);
    EXPECT_EQ(store->addPayload(collections[0], "{Q}", "", nullptr, nullptr, 0),
              kZothParameterError);
    EXPECT_EQ(store->addPayload(collections[0], "{Q}", std::string(256, '1'), nullptr, nullptr, 0),
              kZothParameterError);
    EXPECT_EQ(store->addPayload(999, "{Q}", "1.0", nullptr, nullptr, 0), kZothRecordNotFoundError);
}

TEST_F(ZothStoreTest, ATransactionIsAllOrNothing) {
    auto store = create();
    ASSERT_EQ(store->registerInstallation(SampleInstallation("{T}")), kZothNoError);
    ASSERT_EQ(store->begin(), kZothNoError);
    ASSERT_EQ(store->setData("{T}", 0, "k", "v"), kZothNoError);
    EXPECT_EQ(store->setData("{unknown}", 0, "k", "v"), kZothRecordNotFoundError);
    store->rollback();
    std::string value;
    EXPECT_EQ(store->getData("{T}", 0, "k", value), kZothRecordNotFoundError);

    ASSERT_EQ(store->begin(), kZothNoError);
    ASSERT_EQ(store->setData("{T}", 0, "k", "v"), kZothNoError);
    ASSERT_EQ(store->commit(), kZothNoError);
    EXPECT_EQ(store->getData("{T}", 0, "k", value), kZothNoError);
}

TEST_F(ZothStoreTest, RemovingAPayloadRemovesItsDataAndEmptyCollections) {
    auto store = create();
    ASSERT_EQ(store->registerInstallation(SampleInstallation("{R}")), kZothNoError);
    ASSERT_EQ(store->removePayload("{R}"), kZothNoError);
    EXPECT_EQ(store->removePayload("{R}"), kZothRecordNotFoundError);
    std::string value;
    EXPECT_EQ(store->getData("{R}", 0, "INSTALLDIR", value), kZothRecordNotFoundError);
    zoth::CollectionInfo collection;
    EXPECT_EQ(store->getCollection(1, collection), kZothRecordNotFoundError);
    ASSERT_EQ(store->registerInstallation(SampleInstallation("{R}")), kZothNoError);
}

TEST(ZothStatus, TextsAndSqliteCodes) {
    EXPECT_STREQ(ZothStatusText(0), "No Error");
    EXPECT_STREQ(ZothStatusText(6), "ZOTH unknown error");
    EXPECT_STREQ(ZothStatusText(14), "ZOTH lock timeout error");
    EXPECT_STREQ(ZothStatusText(16), "ZOTH unknown error");
    EXPECT_STREQ(ZothStatusText(-1), "ZOTH unknown error");
    EXPECT_EQ(zoth::StatusFromSqlite(SQLITE_BUSY), kZothLockTimeoutError);
    EXPECT_EQ(zoth::StatusFromSqlite(SQLITE_IOERR_WRITE), kZothDiskError);
    EXPECT_EQ(zoth::StatusFromSqlite(SQLITE_NOTADB), kZothResourceError);
    EXPECT_EQ(zoth::StatusFromSqlite(SQLITE_READONLY), kZothAuthorizationError);
}

TEST(ZothDefaultPath, EnvironmentChoosesAnotherDatabase) {
    {
        ScopedEnv env(zoth::kDatabasePathVariable, "/tmp/elsewhere.db");
        EXPECT_EQ(zoth::DefaultDatabasePath(), "/tmp/elsewhere.db");
    }
    if (!std::getenv(zoth::kDatabasePathVariable)) {
        EXPECT_EQ(zoth::DefaultDatabasePath(), "/var/opt/Orvel/zoth/zoth.db");
    }
}

} // namespace
