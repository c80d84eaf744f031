#include "platform/package_signatures/signing.hpp"

#include "platform/package_signatures/oids.hpp"

#include <algorithm>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <stdexcept>

namespace PackageSignatures {

namespace {

constexpr unsigned char imaSignatureType = 0x03;
constexpr unsigned char imaSignatureVersion = 0x02;
constexpr unsigned char imaHashSha256 = 4;
constexpr std::size_t sha256Size = 32;

[[noreturn]] void fail(const std::string& what) {
    const std::string details = takeOpenSslErrors();
    throw std::runtime_error(what + (details.empty() ? "" : ": " + details));
}

// A passphrase callback that gives none: an encrypted key is refused, never prompted for.
int noPassphrase(char*, int, int, void*) {
    return 0;
}

BioPtr openForReading(const std::string& file, const char* what) {
    BioPtr bio(BIO_new_file(file.c_str(), "rb"));
    if (!bio)
        fail("cannot open the " + std::string(what) + " " + file);
    return bio;
}

unsigned char hexValue(char digit) {
    return static_cast<unsigned char>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

// The last 4 bytes of the key id; a shorter key id is padded with zeros in front.
Bytes imaKeyId(const Certificate& certificate) {
    const std::string keyId = std::string(8, '0') + certificate.keyId();
    Bytes bytes;
    for (std::size_t i = keyId.size() - 8; i < keyId.size(); i += 2)
        bytes.push_back(
            static_cast<unsigned char>(hexValue(keyId[i]) << 4 | hexValue(keyId[i + 1])));
    return bytes;
}

} // namespace

SigningIdentity SigningIdentity::fromPemFiles(const std::string& keyFile,
                                              const std::string& certificateFile) {
    const BioPtr keyBio = openForReading(keyFile, "key file");
    EvpPkeyPtr key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, noPassphrase, nullptr));
    if (!key)
        fail(keyFile + " holds no unencrypted PEM private key");

    const BioPtr certificateBio = openForReading(certificateFile, "certificate file");
    X509Ptr first(PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr));
    if (!first)
        fail(certificateFile + " holds no PEM certificate");
    std::vector<Certificate> chain;
    while (X509Ptr next{PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr)})
        chain.emplace_back(next.get());
    ERR_clear_error(); // the end of the file reads as an error

    if (X509_check_private_key(first.get(), key.get()) != 1) {
        ERR_clear_error();
        throw std::runtime_error("the key " + keyFile + " does not belong to the certificate " +
                                 certificateFile);
    }
    return SigningIdentity{Certificate(first.get()), std::move(key), std::move(chain)};
}

Cms signContent(const SigningIdentity& signer, BIO* content, const FileSignatures& files,
                std::optional<std::time_t> signedAt) {
    constexpr unsigned int flags = CMS_BINARY | CMS_DETACHED | CMS_PARTIAL | CMS_NOSMIMECAP;
    X509StackPtr extra(sk_X509_new_null());
    if (!extra)
        fail("cannot allocate a certificate list");
    for (const auto& certificate : signer.chain) {
        if (!sk_X509_push(extra.get(), certificate.get()))
            fail("cannot add to a certificate list");
        X509_up_ref(certificate.get());
    }
    CmsPtr cms(CMS_sign(nullptr, nullptr, extra.get(), nullptr, flags));
    if (!cms)
        fail("cannot start a CMS signature");
    CMS_SignerInfo* signerInfo =
        CMS_add1_signer(cms.get(), signer.certificate.get(), signer.key.get(), EVP_sha256(), flags);
    if (!signerInfo)
        fail("cannot add the signer " + signer.certificate.subject());

    if (signedAt) {
        Asn1TimePtr time(ASN1_TIME_set(nullptr, *signedAt));
        if (!time || !CMS_signed_add1_attr_by_NID(signerInfo, NID_pkcs9_signingTime, time->type,
                                                  time.get(), -1))
            fail("cannot record the signing time");
    }
    if (!files.empty()) {
        const Bytes attribute = encodeFileSignatures(files);
        if (!CMS_signed_add1_attr_by_OBJ(signerInfo, Oid::object(Oid::FileSignatures).get(),
                                         V_ASN1_SEQUENCE, attribute.data(),
                                         static_cast<int>(attribute.size())))
            fail("cannot record the file signatures");
    }
    if (!CMS_final(cms.get(), content, nullptr, CMS_BINARY | CMS_DETACHED))
        fail("cannot sign the package content with " + signer.certificate.subject());

    unsigned char* der = nullptr;
    const int size = i2d_CMS_ContentInfo(cms.get(), &der);
    if (size < 0)
        fail("cannot encode the CMS signature");
    const Bytes encoded(der, der + size);
    OPENSSL_free(der);
    const unsigned char* cursor = encoded.data();
    return Cms::readDer(cursor, encoded.size());
}

Bytes trustletSignature(const SigningIdentity& signer, const Bytes& sha256) {
    if (sha256.size() != sha256Size)
        throw std::invalid_argument("a SHA-256 digest has 32 bytes");
    EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(signer.key.get(), nullptr));
    std::size_t size = 0;
    if (!context || EVP_PKEY_sign_init(context.get()) <= 0 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) <= 0 ||
        EVP_PKEY_sign(context.get(), nullptr, &size, sha256.data(), sha256.size()) <= 0)
        fail("the key of " + signer.certificate.subject() + " cannot sign a SHA-256 digest");
    Bytes signature(size);
    if (EVP_PKEY_sign(context.get(), signature.data(), &size, sha256.data(), sha256.size()) <= 0)
        fail("cannot sign a file digest with the key of " + signer.certificate.subject());
    signature.resize(size);
    return signature;
}

Bytes imaFileSignature(const SigningIdentity& signer, const Bytes& sha256) {
    const Bytes signature = trustletSignature(signer, sha256);
    if (signature.size() > 0xffff)
        throw std::runtime_error("a file signature is too long for the IMA format");
    Bytes result{imaSignatureType, imaSignatureVersion, imaHashSha256};
    const Bytes keyId = imaKeyId(signer.certificate);
    result.insert(result.end(), keyId.begin(), keyId.end());
    result.push_back(static_cast<unsigned char>(signature.size() >> 8));
    result.push_back(static_cast<unsigned char>(signature.size() & 0xff));
    result.insert(result.end(), signature.begin(), signature.end());
    return result;
}

bool trustletSignatureHolds(const Certificate& signer, const Bytes& signature,
                            const Bytes& sha256) {
    EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(X509_get0_pubkey(signer.get()), nullptr));
    const bool holds = context && EVP_PKEY_verify_init(context.get()) == 1 &&
                       EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1 &&
                       EVP_PKEY_verify(context.get(), signature.data(), signature.size(),
                                       sha256.data(), sha256.size()) == 1;
    ERR_clear_error();
    return holds;
}

bool imaFileSignatureHolds(const Certificate& signer, const Bytes& signature, const Bytes& sha256) {
    constexpr std::size_t headerSize = 9;
    if (signature.size() < headerSize || signature[0] != imaSignatureType ||
        signature[1] != imaSignatureVersion || signature[2] != imaHashSha256 ||
        (std::size_t(signature[7]) << 8 | signature[8]) != signature.size() - headerSize ||
        !std::equal(signature.begin() + 3, signature.begin() + 7, imaKeyId(signer).begin()))
        return false;
    return trustletSignatureHolds(signer, Bytes(signature.begin() + headerSize, signature.end()),
                                  sha256);
}

} // namespace PackageSignatures
