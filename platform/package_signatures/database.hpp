#pragma once

// The device's record of the certificates that signed each installed package:
// <root>/<package>/<group>.pem.

#include "platform/package_signatures/certificate.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace PackageSignatures {

class Database {
public:
    static constexpr const char* defaultPath = "/var/lib/package-signatures";

    // Nothing is read or created before the first operation; a root that does not exist is
    // an empty database.
    explicit Database(std::filesystem::path root) : root(std::move(root)) {}

    // The names of the packages that have at least one certificate, sorted. Throws
    // std::runtime_error when the root cannot be read.
    std::vector<std::string> packages() const;

    // The package's certificate of `group`, or nothing when there is none (an invalid name
    // has none). Throws std::runtime_error when the file is there but holds no certificate.
    std::optional<Certificate> packageCertificateWithGroup(const std::string& package,
                                                           int group) const;

    // Records `certificate` as the package's certificate of `group` (DeveloperGroup or
    // ClientGroup), replacing an earlier one. Writes a temporary file and renames it, so a
    // reader sees the old certificate or the new one. Throws std::invalid_argument for a bad
    // name or group and std::runtime_error when writing fails.
    void setPackageCertificate(const std::string& package, int group,
                               const Certificate& certificate) const;

    // Forgets the package's certificate of `group`, and the package's directory when that
    // leaves it empty; nothing happens when there is none. Throws like setPackageCertificate.
    void removePackageCertificate(const std::string& package, int group) const;

    // Letters, digits and "._+-", not starting with "." or "-", at most 255 bytes: a name that
    // stays one directory below the root.
    static bool isValidPackageName(const std::string& name);

    const std::filesystem::path& path() const { return root; }

private:
    std::filesystem::path certificateFile(const std::string& package, int group) const;

    std::filesystem::path root;
};

} // namespace PackageSignatures
