// The package-signature library on real packages signed by pkgsig.

#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/package_layout.hpp"
#include "platform/package_signatures/signing.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/signed_packages.hpp"
#include "tests/support/test_pki.hpp"
#include "tests/tools/pkgsig/test_packages.hpp"
#include "tools/pkgsig/package_file.hpp"

#include <gtest/gtest.h>
#include <openssl/sha.h>

namespace {

using namespace PackageSignatures;
namespace fs = std::filesystem;
using PkgsigTest::Scratch;
using TestSupport::TestPki;

// 2020-06-01, inside the validity of developer-expired.
constexpr const char* midway2020 = "1590969600";

std::string ca(const std::string& name = "ca") {
    return TestPki::shared().certificate(name).string();
}

// Flips one byte of the file at `offset`.
void flipByte(const fs::path& file, std::uint64_t offset) {
    std::string bytes = TestSupport::readFile(file);
    bytes.at(offset) = static_cast<char>(bytes.at(offset) ^ 0x01);
    TestSupport::writeFile(file, bytes);
}

Bytes sha256Of(const std::string& data) {
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data());
    return digest;
}

TEST(SignedPackage, DeveloperClientAndBothSplitAsSigned) {
    Scratch scratch;
    const auto both = PkgsigTest::copyOfPackage("hello", scratch / "both.rpm");
    TestSupport::signPackage(both, "developer", "client");
    const auto developerOnly = PkgsigTest::copyOfPackage("hello", scratch / "developer.rpm");
    TestSupport::signPackage(developerOnly, "developer-system");
    const auto clientOnly = PkgsigTest::copyOfPackage("hello", scratch / "client.rpm");
    TestSupport::signAsClientOnly(clientOnly);

    const auto fromBoth = FileWithCmses::fromPath(both.string());
    ASSERT_TRUE(fromBoth);
    EXPECT_TRUE(fromBoth->verifyCmses(ca()));
    ASSERT_EQ(fromBoth->cmses().size(), 2u);
    const auto developer = developerCmsFromVector(fromBoth->cmses());
    const auto client = clientCmsFromVector(fromBoth->cmses());
    ASSERT_TRUE(developer && client);
    EXPECT_EQ(developer->certificate().subject(), "CN=Regular Developer,O=Example Apps,C=FI");
    EXPECT_FALSE(developer->certificate().isSystemDeveloperCertificate());
    EXPECT_EQ(client->certificate().subject(), TestPki::clientSubject);
    EXPECT_EQ(client->certificate().keyId(),
              Certificate::fromPem(TestSupport::readFile(TestPki::shared().certificate("client")))
                  ->keyId());

    const auto fromDeveloper = FileWithCmses::fromPath(developerOnly.string());
    ASSERT_TRUE(fromDeveloper);
    EXPECT_TRUE(fromDeveloper->verifyCmses(ca()));
    ASSERT_EQ(fromDeveloper->cmses().size(), 1u);
    const auto system = developerCmsFromVector(fromDeveloper->cmses());
    ASSERT_TRUE(system);
    EXPECT_TRUE(system->certificate().isSystemDeveloperCertificate());
    EXPECT_EQ(subgroupToString(system->certificate().subgroup()), "system");
    EXPECT_FALSE(clientCmsFromVector(fromDeveloper->cmses()));

    const auto fromClient = FileWithCmses::fromPath(clientOnly.string());
    ASSERT_TRUE(fromClient);
    EXPECT_TRUE(fromClient->verifyCmses(ca()));
    EXPECT_FALSE(developerCmsFromVector(fromClient->cmses()));
    ASSERT_TRUE(clientCmsFromVector(fromClient->cmses()));
    EXPECT_EQ(clientCmsFromVector(fromClient->cmses())->certificate().subject(),
              TestPki::clientSubject);
}

TEST(SignedPackage, OneChangedByteOrAnotherAuthorityFailsVerification) {
    Scratch scratch;
    const auto original = PkgsigTest::copyOfPackage("hello", scratch / "signed.rpm");
    TestSupport::signPackage(original, "developer", "client");
    const PackageLayout layout = readPackageLayout(original);

    const std::vector<std::pair<std::string, std::uint64_t>> places = {
        {"main header start", layout.contentOffset + 20},
        {"main header end", layout.payloadOffset - 1},
        {"payload start", layout.payloadOffset},
        {"payload end", layout.fileSize - 1},
    };
    for (const auto& [where, offset] : places) {
        SCOPED_TRACE(where);
        const auto changed = scratch / "changed.rpm";
        fs::copy_file(original, changed, fs::copy_options::overwrite_existing);
        flipByte(changed, offset);
        const auto file = FileWithCmses::fromPath(changed.string());
        ASSERT_TRUE(file);
        EXPECT_FALSE(file->verifyCmses(ca()));
    }

    const auto file = FileWithCmses::fromPath(original.string());
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->verifyCmses(ca()));
    EXPECT_FALSE(file->verifyCmses(ca("ca2")));
    EXPECT_FALSE(file->verifyCmses((scratch / "no-such-ca.pem").string()));
    EXPECT_FALSE(file->verifyCmses(TestPki::shared().key("developer").string()));

    // A developer of the other CA: refused under ours, accepted when both CAs are trusted.
    const auto foreign = PkgsigTest::copyOfPackage("hello", scratch / "foreign.rpm");
    TestSupport::signPackage(foreign, "developer-other-ca", "client");
    const auto foreignFile = FileWithCmses::fromPath(foreign.string());
    ASSERT_TRUE(foreignFile);
    EXPECT_FALSE(foreignFile->verifyCmses(ca()));
    TestSupport::writeFile(scratch / "both-cas.pem",
                           TestSupport::readFile(ca()) + TestSupport::readFile(ca("ca2")));
    EXPECT_TRUE(foreignFile->verifyCmses((scratch / "both-cas.pem").string()));
}

