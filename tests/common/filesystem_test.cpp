#include "common/filesystem.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

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
        setExtendedAttribute(file, "user.binary", "replaced");
        EXPECT_EQ(attribute(file, "user.binary"), "replaced");
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
        EXPECT_EQ(errorOf([&] { setExtendedAttribute(link, "user.refused", "v"); }),
                  "couldn't attach user.refused extended attribute to /opt/xattr/link");
        EXPECT_EQ(attribute(file, "user.refused"), std::nullopt);

        EXPECT_EQ(errorOf([&] { getExtendedAttribute(file, "user.absent"); }),
                  "couldn't retrieve size of user.absent extended attribute: /opt/xattr/file");
        EXPECT_EQ(errorOf([&] { getExtendedAttribute("/opt/xattr/missing", "user.binary"); }),
                  "couldn't retrieve size of user.binary extended attribute: /opt/xattr/missing");
        EXPECT_EQ(errorOf([&] { setExtendedAttribute("/opt/xattr/missing", "user.a", "v"); }),
                  "couldn't attach user.a extended attribute to /opt/xattr/missing");
    });
}

TEST(CopyFileWithExtendedAttributes, CopiesContentsAndEveryNonEmptyAttributeInListOrder) {
    SANDBOXED([] {
        const fs::path source = "/opt/copy/source";
        const std::string content = std::string("binary\0content\n", 15) + std::string(70000, 'x');
        writeFile(source, content);
        fs::permissions(source, fs::perms(0751));
        putAttribute(source, "user.second", "2");
        putAttribute(source, "security.appid", "demo.notes");
        putAttribute(source, "user.empty", "");
        putAttribute(source, "trusted.ta", binaryValue);
        putAttribute(source, "user.first", "1");
        auto expectedNames = attributeNames(source);
        std::erase(expectedNames, "user.empty");
        ASSERT_EQ(expectedNames.size(), 4u);

        const fs::path copy = "/opt/copy/new/deep/copy";
        const auto err = captureStderr([&] { copyFileWithExtendedAttributes(source, copy); });
        EXPECT_EQ(err, "");
        EXPECT_EQ(readFile(copy), content);
        EXPECT_EQ(fs::status(copy).permissions(), fs::perms(0751));
        EXPECT_EQ(attributeNames(copy), expectedNames);
        EXPECT_EQ(attribute(copy, "security.appid"), "demo.notes");
        EXPECT_EQ(attribute(copy, "trusted.ta"), binaryValue);
        EXPECT_EQ(attribute(copy, "user.first"), "1");
        EXPECT_EQ(attribute(copy, "user.second"), "2");

        // A file without attributes gives a copy without attributes; a link is followed and
        // its target's contents and attributes are copied.
        writeFile("/opt/copy/plain", "plain");
        copyFileWithExtendedAttributes("/opt/copy/plain", "/opt/copy/plain-copy");
        EXPECT_EQ(readFile("/opt/copy/plain-copy"), "plain");
        EXPECT_TRUE(attributeNames("/opt/copy/plain-copy").empty());
        fs::create_symlink("source", "/opt/copy/link");
        copyFileWithExtendedAttributes("/opt/copy/link", "/opt/copy/from-link");
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status("/opt/copy/from-link")));
        EXPECT_EQ(readFile("/opt/copy/from-link"), content);
        EXPECT_EQ(attributeNames("/opt/copy/from-link"), expectedNames);
    });
}

TEST(CopyFileWithExtendedAttributes, RefusesAnExistingDestinationAndAMissingSource) {
    SANDBOXED([] {
        writeFile("/opt/copy/source", "new");
        putAttribute("/opt/copy/source", "user.a", "new");
        writeFile("/opt/copy/existing", "old");
        putAttribute("/opt/copy/existing", "user.b", "old");

        std::string message;
        const auto err = captureStderr([&] {
            message = errorOf(
                [] { copyFileWithExtendedAttributes("/opt/copy/source", "/opt/copy/existing"); });
        });
        EXPECT_EQ(message, "couldn't copy file /opt/copy/source -> /opt/copy/existing");
        // One error line carrying the cause, which names the destination.
        EXPECT_TRUE(err.starts_with("ERROR: ")) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_NE(err.find("/opt/copy/existing"), std::string::npos) << err;
        EXPECT_EQ(readFile("/opt/copy/existing"), "old");
        EXPECT_EQ(attributeNames("/opt/copy/existing"), std::vector<std::string>{"user.b"});

        // A missing source is found out before anything is created.
        EXPECT_EQ(captureStderr([] {
                      EXPECT_EQ(errorOf([] {
                                    copyFileWithExtendedAttributes("/opt/copy/missing",
                                                                   "/opt/copy/sub/copy");
                                }),
                                "couldn't retrieve size of extended attributes: /opt/copy/missing");
                  }),
                  "");
        EXPECT_FALSE(fs::exists("/opt/copy/sub"));
    });
}

