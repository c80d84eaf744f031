#pragma once

// The Tolva package database: where it lives, and the metadata of its package versions.

#include "core/tolva/mappings.hpp"

#include <filesystem>
#include <map>
#include <string>

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

private:
    std::filesystem::path root;
    std::filesystem::path temp;
};

} // namespace Core::Tolva
