#pragma once

// Walks over the files of an RPM package: FileIterator over the file list of a header,
// ExtractFileIterator over the payload of a package file, with each regular file's data.

#include "common/rpm/handles.hpp"
#include "common/rpm/iteration_result.hpp"
#include "common/rpm/reader.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Common::Rpm {

enum class EntryType : std::uint32_t {
    Directory = 0,
    RegularFile = 1, // carries the data of its hard-link set
    Symlink = 2,
    Hardlink = 3, // a further name of a regular file whose data comes with another entry
};

// The data of the payload entry a walk stands on; usable only inside that entry's callback.
class RpmFileContent {
public:
    explicit RpmFileContent(FileIteratorHandle archive);

    // The whole data in memory: meant for small files.
    std::vector<char> read() const;
    // Streams the data into `destination` (created or truncated); mode and owner untouched.
    void writeTo(const std::filesystem::path& destination) const;

private:
    FileIteratorHandle archive;
};

class FileIterator {
public:
    struct Entry {
        EntryType type = EntryType::RegularFile;
        std::filesystem::path path;
        std::filesystem::path target;
        std::uint32_t permissions = 0; // mode & 0777; set for directories and regular files
        bool needsSignature = false;
    };

    explicit FileIterator(const std::string& path);
    // Shares the reader's header; over a lent header, walk it within the lender's step.
    explicit FileIterator(const Reader& reader);

    // One pass over the header's file list. Other file types are skipped with a warning.
    void forEach(const std::function<IterationResult(const Entry&)>& callback);

private:
    Reader reader;
    FilesHandle files;
    FileIteratorHandle iterator;
};

class ExtractFileIterator {
public:
    struct Entry : FileIterator::Entry {
        std::optional<RpmFileContent> content; // set for RegularFile only
        std::uint32_t index = 0;               // position in the header's file list
    };

    explicit ExtractFileIterator(const std::string& path);

    // One pass over the payload in archive order. A hard-link set comes as its data-carrying
    // RegularFile followed at once by a Hardlink entry for each further name.
    void forEach(const std::function<IterationResult(const Entry&)>& callback);

private:
    IterationResult reportFurtherNames(const Entry& file,
                                       const std::function<IterationResult(const Entry&)>& callback,
                                       IterationResult result);

    Reader reader;
    FilesHandle files;
    FileIteratorHandle iterator;
};

} // namespace Common::Rpm
