#pragma once

// The CMS signatures embedded in a package file, and their verification against a CA file.

#include "platform/package_signatures/cms.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace PackageSignatures {

class FileWithCmses {
public:
    // The signatures of the package file at `path`; null when the file cannot be read, is no
    // RPM package, carries no signature tag, or the tag does not hold well-formed signatures.
    static std::unique_ptr<FileWithCmses> fromPath(const std::string& path);
    // The same, but a failure throws std::runtime_error saying what is wrong.
    static FileWithCmses read(const std::string& path);

    // True only when every signature holds over the file's signed content and chains to a
    // certificate of `caFile` (PEM, one or more certificates).
    bool verifyCmses(const std::string& caFile) const;
    // Why verifyCmses fails (the first failing signature), or nothing when it succeeds.
    std::optional<std::string> verificationError(const std::string& caFile) const;

    // The signatures in the order they are stored.
    const std::vector<Cms>& cmses() const { return signatures; }
    // Where the signed content starts; it runs to the end of the file.
    std::uint64_t contentOffset() const { return signedFrom; }

private:
    FileWithCmses(std::filesystem::path path, std::uint64_t signedFrom, std::vector<Cms> cmses)
        : path(std::move(path)), signedFrom(signedFrom), signatures(std::move(cmses)) {}

    std::filesystem::path path;
    std::uint64_t signedFrom;
    std::vector<Cms> signatures;
};

// Parses the contents of the signature tag: DER CMS structures one after another, at least one.
// Throws std::runtime_error.
std::vector<Cms> cmsesFromSignatureTag(const std::vector<unsigned char>& tag);

// The signed content of the package file at `path`: from `offset` to the end of the file,
// read through a large buffer. Throws std::runtime_error.
BioPtr openSignedContent(const std::filesystem::path& path, std::uint64_t offset);

// A store that trusts the certificates of the PEM file `caFile`, for any purpose (the package
// signing usages are checked by the signatures themselves). Throws std::runtime_error.
X509StorePtr loadTrustedCertificates(const std::string& caFile);

} // namespace PackageSignatures
