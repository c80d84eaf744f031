#pragma once

// What the fuzz harnesses share: a scratch file for readers that take a path, standard error
// held back while a reader logs, and the check whose failure is a finding.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Fuzz {

inline constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

// A broken expectation: reported and aborted on, so that the fuzzer keeps the input.
inline void require(bool ok, const char* what) {
    if (ok)
        return;
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

// `reader` gives the same for `bytes` with a leading byte-order mark as without: it is called
// with a name for a scratch file and the bytes.
template <typename Read>
void requireByteOrderMarkChangesNothing(const std::string& bytes, Read reader) {
    const auto plain = reader("plain", bytes);
    if (!bytes.starts_with(byteOrderMark))
        require(reader("marked", std::string(byteOrderMark) + bytes) == plain,
                "a byte-order mark changes nothing");
}

// A directory of this process under the temporary directory, removed at exit.
class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "tolva-fuzz-XXXXXX");
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("cannot make a scratch directory under " + pattern);
        path = pattern;
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    static const std::filesystem::path& shared() {
        static const ScratchDirectory directory;
        return directory.path;
    }

private:
    std::filesystem::path path;
};

// Replaces the scratch file `name` with `bytes` and returns its path.
inline std::filesystem::path writeScratchFile(const std::string& name, std::string_view bytes) {
    const auto file = ScratchDirectory::shared() / name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    require(static_cast<bool>(out), "the scratch file can be written");
    return file;
}

// What the code logs to std::cerr while this lives; sanitizer reports still reach fd 2.
class CapturedStderr {
public:
    CapturedStderr() : previous(std::cerr.rdbuf(text.rdbuf())) {}
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;
    ~CapturedStderr() { std::cerr.rdbuf(previous); }
    std::string str() const { return text.str(); }

private:
    std::ostringstream text;
    std::streambuf* previous;
};

} // namespace Fuzz
