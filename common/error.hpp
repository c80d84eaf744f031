#pragma once

// The program's exception: a numeric code and a fixed message naming the object concerned.

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace Common {

enum class ErrorCode : std::uint32_t {
    Filesystem = 1,
    Internal = 2,
    FileNotFound = 3,
    BadPackage = 4,
    BadPackageID = 5,
    BadPackageArchitecture = 6,
    BadPackageSignature = 7,
    DowngradeAttempt = 8,
    UpgradeAlreadyPrepared = 9,
    PackageNotExist = 10,
    CorruptedInstalledPackage = 11,
    UnauthorizedAccess = 12,
    SystemPackageInstallationAttempt = 13,
    PackagesWithoutSourceNotAllowed = 14,
    SourceRejectedByAdministrator = 15,
    UserNotAuthorizedToManageTrustedSources = 16,
};

// The platform's name of a code, "org.kelvo.Tolva.Error." followed by the code's name;
// an empty string for a value outside the set.
std::string errorName(ErrorCode code);

class Error : public std::exception {
public:
    // The message is moved in; the caller's string is left empty.
    Error(ErrorCode code, std::string&& message);
    Error(ErrorCode code, const char* message) : Error(code, std::string(message)) {}

    const char* what() const noexcept override { return message.c_str(); }
    ErrorCode code() const noexcept { return errorCode; }

private:
    ErrorCode errorCode;
    std::string message;
};

} // namespace Common
