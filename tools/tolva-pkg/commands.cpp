#include "tools/tolva-pkg/commands.hpp"

#include "common/error.hpp"
#include "core/tolva/database.hpp"
#include "core/tolva/package_metadata.hpp"
#include "core/trusted_sources/sqlite_database.hpp"

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <stdlib.h>

namespace fs = std::filesystem;

namespace TolvaPkg {

using Common::Error;
using Common::ErrorCode;
using Core::Tolva::Database;
using Core::Tolva::Package;
using Core::Tolva::PackageData;
using Core::TrustedSources::SQLiteDatabase;

namespace {

void removeQuietly(const fs::path& path) {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

std::string value(const PackageData& data, const std::string& key) {
    const auto found = data.find(key);
    return found == data.end() ? std::string() : found->second;
}

// What the database requires of a package before any of its names becomes a path.
void checkInstallable(const Package& package) {
    if (package.isSystemDeveloper())
        throw Error(ErrorCode::SystemPackageInstallationAttempt,
                    "package " + package.id() + " is signed by a system developer");
    Core::Tolva::checkPackageNames(package);
}

// The data of the installed version that `package` upgrades, or nothing for a fresh install.
// Throws when the package may not be installed.
std::optional<PackageData> installedVersion(const Database& database, const Package& package) {
    try {
        database.checkUpgrade(package);
    } catch (const Error& error) {
        // No package directory, or a damaged one that the check has just removed.
        if (error.code() == ErrorCode::PackageNotExist ||
            error.code() == ErrorCode::CorruptedInstalledPackage)
            return std::nullopt;
        throw;
    }
    auto data = database.readCurrentPackageData(database.packageDirectory(package.id()));
    if (value(data, "general.version") == package.version())
        throw std::runtime_error("package " + package.id() + " " + package.version() +
                                 " is installed already");
    return data;
}

// Unpacks the package into a fresh tree in the temporary directory, with its generated
// directory list and velmor.pkg, ready to be renamed into its version directory.
fs::path unpack(const Database& database, const Package& package) {
    fs::create_directories(database.tempDirectory());
    std::string name = (database.tempDirectory() / ("tolva-pkg." + package.id() + ".XXXXXX"));
    if (!::mkdtemp(name.data()))
        throw std::runtime_error("couldn't create a directory in " +
                                 database.tempDirectory().string());
    const fs::path tree = name;
    try {
        fs::permissions(tree, fs::perms(0755));
        package.extract(tree, database.versionedDirectoryPath(package.id(), package.version()));
        Core::Tolva::writeGeneratedDirectoryList(package, tree);
        Database::writePackageDataFile(
            package, Core::Tolva::certificateData(package.developerCms().certificate()), tree);
    } catch (...) {
        removeQuietly(tree);
        throw;
    }
    return tree;
}

void installFresh(const Database& database, const Package& package, const fs::path& tree) {
    try {
        database.installPreparedPackage(
            {package, Core::Tolva::certificateData(package.developerCms().certificate()), tree});
    } catch (...) {
        removeQuietly(tree); // installPreparedPackage has put the files back there
        throw;
    }
}

// Puts the installed version back after a failed upgrade: "current" to it, its mappings
// anew, the new version and any "next" gone. Failures are reported and passed over.
void restoreInstalledVersion(const fs::path& directory, const fs::path& installed,
                             const PackageData& installedData, const fs::path& newVersion) {
    const fs::path current = directory / Core::Tolva::currentEntryName;
    std::error_code error;
    fs::remove(directory / Core::Tolva::nextEntryName, error);
    if (fs::read_symlink(current, error) != installed) {
        const fs::path staging = directory / ".current.partial";
        fs::remove(staging, error);
        fs::create_directory_symlink(installed, staging, error);
        if (!error)
            fs::rename(staging, current, error);
        if (error)
            std::cerr << "tolva-pkg: couldn't restore " << current << ": " << error.message()
                      << "\n";
    }
    removeQuietly(newVersion);
    try {
        Core::Tolva::createMappings(installed, Core::Tolva::packageFromData(installedData));
    } catch (const std::exception& cause) {
        std::cerr << "tolva-pkg: couldn't restore the mappings of " << installed << ": "
                  << cause.what() << "\n";
    }
}

// Moves the unpacked tree into its version directory, prepares it as "next" (replacing an
// older prepared upgrade) and completes the upgrade; a failure restores the installed version.
void upgrade(const Database& database, const Package& package, const fs::path& tree,
             const PackageData& installedData) {
    const fs::path directory = database.packageDirectory(package.id());
    const fs::path current = directory / Core::Tolva::currentEntryName;
    const fs::path next = directory / Core::Tolva::nextEntryName;
    fs::path installed = fs::read_symlink(current);
    if (installed.is_relative())
        installed = directory / installed;
    fs::path newVersion;
    try {
        newVersion = database.createVersionedDirectory(package.id(), package.version(), tree);
    } catch (...) {
        removeQuietly(tree);
        throw;
    }
    try {
        // An older prepared version becomes outdated; completing the upgrade removes it.
        fs::remove_all(next);
        fs::create_directory_symlink(newVersion, next);
        database.completeUpgrade(package);
    } catch (...) {
        restoreInstalledVersion(directory, installed, installedData, newVersion);
        throw;
    }
}

// Binds the package to its signing source as the launcher does; the source of packages
// without a client signature switches the store's "required" flag off when it is created.
void recordSource(SQLiteDatabase& store, const Package& package) {
    const auto& [keyId, subject] = package.source();
    if (!store.hasSource(keyId)) {
        store.addSource({keyId, subject, {}});
        if (keyId == Core::Tolva::noSourceKeyId)
            store.setRequired(false);
    }
    if (store.hasPackage(package.id())) {
        if (store.packageSource(package.id()).keyId == keyId)
            return;
        store.unbindPackage(package.id());
    }
    store.bindPackageToSource(package.id(), keyId);
}

} // namespace

void list(std::ostream& out) {
    const Database database;
    auto packages = database.installedPackages();
    std::sort(packages.begin(), packages.end(), [](const PackageData& a, const PackageData& b) {
        return a.at("general.id") < b.at("general.id");
    });
    SQLiteDatabase store;
    for (const auto& data : packages) {
        const std::string& id = data.at("general.id");
        const std::string orgName = value(data, "general.orgname");
        const std::string appName = value(data, "general.appname");
        out << id << " " << data.at("general.version") << " "
            << (orgName.empty() ? "-" : orgName + "/" + appName) << " ";
        if (!store.hasPackage(id)) {
            out << "-\n";
            continue;
        }
        const auto source = store.packageSource(id);
        out << source.keyId << (source.subject.empty() ? "" : " " + source.subject) << "\n";
    }
}

void install(const std::string& file, std::ostream& out) {
    const Package package = Package::fromPath(file);
    checkInstallable(package);
    const Database database;
    const auto installed = installedVersion(database, package);
    SQLiteDatabase store;
    store.hasPackage(package.id()); // a store that cannot be used refuses before any change
    const fs::path tree = unpack(database, package);
    if (!installed) {
        installFresh(database, package, tree);
        try {
            recordSource(store, package);
        } catch (...) {
            database.removePackage(package.id());
            throw;
        }
        out << "installed " << package.id() << " " << package.version() << "\n";
        return;
    }
    upgrade(database, package, tree, *installed);
    try {
        recordSource(store, package);
    } catch (const std::exception& error) {
        throw std::runtime_error("package " + package.id() +
                                 " is upgraded, but its source is not recorded: " + error.what());
    }
    out << "upgraded " << package.id() << " from " << value(*installed, "general.version") << " to "
        << package.version() << "\n";
}

void remove(const std::string& id, std::ostream& out) {
    const Database database;
    const std::string name = database.packageDirectory(id).filename().string();
    SQLiteDatabase store;
    const bool bound = store.hasPackage(name); // a store that cannot be used refuses first
    database.removePackage(id);
    if (bound)
        store.unbindPackage(name);
    out << "removed " << name << "\n";
}

} // namespace TolvaPkg
