#include "core/tolva/database.hpp"

#include "common/error.hpp"
#include "common/filesystem.hpp"
#include "common/log.hpp"
#include "core/tolva/list_file.hpp"
#include "core/tolva/path_checks.hpp"

#include <array>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <fstream>
#include <sstream>
#include <string_view>

namespace fs = std::filesystem;
namespace pt = boost::property_tree;

namespace Core::Tolva {

namespace {

// Boost's INI reader takes a leading UTF-8 byte-order mark for part of the first line, so the
// mark is dropped first. Throws std::exception.
pt::ptree parseIni(std::string text) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(byteOrderMark))
        text.erase(0, byteOrderMark.size());
    std::istringstream bytes(std::move(text));
    pt::ptree tree;
    pt::read_ini(bytes, tree);
    return tree;
}

pt::ptree readConfiguration(const fs::path& file) {
    try {
        auto text = Common::readRegularFile(file);
        if (!text)
            throw std::runtime_error("not a regular file");
        return parseIni(std::move(*text));
    } catch (const std::exception&) {
        Common::logWarning("couldn't parse config file: " + file.string());
        return {};
    }
}

// Absent, or not reachable at all (a loop of links, a path through a file).
bool isAbsent(const fs::path& path) {
    std::error_code error;
    const auto type = fs::status(path, error).type();
    return type == fs::file_type::not_found || type == fs::file_type::unknown ||
           type == fs::file_type::none;
}

// The version directory that the package's "current" or "next" link names, when the link
// stays in its package directory: a link to a directory entry of the package directory that
// is not itself a link. Anything else is damage, never followed.
std::optional<fs::path> linkedVersion(const fs::path& packageDirectory, const char* name) {
    std::error_code error;
    const fs::path link = packageDirectory / name;
    if (!fs::is_symlink(fs::symlink_status(link, error)))
        return std::nullopt;
    fs::path target = fs::read_symlink(link, error);
    if (error)
        return std::nullopt;
    if (target.is_relative())
        target = packageDirectory / target;
    // Folded by the path alone; what is followed afterwards is the folded path, not the link.
    target = target.lexically_normal();
    if (!target.has_filename())
        target = target.parent_path();
    if (!isInside(target, packageDirectory) || target.parent_path() != packageDirectory ||
        fs::is_symlink(fs::symlink_status(target, error)))
        return std::nullopt;
    return target;
}

void logDamagedLink(const fs::path& link) {
    Common::LogLine(Common::LogLevel::Warning)
        << "ignoring a link that leads out of its package directory: " << link;
}

// The names of the package whose version directory this is: its id from the package
// directory, its manifest names from its velmor.pkg when that can be read.
PackageNames namesOf(const fs::path& versionDirectory) {
    PackageNames names{versionDirectory.parent_path().filename().string(), {}, {}};
    try {
        const auto data = Database::readPackageDataFile(versionDirectory / packageDataFileName);
        if (data.contains("general.orgname") && data.contains("general.appname")) {
            names.orgName = data.at("general.orgname");
            names.appName = data.at("general.appname");
        }
    } catch (const std::exception&) {
    }
    return names;
}

// The paths of a list file; nothing stands for a file that is missing or not a regular file.
std::optional<std::vector<fs::path>> readListPaths(const fs::path& file) {
    const auto text = Common::readRegularFile(file);
    if (!text)
        return std::nullopt;
    std::istringstream stream(*text);
    return readListFile(stream);
}

[[noreturn]] void corrupted(std::string&& message) {
    throw Common::Error(Common::ErrorCode::CorruptedInstalledPackage, std::move(message));
}

// A flat key is split at its first "." into section and key; sections keep the order in
// which they were first met.
void putFlat(pt::ptree& tree, const std::string& flatKey, const std::string& value) {
    const auto dot = flatKey.find('.');
    const std::string section = flatKey.substr(0, dot);
    const std::string key = dot == std::string::npos ? std::string() : flatKey.substr(dot + 1);
    auto found = tree.find(section);
    auto& keys = found == tree.not_found() ? tree.push_back({section, {}})->second
                                           : tree.to_iterator(found)->second;
    keys.put(pt::ptree::path_type(key, '\0'), value);
}

// A rename; across file systems, a copy made next to `to`, flushed and renamed there, so that
// `to` appears complete or not at all, even after a power cut (a directory in its place is
// taken for a package that was moved), and `from` is removed only once the rename is on the
// device: until then `from` may be the only copy that survives a power cut.
void moveDirectory(const fs::path& from, const fs::path& to) {
    try {
        fs::rename(from, to);
        return;
    } catch (const fs::filesystem_error& error) {
        if (error.code() != std::errc::cross_device_link)
            throw;
    }
    const fs::path staging = Common::hiddenSibling(to, ".partial");
    fs::remove_all(staging);
    try {
        Common::copyTreeWithExtendedAttributes(from, staging);
        Common::syncFileSystem(staging);
        fs::rename(staging, to);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(staging, ignored);
        throw;
    }
    Common::syncFileSystem(to);
    fs::remove_all(from);
}

