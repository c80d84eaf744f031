#pragma once

// The object identifiers of package signing, all under our registration-free UUID arc.

#include "platform/package_signatures/openssl_owners.hpp"

namespace PackageSignatures::Oid {

#define TOLVA_PACKAGE_SIGNATURES_ARC "2.25.291234647299006649337646853579173005266"

// Extended key usages that tell the two certificate groups apart.
inline constexpr const char* DeveloperSigning = TOLVA_PACKAGE_SIGNATURES_ARC ".1.1";
inline constexpr const char* ClientSigning = TOLVA_PACKAGE_SIGNATURES_ARC ".1.2";

// Certificate policies that name a certificate's subgroup.
inline constexpr const char* SubgroupRegular = TOLVA_PACKAGE_SIGNATURES_ARC ".2.1";
inline constexpr const char* SubgroupExtended = TOLVA_PACKAGE_SIGNATURES_ARC ".2.2";
inline constexpr const char* SubgroupSystem = TOLVA_PACKAGE_SIGNATURES_ARC ".2.3";

// The signed CMS attribute that carries a developer signature's per-file signatures.
inline constexpr const char* FileSignatures = TOLVA_PACKAGE_SIGNATURES_ARC ".3.1";

#undef TOLVA_PACKAGE_SIGNATURES_ARC

// The object for a dotted identifier; throws std::runtime_error when OpenSSL refuses it.
Asn1ObjectPtr object(const char* dotted);

} // namespace PackageSignatures::Oid
