#include "common/filesystem.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using Common::copyFileWithExtendedAttributes;
using Common::getExtendedAttribute;
using Common::setExtendedAttribute;
using namespace TestSupport;

namespace {

const std::string binaryValue("\0app\0id\0", 8);

} // namespace

TEST(ExtendedAttributes, ReadAndWriteOnFilesAndLinks) {
    SANDBOXED([] {
        const fs::path file = "/opt/xattr/file";
        const fs::path link = "/opt/xattr/link";
        writeFile(file, "content");
        fs::create_symlink("file", link);

        setExtendedAttribute(file, "user.binary", binaryValue);
        EXPECT_EQ(attribute(file, "user.binary"), binaryValue);
        EXPECT_EQ(getExtendedAttribute(file, "user.binary"), binaryValue);
        // Reading follows a link.
        EXPECT_EQ(getExtendedAttribute(link, "user.binary"), binaryValue);
        putAttribute(file, "user.empty", "");
        EXPECT_EQ(getExtendedAttribute(file, "user.empty"), "");

        // An empty value is never written.
        setExtendedAttribute(file, "user.never", "");
        EXPECT_EQ(attribute(file, "user.never"), std::nullopt);
        setExtendedAttribute("/opt/xattr/missing", "user.never", "");

        // Writing does not follow a link: the link itself takes a trusted attribute, and the
        // kernel refuses a user attribute on a link that it would accept on the target.
        setExtendedAttribute(link, "trusted.tolva", "on the link");
        EXPECT_EQ(attribute(link, "trusted.tolva"), "on the link");
        EXPECT_EQ(attribute(file, "trusted.tolva"), std::nullopt);
        const std::pair<std::function<void()>, std::string> refused[] = {
            {[&] { setExtendedAttribute(link, "user.refused", "v"); },
             "couldn't attach user.refused extended attribute to /opt/xattr/link"},
            {[&] { getExtendedAttribute(file, "user.absent"); },
             "couldn't retrieve size of user.absent extended attribute: /opt/xattr/file"},
            {[&] { getExtendedAttribute("/opt/xattr/missing", "user.binary"); },
             "couldn't retrieve size of user.binary extended attribute: /opt/xattr/missing"},
            {[&] { setExtendedAttribute("/opt/xattr/missing", "user.a", "v"); },
             "couldn't attach user.a extended attribute to /opt/xattr/missing"},
        };
        for (const auto& [operation, message] : refused)
            EXPECT_EQ(errorOf(operation), message);
        EXPECT_EQ(attribute(file, "user.refused"), std::nullopt);
    });
}

TEST(CopyFileWithExtendedAttributes, ARefusedCopyLeavesNothingBehind) {
    SANDBOXED([] {
        writeFile("/opt/copy/source", "new");
        putAttribute("/opt/copy/source", "user.a", "new");
        writeFile("/opt/copy/existing", "old");
        // ramfs keeps no extended attributes at all; the append-only directory on a file system
        // of three inodes has room for the copy but not for its attribute, and keeps the copy.
        mountFresh("ramfs", "/tmp/ramfs");
        mountFresh("tmpfs", "/tmp/full", "nr_inodes=3");
        const fs::path stuck = R"(/tmp/full/a "b"\c)";
        makeAppendOnly(stuck);
        const std::tuple<fs::path, fs::path, std::string> refused[] = {
            {"/opt/copy/source", "/opt/copy/existing",
             "couldn't copy file /opt/copy/source -> /opt/copy/existing"},
            {"/opt/copy/missing", "/opt/copy/sub/copy",
             "couldn't retrieve size of extended attributes: /opt/copy/missing"},
            {"/opt/copy/source", "/tmp/ramfs/sub/copy",
             "couldn't attach user.a extended attribute to /tmp/ramfs/sub/copy"},
            {"/opt/copy/source", stuck / "copy",
             R"(couldn't attach user.a extended attribute to /tmp/full/a "b"\c/copy)"},
        };
        std::vector<std::string> logs;
        for (const auto& [from, to, message] : refused)
            logs.push_back(captureStderr([&] {
                EXPECT_EQ(errorOf([&] { copyFileWithExtendedAttributes(from, to); }), message);
            }));
        // One error line with the cause, which names the kept destination.
        EXPECT_EQ(readFile("/opt/copy/existing"), "old");
        EXPECT_TRUE(logs[0].starts_with("ERROR: ") && std::ranges::count(logs[0], '\n') == 1 &&
                    logs[0].find("/opt/copy/existing") != std::string::npos)
            << logs[0];
        // A missing source is found out before anything is created.
        EXPECT_EQ(logs[1], "");
        EXPECT_FALSE(fs::exists("/opt/copy/sub"));
        EXPECT_EQ(logs[2], "");
        EXPECT_FALSE(fs::exists("/tmp/ramfs/sub/copy"));
        EXPECT_EQ(logs[3], "WARN: couldn't cleanup file: \"/tmp/full/a \\\"b\\\"\\\\c/copy\"\n"
                           "WARN: " +
                               removalFailure(stuck / "copy") + "\n");
    });
}

TEST(RemapPath, FirstMatchingRulePlacesThePath) {
    // Both /usr/share/ and /usr/share/demo/ match a path below the latter: the earlier rule
    // decides. A prefix without the trailing "/" matches on the leading characters alone.
    const std::vector<Common::RemapRule> rules{
        {"/usr/share/", "share-first"}, {"/usr/share/demo/", "data"}, {"/opt/ab", "ab"}};
    const std::pair<fs::path, fs::path> placed[] = {
        {"/usr/share/demo/x/y.qml", "share-first/demo/x/y.qml"},
        {"/opt/abc/x", "ab/c/x"},
        {"/usr/sharex", "usr/sharex"},
        {"relative/file", "relative/file"},
    };
    for (const auto& [path, place] : placed)
        EXPECT_EQ(Common::remapPath(path, rules), place) << path;
}
