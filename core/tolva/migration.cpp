// The migration of RPM-installed applications into the database.
//
// From the RPM erase on, the copy in the temporary directory is an application's only copy, so
// every step is arranged to survive a failure or an interruption: the copies are flushed and
// named in the record of prepared packages before the erase; a package that fails to install
// goes back to the temporary directory; and the next migration takes up whatever the record
// still names before it clears the temporary directory. Where the temporary directory is on
// the installed files' file system, the "copies" are further names of the installed files, and
// what the package adds to them waits until RPM has let go of them (linked_files.hpp).

#include "common/error.hpp"
#include "common/filesystem.hpp"
#include "common/log.hpp"
#include "core/tolva/database.hpp"
#include "core/tolva/linked_files.hpp"
#include "core/tolva/list_file.hpp"
#include "core/tolva/path_checks.hpp"
#include "platform/app_manifest/manifest_entry.hpp"

#include <algorithm>
#include <fstream>
#include <map>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace Core::Tolva {

using Common::Error;
using Common::ErrorCode;
using Common::LogLevel;
using Common::LogLine;
using Common::Rpm::EntryType;
using Common::Rpm::IterationResult;

namespace {

// Names the prepared packages inside the temporary directory; no package id can take this
// name (see prepareInstalledPackage).
constexpr const char* preparedRecordName = ".migration.prepared";

constexpr int developerCertificateGroup = 1;

bool contains(const std::vector<std::string>& ids, const std::string& id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

bool hasPackageData(const fs::path& directory) {
    std::error_code error;
    return fs::is_regular_file(directory / packageDataFileName, error);
}

void removeQuietly(const fs::path& path) {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

// A package as its tree describes it, through the velmor.pkg it carries. Its file list is not
// needed any more: the generated directory list was written from it.
PreparedPackage preparedFromTree(const fs::path& versionDirectory, const fs::path& tree) {
    const auto data = Database::readPackageDataFile(versionDirectory / packageDataFileName);
    const auto value = [&](const char* key) -> std::optional<std::string> {
        const auto found = data.find(key);
        return found == data.end() ? std::nullopt : std::optional(found->second);
    };
    return {Package(data.at("general.id"), data.at("general.version"), {}, value("general.orgname"),
                    value("general.appname")),
            {{"certificate.subgroup", data.at("certificate.subgroup")},
             {"certificate.id", data.at("certificate.id")}},
            tree};
}

// The package's own directories in system places, by the mapping table: a mapped system
// directory itself when it is named after the package or its organisation, and any directory
// directly below a mapped system directory.
std::vector<fs::path> generatedDirectories(const Package& package) {
    const auto table = mappingTable(package, false);
    std::vector<fs::path> generated;
    for (const auto& entry : package.files()) {
        if (entry.type != EntryType::Directory)
            continue;
        for (const auto& rule : table) {
            const fs::path prefix = fs::path(rule.systemPrefix).parent_path();
            if (entry.path == prefix) {
                const auto name = entry.path.filename().string();
                if (name == package.id() || (package.orgName() && name == *package.orgName()))
                    generated.push_back(entry.path);
                break;
            }
            if (entry.path.parent_path() == prefix) {
                generated.push_back(entry.path);
                break;
            }
        }
    }
    return generated;
}

// Copies the installed files of one package into its tree. A file that nothing but its
// installed name names, on the tree's file system, is not copied but linked: RPM's erase only
// removes that name. The further names of a hard-link set come before the name that RPM counts
// as carrying the data, so every name is linked to the first copy of its inode once all files
// are copied.
class InstalledFileCopy {
public:
    InstalledFileCopy(const Package& package, fs::path tree, fs::path linkRoot)
        : package(package), tree(std::move(tree)), linkRoot(std::move(linkRoot)) {}

    void copy(const Common::Rpm::FileIterator::Entry& entry) {
        switch (entry.type) {
        case EntryType::Directory:
            package.extractDirectory(tree, entry);
            break;
        case EntryType::Symlink:
            package.extractLink(tree, linkRoot, entry);
            break;
        case EntryType::RegularFile:
            copyFile(entry);
            break;
        case EntryType::Hardlink:
            furtherNames.push_back(entry);
            break;
        }
    }

    // The rest, once every entry was given to copy().
    void finish() {
        for (const auto& entry : furtherNames)
            copyFile(entry);
        if (!linked.empty())
            linked.write(tree);
    }

private:
    struct Copy {
        fs::path path;
        bool linked;
    };

    void copyFile(const Common::Rpm::FileIterator::Entry& entry) {
        if (!fs::exists(fs::status(entry.path))) {
            LogLine(LogLevel::Warning)
                << "attempt to copy a non-existent file during package migration: " << entry.path;
            return;
        }
        struct stat installed {};
        if (::lstat(entry.path.c_str(), &installed) != 0 || !S_ISREG(installed.st_mode))
            throw Error(ErrorCode::BadPackage,
                        "installed package file is not a regular file: " + entry.path.string());
        const fs::path placed = package.placedPath(entry.path);
        const fs::path destination = tree / placed;
        const auto [first, isFirst] =
            copies.try_emplace({installed.st_dev, installed.st_ino}, Copy{destination, false});
        if (!isFirst) {
            fs::create_directories(destination.parent_path());
            fs::create_hard_link(first->second.path, destination);
            if (first->second.linked)
                linked.add(placed, false);
            return;
        }
        // The package's attributes wait for the erase: until then the file is RPM's.
        if (linkInstalledFile(entry.path, installed, destination)) {
            first->second.linked = true;
            linked.add(placed, entry.needsSignature);
            return;
        }
        Common::copyFileWithExtendedAttributes(entry.path, destination);
        if (entry.needsSignature)
            Common::setExtendedAttribute(destination, "security.appid", package.id());
    }

    const Package& package;
    const fs::path tree;
    const fs::path linkRoot;
    std::vector<Common::Rpm::FileIterator::Entry> furtherNames;
    std::map<std::pair<dev_t, ino_t>, Copy> copies;
    LinkedFiles linked;
};

std::vector<Common::Rpm::FileIterator::Entry> fileList(const Common::Rpm::Reader& reader) {
    std::vector<Common::Rpm::FileIterator::Entry> files;
    Common::Rpm::FileIterator(reader).forEach([&](const auto& entry) {
        files.push_back(entry);
        return IterationResult::Continue;
    });
    return files;
}

// The organisation and application names of the installed manifest; an empty one is absent.
std::pair<std::optional<std::string>, std::optional<std::string>>
installedManifestNames(const std::string& id) {
    const fs::path path = "/usr/share/applications/" + id + ".desktop";
    std::error_code error;
    if (!fs::is_regular_file(path, error)) // a FIFO there must not block the run
        return {};
    const auto manifest = AppManifest::ManifestEntry::fromFilename(path);
    if (!manifest)
        return {};
    const auto nonEmpty = [](std::string name) {
        return name.empty() ? std::nullopt : std::optional(std::move(name));
    };
    return {nonEmpty(manifest->appOrgname()), nonEmpty(manifest->appName())};
}

} // namespace

void Database::migrateFromRpm() const {
    std::vector<std::string> waiting = resumeInterruptedMigration(readPreparedRecord());
    cleanUpTemporaryDirectory(waiting);

    Common::Rpm::Transaction transaction;
    transaction.setFlags(RPMTRANS_FLAG_NOPLUGINS);
    transaction.setNotifyCallback();
    const auto prepared = preparePackagesForMigration(transaction);

    // A recorded tree that was not prepared again belongs to a package that RPM still has.
    std::erase_if(waiting, [&](const std::string& id) {
        if (!Common::Rpm::isInstalled(id))
            return false;
        const bool preparedAgain =
            std::any_of(prepared.begin(), prepared.end(),
                        [&](const PreparedPackage& package) { return package.package.id() == id; });
        if (!preparedAgain)
            removeQuietly(temp / id);
        return true;
    });
    if (prepared.empty()) {
        writePreparedRecord(waiting);
        return;
    }
    std::vector<std::string> recorded = waiting;
    for (const auto& package : prepared)
        recorded.push_back(package.package.id());
    Common::syncFileSystem(temp);
    writePreparedRecord(recorded);

    transaction.run();
    std::vector<std::string> ids;
    for (const auto& package : prepared)
        ids.push_back(package.package.id());
    const auto stillInstalled = Common::Rpm::installedAmong(ids);
    for (const auto& package : prepared) {
        if (stillInstalled.contains(package.package.id())) {
            LogLine(LogLevel::Warning) << "package " << package.package.id()
                                       << " is still installed by RPM after its erasure, it "
                                          "stays an RPM package";
            removeQuietly(package.tree);
        } else if (!migrate(package)) {
            waiting.push_back(package.package.id());
        }
    }
    // What was installed must be on the device before the record stops naming it.
    try {
        if (fs::exists(root))
            Common::syncFileSystem(root);
    } catch (const Error& error) {
        LogLine(LogLevel::Warning) << error;
        return;
    }
    writePreparedRecord(waiting);
}

// Installs what an earlier run erased from RPM but did not install; returns the ids that are
// still recorded afterwards (those still waiting, and those that RPM still has).
std::vector<std::string>
Database::resumeInterruptedMigration(const std::vector<std::string>& recorded) const {
    std::vector<std::string> remaining;
    const auto stillInstalled = Common::Rpm::installedAmong(recorded);
    for (const auto& id : recorded) {
        if (stillInstalled.contains(id)) {
            remaining.push_back(id);
            continue;
        }
        const fs::path tree = temp / id;
        const fs::path current = root / id / currentEntryName;
        std::optional<PreparedPackage> prepared;
        try {
            prepared = preparedFromTree(hasPackageData(tree) ? tree : current, tree);
        } catch (const std::exception& error) {
            LogLine(LogLevel::Error) << "couldn't find the prepared files of package " << id;
            LogLine(LogLevel::Error) << error;
            continue;
        }
        if (!migrate(*prepared))
            remaining.push_back(id);
    }
    if (remaining != recorded)
        writePreparedRecord(remaining);
    return remaining;
}

// Empties the temporary directory but for the record and the trees it still names.
void Database::cleanUpTemporaryDirectory(const std::vector<std::string>& keep) const {
    std::error_code error;
    if (!fs::exists(fs::symlink_status(temp, error)))
        return;
    try {
        for (const auto& entry : fs::directory_iterator(temp)) {
            const auto name = entry.path().filename().string();
            if (name != preparedRecordName && !contains(keep, name))
                fs::remove_all(entry.path());
        }
    } catch (const std::exception& cause) {
        Common::logWarning("couldn't cleanup database temporary directory");
        LogLine(LogLevel::Warning) << cause;
    }
}

std::vector<PreparedPackage>
Database::preparePackagesForMigration(Common::Rpm::Transaction& transaction) const {
    const PackageSignatures::Database signatures(PackageSignatures::Database::defaultPath);
    std::vector<PreparedPackage> prepared;
    Common::Rpm::InstalledPackageIterator().forEach([&](const Common::Rpm::Reader& reader) {
        try {
            auto package = prepareInstalledPackage(reader, signatures, prepared);
            if (!package)
                return IterationResult::Continue;
            try {
                transaction.addEraseElement(reader.header());
            } catch (...) {
                removeQuietly(package->tree);
                throw;
            }
            prepared.push_back(std::move(*package));
        } catch (const std::exception& error) {
            Common::logError("couldn't extract a package information required for migration");
            LogLine(LogLevel::Error) << error;
        }
        return IterationResult::Continue;
    });
    return prepared;
}

// One installed package: nothing when it does not qualify, its prepared copy when it does.
std::optional<PreparedPackage>
Database::prepareInstalledPackage(const Common::Rpm::Reader& reader,
                                  const PackageSignatures::Database& signatures,
                                  const std::vector<PreparedPackage>& prepared) const {
    const std::string id = reader.stringTag(RPMTAG_NAME);
    const std::string version =
        reader.stringTag(RPMTAG_VERSION) + "-" + reader.stringTag(RPMTAG_RELEASE);
    const auto certificate = signatures.packageCertificateWithGroup(id, developerCertificateGroup);
    if (!certificate) {
        Common::logWarning("package " + id + " doesn't have developer certificate");
        return std::nullopt;
    }
    if (certificate->isSystemDeveloperCertificate())
        return std::nullopt;
    checkPathComponent(id, "package id");
    checkPathComponent(version, "package version");
    if (id == preparedRecordName)
        throw Error(ErrorCode::BadPackageID, "package id is reserved: " + id);
    if (std::any_of(prepared.begin(), prepared.end(),
                    [&](const PreparedPackage& other) { return other.package.id() == id; }))
        throw Error(ErrorCode::BadPackageID, "package " + id + " is installed more than once");

    // A tree that an interrupted run prepared for this very version is still a faithful copy,
    // and may be the only one left when that run was stopped inside the erasure.
    const fs::path tree = temp / id;
    if (hasPackageData(tree)) {
        auto earlier = preparedFromTree(tree, tree);
        if (earlier.package.version() == version)
            return earlier;
        fs::remove_all(tree);
    }

    auto [orgName, appName] = installedManifestNames(id);
    if (orgName)
        checkPathComponent(*orgName, "organization name");
    if (appName)
        checkPathComponent(*appName, "application name");
    PreparedPackage package{
        Package(id, version, fileList(reader), orgName, appName),
        {{"certificate.subgroup", PackageSignatures::subgroupToString(certificate->subgroup())},
         {"certificate.id", certificate->keyId()}},
        {}};
    package.tree = copyPackageFilesToTempDirectory(package.package);
    try {
        writeListFile(package.tree / generatedDirectoryListName,
                      generatedDirectories(package.package),
                      "couldn't open file to store generated directory list",
                      "couldn't write line to generated directory list");
        writePackageDataFile(package.package, package.certificate, package.tree);
    } catch (...) {
        removeQuietly(package.tree);
        throw;
    }
    // The file list has served (the tree and its lists are made); every package keeping its
    // own until the end of the run would make the run's memory grow by a list per package.
    package.package = Package(id, version, {}, orgName, appName);
    return package;
}

fs::path Database::copyPackageFilesToTempDirectory(const Package& package) const {
    const fs::path tree = temp / package.id();
    try {
        fs::create_directories(temp);
        if (!fs::create_directory(tree))
            throw Error(ErrorCode::Filesystem,
                        "temporary package directory exists already: " + tree.string());
        InstalledFileCopy copy(package, tree,
                               versionedDirectoryPath(package.id(), package.version()));
        for (const auto& entry : package.files())
            copy.copy(entry);
        copy.finish();
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << "failed to copy package " << package.id()
                                 << " files with mappings: " << error;
        removeQuietly(tree);
        throw;
    }
    return tree;
}

void Database::installPreparedPackage(const PreparedPackage& prepared) const {
    const Package& package = prepared.package;
    const fs::path versioned = versionedDirectoryPath(package.id(), package.version());
    const fs::path current = root / package.id() / currentEntryName;
    // "current" is made before the files arrive: a package directory is never without it, so
    // that the repair pass cannot mistake an install in progress for damage.
    try {
        fs::create_directories(current.parent_path());
        const bool made =
            fs::is_symlink(fs::symlink_status(current)) && fs::read_symlink(current) == versioned;
        if (!made)
            fs::create_symlink(versioned, current);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        throw Error(ErrorCode::Filesystem,
                    "couldn't create current directory: " + current.string());
    }
    try {
        if (hasPackageData(versioned))
            removeQuietly(prepared.tree); // moved there by an interrupted run
        else {
            finishLinkedFiles(prepared.tree, package.id());
            createVersionedDirectory(package.id(), package.version(), prepared.tree);
        }
        createMappings(versioned, package);
    } catch (...) {
        // Back to the temporary directory, where the next start finds it. A version directory
        // that cannot go back stays, with "current", and gets its mappings next time.
        std::error_code error;
        if (!fs::exists(prepared.tree, error) && fs::exists(versioned, error))
            fs::rename(versioned, prepared.tree, error);
        if (fs::exists(prepared.tree, error)) {
            if (fs::read_symlink(current, error) == versioned)
                fs::remove(current, error);
            fs::remove(current.parent_path(), error); // only when empty
        }
        throw;
    }
}

// Installs one package and logs the outcome; false when it failed and still waits.
bool Database::migrate(const PreparedPackage& prepared) const {
    const std::string& id = prepared.package.id();
    try {
        installPreparedPackage(prepared);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << "failed to migrate " << id << " package from RPM to Tolva";
        LogLine(LogLevel::Error) << error;
        return false;
    }
    Common::logInfo("package " + id + " successfully migrated from RPM to Tolva");
    return true;
}

std::vector<std::string> Database::waitingPackages() const {
    return readPreparedRecord();
}

fs::path Database::preparedRecordPath() const {
    return temp / preparedRecordName;
}

std::vector<std::string> Database::readPreparedRecord() const {
    std::vector<std::string> ids;
    std::ifstream record(preparedRecordPath());
    for (std::string id; std::getline(record, id);)
        if (!id.empty())
            ids.push_back(id);
    return ids;
}

// The record is replaced as a whole and flushed, so that it names either the old set of
// packages or the new one. An empty set removes it.
void Database::writePreparedRecord(const std::vector<std::string>& ids) const {
    const fs::path record = preparedRecordPath();
    try {
        if (ids.empty()) {
            fs::remove(record);
            return;
        }
        std::vector<fs::path> lines(ids.begin(), ids.end());
        writeListFile(record, lines, "couldn't open the record of prepared packages",
                      "couldn't write the record of prepared packages");
        Common::syncFileSystem(temp);
    } catch (const Error&) {
        throw;
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        throw Error(ErrorCode::Filesystem, "couldn't write the record of prepared packages");
    }
}

} // namespace Core::Tolva
