#include "platform/package_signatures/cms.hpp"
#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/signing.hpp"
#include "tests/support/test_pki.hpp"

#include <ctime>
#include <gtest/gtest.h>
#include <openssl/sha.h>

namespace {

using namespace PackageSignatures;
using TestSupport::TestPki;

// 2020-06-01, inside the validity of developer-expired.
constexpr std::time_t midway2020 = 1590969600;

SigningIdentity identity(const std::string& name) {
    return SigningIdentity::fromPemFiles(TestPki::shared().key(name),
                                         TestPki::shared().certificate(name));
}

BioPtr memory(const std::string& content) {
    return BioPtr(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
}

Cms sign(const std::string& signer, const std::string& content, const FileSignatures& files = {},
         std::optional<std::time_t> at = std::nullopt) {
    return signContent(identity(signer), memory(content).get(), files, at);
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

bool signatureHolds(const Certificate& signer, const Bytes& signature, const Bytes& digest) {
    EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(X509_get0_pubkey(signer.get()), nullptr));
    return context && EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1 &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(),
                           digest.size()) == 1;
}

const std::string content = std::string("main header\r\n\0payload\n", 23) + std::string(5000, 'x');

TEST(Cms, SignatureHoldsOverTheExactBytesForSignersWithAPackageSigningUse) {
    const Cms cms = sign("developer", content);
    EXPECT_EQ(verify(cms, content), std::nullopt);
    ASSERT_TRUE(cms.signingTime().has_value());
    EXPECT_LE(std::abs(*cms.signingTime() - std::time(nullptr)), 60);
    std::string changed = content;
    changed[13] = '\n'; // CRLF to LF: binary content must not be normalised
    EXPECT_NE(verify(cms, changed), std::nullopt);
    EXPECT_NE(verify(cms, content + "x"), std::nullopt);
    EXPECT_EQ(verify(sign("developer-rsa", content), content), std::nullopt);
    EXPECT_EQ(verify(sign("client", content), content), std::nullopt);

    EXPECT_EQ(verify(sign("server", content), content),
              "the signer CN=pkg.example.org may not sign packages");
    const auto noSigning = verify(sign("developer-no-signing", content), content);
    ASSERT_TRUE(noSigning.has_value());
    EXPECT_NE(noSigning->find("excludes signing"), std::string::npos) << *noSigning;
}

TEST(Cms, ValidityIsCheckedAtTheSigningTime) {
    const Cms old = sign("developer-expired", content, {}, midway2020);
    EXPECT_EQ(old.signingTime(), midway2020);
    EXPECT_EQ(verify(old, content), std::nullopt);

    const auto signedNow = verify(sign("developer-expired", content), content);
    ASSERT_TRUE(signedNow.has_value());
    EXPECT_NE(signedNow->find("expired"), std::string::npos) << *signedNow;

    // A regular certificate claiming a time before the CA existed does not hold.
    EXPECT_NE(verify(sign("developer", content, {}, 86400), content), std::nullopt);
    const auto future =
        verify(sign("developer", content, {}, std::time(nullptr) + 30 * 86400), content);
    ASSERT_TRUE(future.has_value());
    EXPECT_NE(future->find("lies in the future"), std::string::npos) << *future;
}

TEST(Cms, FileSignaturesTravelInsideTheSignature) {
    const auto developer = identity("developer");
    const Bytes digest = sha256Of("file three");
    FileSignatures files;
    files[3] = {imaFileSignature(developer, digest), trustletSignature(developer, digest)};
    files[17] = {{0x03, 0x02}, {}};
    const Cms cms = sign("developer", content, files);
    EXPECT_EQ(verify(cms, content), std::nullopt);

    const unsigned char* cursor = cms.der().data();
    const Cms again = Cms::readDer(cursor, cms.der().size());
    EXPECT_EQ(again.fileSignatures(), files);
    EXPECT_EQ(again.fileSignature(3), files[3].fileSignature);
    EXPECT_EQ(again.trustletSignature(3), files[3].trustletSignature);
    EXPECT_EQ(again.fileSignature(17), (Bytes{0x03, 0x02}));
    EXPECT_EQ(again.trustletSignature(17), Bytes());
    EXPECT_EQ(again.fileSignature(4), Bytes());
    EXPECT_EQ(again.trustletSignature(0), Bytes());
    EXPECT_TRUE(sign("client", content).fileSignatures().empty());
}

TEST(Cms, FileSignatureFormatsCarryAVerifiableSignatureOfTheDigest) {
    for (const char* name : {"developer", "developer-rsa", "developer-no-key-id"}) {
        SCOPED_TRACE(name);
        const auto signer = identity(name);
        const Bytes digest = sha256Of(name);
        const Bytes ima = imaFileSignature(signer, digest);
        ASSERT_GT(ima.size(), 9u);
        EXPECT_EQ(ima[0], 0x03);
        EXPECT_EQ(ima[1], 0x02);
        EXPECT_EQ(ima[2], 4);
        const std::string keyId = signer.certificate.keyId();
        char tail[9];
        std::snprintf(tail, sizeof tail, "%02x%02x%02x%02x", ima[3], ima[4], ima[5], ima[6]);
        EXPECT_EQ(tail, keyId.substr(keyId.size() - 8));
        EXPECT_EQ(std::size_t(ima[7]) << 8 | ima[8], ima.size() - 9);
        EXPECT_TRUE(signatureHolds(signer.certificate, Bytes(ima.begin() + 9, ima.end()), digest));

        const Bytes trustlet = trustletSignature(signer, digest);
        EXPECT_TRUE(signatureHolds(signer.certificate, trustlet, digest));
        EXPECT_FALSE(signatureHolds(signer.certificate, trustlet, sha256Of("other")));
    }
}

TEST(Cms, MalformedDataIsRefusedWithAReason) {
    const Cms cms = sign("developer", content);
    const auto readAll = [](const Bytes& bytes) { return cmsesFromSignatureTag(bytes).size(); };
    Bytes two = cms.der();
    two.insert(two.end(), cms.der().begin(), cms.der().end());
    EXPECT_EQ(readAll(two), 2u);
    EXPECT_THROW(readAll({}), std::runtime_error);
    EXPECT_THROW(readAll(Bytes(cms.der().begin(), cms.der().end() - 1)), std::runtime_error);
    Bytes trailing = cms.der();
    trailing.push_back(0x00);
    EXPECT_THROW(readAll(trailing), std::runtime_error);
    EXPECT_THROW(readAll({0x30, 0x03, 0x02, 0x01, 0x01}), std::runtime_error);

    // The per-file list: duplicates, negative indexes, extra fields and trailing bytes.
    const Bytes good = encodeFileSignatures({{1, {{0xaa}, {0xbb}}}});
    EXPECT_EQ(decodeFileSignatures(good.data(), good.size()).at(1).trustletSignature, Bytes{0xbb});
    const Bytes item = {0x30, 0x09, 0x02, 0x01, 0x01, 0x04, 0x01, 0xaa, 0x04, 0x01, 0xbb};
    Bytes duplicate = {0x30, 0x16};
    duplicate.insert(duplicate.end(), item.begin(), item.end());
    duplicate.insert(duplicate.end(), item.begin(), item.end());
    const Bytes negative = {0x30, 0x0b, 0x30, 0x09, 0x02, 0x01, 0xff,
                            0x04, 0x01, 0xaa, 0x04, 0x01, 0xbb};
    const Bytes extra = {0x30, 0x0e, 0x30, 0x0c, 0x02, 0x01, 0x01, 0x04,
                         0x01, 0xaa, 0x04, 0x01, 0xbb, 0x05, 0x00};
    Bytes afterList = good;
    afterList.push_back(0x00);
    for (const Bytes* bad :
         std::initializer_list<const Bytes*>{&duplicate, &negative, &extra, &afterList})
        EXPECT_THROW(decodeFileSignatures(bad->data(), bad->size()), std::runtime_error);
}

} // namespace
