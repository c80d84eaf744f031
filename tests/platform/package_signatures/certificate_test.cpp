#include "platform/package_signatures/certificate.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandbox.hpp"
#include "tests/support/test_pki.hpp"

#include <algorithm>
#include <cctype>
#include <gtest/gtest.h>

namespace {

using PackageSignatures::Certificate;
using PackageSignatures::Subgroup;
using TestSupport::TestPki;

Certificate load(const std::string& name) {
    auto certificate =
        Certificate::fromPem(TestSupport::readFile(TestPki::shared().certificate(name)));
    if (!certificate)
        throw std::runtime_error("no certificate " + name);
    return *certificate;
}

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

TEST(Certificate, KeyIdIsTheSubjectKeyIdentifierOrElseTheDigestOfTheKey) {
    for (const char* name : {"developer", "client", "developer-rsa"}) {
        SCOPED_TRACE(name);
        const std::string expected = keyIdByOpensslCommand(name);
        ASSERT_EQ(expected.size(), 40u);
        EXPECT_EQ(load(name).keyId(), expected);
    }
    // Same key, no identifier: the digest gives what the identifier "hash" method gave.
    EXPECT_EQ(keyIdByOpensslCommand("developer-no-key-id"), "");
    EXPECT_EQ(load("developer-no-key-id").keyId(), load("developer").keyId());
    EXPECT_NE(load("developer").keyId(), load("developer-system").keyId());
}

TEST(Certificate, SubjectIsRfc2253WithUtf8Kept) {
    EXPECT_EQ(load("developer").subject(), "CN=Regular Developer,O=Example Apps,C=FI");
    EXPECT_EQ(load("client").subject(), TestPki::clientSubject);
    EXPECT_EQ(load("developer-no-key-id").subject(), "CN=Keyless Developer");
}

TEST(Certificate, SubgroupGroupAndSystemFlagComeFromPoliciesAndUsages) {
    struct Expected {
        const char* name;
        Subgroup subgroup;
        const char* text;
        bool developer, client, system;
    };
    const Expected table[] = {
        {"developer", Subgroup::Regular, "regular", true, false, false},
        {"developer-extended", Subgroup::Extended, "extended", true, false, false},
        {"developer-system", Subgroup::System, "system", true, false, true},
        {"developer-no-key-id", Subgroup::Unknown, "unknown", true, false, false},
        {"client", Subgroup::Unknown, "unknown", false, true, false},
        {"server", Subgroup::Unknown, "unknown", false, false, false},
        {"ca", Subgroup::Unknown, "unknown", false, false, false},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const Certificate certificate = load(row.name);
        EXPECT_EQ(certificate.subgroup(), row.subgroup);
        EXPECT_EQ(PackageSignatures::subgroupToString(certificate.subgroup()), row.text);
        EXPECT_EQ(certificate.hasDeveloperUsage(), row.developer);
        EXPECT_EQ(certificate.hasClientUsage(), row.client);
        EXPECT_EQ(certificate.isSystemDeveloperCertificate(), row.system);
    }
}

TEST(Certificate, PemRoundTripAndRefusal) {
    const Certificate original = load("client");
    const auto again = Certificate::fromPem(original.toPem());
    ASSERT_TRUE(again.has_value());
    EXPECT_EQ(again->toDer(), original.toDer());
    EXPECT_EQ(again->subject(), TestPki::clientSubject);

    EXPECT_FALSE(Certificate::fromPem(""));
    EXPECT_FALSE(Certificate::fromPem("-----BEGIN CERTIFICATE-----\nbm90IGRlcg==\n"
                                      "-----END CERTIFICATE-----\n"));
    EXPECT_FALSE(Certificate::fromPem(TestSupport::readFile(TestPki::shared().key("developer"))));
}

} // namespace