// A directory that the database may own: absolute, without "." or "..", below the top level,
// and neither a system directory that packages are mapped into nor one that holds them.
bool isPlaceForDatabase(const fs::path& directory) {
    if (!directory.is_absolute() || directory != directory.lexically_normal() ||
        std::distance(directory.begin(), directory.end()) < 3)
        return false;
    for (const char* virtualTree : {"/proc", "/sys", "/dev", "/run"})
        if (directory == virtualTree || isInside(directory, virtualTree))
            return false;
    for (const auto& rule :
         mappingTable(PackageNames{"package", "organization", "application"}, true)) {
        const fs::path system = fs::path(rule.systemPrefix).parent_path();
        if (directory == system || isInside(system, directory))
            return false;
    }
    return true;
}

fs::path configuredDirectory(const pt::ptree& configuration, const char* key,
                             const char* fallback) {
    const fs::path directory = configuration.get<std::string>(key, fallback);
    if (directory == fallback || isPlaceForDatabase(directory))
        return directory;
    Common::LogLine(Common::LogLevel::Warning)
        << "ignoring an unsafe directory in config file: " << key << "=" << directory;
    return fallback;
}

} // namespace

Database::Database(const fs::path& configurationFile) {
    const auto configuration = readConfiguration(configurationFile);
    root = configuredDirectory(configuration, "database.root_directory", "/opt/app");
    temp = configuredDirectory(configuration, "database.temp_directory", "/opt/tolva/tmp");
    // Each would otherwise clear or list the other.
    if (root == temp || isInside(temp, root) || isInside(root, temp)) {
        Common::LogLine(Common::LogLevel::Warning)
            << "ignoring an unsafe directory in config file: database.temp_directory=" << temp;
        temp = "/opt/tolva/tmp";
        if (isInside(temp, root) || isInside(root, temp))
            root = "/opt/app";
    }
}

fs::path Database::versionedDirectoryPath(const std::string& id, const std::string& version) const {
    return root / id / version;
}

PackageData Database::readPackageDataFile(const fs::path& file) {
    PackageData data = readPackageDataEntries(file);
    for (const char* required :
         {"general.id", "general.version", "certificate.subgroup", "certificate.id"})
        if (!data.contains(required))
            corrupted(std::string("package doesn't contains required key: ") + required);
    return data;
}

PackageData Database::readPackageDataEntries(const fs::path& file) {
    if (isAbsent(file))
        corrupted("velmor.pkg doesn't exist: " + file.string());
    std::optional<std::string> text;
    try {
        text = Common::readRegularFile(file);
    } catch (const Common::Error&) {
        // Not the file's fault: the package is not taken for corrupted.
        throw Common::Error(Common::ErrorCode::Filesystem,
                            "couldn't read velmor.pkg file: " + file.string());
    }
    pt::ptree tree;
    try {
        if (!text)
            throw std::runtime_error("not a regular file");
        tree = parseIni(std::move(*text));
    } catch (const std::exception&) {
        corrupted("couldn't parse velmor.pkg file: " + file.string());
    }
    PackageData data;
    for (const auto& [section, keys] : tree)
        for (const auto& [key, value] : keys)
            data.emplace(section + "." + key, value.data());
    return data;
}

void Database::writePackageDataFile(const PackageNames& package, const std::string& version,
                                    const PackageData& extra, const fs::path& directory) {
    const auto file = directory / packageDataFileName;
    try {
        PackageData own{{"general.id", package.id}, {"general.version", version}};
        if (package.orgName && package.appName) {
            own.emplace("general.orgname", *package.orgName);
            own.emplace("general.appname", *package.appName);
        }
        pt::ptree tree;
        for (const auto& [key, value] : own)
            putFlat(tree, key, value);
        for (const auto& [key, value] : extra)
            putFlat(tree, key, value);
        // Written here rather than by the library, which never looks at the stream after the
        // writes: a file cut short by a full disk would pass for written.
        std::ostringstream text;
        pt::write_ini(text, tree);
        std::ofstream out(file, std::ios::out | std::ios::trunc);
        out << text.str();
        out.close();
        if (!out)
            throw std::runtime_error("short write");
    } catch (const std::exception&) {
        throw Common::Error(Common::ErrorCode::Filesystem,
                            "couldn't create velmor.pkg file " + file.string());
    }
}

