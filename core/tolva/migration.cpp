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
#include "core/tolva/package_metadata.hpp"
#include "core/tolva/path_checks.hpp"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <exception>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <system_error>
#include <thread>

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

// A package as its tree describes it, through the velmor.pkg it carries; its names are checked
// again, since the file stood on the device. Its file list is not needed any more: the
// generated directory list was written from it.
PreparedPackage preparedFromTree(const std::string& id, const fs::path& versionDirectory,
                                 const fs::path& tree) {
    const auto data = Database::readPackageDataFile(versionDirectory / packageDataFileName);
    if (data.at("general.id") != id)
        throw Error(ErrorCode::BadPackageID,
                    "prepared package is not " + id + ": " + versionDirectory.string());
    return {packageFromData(data),
            {{"certificate.subgroup", data.at("certificate.subgroup")},
             {"certificate.id", data.at("certificate.id")}},
            tree};
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
            entries.check(package.placedPath(entry.path), entry.type, entry.path);
            package.extractDirectory(tree, entry);
            break;
        case EntryType::Symlink: {
            const fs::path placed = package.placedPath(entry.path);
            entries.check(placed, entry.type, entry.path);
            package.extractLink(tree, linkRoot, entry);
            entries.addLink(placed);
            break;
        }
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

    // A file that is gone, before its copy or while it is made, is left out with a warning: it
    // is gone from the RPM package as well.
    void copyFile(const Common::Rpm::FileIterator::Entry& entry) {
        const fs::path placed = package.placedPath(entry.path);
        // Checked here, when it is written: a link met after a further name may lie on its way.
        entries.check(placed, entry.type, entry.path);
        struct stat installed {};
        if (!existsFollowed(entry.path, installed)) {
            warnNonExistent(entry.path);
            return;
        }
        try {
            copyExistingFile(entry, placed, installed);
        } catch (const std::exception&) {
            struct stat status {};
            if (::lstat(entry.path.c_str(), &status) == 0 || errno != ENOENT)
                throw;
            const fs::path destination = tree / placed;
            std::erase_if(copies,
                          [&](const auto& copy) { return copy.second.path == destination; });
            std::error_code ignored;
            fs::remove(destination, ignored);
            warnNonExistent(entry.path);
        }
    }

    static void warnNonExistent(const fs::path& path) {
        LogLine(LogLevel::Warning)
            << "attempt to copy a non-existent file during package migration: " << path;
    }

    // Whether `path` names something once links are followed; `seen` is what its own name is.
    // A look that fails for another reason than a missing name throws.
    static bool existsFollowed(const fs::path& path, struct stat& seen) {
        if (::lstat(path.c_str(), &seen) != 0) {
            if (errno == ENOENT || errno == ENOTDIR)
                return false;
            throw fs::filesystem_error("status", path,
                                       std::error_code(errno, std::generic_category()));
        }
        return !S_ISLNK(seen.st_mode) || fs::exists(fs::status(path));
    }

    void copyExistingFile(const Common::Rpm::FileIterator::Entry& entry, const fs::path& placed,
                          const struct stat& installed) {
        if (!S_ISREG(installed.st_mode))
            throw Error(ErrorCode::BadPackage,
                        "installed package file is not a regular file: " + entry.path.string());
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
    TreeEntries entries;
};

std::vector<Common::Rpm::FileIterator::Entry> fileList(const Common::Rpm::Reader& reader) {
    std::vector<Common::Rpm::FileIterator::Entry> files;
    Common::Rpm::FileIterator(reader).forEach([&](const auto& entry) {
        files.push_back(entry);
        return IterationResult::Continue;
    });
    return files;
}

bool onOneFileSystem(const fs::path& first, const fs::path& second) {
    struct stat one {};
    struct stat other {};
    return ::stat(first.c_str(), &one) == 0 && ::stat(second.c_str(), &other) == 0 &&
           one.st_dev == other.st_dev;
}

// Packages worked on at once: their work is the file system's, which takes several at a time.
std::size_t packagesAtOnce() {
    return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, 8);
}

