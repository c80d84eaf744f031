#include "common/filesystem.hpp"

#include "common/error.hpp"
#include "common/log.hpp"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace Common {

namespace {

[[noreturn]] void fail(std::string&& message) {
    throw Error(ErrorCode::Filesystem, std::move(message));
}

// The NUL-separated attribute names of `from` (following a link), as the kernel lists them.
std::string listExtendedAttributes(const fs::path& from) {
    const ssize_t size = ::listxattr(from.c_str(), nullptr, 0);
    if (size < 0)
        fail("couldn't retrieve size of extended attributes: " + from.string());
    std::string names(static_cast<std::size_t>(size), '\0');
    const ssize_t listed = ::listxattr(from.c_str(), names.data(), names.size());
    if (listed < 0)
        fail("couldn't retrieve extended attributes: " + from.string());
    names.resize(static_cast<std::size_t>(listed));
    return names;
}

void copyExtendedAttributes(const fs::path& from, const fs::path& to, const std::string& names) {
    for (std::size_t offset = 0; offset < names.size();) {
        const std::string name(names.c_str() + offset);
        offset += name.size() + 1;
        setExtendedAttribute(to, name, getExtendedAttribute(from, name));
    }
}

// An open file descriptor, closed with the object.
struct Descriptor {
    explicit Descriptor(int descriptor) : value(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (value >= 0)
            ::close(value);
    }
    const int value;
};

[[noreturn]] void failWithErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Copies the rest of `in` to `out` inside the kernel: copy_file_range, which may share the
// blocks where the file system can; sendfile where the two file systems differ.
void copyData(int in, int out, const fs::path& from) {
    bool ranged = true;
    for (;;) {
        constexpr std::size_t chunk = std::size_t(1) << 30;
        const ssize_t copied = ranged ? ::copy_file_range(in, nullptr, out, nullptr, chunk, 0)
                                      : ::sendfile(out, in, nullptr, chunk);
        if (copied == 0)
            return;
        if (copied > 0)
            continue;
        if (errno == EINTR)
            continue;
        if (ranged && (errno == EXDEV || errno == EINVAL || errno == EOPNOTSUPP ||
                       errno == ENOSYS || errno == EBADF)) {
            ranged = false;
            continue;
        }
        failWithErrno("copying " + from.string());
    }
}

// A new file `to` with the data and the mode bits of the regular file `from`.
void copyContents(const fs::path& from, const fs::path& to) {
    const Descriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)); // FIFOs too
    struct stat source {};
    if (in.value < 0 || ::fstat(in.value, &source) != 0)
        failWithErrno("opening " + from.string());
    if (!S_ISREG(source.st_mode))
        throw std::runtime_error("not a regular file: " + from.string());
    const Descriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IWUSR));
    if (out.value < 0)
        failWithErrno("creating " + to.string());
    try {
        if (::fchmod(out.value, source.st_mode & 07777) != 0)
            failWithErrno("setting the mode of " + to.string());
        copyData(in.value, out.value, from);
    } catch (...) {
        ::unlink(to.c_str());
        throw;
    }
}

// Removes a copy whose attributes could not be given to it; a failure is only reported, so
// that the caller's own error is the one that reaches its caller.
void removeIncompleteCopy(const fs::path& to) {
    try {
        fs::remove(to);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Warning) << "couldn't cleanup file: " << to;
        LogLine(LogLevel::Warning) << error;
    }
}

} // namespace

std::string getExtendedAttribute(const fs::path& path, const std::string& name) {
    const ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
    if (size < 0)
        fail("couldn't retrieve size of " + name + " extended attribute: " + path.string());
    // A value that shrank since the size was asked comes back padded with zero bytes.
    std::string value(static_cast<std::size_t>(size), '\0');
    if (::getxattr(path.c_str(), name.c_str(), value.data(), value.size()) < 0)
        fail("couldn't retrieve " + name + " extended attribute: " + path.string());
    return value;
}

