#pragma once

// Checks on names and paths that come from data on the device, made before they become paths
// that a root process writes to.

#include <filesystem>
#include <string>

namespace Core::Tolva {

// Throws Common::Error (BadPackage) unless `name` can stand as one directory name and read back
// exactly from velmor.pkg: not empty, not "." or "..", no "/", no control character, no blank
// at either end. `what` names the value in the message ("package id").
void checkPathComponent(const std::string& name, const std::string& what);

// Throws Common::Error (BadPackage) unless `placed`, the place of the package path `original`
// inside a package tree, stays inside that tree: relative, and every component an ordinary name
// without control characters.
void checkPlacedPath(const std::filesystem::path& placed, const std::filesystem::path& original);

// Whether `path`, read lexically, names something strictly below `directory`: both absolute,
// and `path` without "." or ".." components.
bool isInside(const std::filesystem::path& path, const std::filesystem::path& directory);

} // namespace Core::Tolva