// What a package's work on another thread left: its result or its failure, and its log lines,
// which wait to be written in the order of the packages, as one thread would have written them.
template <typename Result> struct Captured {
    Result result{};
    std::exception_ptr error;
    std::string log;
};

template <typename Result>
std::future<Captured<Result>> startCaptured(std::function<Result()> work, std::launch policy) {
    auto task = [work = std::move(work)] {
        Captured<Result> captured;
        {
            const Common::LogCapture capture(captured.log);
            try {
                captured.result = work();
            } catch (...) {
                captured.error = std::current_exception();
            }
        }
        return captured;
    };
    if (policy == std::launch::async) {
        try {
            return std::async(std::launch::async, task);
        } catch (const std::system_error&) {
            // no thread to be had: the work waits for its turn instead
        }
    }
    return std::async(std::launch::deferred, task);
}

// Writes what the work logged, then gives its result or throws its failure.
template <typename Result> Result takeCaptured(std::future<Captured<Result>>& work) {
    auto captured = work.get();
    Common::writeCapturedLines(captured.log);
    if (captured.error)
        std::rethrow_exception(captured.error);
    return std::move(captured.result);
}

} // namespace

void Database::migrateFromRpm() const {
    checkOwnDirectories();
    std::vector<std::string> waiting = resumeInterruptedMigration(readPreparedRecord());
    cleanUpTemporaryDirectory(waiting);

    Common::Rpm::Transaction transaction;
    transaction.setFlags(RPMTRANS_FLAG_NOPLUGINS);
    transaction.setNotifyCallback();
    const auto prepared = preparePackagesForMigration(transaction);

    // A recorded tree that was not prepared again belongs to a package that RPM still has. It
    // is spared only while RPM has all of that package's files: an erasure stopped part-way
    // leaves RPM listing a package whose files are gone, and then the tree is all there is.
    const auto stillRpms = Common::Rpm::installedAmong(waiting);
    std::erase_if(waiting, [&](const std::string& id) {
        if (!stillRpms.contains(id))
            return false;
        const bool preparedAgain =
            std::any_of(prepared.begin(), prepared.end(),
                        [&](const PreparedPackage& package) { return package.package.id() == id; });
        if (preparedAgain)
            return true;
        if (!Common::Rpm::filesInPlace(id))
            return false;
        removeQuietly(temp / id);
        return true;
    });
    if (prepared.empty()) {
        recordWaiting(waiting);
        return;
    }
    std::vector<std::string> recorded = waiting;
    for (const auto& package : prepared)
        recorded.push_back(package.package.id());
    writePreparedRecord(recorded);

    const bool erasureTaken = transaction.run();
    if (!erasureTaken)
        Common::logError("the RPM database did not take the erasure of the migrated packages");
    const auto notInstalled = installErasedPackages(prepared, erasureTaken);
    waiting.insert(waiting.end(), notInstalled.begin(), notInstalled.end());
    recordWaiting(waiting);
}

