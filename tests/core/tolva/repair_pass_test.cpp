// The repair pass over real package trees in the sandbox, with mappings in the real system
// directories.

#include "common/filesystem.hpp"
#include "core/tolva/database.hpp"
#include "tests/support/journal_capture.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using Core::Tolva::Database;
using Core::Tolva::PackageData;
using TestSupport::captureStderr;

namespace {

const std::string goodData = "[general]\nid=ID\nversion=VERSION\n[certificate]\nid=k\nsubgroup=s\n";

void writeText(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

// root/id/version with a velmor.pkg (good, or the text given) and, when asked, "current".
fs::path makeVersion(const std::string& id, const std::string& version, bool good = true,
                     bool current = true) {
    const fs::path package = fs::path("/opt/app") / id;
    std::string data = goodData;
    data.replace(data.find("ID"), 2, id);
    data.replace(data.find("VERSION"), 7, version);
    if (!good)
        data = "[general]\nid=" + id + "\n";
    writeText(package / version / "velmor.pkg", data);
    if (current)
        fs::create_directory_symlink(package / version, package / "current");
    return package / version;
}

// A database over the default root; the missing configuration's warning is not the subject.
Database database() {
    fs::remove("/etc/tolva/tolva.conf");
    std::optional<Database> made;
    captureStderr([&] { made.emplace(); });
    return *made;
}

std::vector<std::string> ids(const std::vector<PackageData>& packages) {
    std::vector<std::string> result;
    for (const auto& data : packages)
        result.push_back(data.at("general.id") + "@" + data.at("general.version"));
    return result;
}

} // namespace

TEST(RepairPass, RootScan) {
    SANDBOXED([] {
        fs::remove_all("/opt/app");
        const auto db = database();
        std::vector<PackageData> found;
        EXPECT_EQ(captureStderr([&] { found = db.installedPackages(); }), "");
        EXPECT_TRUE(found.empty());
        EXPECT_FALSE(fs::exists("/opt/app"));

        makeVersion("demo.notes", "1.0-1");
        writeText("/opt/app/stray.txt", "x");
        const auto log = captureStderr([&] { found = db.installedPackages(); });
        EXPECT_EQ(log, "WARN: unexpected entry found in database root directory: "
                       "\"/opt/app/stray.txt\"\nINFO: cleaning up unexpected entry\n");
        EXPECT_EQ(ids(found), std::vector<std::string>{"demo.notes@1.0-1"});
        EXPECT_FALSE(fs::exists("/opt/app/stray.txt"));

        fs::remove_all("/opt/app/demo.notes");
        fs::create_symlink("/opt/nowhere", "/opt/app/dangling");
        makeVersion("real", "2-1");
        fs::rename("/opt/app/real", "/opt/elsewhere");
        fs::remove("/opt/elsewhere/current");
        fs::create_directory_symlink("/opt/elsewhere/2-1", "/opt/elsewhere/current");
        fs::create_directory_symlink("/opt/elsewhere", "/opt/app/linked");
        // A link in the root is never followed: it goes, what it points at stays.
        captureStderr([&] { found = db.installedPackages(); });
        EXPECT_TRUE(found.empty());
        EXPECT_FALSE(fs::exists(fs::symlink_status("/opt/app/dangling")));
        EXPECT_FALSE(fs::exists(fs::symlink_status("/opt/app/linked")));
        EXPECT_TRUE(fs::exists("/opt/elsewhere/2-1/velmor.pkg"));
    });
}

TEST(RepairPass, PreparedUpgrades) {
    SANDBOXED([] {
        const auto db = database();
        // A readable "next" is the package's state.
        const auto next = makeVersion("ready", "2-1", true, false);
        makeVersion("ready", "1-1");
        fs::create_directory_symlink(next, "/opt/app/ready/next");
        EXPECT_EQ(db.readPackageData("/opt/app/ready").at("general.version"), "2-1");

        // An unreadable "next" goes, with its version; "current" is read instead.
        const auto broken = makeVersion("broken", "2-1", false, false);
        makeVersion("broken", "1-1");
        fs::create_directory_symlink(broken, "/opt/app/broken/next");
        PackageData data;
        auto log = captureStderr([&] { data = db.readPackageData("/opt/app/broken"); });
        EXPECT_EQ(log, "WARN: couldn't read package data from the next directory: "
                       "\"/opt/app/broken/next\"\n"
                       "INFO: trying to read data from the current directory\n"
                       "INFO: cleaning up corrupted next directory: \"/opt/app/broken/next\"\n");
        EXPECT_EQ(data.at("general.version"), "1-1");
        EXPECT_FALSE(fs::exists(broken));
        EXPECT_FALSE(fs::exists(fs::symlink_status("/opt/app/broken/next")));

        // A dangling "next" counts as absent and stays.
        makeVersion("dangling", "1-1");
        fs::create_directory_symlink("/opt/app/dangling/9-9", "/opt/app/dangling/next");
        log = captureStderr([&] { data = db.readPackageData("/opt/app/dangling"); });
        EXPECT_EQ(log, "");
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
        const auto version = makeVersion("demo.bad", "1-1", false);
        writeText(version / "manifest/demo.bad.desktop", "[Desktop Entry]\n");
        fs::create_directories("/usr/share/applications");
        fs::create_symlink(version / "manifest/demo.bad.desktop",
                           "/usr/share/applications/demo.bad.desktop");
        writeText("/usr/share/demo.bad/copy", "c");
        Common::setExtendedAttribute("/usr/share/demo.bad/copy", "user.tolva.mapping.target",
                                     (version / "data/copy").string());
        writeText("/usr/share/demo.bad/overwritten", "rpm's own");
        writeText("/usr/share/demo.bad/a", "piece");
        writeText("/usr/share/demo.bad/a b", "whole");
        writeText(version / "symlink.list",
                  "/usr/share/applications/demo.bad.desktop\n/usr/share/demo.bad/copy\n"
                  "/usr/share/demo.bad/overwritten\n/usr/share/demo.bad/a b\n");
        fs::create_directories("/usr/libexec/demo.bad/cache");
        writeText(version / "generated.dir.list", "/usr/libexec/demo.bad\n/var/lib/none\n");
        makeVersion("demo.good", "1-1");

        TestSupport::JournalCapture journal;
        std::vector<PackageData> found;
        const auto log = captureStderr([&] { found = db.installedPackages(); });
        EXPECT_EQ(ids(found), std::vector<std::string>{"demo.good@1-1"});
        const std::string expected =
            "ERROR: couldn't read package data from the current directory: "
            "\"/opt/app/demo.bad/current\"\n"
            "INFO: cleaning up corrupted package mappings: demo.bad\n"
            "WARN: skip removing the generated package symlink, since it was most likely "
            "overwritten via rpm: \"/usr/share/demo.bad/overwritten\"\n"
            "WARN: skip removing the generated package symlink, since it was most likely "
            "overwritten via rpm: \"/usr/share/demo.bad/a\"\n"
            "WARN: skip removing a listed path outside the package's places: \"b\"\n"
            "INFO: cleaning up the generated directories of the corrupted package: demo.bad\n"
            "INFO: cleaning up corrupted package directory: \"/opt/app/demo.bad\"\n"
            "WARN: corrupted package directory found: \"/opt/app/demo.bad\"\n";
        EXPECT_NE(log.find(expected), std::string::npos) << log;
        EXPECT_FALSE(fs::exists("/opt/app/demo.bad"));
        EXPECT_FALSE(fs::exists(fs::symlink_status("/usr/share/applications/demo.bad.desktop")));
        EXPECT_FALSE(fs::exists("/usr/share/demo.bad/copy"));
        EXPECT_TRUE(fs::exists("/usr/share/demo.bad/overwritten"));
        // "a b" was read as two paths, "/usr/share/demo.bad/a" and "b": neither is the file.
        EXPECT_TRUE(fs::exists("/usr/share/demo.bad/a b"));
        EXPECT_TRUE(fs::exists("/usr/share/demo.bad/a"));
        EXPECT_FALSE(fs::exists("/usr/libexec/demo.bad"));

        auto entry = journal.receive();
        EXPECT_EQ(entry["MESSAGE"], "/opt/app/demo.bad");
        EXPECT_EQ(entry["TOLVA_EVENT_CODE"], "14");
        EXPECT_EQ(entry["PRIORITY"], "3");
    });
}

TEST(RepairPass, AMissingMappingListOrCurrentStillRemovesThePackage) {
    SANDBOXED([] {
        const auto db = database();
        const auto version = makeVersion("nolist", "1-1", false);
        fs::create_directories("/usr/libexec/nolist");
        writeText(version / "generated.dir.list", "/usr/libexec/nolist\n");
        makeVersion("nocurrent", "1-1", true, false);
        std::vector<PackageData> found;
        const auto log = captureStderr([&] { found = db.installedPackages(); });
        EXPECT_TRUE(found.empty());
        EXPECT_NE(log.find("WARN: couldn't clean up corrupted package mapping: nolist\n"
                           "WARN: couldn't find package symlink list\n"
                           "INFO: cleaning up the generated directories of the corrupted "
                           "package: nolist\n"),
                  std::string::npos)
            << log;
        EXPECT_EQ(log.find("mappings: nocurrent"), std::string::npos) << log;
        EXPECT_NE(log.find("INFO: cleaning up corrupted package directory: "
                           "\"/opt/app/nocurrent\"\n"),
                  std::string::npos);
        EXPECT_FALSE(fs::exists("/usr/libexec/nolist"));
        EXPECT_FALSE(fs::exists("/opt/app/nolist"));
        EXPECT_FALSE(fs::exists("/opt/app/nocurrent"));
    });
}
