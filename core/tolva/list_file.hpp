#pragma once

// The writer of a package version's list files: one plain path per line.

#include <filesystem>
#include <istream>
#include <vector>

namespace Core::Tolva {

// Whether a list is flushed to the disk before it takes its name, alone or with everything
// written to its file system (what it names may be waiting there too: one flush takes both), or
// left to the caller, which flushes the whole file system before anything relies on the list
// (the migration does, once for all its packages, where a flush per list would cost more than
// the rest of its work).
enum class ListFlush { BeforeRename, WithFileSystemBeforeRename, ByCaller };

// Writes `paths` to `file`, each as its plain text followed by a newline, flushing after every
// line. The lines go to a temporary file next to `file` that is renamed over it once complete,
// so `file` is always the old list or the whole new one. Throws Common::Error (Filesystem) with
// `openFailure` when the list cannot be created or put in place, and with `writeFailure` when a
// line cannot be written; the old list is then left as it was.
void writeListFile(const std::filesystem::path& file,
                   const std::vector<std::filesystem::path>& paths, const char* openFailure,
                   const char* writeFailure, ListFlush flush = ListFlush::BeforeRename);

} // namespace Core::Tolva

namespace Core::Tolva {

// The paths of an open list file, read as whitespace-separated tokens with std::quoted: a path
// written with a blank in it comes back as several paths.
std::vector<std::filesystem::path> readListFile(std::istream& list);

} // namespace Core::Tolva