// Installs the prepared packages that RPM erased; returns the ids of those that wait, erased or
// not.
std::vector<std::string>
Database::installErasedPackages(const std::vector<PreparedPackage>& prepared,
                                bool erasureTaken) const {
    std::vector<std::string> waiting;
    std::vector<std::string> ids;
    for (const auto& package : prepared)
        ids.push_back(package.package.id());
    const auto stillInstalled = Common::Rpm::installedAmong(ids);

    // The erased packages are placed in their own directories on other threads while those
    // before them get their mappings: placing touches nothing but a package's own directories,
    // and the mappings, which go into shared system directories, are made one package after
    // the other, in the packages' order, as are the log lines.
    std::error_code ignored; // a failure is each package's to report
    fs::create_directories(root, ignored);
    // Across file systems placing is a copy, and copies made at once would compete for room
    // that one after the other would find: those are placed in turn.
    const std::size_t atOnce = packagesAtOnce();
    const auto policy =
        atOnce > 1 && onOneFileSystem(root, temp) ? std::launch::async : std::launch::deferred;
    std::deque<std::future<Captured<bool>>> placing;
    std::size_t ahead = 0; // the first package whose placing has not started
    const auto placeAhead = [&](std::size_t end) {
        for (; ahead < std::min(end, prepared.size()); ++ahead) {
            const PreparedPackage& package = prepared[ahead];
            if (stillInstalled.contains(package.package.id()))
                continue;
            placing.push_back(startCaptured<bool>(
                [this, &package] {
                    placePreparedPackage(package);
                    return true;
                },
                policy));
        }
    };
    for (std::size_t index = 0; index < prepared.size(); ++index) {
        placeAhead(index + 1 + atOnce);
        const PreparedPackage& package = prepared[index];
        // Still RPM's. Where RPM refused the erasure its files are as they were and the copy is
        // not needed: it is prepared again at the next start. Where the database did not take
        // the erasure, or a file is gone (a scriptlet may remove them and then fail), the copy
        // may be all there is: that start takes it up, as after an interruption.
        if (stillInstalled.contains(package.package.id())) {
            LogLine(LogLevel::Warning) << "package " << package.package.id()
                                       << " is still installed by RPM after its erasure";
            if (erasureTaken && Common::Rpm::filesInPlace(package.package.id()))
                removeQuietly(package.tree);
            waiting.push_back(package.package.id());
            continue;
        }
        auto placed = std::move(placing.front());
        placing.pop_front();
        const bool migrated = migrate(package, [&] {
            takeCaptured(placed);
            mapPlacedPackage(package);
        });
        if (!migrated)
            waiting.push_back(package.package.id());
    }
    return waiting;
}

// What was installed (its lists were not flushed one by one) must be on the device before the
// record stops naming it.
void Database::recordWaiting(const std::vector<std::string>& waiting) const {
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
// still recorded afterwards (those still waiting, and those that RPM still has, whose copy, if
// there is one, the preparation may take up again).
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
            prepared = preparedFromTree(id, hasPackageData(tree) ? tree : current, tree);
        } catch (const std::exception& error) {
            LogLine(LogLevel::Error) << "couldn't find the prepared files of package " << id;
            LogLine(LogLevel::Error) << error;
            // A tree that cannot be read today is still the package's only copy.
            std::error_code ignored;
            if (fs::exists(fs::symlink_status(tree, ignored)))
                remaining.push_back(id);
            continue;
        }
        if (!migrate(*prepared))
            remaining.push_back(id);
    }
    if (remaining != recorded)
        recordWaiting(remaining);
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

namespace {

// A package being prepared: what RPM told of it, and the rest of its preparation (its tree),
// which needs nothing from RPM and goes on on a thread of its own while RPM is read for the
// next packages. Its log lines wait with it, so that they come out in the order of the
// packages, as one thread would have written them.
struct Preparation {
    std::string id;
    Common::Rpm::HeaderHandle header; // kept beyond the walk over the installed packages
    std::string log;
    std::future<Captured<std::optional<PreparedPackage>>> rest;
};

} // namespace

