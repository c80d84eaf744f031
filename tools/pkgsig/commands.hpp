#pragma once

// The commands of pkgsig: sign a package, show and verify its signatures, import its
// certificates into the device's signature database, list that database.

#include <ctime>
#include <optional>
#include <ostream>
#include <string>

namespace Pkgsig {

struct SignOptions {
    std::string package;
    std::string developerKey;
    std::string developerCertificate;
    std::string clientKey;         // optional, with clientCertificate
    std::string clientCertificate; // optional, with clientKey
    std::string output;            // empty: the package itself
    std::string ca;                // optional: check the new signatures before writing
    std::optional<std::time_t> signingTime;
};

// Each command writes its report to `out` and throws std::runtime_error (one line of text)
// when it fails; a failed command changes no file.
void sign(const SignOptions& options, std::ostream& out);
void show(const std::string& package, std::ostream& out);
void verify(const std::string& package, const std::string& ca, std::ostream& out);
void importCertificates(const std::string& package, const std::string& ca,
                        const std::string& database, std::ostream& out);
void list(const std::string& database, std::ostream& out);

} // namespace Pkgsig
