#pragma once

// Owners for OpenSSL objects (each freed by its library function) and OpenSSL's error text.

#include <memory>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <string>

namespace PackageSignatures {

template <auto freeFunction> struct OpenSslFree {
    template <typename T> void operator()(T* object) const { freeFunction(object); }
};

using BioPtr = std::unique_ptr<BIO, OpenSslFree<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, OpenSslFree<X509_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSslFree<X509_STORE_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslFree<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSslFree<EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, OpenSslFree<EVP_MD_CTX_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, OpenSslFree<CMS_ContentInfo_free>>;
using Asn1ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpenSslFree<ASN1_OBJECT_free>>;
using Asn1IntegerPtr = std::unique_ptr<ASN1_INTEGER, OpenSslFree<ASN1_INTEGER_free>>;
using Asn1OctetStringPtr = std::unique_ptr<ASN1_OCTET_STRING, OpenSslFree<ASN1_OCTET_STRING_free>>;
using Asn1TimePtr = std::unique_ptr<ASN1_TIME, OpenSslFree<ASN1_TIME_free>>;
using ExtendedKeyUsagePtr =
    std::unique_ptr<EXTENDED_KEY_USAGE, OpenSslFree<EXTENDED_KEY_USAGE_free>>;
using CertificatePoliciesPtr =
    std::unique_ptr<CERTIFICATEPOLICIES, OpenSslFree<CERTIFICATEPOLICIES_free>>;

struct X509StackFree {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using X509StackPtr = std::unique_ptr<STACK_OF(X509), X509StackFree>;

// Takes the queued OpenSSL errors of this thread, oldest first, as one line ("" when none),
// and leaves the queue empty.
std::string takeOpenSslErrors();

} // namespace PackageSignatures
