// The package database's files and version directories, and the repair pass over real package
// trees in the sandbox, with mappings in the real system directories. Damaged and hostile
// package directories: the repair pass and the mappings never remove, create or follow anything
// outside the places they own, checked by listing the system trees before and after.

#include "common/error.hpp"
#include "common/filesystem.hpp"
#include "core/tolva/database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/journal_capture.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Core::Tolva::Database;
using Core::Tolva::PackageData;
using namespace TestSupport;

namespace {

// root/id/version with a velmor.pkg (good, or lacking its version) and, when asked, "current".
fs::path makeVersion(const std::string& id, const std::string& version, bool good = true,
                     bool current = true) {
    const fs::path package = fs::path("/opt/app") / id;
    writeFile(package / version / "velmor.pkg",
              "[general]\nid=" + id + "\n" +
                  (good ? "version=" + version + "\n[certificate]\nid=k\nsubgroup=s\n" : ""));
    if (current)
        fs::create_directory_symlink(package / version, package / "current");
    return package / version;
}

// A package whose velmor.pkg lacks its version, with the lists given.
fs::path corruptedPackage(const std::string& id, const std::string& mappings,
                          const std::string& generated) {
    const auto version = makeVersion(id, "1-1", false);
    writeFile(version / "symlink.list", mappings);
    writeFile(version / "generated.dir.list", generated);
    return version;
}

// Every entry below the trees a root process must leave alone.
Snapshot protectedTrees() {
    return snapshot({"/etc", "/usr/bin", "/usr/share/applications", "/usr/libexec",
                     "/usr/lib/3rdparty", "/opt"},
                    "/opt/app/");
}

// A database over the default root, without the missing configuration's warning.
Database database() {
    writeFile("/etc/tolva/tolva.conf", "");
    return Database();
}

// What a repair pass over `db` logs, and the packages it finds as "id@version", sorted.
std::pair<std::string, std::vector<std::string>> repairPass(const Database& db) {
    std::vector<std::string> ids;
    const auto log = captureStderr([&] {
        for (const auto& data : db.installedPackages())
            ids.push_back(data.at("general.id") + "@" + data.at("general.version"));
    });
    std::sort(ids.begin(), ids.end());
    return {log, ids};
}

} // namespace

TEST(Database, AVersionDirectoryIsMovedIntoPlaceButNeverOverAnExistingOne) {
    SANDBOXED([] {
        const Database database = ::database();
        const auto move = [&](const std::string& version) {
            return database.createVersionedDirectory("demo.notes", version,
                                                     "/opt/tolva/tmp/demo.notes");
        };
        writeFile("/opt/tolva/tmp/demo.notes/bin/notes", "#!/bin/sh\n");
        EXPECT_EQ(move("1.2.3-1"), "/opt/app/demo.notes/1.2.3-1");
        EXPECT_EQ(readFile("/opt/app/demo.notes/1.2.3-1/bin/notes"), "#!/bin/sh\n");
        EXPECT_EQ(errorOf([&] { move("2-1"); }, Common::ErrorCode::Internal),
                  "extracted package directory doesn't exist: /opt/tolva/tmp/demo.notes");
        // A version directory that is already there, with files in it, is not replaced.
        writeFile("/opt/tolva/tmp/demo.notes/bin/notes", "new");
        EXPECT_EQ(errorOf([&] { move("1.2.3-1"); }),
                  "couldn't create versioned directory: /opt/app/demo.notes/1.2.3-1");
        EXPECT_EQ(readFile("/opt/app/demo.notes/1.2.3-1/bin/notes"), "#!/bin/sh\n");
    });
}

