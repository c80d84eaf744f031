// The trusted sources store on SQLite files: its schema, sources and bindings, batches, and files
// it cannot use.

#include "core/trusted_sources/error.hpp"
#include "core/trusted_sources/sqlite_database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <SQLiteCpp/SQLiteCpp.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>

namespace fs = std::filesystem;
using namespace Core::TrustedSources;
using TestSupport::captureStderr;
using TestSupport::readFile;

namespace {

constexpr const char* errorPrefix = "[org.kelvo.Tolva.TrustedSources.Error.Database] ";

// The message of the store error `work` throws, and what it logged on the way.
std::pair<std::string, std::string> failureOf(const std::function<void()>& work) {
    std::string message;
    const auto logged = captureStderr([&] {
        try {
            work();
        } catch (const TSError& error) {
            EXPECT_EQ(error.what(), errorPrefix + error.message());
            message = error.message();
        }
    });
    return {message, logged};
}

// Runs `work` in a batch of `store` that then throws, as a run that ends part-way.
void abandonedBatch(SQLiteDatabase& store, const std::function<void()>& work) {
    EXPECT_THROW(store.batch([&] {
        work();
        throw std::runtime_error("the run ends");
    }),
                 std::runtime_error);
}

// Every operation goes through the connection: one stands for all.
void expectUninitialised(SQLiteDatabase& store) {
    EXPECT_EQ(failureOf([&] { store.isRequired(); }).first,
              "trusted sources database not initialized");
}

} // namespace

