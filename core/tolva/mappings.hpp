#pragma once

// System mappings: the files in system directories that stand for a package's files.

#include "common/filesystem.hpp"
#include "core/tolva/list_file.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Core::Tolva {

// The attribute that marks a copy mapping; its value is the package-side path it was made from.
inline constexpr const char* mappingMarkerAttribute = "user.tolva.mapping.target";

// The list of a version's mappings, one system path per line, inside the version directory.
inline constexpr const char* mappingListName = "symlink.list";

enum class MappingKind : std::uint32_t { Symlink = 0, Copy = 1 };

// One row of the mapping table: the files of `packageSubdir` (relative to the version
// directory) appear below the system directory `systemPrefix` (absolute, ending in "/").
struct MappingRule {
    std::string systemPrefix;
    std::string packageSubdir;
    MappingKind kind;

    bool operator==(const MappingRule&) const = default;
};

// What the mapping table reads of a package record.
struct PackageNames {
    std::string id;
    std::optional<std::string> orgName;
    std::optional<std::string> appName;
};

// The package's mapping table, in its fixed order: the common rows, the organisation's rows
// when it has names, then (with `withLib64`) a /usr/lib64/ twin of every /usr/lib/ row.
std::vector<MappingRule> mappingTable(const PackageNames& package, bool withLib64);

// The table read the other way: the rules that place an installed file into the package tree.
std::vector<Common::RemapRule> remapRules(const std::vector<MappingRule>& table);

// True when `path` itself is a symbolic link (not followed), or a regular file carrying the
// mapping marker; false for anything else, a missing path included.
bool isMapping(const std::filesystem::path& path);

// What a path that a package's mapping list names turns out to be.
enum class ListedMapping {
    Mapping,     // the package's own mapping
    Overwritten, // in the package's place, but something else stands there now
    OutOfPlace,  // outside the package's system directories: never touched
};

// A listed path is the package's mapping when it lies in one of the package's system
// directories (lib64 twins included) with no linked directory on the way, and is a symbolic
// link into `packageDirectory` (or, in a copy directory, a library's plain relative link), or a
// copy whose marker names a file in `packageDirectory`.
ListedMapping classifyListedMapping(const std::filesystem::path& path, const PackageNames& package,
                                    const std::filesystem::path& packageDirectory);

// Whether `directory` is one the package may have created in a system place: a mapped system
// directory named after the package or its organisation, or a directory directly below a mapped
// system directory, with no linked directory on the way.
bool isGeneratedDirectoryOf(const std::filesystem::path& directory, const PackageNames& package);

// Creates one mapping at `mappingPath` for the package file `source`: a symbolic link, or a
// marked copy (a plain relative link, such as a library's version link, is copied as a link).
// Throws what the file operations throw; a half-made copy is removed first.
void createMapping(const std::filesystem::path& source, const std::filesystem::path& mappingPath,
                   MappingKind kind);

// Creates every mapping of the package unpacked in `versionDirectory` and lists them in its
// mapping list. Leftover mappings in the way are replaced; a system file in the way stops the
// run. On any failure the mappings made so far are removed and Common::Error is thrown.
void createMappings(const std::filesystem::path& versionDirectory, const PackageNames& package,
                    bool withLib64 = false, ListFlush listFlush = ListFlush::BeforeRename);

} // namespace Core::Tolva
