#include "core/tolva/database.hpp"

#include "common/error.hpp"
#include "common/log.hpp"

#include <array>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

namespace fs = std::filesystem;
namespace pt = boost::property_tree;

namespace Core::Tolva {

namespace {

pt::ptree readConfiguration() {
    pt::ptree tree;
    try {
        pt::read_ini(configurationPath, tree);
    } catch (const std::exception&) {
        Common::logWarning(std::string("couldn't parse config file: ") + configurationPath);
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

} // namespace

Database::Database() {
    const auto configuration = readConfiguration();
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
        pt::read_ini(file.string(), tree);
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

} // namespace Core::Tolva
