#include "platform/package_signatures/certificate.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandbox.hpp"
#include "tests/support/signed_packages.hpp"
#include "tests/support/test_pki.hpp"

#include <algorithm>
#include <cctype>
#include <gtest/gtest.h>

namespace {

using PackageSignatures::Certificate;
using PackageSignatures::Subgroup;
using TestSupport::pkiCertificate;
using TestSupport::TestPki;

// The subject key identifier as the openssl command prints it, in lowercase hex.
std::string keyIdByOpensslCommand(const std::string& name) {
    const auto result =
        TestSupport::runProgram({"openssl", "x509", "-noout", "-ext", "subjectKeyIdentifier", "-in",
                                 TestPki::shared().certificate(name).string()});
    std::string hex;
    const std::string& out = result.out;
    for (std::size_t i = out.find('\n'); i != std::string::npos && i < out.size(); ++i)
        if (std::isxdigit(static_cast<unsigned char>(out[i])))
            hex += static_cast<char>(std::tolower(static_cast<unsigned char>(out[i])));
    return hex;
}

TEST(Certificate, KeyIdSubgroupUsagesAndSystemFlag) {
    for (const char* name : {"developer", "client", "developer-rsa"}) {
        SCOPED_TRACE(name);
        const std::string expected = keyIdByOpensslCommand(name);
        ASSERT_EQ(expected.size(), 40u);
        EXPECT_EQ(pkiCertificate(name).keyId(), expected);
    }
    // Same key, no identifier: the digest gives what the identifier "hash" method gave.
    EXPECT_EQ(keyIdByOpensslCommand("developer-no-key-id"), "");
    EXPECT_EQ(pkiCertificate("developer-no-key-id").keyId(), pkiCertificate("developer").keyId());

    // Subgroup, usages and the system flag come from the policies and extended usages.
    struct Expected {
        const char* name;
        Subgroup subgroup;
        const char* text;
        bool developer, client, system;
    };
    // The regular, system and client certificates show in every signed package's record.
    const Expected table[] = {
        {"developer-extended", Subgroup::Extended, "extended", true, false, false},
        {"developer-system", Subgroup::System, "system", true, false, true},
        {"developer-no-key-id", Subgroup::Unknown, "unknown", true, false, false},
        {"server", Subgroup::Unknown, "unknown", false, false, false},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const Certificate certificate = pkiCertificate(row.name);
        EXPECT_EQ(certificate.subgroup(), row.subgroup);
        EXPECT_EQ(PackageSignatures::subgroupToString(certificate.subgroup()), row.text);
        EXPECT_EQ(certificate.hasDeveloperUsage(), row.developer);
        EXPECT_EQ(certificate.hasClientUsage(), row.client);
        EXPECT_EQ(certificate.isSystemDeveloperCertificate(), row.system);
    }
}

} // namespace
