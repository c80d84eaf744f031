// The package a device gets: the RPM built from this build tree, installed into the sandbox's
// RPM database, with its unit checked against the files it landed and the launcher it starts.

#include "launcher/launcher.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>

namespace fs = std::filesystem;
using TestSupport::lines;
using TestSupport::runProgram;

namespace {

const fs::path unitPath = "/usr/lib/systemd/system/tolva-migrate.service";
const fs::path wantsLink = "/usr/lib/systemd/system/sysinit.target.wants/tolva-migrate.service";

// The value of `key=` in a unit file; empty when the key is missing.
std::string unitSetting(const std::string& unit, const std::string& key) {
    for (const auto& line : lines(unit))
        if (line.starts_with(key + "="))
            return line.substr(key.size() + 1);
    return "";
}

} // namespace

TEST(Packaging, TheRpmInstallsTheLauncherWhereItsUnitStartsIt) {
    const auto built =
        runProgram({TOLVA_SOURCE_DIR "/packaging/build-rpm", TOLVA_BINARY_DIR, "--prebuilt"});
    ASSERT_TRUE(built.exited && built.status == 0) << built.err;
    const fs::path rpm = lines(built.out).at(0);
    // rpm reads a package only in the sandbox: it makes an RPM database under $HOME.
    SANDBOXED([&] {
        const auto listing = runProgram({"rpm", "-qlp", rpm.string()});
        ASSERT_EQ(listing.status, 0) << listing.err;
        std::set<std::string> files;
        for (const auto& file : lines(listing.out))
            if (!file.starts_with("/usr/lib/.build-id"))
                files.insert(file);
        const fs::path stampDirectory = fs::path(Launcher::stampPath).parent_path();
        const std::set<std::string> expected = {"/usr/bin/pkgsig",
                                                "/usr/bin/tolva-pkg",
                                                "/usr/libexec/tolva-migrate",
                                                "/usr/libexec/tolva-migrate-run",
                                                unitPath.string(),
                                                wantsLink.string(),
                                                "/usr/share/man/man1/pkgsig.1.gz",
                                                "/usr/share/man/man8/tolva-migrate.8.gz",
                                                stampDirectory.string()};
        EXPECT_EQ(files, expected);

        TestSupport::installPackages({rpm});
        const std::string unit = TestSupport::readFile(unitPath);
        EXPECT_EQ(unitSetting(unit, "ConditionPathExists"), std::string("!") + Launcher::stampPath);
        // Finds the launcher at ExecStart= and the page that Documentation= names.
        const auto verify = runProgram({"systemd-analyze", "verify", unitPath.string()});
        EXPECT_EQ(verify.status, 0);
        EXPECT_EQ(verify.out + verify.err, "");
        EXPECT_EQ(fs::canonical(wantsLink), fs::canonical(unitPath));

        // The launcher that ExecStart= names sees the stamp that the condition names.
        ASSERT_TRUE(fs::is_directory(stampDirectory));
        std::ofstream{Launcher::stampPath};
        const auto start = runProgram({unitSetting(unit, "ExecStart")});
        EXPECT_EQ(start.status, 0);
        EXPECT_EQ(start.err, "INFO: package migration from RPM to Tolva is already done, "
                             "skipping the migration\n");
    });
}

TEST(Packaging, ManPagesFormatWithoutWarnings) {
    for (const std::string page : {TOLVA_BINARY_DIR "/packaging/man/tolva-migrate.8",
                                   TOLVA_SOURCE_DIR "/packaging/man/pkgsig.1"}) {
        const auto run = runProgram({"groff", "-man", "-Tutf8", "-ww", "-z", page});
        EXPECT_EQ(run.status, 0) << page;
        EXPECT_EQ(run.err, "") << page;
    }
}
