#include "core/tolva/list_file.hpp"

#include "common/error.hpp"
#include "common/filesystem.hpp"

#include <fcntl.h>
#include <fstream>
#include <iomanip>
#include <unistd.h>

namespace fs = std::filesystem;

namespace Core::Tolva {

namespace {

[[noreturn]] void fail(const char* message) {
    throw Common::Error(Common::ErrorCode::Filesystem, message);
}

// The lines reach the disk before the list takes its name: after a crash the list is the old
// one or the complete new one.
bool syncToDisk(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0;
    return ::close(fd) == 0 && synced;
}

void writeLines(const fs::path& file, const std::vector<fs::path>& paths, const char* openFailure,
                const char* writeFailure, ListFlush flush) {
    std::ofstream list(file, std::ios::out | std::ios::trunc);
    if (!list.is_open())
        fail(openFailure);
    for (const auto& path : paths) {
        list << path.native() << std::endl;
        if (!list)
            fail(writeFailure);
    }
    list.close();
    if (!list || (flush == ListFlush::BeforeRename && !syncToDisk(file)))
        fail(writeFailure);
    if (flush == ListFlush::WithFileSystemBeforeRename)
        Common::syncFileSystem(file.parent_path());
}

} // namespace

void writeListFile(const fs::path& file, const std::vector<fs::path>& paths,
                   const char* openFailure, const char* writeFailure, ListFlush flush) {
    const fs::path temporary = Common::hiddenSibling(file, ".new");
    try {
        writeLines(temporary, paths, openFailure, writeFailure, flush);
        std::error_code error;
        fs::rename(temporary, file, error);
        if (error)
            fail(openFailure);
    } catch (...) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        throw;
    }
}

} // namespace Core::Tolva

namespace Core::Tolva {

std::vector<fs::path> readListFile(std::istream& list) {
    std::vector<fs::path> paths;
    std::string token;
    while (list >> std::quoted(token))
        paths.emplace_back(token);
    return paths;
}

} // namespace Core::Tolva
