// Upgrades, removal and the start-up pass over real package trees in the sandbox, with their
// mappings in the real system directories.

#include "core/tolva/database.hpp"
#include "platform/package_signatures/database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/journal_capture.hpp"
#include "tests/support/sandboxed_test.hpp"
#include "tests/support/test_pki.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace fs = std::filesystem;
using Common::ErrorCode;
using Core::Tolva::Database;
using Core::Tolva::Package;
using namespace TestSupport;
using namespace std::string_literals;

namespace {

const fs::path demo = "/opt/app/demo";

Package package(const std::string& version, const std::string& id = "demo") {
    return Package(id, version, {}, std::nullopt, std::nullopt);
}

// root/id/version holding `files` (path below the version directory: content), velmor.pkg and
// a generated directory list naming /usr/share/<id>.
fs::path makeVersion(const std::string& version, const std::map<std::string, std::string>& files,
                     const std::string& id = "demo") {
    const fs::path directory = fs::path("/opt/app") / id / version;
    for (const auto& [path, content] : files)
        writeFile(directory / path, content);
    fs::create_directories(directory);
    Database::writePackageDataFile(package(version, id),
                                   {{"certificate.id", "k"}, {"certificate.subgroup", "regular"}},
                                   directory);
    writeFile(directory / "generated.dir.list", "/usr/share/" + id + "\n");
    return directory;
}

// Version 1.0-1 installed and mapped: /usr/bin/demo and /usr/share/demo/old.txt.
void installFirstVersion(const std::string& id = "demo") {
    const auto version = makeVersion("1.0-1", {{"bin/" + id, "v1"}, {"data/old.txt", "old"}}, id);
    fs::create_directory_symlink(version, version.parent_path() / "current");
    Core::Tolva::createMappings(version, package("1.0-1", id));
}

// Version 2.0-1 prepared as "next": /usr/bin/demo and /usr/share/demo/new.txt.
void prepareSecondVersion(const std::string& id = "demo") {
    const auto version = makeVersion("2.0-1", {{"bin/" + id, "v2"}, {"data/new.txt", "new"}}, id);
    fs::create_directory_symlink(version, version.parent_path() / "next");
}

// The message of the error of `code` that `body` throws, and what it logged on the way.
std::pair<std::string, std::string> failure(const std::function<void()>& body,
                                            ErrorCode code = ErrorCode::Filesystem) {
    std::string message;
    const auto log = captureStderr([&] { message = errorOf(body, code); });
    return {message, log};
}

// A database over the default root, without the missing configuration's warning.
Database database() {
    writeFile("/etc/tolva/tolva.conf", "");
    return Database();
}

} // namespace

