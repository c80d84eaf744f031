#pragma once

// Signing fixture packages as a developer would: pkgsig for developer (and client)
// signatures, the signature library for a package that only a client signed.

#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/signing.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandbox.hpp"
#include "tests/support/test_pki.hpp"
#include "tools/pkgsig/package_file.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace TestSupport {

// The test PKI's certificate `name`, and the signing identity of its key and certificate.
inline PackageSignatures::Certificate pkiCertificate(const std::string& name) {
    return PackageSignatures::Certificate::fromPem(readFile(TestPki::shared().certificate(name)))
        .value();
}

inline PackageSignatures::SigningIdentity pkiIdentity(const std::string& name) {
    return PackageSignatures::SigningIdentity::fromPemFiles(TestPki::shared().key(name),
                                                            TestPki::shared().certificate(name));
}

// Signs `package` in place with the test PKI's `developer` and, when given, `client`.
inline void signPackage(const std::filesystem::path& package, const std::string& developer,
                        const std::string& client = "", std::vector<std::string> extra = {}) {
    const auto result = signWithPkgsig(package, developer, client, extra);
    ASSERT_EQ(result.status, 0) << result.err;
}

// One signature that pkgsig would never make: `signer` (a test PKI name) signs `content`, or
// the package's own signed content when none is given, recording `files`.
struct LibrarySignature {
    std::string signer;
    PackageSignatures::FileSignatures files = {};
    std::optional<std::string> content = std::nullopt;
};

// Replaces the signatures of `package` with `signatures`, made by the signature library.
inline void signWithLibrary(const std::filesystem::path& package,
                            const std::vector<LibrarySignature>& signatures) {
    using namespace PackageSignatures;
    const Pkgsig::PackageFile file(package);
    std::vector<Cms> cmses;
    for (const auto& [signer, files, content] : signatures) {
        const auto identity = pkiIdentity(signer);
        const BioPtr data =
            content ? BioPtr(BIO_new_mem_buf(content->data(), static_cast<int>(content->size())))
                    : openSignedContent(package, file.layout().contentOffset);
        cmses.push_back(signContent(identity, data.get(), files, std::nullopt));
    }
    file.writeWithSignatures(cmses, package);
}

// pkgsig always signs as a developer: a package with only the test client's signature.
inline void signAsClientOnly(const std::filesystem::path& package) {
    signWithLibrary(package, {{"client"}});
}

} // namespace TestSupport
