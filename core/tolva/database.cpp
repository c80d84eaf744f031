#include "core/tolva/database.hpp"

#include "common/error.hpp"
#include "common/filesystem.hpp"
#include "common/log.hpp"
#include "core/tolva/list_file.hpp"

#include <array>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

namespace fs = std::filesystem;
namespace pt = boost::property_tree;

namespace Core::Tolva {

namespace {

// Boost's INI reader takes a leading UTF-8 byte-order mark for part of the first line, so the
// mark is dropped first. Throws std::exception.
pt::ptree readIniFile(const fs::path& file) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    std::ifstream stream(file);
    if (!stream)
        throw std::runtime_error("cannot open " + file.string());
    // A read error throws std::ios_base::failure from here.
    std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (text.starts_with(byteOrderMark))
        text.erase(0, byteOrderMark.size());
    std::istringstream bytes(std::move(text));
    pt::ptree tree;
    pt::read_ini(bytes, tree);
    return tree;
}

pt::ptree readConfiguration(const fs::path& file) {
    pt::ptree tree;
    try {
        tree = readIniFile(file);
    } catch (const std::exception&) {
        Common::logWarning("couldn't parse config file: " + file.string());
        return {};
    }
    return tree;
}

bool isAbsent(const fs::path& path) {
    const auto type = fs::status(path).type();
    return type == fs::file_type::not_found || type == fs::file_type::unknown;
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

// A rename; across file systems, a copy made next to `to` and renamed there, so that `to`
// appears complete or not at all, and `from` is removed only after that.
void moveDirectory(const fs::path& from, const fs::path& to) {
    try {
        fs::rename(from, to);
        return;
    } catch (const fs::filesystem_error& error) {
        if (error.code() != std::errc::cross_device_link)
            throw;
    }
    const fs::path staging = to.parent_path() / ("." + to.filename().string() + ".partial");
    fs::remove_all(staging);
    try {
        Common::copyTreeWithExtendedAttributes(from, staging);
        fs::rename(staging, to);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(staging, ignored);
        throw;
    }
    fs::remove_all(from);
}

} // namespace

Database::Database(const fs::path& configurationFile) {
    const auto configuration = readConfiguration(configurationFile);
    root = configuration.get<std::string>("database.root_directory", "/opt/app");
    temp = configuration.get<std::string>("database.temp_directory", "/opt/tolva/tmp");
}

fs::path Database::versionedDirectoryPath(const std::string& id, const std::string& version) const {
    return root / id / version;
}

PackageData Database::readPackageDataFile(const fs::path& file) {
    if (isAbsent(file))
        corrupted("velmor.pkg doesn't exist: " + file.string());
    pt::ptree tree;
    try {
        tree = readIniFile(file);
    } catch (const std::exception&) {
        corrupted("couldn't parse velmor.pkg file: " + file.string());
    }
    PackageData data;
    for (const auto& [section, keys] : tree)
        for (const auto& [key, value] : keys)
            data.emplace(section + "." + key, value.data());
    for (const char* required :
         {"general.id", "general.version", "certificate.subgroup", "certificate.id"})
        if (!data.contains(required))
            corrupted(std::string("package doesn't contains required key: ") + required);
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
        pt::write_ini(file.string(), tree);
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
        return readPackageDataFile(current / packageDataFileName);
    } catch (...) {
        Common::LogLine(Common::LogLevel::Error)
            << "couldn't read package data from the current directory: " << current;
        cleanUpCorruptedPackage(packageDirectory);
        throw;
    }
}

PackageData Database::readNextPackageData(const fs::path& packageDirectory) const {
    const auto next = packageDirectory / nextEntryName;
    try {
        return readPackageDataFile(next / packageDataFileName);
    } catch (...) {
        Common::LogLine(Common::LogLevel::Warning)
            << "couldn't read package data from the next directory: " << next;
        Common::logInfo("trying to read data from the current directory");
        Common::LogLine(Common::LogLevel::Info) << "cleaning up corrupted next directory: " << next;
    }
    if (fs::is_symlink(fs::symlink_status(next))) {
        auto target = fs::read_symlink(next);
        if (target.is_relative())
            target = packageDirectory / target;
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
        } catch (const std::exception&) {
            Common::LogLine(Common::LogLevel::Warning)
                << "corrupted package directory found: " << packageDirectory;
        }
    }
    return packages;
}

std::vector<fs::path> Database::listPackageDirectories() const {
    std::vector<fs::path> directories;
    if (isAbsent(root))
        return directories;
    for (const auto& entry : fs::directory_iterator(root)) {
        if (fs::is_directory(fs::status(entry.path()))) {
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
    const auto current = packageDirectory / currentEntryName;
    if (!isAbsent(current)) {
        Common::logInfo("cleaning up corrupted package mappings: " + name);
        try {
            removePackageMappings(current);
        } catch (const Common::Error& error) {
            Common::logWarning("couldn't clean up corrupted package mapping: " + name);
            Common::LogLine(Common::LogLevel::Warning) << error;
        }
        Common::logInfo("cleaning up the generated directories of the corrupted package: " + name);
        try {
            removeGeneratedDirectories(current);
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
    std::ifstream list(listFile);
    if (!list)
        throw Common::Error(Common::ErrorCode::Filesystem,
                            "couldn't open package generated directory list");
    for (const auto& directory : readListFile(list)) {
        if (directory.empty() || isAbsent(directory))
            continue;
        try {
            fs::remove_all(directory);
        } catch (const std::exception&) {
            Common::LogLine(Common::LogLevel::Warning)
                << "couldn't remove the generated package directory: " << directory;
        }
    }
}

void Database::removePackageMappings(const fs::path& versionDirectory) {
    std::ifstream list(versionDirectory / mappingListName);
    if (!list)
        throw Common::Error(Common::ErrorCode::Filesystem, "couldn't find package symlink list");
    for (const auto& mapping : readListFile(list)) {
        if (mapping.empty())
            continue;
        if (!isMapping(mapping)) {
            Common::LogLine(Common::LogLevel::Warning)
                << "skip removing the generated package symlink, since it was most likely "
                   "overwritten via rpm: "
                << mapping;
            continue;
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