fs::path Database::createVersionedDirectory(const std::string& id, const std::string& version,
                                            const fs::path& unpacked) const {
    if (isAbsent(unpacked))
        throw Common::Error(Common::ErrorCode::Internal,
                            "extracted package directory doesn't exist: " + unpacked.string());
    const auto versioned = versionedDirectoryPath(id, version);
    try {
        fs::create_directories(versioned.parent_path());
        moveDirectory(unpacked, versioned);
    } catch (const std::exception&) {
        throw Common::Error(Common::ErrorCode::Filesystem,
                            "couldn't create versioned directory: " + versioned.string());
    }
    return versioned;
}

PackageData Database::readPackageData(const fs::path& packageDirectory) const {
    if (isAbsent(packageDirectory / nextEntryName))
        return readCurrentPackageData(packageDirectory);
    return readNextPackageData(packageDirectory);
}

PackageData Database::readCurrentPackageData(const fs::path& packageDirectory) const {
    const auto current = packageDirectory / currentEntryName;
    try {
        const auto version = linkedVersion(packageDirectory, currentEntryName);
        if (!version)
            corrupted("current version is not a version directory: " + current.string());
        return readPackageDataFile(*version / packageDataFileName);
    } catch (const Common::Error& error) {
        if (error.code() != Common::ErrorCode::CorruptedInstalledPackage)
            throw; // unreadable, not damaged: the package stays
        Common::LogLine(Common::LogLevel::Error)
            << "couldn't read package data from the current directory: " << current;
        cleanUpCorruptedPackage(packageDirectory);
        throw;
    } catch (...) {
        Common::LogLine(Common::LogLevel::Error)
            << "couldn't read package data from the current directory: " << current;
        cleanUpCorruptedPackage(packageDirectory);
        throw;
    }
}

PackageData Database::readNextPackageData(const fs::path& packageDirectory) const {
    const auto next = packageDirectory / nextEntryName;
    const auto version = linkedVersion(packageDirectory, nextEntryName);
    try {
        if (version)
            return readPackageDataFile(*version / packageDataFileName);
    } catch (const Common::Error& error) {
        if (error.code() != Common::ErrorCode::CorruptedInstalledPackage)
            throw; // unreadable, not damaged: the package stays
    } catch (...) {
    }
    Common::LogLine(Common::LogLevel::Warning)
        << "couldn't read package data from the next directory: " << next;
    Common::logInfo("trying to read data from the current directory");
    Common::LogLine(Common::LogLevel::Info) << "cleaning up corrupted next directory: " << next;
    if (fs::is_symlink(fs::symlink_status(next)) && !version)
        logDamagedLink(next);
    if (version) {
        const fs::path& target = *version;
        try {
            fs::remove_all(target);
        } catch (const std::exception& error) {
            Common::LogLine(Common::LogLevel::Warning) << error;
            Common::LogLine(Common::LogLevel::Warning)
                << "couldn't cleanup corrupted package version: " << target;
        }
    }
    try {
        fs::remove_all(next);
    } catch (const std::exception& error) {
        Common::LogLine(Common::LogLevel::Warning) << error;
        Common::LogLine(Common::LogLevel::Warning)
            << "couldn't cleanup corrupted next symlink: " << next;
    }
    return readCurrentPackageData(packageDirectory);
}

std::vector<PackageData> Database::installedPackages() const {
    std::vector<PackageData> packages;
    for (const auto& packageDirectory : listPackageDirectories()) {
        try {
            packages.push_back(readPackageData(packageDirectory));
        } catch (const Common::Error& error) {
            if (error.code() == Common::ErrorCode::Filesystem) {
                Common::LogLine(Common::LogLevel::Warning)
                    << "couldn't read package directory, keeping it: " << packageDirectory;
                Common::LogLine(Common::LogLevel::Warning) << error;
            } else {
                Common::LogLine(Common::LogLevel::Warning)
                    << "corrupted package directory found: " << packageDirectory;
            }
        } catch (const std::exception&) {
            Common::LogLine(Common::LogLevel::Warning)
                << "corrupted package directory found: " << packageDirectory;
        }
    }
    return packages;
}

void Database::checkOwnDirectories() const {
    for (const auto& directory : {root, temp}) {
        std::error_code error;
        if (fs::is_symlink(fs::symlink_status(directory, error)))
            throw Common::Error(Common::ErrorCode::Filesystem,
                                "database directory is a link: " + directory.string());
    }
}

