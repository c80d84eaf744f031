#pragma once

// The Tolva package database: where it lives, and the metadata of its package versions.

#include "core/tolva/mappings.hpp"
#include "core/tolva/package.hpp"

#include <filesystem>
#include <map>
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

class Database {
public:
    // Reads the configuration; a missing or bad file is a warning and gives the defaults.
    Database();

    const std::filesystem::path& rootDirectory() const { return root; }
    const std::filesystem::path& tempDirectory() const { return temp; }

    // rootDirectory / id / version.
    std::filesystem::path versionedDirectoryPath(const std::string& id,
                                                 const std::string& version) const;

    // Every key of every section of a velmor.pkg; throws Common::Error when it is missing,
    // malformed or lacks a required key.
    static PackageData readPackageDataFile(const std::filesystem::path& file);

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

    // The repair pass: the data of every intact package, in the root's listing order; whatever
    // does not belong in the root, and every package that cannot be read, is removed.
    std::vector<PackageData> installedPackages() const;
    std::vector<std::filesystem::path> listPackageDirectories() const;
    void cleanUpCorruptedPackage(const std::filesystem::path& packageDirectory) const;
    static void removePackageMappings(const std::filesystem::path& versionDirectory);
    static void removeGeneratedDirectories(const std::filesystem::path& versionDirectory);

private:
    std::filesystem::path root;
    std::filesystem::path temp;
};

} // namespace Core::Tolva
