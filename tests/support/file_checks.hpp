#pragma once

// File helpers for tests, independent of the code under test: files, attributes, mounts, errors.

#include "common/error.hpp"
#include "tests/support/sandbox.hpp"

#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <vector>

namespace TestSupport {

// Writes `content` to `path`, creating its parents.
inline void writeFile(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

// Whether anything, a dangling link too, stands at `path`.
inline bool present(const std::filesystem::path& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

// The names in `directory`.
inline std::set<std::string> entries(const std::filesystem::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

// What a user could see of the trees `tops`, leaving out what lies below `skip`: each entry's
// type, mode, link target and content (size and time for a file over 64 KiB).
using Snapshot = std::map<std::string, std::string>;
inline Snapshot snapshot(const std::vector<std::string>& tops, const std::string& skip = "//") {
    namespace fs = std::filesystem;
    Snapshot seen;
    for (const auto& top : tops) {
        std::error_code error;
        for (auto entry = fs::recursive_directory_iterator(top, error);
             entry != fs::recursive_directory_iterator(); entry.increment(error)) {
            if (entry->path().string().starts_with(skip)) {
                entry.disable_recursion_pending();
                continue;
            }
            const auto status = entry->symlink_status();
            std::string& text = seen[entry->path()] = std::to_string(int(status.type())) + " " +
                                                      std::to_string(int(status.permissions()));
            // Appended piece by piece: " " + a temporary string trips GCC 12's -Wrestrict false
            // positive in optimised builds.
            if (fs::is_symlink(status))
                text.append(" -> ").append(fs::read_symlink(entry->path()).string());
            else if (fs::is_regular_file(status) && entry->file_size() <= 65536)
                text.append(" ").append(readFile(entry->path()));
            else if (fs::is_regular_file(status))
                text.append(" ")
                    .append(std::to_string(entry->file_size()))
                    .append(" ")
                    .append(std::to_string(entry->last_write_time().time_since_epoch().count()));
        }
    }
    return seen;
}

// The paths whose entry differs between two snapshots, one a line; empty when none does.
inline std::string changes(const Snapshot& before, const Snapshot& after) {
    std::string text;
    for (const auto& [path, seen] : after)
        if (!before.contains(path) || before.at(path) != seen)
            text += path + "\n";
    for (const auto& [path, seen] : before)
        if (!after.contains(path))
            text += path + "\n";
    return text;
}

// The attribute names of `path` itself (a link is not followed), in the kernel's list order.
inline std::vector<std::string> attributeNames(const std::filesystem::path& path) {
    std::string names(65536, '\0');
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    if (size < 0)
        throw std::runtime_error("llistxattr " + path.string());
    std::vector<std::string> result;
    for (std::size_t offset = 0; offset < std::size_t(size); offset += result.back().size() + 1)
        result.emplace_back(names.c_str() + offset);
    return result;
}

// One attribute of `path` itself, or nothing when it has none of that name.
inline std::optional<std::string> attribute(const std::filesystem::path& path,
                                            const std::string& name) {
    std::string value(65536, '\0');
    const ssize_t size = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (size < 0)
        return std::nullopt;
    value.resize(std::size_t(size));
    return value;
}

inline void putAttribute(const std::filesystem::path& path, const std::string& name,
                         const std::string& value) {
    if (::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) < 0)
        throw std::runtime_error("lsetxattr " + name + " on " + path.string());
}

// Mounts a fresh file system of `type` (tmpfs, ramfs...) on `target`, created when missing.
// Only inside a sandbox.
inline void mountFresh(const char* type, const std::filesystem::path& target,
                       const char* options = nullptr) {
    std::filesystem::create_directories(target);
    if (::mount(type, target.c_str(), type, 0, options) != 0)
        throw std::runtime_error(std::string("mount ") + type + " on " + target.string());
}

// Makes `directory` (created when missing) append-only: nothing in it can be unlinked, while
// what lies deeper can. Only inside a sandbox, on a file system that takes the flag (tmpfs).
inline void makeAppendOnly(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    const auto chattr = runProgram({"chattr", "+a", directory.string()});
    if (chattr.status != 0)
        throw std::runtime_error("chattr +a " + directory.string() + ": " + chattr.err);
}

// The text of the exception that removing `path` (with all it holds when `all`) throws; empty
// when the removal succeeds.
inline std::string removalFailure(const std::filesystem::path& path, bool all = false) {
    try {
        if (all)
            std::filesystem::remove_all(path);
        else
            std::filesystem::remove(path);
    } catch (const std::exception& error) {
        return error.what();
    }
    return {};
}

// The message of the Common::Error that `body` throws, whose code must be `code`; the test
// fails when `body` throws none.
inline std::string errorOf(const std::function<void()>& body,
                           Common::ErrorCode code = Common::ErrorCode::Filesystem) {
    try {
        body();
    } catch (const Common::Error& error) {
        EXPECT_EQ(error.code(), code) << error.what();
        return error.what();
    }
    ADD_FAILURE() << "no Common::Error thrown";
    return {};
}

} // namespace TestSupport
