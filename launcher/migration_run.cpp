// The launcher's run: the migration, then the signing source of every package in the
// trusted-sources store.

#include "common/error.hpp"
#include "common/log.hpp"
#include "core/tolva/database.hpp"
#include "core/trusted_sources/error.hpp"
#include "core/trusted_sources/sqlite_database.hpp"
#include "launcher/launcher.hpp"
#include "platform/package_signatures/database.hpp"

#include <memory>

namespace Launcher {

namespace {

using Common::LogLevel;
using Common::LogLine;

constexpr int clientCertificateGroup = 3;

std::string keyIdText(const std::string& keyId) {
    return "(keyid=" + keyId + ")";
}

// The source of every package whose client certificate the device's signature database holds.
void registerSources(const PackageSignatures::Database& signatures,
                     Core::TrustedSources::SQLiteDatabase& store) {
    for (const auto& name : signatures.packages()) {
        try {
            const auto certificate =
                signatures.packageCertificateWithGroup(name, clientCertificateGroup);
            if (!certificate)
                continue;
            const std::string keyId = certificate->keyId();
            if (!store.hasSource(keyId)) {
                store.addSource({keyId, certificate->subject(), {}});
                Common::logInfo("successfully added trusted source " + keyIdText(keyId));
            }
            if (!store.hasPackage(name)) {
                store.bindPackageToSource(name, keyId);
                Common::logInfo("successfully bound " + name + " package to source " +
                                keyIdText(keyId));
            }
        } catch (const Core::TrustedSources::TSError& error) {
            Common::logError("failed to add client certificate for package " + name +
                             error.message());
        } catch (const std::runtime_error& error) {
            // A damaged certificate file is this package's problem alone.
            Common::logError("failed to add client certificate for package " + name + error.what());
        }
    }
}

// Every installed package that still has no source is bound to the source of packages
// without one; creating that source switches the store's "required" flag off.
void bindPackagesWithoutSource(const Core::Tolva::Database& database,
                               Core::TrustedSources::SQLiteDatabase& store) {
    const std::string pseudoSource = Core::Tolva::noSourceKeyId;
    for (const auto& data : database.installedPackages()) {
        const auto id = data.find("general.id");
        if (id == data.end()) {
            Common::logWarning("couldn't retrieve ID of installed package");
            continue;
        }
        try {
            if (store.hasPackage(id->second))
                continue;
            if (!store.hasSource(pseudoSource)) {
                store.addSource({pseudoSource, "", {}});
                store.setRequired(false);
            }
            store.bindPackageToSource(id->second, pseudoSource);
            Common::logInfo("successfully bound " + id->second + " package to source " +
                            keyIdText(pseudoSource));
        } catch (const Core::TrustedSources::TSError& error) {
            Common::logError("couldn't bind " + id->second + " package to source " +
                             keyIdText(pseudoSource));
            LogLine(LogLevel::Error) << error;
        }
    }
}

// The sources first, then the packages without one. One store takes the writes of both in
// one batch: one flush to the disk instead of one per package. A store that could not be
// opened is tried once more for the binding.
void recordSources() {
    const PackageSignatures::Database signatures(PackageSignatures::Database::defaultPath);
    Core::TrustedSources::SQLiteDatabase store;
    store.batch([&] {
        registerSources(signatures, store);
        const Core::Tolva::Database database;
        if (store.isOpen()) {
            bindPackagesWithoutSource(database, store);
            return;
        }
        Core::TrustedSources::SQLiteDatabase again;
        again.batch([&] { bindPackagesWithoutSource(database, again); });
    });
}

// A package whose migration did not finish keeps the run from counting as done, so that the
// next start takes it up.
void requireNothingWaiting(const Core::Tolva::Database& database) {
    const auto waiting = database.waitingPackages();
    if (waiting.empty())
        return;
    for (const auto& id : waiting)
        Common::logError("package " + id + " waits to be migrated at the next start");
    throw Common::Error(Common::ErrorCode::Internal,
                        "the migration from RPM to Tolva is not complete");
}

} // namespace

RunBody startMigration() {
    auto database = std::make_shared<const Core::Tolva::Database>();
    return [database] {
        database->migrateFromRpm();
        recordSources();
        requireNothingWaiting(*database);
    };
}

} // namespace Launcher
