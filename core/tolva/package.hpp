#pragma once

// An application package: who it is, what files it holds, which application it declares and
// who signed it.

#include "common/rpm/file_iterator.hpp"
#include "core/tolva/mappings.hpp"
#include "platform/package_signatures/cms.hpp"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Core::Tolva {

// The key id of the source of packages that have no client signature.
inline constexpr const char* noSourceKeyId = ".no.source.apps";

// The platform's package certificate authority.
inline constexpr const char* packageCaPath = "/etc/keys/packages/ca.pem";

class Package {
public:
    using Files = std::vector<Common::Rpm::FileIterator::Entry>;
    using Source = std::pair<std::string, std::string>; // key id, subject

    // Reads the package file at `path` and checks its signatures against the platform's
    // certificate authority. Throws Common::Error on any refusal; writes nothing to disk.
    static Package fromPath(std::string path);

    // A package known from elsewhere (an installed package's data): no file, no signatures.
    Package(std::string id, std::string version, Files files, std::optional<std::string> orgName,
            std::optional<std::string> appName);

    const std::string& path() const { return filePath; }
    const std::string& id() const { return packageId; }
    // Version and release, "1.2.0-3"; never the epoch.
    const std::string& version() const { return packageVersion; }
    const std::string& architecture() const { return packageArchitecture; }
    const Files& files() const { return packageFiles; }
    const std::optional<std::string>& orgName() const { return manifestOrgName; }
    const std::optional<std::string>& appName() const { return manifestAppName; }
    const std::vector<PackageSignatures::Cms>& cmses() const { return signatures; }
    const Source& source() const { return signingSource; }
    bool isSystemDeveloper() const { return systemDeveloper; }

    // Throws Common::Error code 7 when the package has no developer signature.
    const PackageSignatures::Cms& developerCms() const;

    PackageNames names() const { return {packageId, manifestOrgName, manifestAppName}; }

    // Where a package path lands inside a package tree: the package's mapping rules (without
    // the lib64 rows) place it, or it keeps its full path made relative. Throws Common::Error
    // (BadPackage) when the result would leave the tree.
    std::filesystem::path placedPath(const std::filesystem::path& path) const;

    // Unpacks the payload of path() below `root`, every entry at its placed path; link targets
    // are placed against `linkRoot`. A partly unpacked tree is left for the caller.
    void extract(const std::filesystem::path& root, const std::filesystem::path& linkRoot) const;
    void extractDirectory(const std::filesystem::path& root,
                          const Common::Rpm::FileIterator::Entry& entry) const;
    // Writes the file's data, sets its mode and, where the file needs one, its signatures from
    // the developer CMS as attributes.
    void extractRegularFile(const std::filesystem::path& root,
                            const Common::Rpm::ExtractFileIterator::Entry& entry) const;
    // Recreates a symbolic link (its text kept when it is plainly relative, otherwise placed
    // against `linkRoot`) or a hard link to the placed data-carrying file below `root`.
    void extractLink(const std::filesystem::path& root, const std::filesystem::path& linkRoot,
                     const Common::Rpm::FileIterator::Entry& entry) const;

private:
    Package() = default;

    const std::vector<Common::RemapRule>& placementRules() const;

    std::string filePath;
    std::string packageId;
    std::string packageVersion;
    std::string packageArchitecture;
    Files packageFiles;
    std::optional<std::string> manifestOrgName;
    std::optional<std::string> manifestAppName;
    std::vector<PackageSignatures::Cms> signatures;
    std::optional<PackageSignatures::Cms> developerSignature;
    Source signingSource;
    bool systemDeveloper = false;
    mutable std::vector<Common::RemapRule> rules; // made on first use
};

// The entries of one package as they are written into its tree. The top of a tree holds the
// database's own files (velmor.pkg, the lists and their work files), so only the package's
// directories may stand there; and no entry may land on or below a symbolic link that an
// earlier entry made there, which would take the write wherever the package's link points.
class TreeEntries {
public:
    // Throws Common::Error (BadPackage) when an entry of `type` may not be written at `placed`,
    // the place of the package path `original`.
    void check(const std::filesystem::path& placed, Common::Rpm::EntryType type,
               const std::filesystem::path& original) const;
    // A symbolic link of the package now stands at `placed`.
    void addLink(std::filesystem::path placed);

private:
    std::vector<std::filesystem::path> links;
};

inline std::vector<MappingRule> mappingTable(const Package& package, bool withLib64) {
    return mappingTable(package.names(), withLib64);
}

inline void createMappings(const std::filesystem::path& versionDirectory, const Package& package,
                           bool withLib64 = false, ListFlush listFlush = ListFlush::BeforeRename) {
    createMappings(versionDirectory, package.names(), withLib64, listFlush);
}

} // namespace Core::Tolva
