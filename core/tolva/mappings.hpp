#pragma once

// System mappings: the files in system directories that stand for a package's files.

#include <filesystem>

namespace Core::Tolva {

// The attribute that marks a copy mapping; its value is the package-side path it was made from.
inline constexpr const char* mappingMarkerAttribute = "user.tolva.mapping.target";

// The list of a version's mappings, one system path per line, inside the version directory.
inline constexpr const char* mappingListName = "symlink.list";

// True when `path` itself is a symbolic link (not followed), or a regular file carrying the
// mapping marker; false for anything else, a missing path included.
bool isMapping(const std::filesystem::path& path);

} // namespace Core::Tolva
