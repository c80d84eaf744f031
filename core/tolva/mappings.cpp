#include "core/tolva/mappings.hpp"

#include "common/filesystem.hpp"

namespace fs = std::filesystem;

namespace Core::Tolva {

bool isMapping(const fs::path& path) {
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(path, error)))
        return true;
    if (!fs::is_regular_file(fs::status(path, error)))
        return false;
    try {
        Common::getExtendedAttribute(path, mappingMarkerAttribute);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace Core::Tolva
