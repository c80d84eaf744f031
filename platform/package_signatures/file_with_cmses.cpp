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
        BioPtr content(BIO_new_file(path.c_str(), "rb"));
        if (!content || BIO_seek(content.get(), static_cast<long>(signedFrom)) != 0) {
            const std::string details = takeOpenSslErrors();
            return "cannot read the signed content of " + path.string() + ": " + details;
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
