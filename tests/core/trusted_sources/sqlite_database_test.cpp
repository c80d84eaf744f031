#include "core/trusted_sources/error.hpp"
#include "core/trusted_sources/sqlite_database.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <SQLiteCpp/SQLiteCpp.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <sys/mount.h>

namespace fs = std::filesystem;
using namespace Core::TrustedSources;
using TestSupport::captureStderr;

namespace {

constexpr const char* errorPrefix = "[org.kelvo.Tolva.TrustedSources.Error.Database] ";

class StoreFile : public ::testing::Test {
protected:
    void SetUp() override {
        directory = fs::temp_directory_path() /
                    ("trusted-sources-" + std::to_string(::getpid()) + "-" +
                     ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(directory);
        fs::create_directories(directory);
        path = (directory / "db.sqlite3").string();
    }
    void TearDown() override { fs::remove_all(directory); }

    fs::path directory;
    std::string path;
};

std::string bytesOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream data;
    data << in.rdbuf();
    return data.str();
}

// The message of the store error `work` throws, and what it logged on the way.
std::pair<std::string, std::string> failureOf(const std::function<void()>& work) {
    std::string message;
    const auto logged = captureStderr([&] {
        try {
            work();
        } catch (const TSError& error) {
            EXPECT_EQ(error.name(), "org.kelvo.Tolva.TrustedSources.Error.Database");
            message = error.message();
        }
    });
    return {message, logged};
}

void expectUninitialised(SQLiteDatabase& store) {
    const std::string message = "trusted sources database not initialized";
    EXPECT_EQ(failureOf([&] { store.isRequired(); }).first, message);
    EXPECT_EQ(failureOf([&] { store.setRequired(false); }).first, message);
    EXPECT_EQ(failureOf([&] { store.addSource({"k", "s", {}}); }).first, message);
    EXPECT_EQ(failureOf([&] { store.removeSource("k"); }).first, message);
    EXPECT_EQ(failureOf([&] { store.hasSource("k"); }).first, message);
    EXPECT_EQ(failureOf([&] { store.source("k"); }).first, message);
    EXPECT_EQ(failureOf([&] { store.packageSource("p"); }).first, message);
    EXPECT_EQ(failureOf([&] { store.bindPackageToSource("p", "k"); }).first, message);
    EXPECT_EQ(failureOf([&] { store.unbindPackage("p"); }).first, message);
    EXPECT_EQ(failureOf([&] { store.hasPackage("p"); }).first, message);
    EXPECT_EQ(failureOf([&] { store.sources(); }).first, message);
}

} // namespace

