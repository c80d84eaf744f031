// Upgrades and removal of installed packages, and the start-up pass that finishes what an
// earlier upgrade left prepared or half done.

#include "common/error.hpp"
#include "common/log.hpp"
#include "common/rpm/version.hpp"
#include "core/tolva/database.hpp"
#include "core/tolva/package_metadata.hpp"
#include "core/tolva/path_checks.hpp"
#include "platform/package_signatures/database.hpp"

#include <algorithm>

namespace fs = std::filesystem;

namespace Core::Tolva {

using Common::Error;
using Common::ErrorCode;
using Common::LogLevel;
using Common::LogLine;
using Common::Rpm::Version;

namespace {

bool isThere(const fs::path& path) {
    std::error_code error;
    return fs::exists(fs::status(path, error));
}

bool isLink(const fs::path& path) {
    std::error_code error;
    return fs::is_symlink(fs::symlink_status(path, error));
}

// A link's target as a path, a relative one taken against the link's directory.
fs::path linkTarget(const fs::path& link) {
    const fs::path target = fs::read_symlink(link);
    return target.is_relative() ? link.parent_path() / target : target;
}

// The version directory named by a link's target, when it lies directly in the package
// directory: only such a directory may be removed recursively on the link's account.
std::optional<fs::path> versionDirectoryOf(const fs::path& packageDirectory, fs::path target) {
    target = target.lexically_normal();
    if (target.filename().empty())
        target = target.parent_path();
    const std::string name = target.filename().string();
    if (name.empty() || name == "." || name == ".." ||
        target.parent_path() != packageDirectory.lexically_normal())
        return std::nullopt;
    return target;
}

// Removes the mappings and generated directories of the version behind `current`; each
// failure is logged and the work goes on.
void removeVersionFootprint(const fs::path& current, const std::string& id) {
    try {
        Database::removePackageMappings(current);
    } catch (const Error& error) {
        Common::logWarning("couldn't remove package mappings: " + id);
        LogLine(LogLevel::Warning) << error;
    }
    try {
        Database::removeGeneratedDirectories(current);
    } catch (const Error& error) {
        Common::logWarning("couldn't remove the generated directories of the package: " + id);
        LogLine(LogLevel::Warning) << error;
    }
}

// Whether "next" is a prepared upgrade: a link to a version that is there. Whatever else
// stands in its place (a plain directory, a link whose version is gone) is removed.
bool preparedUpgradeStands(const fs::path& next) {
    if (isLink(next) && isThere(next))
        return true;
    std::error_code error;
    if (!fs::exists(fs::symlink_status(next, error)))
        return false;
    try {
        fs::remove_all(next);
    } catch (const std::exception& cause) {
        Common::logWarning("couldn't cleanup corrupted next directory");
        LogLine(LogLevel::Warning) << cause;
    }
    return false;
}

// Maps the version that "current" now names; when that fails "current" goes, so that the
// package is not left half mapped, and the failure is rethrown.
void mapCurrentVersion(const fs::path& current, const Package& package) {
    try {
        createMappings(current, package);
    } catch (...) {
        if (isThere(current)) {
            try {
                fs::remove(current);
            } catch (const std::exception& error) {
                LogLine(LogLevel::Warning)
                    << "couldn't clean up current directory after interrupted upgrade: " << current;
                LogLine(LogLevel::Warning) << error;
            }
        }
        throw;
    }
}

// Removes every entry of the package directory but the "current" and "next" links and the
// versions they name; a failed removal is logged with `failure` and the entry. Throws when the
// directory cannot be walked.
void removeOtherVersions(const fs::path& packageDirectory, const char* failure) {
    std::vector<fs::path> kept;
    for (const char* link : {currentEntryName, nextEntryName}) {
        const fs::path path = packageDirectory / link;
        if (!isLink(path))
            continue;
        kept.push_back(path);
        if (isThere(path))
            kept.push_back(linkTarget(path));
    }
    const auto isKept = [&](const fs::path& entry) {
        return std::any_of(kept.begin(), kept.end(), [&](const fs::path& path) {
            std::error_code error;
            return entry == path || fs::equivalent(entry, path, error);
        });
    };
    for (const auto& entry : fs::directory_iterator(packageDirectory)) {
        if (isKept(entry.path()))
            continue;
        try {
            fs::remove_all(entry.path());
        } catch (const std::exception& error) {
            LogLine(LogLevel::Warning) << failure << entry.path();
            LogLine(LogLevel::Warning) << error;
        }
    }
}

Version parsedVersion(const std::string& version) {
    auto parsed = Version::parse(version);
    if (!parsed)
        throw Error(ErrorCode::BadPackage, "couldn't parse package version: " + version);
    return std::move(*parsed);
}

// The version directory name of a link's target, and its parse when librpm takes it.
std::pair<std::string, std::optional<Version>> linkedVersion(const fs::path& link) {
    std::error_code error;
    const std::string name = fs::read_symlink(link, error).filename().string();
    return {name, Version::parse(name)};
}

// Removes a prepared upgrade whose version cannot be parsed: its version and its link.
void cleanUpCorruptedUpgrade(const fs::path& packageDirectory, const fs::path& next) {
    std::error_code error;
    const fs::path target = fs::read_symlink(next, error);
    LogLine(LogLevel::Warning) << "corrupted package upgrade found: " << target;
    Common::logInfo("cleaning up corrupted package upgrade");
    try {
        if (const auto version = versionDirectoryOf(packageDirectory, linkTarget(next)))
            fs::remove_all(*version);
        fs::remove(next);
    } catch (const std::exception& cause) {
        Common::logWarning("couldn't clean up correupted package upgrade");
        LogLine(LogLevel::Warning) << cause;
    }
}

// Writes the completed metadata next to velmor.pkg and renames it over the old file, so that
// an interruption leaves the old file or the new one.
void rewritePackageData(const fs::path& versionDirectory, PackageData data) {
    const Package package = packageFromData(data);
    for (const char* own : {"general.id", "general.version", "general.orgname", "general.appname"})
        data.erase(own);
    const fs::path staging = versionDirectory / ".velmor.pkg.partial";
    fs::remove_all(staging);
    fs::create_directory(staging);
    Database::writePackageDataFile(package, data, staging);
    fs::rename(staging / packageDataFileName, versionDirectory / packageDataFileName);
    fs::remove(staging);
}

// Fills in what a version's velmor.pkg lacks: the developer certificate's data from the
// device's signature database, the manifest names from the installed desktop entry. A file
// that cannot be read, or lacks the package's identity, is left to the repair pass.
void completeMetadata(const fs::path& versionDirectory,
                      const PackageSignatures::Database& signatures) {
    PackageData data;
    try {
        data = Database::readPackageDataEntries(versionDirectory / packageDataFileName);
    } catch (const Error&) {
        return;
    }
    if (!data.contains("general.id") || !data.contains("general.version"))
        return;
    const std::string id = data.at("general.id");
    checkPathComponent(id, "package id");
    bool completed = false;
    if (!data.contains("certificate.id") || !data.contains("certificate.subgroup")) {
        if (const auto certificate = developerCertificateData(signatures, id)) {
            for (const auto& [key, value] : *certificate)
                data[key] = value;
            completed = true;
        }
    }
    if (!data.contains("general.orgname") || !data.contains("general.appname")) {
        const auto [orgName, appName] = installedManifestNames(id);
        if (orgName && appName) { // checked with the rest when the file is written
            data["general.orgname"] = *orgName;
            data["general.appname"] = *appName;
            completed = true;
        }
    }
    if (completed)
        rewritePackageData(versionDirectory, std::move(data));
}

// Completes the upgrade prepared in the package directory, if there is one. Throws when the
// new version cannot be mapped.
void completePreparedUpgrade(const fs::path& packageDirectory) {
    const fs::path current = packageDirectory / currentEntryName;
    const fs::path next = packageDirectory / nextEntryName;
    if (!isLink(next) || !preparedUpgradeStands(next))
        return;
    const Package package =
        packageFromData(Database::readPackageDataFile(next / packageDataFileName));
    if (isThere(current))
        removeVersionFootprint(current, package.id());
    try {
        fs::rename(next, current);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << "couldn't rename next symlink to the current: " << next;
        LogLine(LogLevel::Error) << error;
        return;
    }
    mapCurrentVersion(current, package);
    const std::string upgraded = "package " + package.id() + " successfully upgraded";
    Common::logInfo(upgraded);
    Common::EventLogRecord(LogLevel::Info, Common::EventCode::PackageUpgrade) << upgraded;
}

} // namespace

fs::path Database::packageDirectory(const std::string& id) const {
    const fs::path relative = fs::path(id).relative_path();
    checkPathComponent(relative.string(), "package id");
    const fs::path directory = root / relative;
    // A link in the root is no package directory: the repair pass clears it, never follows it.
    if (!isThere(directory) || isLink(directory))
        throw Error(ErrorCode::PackageNotExist, "couldn't find package directory: " + id);
    if (!isThere(directory / currentEntryName)) {
        cleanUpCorruptedPackage(directory);
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "couldn't find current directory of " + id + " package");
    }
    return directory;
}

