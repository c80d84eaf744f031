#include "platform/package_signatures/package_layout.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

namespace PackageSignatures {

namespace {

constexpr std::size_t leadSize = 96;
constexpr unsigned char leadMagic[] = {0xed, 0xab, 0xee, 0xdb};
constexpr unsigned char headerMagic[] = {0x8e, 0xad, 0xe8, 0x01};
constexpr std::uint32_t binaryType = 7;
// The limits librpm itself puts on a header.
constexpr std::uint32_t maxIndexEntries = 0xffff;
constexpr std::uint32_t maxDataSize = 0x0fffffff;

std::uint32_t bigEndian32(const unsigned char* bytes) {
    return std::uint32_t(bytes[0]) << 24 | std::uint32_t(bytes[1]) << 16 |
           std::uint32_t(bytes[2]) << 8 | std::uint32_t(bytes[3]);
}

class Reader {
public:
    explicit Reader(const std::filesystem::path& path) : path(path), file(path, std::ios::binary) {
        if (!file)
            throw std::runtime_error("cannot open " + path.string() + ": " + std::strerror(errno));
    }
    void read(std::uint64_t offset, unsigned char* into, std::size_t size) {
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(reinterpret_cast<char*>(into), static_cast<std::streamsize>(size));
        if (!file)
            refuse("the file ends too early");
    }
    std::uint64_t size() {
        file.seekg(0, std::ios::end);
        return static_cast<std::uint64_t>(file.tellg());
    }
    [[noreturn]] void refuse(const std::string& why) const {
        throw std::runtime_error(path.string() + " is not an RPM package file: " + why);
    }

private:
    std::filesystem::path path;
    std::ifstream file;
};

struct HeaderIntro {
    std::uint32_t entries = 0;
    std::uint32_t dataSize = 0;
    std::uint64_t size() const { return 16 + 16ull * entries + dataSize; }
};

HeaderIntro readHeaderIntro(Reader& reader, std::uint64_t offset, const std::string& which) {
    std::array<unsigned char, 16> intro{};
    reader.read(offset, intro.data(), intro.size());
    if (std::memcmp(intro.data(), headerMagic, sizeof headerMagic) != 0)
        reader.refuse("no " + which + " header");
    const HeaderIntro result{bigEndian32(intro.data() + 8), bigEndian32(intro.data() + 12)};
    if (result.entries > maxIndexEntries || result.dataSize > maxDataSize)
        reader.refuse("the " + which + " header is too large");
    return result;
}

} // namespace

PackageLayout readPackageLayout(const std::filesystem::path& path) {
    Reader reader(path);
    PackageLayout layout;
    layout.fileSize = reader.size();
    std::array<unsigned char, sizeof leadMagic> magic{};
    if (layout.fileSize < leadSize || (reader.read(0, magic.data(), magic.size()),
                                       std::memcmp(magic.data(), leadMagic, sizeof leadMagic) != 0))
        reader.refuse("no RPM lead");

    layout.signatureHeaderOffset = leadSize;
    const HeaderIntro signature =
        readHeaderIntro(reader, layout.signatureHeaderOffset, "signature");
    const std::uint32_t entries = signature.entries;
    const std::uint32_t dataSize = signature.dataSize;
    layout.signatureHeaderSize = signature.size();
    const std::uint64_t indexOffset = layout.signatureHeaderOffset + 16;
    const std::uint64_t dataOffset = indexOffset + 16ull * entries;
    layout.contentOffset = layout.signatureHeaderOffset + layout.signatureHeaderSize +
                           (8 - layout.signatureHeaderSize % 8) % 8;
    layout.mainHeaderSize = readHeaderIntro(reader, layout.contentOffset, "main").size();
    layout.payloadOffset = layout.contentOffset + layout.mainHeaderSize;
    if (layout.payloadOffset > layout.fileSize)
        reader.refuse("the main header ends after the file");

    std::vector<unsigned char> index(16ull * entries);
    reader.read(indexOffset, index.data(), index.size());
    for (std::uint32_t i = 0; i < entries; ++i) {
        const unsigned char* entry = index.data() + 16ull * i;
        if (bigEndian32(entry) != SignatureTag)
            continue;
        const std::uint32_t type = bigEndian32(entry + 4);
        const std::uint32_t offset = bigEndian32(entry + 8);
        const std::uint32_t count = bigEndian32(entry + 12);
        if (layout.signatureTag)
            reader.refuse("the signature tag appears twice");
        if (type != binaryType || count == 0 || offset > dataSize || count > dataSize - offset)
            reader.refuse("the signature tag is not binary data inside the header");
        layout.signatureTag.emplace(count);
        reader.read(dataOffset + offset, layout.signatureTag->data(), count);
    }
    return layout;
}

} // namespace PackageSignatures
