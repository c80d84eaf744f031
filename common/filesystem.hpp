#pragma once

// File utilities that keep extended attributes, and the placement of paths by prefix rules.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Common {

// Reads one attribute of the file at `path`, following a symbolic link there. The value may
// hold NUL bytes. Throws Common::Error (Filesystem).
std::string getExtendedAttribute(const std::filesystem::path& path, const std::string& name);

// Writes one attribute on `path` itself (a symbolic link gets the attribute, not its target).
// An empty value is never written: the call does nothing. Throws Common::Error (Filesystem).
void setExtendedAttribute(const std::filesystem::path& path, const std::string& name,
                          const std::string& value);

// Copies the contents of `from` (a link there is followed) to the new file `to`, creating the
// missing parents of `to`, then every extended attribute of `from` in list order. An existing
// `to` is refused. When an attribute cannot be copied, `to` is removed again. Throws
// Common::Error (Filesystem).
void copyFileWithExtendedAttributes(const std::filesystem::path& from,
                                    const std::filesystem::path& to);

// Copies the tree `from` to the new directory `to`: directories with their modes, regular files
// with their modes and attributes (a hard-link set stays one file with all its names), symbolic
// links as links. Throws Common::Error (Filesystem); a partial copy is left for the caller.
void copyTreeWithExtendedAttributes(const std::filesystem::path& from,
                                    const std::filesystem::path& to);

// The contents of the file at `path` when it is a regular file, nothing when nothing or
// something else stands there. A symbolic link at `path` itself is not followed and a FIFO is
// not waited on. Throws Common::Error (Filesystem) when the file is there but cannot be read.
std::optional<std::string> readRegularFile(const std::filesystem::path& path);

// The hidden name beside `file` for work in progress on it: ".NAME" followed by `suffix`.
std::filesystem::path hiddenSibling(const std::filesystem::path& file, const std::string& suffix);

// Flushes the file system that holds `path` to the device. Throws Common::Error (Filesystem).
void syncFileSystem(const std::filesystem::path& path);

// One rule of a placement table: a path beginning with `prefix` is placed under `target`.
struct RemapRule {
    std::string prefix; // by convention an absolute directory ending in "/"
    std::filesystem::path target;
};

// Places `path` by the first matching rule: the directory `prefix` itself gives `target`, a
// path below it `target` joined with the rest. Without a match the path comes back relative.
std::filesystem::path remapPath(const std::filesystem::path& path,
                                const std::vector<RemapRule>& rules);

} // namespace Common
