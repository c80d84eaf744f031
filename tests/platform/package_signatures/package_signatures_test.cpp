// Certificates of the test PKI, signatures made and checked by the signature library, and the
// device's signature database.

#include "platform/package_signatures/certificate.hpp"
#include "platform/package_signatures/cms.hpp"
#include "platform/package_signatures/database.hpp"
#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/signing.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/signed_packages.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <openssl/sha.h>

namespace {

namespace fs = std::filesystem;
using namespace PackageSignatures;
using TestSupport::pkiCertificate;
using TestSupport::pkiIdentity;
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

TEST(Certificate, KeyIdAndSubgroup) {
    EXPECT_EQ(pkiCertificate("developer").keyId(), keyIdByOpensslCommand("developer"));
    // Same key, no identifier: the digest gives what the identifier "hash" method gave.
    EXPECT_EQ(keyIdByOpensslCommand("developer-no-key-id"), "");
    EXPECT_EQ(pkiCertificate("developer-no-key-id").keyId(), pkiCertificate("developer").keyId());
    // Regular, system and the client's "unknown" show in pkgsig's list.
    EXPECT_EQ(subgroupToString(pkiCertificate("developer-extended").subgroup()), "extended");
}

// 2020-06-01, inside the validity of developer-expired.
constexpr std::time_t midway2020 = 1590969600;

BioPtr memory(const std::string& content) {
    return BioPtr(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
}

Cms sign(const std::string& signer, const std::string& content, const FileSignatures& files = {},
         std::optional<std::time_t> at = std::nullopt) {
    return signContent(pkiIdentity(signer), memory(content).get(), files, at);
}

std::optional<std::string> verify(const Cms& cms, const std::string& content,
                                  const std::string& ca = "ca") {
    const auto trusted = loadTrustedCertificates(TestPki::shared().certificate(ca));
    return cms.verificationError(trusted.get(), memory(content).get());
}

Bytes sha256Of(const std::string& data) {
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data());
    return digest;
}

const std::string content = std::string("main header\r\n\0payload\n", 23) + std::string(5000, 'x');

// CMS structures of shapes that signContent never makes, straight from OpenSSL.
Bytes der(CMS_ContentInfo* cms) {
    unsigned char* bytes = nullptr;
    const int size = i2d_CMS_ContentInfo(cms, &bytes);
    Bytes result(bytes, bytes + std::max(size, 0));
    OPENSSL_free(bytes);
    return result;
}

Bytes signedData(const std::vector<std::string>& signers, const EVP_MD* digest,
                 unsigned int detached = CMS_DETACHED) {
    const unsigned int flags = CMS_BINARY | CMS_PARTIAL | detached;
    CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    for (const auto& name : signers) {
        const auto signer = pkiIdentity(name);
        CMS_add1_signer(cms.get(), signer.certificate.get(), signer.key.get(), digest, flags);
    }
    CMS_final(cms.get(), memory(content).get(), nullptr, flags);
    return der(cms.get());
}

TEST(Cms, SignatureHoldsOverTheExactBytesForPackageSignersValidWhenSigning) {
    std::string changed = content;
    changed.erase(11, 1); // CRLF to LF: binary content must not be normalised
    EXPECT_NE(verify(sign("developer", content), changed), std::nullopt);

    // Validity is checked at the signing time, which may lie neither before the CA existed nor
    // in the future.
    const std::tuple<const char*, std::optional<std::time_t>, const char*> signers[] = {
        {"developer", {}, nullptr},
        {"developer-rsa", {}, nullptr},
        {"developer-expired", midway2020, nullptr},
        {"server", {}, "the signer CN=pkg.example.org may not sign packages"},
        {"developer-no-signing", {}, "excludes signing"},
        {"developer-expired", {}, "expired"},
        {"developer", 86400, "does not hold"},
        {"developer", std::time(nullptr) + 30 * 86400, "lies in the future"},
    };
    for (const auto& [signer, at, reason] : signers) {
        SCOPED_TRACE(signer);
        const auto error = verify(sign(signer, content, {}, at), content);
        if (reason)
            EXPECT_NE(error.value_or("").find(reason), std::string::npos) << error.value_or("none");
        else
            EXPECT_EQ(error, std::nullopt) << *error;
    }
}

TEST(Cms, FileSignaturesTravelInsideTheSignatureAndHoldOnlyForTheirSigner) {
    const auto developer = pkiIdentity("developer");
    const Bytes digest = sha256Of("file three");
    FileSignatures files;
    files[3] = {imaFileSignature(developer, digest), trustletSignature(developer, digest)};
    files[17] = {{0x03, 0x02}, {}};
    const Cms cms = sign("developer", content, files);
    const unsigned char* cursor = cms.der().data();
    const Cms again = Cms::readDer(cursor, cms.der().size());
    EXPECT_EQ(again.fileSignatures(), files);

    // The IMA v2 header: type 3, version 2, SHA-256 (4), the key id's last 4 bytes, the length;
    // an RSA key signs as well as an EC one.
    const Bytes ima = imaFileSignature(developer, digest);
    ASSERT_GT(ima.size(), 9u);
    char header[32];
    std::snprintf(header, sizeof header, "%02x%02x%02x %02x%02x%02x%02x %u", ima[0], ima[1], ima[2],
                  ima[3], ima[4], ima[5], ima[6], unsigned(ima[7] << 8 | ima[8]));
    const std::string keyId = developer.certificate.keyId();
    EXPECT_EQ(header,
              "030204 " + keyId.substr(keyId.size() - 8) + " " + std::to_string(ima.size() - 9));
    EXPECT_TRUE(imaFileSignatureHolds(developer.certificate, ima, digest));
    const auto rsa = pkiIdentity("developer-rsa");
    EXPECT_TRUE(imaFileSignatureHolds(rsa.certificate, imaFileSignature(rsa, digest), digest));
    EXPECT_TRUE(trustletSignatureHolds(rsa.certificate, trustletSignature(rsa, digest), digest));
    const auto changedAt = [&](std::size_t at) {
        Bytes changed = ima;
        changed.at(at) ^= 0x01;
        return changed;
    };
    const auto other = pkiIdentity("developer-system").certificate;
    const std::tuple<const char*, Certificate, Bytes> bad[] = {
        {"another signer", other, ima},
        {"hash algorithm", developer.certificate, changedAt(2)},
        {"key id", developer.certificate, changedAt(5)},
        {"length", developer.certificate, changedAt(8)},
        {"signature", developer.certificate, changedAt(ima.size() - 1)},
    };
    for (const auto& [what, signer, signature] : bad) {
        SCOPED_TRACE(what);
        EXPECT_FALSE(imaFileSignatureHolds(signer, signature, digest));
    }
    EXPECT_FALSE(imaFileSignatureHolds(developer.certificate, ima, sha256Of("other")));
    EXPECT_FALSE(trustletSignatureHolds(other, trustletSignature(developer, digest), digest));
}

TEST(Cms, MalformedDataIsRefusedWithAReason) {
    const Cms cms = sign("developer", content);
    EXPECT_EQ(cmsesFromSignatureTag(signedData({"developer"}, EVP_sha256())).size(), 1u);

    Bytes trailing = cms.der();
    trailing.push_back(0x00);
    CmsPtr data(CMS_data_create(memory(content).get(), CMS_BINARY));
    const std::pair<const char*, Bytes> tags[] = {
        {"holds no signature", {}},
        {"not a DER CMS", Bytes(cms.der().begin(), cms.der().end() - 1)},
        {"not a DER CMS", trailing},
        {"not a DER CMS", {0x30, 0x03, 0x02, 0x01, 0x01}},
        {"not a CMS SignedData", der(data.get())},
        {"not detached", signedData({"developer"}, EVP_sha256(), 0)},
        {"exactly one signer", signedData({"developer", "client"}, EVP_sha256())},
        {"exactly one signer", signedData({}, EVP_sha256())},
        {"digest is not SHA-256", signedData({"developer"}, EVP_sha384())},
    };
    for (const auto& [reason, tag] : tags) {
        SCOPED_TRACE(reason);
        try {
            cmsesFromSignatureTag(tag);
            ADD_FAILURE() << "accepted";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(reason), std::string::npos) << error.what();
        }
    }