TEST_F(StoreFile, AMissingFileGetsTheFirstSchemaAndANewerOneIsLeftAsItIs) {
    {
        SQLiteDatabase store(path);
        EXPECT_TRUE(store.isRequired());
    }
    SQLite::Database check(path);
    EXPECT_EQ(check.execAndGet("SELECT data FROM configuration WHERE id='version'").getInt(), 1);
    EXPECT_EQ(check.execAndGet("SELECT COUNT(*) FROM sqlite_master WHERE type='table'").getInt(),
              3);

    const auto newer = (directory / "v2.sqlite3").string();
    {
        SQLite::Database v2(newer, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        v2.exec("CREATE TABLE configuration(id TEXT PRIMARY KEY,data INTEGER NOT NULL)");
        v2.exec("INSERT INTO configuration VALUES ('version', 2), ('required', 0)");
    }
    const auto before = bytesOf(newer);
    std::string logged = captureStderr([&] {
        SQLiteDatabase store(newer);
        EXPECT_FALSE(store.isRequired());
    });
    EXPECT_EQ(logged, "");
    EXPECT_EQ(bytesOf(newer), before);
}

TEST_F(StoreFile, SourcesAndBindings) {
    SQLiteDatabase store(path);
    store.addSource({"aa01", "CN=Alpha", {"ignored"}});
    store.addSource({"bb02", "CN=Beta", {}});
    store.addSource({"aa01", "CN=Changed", {}}); // kept as it was
    EXPECT_TRUE(store.hasSource("aa01"));
    EXPECT_FALSE(store.hasSource("cc03"));

    store.bindPackageToSource("demo.notes", "aa01");
    store.bindPackageToSource("demo.clock", "aa01");
    store.bindPackageToSource("demo.maps", "bb02");
    EXPECT_TRUE(store.hasPackage("demo.notes"));
    EXPECT_FALSE(store.hasPackage("ignored"));

    const auto alpha = store.source("aa01");
    EXPECT_EQ(alpha.keyId, "aa01");
    EXPECT_EQ(alpha.subject, "CN=Alpha");
    EXPECT_EQ(alpha.packages, (std::vector<std::string>{"demo.notes", "demo.clock"}));
    EXPECT_EQ(store.packageSource("demo.maps").subject, "CN=Beta");

    const auto all = store.sources();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].keyId, "bb02"); // by subject, descending
    EXPECT_EQ(all[1].packages.size(), 2u);

    store.setRequired(false);
    EXPECT_FALSE(store.isRequired());
    store.setRequired(true);
    EXPECT_TRUE(store.isRequired());

    store.unbindPackage("demo.clock");
    EXPECT_FALSE(store.hasPackage("demo.clock"));
    store.removeSource("aa01");
    EXPECT_FALSE(store.hasSource("aa01"));
    EXPECT_FALSE(store.hasPackage("demo.notes"));
    EXPECT_TRUE(store.hasPackage("demo.maps"));
}

TEST_F(StoreFile, ABatchKeepsItsWritesButTheFailedOneAndNothingWhenItThrows) {
    {
        SQLiteDatabase store(path);
        store.batch([&] {
            store.addSource({"aa01", "CN=Alpha", {}});
            store.bindPackageToSource("demo.notes", "aa01");
            failureOf([&] { store.bindPackageToSource("demo.notes", "aa01"); });
            failureOf([&] { store.bindPackageToSource("demo.maps", "unknown"); });
            store.setRequired(false);
        });
        EXPECT_THROW(store.batch([&] {
            store.bindPackageToSource("demo.clock", "aa01");
            throw std::runtime_error("the run ends");
        }),
                     std::runtime_error);
    }
    SQLiteDatabase reopened(path);
    EXPECT_EQ(reopened.source("aa01").packages, std::vector<std::string>{"demo.notes"});
    EXPECT_FALSE(reopened.hasPackage("demo.maps"));
    EXPECT_FALSE(reopened.hasPackage("demo.clock"));
    EXPECT_FALSE(reopened.isRequired());
    reopened.bindPackageToSource("demo.clock", "aa01"); // no transaction was left open
    EXPECT_TRUE(reopened.hasPackage("demo.clock"));
}

TEST_F(StoreFile, FailedOperationsLogTheirCauseAndThrowTheirOwnMessage) {
    SQLiteDatabase store(path);
    store.addSource({"aa01", "CN=Alpha", {}});
    store.bindPackageToSource("demo.notes", "aa01");

    auto [message, logged] = failureOf([&] { store.bindPackageToSource("demo.x", "unknown"); });
    EXPECT_EQ(message, "couldn't insert package into the trusted sources database");
    EXPECT_EQ(logged, "ERROR: FOREIGN KEY constraint failed\n");
    EXPECT_FALSE(store.hasPackage("demo.x"));

    std::tie(message, logged) = failureOf([&] { store.bindPackageToSource("demo.notes", "aa01"); });
    EXPECT_EQ(message, "couldn't insert package into the trusted sources database");
    EXPECT_EQ(logged, "ERROR: UNIQUE constraint failed: packages.id\n");

    std::tie(message, logged) = failureOf([&] { store.source("unknown"); });
    EXPECT_EQ(message, "couldn't query source from trusted sources database by key id");
    EXPECT_EQ(logged, "ERROR: sql query failed: SELECT subject FROM sources WHERE keyid = ?\n");

    std::tie(message, logged) = failureOf([&] { store.packageSource("unknown"); });
    EXPECT_EQ(message, "couldn't query source from trusted sources database by package id");
    EXPECT_EQ(logged, "ERROR: sql query failed: SELECT source_keyid FROM packages WHERE id = ?\n");
    EXPECT_EQ(std::string(TSError(errorName(TSErrorKind::Database), message).what()),
              errorPrefix + message);
}