std::vector<PreparedPackage>
Database::preparePackagesForMigration(Common::Rpm::Transaction& transaction) const {
    const PackageSignatures::Database signatures(PackageSignatures::Database::defaultPath);
    const std::size_t atOnce = packagesAtOnce();
    std::vector<PreparedPackage> prepared;
    std::vector<std::string> ids; // prepared or being prepared
    std::deque<Preparation> pending;

    const auto finishFirst = [&] {
        Preparation& first = pending.front();
        Common::writeCapturedLines(first.log);
        try {
            auto package = takeCaptured(first.rest);
            if (package) {
                try {
                    transaction.addEraseElement(first.header);
                } catch (...) {
                    removeQuietly(package->tree);
                    throw;
                }
                prepared.push_back(std::move(*package));
            }
        } catch (const std::exception& error) {
            std::erase(ids, first.id);
            logPackageInformationFailure(error);
        }
        pending.pop_front();
    };

    Common::Rpm::InstalledPackageIterator().forEach([&](const Common::Rpm::Reader& reader) {
        Preparation preparation;
        std::function<std::optional<PreparedPackage>()> rest;
        std::exception_ptr failed;
        try {
            preparation.id = reader.stringTag(RPMTAG_NAME);
        } catch (...) {
            failed = std::current_exception();
        }
        // A second package of the same name is judged once the first one's fate is known.
        if (contains(ids, preparation.id))
            while (!pending.empty())
                finishFirst();
        if (!failed) {
            const Common::LogCapture capture(preparation.log);
            try {
                rest = prepareInstalledPackage(reader, preparation.id, signatures, ids);
            } catch (...) {
                failed = std::current_exception();
            }
        }
        auto policy = std::launch::deferred;
        if (failed) {
            rest = [failed]() -> std::optional<PreparedPackage> { std::rethrow_exception(failed); };
        } else if (rest) {
            // The temporary directory is made once, here: the trees made at once would each
            // race the others to make it.
            if (ids.empty()) {
                std::error_code ignored; // a failure is each tree's to report
                fs::create_directories(temp, ignored);
            }
            ids.push_back(preparation.id);
            preparation.header = Common::Rpm::keepHeader(reader.header());
            policy = atOnce > 1 ? std::launch::async : std::launch::deferred;
        } else if (preparation.log.empty()) {
            return IterationResult::Continue; // not an application to migrate
        } else {
            rest = [] { return std::optional<PreparedPackage>(); };
        }
        if (pending.size() >= atOnce)
            finishFirst();
        preparation.rest = startCaptured(std::move(rest), policy);
        pending.push_back(std::move(preparation));
        return IterationResult::Continue;
    });
    while (!pending.empty())
        finishFirst();
    return prepared;
}

// One installed package: nothing when it does not qualify; when it does, the rest of its
// preparation, which gives its prepared copy and asks nothing more of RPM.
std::function<std::optional<PreparedPackage>()>
Database::prepareInstalledPackage(const Common::Rpm::Reader& reader, const std::string& id,
                                  const PackageSignatures::Database& signatures,
                                  const std::vector<std::string>& prepared) const {
    const std::string version =
        reader.stringTag(RPMTAG_VERSION) + "-" + reader.stringTag(RPMTAG_RELEASE);
    auto certificate = developerCertificateData(signatures, id);
    if (!certificate)
        return {};
    checkPathComponent(id, "package id");
    checkPathComponent(version, "package version");
    if (id == preparedRecordName)
        throw Error(ErrorCode::BadPackageID, "package id is reserved: " + id);
    if (contains(prepared, id))
        throw Error(ErrorCode::BadPackageID, "package " + id + " is installed more than once");

    // A tree that an interrupted run prepared for this very version is still a faithful copy,
    // and may be the only one left when that run was stopped inside the erasure.
    const fs::path tree = temp / id;
    if (hasPackageData(tree)) {
        auto earlier = preparedFromTree(id, tree, tree);
        if (earlier.package.version() == version)
            return [earlier] { return std::optional(earlier); };
        fs::remove_all(tree);
    }

    auto [orgName, appName] = installedManifestNames(id);
    if (orgName)
        checkPathComponent(*orgName, "organization name");
    if (appName)
        checkPathComponent(*appName, "application name");
    auto package = std::make_shared<PreparedPackage>(PreparedPackage{
        Package(id, version, fileList(reader), orgName, appName), std::move(*certificate), {}});
    return [this, package, id, version, orgName, appName]() -> std::optional<PreparedPackage> {
        package->tree = copyPackageFilesToTempDirectory(package->package);
        try {
            writeGeneratedDirectoryList(package->package, package->tree, ListFlush::ByCaller);
            writePackageDataFile(package->package, package->certificate, package->tree);
        } catch (...) {
            removeQuietly(package->tree);
            throw;
        }
        // The file list has served (the tree and its lists are made); every package keeping
        // its own until the end of the run would make its memory grow by a list per package.
        package->package = Package(id, version, {}, orgName, appName);
        return std::move(*package);
    };
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
    placePreparedPackage(prepared);
    mapPlacedPackage(prepared);
}

