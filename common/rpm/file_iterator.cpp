#include "common/rpm/file_iterator.hpp"

#include "common/error.hpp"
#include "common/log.hpp"

#include <algorithm>
#include <fstream>
#include <rpm/rpmarchive.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmmacro.h>
#include <sys/stat.h>
#include <utility>

namespace Common::Rpm {

namespace {

constexpr std::size_t chunkSize = 131072;
constexpr rpm_mode_t permissionBits = 0777;
constexpr rpm_mode_t executeBits = 0111;

// Configuration files are signed only when executable or when the configuration asks for it.
bool needsSignature(rpmfi fi) {
    if (!(rpmfiFFlags(fi) & RPMFILE_CONFIG))
        return true;
    if (rpmfiFMode(fi) & executeBits)
        return true;
    return rpmExpandNumeric("%{?_ima_sign_config_files}") != 0;
}

std::filesystem::path linkText(rpmfi fi) {
    const char* link = rpmfiFLink(fi);
    return link ? link : "";
}

// In a walk of the header's file list librpm says "has content" for no name of a hard-link
// set, so the name that carries the data (the set's last in file-list order) is found here.
bool carriesContentInFileList(rpmfi fi) {
    const int* members = nullptr;
    const std::uint32_t count = rpmfiFLinks(fi, &members);
    if (count <= 1 || !members)
        return true;
    return rpmfiFX(fi) == *std::max_element(members, members + count);
}

void warnUnexpectedType() {
    logWarning("unexpected entry type in rpm package");
}

// Every constructor of the layer reads the RPM configuration before it builds anything.
Reader configuredReader(const std::string& path) {
    ensureRpmConfiguration();
    return Reader(path);
}

const Reader& configuredReader(const Reader& reader) {
    ensureRpmConfiguration();
    return reader;
}

FilesHandle filesOf(const Reader& reader) {
    return ownFiles(rpmfilesNew(nullptr, reader.header().get(), 0, RPMFI_KEEPHEADER));
}

FileIteratorHandle walkFileList(const FilesHandle& files) {
    return ownFileIterator(rpmfilesIter(files.get(), RPMFI_ITER_FWD));
}

FileIteratorHandle openArchive(const Reader& reader, const FilesHandle& files) {
    const std::string mode = "r." + reader.stringTagOr(RPMTAG_PAYLOADCOMPRESSOR, "gzip");
    // The stream is the reader's descriptor with a decompressing layer: closed with it.
    FD_t stream = Fdopen(reader.fd().get(), mode.c_str());
    if (!stream)
        throw Error(ErrorCode::BadPackage, "couldn't open rpm package for extraction");
    return ownFileIterator(
        rpmfiNewArchiveReader(stream, files.get(), RPMFI_ITER_READ_ARCHIVE_CONTENT_FIRST));
}

// Reads the next piece of the current file's data into `buffer`; returns its length.
std::size_t readChunk(rpmfi archive, std::vector<char>& buffer, rpm_loff_t remaining) {
    const auto wanted = static_cast<std::size_t>(std::min<rpm_loff_t>(remaining, chunkSize));
    const ssize_t got = rpmfiArchiveRead(archive, buffer.data(), wanted);
    if (got < 1)
        throw Error(ErrorCode::Internal, "couldn't read content from rpm package");
    return static_cast<std::size_t>(got);
}

} // namespace

RpmFileContent::RpmFileContent(FileIteratorHandle archive) : archive(std::move(archive)) {
    ensureRpmConfiguration();
}

std::vector<char> RpmFileContent::read() const {
    std::vector<char> buffer(chunkSize);
    rpm_loff_t remaining = rpmfiFSize(archive.get());
    std::vector<char> data;
    if (remaining == 0)
        return data;
    data.reserve(remaining);
    while (remaining > 0) {
        const std::size_t got = readChunk(archive.get(), buffer, remaining);
        data.insert(data.end(), buffer.begin(), buffer.begin() + got);
        remaining -= got;
    }
    return data;
}

void RpmFileContent::writeTo(const std::filesystem::path& destination) const {
    std::ofstream out(destination, std::ios::binary | std::ios::trunc);
    if (!out)
        throw Error(ErrorCode::Filesystem,
                    "couldn't open file for writing rpm content: " + destination.string());
    const auto writeFailure = [&] {
        return Error(ErrorCode::Filesystem,
                     "couldn't write rpm package content to " + destination.string());
    };
    std::vector<char> buffer(chunkSize);
    rpm_loff_t remaining = rpmfiFSize(archive.get());
    while (remaining > 0) {
        const std::size_t got = readChunk(archive.get(), buffer, remaining);
        if (!out.write(buffer.data(), static_cast<std::streamsize>(got)))
            throw writeFailure();
        remaining -= got;
    }
    out.close();
    if (!out)
        throw writeFailure();
}

FileIterator::FileIterator(const std::string& path)
    : reader(configuredReader(path)), files(filesOf(reader)), iterator(walkFileList(files)) {}

FileIterator::FileIterator(const Reader& reader)
    : reader(configuredReader(reader)), files(filesOf(reader)), iterator(walkFileList(files)) {}

void FileIterator::forEach(const std::function<IterationResult(const Entry&)>& callback) {
    rpmfi fi = iterator.get();
    while (rpmfiNext(fi) >= 0) {
        Entry entry;
        entry.path = rpmfiFN(fi);
        entry.needsSignature = needsSignature(fi);
        const rpm_mode_t mode = rpmfiFMode(fi);
        if (S_ISDIR(mode)) {
            entry.type = EntryType::Directory;
            entry.permissions = mode & permissionBits;
        } else if (S_ISLNK(mode)) {
            entry.type = EntryType::Symlink;
            entry.target = linkText(fi);
        } else if (S_ISREG(mode) && carriesContentInFileList(fi)) {
            entry.type = EntryType::RegularFile;
            entry.permissions = mode & permissionBits;
        } else if (S_ISREG(mode)) {
            entry.type = EntryType::Hardlink;
            entry.target = linkText(fi);
        } else {
            warnUnexpectedType();
            continue;
        }
        if (callback(entry) != IterationResult::Continue)
            return;
    }
}

ExtractFileIterator::ExtractFileIterator(const std::string& path)
    : reader(configuredReader(path)), files(filesOf(reader)), iterator(openArchive(reader, files)) {
}

void ExtractFileIterator::forEach(const std::function<IterationResult(const Entry&)>& callback) {
    rpmfi fi = iterator.get();
    while (rpmfiNext(fi) >= 0) {
        Entry entry;
        entry.path = rpmfiFN(fi);
        const rpm_mode_t mode = rpmfiFMode(fi);
        entry.permissions = mode & permissionBits;
        entry.needsSignature = needsSignature(fi);
        entry.index = static_cast<std::uint32_t>(rpmfiFX(fi));
        IterationResult result = IterationResult::Continue;
        if (S_ISDIR(mode)) {
            entry.type = EntryType::Directory;
            result = callback(entry);
        } else if (S_ISLNK(mode)) {
            entry.type = EntryType::Symlink;
            entry.target = linkText(fi);
            result = callback(entry);
        } else if (S_ISREG(mode)) {
            // Further names of a set were reported with its data-carrying name.
            if (!rpmfiArchiveHasContent(fi))
                continue;
            entry.type = EntryType::RegularFile;
            entry.content.emplace(iterator);
            result = callback(entry);
            result = reportFurtherNames(entry, callback, result);
        } else {
            warnUnexpectedType();
            continue;
        }
        if (result != IterationResult::Continue)
            return;
    }
}

// The further names of the hard-link set of the data-carrying `file`, each reported as a
// Hardlink to it; they are reported even when the file's own callback asked to stop, and the
// last answer is the one that counts.
IterationResult ExtractFileIterator::reportFurtherNames(
    const Entry& file, const std::function<IterationResult(const Entry&)>& callback,
    IterationResult result) {
    rpmfi fi = iterator.get();
    const int* members = nullptr;
    const std::uint32_t count = rpmfiFLinks(fi, &members);
    if (count <= 1 || !members)
        return result;
    const int own = rpmfiFX(fi);
    std::vector<std::pair<std::filesystem::path, int>> names;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (members[i] == own)
            continue;
        rpmfiSetFX(fi, members[i]);
        names.emplace_back(rpmfiFN(fi), members[i]);
    }
    rpmfiSetFX(fi, own);
    for (auto& [name, index] : names) {
        Entry link;
        link.type = EntryType::Hardlink;
        link.path = std::move(name);
        link.target = file.path;
        link.permissions = file.permissions;
        link.index = static_cast<std::uint32_t>(index);
        result = callback(link);
    }
    return result;
}

} // namespace Common::Rpm
