#pragma once

// Signing fixture packages as a developer would: pkgsig for developer (and client)
// signatures, the signature library for a package that only a client signed.

#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/signing.hpp"
#include "tests/support/sandbox.hpp"
#include "tests/support/test_pki.hpp"
#include "tools/pkgsig/package_file.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace TestSupport {

inline ProcessResult pkgsig(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::string(TOLVA_BINARY_DIR) + "/bin/pkgsig");
    return runProgram(arguments);
}

// Signs `package` in place with the test PKI's `developer` and, when given, `client`.
inline void signPackage(const std::filesystem::path& package, const std::string& developer,
                        const std::string& client = "", std::vector<std::string> extra = {}) {
    const auto& pki = TestPki::shared();
    std::vector<std::string> arguments = {"sign",
                                          package.string(),
                                          "--developer-key",
                                          pki.key(developer).string(),
                                          "--developer-cert",
                                          pki.certificate(developer).string()};
    if (!client.empty())
        arguments.insert(arguments.end(), {"--client-key", pki.key(client).string(),
                                           "--client-cert", pki.certificate(client).string()});
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    const auto result = pkgsig(arguments);
    ASSERT_EQ(result.status, 0) << result.err;
}

// pkgsig always signs as a developer: a package with only the test client's signature.
inline void signAsClientOnly(const std::filesystem::path& package) {
    using namespace PackageSignatures;
    const Pkgsig::PackageFile file(package);
    const auto client = SigningIdentity::fromPemFiles(TestPki::shared().key("client"),
                                                      TestPki::shared().certificate("client"));
    file.writeWithSignatures(
        {signContent(client, openSignedContent(package, file.layout().contentOffset).get(), {},
                     std::nullopt)},
        package);
}

} // namespace TestSupport
