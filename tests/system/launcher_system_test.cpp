// The launcher as installed (the front, which hands over to the migrator), run in the sandbox on
// the real stamp path.

#include "tests/support/sandboxed_test.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using TestSupport::runProgram;

namespace {

constexpr const char* stamp = "/var/lib/tolva/.migration_done";
constexpr const char* alreadyDone =
    "INFO: package migration from RPM to Tolva is already done, skipping the migration\n";

TestSupport::ProcessResult launch() {
    return runProgram({TOLVA_MIGRATE});
}

// A device with a configuration and nothing to migrate: the run itself says nothing.
void configure() {
    fs::create_directories("/etc/tolva");
    std::ofstream("/etc/tolva/tolva.conf") << "[database]\nroot_directory=/opt/app\n";
}

} // namespace

TEST(LauncherBinary, TheStampIsWrittenOnceAndAnyKindOfItSkips) {
    SANDBOXED([] {
        configure();
        fs::create_directories("/var/lib/tolva");
        fs::create_symlink("/var/lib/nowhere", stamp); // a dangling link counts as absent
        auto first = launch();
        EXPECT_EQ(first.status, 0); // an exit: no signal is numbered 0
        EXPECT_EQ(first.err, "");
        ASSERT_TRUE(fs::is_regular_file(stamp)); // written through the link
        EXPECT_EQ(fs::file_size(stamp), 0u);

        auto second = launch();
        EXPECT_EQ(second.status, 0);
        EXPECT_EQ(second.err, alreadyDone);
        EXPECT_EQ(second.out, "");

        fs::remove(stamp);
        fs::create_directories(stamp); // a directory
        const auto third = launch();
        EXPECT_EQ(third.status, 0);
        EXPECT_EQ(third.err, alreadyDone);
        EXPECT_TRUE(fs::is_directory(stamp));
    });
}

TEST(LauncherBinary, AStampThatCannotBeWrittenGoesUnreported) {
    SANDBOXED([] {
        configure();
        fs::remove_all("/var/lib/tolva");
        const auto run = launch();
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.err, "");
        EXPECT_FALSE(fs::exists("/var/lib/tolva"));
    });
}

TEST(LauncherBinary, AFailingStampQueryEndsTheProcessAbnormally) {
    SANDBOXED([] {
        fs::remove_all("/var/lib/tolva");
        fs::create_symlink("/var/lib/tolva", "/var/lib/tolva"); // ELOOP, not absence
        const auto run = launch();
        EXPECT_FALSE(run.exited);
        EXPECT_EQ(run.status, SIGABRT);
        for (const char* level : {"INFO: ", "ERROR: ", "WARN: "})
            EXPECT_EQ(run.err.find(level), std::string::npos) << run.err;
        fs::remove("/var/lib/tolva");
        EXPECT_FALSE(fs::exists(stamp));
    });
}

TEST(LauncherBinary, TheFrontAnswersADoneStartAloneAndReportsAMissingMigrator) {
    SANDBOXED([] {
        fs::create_directories("/tmp/alone");
        fs::copy_file(TOLVA_MIGRATE, "/tmp/alone/tolva-migrate"); // no migrator beside it
        fs::create_directories("/var/lib/tolva");
        auto run = runProgram({"/tmp/alone/tolva-migrate"});
        EXPECT_TRUE(run.exited);
        EXPECT_EQ(run.status, 1);
        EXPECT_TRUE(run.err.starts_with("ERROR: couldn't run the migrator \"/tmp/alone/"))
            << run.err;
        EXPECT_TRUE(run.err.ends_with("tolva-migrate-run\": No such file or directory\n"))
            << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_FALSE(fs::exists(stamp));

        std::ofstream{stamp};
        run = runProgram({"/tmp/alone/tolva-migrate"});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.err, alreadyDone);
    });
}
