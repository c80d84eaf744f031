#pragma once

// Making package signatures: a signer's key and certificate, the CMS signature over a
// package's content, and the per-file signatures a developer signature records.

#include "platform/package_signatures/cms.hpp"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace PackageSignatures {

struct SigningIdentity {
    Certificate certificate;
    EvpPkeyPtr key;
    std::vector<Certificate> chain; // further certificates to embed (intermediate CAs)

    // Reads an unencrypted PEM private key and a PEM certificate file (the signer's
    // certificate first, then any intermediates), and checks that they belong together.
    // Throws std::runtime_error saying which file is wrong.
    static SigningIdentity fromPemFiles(const std::string& keyFile,
                                        const std::string& certificateFile);
};

// A detached SHA-256 CMS signature over `content` (read from its current position to its
// end) with the signing time `signedAt` (now when not given) and, when not empty, the
// per-file signatures attribute. Throws std::runtime_error.
Cms signContent(const SigningIdentity& signer, BIO* content, const FileSignatures& files,
                std::optional<std::time_t> signedAt);

// The file signature in the IMA signature format v2 (type 3, version 2, hash algorithm 4 =
// SHA-256, the last 4 bytes of the signer's key id, a big-endian 2-byte length, then the
// signature of `sha256`).
Bytes imaFileSignature(const SigningIdentity& signer, const Bytes& sha256);

// The DER signature of `sha256` with the signer's key.
Bytes trustletSignature(const SigningIdentity& signer, const Bytes& sha256);

// Whether a file signature (IMA format v2, as made above) or a trustlet signature of
// `sha256` was made with the key of `signer`.
bool imaFileSignatureHolds(const Certificate& signer, const Bytes& signature, const Bytes& sha256);
bool trustletSignatureHolds(const Certificate& signer, const Bytes& signature, const Bytes& sha256);

} // namespace PackageSignatures
