#pragma once

// The Tolva package database: where it lives, and the metadata of its package versions.

#include "common/rpm/transaction.hpp"
#include "core/tolva/mappings.hpp"
#include "core/tolva/package.hpp"
#include "platform/package_signatures/database.hpp"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Core::Tolva {

// An installed package's metadata: flat key ("general.id") to value.
using PackageData = std::map<std::string, std::string>;

inline constexpr const char* configurationPath = "/etc/tolva/tolva.conf";
inline constexpr const char* currentEntryName = "current";
inline constexpr const char* nextEntryName = "next";
inline constexpr const char* previousEntryName = "prev";
inline constexpr const char* generatedDirectoryListName = "generated.dir.list";
inline constexpr const char* packageDataFileName = "velmor.pkg";

// A package copied out of RPM and waiting to be installed here.
struct PreparedPackage {
    Package package;
    PackageData certificate;    // "certificate.subgroup" and "certificate.id"
    std::filesystem::path tree; // the temporary directory that holds its files
};

class Database {
public:
    // Reads the configuration; a missing or bad file is a warning and gives the defaults.
    Database() : Database(configurationPath) {}
    // The same with the configuration read from `configurationFile`.
    explicit Database(const std::filesystem::path& configurationFile);

    const std::filesystem::path& rootDirectory() const { return root; }
    const std::filesystem::path& tempDirectory() const { return temp; }

    // rootDirectory / id / version.
    std::filesystem::path versionedDirectoryPath(const std::string& id,
                                                 const std::string& version) const;

    // Every key of every section of a velmor.pkg; throws Common::Error when it is missing,
    // malformed or lacks a required key.
    static PackageData readPackageDataFile(const std::filesystem::path& file);
    // The same without the check of the required keys.
    static PackageData readPackageDataEntries(const std::filesystem::path& file);

    // Writes velmor.pkg into `directory`: the package's own keys, then `extra` in key order.
    // The manifest names are written only when the package has both.
    static void writePackageDataFile(const PackageNames& package, const std::string& version,
                                     const PackageData& extra,
                                     const std::filesystem::path& directory);
    static void writePackageDataFile(const Package& package, const PackageData& extra,
                                     const std::filesystem::path& directory) {
        writePackageDataFile(package.names(), package.version(), extra, directory);
    }

    // Moves an unpacked package into its version directory and returns that directory.
    std::filesystem::path createVersionedDirectory(const std::string& id,
                                                   const std::string& version,
                                                   const std::filesystem::path& unpacked) const;

    // The data of a package's newest readable version ("next", else "current"). An unreadable
    // "next" is removed; an unreadable "current" removes the whole package. Throws then.
    PackageData readPackageData(const std::filesystem::path& packageDirectory) const;
    PackageData readCurrentPackageData(const std::filesystem::path& packageDirectory) const;
    PackageData readNextPackageData(const std::filesystem::path& packageDirectory) const;

    // Moves every qualifying application that RPM has installed into the database: copies its
    // files out, erases it from RPM, installs the copy. Each package's outcome is logged; throws
    // only when the preparation as a whole fails, before anything is erased. A run that was
    // interrupted, or left packages waiting, is taken up first.
    void migrateFromRpm() const;
    // Copies the files of every qualifying installed package into the temporary directory and
    // queues its erasure in `transaction`.
    std::vector<PreparedPackage>
    preparePackagesForMigration(Common::Rpm::Transaction& transaction) const;
    // Copies the installed files of one package into tempDirectory / id; returns that tree.
    std::filesystem::path copyPackageFilesToTempDirectory(const Package& package) const;
    // Installs one prepared package: version directory, "current", mappings. On failure the
    // files go back to the temporary directory.
    void installPreparedPackage(const PreparedPackage& prepared) const;
    // The packages whose migration did not finish: erased from RPM and not installed here yet,
    // or not erased by RPM.
    std::vector<std::string> waitingPackages() const;

    // The repair pass: the data of every intact package, in the root's listing order; whatever
    // does not belong in the root, and every package that cannot be read, is removed.
    std::vector<PackageData> installedPackages() const;
    std::vector<std::filesystem::path> listPackageDirectories() const;
    void cleanUpCorruptedPackage(const std::filesystem::path& packageDirectory) const;
    static void removePackageMappings(const std::filesystem::path& versionDirectory);
    static void removeGeneratedDirectories(const std::filesystem::path& versionDirectory);

    // rootDirectory / the id with any root part dropped. Throws Common::Error: BadPackage for
    // an id that is no directory name, PackageNotExist when there is no such directory, and
    // CorruptedInstalledPackage, after removing the package, when it has no "current".
    std::filesystem::path packageDirectory(const std::string& id) const;
    // Throws when `package` may not be prepared as an upgrade of the installed one:
    // DowngradeAttempt, or UpgradeAlreadyPrepared when as new a version is prepared already.
    // A prepared upgrade whose version cannot be parsed is removed first.
    void checkUpgrade(const Package& package) const;
    // Makes the prepared "next" version current: the installed version's mappings and
    // generated directories go, "next" replaces "current", the new version is mapped and every
    // other version removed. Throws when nothing is prepared, when the switch fails, and when
    // the new mappings fail (the package is then left without "current").
    void completeUpgrade(const Package& package) const;
    // Removes the package's mappings, its generated directories and its package directory.
    void removePackage(const std::string& id) const;
    // The start-up pass: completes the metadata that a package version lacks, repairs the
    // database (installedPackages), completes every prepared upgrade and removes outdated
    // versions. Every failure is logged and the pass goes on.
    void startUpPass() const;

private:
    // The root and the temporary directory are the database's own: one that is a link would
    // take every listing, write and removal of the database wherever the link points (a link
    // above them is the platform's own arrangement). Throws Common::Error (Filesystem).
    void checkOwnDirectories() const;
    std::filesystem::path preparedRecordPath() const;
    std::vector<std::string> readPreparedRecord() const;
    void writePreparedRecord(const std::vector<std::string>& ids) const;
    void recordWaiting(const std::vector<std::string>& waiting) const;
    std::vector<std::string> installErasedPackages(const std::vector<PreparedPackage>& prepared,
                                                   bool erasureTaken) const;
    std::vector<std::string>
    resumeInterruptedMigration(const std::vector<std::string>& recorded) const;
    void cleanUpTemporaryDirectory(const std::vector<std::string>& keep) const;
    std::function<std::optional<PreparedPackage>()>
    prepareInstalledPackage(const Common::Rpm::Reader& reader, const std::string& id,
                            const PackageSignatures::Database& signatures,
                            const std::vector<std::string>& prepared) const;
    // The two halves of installPreparedPackage: placing touches nothing but the package's own
    // directories (its tree, "current", its version directory); mapping fills the system
    // directories. Either one, failing, puts the files back into the temporary directory.
    void placePreparedPackage(const PreparedPackage& prepared) const;
    void mapPlacedPackage(const PreparedPackage& prepared) const;
    void returnToTemporaryDirectory(const PreparedPackage& prepared) const;
    // Installs one package (by `install`, else installPreparedPackage) and logs the outcome;
    // false when it failed and still waits.
    bool migrate(const PreparedPackage& prepared) const;
    bool migrate(const PreparedPackage& prepared, const std::function<void()>& install) const;

    std::filesystem::path root;
    std::filesystem::path temp;
};

} // namespace Core::Tolva