TEST(CopyFileWithExtendedAttributes, AnAttributeThatCannotBeWrittenRemovesTheCopy) {
    SANDBOXED([] {
        // ramfs keeps no extended attributes at all.
        mountFresh("ramfs", "/tmp/ramfs", nullptr);
        writeFile("/opt/copy/user", "data");
        putAttribute("/opt/copy/user", "user.tolva.mapping.target", "/opt/app/x");
        writeFile("/opt/copy/security", "data");
        putAttribute("/opt/copy/security", "security.appid", "demo.notes");

        const auto err = captureStderr([] {
            EXPECT_EQ(errorOf([] {
                          copyFileWithExtendedAttributes("/opt/copy/user", "/tmp/ramfs/user");
                      }),
                      "couldn't attach user.tolva.mapping.target extended attribute to "
                      "/tmp/ramfs/user");
            EXPECT_EQ(errorOf([] {
                          copyFileWithExtendedAttributes("/opt/copy/security",
                                                         "/tmp/ramfs/sub/security");
                      }),
                      "couldn't attach security.appid extended attribute to "
                      "/tmp/ramfs/sub/security");
        });
        EXPECT_EQ(err, "");
        EXPECT_FALSE(fs::exists("/tmp/ramfs/user"));
        EXPECT_FALSE(fs::exists("/tmp/ramfs/sub/security"));
        EXPECT_TRUE(fs::is_directory("/tmp/ramfs/sub"));
    });
}

TEST(CopyFileWithExtendedAttributes, WarnsWhenTheIncompleteCopyCannotBeRemoved) {
    SANDBOXED([] {
        // Three inodes in all: the root, the directory and the copy; no room is left for an
        // attribute. The directory is append-only, so the copy cannot be unlinked either.
        mountFresh("tmpfs", "/tmp/full", "nr_inodes=3");
        const fs::path directory = R"(/tmp/full/a "b"\c)";
        fs::create_directories(directory);
        const auto chattr = TestSupport::runProgram({"chattr", "+a", directory.string()});
        ASSERT_EQ(chattr.status, 0) << chattr.err;
        writeFile("/opt/copy/source", "data");
        putAttribute("/opt/copy/source", "user.a", "1");

        const fs::path copy = directory / "copy";
        std::string message;
        const auto err = captureStderr([&] {
            message = errorOf([&] { copyFileWithExtendedAttributes("/opt/copy/source", copy); });
        });
        EXPECT_EQ(message,
                  R"(couldn't attach user.a extended attribute to /tmp/full/a "b"\c/copy)");
        ASSERT_TRUE(fs::exists(copy));
        const std::string cause = removalFailure(copy);
        ASSERT_FALSE(cause.empty());
        EXPECT_EQ(err, "WARN: couldn't cleanup file: \"/tmp/full/a \\\"b\\\"\\\\c/copy\"\n"
                       "WARN: " +
                           cause + "\n");
    });
}

TEST(RemapPath, FirstMatchingRulePlacesThePath) {
    using Common::remapPath;
    const std::vector<Common::RemapRule> rules{
        {"/usr/share/applications/", "manifest"},
        {"/usr/share/", "share-first"},
        {"/usr/share/demo/", "data"},
        {"/opt/ab", "ab"},
    };
    EXPECT_EQ(remapPath("/usr/share/applications", rules), fs::path("manifest"));
    EXPECT_EQ(remapPath("/usr/share/applications/", rules), fs::path("manifest"));
    EXPECT_EQ(remapPath("/usr/share/applications/a.desktop", rules),
              fs::path("manifest/a.desktop"));
    // Both /usr/share/ and /usr/share/demo/ match; the earlier rule decides.
    EXPECT_EQ(remapPath("/usr/share/demo/x/y.qml", rules), fs::path("share-first/demo/x/y.qml"));
    EXPECT_EQ(remapPath("/usr/share/demo", rules), fs::path("share-first/demo"));
    // A prefix without the trailing "/" matches on the leading characters alone.
    EXPECT_EQ(remapPath("/opt/abc/x", rules), fs::path("ab/c/x"));
    EXPECT_EQ(remapPath("/usr/bin/tool", rules), fs::path("usr/bin/tool"));
    EXPECT_EQ(remapPath("/usr/sharex", rules), fs::path("usr/sharex"));
    EXPECT_EQ(remapPath("relative/file", rules), fs::path("relative/file"));
    EXPECT_EQ(remapPath("", {{"/", "root"}}), fs::path("root"));
    EXPECT_EQ(remapPath("/etc/x", {}), fs::path("etc/x"));
}
