#pragma once

// One CMS signature of a package file: a detached SHA-256 SignedData with one signer, its
// signing time and, for a developer signature, the signatures of the payload files.

#include "platform/package_signatures/certificate.hpp"
#include "platform/package_signatures/openssl_owners.hpp"

#include <cstddef>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace PackageSignatures {

using Bytes = std::vector<unsigned char>;

// What a developer signature records for one payload file, by the file's index in the
// package's file list.
struct FileSignature {
    Bytes fileSignature;     // for the "security.ima" attribute
    Bytes trustletSignature; // for the "user.TA.shdr" attribute
    bool operator==(const FileSignature&) const = default;
};
using FileSignatures = std::map<std::size_t, FileSignature>;

class Cms {
public:
    // Reads one DER structure at `cursor` (at most `available` bytes) and moves the cursor
    // past it. Throws std::runtime_error saying what is wrong with it.
    static Cms readDer(const unsigned char*& cursor, std::size_t available);

    // The signer's certificate.
    const Certificate& certificate() const { return signer; }
    // The recorded signatures of the file at `index`; empty when there are none.
    Bytes fileSignature(std::size_t index) const;
    Bytes trustletSignature(std::size_t index) const;
    const FileSignatures& fileSignatures() const { return files; }
    std::optional<std::time_t> signingTime() const { return signedAt; }
    const Bytes& der() const { return encoded; }

    // Checks the signature over `content` (read from its current position to its end), the
    // signer's chain up to `trusted` at the signing time (at the present time when none is
    // recorded), and the signer's package signing usage. Sets the time of `trusted`.
    // Returns the reason of the failure, or nothing when the signature holds.
    std::optional<std::string> verificationError(X509_STORE* trusted, BIO* content) const;

private:
    Cms(Bytes encoded, Certificate signer) : encoded(std::move(encoded)), signer(signer) {}

    Bytes encoded;
    Certificate signer;
    std::optional<std::time_t> signedAt;
    FileSignatures files;
};

// The first signature whose signer carries the developer / client signing usage.
std::optional<Cms> developerCmsFromVector(const std::vector<Cms>& cmses);
std::optional<Cms> clientCmsFromVector(const std::vector<Cms>& cmses);

// The DER form of the per-file signatures attribute, and back. Decoding throws
// std::runtime_error on anything but a well-formed list with distinct indexes.
Bytes encodeFileSignatures(const FileSignatures& files);
FileSignatures decodeFileSignatures(const unsigned char* der, std::size_t size);

} // namespace PackageSignatures