TEST(PackageDataFile, WrittenInItsFixedOrderAndReadBackOrRefused) {
    const TestSupport::Scratch directory;
    const PackageData extra{{"certificate.subgroup", "regular"},
                            {"certificate.id", "a1b2"},
                            {"applicationdata.setupdata", "{\"a\": 1}"}};
    Database::writePackageDataFile({"demo.notes", "Demo Org", "Notes"}, "1.2.3-1", extra,
                                   directory.path());
    const auto file = directory / "velmor.pkg";
    EXPECT_EQ(readFile(file), "[general]\nappname=Notes\nid=demo.notes\norgname=Demo Org\n"
                              "version=1.2.3-1\n[applicationdata]\nsetupdata={\"a\": 1}\n"
                              "[certificate]\nid=a1b2\nsubgroup=regular\n");
    EXPECT_EQ(Database::readPackageDataFile(file).at("applicationdata.setupdata"), "{\"a\": 1}");

    const std::pair<std::string, std::string> bad[] = {
        {"[general]\nid=x\nversion=1\n[certificate]\nsubgroup=s\n",
         "package doesn't contains required key: certificate.id"},
        {"[general]\nid=x\n[certificate]\nsubgroup=s\n",
         "package doesn't contains required key: general.version"},
        {"[general]\nid=x\nid=y\n", "couldn't parse velmor.pkg file: " + file.string()},
    };
    const auto refusal = [&] {
        return errorOf([&] { Database::readPackageDataFile(file); },
                       Common::ErrorCode::CorruptedInstalledPackage);
    };
    for (const auto& [text, message] : bad) {
        writeFile(file, text);
        EXPECT_EQ(refusal(), message);
    }
    fs::remove(file);
    EXPECT_EQ(refusal(), "velmor.pkg doesn't exist: " + file.string());

    // A full disk cuts the file short: that is no velmor.pkg written.
    SANDBOXED([] {
        TestSupport::mountFresh("tmpfs", "/tmp/full", "size=4k");
        writeFile("/tmp/full/filler", std::string(4096, 'x'));
        EXPECT_EQ(errorOf([] {
                      Database::writePackageDataFile({"x", {}, {}}, "1", {}, "/tmp/full");
                  }),
                  "couldn't create velmor.pkg file /tmp/full/velmor.pkg");
    });
}

// Editors on some systems start a UTF-8 text with a byte-order mark; a velmor.pkg that does
// must not read as corrupted, or the repair pass deletes the package.
TEST(DatabaseFiles, ALeadingByteOrderMarkIsSkipped) {
    const TestSupport::Scratch directory;
    writeFile(directory / "tolva.conf", "\xEF\xBB\xBF[database]\nroot_directory=/srv/apps\n");
    writeFile(directory / "velmor.pkg",
              "\xEF\xBB\xBF[general]\nid=a\nversion=1\n[certificate]\nid=c\nsubgroup=s\n");
    std::optional<Database> database;
    EXPECT_EQ(captureStderr([&] { database.emplace(directory / "tolva.conf"); }), "");
    EXPECT_EQ(database->rootDirectory(), "/srv/apps");
    EXPECT_EQ(Database::readPackageDataFile(directory / "velmor.pkg").at("general.id"), "a");
}

TEST(RepairPass, RootScanAndPreparedUpgrades) {
    SANDBOXED([] {
        fs::remove_all("/opt/app");
        const auto db = database();
        EXPECT_EQ(captureStderr([&] { EXPECT_TRUE(db.installedPackages().empty()); }), "");
        EXPECT_FALSE(fs::exists("/opt/app"));

        // A readable "next" is the package's state.
        const auto next = makeVersion("ready", "2-1", true, false);
        makeVersion("ready", "1-1");
        fs::create_directory_symlink(next, "/opt/app/ready/next");
        EXPECT_EQ(db.readPackageData("/opt/app/ready").at("general.version"), "2-1");

        // An unreadable "next" goes, with its version (a relative target is the package's own,
        // not the working directory's); "current" is read instead.
        const auto broken = makeVersion("broken", "2-1", false, false);
        makeVersion("broken", "1-1");
        fs::create_directory_symlink("2-1", "/opt/app/broken/next");
        fs::create_directories("/opt/workdir/2-1");
        fs::current_path("/opt/workdir");
        PackageData data;
        auto log = captureStderr([&] { data = db.readPackageData("/opt/app/broken"); });
        EXPECT_EQ(log, "WARN: couldn't read package data from the next directory: "
                       "\"/opt/app/broken/next\"\n"
                       "INFO: trying to read data from the current directory\n"
                       "INFO: cleaning up corrupted next directory: \"/opt/app/broken/next\"\n");
        EXPECT_EQ(data.at("general.version"), "1-1");
        EXPECT_FALSE(fs::exists(broken));
        EXPECT_FALSE(fs::exists(fs::symlink_status("/opt/app/broken/next")));
        EXPECT_TRUE(fs::exists("/opt/workdir/2-1"));

        // A dangling "next" counts as absent and stays.
        makeVersion("dangling", "1-1");
        fs::create_directory_symlink("/opt/app/dangling/9-9", "/opt/app/dangling/next");
        EXPECT_EQ(captureStderr([&] { data = db.readPackageData("/opt/app/dangling"); }), "");
        EXPECT_TRUE(fs::is_symlink("/opt/app/dangling/next"));

        // A plain directory as "next" is removed, nothing else.
        makeVersion("plain", "1-1");
        fs::create_directories("/opt/app/plain/next/sub");
        captureStderr([&] { data = db.readPackageData("/opt/app/plain"); });
        EXPECT_EQ(data.at("general.version"), "1-1");
        EXPECT_FALSE(fs::exists("/opt/app/plain/next"));
        EXPECT_TRUE(fs::exists("/opt/app/plain/1-1/velmor.pkg"));
    });
}

