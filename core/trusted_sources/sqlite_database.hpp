#pragma once

// The trusted-sources store in an SQLite file.

#include "core/trusted_sources/database.hpp"

#include <SQLiteCpp/Database.h>
#include <functional>
#include <optional>

namespace Core::TrustedSources {

class SQLiteDatabase : public IDatabase {
public:
    static constexpr const char* defaultPath = "/var/lib/trusted-sources/db.sqlite3";

    // Opening never throws for a failure of the store: it is logged, and every operation of
    // a store that could not be opened throws "trusted sources database not initialized".
    SQLiteDatabase();
    explicit SQLiteDatabase(const std::string& path);
    SQLiteDatabase(const SQLiteDatabase&) = delete;
    SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;
    ~SQLiteDatabase() override;

    bool isOpen() const { return database.has_value(); }

    bool isRequired() override;
    void setRequired(bool required) override;
    void addSource(const Source& source) override;
    void removeSource(const std::string& keyId) override;
    bool hasSource(const std::string& keyId) override;
    Source source(const std::string& keyId) override;
    Source packageSource(const std::string& packageId) override;
    void bindPackageToSource(const std::string& packageId, const std::string& keyId) override;
    void unbindPackage(const std::string& packageId) override;
    bool hasPackage(const std::string& packageId) override;
    std::vector<Source> sources() override;

    // Runs `work` with every write of this store in one transaction: one flush to the disk
    // for all of them instead of one each. A write that fails is undone alone, as without a
    // batch; when `work` throws, or the commit fails (TSError), none of them is kept. The
    // tables of a store that this object made are committed with the first batch.
    void batch(const std::function<void()>& work);

private:
    void open(const std::string& path);
    void migrateToV1();
    int schemaVersion();
    void commitNewTables();
    SQLite::Database& connection();

    std::optional<SQLite::Database> database;
    // A new store's tables, made in a transaction that the first batch takes over; anything
    // else commits it first.
    bool newTablesPending = false;
};

} // namespace Core::TrustedSources
