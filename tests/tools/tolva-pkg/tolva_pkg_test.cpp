// The real tolva-pkg installing, upgrading and removing signed packages in the sandbox, on a
// fresh device and on one that the launcher has migrated.

#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sample_device.hpp"
#include "tests/support/sandboxed_test.hpp"
#include "tests/support/signed_packages.hpp"

#include <gtest/gtest.h>
#include <set>

namespace fs = std::filesystem;
using TestSupport::changes;
using TestSupport::entries;
using TestSupport::lines;
using TestSupport::present;
using TestSupport::readFile;
using TestSupport::runProgram;
using TestSupport::writeFile;

namespace {

const fs::path notes = "/opt/app/harbor-notes";

TestSupport::ProcessResult tolvaPkg(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TOLVA_PKG);
    return runProgram(arguments);
}

// Runs a command that must succeed without an error line; returns what it printed.
std::string succeed(const std::vector<std::string>& arguments) {
    const auto result = tolvaPkg(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err.find("ERROR"), std::string::npos) << result.err;
    return result.out;
}

std::string keyId(const std::string& name) {
    return TestSupport::pkiCertificate(name).keyId();
}

std::string sql(const std::string& query) {
    return runProgram({"sqlite3", "/var/lib/trusted-sources/db.sqlite3", query}).out;
}

// What a user could see change under the trees a package touches.
TestSupport::Snapshot snapshot() {
    return TestSupport::snapshot({"/opt", "/usr/bin", "/usr/share/applications", "/usr/share/icons",
                                  "/usr/share/harbor-notes", "/usr/lib/3rdparty", "/usr/libexec",
                                  "/var/lib/trusted-sources"});
}

} // namespace

