#pragma once

// Where the parts of an RPM package file sit: the lead, the signature header with our
// signature tag, and the signed content (main header and payload, to the end of the file).

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace PackageSignatures {

// The binary signature-header tag that holds the package's CMS structures, one after another.
inline constexpr std::uint32_t SignatureTag = 30101;

// Offsets are from the start of the file; header sizes count their 16-byte introduction
// (magic, reserved bytes, entry count, data size).
struct PackageLayout {
    std::uint64_t signatureHeaderOffset = 0; // just after the lead
    std::uint64_t signatureHeaderSize = 0;
    std::uint64_t contentOffset = 0; // the main header, after the signature padding
    std::uint64_t mainHeaderSize = 0;
    std::uint64_t payloadOffset = 0; // just after the main header
    std::uint64_t fileSize = 0;
    std::optional<std::vector<unsigned char>> signatureTag; // the tag's bytes, when present
};

// Reads the lead and the signature header of the package file at `path`. Throws
// std::runtime_error ("... is not an RPM package file: ...") on anything malformed.
PackageLayout readPackageLayout(const std::filesystem::path& path);

} // namespace PackageSignatures