    // The per-file list: duplicates, negative indexes, extra fields and trailing bytes.
    const Bytes item = {0x30, 0x09, 0x02, 0x01, 0x01, 0x04, 0x01, 0xaa, 0x04, 0x01, 0xbb};
    Bytes duplicate = {0x30, 0x16};
    duplicate.insert(duplicate.end(), item.begin(), item.end());
    duplicate.insert(duplicate.end(), item.begin(), item.end());
    Bytes afterList = encodeFileSignatures({{1, {{0xaa}, {0xbb}}}});
    afterList.push_back(0x00);
    const Bytes lists[] = {
        duplicate,
        {0x30, 0x0b, 0x30, 0x09, 0x02, 0x01, 0xff, 0x04, 0x01, 0xaa, 0x04, 0x01, 0xbb},
        {0x30, 0x0e, 0x30, 0x0c, 0x02, 0x01, 0x01, 0x04, 0x01, 0xaa, 0x04, 0x01, 0xbb, 0x05, 0x00},
        afterList,
    };
    for (const auto& list : lists)
        EXPECT_THROW(decodeFileSignatures(list.data(), list.size()), std::runtime_error);
}

std::vector<std::string> filesBelow(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(directory))
        names.push_back(fs::relative(entry.path(), directory).string());
    std::sort(names.begin(), names.end());
    return names;
}

