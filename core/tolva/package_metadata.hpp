#pragma once

// What the database records about a package beside its files, gathered the same way by the
// migration, the start-up pass and tolva-pkg: its directories in system places, its manifest
// names and its developer certificate.

#include "core/tolva/database.hpp"
#include "core/tolva/list_file.hpp"
#include "platform/package_signatures/certificate.hpp"

#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Core::Tolva {

// A package as a velmor.pkg describes it: its identity and manifest names, no files. Throws
// Common::Error (BadPackage) when one of them cannot stand as a directory name.
Package packageFromData(const PackageData& data);

// Throws Common::Error (BadPackage) unless the package's id, version and manifest names can
// each stand as one directory name.
void checkPackageNames(const Package& package);

// The package's own directories in system places, by the mapping table: a mapped system
// directory itself when it is named after the package or its organisation, and any directory
// directly below a mapped system directory.
std::vector<std::filesystem::path> generatedDirectories(const Package& package);

// Lists generatedDirectories(package) in the generated directory list in `directory`.
void writeGeneratedDirectoryList(const Package& package, const std::filesystem::path& directory,
                                 ListFlush flush = ListFlush::BeforeRename);

// The organisation and application names of the installed manifest
// "/usr/share/applications/" + id + ".desktop"; an empty or missing one is absent.
std::pair<std::optional<std::string>, std::optional<std::string>>
installedManifestNames(const std::string& id);

// "certificate.subgroup" and "certificate.id" of a developer certificate.
PackageData certificateData(const PackageSignatures::Certificate& certificate);

// The certificate data of the developer certificate that the device's signature database
// holds for `id`; nothing, with a warning, when it holds none, and nothing, silently, for a
// system developer's certificate: system packages are never the database's.
std::optional<PackageData> developerCertificateData(const PackageSignatures::Database& signatures,
                                                    const std::string& id);

// The two error lines of a package whose information could not be gathered.
void logPackageInformationFailure(const std::exception& cause);

} // namespace Core::Tolva
