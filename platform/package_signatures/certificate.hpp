#pragma once

// A package-signing X.509 certificate: its key id, subject, subgroup and certificate group.

#include "platform/package_signatures/openssl_owners.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace PackageSignatures {

// The certificate groups of the device's signature database.
inline constexpr int DeveloperGroup = 1;
inline constexpr int ClientGroup = 3;

enum class Subgroup { Unknown, Regular, Extended, System };

// "regular", "extended", "system" or "unknown".
std::string subgroupToString(Subgroup subgroup);

class Certificate {
public:
    // Takes a new reference to `certificate`, which must not be null.
    explicit Certificate(X509* certificate);
    Certificate(const Certificate& other);
    Certificate& operator=(const Certificate& other);
    Certificate(Certificate&&) noexcept = default;
    Certificate& operator=(Certificate&&) noexcept = default;

    // The first certificate of PEM text, or nothing when there is none.
    static std::optional<Certificate> fromPem(std::string_view pem);

    // Lowercase hex of the subject key identifier, or of the SHA-1 of the subject public key
    // when the certificate has no such identifier.
    std::string keyId() const;
    // The subject in RFC 2253 form, UTF-8 kept as it is.
    std::string subject() const;
    // From the certificate policies; Unknown when none of ours is there.
    Subgroup subgroup() const;
    // Whether the extended key usages hold developer signing / client (source) signing.
    bool hasDeveloperUsage() const;
    bool hasClientUsage() const;
    // A developer certificate of the system subgroup.
    bool isSystemDeveloperCertificate() const;

    std::string toPem() const;
    // The DER bytes, for comparing two certificates.
    std::string toDer() const;
    X509* get() const { return certificate.get(); }

private:
    bool hasUsage(const char* oid) const;

    X509Ptr certificate;
};

} // namespace PackageSignatures