TEST(Upgrade, PackageDirectoriesUpgradeChecksCompletionAndRemoval) {
    SANDBOXED([] {
        const auto db = database();
        installFirstVersion();
        EXPECT_EQ(db.packageDirectory("/demo"), demo);
        // A link in the root is no package: what it leads to is never upgraded or removed.
        fs::create_directories("/etc/away/1.0-1");
        fs::create_directory_symlink("/etc/away/1.0-1", "/etc/away/current");
        fs::create_directory_symlink("/etc/away", "/opt/app/linked");
        for (const std::string id : {"absent", "linked"})
            EXPECT_EQ(errorOf([&] { db.packageDirectory(id); }, ErrorCode::PackageNotExist),
                      "couldn't find package directory: " + id);
        // Ids that would name the root itself or leave it.
        for (const std::string id : {"", "/", "..", "/../etc", "demo/current"})
            errorOf([&] { db.packageDirectory(id); }, ErrorCode::BadPackage);
        fs::create_directories("/opt/app/headless/1.0-1");
        EXPECT_EQ(
            failure([&] { db.packageDirectory("headless"); }, ErrorCode::CorruptedInstalledPackage),
            std::pair("couldn't find current directory of headless package"s,
                      "INFO: cleaning up corrupted package directory: \"/opt/app/headless\"\n"s));
        EXPECT_FALSE(fs::exists("/opt/app/headless"));

        // "next" absent, a plain directory, a link whose version is gone: nothing is switched,
        // and what stood as "next" is gone.
        for (const auto& makeNext : std::vector<std::function<void()>>{
                 [] {},
                 [] { writeFile(demo / "next/velmor.pkg", "[general]\n"); },
                 [] { fs::create_directory_symlink(demo / "2.0-1", demo / "next"); },
             }) {
            makeNext();
            EXPECT_EQ(failure([&] { db.completeUpgrade(package("2.0-1")); }, ErrorCode::Internal),
                      std::pair("attempt to complete non-existent update for demo package"s, ""s));
            EXPECT_EQ(entries(demo), (std::set<std::string>{"current", "1.0-1"}));
            EXPECT_EQ(readFile("/usr/bin/demo"), "v1");
        }

        // A prepared upgrade is the measure; the installed version is not consulted.
        prepareSecondVersion();
        for (const char* version : {"2.0-1", "0.9-7"})
            EXPECT_EQ(errorOf([&] { db.checkUpgrade(package(version)); },
                              ErrorCode::UpgradeAlreadyPrepared),
                      "package upgrade to version " + std::string(version) + " already prepared");
        EXPECT_NO_THROW(db.checkUpgrade(package("2.0-2")));

        // A prepared version that librpm cannot parse (an empty name) is removed, then the
        // installed version decides.
        fs::remove(demo / "next");
        fs::create_directory_symlink(demo / "2.0-1/", demo / "next");
        EXPECT_EQ(failure([&] { db.checkUpgrade(package("0.9-7")); }, ErrorCode::DowngradeAttempt),
                  std::pair("attempt to downgrade package from 1.0-1 to 0.9-7 version"s,
                            "WARN: corrupted package upgrade found: \"/opt/app/demo/2.0-1/\"\n"
                            "INFO: cleaning up corrupted package upgrade\n"s));
        EXPECT_FALSE(present(demo / "next"));
        EXPECT_FALSE(present(demo / "2.0-1"));
        EXPECT_TRUE(fs::exists(demo / "1.0-1/velmor.pkg"));
        // Only a version of the package itself goes with a corrupted link.
        fs::create_directories("/opt/elsewhere");
        fs::create_directory_symlink("/opt/elsewhere/", demo / "next");
        captureStderr([&] { db.checkUpgrade(package("1.0-1")); });
        EXPECT_FALSE(present(demo / "next"));
        EXPECT_TRUE(fs::exists("/opt/elsewhere"));

        // Without a mapping list the removal says so; the generated directories and the
        // package go, with what the application made there at run time.
        installFirstVersion("other");
        writeFile("/usr/share/other/made-at-run-time", "x");
        fs::remove("/opt/app/other/1.0-1/symlink.list");
        EXPECT_EQ(captureStderr([&] { db.removePackage("other"); }),
                  "WARN: couldn't remove package mappings: other\n"
                  "WARN: couldn't find package symlink list\n");
        EXPECT_FALSE(fs::exists("/opt/app/other"));
        EXPECT_FALSE(present("/usr/share/other"));

        // An installed version that cannot be parsed takes the package with it.
        fs::remove(demo / "current");
        fs::create_directory_symlink(demo / "1.0-1/", demo / "current");
        EXPECT_EQ(failure([&] { db.checkUpgrade(package("1.0-1")); },
                          ErrorCode::CorruptedInstalledPackage)
                      .first,
                  "couldn't parse actual package version: ");
        EXPECT_FALSE(fs::exists(demo));
        EXPECT_FALSE(present("/usr/bin/demo"));
    });
}