TEST_F(StoreFile, BadFilesAreReportedAndLeftAsTheyWere) {
    std::string junk(4096, '\0');
    std::mt19937 random(7);
    for (auto& byte : junk)
        byte = static_cast<char>(random());
    std::ofstream(path, std::ios::binary) << junk;

    std::optional<SQLiteDatabase> store;
    auto logged = captureStderr([&] { store.emplace(path); });
    EXPECT_EQ(logged, "ERROR: file is not a database\n"
                      "ERROR: couldn't initialize trusted sources database\n"
                      "ERROR: " +
                          std::string(errorPrefix) +
                          "couldn't check if the configuration table exists in the trusted "
                          "sources database\n");
    expectUninitialised(*store);
    EXPECT_EQ(bytesOf(path), junk);

    const auto folder = directory / "folder";
    fs::create_directories(folder);
    logged = captureStderr([&] { SQLiteDatabase atFolder(folder.string()); });
    EXPECT_EQ(logged.rfind("ERROR: couldn't initialize trusted sources database\nERROR: ", 0), 0u)
        << logged;
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(StoreFile, ALockedStoreFailsAtOnceAndKeepsTheOtherWritersData) {
    { SQLiteDatabase create(path); }
    SQLite::Database other(path, SQLite::OPEN_READWRITE);
    other.exec("BEGIN IMMEDIATE");
    other.exec("INSERT INTO sources VALUES ('zz', 'CN=Other')");
    const auto before = bytesOf(path);

    SQLiteDatabase store(path);
    EXPECT_TRUE(store.isRequired()); // reading goes on
    const auto [message, logged] = failureOf([&] { store.addSource({"aa01", "CN=Alpha", {}}); });
    EXPECT_EQ(message, "couldn't insert source into the trusted sources database");
    EXPECT_EQ(logged, "ERROR: database is locked\n");
    EXPECT_EQ(bytesOf(path), before);
    other.exec("COMMIT");
    EXPECT_TRUE(store.hasSource("zz"));
    EXPECT_FALSE(store.hasSource("aa01"));
}

TEST(TrustedSourcesOnTheDevicePath, DefaultPathAndReadOnlyMount) {
    SANDBOXED([] {
        fs::remove_all("/var/lib/trusted-sources");
        {
            SQLiteDatabase store;
            store.addSource({".no.source.apps", "", {}});
            store.bindPackageToSource("demo.notes", ".no.source.apps");
        }
        EXPECT_TRUE(fs::is_regular_file(SQLiteDatabase::defaultPath));
        EXPECT_TRUE(SQLiteDatabase().hasPackage("demo.notes"));

        // A schema-less file on a read-only mount cannot be migrated, and stays as it is.
        fs::create_directories("/tmp/ro");
        ASSERT_EQ(::mount("tmpfs", "/tmp/ro", "tmpfs", 0, nullptr), 0);
        std::ofstream("/tmp/ro/db.sqlite3").flush();
        ASSERT_EQ(::mount(nullptr, "/tmp/ro", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        std::optional<SQLiteDatabase> store;
        const auto logged = captureStderr([&] { store.emplace("/tmp/ro/db.sqlite3"); });
        EXPECT_NE(logged.find("ERROR: couldn't initialize trusted sources database\nERROR: " +
                              std::string(errorPrefix) +
                              "couldn't migrate the trusted sources database from V0 to V1\n"),
                  std::string::npos)
            << logged;
        expectUninitialised(*store);
        EXPECT_EQ(fs::file_size("/tmp/ro/db.sqlite3"), 0u);
    });
}