void Database::placePreparedPackage(const PreparedPackage& prepared) const {
    const Package& package = prepared.package;
    const fs::path versioned = versionedDirectoryPath(package.id(), package.version());
    const fs::path current = root / package.id() / currentEntryName;
    // "current" is made before the files arrive: a package directory is never without it, so
    // that the repair pass cannot mistake an install in progress for damage.
    try {
        // A link standing for the package's directory would take the package out of the root.
        // It is an unexpected entry, which the repair pass clears: the next start places it.
        if (fs::is_symlink(fs::symlink_status(current.parent_path())))
            throw fs::filesystem_error("cannot create directories", current.parent_path(),
                                       std::make_error_code(std::errc::file_exists));
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
        // Moved there by an interrupted run; a link standing there is no such directory.
        if (fs::is_directory(fs::symlink_status(versioned)) && hasPackageData(versioned))
            removeQuietly(prepared.tree);
        else {
            finishLinkedFiles(prepared.tree, package.id());
            createVersionedDirectory(package.id(), package.version(), prepared.tree);
        }
    } catch (...) {
        returnToTemporaryDirectory(prepared);
        throw;
    }
}

void Database::mapPlacedPackage(const PreparedPackage& prepared) const {
    try {
        createMappings(versionedDirectoryPath(prepared.package.id(), prepared.package.version()),
                       prepared.package, false, ListFlush::ByCaller);
    } catch (...) {
        returnToTemporaryDirectory(prepared);
        throw;
    }
}

// Where the next start finds the package again. A version directory that cannot go back stays,
// with "current", and gets its mappings next time; so does one beside a tree that a move across
// file systems could not remove, where the version directory is the complete copy and the tree
// may be what is left of the other.
void Database::returnToTemporaryDirectory(const PreparedPackage& prepared) const {
    const Package& package = prepared.package;
    const fs::path versioned = versionedDirectoryPath(package.id(), package.version());
    const fs::path current = root / package.id() / currentEntryName;
    std::error_code error;
    if (!fs::exists(prepared.tree, error) && fs::exists(versioned, error))
        fs::rename(versioned, prepared.tree, error);
    if (fs::exists(prepared.tree, error) && !fs::exists(fs::symlink_status(versioned, error))) {
        if (fs::read_symlink(current, error) == versioned)
            fs::remove(current, error);
        fs::remove(current.parent_path(), error); // only when empty
    }
}

bool Database::migrate(const PreparedPackage& prepared) const {
    return migrate(prepared, [&] { installPreparedPackage(prepared); });
}

bool Database::migrate(const PreparedPackage& prepared,
                       const std::function<void()>& install) const {
    const std::string& id = prepared.package.id();
    try {
        install();
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

// The record stood on the device: a line that is no package id names nothing.
std::vector<std::string> Database::readPreparedRecord() const {
    std::vector<std::string> ids;
    std::istringstream record(Common::readRegularFile(preparedRecordPath()).value_or(""));
    for (std::string id; std::getline(record, id);) {
        try {
            checkPathComponent(id, "package id");
            ids.push_back(id);
        } catch (const Error& error) {
            LogLine(LogLevel::Error) << error;
        }
    }
    return ids;
}

// The record is replaced as a whole and flushed, so that it names either the old set of
// packages or the new one; the flush before it takes its name is the temporary directory's
// whole file system, so that the trees it names are on the device before it is. An empty set
// removes it.
void Database::writePreparedRecord(const std::vector<std::string>& ids) const {
    const fs::path record = preparedRecordPath();
    try {
        if (ids.empty()) {
            fs::remove(record);
            return;
        }
        std::vector<fs::path> lines(ids.begin(), ids.end());
        writeListFile(record, lines, "couldn't open the record of prepared packages",
                      "couldn't write the record of prepared packages",
                      ListFlush::WithFileSystemBeforeRename);
        Common::syncFileSystem(temp);
    } catch (const Error&) {
        throw;
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        throw Error(ErrorCode::Filesystem, "couldn't write the record of prepared packages");
    }
}

} // namespace Core::Tolva