// The upgrades an interrupted install left, finished at the next start; those that cannot be
// switched or mapped.
TEST(StartUpPass, CompletesUpgradesRemovesOutdatedVersionsAndCompletesMetadata) {
    SANDBOXED([] {
        fs::remove_all("/opt/app");
        const auto db = database();
        EXPECT_EQ(captureStderr([&] { db.startUpPass(); }),
                  "INFO: database root directory doesn't exist\n");

        installFirstVersion();
        prepareSecondVersion();
        writeFile(demo / "stray", "x");
        installFirstVersion("old");
        makeVersion("0.5-1", {}, "old");
        // A switch that fails keeps both versions.
        installFirstVersion("stuck");
        prepareSecondVersion("stuck");
        const auto mount = TestSupport::runProgram(
            {"mount", "--bind", "-o", "ro", "/opt/app/stuck", "/opt/app/stuck"});
        ASSERT_EQ(mount.status, 0) << mount.err;
        const auto stuck = failure([&] { db.completeUpgrade(package("2.0-1", "stuck")); });
        EXPECT_EQ(stuck.first, "couldn't rename next directory to current for stuck package");
        EXPECT_NE(stuck.second.find("Read-only file system"), std::string::npos) << stuck.second;
        // A new version whose mapping meets a system file leaves neither version mapped nor
        // current, for this pass to remove.
        installFirstVersion("clash");
        prepareSecondVersion("clash");
        writeFile("/opt/app/clash/2.0-1/manifest/clash.desktop", "[Desktop Entry]\n");
        writeFile("/usr/share/applications/clash.desktop", "a system file");
        EXPECT_EQ(failure([&] { db.completeUpgrade(package("2.0-1", "clash")); }).first,
                  "couldn't create mappings");
        for (const char* gone : {"/opt/app/clash/current", "/opt/app/clash/next", "/usr/bin/clash",
                                 "/usr/share/clash/old.txt", "/usr/share/clash/new.txt"})
            EXPECT_FALSE(present(gone)) << gone;

        // Versions whose metadata lacks the certificate, and the names, which the device knows.
        const auto& pki = TestSupport::TestPki::shared();
        const auto certificate =
            *PackageSignatures::Certificate::fromPem(readFile(pki.certificate("developer")));
        PackageSignatures::Database(PackageSignatures::Database::defaultPath)
            .setPackageCertificate("known", PackageSignatures::DeveloperGroup, certificate);
        writeFile("/usr/share/applications/known.desktop",
                  "[Desktop Entry]\nName=K\n[X-Tolva-Application]\nOrganizationName=org.known\n"
                  "ApplicationName=Known\n");
        for (const char* id : {"known", "unknown"}) {
            const fs::path version = fs::path("/opt/app") / id / "1-1";
            writeFile(version / "velmor.pkg",
                      "[general]\nid=" + std::string(id) + "\nversion=1-1\n[extra]\nkept=yes\n");
            fs::create_directory_symlink(version, version.parent_path() / "current");
        }

        TestSupport::JournalCapture journal;
        const auto log = captureStderr([&] { db.startUpPass(); });
        for (const char* line :
             {"INFO: package demo successfully upgraded\n",
              "ERROR: couldn't rename next symlink to the current: \"/opt/app/stuck/next\"\n",
              "WARN: package unknown doesn't have developer certificate\n"})
            EXPECT_NE(log.find(line), std::string::npos) << line << log;

        EXPECT_EQ(entries(demo), (std::set<std::string>{"current", "2.0-1"}));
        EXPECT_EQ(readFile("/usr/bin/demo"), "v2");
        EXPECT_FALSE(present("/usr/share/demo/old.txt"));
        std::vector<std::string> upgrades;
        while (journal.pending())
            if (auto entry = journal.receive(); entry["TOLVA_EVENT_CODE"] == "13")
                upgrades.push_back(entry["MESSAGE"]);
        EXPECT_EQ(upgrades, std::vector<std::string>{"package demo successfully upgraded"});

        EXPECT_EQ(entries("/opt/app/old"), (std::set<std::string>{"current", "1.0-1"}));
        EXPECT_EQ(fs::read_symlink("/opt/app/stuck/current"), "/opt/app/stuck/1.0-1");
        EXPECT_EQ(entries("/opt/app/stuck"),
                  (std::set<std::string>{"current", "next", "1.0-1", "2.0-1"}));
        EXPECT_FALSE(fs::exists("/opt/app/clash"));
        EXPECT_EQ(readFile("/usr/share/applications/clash.desktop"), "a system file");

        EXPECT_EQ(readFile("/opt/app/known/current/velmor.pkg"),
                  "[general]\nappname=Known\nid=known\norgname=org.known\nversion=1-1\n"
                  "[certificate]\nid=" +
                      certificate.keyId() + "\nsubgroup=regular\n[extra]\nkept=yes\n");
        EXPECT_EQ(entries("/opt/app/known/1-1"), std::set<std::string>{"velmor.pkg"});
        EXPECT_FALSE(fs::exists("/opt/app/unknown"));
    });
}