TEST(SignedPackage, NoSignatureTagOrAMalformedOneGivesNull) {
    Scratch scratch;
    EXPECT_FALSE(FileWithCmses::fromPath(PkgsigTest::builtPackage("hello").string()));
    EXPECT_FALSE(FileWithCmses::fromPath((scratch / "missing.rpm").string()));
    TestSupport::writeFile(scratch / "text.rpm", "Name: hello\n");
    EXPECT_FALSE(FileWithCmses::fromPath((scratch / "text.rpm").string()));

    const auto signedPackage = PkgsigTest::copyOfPackage("hello", scratch / "signed.rpm");
    TestSupport::signPackage(signedPackage, "developer", "client");
    const auto tag = *readPackageLayout(signedPackage).signatureTag;
    const std::string bytes = TestSupport::readFile(signedPackage);
    const auto tagOffset = bytes.find(std::string(tag.begin(), tag.end()));
    ASSERT_NE(tagOffset, std::string::npos);

    // The first CMS's outer tag and length, the second CMS's outer tag; then a file cut in
    // the middle of the signature header.
    const std::size_t second =
        FileWithCmses::fromPath(signedPackage.string())->cmses()[0].der().size();
    const std::vector<std::pair<std::string, std::uint64_t>> damages = {
        {"outer tag", tagOffset}, {"length", tagOffset + 1}, {"second tag", tagOffset + second}};
    for (const auto& [what, offset] : damages) {
        SCOPED_TRACE(what);
        const auto damaged = scratch / "damaged.rpm";
        fs::copy_file(signedPackage, damaged, fs::copy_options::overwrite_existing);
        flipByte(damaged, offset);
        EXPECT_FALSE(FileWithCmses::fromPath(damaged.string()));
    }
    TestSupport::writeFile(scratch / "cut.rpm", bytes.substr(0, tagOffset + tag.size() / 2));
    EXPECT_FALSE(FileWithCmses::fromPath((scratch / "cut.rpm").string()));
}

TEST(SignedPackage, FileSignaturesReadBackByIndex) {
    Scratch scratch;
    const auto package = PkgsigTest::copyOfPackage("hello", scratch / "signed.rpm");
    TestSupport::signPackage(package, "developer", "client");
    const auto file = FileWithCmses::fromPath(package.string());
    ASSERT_TRUE(file);
    const auto developer = developerCmsFromVector(file->cmses());
    const auto client = clientCmsFromVector(file->cmses());
    ASSERT_TRUE(developer && client);

    const std::map<std::size_t, std::string> signedContent = {{0, PkgsigTest::helloHook},
                                                              {3, PkgsigTest::helloScript},
                                                              {7, PkgsigTest::helloData},
                                                              {8, PkgsigTest::helloData}};
    for (const auto& [index, content] : signedContent) {
        SCOPED_TRACE(index);
        const Bytes digest = sha256Of(content);
        EXPECT_TRUE(imaFileSignatureHolds(developer->certificate(), developer->fileSignature(index),
                                          digest));
        EXPECT_TRUE(trustletSignatureHolds(developer->certificate(),
                                           developer->trustletSignature(index), digest));
        EXPECT_TRUE(client->fileSignature(index).empty());
    }
    EXPECT_FALSE(developer->fileSignature(5).empty()); // the desktop entry
    for (std::size_t unsignedIndex : {1, 2, 4, 6, 9, 1000}) {
        SCOPED_TRACE(unsignedIndex);
        EXPECT_TRUE(developer->fileSignature(unsignedIndex).empty());
        EXPECT_TRUE(developer->trustletSignature(unsignedIndex).empty());
    }
    EXPECT_EQ(developer->fileSignatures().size(), 5u);
}

TEST(SignedPackage, AnExpiredDeveloperCertificateStillVerifiesAtItsSigningTime) {
    Scratch scratch;
    const auto package = PkgsigTest::copyOfPackage("tiny-xz", scratch / "old.rpm");
    TestSupport::signPackage(package, "developer-expired", "client",
                             {"--signing-time", midway2020});
    const auto file = FileWithCmses::fromPath(package.string());
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->verifyCmses(ca()));
    EXPECT_EQ(developerCmsFromVector(file->cmses())->signingTime(), 1590969600);

    // Signing with it now is refused and leaves the package as it was.
    const auto fresh = PkgsigTest::copyOfPackage("tiny-xz", scratch / "now.rpm");
    const auto result =
        PkgsigTest::pkgsig({"sign", fresh.string(), "--developer-key",
                            TestPki::shared().key("developer-expired").string(), "--developer-cert",
                            TestPki::shared().certificate("developer-expired").string()});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("is not valid at the signing time"), std::string::npos) << result.err;
    EXPECT_EQ(TestSupport::readFile(fresh),
              TestSupport::readFile(PkgsigTest::builtPackage("tiny-xz")));
}

} // namespace
