#pragma once

// Files of a prepared package that are further names of the installed files: RPM's erase only
// removes the installed name, so the data need not be copied. Until the package is erased such
// a file is still the RPM package's own, and nothing about it changes; the package's attributes
// are given to it only once nothing outside the package tree names it.

#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Core::Tolva {

// Makes `destination` a new name of the installed regular file at `installed`, which `seen`
// describes (lstat), creating the parents of `destination`. Only a file that nothing else names
// is linked, and only when it is still that file once linked. False when no link was made
// (another file system, more names, a file that changed): the caller copies instead.
bool linkInstalledFile(const std::filesystem::path& installed, const struct stat& seen,
                       const std::filesystem::path& destination);

// The further names of installed files in one package tree, written into the tree before RPM
// erases anything, so that a later start can finish them too.
class LinkedFiles {
public:
    // `placed` is relative to the tree; `needsAppId` when the package's "security.appid" is due.
    void add(std::filesystem::path placed, bool needsAppId);
    bool empty() const { return files.empty(); }

    // Writes the list into `tree`. A package file in the places that the list and its work
    // take makes it throw Common::Error (Filesystem), as does a failure to write.
    void write(const std::filesystem::path& tree) const;

private:
    struct File {
        std::filesystem::path placed;
        bool needsAppId;
    };
    std::vector<File> files;
};

// After RPM has erased package `id`: each listed file of `tree` that something outside the tree
// still names (a file RPM kept, an .rpmsave, another package's file) gets a copy of its own
// with the same data, mode and attributes; then each that needs it gets "security.appid", and
// the list is removed. A tree without a list is left alone. Throws Common::Error (Filesystem).
void finishLinkedFiles(const std::filesystem::path& tree, const std::string& id);

} // namespace Core::Tolva
