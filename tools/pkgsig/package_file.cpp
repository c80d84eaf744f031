#include "tools/pkgsig/package_file.hpp"

#include "platform/package_signatures/file_with_cmses.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <openssl/evp.h>
#include <rpm/header.h>
#include <rpm/rpmarchive.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmfiles.h>
#include <rpm/rpmio.h>
#include <rpm/rpmlib.h>
#include <rpm/rpmmacro.h>
#include <rpm/rpmtag.h>
#include <rpm/rpmtd.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace Pkgsig {

namespace fs = std::filesystem;
using PackageSignatures::Bytes;

namespace {

constexpr unsigned char headerMagic[] = {0x8e, 0xad, 0xe8, 0x01, 0, 0, 0, 0};
constexpr std::size_t chunkSize = 1 << 20;

// librpm's macros (for %_ima_sign_config_files) are read once; this reads no RPM database.
void loadRpmConfiguration() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (rpmReadConfigFiles(nullptr, nullptr) != 0)
            throw std::runtime_error("cannot read the RPM configuration");
    });
}

std::string readBytes(const fs::path& path, std::uint64_t offset, std::uint64_t size) {
    std::ifstream file(path, std::ios::binary);
    std::string bytes(size, '\0');
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(bytes.data(), static_cast<std::streamsize>(size));
    if (!file)
        throw std::runtime_error("cannot read " + path.string());
    return bytes;
}

std::uint32_t bigEndian32(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

void putBigEndian32(std::string& bytes, std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<char>(value >> (24 - 8 * i));
}

// Removes the signature tag's entry from a header blob (entry count, data size, index, data),
// and its data when that ends the store, as it does when pkgsig wrote it. librpm cannot do it:
// after headerDel or headerMod on such an imported header, headerExport fails.
void dropSignatureEntry(std::string& blob) {
    std::uint32_t entries = bigEndian32(blob, 0);
    std::uint32_t dataSize = bigEndian32(blob, 4);
    for (std::uint32_t i = 0; i < entries; ++i) {
        const std::size_t entry = 8 + 16 * std::size_t(i);
        if (bigEndian32(blob, entry) != PackageSignatures::SignatureTag)
            continue;
        const std::uint32_t offset = bigEndian32(blob, entry + 8);
        const std::uint32_t count = bigEndian32(blob, entry + 12);
        blob.erase(entry, 16);
        --entries;
        if (std::uint64_t(offset) + count == dataSize) {
            dataSize = offset;
            blob.resize(8 + 16 * std::size_t(entries) + dataSize);
        }
        break;
    }
    putBigEndian32(blob, 0, entries);
    putBigEndian32(blob, 4, dataSize);
}

// A header of the file, from its bytes (the 8 magic bytes are not part of librpm's blob),
// after `edit` of the blob.
std::shared_ptr<headerToken_s> importHeader(const fs::path& path, std::uint64_t offset,
                                            std::uint64_t size, const char* which,
                                            void (*edit)(std::string&) = nullptr) {
    std::string blob = readBytes(path, offset + 8, size - 8);
    if (edit)
        edit(blob);
    Header header =
        headerImport(blob.data(), static_cast<unsigned int>(blob.size()), HEADERIMPORT_COPY);
    if (!header)
        throw std::runtime_error(
            path.string() + " is not an RPM package file: librpm refuses its " + which + " header");
    return std::shared_ptr<headerToken_s>(header, headerFree);
}

std::shared_ptr<_FD_s> openRpmFile(const fs::path& path) {
    FD_t fd = Fopen(path.c_str(), "r.ufdio");
    if (!fd || Ferror(fd)) {
        const std::string reason = fd ? Fstrerror(fd) : std::strerror(errno);
        if (fd)
            Fclose(fd);
        throw std::runtime_error("cannot open " + path.string() + ": " + reason);
    }
    return std::shared_ptr<_FD_s>(fd, Fclose);
}

class Sha256 {
public:
    Sha256() : context(EVP_MD_CTX_new()) {
        if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
            throw std::runtime_error("cannot start a SHA-256 digest");
    }
    void update(const void* data, std::size_t size) { EVP_DigestUpdate(context.get(), data, size); }
    Bytes finish() {
        Bytes digest(EVP_MAX_MD_SIZE);
        unsigned int size = 0;
        EVP_DigestFinal_ex(context.get(), digest.data(), &size);
        digest.resize(size);
        return digest;
    }

private:
    PackageSignatures::EvpMdCtxPtr context;
};

class TemporaryFile {
public:
    explicit TemporaryFile(const fs::path& target) {
        // Appended piece by piece: GCC 12's -Wrestrict misreads "." + std::string in
        // optimised builds.
        std::string name = ".";
        name += target.filename().string();
        name += ".pkgsig-XXXXXX";
        std::string pattern = (target.parent_path() / name).string();
        fd = ::mkstemp(pattern.data());
        if (fd < 0)
            throw std::runtime_error("cannot create a temporary file next to " + target.string() +
                                     ": " + std::strerror(errno));
        path = pattern;
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (fd >= 0)
            ::close(fd);
        if (!path.empty())
            ::unlink(path.c_str());
    }

    void write(const void* data, std::size_t size) {
        const char* bytes = static_cast<const char*>(data);
        while (size > 0) {
            const ssize_t n = ::write(fd, bytes, size);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                fail("cannot write");
            bytes += n;
            size -= static_cast<std::size_t>(n);
        }
    }
    // Flushes and closes the file, with the permissions `mode`.
    void finish(mode_t mode) {
        if (::fchmod(fd, mode) != 0 || ::fsync(fd) != 0)
            fail("cannot complete");
        const int closing = fd;
        fd = -1;
        if (::close(closing) != 0)
            fail("cannot complete");
    }
    // Moves the file to `target`; afterwards there is nothing left to remove.
    void renameTo(const fs::path& target) {
        if (::rename(path.c_str(), target.c_str()) != 0)
            fail("cannot rename to " + target.string() + ":");
        path.clear();
    }
    const std::string& name() const { return path; }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error(what + " " + path + ": " + std::strerror(errno));
    }

    int fd = -1;
    std::string path;
};

