// Damaged and hostile package directories: the repair pass and the mappings never remove,
// create or follow anything outside the places they own. Checked by listing the system trees
// before and after, in the sandbox.

#include "core/tolva/database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Core::Tolva::Database;
using namespace TestSupport;

namespace {

// Every entry below the trees a root process must leave alone.
TestSupport::Snapshot protectedTrees() {
    return TestSupport::snapshot({"/etc", "/usr/bin", "/usr/share/applications", "/usr/libexec",
                                  "/usr/lib/3rdparty", "/opt"},
                                 "/opt/app/");
}

// A package directory whose velmor.pkg lacks a required key, so that the pass removes it and
// everything its lists name that it may remove.
fs::path corruptedPackage(const std::string& id, const std::string& mappings,
                          const std::string& generated) {
    const fs::path version = "/opt/app/" + id + "/1-1";
    writeFile(version / "velmor.pkg", "[general]\nid=" + id + "\nversion=1-1\n");
    writeFile(version / "symlink.list", mappings);
    writeFile(version / "generated.dir.list", generated);
    fs::create_directory_symlink(version, "/opt/app/" + id + "/current");
    return version;
}

fs::path intactPackage(const std::string& id) {
    const fs::path version = "/opt/app/" + id + "/1-1";
    writeFile(version / "velmor.pkg",
              "[general]\nid=" + id + "\nversion=1-1\n[certificate]\nid=k\nsubgroup=regular\n");
    writeFile(version / "symlink.list", "");
    fs::create_directory_symlink(version, "/opt/app/" + id + "/current");
    return version;
}

} // namespace

TEST(Containment, TheRepairPassNeverReachesOutOfItsPlaces) {
    SANDBOXED([] {
        // What stands in system places: a system file and link, another package's mapping.
        writeFile("/etc/victim.conf", "system");
        fs::create_directories("/usr/share/applications");
        fs::create_symlink("/usr/bin/true", "/usr/bin/victim-tool");
        fs::create_symlink("/opt/app/other/1-1/bin/other", "/usr/bin/other");
        writeFile("/usr/libexec/victim/keep", "system");
        writeFile("/opt/data/file", "not the database's");
        intactPackage("other");

        // Lists naming system files, other packages' mappings, dot-dot escapes and relative
        // paths; generated directories that are system directories or escape them.
        corruptedPackage(
            "escape",
            "/etc/victim.conf\n/usr/bin/victim-tool\n/usr/bin/other\n"
            "/usr/bin/../../etc/victim.conf\nrelative/victim\n/usr/libexec/victim/keep\n",
            "/etc\n/usr/share/applications\n/usr/libexec/victim\n"
            "/usr/share/escape/../../../etc\n/opt/data\n/usr/bin/.\n");
        // "current" and "next" that lead out of their package directory, with lists there.
        writeFile("/opt/data/symlink.list", "/usr/bin/victim-tool\n");
        writeFile("/opt/data/velmor.pkg", "[general]\nid=x\n");
        fs::create_directories("/opt/app/out-current");
        fs::create_directory_symlink("/opt/data", "/opt/app/out-current/current");
        intactPackage("out-next");
        fs::create_directory_symlink("/opt/data", "/opt/app/out-next/next");
        // A link in the root, a loop, and files that are FIFOs where regular files belong.
        fs::create_directory_symlink("/etc", "/opt/app/link-to-etc");
        fs::create_directories("/opt/app/loop");
        fs::create_symlink("/opt/app/loop/current", "/opt/app/loop/current");
        fs::create_directories("/opt/app/fifo/1-1");
        ASSERT_EQ(::mkfifo("/opt/app/fifo/1-1/velmor.pkg", 0644), 0);
        fs::create_directory_symlink("/opt/app/fifo/1-1", "/opt/app/fifo/current");
        const auto fifoList = corruptedPackage("fifo-list", "", "");
        fs::remove(fifoList / "symlink.list");
        ASSERT_EQ(::mkfifo((fifoList / "symlink.list").c_str(), 0644), 0);

        const auto before = protectedTrees();
        std::vector<std::string> listed;
        const auto log = captureStderr([&] {
            for (const auto& data : Database().installedPackages())
                listed.push_back(data.at("general.id"));
        });
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(listed, (std::vector<std::string>{"other", "out-next"})) << log;
        EXPECT_EQ(TestSupport::changes(before, protectedTrees()), "") << log;
        for (const char* gone :
             {"escape", "out-current", "link-to-etc", "loop", "fifo", "fifo-list"})
            EXPECT_FALSE(fs::exists(fs::symlink_status(fs::path("/opt/app") / gone))) << gone;
        EXPECT_FALSE(fs::exists(fs::symlink_status("/opt/app/out-next/next")));
        EXPECT_NE(log.find("WARN: ignoring a link that leads out of its package directory: "
                           "\"/opt/app/out-next/next\"\n"),
                  std::string::npos)
            << log;
    });
}

