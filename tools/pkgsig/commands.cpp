#include "tools/pkgsig/commands.hpp"

#include "platform/package_signatures/database.hpp"
#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/signing.hpp"
#include "tools/pkgsig/package_file.hpp"

#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace Pkgsig {

namespace PS = PackageSignatures;

namespace {

std::string utcText(std::time_t time) {
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    std::ostringstream text;
    text << std::put_time(&parts, "%Y-%m-%dT%H:%M:%SZ");
    return text.str();
}

std::string role(const PS::Certificate& certificate) {
    if (certificate.hasDeveloperUsage() && certificate.hasClientUsage())
        return "developer and client";
    if (certificate.hasDeveloperUsage())
        return "developer";
    if (certificate.hasClientUsage())
        return "client";
    return "no package signing usage";
}

PS::SigningIdentity loadSigner(const std::string& key, const std::string& certificate,
                               bool developer, std::time_t signingTime) {
    auto identity = PS::SigningIdentity::fromPemFiles(key, certificate);
    const bool usable = developer ? identity.certificate.hasDeveloperUsage()
                                  : identity.certificate.hasClientUsage();
    if (!usable)
        throw std::runtime_error(certificate + " is not a " + (developer ? "developer" : "client") +
                                 " signing certificate");
    X509* x509 = identity.certificate.get();
    if (X509_cmp_time(X509_get0_notBefore(x509), &signingTime) > 0 ||
        X509_cmp_time(X509_get0_notAfter(x509), &signingTime) < 0)
        throw std::runtime_error(certificate + " is not valid at the signing time " +
                                 utcText(signingTime));
    return identity;
}

PS::BioPtr openContent(const PackageFile& package) {
    return PS::openSignedContent(package.path(), package.layout().contentOffset);
}

// The file signatures of the developer signature must match the payload.
std::size_t checkFileSignatures(const PackageFile& package, const PS::Cms& developer) {
    const auto digests = package.digestsOfFilesToSign();
    for (const auto& [index, digest] : digests) {
        const std::string& path = package.entries()[index].path;
        if (!PS::imaFileSignatureHolds(developer.certificate(), developer.fileSignature(index),
                                       digest))
            throw std::runtime_error("the file signature of " + path + " does not hold");
        if (!PS::trustletSignatureHolds(developer.certificate(), developer.trustletSignature(index),
                                        digest))
            throw std::runtime_error("the trustlet signature of " + path + " does not hold");
    }
    return digests.size();
}

// Reads and verifies the package's signatures; returns them.
PS::FileWithCmses verifiedSignatures(const std::string& package, const std::string& ca) {
    auto signatures = PS::FileWithCmses::read(package);
    if (const auto error = signatures.verificationError(ca))
        throw std::runtime_error(package + ": " + *error);
    return signatures;
}

void showCertificate(const PS::Certificate& certificate, std::ostream& out) {
    out << "  key id: " << certificate.keyId() << "\n"
        << "  subject: " << certificate.subject() << "\n"
        << "  subgroup: " << PS::subgroupToString(certificate.subgroup()) << "\n"
        << "  system developer: " << (certificate.isSystemDeveloperCertificate() ? "yes" : "no")
        << "\n";
}

} // namespace