void copyRange(const fs::path& from, std::uint64_t offset, TemporaryFile& to) {
    std::ifstream file(from, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::vector<char> chunk(chunkSize);
    while (file) {
        file.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        to.write(chunk.data(), static_cast<std::size_t>(file.gcount()));
    }
    if (!file.eof())
        throw std::runtime_error("cannot read " + from.string());
}

} // namespace

PackageFile::PackageFile(fs::path path)
    : filePath(std::move(path)), packageLayout(PackageSignatures::readPackageLayout(filePath)) {
    loadRpmConfiguration();
    mainHeader =
        importHeader(filePath, packageLayout.contentOffset, packageLayout.mainHeaderSize, "main");
    const bool signConfigFiles = rpmExpandNumeric("%{?_ima_sign_config_files}") != 0;
    std::shared_ptr<rpmfiles_s> files(
        rpmfilesNew(nullptr, mainHeader.get(), RPMTAG_BASENAMES, RPMFI_KEEPHEADER), rpmfilesFree);
    const int count = files ? static_cast<int>(rpmfilesFC(files.get())) : 0;
    for (int i = 0; i < count; ++i) {
        const rpm_mode_t mode = rpmfilesFMode(files.get(), i);
        const rpmfileAttrs flags = rpmfilesFFlags(files.get(), i);
        std::unique_ptr<char, decltype(&std::free)> name(rpmfilesFN(files.get(), i), std::free);
        // %ghost files have no content in the payload, so there is nothing to sign.
        const bool needsSignature = S_ISREG(mode) && !(flags & RPMFILE_GHOST) &&
                                    (!(flags & RPMFILE_CONFIG) || (mode & 0111) || signConfigFiles);
        fileEntries.push_back(
            {static_cast<std::size_t>(i), name ? name.get() : "", needsSignature});
    }
}

std::string PackageFile::name() const {
    const char* value = headerGetString(mainHeader.get(), RPMTAG_NAME);
    return value ? value : "";
}

std::string PackageFile::nevra() const {
    std::unique_ptr<char, decltype(&std::free)> value(
        headerGetAsString(mainHeader.get(), RPMTAG_NEVRA), std::free);
    return value ? value.get() : "";
}