TEST(RepairPass, AnUnreadablePackageGoesWithItsMappingsAndGeneratedDirectories) {
    SANDBOXED([] {
        const auto db = database();
        const auto version =
            corruptedPackage("demo.bad",
                             "/usr/share/applications/demo.bad.desktop\n/usr/share/demo.bad/copy\n"
                             "/usr/share/demo.bad/overwritten\n/usr/share/demo.bad/a b\n",
                             "/usr/libexec/demo.bad\n/var/lib/none\n");
        fs::create_directories("/usr/share/applications");
        fs::create_symlink(version / "x", "/usr/share/applications/demo.bad.desktop");
        writeFile("/usr/share/demo.bad/copy", "c");
        Common::setExtendedAttribute("/usr/share/demo.bad/copy", "user.tolva.mapping.target",
                                     (version / "data/copy").string());
        writeFile("/usr/share/demo.bad/overwritten", "rpm's own");
        writeFile("/usr/share/demo.bad/a", "piece");
        writeFile("/usr/share/demo.bad/a b", "whole");
        fs::create_directories("/usr/libexec/demo.bad/cache");
        makeVersion("demo.good", "1-1");
        // Without a mapping list, without generated directories.
        fs::create_directories("/usr/libexec/nolist");
        writeFile(makeVersion("nolist", "1-1", false) / "generated.dir.list",
                  "/usr/libexec/nolist\n");
        writeFile(makeVersion("nogenerated", "1-1", false) / "symlink.list", "");

        TestSupport::JournalCapture journal;
        const auto [log, found] = repairPass(db);
        EXPECT_EQ(found, std::vector<std::string>{"demo.good@1-1"});
        const std::string skipped = "WARN: skip removing the generated package symlink, since it "
                                    "was most likely overwritten via rpm: ";
        const std::string expected[] = {
            "ERROR: couldn't read package data from the current directory: "
            "\"/opt/app/demo.bad/current\"\n"
            "INFO: cleaning up corrupted package mappings: demo.bad\n" +
                skipped + "\"/usr/share/demo.bad/overwritten\"\n" + skipped +
                "\"/usr/share/demo.bad/a\"\n"
                "WARN: skip removing a listed path outside the package's places: \"b\"\n"
                "INFO: cleaning up the generated directories of the corrupted package: demo.bad\n"
                "INFO: cleaning up corrupted package directory: \"/opt/app/demo.bad\"\n"
                "WARN: corrupted package directory found: \"/opt/app/demo.bad\"\n",
            "WARN: couldn't clean up corrupted package mapping: nolist\n"
            "WARN: couldn't find package symlink list\n"
            "INFO: cleaning up the generated directories of the corrupted package: nolist\n",
            "INFO: cleaning up corrupted package mappings: nogenerated\n"
            "INFO: cleaning up the generated directories of the corrupted package: nogenerated\n"
            "INFO: cleaning up corrupted package directory: \"/opt/app/nogenerated\"\n",
        };
        for (const auto& lines : expected)
            EXPECT_NE(log.find(lines), std::string::npos) << lines << "\nin:\n" << log;
        for (const char* gone : {"/opt/app/demo.bad", "/usr/share/applications/demo.bad.desktop",
                                 "/usr/share/demo.bad/copy", "/usr/libexec/demo.bad",
                                 "/opt/app/nolist", "/usr/libexec/nolist", "/opt/app/nogenerated"})
            EXPECT_FALSE(fs::exists(fs::symlink_status(gone))) << gone;
        // "a b" was read as two paths, "/usr/share/demo.bad/a" and "b": neither is the file.
        for (const char* kept : {"/usr/share/demo.bad/overwritten", "/usr/share/demo.bad/a b",
                                 "/usr/share/demo.bad/a"})
            EXPECT_TRUE(fs::exists(kept)) << kept;

        const auto entry = journal.receive();
        EXPECT_EQ(entry.at("TOLVA_EVENT_CODE"), "14");
        EXPECT_TRUE(entry.at("MESSAGE").starts_with("/opt/app/")) << entry.at("MESSAGE");
    });
}