void Database::checkUpgrade(const Package& package) const {
    const fs::path directory = packageDirectory(package.id());
    const fs::path next = directory / nextEntryName;
    if (isLink(next)) {
        const Version newVersion = parsedVersion(package.version());
        if (const auto prepared = linkedVersion(next).second) {
            if (newVersion.compare(*prepared) <= 0)
                throw Error(ErrorCode::UpgradeAlreadyPrepared, "package upgrade to version " +
                                                                   package.version() +
                                                                   " already prepared");
            return;
        }
        cleanUpCorruptedUpgrade(directory, next);
    }
    const auto [installedName, installed] = linkedVersion(directory / currentEntryName);
    if (!installed) {
        cleanUpCorruptedPackage(directory);
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    "couldn't parse actual package version: " + installedName);
    }
    if (parsedVersion(package.version()).compare(*installed) < 0)
        throw Error(ErrorCode::DowngradeAttempt, "attempt to downgrade package from " +
                                                     installedName + " to " + package.version() +
                                                     " version");
}

void Database::completeUpgrade(const Package& package) const {
    const std::string& id = package.id();
    const fs::path directory = packageDirectory(id);
    const fs::path current = directory / currentEntryName;
    const fs::path next = directory / nextEntryName;
    if (!preparedUpgradeStands(next))
        throw Error(ErrorCode::Internal,
                    "attempt to complete non-existent update for " + id + " package");
    removeVersionFootprint(current, id);
    try {
        fs::rename(next, current);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        throw Error(ErrorCode::Filesystem,
                    "couldn't rename next directory to current for " + id + " package");
    }
    mapCurrentVersion(current, package);
    try {
        removeOtherVersions(directory, "couldn't cleanup previous version of the package: ");
    } catch (const std::exception& error) {
        LogLine(LogLevel::Warning)
            << "couldn't cleanup previous versions of the package: " << directory;
        LogLine(LogLevel::Warning) << error;
    }
}

