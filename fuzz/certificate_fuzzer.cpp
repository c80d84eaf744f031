// Fuzzes certificates read as PEM and as DER, and everything read from them: a certificate
// that reads writes out as PEM and reads back the same.

#include "fuzz/fuzz_support.hpp"
#include "platform/package_signatures/certificate.hpp"

#include <openssl/err.h>
#include <openssl/x509.h>

using PackageSignatures::Certificate;

namespace {

void inspect(const Certificate& certificate) {
    try {
        certificate.keyId();
        certificate.subject();
    } catch (const std::runtime_error&) {
    }
    PackageSignatures::subgroupToString(certificate.subgroup());
    certificate.hasClientUsage();
    certificate.isSystemDeveloperCertificate();
    const auto again = Certificate::fromPem(certificate.toPem());
    Fuzz::require(again && again->toDer() == certificate.toDer(),
                  "a certificate reads back from its PEM");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (const auto pem =
            Certificate::fromPem(std::string_view(reinterpret_cast<const char*>(data), size)))
        inspect(*pem);
    const unsigned char* cursor = data;
    PackageSignatures::X509Ptr der(d2i_X509(nullptr, &cursor, static_cast<long>(size)));
    ERR_clear_error();
    if (der)
        inspect(Certificate(der.get()));
    return 0;
}