TEST(TrustedSourcesStore, AMissingFileGetsTheSchemaANewerOneIsLeftAndALockedOneFailsAtOnce) {
    TestSupport::Scratch scratch;
    const std::string path = scratch / "db.sqlite3";
    EXPECT_TRUE(SQLiteDatabase(path).isRequired());
    SQLite::Database check(path, SQLite::OPEN_READWRITE);
    EXPECT_EQ(check.execAndGet("SELECT data FROM configuration WHERE id='version'").getInt(), 1);

    // A new store's tables wait for its first batch: one that throws keeps neither them nor its
    // writes; a store never used still gets them.
    const std::string abandoned = scratch / "abandoned.sqlite3";
    {
        SQLiteDatabase store(abandoned);
        abandonedBatch(store, [&] { store.addSource({"aa01", "CN=Alpha", {}}); });
        expectUninitialised(store);
    }
    EXPECT_FALSE(SQLiteDatabase(abandoned).hasSource("aa01"));
    const std::string unused = scratch / "unused.sqlite3";
    { const SQLiteDatabase store(unused); }
    EXPECT_TRUE(SQLite::Database(unused).tableExists("configuration"));

    // Another writer holds the lock: reading goes on, writing fails at once.
    check.exec("BEGIN IMMEDIATE");
    check.exec("INSERT INTO sources VALUES ('zz', 'CN=Other')");
    SQLiteDatabase store(path);
    EXPECT_TRUE(store.isRequired());
    const auto [message, logged] = failureOf([&] { store.addSource({"aa01", "CN=Alpha", {}}); });
    EXPECT_EQ(message, "couldn't insert source into the trusted sources database");
    EXPECT_EQ(logged, "ERROR: database is locked\n");
    check.exec("COMMIT");
    EXPECT_TRUE(store.hasSource("zz"));
    EXPECT_FALSE(store.hasSource("aa01"));

    const std::string newer = scratch / "v2.sqlite3";
    {
        SQLite::Database v2(newer, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        v2.exec("CREATE TABLE configuration(id TEXT PRIMARY KEY,data INTEGER NOT NULL)");
        v2.exec("INSERT INTO configuration VALUES ('version', 2), ('required', 0)");
    }
    const auto before = readFile(newer);
    EXPECT_EQ(captureStderr([&] { EXPECT_FALSE(SQLiteDatabase(newer).isRequired()); }), "");
    EXPECT_EQ(readFile(newer), before);
}

TEST(TrustedSourcesStore, SourcesBindingsAndBatches) {
    TestSupport::Scratch scratch;
    const std::string path = scratch / "db.sqlite3";
    {
        SQLiteDatabase store(path);
        store.addSource({"aa01", "CN=Alpha", {"ignored"}});
        store.addSource({"bb02", "CN=Beta", {}});
        store.addSource({"aa01", "CN=Changed", {}}); // kept as it was
        store.bindPackageToSource("demo.notes", "aa01");
        store.bindPackageToSource("demo.clock", "aa01");
        store.bindPackageToSource("demo.maps", "bb02");
        EXPECT_FALSE(store.hasPackage("ignored"));

        const auto alpha = store.source("aa01");
        EXPECT_EQ(alpha.subject, "CN=Alpha");
        EXPECT_EQ(alpha.packages, (std::vector<std::string>{"demo.notes", "demo.clock"}));
        EXPECT_EQ(store.packageSource("demo.maps").keyId, "bb02");
        EXPECT_EQ(store.sources().at(0).keyId, "bb02"); // by subject, descending

        store.setRequired(false);
        EXPECT_FALSE(store.isRequired());
        store.unbindPackage("demo.clock");
        EXPECT_FALSE(store.hasPackage("demo.clock"));
        store.removeSource("aa01");
        EXPECT_FALSE(store.hasSource("aa01"));
        EXPECT_FALSE(store.hasPackage("demo.notes"));
        EXPECT_TRUE(store.hasPackage("demo.maps"));

        const std::tuple<std::function<void()>, std::string, std::string> failures[] = {
            {[&] { store.bindPackageToSource("demo.x", "unknown"); },
             "couldn't insert package into the trusted sources database",
             "FOREIGN KEY constraint failed"},
            {[&] { store.bindPackageToSource("demo.maps", "bb02"); },
             "couldn't insert package into the trusted sources database",
             "UNIQUE constraint failed: packages.id"},
            {[&] { store.source("unknown"); },
             "couldn't query source from trusted sources database by key id",
             "sql query failed: SELECT subject FROM sources WHERE keyid = ?"},
        };
        for (const auto& [operation, message, cause] : failures)
            EXPECT_EQ(failureOf(operation), std::make_pair(message, "ERROR: " + cause + "\n"));

        // A batch keeps its writes but the failed ones; one that throws keeps nothing.
        store.batch([&] {
            store.addSource({"aa01", "CN=Alpha", {}});
            store.bindPackageToSource("demo.notes", "aa01");
            failureOf([&] { store.bindPackageToSource("demo.notes", "aa01"); });
            failureOf([&] { store.bindPackageToSource("demo.x", "unknown"); });
            store.setRequired(true);
        });
        abandonedBatch(store, [&] { store.bindPackageToSource("demo.clock", "aa01"); });
    }
    SQLiteDatabase reopened(path);
    EXPECT_EQ(reopened.source("aa01").packages, std::vector<std::string>{"demo.notes"});
    EXPECT_FALSE(reopened.hasPackage("demo.x"));
    EXPECT_FALSE(reopened.hasPackage("demo.clock"));
    EXPECT_TRUE(reopened.isRequired());
    reopened.bindPackageToSource("demo.clock", "aa01"); // no transaction was left open
    EXPECT_TRUE(reopened.hasPackage("demo.clock"));
}

TEST(TrustedSourcesStore, FilesThatCannotBeUsedAreLeftAsTheyAre) {
    SANDBOXED([] {
        // A schema-less file on a read-only mount cannot be migrated, and stays as it is.
        TestSupport::mountFresh("tmpfs", "/tmp/ro");
        TestSupport::writeFile("/tmp/ro/db.sqlite3", "");
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

        // Junk is no database.
        const std::string junk(4096, 'j');
        TestSupport::writeFile("/tmp/junk", junk);
        EXPECT_EQ(captureStderr([&] { store.emplace("/tmp/junk"); }),
                  "ERROR: file is not a database\n"
                  "ERROR: couldn't initialize trusted sources database\n"
                  "ERROR: " +
                      std::string(errorPrefix) +
                      "couldn't check if the configuration table exists in the trusted sources "
                      "database\n");
        expectUninitialised(*store);
        EXPECT_EQ(readFile("/tmp/junk"), junk);
    });
}