void Database::removePackage(const std::string& id) const {
    const fs::path directory = packageDirectory(id);
    removeVersionFootprint(directory / currentEntryName, id);
    try {
        fs::remove_all(directory);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        throw Error(ErrorCode::Filesystem,
                    "couldn't remove package directory: " + directory.string());
    }
}

void Database::startUpPass() const {
    if (!isThere(root)) {
        Common::logInfo("database root directory doesn't exist");
        return;
    }
    const PackageSignatures::Database signatures(PackageSignatures::Database::defaultPath);
    for (const auto& directory : listPackageDirectories()) {
        for (const char* link : {currentEntryName, nextEntryName}) {
            try {
                if (isLink(directory / link))
                    completeMetadata(directory / link, signatures);
            } catch (const std::exception& error) {
                logPackageInformationFailure(error);
            }
        }
    }
    installedPackages();
    for (const auto& directory : listPackageDirectories()) {
        try {
            completePreparedUpgrade(directory);
        } catch (const std::exception& error) {
            LogLine(LogLevel::Error) << error;
        }
        if (!isThere(directory / currentEntryName))
            continue; // left for the next pass to remove
        try {
            removeOtherVersions(directory,
                                "couldn't remove outdated package versioned directory: ");
        } catch (const std::exception& error) {
            LogLine(LogLevel::Warning)
                << "couldn't remove outdated package versioned directory: " << directory;
            LogLine(LogLevel::Warning) << error;
        }
    }
}

} // namespace Core::Tolva