std::vector<fs::path> Database::listPackageDirectories() const {
    std::vector<fs::path> directories;
    checkOwnDirectories();
    if (isAbsent(root))
        return directories;
    // A link in the root is never followed: it is an unexpected entry like any other.
    for (const auto& entry : fs::directory_iterator(root)) {
        std::error_code error;
        if (fs::is_directory(fs::symlink_status(entry.path(), error))) {
            directories.push_back(entry.path());
            continue;
        }
        Common::LogLine(Common::LogLevel::Warning)
            << "unexpected entry found in database root directory: " << entry.path();
        Common::logInfo("cleaning up unexpected entry");
        try {
            fs::remove(entry.path());
        } catch (const std::exception& error) {
            Common::logWarning("couldn't clean up unexpected entry");
            Common::LogLine(Common::LogLevel::Warning) << error;
        }
    }
    return directories;
}

void Database::cleanUpCorruptedPackage(const fs::path& packageDirectory) const {
    const std::string name = packageDirectory.filename().string();
    const auto version = linkedVersion(packageDirectory, currentEntryName);
    const auto current = packageDirectory / currentEntryName;
    if (!version && fs::is_symlink(fs::symlink_status(current)))
        logDamagedLink(current);
    if (version && !isAbsent(*version)) {
        Common::logInfo("cleaning up corrupted package mappings: " + name);
        try {
            removePackageMappings(*version);
        } catch (const Common::Error& error) {
            Common::logWarning("couldn't clean up corrupted package mapping: " + name);
            Common::LogLine(Common::LogLevel::Warning) << error;
        }
        Common::logInfo("cleaning up the generated directories of the corrupted package: " + name);
        try {
            removeGeneratedDirectories(*version);
        } catch (const Common::Error& error) {
            Common::logWarning("couldn't clean up the generated directories of the corrupted "
                               "package: " +
                               name);
            Common::LogLine(Common::LogLevel::Warning) << error;
        }
    }
    try {
        fs::remove_all(packageDirectory);
        Common::LogLine(Common::LogLevel::Info)
            << "cleaning up corrupted package directory: " << packageDirectory;
        Common::EventLogRecord(Common::LogLevel::Error, Common::EventCode::CorruptedPackageCleanup)
            << packageDirectory.string();
    } catch (const std::exception& error) {
        Common::LogLine(Common::LogLevel::Warning)
            << "couldn't clean up corrupted package directory: " << packageDirectory;
        Common::LogLine(Common::LogLevel::Warning) << error;
    }
}

void Database::removeGeneratedDirectories(const fs::path& versionDirectory) {
    const auto listFile = versionDirectory / generatedDirectoryListName;
    if (isAbsent(listFile))
        return;
    std::optional<std::vector<fs::path>> directories;
    try {
        directories = readListPaths(listFile);
    } catch (const Common::Error&) {
    }
    if (!directories)
        throw Common::Error(Common::ErrorCode::Filesystem,
                            "couldn't open package generated directory list");
    const auto package = namesOf(versionDirectory);
    for (const auto& directory : *directories) {
        if (directory.empty() || isAbsent(directory))
            continue;
        if (!isGeneratedDirectoryOf(directory, package)) {
            Common::LogLine(Common::LogLevel::Warning)
                << "skip removing a listed path outside the package's places: " << directory;
            continue;
        }
        try {
            fs::remove_all(directory);
        } catch (const std::exception&) {
            Common::LogLine(Common::LogLevel::Warning)
                << "couldn't remove the generated package directory: " << directory;
        }
    }
}

void Database::removePackageMappings(const fs::path& versionDirectory) {
    std::optional<std::vector<fs::path>> mappings;
    try {
        mappings = readListPaths(versionDirectory / mappingListName);
    } catch (const Common::Error&) {
    }
    if (!mappings)
        throw Common::Error(Common::ErrorCode::Filesystem, "couldn't find package symlink list");
    const auto package = namesOf(versionDirectory);
    const fs::path packageDirectory = versionDirectory.parent_path();
    for (const auto& mapping : *mappings) {
        if (mapping.empty())
            continue;
        switch (classifyListedMapping(mapping, package, packageDirectory)) {
        case ListedMapping::OutOfPlace:
            Common::LogLine(Common::LogLevel::Warning)
                << "skip removing a listed path outside the package's places: " << mapping;
            continue;
        case ListedMapping::Overwritten:
            Common::LogLine(Common::LogLevel::Warning)
                << "skip removing the generated package symlink, since it was most likely "
                   "overwritten via rpm: "
                << mapping;
            continue;
        case ListedMapping::Mapping:
            break;
        }
        try {
            fs::remove(mapping);
        } catch (const std::exception&) {
            Common::LogLine(Common::LogLevel::Warning)
                << "couldn't remove the generated package mapping: " << mapping;
        }
    }
}

} // namespace Core::Tolva