TEST(Containment, AnUnreadableVelmorIsKeptAndAnOverrideIsRefused) {
    SANDBOXED([] {
        // Unreadable for the reader, not malformed: the package is kept.
        const auto version = intactPackage("private");
        fs::permissions(version / "velmor.pkg", fs::perms(0600));
        for (const fs::path directory : {fs::path("/opt/app"), version.parent_path(), version})
            fs::permissions(directory, fs::perms(0777));
        const pid_t child = ::fork();
        if (child == 0) {
            const bool dropped = ::setgid(65534) == 0 && ::setuid(65534) == 0;
            std::string log;
            const auto found = [&] {
                std::vector<Core::Tolva::PackageData> data;
                log = captureStderr([&] { data = Database().installedPackages(); });
                return data.size();
            }();
            ::_exit(dropped && found == 0 && log.find("keeping it") != std::string::npos ? 0 : 1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(fs::exists(version / "velmor.pkg"));

        // A system link at a mapping's place is not this package's leftover.
        fs::create_symlink("/usr/bin/true", "/usr/bin/victim-tool");
        const fs::path tool = "/opt/app/tool/1-1";
        writeFile(tool / "bin/victim-tool", "tool");
        const auto log = captureStderr([&] {
            EXPECT_THROW(Core::Tolva::createMappings(tool, {"tool", {}, {}}), Common::Error);
        });
        EXPECT_NE(log.find("attempt to override system file with package mapping: "
                           "/usr/bin/victim-tool"),
                  std::string::npos)
            << log;
        EXPECT_EQ(fs::read_symlink("/usr/bin/victim-tool"), "/usr/bin/true");
    });
}

TEST(Containment, ConfiguredDirectoriesThatAreNoPlaceForTheDatabase) {
    SANDBOXED([] {
        // A link standing for either of them, as a package could ship it, is followed by
        // neither the migration nor the repair pass.
        writeFile("/tmp/victim/keep/file", "kept");
        writeFile("/tmp/victim/loose", "kept");
        for (const fs::path directory : {"/opt/app", "/opt/tolva/tmp"}) {
            SCOPED_TRACE(directory);
            fs::create_directories(directory.parent_path());
            fs::create_directory_symlink("/tmp/victim", directory);
            const Database database;
            const std::string refusal = "database directory is a link: " + directory.string();
            EXPECT_EQ(TestSupport::errorOf([&] { database.migrateFromRpm(); }), refusal);
            EXPECT_EQ(TestSupport::errorOf([&] { database.installedPackages(); }), refusal);
            EXPECT_EQ(TestSupport::readFile("/tmp/victim/keep/file"), "kept");
            EXPECT_EQ(TestSupport::readFile("/tmp/victim/loose"), "kept");
            fs::remove(directory);
        }

        // Each of the two, and a place inside the other's default.
        for (const auto& [key, inOther] : {std::pair{"root_directory", "/opt/tolva/tmp/apps"},
                                           {"temp_directory", "/opt/app/tmp"}})
            for (const std::string directory :
                 {"", "/", "relative/apps", "/opt", "/usr/share", "/usr/bin", "/etc/av-launcher",
                  "/opt/app/../../etc", "/proc/apps", inOther}) {
                SCOPED_TRACE(std::string(key) + "=" + directory);
                writeFile("/etc/tolva/tolva.conf",
                          "[database]\n" + std::string(key) + "=" + directory + "\n");
                std::optional<Database> database;
                EXPECT_EQ(captureStderr([&] { database.emplace(); }).substr(0, 50),
                          "WARN: ignoring an unsafe directory in config file:");
                EXPECT_EQ(database->rootDirectory(), "/opt/app");
                EXPECT_EQ(database->tempDirectory(), "/opt/tolva/tmp");
            }
    });
}
