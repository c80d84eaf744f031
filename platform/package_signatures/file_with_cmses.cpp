#include "platform/package_signatures/file_with_cmses.hpp"

#include "platform/package_signatures/package_layout.hpp"

#include <openssl/err.h>
#include <stdexcept>

namespace PackageSignatures {

std::vector<Cms> cmsesFromSignatureTag(const std::vector<unsigned char>& tag) {
    std::vector<Cms> cmses;
    const unsigned char* cursor = tag.data();
    const unsigned char* end = tag.data() + tag.size();
    while (cursor < end)
        cmses.push_back(Cms::readDer(cursor, static_cast<std::size_t>(end - cursor)));
    if (cmses.empty())
        throw std::runtime_error("the signature tag holds no signature");
    return cmses;
}

X509StorePtr loadTrustedCertificates(const std::string& caFile) {
    X509StorePtr store(X509_STORE_new());
    if (!store || !X509_STORE_load_file(store.get(), caFile.c_str()) ||
        !X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY))
        throw std::runtime_error("cannot load the CA certificates of " + caFile + ": " +
                                 takeOpenSslErrors());
    return store;
}

BioPtr openSignedContent(const std::filesystem::path& path, std::uint64_t offset) {
    BioPtr file(BIO_new_file(path.c_str(), "rb"));
    if (!file || BIO_seek(file.get(), static_cast<long>(offset)) != 0)
        throw std::runtime_error("cannot read the signed content of " + path.string() + ": " +
                                 takeOpenSslErrors());
    // CMS reads in small pieces; a large buffer saves a third of the time on big packages.
    BioPtr buffered(BIO_new(BIO_f_buffer()));
    if (!buffered || BIO_set_read_buffer_size(buffered.get(), 1 << 20) != 1)
        throw std::runtime_error("cannot buffer " + path.string() + ": " + takeOpenSslErrors());
    BIO_push(buffered.get(), file.release());
    return buffered;
}

FileWithCmses FileWithCmses::read(const std::string& path) {
    const PackageLayout layout = readPackageLayout(path);
    if (!layout.signatureTag)
        throw std::runtime_error(path + " carries no package signatures");
    try {
        return FileWithCmses(path, layout.contentOffset,
                             cmsesFromSignatureTag(*layout.signatureTag));
    } catch (const std::runtime_error& error) {
        throw std::runtime_error("the package signatures of " + path +
                                 " are malformed: " + error.what());
    }
}

std::unique_ptr<FileWithCmses> FileWithCmses::fromPath(const std::string& path) {
    try {
        return std::make_unique<FileWithCmses>(read(path));
    } catch (const std::runtime_error&) {
        return nullptr;
    }
}

std::optional<std::string> FileWithCmses::verificationError(const std::string& caFile) const {
    X509StorePtr trusted;
    try {
        trusted = loadTrustedCertificates(caFile);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    for (const auto& cms : signatures) {
        BioPtr content;
        try {
            content = openSignedContent(path, signedFrom);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        if (auto error = cms.verificationError(trusted.get(), content.get()))
            return error;
    }
    return std::nullopt;
}

bool FileWithCmses::verifyCmses(const std::string& caFile) const {
    return !verificationError(caFile);
}

} // namespace PackageSignatures