void setExtendedAttribute(const fs::path& path, const std::string& name, const std::string& value) {
    if (value.empty())
        return;
    if (::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) < 0)
        fail("couldn't attach " + name + " extended attribute to " + path.string());
}

void copyFileWithExtendedAttributes(const fs::path& from, const fs::path& to) {
    const std::string names = listExtendedAttributes(from);
    try {
        if (to.has_parent_path())
            fs::create_directories(to.parent_path());
        copyContents(from, to);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        fail("couldn't copy file " + from.string() + " -> " + to.string());
    }
    if (names.empty())
        return;
    try {
        copyExtendedAttributes(from, to, names);
    } catch (...) {
        removeIncompleteCopy(to);
        throw;
    }
}

void copyTreeWithExtendedAttributes(const fs::path& from, const fs::path& to) {
    const auto failure = [&] {
        return Error(ErrorCode::Filesystem,
                     "couldn't copy directory " + from.string() + " -> " + to.string());
    };
    std::map<std::pair<dev_t, ino_t>, fs::path> copies; // hard-link sets, by their first copy
    try {
        fs::create_directory(to);
        fs::permissions(to, fs::status(from).permissions(), fs::perm_options::replace);
        for (const auto& entry : fs::recursive_directory_iterator(from)) {
            const fs::path destination = to / entry.path().lexically_relative(from);
            const auto status = entry.symlink_status();
            if (fs::is_symlink(status)) {
                fs::copy_symlink(entry.path(), destination);
            } else if (fs::is_directory(status)) {
                fs::create_directory(destination);
                fs::permissions(destination, status.permissions(), fs::perm_options::replace);
            } else {
                struct stat file {};
                if (::lstat(entry.path().c_str(), &file) != 0)
                    throw failure();
                const auto [copy, first] =
                    copies.try_emplace({file.st_dev, file.st_ino}, destination);
                if (first)
                    copyFileWithExtendedAttributes(entry.path(), destination);
                else
                    fs::create_hard_link(copy->second, destination);
            }
        }
    } catch (const Error&) {
        throw;
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        throw failure();
    }
}

std::optional<std::string> readRegularFile(const fs::path& path) {
    const int descriptor =
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) {
        if (errno == ENOENT || errno == ELOOP || errno == ENOTDIR || errno == ENXIO)
            return std::nullopt;
        fail("couldn't read file: " + path.string());
    }
    struct stat file {};
    std::string contents;
    bool regular = ::fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode);
    for (char buffer[65536]; regular;) {
        const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
        if (got < 0) {
            ::close(descriptor);
            fail("couldn't read file: " + path.string());
        }
        if (got == 0)
            break;
        contents.append(buffer, std::size_t(got));
    }
    ::close(descriptor);
    if (!regular)
        return std::nullopt;
    return contents;
}

fs::path hiddenSibling(const fs::path& file, const std::string& suffix) {
    // Appended piece by piece: "." + name + suffix trips GCC 12's -Wrestrict false positive in
    // optimised builds.
    std::string name(1, '.');
    name.append(file.filename().native()).append(suffix);
    return file.parent_path() / name;
}

void syncFileSystem(const fs::path& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
    const bool synced = descriptor >= 0 && ::syncfs(descriptor) == 0;
    if (descriptor >= 0)
        ::close(descriptor);
    if (!synced)
        fail("couldn't flush the file system of " + path.string());
}

fs::path remapPath(const fs::path& path, const std::vector<RemapRule>& rules) {
    const std::string& text = path.native();
    const std::string dir = text.ends_with('/') ? text : text + '/';
    for (const auto& rule : rules) {
        if (rule.prefix == dir)
            return rule.target;
        if (text.starts_with(rule.prefix))
            return rule.target / text.substr(rule.prefix.size());
    }
    return path.relative_path();
}

} // namespace Common
