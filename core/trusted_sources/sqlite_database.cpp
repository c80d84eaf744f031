#include "core/trusted_sources/sqlite_database.hpp"

#include "common/log.hpp"
#include "core/trusted_sources/error.hpp"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <filesystem>
#include <sqlite3.h>

namespace Core::TrustedSources {

namespace {

// Runs one piece of SQL work; a failure is logged with its cause and becomes the store's
// error with the piece's own message. The store's own errors pass unchanged.
template <typename Work> auto guarded(const char* message, Work&& work) -> decltype(work()) {
    try {
        return work();
    } catch (const TSError&) {
        throw;
    } catch (const std::exception& error) {
        Common::LogLine(Common::LogLevel::Error) << error;
        throw TSError(TSErrorKind::Database, message);
    }
}

// Steps to the row a query must give.
void stepToRow(SQLite::Statement& query) {
    if (!query.executeStep())
        throw std::runtime_error("sql query failed: " + query.getQuery());
}

// Inside a batch (a transaction is open) a write is a savepoint, undone alone when it fails.
template <typename Write> void inTransaction(SQLite::Database& database, Write&& write) {
    if (sqlite3_get_autocommit(database.getHandle()) == 0) {
        database.exec("SAVEPOINT store_write");
        try {
            write();
        } catch (...) {
            database.exec("ROLLBACK TO store_write");
            database.exec("RELEASE store_write");
            throw;
        }
        database.exec("RELEASE store_write");
        return;
    }
    SQLite::Transaction transaction(database);
    write();
    transaction.commit();
}

void logUninitialised(const std::exception& cause) {
    Common::logError("couldn't initialize trusted sources database");
    Common::LogLine(Common::LogLevel::Error) << cause;
}

[[noreturn]] void throwUninitialised() {
    throw TSError(TSErrorKind::Database, "trusted sources database not initialized");
}

} // namespace

SQLiteDatabase::SQLiteDatabase() : SQLiteDatabase(defaultPath) {}

SQLiteDatabase::SQLiteDatabase(const std::string& path) {
    try {
        open(path);
    } catch (const std::exception& error) {
        logUninitialised(error);
        newTablesPending = false;
        database.reset();
    } catch (...) {
        newTablesPending = false;
        database.reset();
        throw;
    }
}

SQLiteDatabase::~SQLiteDatabase() {
    try {
        commitNewTables();
    } catch (const TSError&) {
        // logged where the store was found uninitialised
    }
}

void SQLiteDatabase::open(const std::string& path) {
    // SQLite creates the file but not its directory; a device without the directory yet
    // must still get its store.
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    database.emplace(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    guarded("couldn't enable foreign keys in the trusted sources database",
            [&] { database->exec("PRAGMA foreign_keys = ON"); });
    if (schemaVersion() == 0) {
        // The tables wait for the writes of the first batch, to reach the disk in one flush
        // with them instead of one each.
        database->exec("BEGIN");
        newTablesPending = true;
        migrateToV1();
    }
}

// A store whose tables cannot be committed is one that could not be initialised.
void SQLiteDatabase::commitNewTables() {
    if (!newTablesPending)
        return;
    newTablesPending = false;
    try {
        database->exec("COMMIT");
    } catch (const std::exception& error) {
        logUninitialised(error);
        database.reset();
        throwUninitialised();
    }
}

int SQLiteDatabase::schemaVersion() {
    const bool hasConfiguration = guarded(
        "couldn't check if the configuration table exists in the trusted sources database", [&] {
            SQLite::Statement query(*database, "SELECT COUNT(*) FROM sqlite_master WHERE "
                                               "type='table' AND name='configuration'");
            stepToRow(query);
            return query.getColumn(0).getInt() != 0;
        });
    if (!hasConfiguration)
        return 0;
    return guarded("couldn't query trusted sources database version", [&] {
        SQLite::Statement query(*database, "SELECT data FROM configuration WHERE id='version'");
        stepToRow(query);
        return query.getColumn(0).getInt();
    });
}

void SQLiteDatabase::migrateToV1() {
    guarded("couldn't migrate the trusted sources database from V0 to V1", [&] {
        inTransaction(*database, [&] {
            database->exec("CREATE TABLE IF NOT EXISTS configuration(id TEXT PRIMARY KEY,data "
                           "INTEGER NOT NULL)");
            database->exec(
                "INSERT INTO configuration (id, data) VALUES ('version', 1), ('required', 1)");
            database->exec(
                "CREATE TABLE IF NOT EXISTS sources(keyid TEXT PRIMARY KEY,subject TEXT NOT NULL)");
            database->exec("CREATE TABLE IF NOT EXISTS packages(id TEXT PRIMARY KEY,source_keyid "
                           "INTEGER NOT NULL,FOREIGN KEY(source_keyid) REFERENCES sources(keyid))");
        });
    });
}

void SQLiteDatabase::batch(const std::function<void()>& work) {
    if (!database) {
        work();
        return;
    }
    if (newTablesPending) {
        newTablesPending = false;
        try {
            work();
        } catch (...) {
            database.reset(); // the tables go with the writes: the store was never made
            throw;
        }
        guarded("couldn't commit to the trusted sources database", [&] {
            try {
                database->exec("COMMIT");
            } catch (...) {
                database.reset();
                throw;
            }
        });
        return;
    }
    std::optional<SQLite::Transaction> transaction;
    guarded("couldn't begin a transaction in the trusted sources database",
            [&] { transaction.emplace(*database); });
    work();
    guarded("couldn't commit to the trusted sources database", [&] { transaction->commit(); });
}

SQLite::Database& SQLiteDatabase::connection() {
    if (!database)
        throwUninitialised();
    commitNewTables();
    return *database;
}

bool SQLiteDatabase::isRequired() {
    auto& db = connection();
    return guarded("couldn't query required status from the trusted sources database", [&] {
        SQLite::Statement query(db, "SELECT data FROM configuration WHERE id = 'required'");
        stepToRow(query);
        return query.getColumn(0).getInt() == 1;
    });
}

void SQLiteDatabase::setRequired(bool required) {
    auto& db = connection();
    guarded("couldn't update required status in the trusted sources database", [&] {
        inTransaction(db, [&] {
            SQLite::Statement update(db, "UPDATE configuration SET data = ? WHERE id = 'required'");
            update.bind(1, required ? 1 : 0);
            update.exec();
        });
    });
}

void SQLiteDatabase::addSource(const Source& source) {
    auto& db = connection();
    guarded("couldn't insert source into the trusted sources database", [&] {
        inTransaction(db, [&] {
            SQLite::Statement insert(db,
                                     "INSERT OR IGNORE INTO sources (keyid,subject) VALUES (?,?)");
            insert.bind(1, source.keyId);
            insert.bind(2, source.subject);
            insert.exec();
        });
    });
}

void SQLiteDatabase::removeSource(const std::string& keyId) {
    auto& db = connection();
    guarded("couldn't remove source from trusted sources database by key id", [&] {
        inTransaction(db, [&] {
            SQLite::Statement unbind(db, "DELETE FROM packages WHERE source_keyid = ?");
            unbind.bind(1, keyId);
            unbind.exec();
            SQLite::Statement remove(db, "DELETE FROM sources WHERE keyid = ?");
            remove.bind(1, keyId);
            remove.exec();
        });
    });
}

bool SQLiteDatabase::hasSource(const std::string& keyId) {
    auto& db = connection();
    return guarded("couldn't check package exists in the trusted sources database", [&] {
        SQLite::Statement query(db, "SELECT COUNT(*) FROM sources WHERE keyid = ?");
        query.bind(1, keyId);
        stepToRow(query);
        return query.getColumn(0).getInt() == 1;
    });
}

Source SQLiteDatabase::source(const std::string& keyId) {
    auto& db = connection();
    Source result{keyId, {}, {}};
    result.subject = guarded("couldn't query source from trusted sources database by key id", [&] {
        SQLite::Statement query(db, "SELECT subject FROM sources WHERE keyid = ?");
        query.bind(1, keyId);
        stepToRow(query);
        return query.getColumn(0).getString();
    });
    guarded("couldn't query source packages from the trusted sources database", [&] {
        SQLite::Statement query(db, "SELECT id FROM packages WHERE source_keyid = ?");
        query.bind(1, keyId);
        while (query.executeStep())
            result.packages.push_back(query.getColumn(0).getString());
    });
    return result;
}

Source SQLiteDatabase::packageSource(const std::string& packageId) {
    auto& db = connection();
    const auto keyId =
        guarded("couldn't query source from trusted sources database by package id", [&] {
            SQLite::Statement query(db, "SELECT source_keyid FROM packages WHERE id = ?");
            query.bind(1, packageId);
            stepToRow(query);
            return query.getColumn(0).getString();
        });
    return source(keyId);
}

void SQLiteDatabase::bindPackageToSource(const std::string& packageId, const std::string& keyId) {
    auto& db = connection();
    guarded("couldn't insert package into the trusted sources database", [&] {
        inTransaction(db, [&] {
            SQLite::Statement insert(db, "INSERT INTO packages (id,source_keyid) VALUES (?,?)");
            insert.bind(1, packageId);
            insert.bind(2, keyId);
            insert.exec();
        });
    });
}

void SQLiteDatabase::unbindPackage(const std::string& packageId) {
    auto& db = connection();
    guarded("couldn't remove package from the trusted sources database", [&] {
        inTransaction(db, [&] {
            SQLite::Statement remove(db, "DELETE FROM packages WHERE id = ?");
            remove.bind(1, packageId);
            remove.exec();
        });
    });
}

bool SQLiteDatabase::hasPackage(const std::string& packageId) {
    auto& db = connection();
    return guarded("couldn't check package exists in the trusted sources database", [&] {
        SQLite::Statement query(db, "SELECT COUNT(*) FROM packages WHERE id = ?");
        query.bind(1, packageId);
        stepToRow(query);
        return query.getColumn(0).getInt() == 1;
    });
}

std::vector<Source> SQLiteDatabase::sources() {
    auto& db = connection();
    const auto keyIds =
        guarded("couldn't query source list from the trusted sources database", [&] {
            std::vector<std::string> ids;
            SQLite::Statement query(db, "SELECT keyid FROM sources ORDER BY subject DESC");
            while (query.executeStep())
                ids.push_back(query.getColumn(0).getString());
            return ids;
        });
    std::vector<Source> result;
    for (const auto& keyId : keyIds)
        result.push_back(source(keyId));
    return result;
}

} // namespace Core::TrustedSources