// A user's refusals change nothing; the upgrade, removal and fresh install that follow do what
// they say.
TEST(TolvaPkg, OnAMigratedDeviceRefusesThenUpgradesRemovesAndInstallsAgain) {
    TestSupport::Scratch scratch;
    const auto apps = TestSupport::buildSampleApps(scratch.path());
    const auto upgrade = TestSupport::buildHarborNotesUpgrade(scratch.path());
    const fs::path foreign = scratch / "foreign.rpm";
    fs::copy_file(upgrade.file, foreign);
    TestSupport::signPackage(foreign, "developer-other-ca", "client");
    SANDBOXED([&] {
        TestSupport::installSampleDevice(apps);
        fs::create_directories("/var/lib/tolva");
        const auto migration = runProgram({TOLVA_MIGRATE});
        ASSERT_EQ(migration.status, 0) << migration.err;
        writeFile("/usr/share/icons/hicolor/128x128/apps/system.png", "a system icon");
        const auto refuse = [](const TestSupport::ProcessResult& result,
                               const std::string& reason) {
            EXPECT_EQ(result.status, 1);
            EXPECT_TRUE(result.err.ends_with("\ntolva-pkg: " + reason + "\n") ||
                        result.err == "tolva-pkg: " + reason + "\n")
                << result.err;
            EXPECT_EQ(result.out, "");
        };

        // The upgrade's new mapping meets a system file: the installed version stays installed
        // and mapped.
        writeFile("/usr/bin/harbor-notes-sync", "a system command");
        auto before = snapshot();
        refuse(tolvaPkg({"install", foreign}), "package is signed with a non-legal key");
        refuse(tolvaPkg({"install", apps[2].file}),
               "package platform-settings is signed by a system developer");
        refuse(tolvaPkg({"install", apps[0].file}),
               "package harbor-notes 1.2.3-1 is installed already");
        refuse(tolvaPkg({"remove", "nothing-such"}),
               "couldn't find package directory: nothing-such");
        refuse(runProgram({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", TOLVA_PKG,
                           "install", upgrade.file}),
               "must be run as root");
        refuse(tolvaPkg({"install", upgrade.file}), "couldn't create mappings");
        EXPECT_EQ(changes(before, snapshot()), "");
        fs::remove("/usr/bin/harbor-notes-sync");

        const auto firstMappings = lines(readFile(notes / "1.2.3-1/symlink.list"));
        EXPECT_EQ(succeed({"install", upgrade.file}),
                  "upgraded harbor-notes from 1.2.3-1 to 1.3.0-1\n");
        EXPECT_EQ(entries(notes), (std::set<std::string>{"current", "1.3.0-1"}));
        const auto secondMappings = lines(readFile(notes / "current/symlink.list"));
        for (const auto& mapping : firstMappings) {
            const bool kept = std::find(secondMappings.begin(), secondMappings.end(), mapping) !=
                              secondMappings.end();
            EXPECT_EQ(present(mapping), kept) << mapping;
        }
        for (const auto& mapping : secondMappings)
            EXPECT_TRUE(fs::exists(mapping)) << mapping;
        EXPECT_EQ(readFile("/usr/bin/harbor-notes-sync"), "#!/bin/sh\necho sync 1.3\n");
        const std::string client = keyId("client") + " " + TestSupport::TestPki::clientSubject;
        EXPECT_EQ(succeed({"list"}), "harbor-notes 1.3.0-1 org.harbor/Notes " + client +
                                         "\nquiet-clock 0.9-2 - .no.source.apps\n");
        before = snapshot();
        refuse(tolvaPkg({"install", apps[0].file}),
               "attempt to downgrade package from 1.3.0-1 to 1.2.3-1 version");
        EXPECT_EQ(changes(before, snapshot()), "");

        EXPECT_EQ(succeed({"remove", "harbor-notes"}), "removed harbor-notes\n");
        EXPECT_FALSE(present(notes));
        for (const auto& mapping : secondMappings)
            EXPECT_FALSE(present(mapping)) << mapping;
        for (const char* generated : {"/usr/lib/3rdparty/harbor-notes", "/usr/libexec/harbor-notes",
                                      "/usr/share/harbor-notes"})
            EXPECT_FALSE(present(generated)) << generated;
        EXPECT_EQ(readFile("/usr/share/icons/hicolor/128x128/apps/system.png"), "a system icon");
        EXPECT_EQ(readFile("/usr/bin/quiet-clock"), "#!/bin/sh\necho tick\n");
        EXPECT_EQ(sql("select id from packages;"), "quiet-clock\n");
        const auto verify = runProgram({"rpm", "-V", "loose-tool", "platform-settings"});
        EXPECT_EQ(verify.status, 0) << verify.out;

        // Fresh installs from the signed files into a fresh store, each bound to its client's
        // source or to none, which switches "required" off; the hard-link set, unpacked in the
        // temporary directory, is still one file.
        succeed({"remove", "quiet-clock"});
        fs::remove("/var/lib/trusted-sources/db.sqlite3");
        EXPECT_EQ(succeed({"install", apps[0].file}), "installed harbor-notes 1.2.3-1\n");
        succeed({"install", apps[1].file});
        EXPECT_EQ(sql("select id, source_keyid from packages order by id;"),
                  "harbor-notes|" + keyId("client") + "\nquiet-clock|.no.source.apps\n");
        EXPECT_EQ(sql("select data from configuration where id = 'required';"), "0\n");
        const fs::path version = notes / "1.2.3-1";
        EXPECT_EQ(fs::read_symlink(notes / "current"), version);
        EXPECT_TRUE(
            fs::equivalent(version / "data/data/words.db", version / "data/data/words-backup.db"));
        EXPECT_EQ(fs::status(version).permissions(), fs::perms(0755));
        EXPECT_EQ(readFile(version / "velmor.pkg"), "[general]\nappname=Notes\nid=harbor-notes\n"
                                                    "orgname=org.harbor\nversion=1.2.3-1\n"
                                                    "[certificate]\nid=" +
                                                        keyId("developer") +
                                                        "\nsubgroup=regular\n");
        EXPECT_EQ(lines(readFile(version / "symlink.list")), firstMappings);
        EXPECT_EQ(readFile("/usr/share/harbor-notes/helper"), "#!/bin/sh\necho sync\n");
    });
}
