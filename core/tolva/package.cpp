#include "core/tolva/package.hpp"

#include "common/error.hpp"
#include "common/log.hpp"
#include "common/rpm/reader.hpp"
#include "platform/app_manifest/manifest_entry.hpp"
#include "platform/package_signatures/file_with_cmses.hpp"

namespace Core::Tolva {

using Common::Error;
using Common::ErrorCode;
using Common::LogLevel;
using Common::LogLine;
using Common::Rpm::IterationResult;

namespace {

// The package's own manifest from its payload. Every regular file before it is read whole:
// the archive can only be walked forward.
std::optional<AppManifest::ManifestEntry> packageManifestFromRpmArchive(const std::string& rpmPath,
                                                                        const std::string& name) {
    const std::filesystem::path manifestPath = "/usr/share/applications/" + name + ".desktop";
    std::optional<AppManifest::ManifestEntry> manifest;
    Common::Rpm::ExtractFileIterator(rpmPath).forEach([&](const auto& entry) {
        if (entry.type != Common::Rpm::EntryType::RegularFile)
            return IterationResult::Continue;
        const auto data = entry.content->read();
        if (entry.path != manifestPath)
            return IterationResult::Continue;
        manifest = AppManifest::ManifestEntry::fromBytes(data);
        return IterationResult::Stop;
    });
    return manifest;
}

Package::Files fileList(const Common::Rpm::Reader& reader) {
    Package::Files files;
    Common::Rpm::FileIterator(reader).forEach([&](const auto& entry) {
        files.push_back(entry);
        return IterationResult::Continue;
    });
    return files;
}

} // namespace

Package::Package(std::string id, std::string version, Files files,
                 std::optional<std::string> orgName, std::optional<std::string> appName)
    : packageId(std::move(id)), packageVersion(std::move(version)), packageFiles(std::move(files)),
      manifestOrgName(std::move(orgName)), manifestAppName(std::move(appName)) {}

Package Package::fromPath(std::string path) {
    Package package;
    {
        const Common::Rpm::Reader reader(path);
        package.packageId = reader.stringTag(RPMTAG_NAME);
        package.packageVersion =
            reader.stringTag(RPMTAG_VERSION) + "-" + reader.stringTag(RPMTAG_RELEASE);
        package.packageArchitecture = reader.stringTag(RPMTAG_ARCH);
        package.packageFiles = fileList(reader);
    }

    const std::filesystem::path shownPath(path);
    if (const auto manifest = packageManifestFromRpmArchive(path, package.packageId)) {
        package.manifestOrgName = manifest->appOrgname();
        package.manifestAppName = manifest->appName();
        if (package.manifestOrgName->empty()) {
            LogLine(LogLevel::Warning)
                << "The package does not contain a organization name: " << shownPath;
            package.manifestOrgName.reset();
        }
        if (package.manifestAppName->empty()) {
            LogLine(LogLevel::Warning)
                << "The package does not contain a application name: " << shownPath;
            package.manifestAppName.reset();
        }
    } else {
        LogLine(LogLevel::Warning) << "the package does not contain a manifest: " << shownPath;
    }

    {
        const auto file = PackageSignatures::FileWithCmses::fromPath(path);
        if (!file)
            throw Error(ErrorCode::BadPackage, "couldn't open file for reading cmses");
        if (!file->verifyCmses(packageCaPath))
            throw Error(ErrorCode::BadPackageSignature, "package is signed with a non-legal key");
        if (file->cmses().empty())
            throw Error(ErrorCode::BadPackageSignature, "couldn't retrieve cmses from package");
        package.signatures = file->cmses();
    }

    package.developerSignature = PackageSignatures::developerCmsFromVector(package.signatures);
    if (!package.developerSignature)
        throw Error(ErrorCode::BadPackageSignature, "package doesn't have developer signature");
    package.systemDeveloper =
        package.developerSignature->certificate().isSystemDeveloperCertificate();
    if (const auto client = PackageSignatures::clientCmsFromVector(package.signatures))
        package.signingSource = {client->certificate().keyId(), client->certificate().subject()};
    else
        package.signingSource = {noSourceKeyId, ""};
    package.filePath = std::move(path);
    return package;
}

const PackageSignatures::Cms& Package::developerCms() const {
    if (!developerSignature)
        throw Error(ErrorCode::BadPackageSignature, "package doesn't have developer signature");
    return *developerSignature;
}

} // namespace Core::Tolva
