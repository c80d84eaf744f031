// The installed launcher. A start after the migration is answered from the stamp alone with
// nothing but the C library, so it costs about what /bin/true costs; every other start hands
// this process over to the migrator, which loads the migration's libraries and does the rest.
// Built without exceptions and with no C++ runtime linked: use nothing here that needs one.

#include "launcher/stamp.hpp"

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

// The migrator's path relative to this program's directory: the two stand side by side, in
// the build tree and when installed.
constexpr char migratorFromFront[] = TOLVA_MIGRATOR_FROM_FRONT;
constexpr const char* ownPath = "/proc/self/exe";

using MigratorPath = char[PATH_MAX + sizeof migratorFromFront];

// Only a stamp whose status reads as a known file type is answered here. Absence and a status
// query that fails are left to the migrator, which skips nothing then, or ends abnormally.
bool stampSurelyExists() {
    struct stat status;
    if (::stat(Launcher::stampPath, &status) != 0)
        return false;
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
    case S_IFDIR:
    case S_IFLNK:
    case S_IFCHR:
    case S_IFBLK:
    case S_IFIFO:
    case S_IFSOCK:
        return true;
    }
    return false;
}

// One console line as the common log writes it: the pieces, then a line end. A line that
// cannot be written is lost, as there.
template <typename... Texts> void writeLine(Texts... texts) {
    const iovec pieces[] = {iovec{const_cast<char*>(texts), std::strlen(texts)}...,
                            iovec{const_cast<char*>("\n"), 1}};
    [[maybe_unused]] const auto written =
        ::writev(STDERR_FILENO, pieces, sizeof pieces / sizeof *pieces);
}

// `path` in the log's quoted form: in double quotes, a backslash before '"' and '\'.
void quote(const char* path, char* out) {
    *out++ = '"';
    for (; *path; ++path) {
        if (*path == '"' || *path == '\\')
            *out++ = '\\';
        *out++ = *path;
    }
    *out++ = '"';
    *out = '\0';
}

// The migration did not start: one error line, and the status of a failed migration.
int cannotStart(const char* what, const char* path, int error) {
    char quoted[2 * sizeof(MigratorPath) + 3];
    quote(path, quoted);
    writeLine("ERROR: ", what, quoted, ": ", std::strerror(error));
    return 1;
}

// This program's directory (from the kernel, so neither PATH nor argv[0] matters) joined with
// the migrator's relative path. False, with errno set, when that cannot be had.
bool locateMigrator(MigratorPath& path) {
    const ssize_t length = ::readlink(ownPath, path, PATH_MAX);
    if (length < 0)
        return false;
    if (length == PATH_MAX) {
        errno = ENAMETOOLONG;
        return false;
    }
    path[length] = '\0';
    char* const lastSlash = std::strrchr(path, '/'); // the link holds an absolute path
    std::memcpy(lastSlash + 1, migratorFromFront, sizeof migratorFromFront);
    return true;
}

} // namespace

int main() {
    if (stampSurelyExists()) {
        writeLine("INFO: ", Launcher::alreadyDoneText);
        return 0;
    }
    MigratorPath migrator;
    if (!locateMigrator(migrator))
        return cannotStart("couldn't find the migrator through ", ownPath, errno);
    char* const argv[] = {migrator, nullptr};
    ::execve(migrator, argv, environ);
    return cannotStart("couldn't run the migrator ", migrator, errno);
}
