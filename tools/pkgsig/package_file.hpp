#pragma once

// A package file as pkgsig sees it through librpm: its identity, its file list with the files
// that need per-file signatures, their content digests, and the rewrite that embeds signatures.

#include "platform/package_signatures/cms.hpp"
#include "platform/package_signatures/package_layout.hpp"

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct headerToken_s;

namespace Pkgsig {

struct PackageEntry {
    std::size_t index = 0; // in the header's file list
    std::string path;
    bool needsSignature = false;
};

class PackageFile {
public:
    // Reads the lead, signature header and main header (no keyring, no RPM database).
    // Throws std::runtime_error ("... is not an RPM package file: ...").
    explicit PackageFile(std::filesystem::path path);

    const std::filesystem::path& path() const { return filePath; }
    const PackageSignatures::PackageLayout& layout() const { return packageLayout; }
    // NAME-VERSION-RELEASE.ARCH, and the name alone.
    std::string nevra() const;
    std::string name() const;
    const std::vector<PackageEntry>& entries() const { return fileEntries; }

    // The SHA-256 of every payload file that needs a signature, by file index; the names of a
    // hard-link set share their content's digest. Throws std::runtime_error when the payload
    // cannot be read.
    std::map<std::size_t, PackageSignatures::Bytes> digestsOfFilesToSign() const;

    // Writes the package with `signatures` as its only embedded signatures to `output`
    // (which may be this file): a temporary file next to `output`, renamed over it once it is
    // complete and reads back. Throws std::runtime_error and leaves `output` untouched.
    void writeWithSignatures(const std::vector<PackageSignatures::Cms>& signatures,
                             const std::filesystem::path& output) const;

private:
    std::filesystem::path filePath;
    PackageSignatures::PackageLayout packageLayout;
    std::shared_ptr<headerToken_s> mainHeader;
    std::vector<PackageEntry> fileEntries;
};

} // namespace Pkgsig