TEST(RepairPass, CleanUpFailuresAreWarnedAboutAndPassedOver) {
    SANDBOXED([] {
        const auto db = database();
        // Nothing right inside the root, the package "locked" or the mapping directory can be
        // unlinked; what lies deeper can.
        TestSupport::mountFresh("tmpfs", "/opt/app");
        writeFile("/opt/app/stray", "x");
        const auto bad = makeVersion("bad", "1-1", false);
        TestSupport::mountFresh("tmpfs", "/usr/share/bad");
        fs::create_symlink(bad / "x", "/usr/share/bad/mapping");
        fs::create_directories("/usr/share/bad/generated/inside");
        writeFile(bad / "symlink.list", "/usr/share/bad/mapping\n");
        writeFile(bad / "generated.dir.list", "/usr/share/bad/generated\n");
        makeVersion("locked", "1-1");
        makeVersion("locked", "2-1", false, false);
        fs::create_directory_symlink("2-1", "/opt/app/locked/next");
        for (const char* directory : {"/opt/app", "/opt/app/locked", "/usr/share/bad"})
            TestSupport::makeAppendOnly(directory);

        const auto [log, found] = repairPass(db);
        EXPECT_EQ(found, std::vector<std::string>{"locked@1-1"});
        const auto cause = [](const fs::path& path, bool all = true) {
            return "WARN: " + TestSupport::removalFailure(path, all) + "\n";
        };
        const std::string expected[] = {
            "WARN: unexpected entry found in database root directory: \"/opt/app/stray\"\n"
            "INFO: cleaning up unexpected entry\nWARN: couldn't clean up unexpected entry\n" +
                cause("/opt/app/stray", false),
            "INFO: cleaning up corrupted package mappings: bad\n"
            "WARN: couldn't remove the generated package mapping: \"/usr/share/bad/mapping\"\n"
            "INFO: cleaning up the generated directories of the corrupted package: bad\n"
            "WARN: couldn't remove the generated package directory: "
            "\"/usr/share/bad/generated\"\n"
            "WARN: couldn't clean up corrupted package directory: \"/opt/app/bad\"\n" +
                cause("/opt/app/bad") +
                "WARN: corrupted package directory found: \"/opt/app/bad\"\n",
            "INFO: cleaning up corrupted next directory: \"/opt/app/locked/next\"\n" +
                cause("/opt/app/locked/2-1") +
                "WARN: couldn't cleanup corrupted package version: \"/opt/app/locked/2-1\"\n" +
                cause("/opt/app/locked/next") +
                "WARN: couldn't cleanup corrupted next symlink: \"/opt/app/locked/next\"\n",
        };
        for (const auto& lines : expected)
            EXPECT_NE(log.find(lines), std::string::npos) << lines << "\nin:\n" << log;
        EXPECT_TRUE(fs::is_empty("/opt/app/bad"));
        EXPECT_TRUE(fs::is_empty("/usr/share/bad/generated"));
    });
}

TEST(Containment, TheRepairPassNeverReachesOutOfItsPlaces) {
    SANDBOXED([] {
        // What stands in system places: a system file and link, another package's mapping.
        writeFile("/etc/victim.conf", "system");
        fs::create_directories("/usr/share/applications");
        fs::create_symlink("/usr/bin/true", "/usr/bin/victim-tool");
        fs::create_symlink("/opt/app/other/1-1/bin/other", "/usr/bin/other");
        writeFile("/usr/libexec/victim/keep", "system");
        writeFile("/opt/data/file", "not the database's");
        makeVersion("other", "1-1");

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
        makeVersion("out-next", "1-1");
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

        const auto db = database();
        const auto before = protectedTrees();
        const auto [log, found] = repairPass(db);
        EXPECT_EQ(found, (std::vector<std::string>{"other@1-1", "out-next@1-1"})) << log;
        EXPECT_EQ(changes(before, protectedTrees()), "") << log;
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
        const auto version = makeVersion("private", "1-1");
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
            EXPECT_EQ(errorOf([&] { database.migrateFromRpm(); }), refusal);
            EXPECT_EQ(errorOf([&] { database.installedPackages(); }), refusal);
            EXPECT_EQ(readFile("/tmp/victim/keep/file"), "kept");
            EXPECT_EQ(readFile("/tmp/victim/loose"), "kept");
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
