#include "platform/package_signatures/certificate.hpp"

#include "platform/package_signatures/oids.hpp"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <stdexcept>

namespace PackageSignatures {

namespace {

std::string lowercaseHex(const unsigned char* bytes, std::size_t size) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xf];
    }
    return text;
}

std::string bioText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

} // namespace

std::string subgroupToString(Subgroup subgroup) {
    switch (subgroup) {
    case Subgroup::Regular:
        return "regular";
    case Subgroup::Extended:
        return "extended";
    case Subgroup::System:
        return "system";
    case Subgroup::Unknown:
        break;
    }
    return "unknown";
}

Certificate::Certificate(X509* certificate) : certificate(certificate) {
    if (!certificate)
        throw std::invalid_argument("a certificate cannot be made from nothing");
    X509_up_ref(certificate);
}

Certificate::Certificate(const Certificate& other) : Certificate(other.get()) {}

Certificate& Certificate::operator=(const Certificate& other) {
    if (this != &other) {
        X509_up_ref(other.get());
        certificate.reset(other.get());
    }
    return *this;
}

std::optional<Certificate> Certificate::fromPem(std::string_view pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    X509Ptr read(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    if (!read)
        return std::nullopt;
    return Certificate(read.get());
}

std::string Certificate::keyId() const {
    if (const ASN1_OCTET_STRING* identifier = X509_get0_subject_key_id(certificate.get()))
        return lowercaseHex(ASN1_STRING_get0_data(identifier),
                            static_cast<std::size_t>(ASN1_STRING_length(identifier)));
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (!X509_pubkey_digest(certificate.get(), EVP_sha1(), digest, &size))
        throw std::runtime_error("cannot digest the certificate's public key: " +
                                 takeOpenSslErrors());
    return lowercaseHex(digest, size);
}

std::string Certificate::subject() const {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate.get()), 0,
                                   XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0)
        throw std::runtime_error("cannot print the certificate's subject: " + takeOpenSslErrors());
    return bioText(bio.get());
}

Subgroup Certificate::subgroup() const {
    CertificatePoliciesPtr policies(static_cast<CERTIFICATEPOLICIES*>(
        X509_get_ext_d2i(certificate.get(), NID_certificate_policies, nullptr, nullptr)));
    ERR_clear_error();
    if (!policies)
        return Subgroup::Unknown;
    const std::pair<const char*, Subgroup> known[] = {{Oid::SubgroupRegular, Subgroup::Regular},
                                                      {Oid::SubgroupExtended, Subgroup::Extended},
                                                      {Oid::SubgroupSystem, Subgroup::System}};
    for (int i = 0; i < sk_POLICYINFO_num(policies.get()); ++i) {
        const ASN1_OBJECT* policy = sk_POLICYINFO_value(policies.get(), i)->policyid;
        for (const auto& [oid, subgroup] : known)
            if (OBJ_cmp(policy, Oid::object(oid).get()) == 0)
                return subgroup;
    }
    return Subgroup::Unknown;
}

bool Certificate::hasUsage(const char* oid) const {
    ExtendedKeyUsagePtr usages(static_cast<EXTENDED_KEY_USAGE*>(
        X509_get_ext_d2i(certificate.get(), NID_ext_key_usage, nullptr, nullptr)));
    ERR_clear_error();
    if (!usages)
        return false;
    const auto wanted = Oid::object(oid);
    for (int i = 0; i < sk_ASN1_OBJECT_num(usages.get()); ++i)
        if (OBJ_cmp(sk_ASN1_OBJECT_value(usages.get(), i), wanted.get()) == 0)
            return true;
    return false;
}

bool Certificate::hasDeveloperUsage() const {
    return hasUsage(Oid::DeveloperSigning);
}

bool Certificate::hasClientUsage() const {
    return hasUsage(Oid::ClientSigning);
}

bool Certificate::isSystemDeveloperCertificate() const {
    return hasDeveloperUsage() && subgroup() == Subgroup::System;
}

std::string Certificate::toPem() const {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || !PEM_write_bio_X509(bio.get(), certificate.get()))
        throw std::runtime_error("cannot write the certificate as PEM: " + takeOpenSslErrors());
    return bioText(bio.get());
}

std::string Certificate::toDer() const {
    unsigned char* der = nullptr;
    const int size = i2d_X509(certificate.get(), &der);
    if (size < 0)
        throw std::runtime_error("cannot encode the certificate: " + takeOpenSslErrors());
    std::string bytes(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
    OPENSSL_free(der);
    return bytes;
}

} // namespace PackageSignatures
