#include "core/tolva/linked_files.hpp"

#include "common/error.hpp"
#include "common/filesystem.hpp"
#include "common/log.hpp"
#include "core/tolva/path_checks.hpp"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <iomanip>
#include <map>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace Core::Tolva {

namespace {

// In the tree's top directory, where a package file lands only when RPM installed it at "/"
// under that very name.
constexpr const char* listName = ".migration.linked";
constexpr const char* copyName = ".migration.linked.copy";

[[noreturn]] void fail(std::string&& message) {
    throw Common::Error(Common::ErrorCode::Filesystem, std::move(message));
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

struct stat statOf(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        fail("linked package file is not a regular file: " + path.string());
    return status;
}

void flush(const fs::path& file) {
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const bool flushed = descriptor >= 0 && ::fsync(descriptor) == 0;
    if (descriptor >= 0)
        ::close(descriptor);
    if (!flushed)
        fail("couldn't flush file: " + file.string());
}

// Gives the names of one file in the tree a file of their own with the same data, mode and
// attributes; the names elsewhere keep the old one as it is. Each name is replaced at once.
void unshare(const fs::path& tree, const std::vector<fs::path>& names) {
    const fs::path copy = tree / copyName;
    fs::remove(copy); // left by an interrupted run
    Common::copyFileWithExtendedAttributes(tree / names.front(), copy);
    flush(copy);
    fs::rename(copy, tree / names.front());
    for (std::size_t i = 1; i < names.size(); ++i) {
        fs::create_hard_link(tree / names.front(), copy);
        fs::rename(copy, tree / names[i]);
    }
}

} // namespace

bool linkInstalledFile(const fs::path& installed, const struct stat& seen,
                       const fs::path& destination) {
    if (!S_ISREG(seen.st_mode) || seen.st_nlink != 1)
        return false;
    // The directory is made only when it is missing: looking first costs every file.
    if (::link(installed.c_str(), destination.c_str()) != 0) {
        if (errno != ENOENT)
            return false;
        fs::create_directories(destination.parent_path());
        if (::link(installed.c_str(), destination.c_str()) != 0)
            return false;
    }
    struct stat made {};
    if (::lstat(destination.c_str(), &made) == 0 && sameFile(made, seen) && made.st_nlink == 2)
        return true;
    // Replaced or linked elsewhere since it was looked at: this name is no faithful link.
    fs::remove(destination);
    return false;
}

void LinkedFiles::add(fs::path placed, bool needsAppId) {
    files.push_back({std::move(placed), needsAppId});
}

void LinkedFiles::write(const fs::path& tree) const {
    const fs::path list = tree / listName;
    if (fs::exists(fs::symlink_status(tree / copyName)))
        fail("package file takes the place of the work copy of linked files: " +
             (tree / copyName).string());
    const int descriptor =
        ::open(list.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0)
        fail("couldn't create the list of linked files: " + list.string());
    ::close(descriptor);
    std::ofstream out(list, std::ios::trunc);
    for (const auto& file : files)
        out << (file.needsAppId ? 1 : 0) << ' ' << std::quoted(file.placed.native()) << '\n';
    if (!out.flush())
        fail("couldn't write the list of linked files: " + list.string());
}

void finishLinkedFiles(const fs::path& tree, const std::string& id) {
    const fs::path list = tree / listName;
    std::error_code error;
    if (!fs::exists(fs::symlink_status(list, error)))
        return;
    const auto text = Common::readRegularFile(list);
    if (!text)
        fail("couldn't read the list of linked files: " + list.string());
    std::istringstream in(*text);
    std::vector<std::pair<fs::path, bool>> files;
    int needsAppId = 0;
    for (std::string placed; in >> needsAppId >> std::quoted(placed);) {
        checkPlacedPath(placed, placed);
        files.emplace_back(placed, needsAppId != 0);
    }
    if (!in.eof())
        fail("couldn't read the list of linked files: " + list.string());

    // The names in the tree of each file; a file with more names than these is shared.
    std::map<std::pair<dev_t, ino_t>, std::pair<nlink_t, std::vector<fs::path>>> names;
    for (const auto& [placed, needed] : files) {
        const struct stat status = statOf(tree / placed);
        auto& [links, inTree] = names[{status.st_dev, status.st_ino}];
        links = status.st_nlink;
        inTree.push_back(placed);
    }
    try {
        for (const auto& [file, known] : names)
            if (known.first > known.second.size())
                unshare(tree, known.second);
    } catch (const Common::Error&) {
        throw;
    } catch (const std::exception& cause) {
        Common::LogLine(Common::LogLevel::Error) << cause;
        fail("couldn't give linked files a copy of their own in " + tree.string());
    }
    for (const auto& [placed, needed] : files)
        if (needed)
            Common::setExtendedAttribute(tree / placed, "security.appid", id);
    fs::remove(list, error);
    if (error)
        fail("couldn't remove the list of linked files: " + list.string());
}

} // namespace Core::Tolva
