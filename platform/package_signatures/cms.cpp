#include "platform/package_signatures/cms.hpp"

#include "platform/package_signatures/oids.hpp"

#include <algorithm>
#include <limits>
#include <openssl/err.h>
#include <stdexcept>

namespace PackageSignatures {

namespace {

// Signing times may run ahead of the verifier's clock by this much.
constexpr std::time_t allowedClockSkew = 24 * 60 * 60;

[[noreturn]] void malformed(const std::string& what) {
    const std::string details = takeOpenSslErrors();
    throw std::runtime_error(what + (details.empty() ? "" : ": " + details));
}

template <typename T, auto encode> Bytes derOf(const T* object) {
    const int size = encode(object, nullptr);
    if (size < 0)
        malformed("cannot encode a signature item");
    Bytes bytes(static_cast<std::size_t>(size));
    unsigned char* out = bytes.data();
    encode(object, &out);
    return bytes;
}

Bytes wrapInSequence(const Bytes& content) {
    const int contentSize = static_cast<int>(content.size());
    Bytes bytes(static_cast<std::size_t>(ASN1_object_size(1, contentSize, V_ASN1_SEQUENCE)));
    unsigned char* out = bytes.data();
    ASN1_put_object(&out, 1, contentSize, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    // An empty list has no data pointer, which memcpy may not be given.
    std::copy(content.begin(), content.end(), out);
    return bytes;
}

// Steps into a definite-length SEQUENCE at `cursor`; returns where its contents end.
const unsigned char* enterSequence(const unsigned char*& cursor, const unsigned char* end) {
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int kind = ASN1_get_object(&cursor, &length, &tag, &tagClass, end - cursor);
    if (kind != V_ASN1_CONSTRUCTED || tag != V_ASN1_SEQUENCE || tagClass != V_ASN1_UNIVERSAL)
        malformed("the file signatures are not a DER sequence");
    return cursor + length;
}

Bytes readOctetString(const unsigned char*& cursor, const unsigned char* end) {
    Asn1OctetStringPtr text(d2i_ASN1_OCTET_STRING(nullptr, &cursor, end - cursor));
    if (!text || cursor > end)
        malformed("a file signature is not an octet string");
    const unsigned char* data = ASN1_STRING_get0_data(text.get());
    return Bytes(data, data + ASN1_STRING_length(text.get()));
}

std::optional<std::time_t> readSigningTime(CMS_SignerInfo* signerInfo) {
    const int position = CMS_signed_get_attr_by_NID(signerInfo, NID_pkcs9_signingTime, -1);
    if (position < 0)
        return std::nullopt;
    const ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signerInfo, position), 0);
    std::tm parts{};
    if (!value || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME) ||
        !ASN1_TIME_to_tm(value->value.utctime, &parts))
        malformed("the signing time is not a time");
    return ::timegm(&parts);
}

FileSignatures readFileSignatures(CMS_SignerInfo* signerInfo) {
    const auto oid = Oid::object(Oid::FileSignatures);
    if (CMS_signed_get_attr_by_OBJ(signerInfo, oid.get(), -1) < 0)
        return {};
    const auto* value = static_cast<const ASN1_STRING*>(
        CMS_signed_get0_data_by_OBJ(signerInfo, oid.get(), -3, V_ASN1_SEQUENCE));
    if (!value)
        malformed("the file signatures attribute is not a single sequence");
    return decodeFileSignatures(ASN1_STRING_get0_data(value),
                                static_cast<std::size_t>(ASN1_STRING_length(value)));
}

CMS_SignerInfo* onlySigner(CMS_ContentInfo* cms) {
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
    if (!signers || sk_CMS_SignerInfo_num(signers) != 1)
        malformed("a package signature must have exactly one signer");
    return sk_CMS_SignerInfo_value(signers, 0);
}

CmsPtr parse(const unsigned char*& cursor, std::size_t available) {
    if (available > static_cast<std::size_t>(std::numeric_limits<long>::max()))
        malformed("the signature data is too large");
    CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(available)));
    if (!cms)
        malformed("not a DER CMS structure");
    if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed)
        malformed("not a CMS SignedData");
    if (CMS_is_detached(cms.get()) != 1)
        malformed("the CMS SignedData is not detached");
    return cms;
}

X509* signerOf(CMS_ContentInfo* cms, CMS_SignerInfo* signerInfo) {
    if (CMS_set1_signers_certs(cms, nullptr, 0) < 0)
        malformed("cannot match the signer with a certificate");
    X509* signer = nullptr;
    X509_ALGOR* digest = nullptr;
    CMS_SignerInfo_get0_algs(signerInfo, nullptr, &signer, &digest, nullptr);
    if (!signer)
        malformed("the signer's certificate is not in the CMS structure");
    const ASN1_OBJECT* digestOid = nullptr;
    X509_ALGOR_get0(&digestOid, nullptr, nullptr, digest);
    if (OBJ_obj2nid(digestOid) != NID_sha256)
        malformed("the signature's digest is not SHA-256");
    return signer;
}

std::optional<Cms> firstWithUsage(const std::vector<Cms>& cmses,
                                  bool (Certificate::*hasUsage)() const) {
    for (const auto& cms : cmses)
        if ((cms.certificate().*hasUsage)())
            return cms;
    return std::nullopt;
}

} // namespace

