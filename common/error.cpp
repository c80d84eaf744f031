#include "common/error.hpp"

#include <utility>

namespace Common {

namespace {

std::string_view codeName(ErrorCode code) {
    switch (code) {
    case ErrorCode::Filesystem:
        return "Filesystem";
    case ErrorCode::Internal:
        return "Internal";
    case ErrorCode::FileNotFound:
        return "FileNotFound";
    case ErrorCode::BadPackage:
        return "BadPackage";
    case ErrorCode::BadPackageID:
        return "BadPackageID";
    case ErrorCode::BadPackageArchitecture:
        return "BadPackageArchitecture";
    case ErrorCode::BadPackageSignature:
        return "BadPackageSignature";
    case ErrorCode::DowngradeAttempt:
        return "DowngradeAttempt";
    case ErrorCode::UpgradeAlreadyPrepared:
        return "UpgradeAlreadyPrepared";
    case ErrorCode::PackageNotExist:
        return "PackageNotExist";
    case ErrorCode::CorruptedInstalledPackage:
        return "CorruptedInstalledPackage";
    case ErrorCode::UnauthorizedAccess:
        return "UnauthorizedAccess";
    case ErrorCode::SystemPackageInstallationAttempt:
        return "SystemPackageInstallationAttempt";
    case ErrorCode::PackagesWithoutSourceNotAllowed:
        return "PackagesWithoutSourceNotAllowed";
    case ErrorCode::SourceRejectedByAdministrator:
        return "SourceRejectedByAdministrator";
    case ErrorCode::UserNotAuthorizedToManageTrustedSources:
        return "UserNotAuthorizedToManageTrustedSources";
    }
    return {};
}

} // namespace

std::string errorName(ErrorCode code) {
    const auto name = codeName(code);
    return name.empty() ? std::string() : "org.kelvo.Tolva.Error." + std::string(name);
}

Error::Error(ErrorCode code, std::string&& text) : errorCode(code), message(std::move(text)) {
    text.clear();
}

} // namespace Common
