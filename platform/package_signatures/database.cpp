#include "platform/package_signatures/database.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace PackageSignatures {

namespace fs = std::filesystem;

namespace {

bool isKnownGroup(int group) {
    return group == DeveloperGroup || group == ClientGroup;
}

[[noreturn]] void failWithErrno(const std::string& what, int error) {
    throw std::runtime_error(what + ": " + std::strerror(error));
}

// Writes `text` to a new file next to `target`, flushes it to disk and renames it over
// `target`. The temporary file is removed when anything fails.
void replaceFileAtomically(const fs::path& target, const std::string& text) {
    // Built by appending: "." + name + suffix trips GCC 12's -Wrestrict false positive when
    // optimised.
    std::string hidden(1, '.');
    hidden.append(target.filename().native()).append(".XXXXXX");
    std::string temporary = (target.parent_path() / hidden).string();
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        failWithErrno("cannot create a temporary file next to " + target.string(), errno);
    std::size_t written = 0;
    int error = 0;
    while (written < text.size() && !error) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno != EINTR)
            error = errno;
        else if (n > 0)
            written += static_cast<std::size_t>(n);
    }
    if (!error && (::fchmod(fd, 0644) != 0 || ::fsync(fd) != 0))
        error = errno;
    if (::close(fd) != 0 && !error)
        error = errno;
    if (!error && ::rename(temporary.c_str(), target.c_str()) != 0)
        error = errno;
    if (error) {
        ::unlink(temporary.c_str());
        failWithErrno("cannot write " + target.string(), error);
    }
}

// The contents of `file`, or nothing when it does not exist. Anything but a regular file there
// (a link, a FIFO, a device) is refused, neither followed nor waited on.
std::optional<std::string> readFileIfPresent(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return std::nullopt;
        failWithErrno("cannot read " + file.string(), errno);
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        throw std::runtime_error("cannot read " + file.string() + ": not a regular file");
    }
    std::string text;
    char chunk[4096];
    ssize_t n = 0;
    while ((n = ::read(fd, chunk, sizeof chunk)) != 0) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int error = errno;
            ::close(fd);
            failWithErrno("cannot read " + file.string(), error);
        }
        text.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return text;
}

void checkEntryName(const std::string& package, int group) {
    if (!Database::isValidPackageName(package))
        throw std::invalid_argument("invalid package name \"" + package + "\"");
    if (!isKnownGroup(group))
        throw std::invalid_argument("unknown certificate group " + std::to_string(group));
}

} // namespace

bool Database::isValidPackageName(const std::string& name) {
    if (name.empty() || name.size() > 255 || name.front() == '.' || name.front() == '-')
        return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '+' || c == '-';
    });
}

fs::path Database::certificateFile(const std::string& package, int group) const {
    return root / package / (std::to_string(group) + ".pem");
}

std::vector<std::string> Database::packages() const {
    std::vector<std::string> names;
    std::error_code error;
    fs::directory_iterator entries(root, error);
    if (error == std::errc::no_such_file_or_directory)
        return names;
    if (error)
        throw std::runtime_error("cannot read the package signature database " + root.string() +
                                 ": " + error.message());
    for (const auto& entry : entries) {
        const std::string name = entry.path().filename().string();
        if (!isValidPackageName(name) || !entry.is_directory())
            continue;
        const bool hasCertificate =
            fs::is_regular_file(certificateFile(name, DeveloperGroup), error) ||
            fs::is_regular_file(certificateFile(name, ClientGroup), error);
        if (hasCertificate)
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<Certificate> Database::packageCertificateWithGroup(const std::string& package,
                                                                 int group) const {
    if (!isValidPackageName(package) || !isKnownGroup(group))
        return std::nullopt;
    const fs::path file = certificateFile(package, group);
    const auto pem = readFileIfPresent(file);
    if (!pem)
        return std::nullopt;
    auto certificate = Certificate::fromPem(*pem);
    if (!certificate)
        throw std::runtime_error(file.string() + " holds no PEM certificate");
    return certificate;
}

void Database::setPackageCertificate(const std::string& package, int group,
                                     const Certificate& certificate) const {
    checkEntryName(package, group);
    const fs::path directory = root / package;
    std::error_code error;
    fs::create_directories(directory, error);
    if (error)
        throw std::runtime_error("cannot create " + directory.string() + ": " + error.message());
    replaceFileAtomically(certificateFile(package, group), certificate.toPem());
}

void Database::removePackageCertificate(const std::string& package, int group) const {
    checkEntryName(package, group);
    const fs::path file = certificateFile(package, group);
    if (::unlink(file.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
        failWithErrno("cannot remove " + file.string(), errno);
    ::rmdir((root / package).c_str()); // fails, as it should, while anything is left inside
}

} // namespace PackageSignatures