Cms Cms::readDer(const unsigned char*& cursor, std::size_t available) {
    const unsigned char* start = cursor;
    CmsPtr cms = parse(cursor, available);
    CMS_SignerInfo* signerInfo = onlySigner(cms.get());
    Cms result(Bytes(start, cursor), Certificate(signerOf(cms.get(), signerInfo)));
    result.signedAt = readSigningTime(signerInfo);
    result.files = readFileSignatures(signerInfo);
    ERR_clear_error();
    return result;
}

Bytes Cms::fileSignature(std::size_t index) const {
    const auto found = files.find(index);
    return found == files.end() ? Bytes() : found->second.fileSignature;
}

Bytes Cms::trustletSignature(std::size_t index) const {
    const auto found = files.find(index);
    return found == files.end() ? Bytes() : found->second.trustletSignature;
}

std::optional<std::string> Cms::verificationError(X509_STORE* trusted, BIO* content) const {
    if (!signer.hasDeveloperUsage() && !signer.hasClientUsage())
        return "the signer " + signer.subject() + " may not sign packages";
    if (!(X509_get_key_usage(signer.get()) & KU_DIGITAL_SIGNATURE))
        return "the key usage of the signer " + signer.subject() + " excludes signing";
    X509_VERIFY_PARAM* parameters = X509_STORE_get0_param(trusted);
    if (signedAt) {
        if (*signedAt > std::time(nullptr) + allowedClockSkew)
            return "the signing time of " + signer.subject() + " lies in the future";
        X509_VERIFY_PARAM_set_time(parameters, *signedAt);
    } else {
        X509_VERIFY_PARAM_clear_flags(parameters, X509_V_FLAG_USE_CHECK_TIME);
    }
    const unsigned char* cursor = encoded.data();
    CmsPtr cms;
    try {
        cms = parse(cursor, encoded.size());
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    if (CMS_verify(cms.get(), nullptr, trusted, content, nullptr, CMS_BINARY) != 1) {
        const std::string details = takeOpenSslErrors();
        return "the signature of " + signer.subject() + " does not hold" +
               (details.empty() ? "" : ": " + details);
    }
    ERR_clear_error();
    return std::nullopt;
}

std::optional<Cms> developerCmsFromVector(const std::vector<Cms>& cmses) {
    return firstWithUsage(cmses, &Certificate::hasDeveloperUsage);
}

std::optional<Cms> clientCmsFromVector(const std::vector<Cms>& cmses) {
    return firstWithUsage(cmses, &Certificate::hasClientUsage);
}

Bytes encodeFileSignatures(const FileSignatures& files) {
    Bytes items;
    for (const auto& [index, signatures] : files) {
        Asn1IntegerPtr number(ASN1_INTEGER_new());
        Asn1OctetStringPtr file(ASN1_OCTET_STRING_new());
        Asn1OctetStringPtr trustlet(ASN1_OCTET_STRING_new());
        if (!number || !file || !trustlet || !ASN1_INTEGER_set_uint64(number.get(), index) ||
            !ASN1_OCTET_STRING_set(file.get(), signatures.fileSignature.data(),
                                   static_cast<int>(signatures.fileSignature.size())) ||
            !ASN1_OCTET_STRING_set(trustlet.get(), signatures.trustletSignature.data(),
                                   static_cast<int>(signatures.trustletSignature.size())))
            malformed("cannot encode the signatures of file " + std::to_string(index));
        Bytes item = derOf<ASN1_INTEGER, i2d_ASN1_INTEGER>(number.get());
        for (const auto* text : {file.get(), trustlet.get()}) {
            const Bytes part = derOf<ASN1_OCTET_STRING, i2d_ASN1_OCTET_STRING>(text);
            item.insert(item.end(), part.begin(), part.end());
        }
        const Bytes wrapped = wrapInSequence(item);
        items.insert(items.end(), wrapped.begin(), wrapped.end());
    }
    return wrapInSequence(items);
}

FileSignatures decodeFileSignatures(const unsigned char* der, std::size_t size) {
    const unsigned char* cursor = der;
    const unsigned char* end = der + size;
    const unsigned char* listEnd = enterSequence(cursor, end);
    if (listEnd != end)
        malformed("bytes follow the file signatures");
    FileSignatures files;
    while (cursor < listEnd) {
        const unsigned char* itemEnd = enterSequence(cursor, listEnd);
        Asn1IntegerPtr number(d2i_ASN1_INTEGER(nullptr, &cursor, itemEnd - cursor));
        std::uint64_t index = 0;
        if (!number || cursor > itemEnd || !ASN1_INTEGER_get_uint64(&index, number.get()))
            malformed("a file index is not a non-negative integer");
        FileSignature signatures;
        signatures.fileSignature = readOctetString(cursor, itemEnd);
        signatures.trustletSignature = readOctetString(cursor, itemEnd);
        if (cursor != itemEnd)
            malformed("a file's signature item has extra fields");
        if (!files.emplace(index, std::move(signatures)).second)
            malformed("file " + std::to_string(index) + " is signed twice");
    }
    return files;
}

} // namespace PackageSignatures