class SignatureDatabase : public ::testing::Test {
protected:
    TestSupport::Scratch scratch;
    fs::path root = scratch / "db";
};

// The package listing and lookups by group are pkgsig's list; here the files behind them.
TEST_F(SignatureDatabase, OneFilePerGroupInADirectoryPerPackage) {
    const Database database(root);
    EXPECT_TRUE(database.packages().empty()); // no root yet: an empty database
    database.setPackageCertificate("alpha.viewer+2", DeveloperGroup,
                                   pkiCertificate("developer-system"));
    database.setPackageCertificate("alpha.viewer+2", ClientGroup, pkiCertificate("client"));
    database.setPackageCertificate("Beta_1", ClientGroup, pkiCertificate("client"));
    // Replacing leaves no temporary file behind.
    database.setPackageCertificate("Beta_1", ClientGroup, pkiCertificate("developer"));
    EXPECT_EQ(filesBelow(root),
              (std::vector<std::string>{"Beta_1", "Beta_1/3.pem", "alpha.viewer+2",
                                        "alpha.viewer+2/1.pem", "alpha.viewer+2/3.pem"}));
    EXPECT_EQ(fs::status(root / "Beta_1/3.pem").permissions(), fs::perms(0644));
    EXPECT_EQ(Database(root).packageCertificateWithGroup("Beta_1", ClientGroup)->keyId(),
              pkiCertificate("developer").keyId());

    // A package whose last certificate goes leaves no directory behind.
    database.removePackageCertificate("alpha.viewer+2", ClientGroup);
    EXPECT_EQ(filesBelow(root / "alpha.viewer+2"), std::vector<std::string>{"1.pem"});
    database.removePackageCertificate("alpha.viewer+2", DeveloperGroup);
    EXPECT_EQ(filesBelow(root), (std::vector<std::string>{"Beta_1", "Beta_1/3.pem"}));
}

TEST_F(SignatureDatabase, NamesThatWouldLeaveTheRootAndDamagedEntriesAreRefused) {
    const Database database(root);
    // A certificate sits where "../outside" would lead.
    TestSupport::writeFile(scratch / "outside/1.pem", pkiCertificate("developer").toPem());
    TestSupport::writeFile(root / "a/b/1.pem", pkiCertificate("developer").toPem());
    TestSupport::writeFile(root / ".hidden/1.pem", pkiCertificate("developer").toPem());
    for (const std::string& name :
         std::vector<std::string>{"../outside", "a/b", ".hidden", "-rf", "", ".", "..",
                                  "with space", "tab\there", std::string(256, 'x')}) {
        SCOPED_TRACE(name);
        EXPECT_THROW(
            database.setPackageCertificate(name, DeveloperGroup, pkiCertificate("developer")),
            std::invalid_argument);
        EXPECT_FALSE(database.packageCertificateWithGroup(name, DeveloperGroup));
    }
    EXPECT_THROW(database.setPackageCertificate("good", 2, pkiCertificate("developer")),
                 std::invalid_argument);
    // Nothing was written, and the odd directories are not packages.
    EXPECT_TRUE(database.packages().empty());
    EXPECT_EQ(filesBelow(root),
              (std::vector<std::string>{".hidden", ".hidden/1.pem", "a", "a/b", "a/b/1.pem"}));
    EXPECT_TRUE(fs::exists(scratch / "outside/1.pem"));

    // Damaged entries are reported, not guessed.
    TestSupport::writeFile(root / "broken/1.pem", "not a certificate\n");
    fs::create_directories(root / "empty-dir");
    TestSupport::writeFile(root / "stray-file", "");
    EXPECT_EQ(database.packages(), std::vector<std::string>{"broken"});
    EXPECT_THROW(database.packageCertificateWithGroup("broken", DeveloperGroup),
                 std::runtime_error);
}

} // namespace