void sign(const SignOptions& options, std::ostream& out) {
    if (options.clientKey.empty() != options.clientCertificate.empty())
        throw std::runtime_error("a client signature needs both --client-key and --client-cert");
    const std::time_t signingTime = options.signingTime.value_or(std::time(nullptr));
    const auto developer =
        loadSigner(options.developerKey, options.developerCertificate, true, signingTime);
    std::optional<PS::SigningIdentity> client;
    if (!options.clientKey.empty())
        client = loadSigner(options.clientKey, options.clientCertificate, false, signingTime);

    const PackageFile package(options.package);
    PS::FileSignatures files;
    for (const auto& [index, digest] : package.digestsOfFilesToSign())
        files[index] = {PS::imaFileSignature(developer, digest),
                        PS::trustletSignature(developer, digest)};
    std::vector<PS::Cms> cmses{
        PS::signContent(developer, openContent(package).get(), files, signingTime)};
    if (client)
        cmses.push_back(PS::signContent(*client, openContent(package).get(), {}, signingTime));

    if (!options.ca.empty()) {
        const auto trusted = PS::loadTrustedCertificates(options.ca);
        for (const auto& cms : cmses)
            if (const auto error = cms.verificationError(trusted.get(), openContent(package).get()))
                throw std::runtime_error("the new signature does not verify against " + options.ca +
                                         ": " + *error);
    }
    const std::string output = options.output.empty() ? options.package : options.output;
    package.writeWithSignatures(cmses, output);
    out << "signed " << output << " (" << package.nevra() << "): developer "
        << developer.certificate.subject();
    if (client)
        out << ", client " << client->certificate.subject();
    out << ", " << files.size() << " file signatures\n";
}

void show(const std::string& package, std::ostream& out) {
    const PackageFile file(package);
    const auto signatures = PS::FileWithCmses::read(package);
    out << "package: " << file.nevra() << "\n"
        << "signatures: " << signatures.cmses().size() << "\n";
    int number = 0;
    for (const auto& cms : signatures.cmses()) {
        out << "signature " << ++number << ": " << role(cms.certificate()) << "\n";
        showCertificate(cms.certificate(), out);
        if (cms.signingTime())
            out << "  signing time: " << utcText(*cms.signingTime()) << "\n";
        out << "  file signatures: " << cms.fileSignatures().size() << "\n";
        for (const auto& [index, signature] : cms.fileSignatures())
            out << "    " << index << " "
                << (index < file.entries().size() ? file.entries()[index].path : "(no such file)")
                << "\n";
    }
}

void verify(const std::string& package, const std::string& ca, std::ostream& out) {
    const auto signatures = verifiedSignatures(package, ca);
    const auto developer = PS::developerCmsFromVector(signatures.cmses());
    if (!developer)
        throw std::runtime_error(package + " has no developer signature");
    const PackageFile file(package);
    const std::size_t checked = checkFileSignatures(file, *developer);
    out << package << ": signatures verified (developer " << developer->certificate().subject();
    if (const auto client = PS::clientCmsFromVector(signatures.cmses()))
        out << ", client " << client->certificate().subject();
    out << "; " << checked << " file signatures)\n";
}

void importCertificates(const std::string& package, const std::string& ca,
                        const std::string& database, std::ostream& out) {
    const auto signatures = verifiedSignatures(package, ca);
    const auto developer = PS::developerCmsFromVector(signatures.cmses());
    if (!developer)
        throw std::runtime_error(package + " has no developer signature");
    const auto client = PS::clientCmsFromVector(signatures.cmses());
    const std::string name = PackageFile(package).name();
    if (!PS::Database::isValidPackageName(name))
        throw std::runtime_error(package + " has a name the signature database cannot hold: \"" +
                                 name + "\"");
    const PS::Database signatureDatabase(database);
    signatureDatabase.setPackageCertificate(name, PS::DeveloperGroup, developer->certificate());
    if (client)
        signatureDatabase.setPackageCertificate(name, PS::ClientGroup, client->certificate());
    else
        signatureDatabase.removePackageCertificate(name, PS::ClientGroup);
    out << "imported " << name << " into " << database << ": developer "
        << developer->certificate().keyId();
    if (client)
        out << ", client " << client->certificate().keyId();
    out << "\n";
}

void list(const std::string& database, std::ostream& out) {
    const PS::Database signatureDatabase(database);
    for (const auto& name : signatureDatabase.packages())
        for (const auto& [group, label] :
             {std::pair{PS::DeveloperGroup, "developer"}, std::pair{PS::ClientGroup, "client"}})
            if (const auto certificate = signatureDatabase.packageCertificateWithGroup(name, group))
                out << name << " " << label << " " << certificate->keyId() << " "
                    << PS::subgroupToString(certificate->subgroup()) << " "
                    << certificate->subject() << "\n";
}

} // namespace Pkgsig
