// Fuzzes the reader of the signature tag and its CMS structures, and what is read from each:
// the signer's certificate, the signing time, the file signatures and the verification.

#include "fuzz/fuzz_support.hpp"
#include "platform/package_signatures/file_with_cmses.hpp"

#include <openssl/bio.h>

using namespace PackageSignatures;

namespace {

void inspect(const Cms& cms, X509_STORE* noTrust) {
    const Certificate& signer = cms.certificate();
    signer.keyId();
    signer.subject();
    signer.isSystemDeveloperCertificate();
    signer.hasClientUsage();
    cms.signingTime();
    const Bytes encoded = encodeFileSignatures(cms.fileSignatures());
    Fuzz::require(decodeFileSignatures(encoded.data(), encoded.size()) == cms.fileSignatures(),
                  "file signatures encode to the same list");
    BioPtr content(BIO_new_mem_buf("content", -1));
    Fuzz::require(content != nullptr, "a memory BIO can be made");
    // Nothing is trusted, so nothing may verify.
    Fuzz::require(cms.verificationError(noTrust, content.get()).has_value(),
                  "a signature verifies only against a trusted CA");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<unsigned char> tag(data, data + size);
    std::vector<Cms> cmses;
    try {
        cmses = cmsesFromSignatureTag(tag);
    } catch (const std::runtime_error&) {
        return 0;
    }
    Bytes joined;
    for (const auto& cms : cmses)
        joined.insert(joined.end(), cms.der().begin(), cms.der().end());
    Fuzz::require(joined == tag, "the signatures are the tag's bytes, one after another");

    X509StorePtr noTrust(X509_STORE_new());
    Fuzz::require(noTrust != nullptr, "a certificate store can be made");
    for (const auto& cms : cmses)
        try {
            inspect(cms, noTrust.get());
        } catch (const std::runtime_error&) {
        }
    developerCmsFromVector(cmses);
    clientCmsFromVector(cmses);
    return 0;
}
