#include "core/tolva/package_metadata.hpp"

#include "common/log.hpp"
#include "core/tolva/list_file.hpp"
#include "core/tolva/path_checks.hpp"
#include "platform/app_manifest/manifest_entry.hpp"
#include "platform/package_signatures/database.hpp"

namespace fs = std::filesystem;

namespace Core::Tolva {

Package packageFromData(const PackageData& data) {
    const auto value = [&](const char* key) -> std::optional<std::string> {
        const auto found = data.find(key);
        return found == data.end() ? std::nullopt : std::optional(found->second);
    };
    Package package(data.at("general.id"), data.at("general.version"), {}, value("general.orgname"),
                    value("general.appname"));
    checkPackageNames(package);
    return package;
}

void checkPackageNames(const Package& package) {
    checkPathComponent(package.id(), "package id");
    checkPathComponent(package.version(), "package version");
    if (package.orgName())
        checkPathComponent(*package.orgName(), "organization name");
    if (package.appName())
        checkPathComponent(*package.appName(), "application name");
}

std::vector<fs::path> generatedDirectories(const Package& package) {
    const auto table = mappingTable(package, false);
    std::vector<fs::path> generated;
    for (const auto& entry : package.files()) {
        if (entry.type != Common::Rpm::EntryType::Directory)
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

void writeGeneratedDirectoryList(const Package& package, const fs::path& directory,
                                 ListFlush flush) {
    writeListFile(directory / generatedDirectoryListName, generatedDirectories(package),
                  "couldn't open file to store generated directory list",
                  "couldn't write line to generated directory list", flush);
}

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

PackageData certificateData(const PackageSignatures::Certificate& certificate) {
    return {{"certificate.subgroup", PackageSignatures::subgroupToString(certificate.subgroup())},
            {"certificate.id", certificate.keyId()}};
}

std::optional<PackageData> developerCertificateData(const PackageSignatures::Database& signatures,
                                                    const std::string& id) {
    const auto certificate =
        signatures.packageCertificateWithGroup(id, PackageSignatures::DeveloperGroup);
    if (!certificate) {
        Common::logWarning("package " + id + " doesn't have developer certificate");
        return std::nullopt;
    }
    if (certificate->isSystemDeveloperCertificate())
        return std::nullopt;
    return certificateData(*certificate);
}

void logPackageInformationFailure(const std::exception& cause) {
    Common::logError("couldn't extract a package information required for migration");
    Common::LogLine(Common::LogLevel::Error) << cause;
}

} // namespace Core::Tolva
