#include "common/error.hpp"
#include "core/tolva/list_file.hpp"
#include "core/tolva/mappings.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/xattr.h>

namespace fs = std::filesystem;
using namespace Core::Tolva;
using TestSupport::captureStderr;

namespace {

void writeFile(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

void putAttribute(const fs::path& path, const std::string& name, const std::string& value) {
    if (::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) < 0)
        throw std::runtime_error("lsetxattr " + name + " on " + path.string());
}

// The message of the Common::Error that `body` throws; fails the test when it throws none.
std::string errorOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const Common::Error& error) {
        EXPECT_EQ(error.code(), Common::ErrorCode::Filesystem);
        return error.what();
    }
    ADD_FAILURE() << "no Common::Error thrown";
    return {};
}

} // namespace

TEST(IsMapping, LinksAndMarkedRegularFilesOnly) {
    SANDBOXED([] {
        const fs::path dir = "/usr/share/applications";
        writeFile(dir / "marked.desktop", "[Desktop Entry]\n");
        putAttribute(dir / "marked.desktop", mappingMarkerAttribute, "/opt/app/demo/1-1/manifest");
        writeFile(dir / "empty-marker.desktop", "");
        putAttribute(dir / "empty-marker.desktop", mappingMarkerAttribute, "");
        writeFile(dir / "system.desktop", "[Desktop Entry]\n");
        putAttribute(dir / "system.desktop", "user.other", "x");
        fs::create_symlink(dir / "system.desktop", dir / "link.desktop");
        fs::create_symlink("/nowhere", dir / "dangling.desktop");
        fs::create_symlink("/usr/share", dir / "dir-link");
        fs::create_directory(dir / "marked-dir");
        putAttribute(dir / "marked-dir", mappingMarkerAttribute, "/opt/app/demo");

        EXPECT_TRUE(isMapping(dir / "marked.desktop"));
        EXPECT_TRUE(isMapping(dir / "empty-marker.desktop"));
        EXPECT_TRUE(isMapping(dir / "link.desktop"));
        EXPECT_TRUE(isMapping(dir / "dangling.desktop"));
        EXPECT_TRUE(isMapping(dir / "dir-link"));
        EXPECT_FALSE(isMapping(dir / "system.desktop"));
        EXPECT_FALSE(isMapping(dir / "marked-dir"));
        EXPECT_FALSE(isMapping(dir / "missing.desktop"));
        EXPECT_FALSE(isMapping(dir / "system.desktop" / "below"));
        EXPECT_FALSE(isMapping("/dev/null"));
    });
}

TEST(WriteListFile, OnePlainPathPerLineAndFailuresNamed) {
    SANDBOXED([] {
        const fs::path list = "/opt/list/symlink.list";
        writeFile(list, "an older list that is longer than the new one\n");
        writeListFile(list, {"/usr/bin/tool", R"(/usr/share/a "b"\c d)", "relative"}, "open",
                      "write");
        EXPECT_EQ(readFile(list), "/usr/bin/tool\n/usr/share/a \"b\"\\c d\nrelative\n");
        writeListFile(list, {}, "open", "write");
        EXPECT_EQ(readFile(list), "");

        EXPECT_EQ(errorOf([] { writeListFile("/opt/list", {"/x"}, "open failed", "w"); }),
                  "open failed");
        EXPECT_EQ(errorOf([] { writeListFile("/dev/full", {"/x"}, "o", "write failed"); }),
                  "write failed");
        // No line, nothing to fail on.
        writeListFile("/dev/full", {}, "o", "write failed");
    });
}