std::map<std::size_t, Bytes> PackageFile::digestsOfFilesToSign() const {
    std::map<std::size_t, Bytes> digests;
    const bool anyToSign = std::any_of(fileEntries.begin(), fileEntries.end(),
                                       [](const auto& entry) { return entry.needsSignature; });
    if (!anyToSign)
        return digests;

    const auto raw = openRpmFile(filePath);
    if (Fseek(raw.get(), static_cast<off_t>(packageLayout.payloadOffset), SEEK_SET) < 0)
        throw std::runtime_error("cannot reach the payload of " + filePath.string());
    const char* compressor = headerGetString(mainHeader.get(), RPMTAG_PAYLOADCOMPRESSOR);
    const std::string mode = std::string("r.") + (compressor ? compressor : "gzip");
    FD_t payload = Fdopen(raw.get(), mode.c_str());
    if (!payload || Ferror(payload))
        throw std::runtime_error("cannot decompress the payload of " + filePath.string());
    std::shared_ptr<rpmfiles_s> files(
        rpmfilesNew(nullptr, mainHeader.get(), RPMTAG_BASENAMES, RPMFI_KEEPHEADER), rpmfilesFree);
    std::shared_ptr<rpmfi_s> archive(
        rpmfiNewArchiveReader(payload, files.get(), RPMFI_ITER_READ_ARCHIVE_CONTENT_FIRST),
        rpmfiFree);
    if (!archive)
        throw std::runtime_error("cannot read the payload of " + filePath.string());

    std::vector<char> chunk(chunkSize);
    int status = 0;
    while ((status = rpmfiNext(archive.get())) >= 0) {
        if (!rpmfiArchiveHasContent(archive.get()))
            continue;
        // librpm gives the member list only for a real hard-link set.
        const int* links = nullptr;
        const std::uint32_t linkCount = rpmfiFLinks(archive.get(), &links);
        std::vector<std::size_t> members;
        for (std::uint32_t i = 0; links && i < linkCount; ++i)
            members.push_back(static_cast<std::size_t>(links[i]));
        if (members.empty())
            members.push_back(static_cast<std::size_t>(rpmfiFX(archive.get())));
        if (std::none_of(members.begin(), members.end(),
                         [&](std::size_t index) { return fileEntries[index].needsSignature; }))
            continue;
        Sha256 digest;
        ssize_t n = 0;
        while ((n = rpmfiArchiveRead(archive.get(), chunk.data(), chunk.size())) > 0)
            digest.update(chunk.data(), static_cast<std::size_t>(n));
        if (n < 0)
            throw std::runtime_error("cannot read " + fileEntries[members.front()].path +
                                     " from the payload of " + filePath.string());
        const Bytes value = digest.finish();
        for (std::size_t index : members)
            if (fileEntries[index].needsSignature)
                digests[index] = value;
    }
    if (status != RPMERR_ITER_END) {
        std::unique_ptr<char, decltype(&std::free)> reason(rpmfileStrerror(status), std::free);
        throw std::runtime_error("the payload of " + filePath.string() + " is damaged (" +
                                 (reason ? reason.get() : "unknown error") + ")");
    }
    return digests;
}

void PackageFile::writeWithSignatures(const std::vector<PackageSignatures::Cms>& signatures,
                                      const fs::path& output) const {
    Bytes tag;
    for (const auto& cms : signatures)
        tag.insert(tag.end(), cms.der().begin(), cms.der().end());
    const auto signatureHeader =
        importHeader(filePath, packageLayout.signatureHeaderOffset,
                     packageLayout.signatureHeaderSize, "signature", dropSignatureEntry);
    // headerPutBin accepts only tags that librpm knows; headerPut takes any tag.
    struct rpmtd_s data {};
    rpmtdReset(&data);
    data.tag = PackageSignatures::SignatureTag;
    data.type = RPM_BIN_TYPE;
    data.data = tag.data();
    data.count = static_cast<rpm_count_t>(tag.size());
    if (!headerPut(signatureHeader.get(), &data, HEADERPUT_DEFAULT))
        throw std::runtime_error("librpm cannot add the signatures to the signature header");
    unsigned int blobSize = 0;
    std::unique_ptr<void, decltype(&std::free)> blob(headerExport(signatureHeader.get(), &blobSize),
                                                     std::free);
    if (!blob)
        throw std::runtime_error("librpm cannot write the signature header");

    struct stat original {};
    if (::stat(filePath.c_str(), &original) != 0)
        throw std::runtime_error("cannot read " + filePath.string() + ": " + std::strerror(errno));
    TemporaryFile temporary(output);
    const std::string lead = readBytes(filePath, 0, packageLayout.signatureHeaderOffset);
    temporary.write(lead.data(), lead.size());
    temporary.write(headerMagic, sizeof headerMagic);
    temporary.write(blob.get(), blobSize);
    const std::size_t headerSize = sizeof headerMagic + blobSize;
    const char padding[8] = {};
    temporary.write(padding, (8 - headerSize % 8) % 8);
    copyRange(filePath, packageLayout.contentOffset, temporary);
    temporary.finish(original.st_mode & 07777);

    // What goes into place must read back as the package with these signatures.
    const auto written = PackageSignatures::FileWithCmses::read(temporary.name());
    const auto writtenLayout = PackageSignatures::readPackageLayout(temporary.name());
    if (written.cmses().size() != signatures.size() ||
        writtenLayout.fileSize - writtenLayout.contentOffset !=
            packageLayout.fileSize - packageLayout.contentOffset)
        throw std::runtime_error("the signed package does not read back as written");
    temporary.renameTo(output);
}

} // namespace Pkgsig
