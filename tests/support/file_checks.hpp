#pragma once

// File helpers for tests, independent of the code under test: files, attributes, mounts, errors.

#include "common/error.hpp"
#include "tests/support/sandbox.hpp"

#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
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
