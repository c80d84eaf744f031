#include "core/tolva/linked_files.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <gtest/gtest.h>
#include <tuple>

namespace fs = std::filesystem;
using namespace TestSupport;

namespace {

struct stat statOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

} // namespace

TEST(LinkInstalledFile, LinksOnlyAFileWithOneNameOnTheSameFileSystem) {
    SANDBOXED([] {
        writeFile("/opt/installed/single", "data");
        const auto replaced = statOf("/opt/installed/single");
        EXPECT_TRUE(Core::Tolva::linkInstalledFile("/opt/installed/single", replaced,
                                                   "/opt/tree/a/single"));
        EXPECT_TRUE(fs::equivalent("/opt/installed/single", "/opt/tree/a/single"));

        // A name elsewhere, a file replaced since it was looked at, another file system.
        writeFile("/opt/installed/twice", "data");
        fs::create_hard_link("/opt/installed/twice", "/opt/installed/elsewhere");
        fs::remove("/opt/installed/single");
        writeFile("/opt/installed/single", "new"); // "a/single" keeps the old inode in use
        writeFile("/usr/installed/other", "data");
        for (const auto& [installed, seen] :
             {std::pair{fs::path("/opt/installed/twice"), statOf("/opt/installed/twice")},
              {"/opt/installed/single", replaced},
              {"/usr/installed/other", statOf("/usr/installed/other")}}) {
            EXPECT_FALSE(Core::Tolva::linkInstalledFile(installed, seen, "/opt/tree/b/file"))
                << installed;
            EXPECT_FALSE(fs::exists("/opt/tree/b/file")) << installed;
            EXPECT_EQ(statOf(installed).st_nlink, installed.filename() == "twice" ? 2u : 1u);
        }
    });
}

TEST(FinishLinkedFiles, AttributesOnlyOnFilesThatNothingOutsideTheTreeNames) {
    SANDBOXED([] {
        const fs::path tree = "/opt/tree";
        // "own" lost its installed name; "kept" and its second name are still named outside
        // the tree, as a file RPM kept is; "plain" needs no "security.appid". That "own" keeps
        // its inode and "plain" gets no attribute is the migration run's check.
        for (const char* name : {"own", "kept", "plain"}) {
            writeFile(fs::path("/opt/installed") / name, std::string("data of ") + name);
            TestSupport::putAttribute(fs::path("/opt/installed") / name, "user.origin", name);
        }
        fs::permissions("/opt/installed/kept", fs::perms(0750));
        Core::Tolva::LinkedFiles linked;
        for (const auto& [name, placed, appId] : {std::tuple{"own", "bin/own", true},
                                                  {"kept", "data/kept", true},
                                                  {"kept", "data/kept-too", false},
                                                  {"plain", "data/plain", false}}) {
            fs::create_directories((tree / placed).parent_path());
            fs::create_hard_link(fs::path("/opt/installed") / name, tree / placed);
            linked.add(placed, appId);
        }
        linked.write(tree);
        fs::remove("/opt/installed/own");
        fs::remove("/opt/installed/plain");
        const auto keptBefore = attributeNames("/opt/installed/kept");

        Core::Tolva::finishLinkedFiles(tree, "the-app");
        EXPECT_EQ(attribute(tree / "bin/own", "security.appid"), "the-app");

        EXPECT_FALSE(fs::equivalent(tree / "data/kept", "/opt/installed/kept"));
        EXPECT_TRUE(fs::equivalent(tree / "data/kept", tree / "data/kept-too"));
        EXPECT_EQ(readFile(tree / "data/kept"), "data of kept");
        EXPECT_EQ(fs::status(tree / "data/kept").permissions(), fs::perms(0750));
        EXPECT_EQ(attribute(tree / "data/kept", "user.origin"), "kept");
        EXPECT_EQ(attribute(tree / "data/kept", "security.appid"), "the-app");
        EXPECT_EQ(attributeNames("/opt/installed/kept"), keptBefore);
        EXPECT_EQ(fs::hard_link_count("/opt/installed/kept"), 1u);

        // Only the package's files are left, and a second finish has nothing to do.
        EXPECT_EQ(snapshot({tree}).size(), 6u); // bin, data and the four names checked above
        Core::Tolva::finishLinkedFiles(tree, "other");
        EXPECT_EQ(attribute(tree / "bin/own", "security.appid"), "the-app");
    });
}
