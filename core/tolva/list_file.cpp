#include "core/tolva/list_file.hpp"

#include "common/error.hpp"

#include <fstream>
#include <iomanip>

namespace Core::Tolva {

void writeListFile(const std::filesystem::path& file,
                   const std::vector<std::filesystem::path>& paths, const char* openFailure,
                   const char* writeFailure) {
    std::ofstream list(file, std::ios::out | std::ios::trunc);
    if (!list.is_open())
        throw Common::Error(Common::ErrorCode::Filesystem, openFailure);
    for (const auto& path : paths) {
        list << path.native() << std::endl;
        if (!list)
            throw Common::Error(Common::ErrorCode::Filesystem, writeFailure);
    }
}

} // namespace Core::Tolva

namespace Core::Tolva {

std::vector<std::filesystem::path> readListFile(std::istream& list) {
    std::vector<std::filesystem::path> paths;
    std::string token;
    while (list >> std::quoted(token))
        paths.emplace_back(token);
    return paths;
}

} // namespace Core::Tolva
