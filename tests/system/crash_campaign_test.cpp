// The launcher killed at a file-changing call of its run, then started again until it writes
// its stamp: every application that qualifies ends installed here or still an RPM package,
// never both and never neither. TOLVA_CRASH_POINTS sets how many points are tried ("all" for
// every one); scripts/crash-campaign runs them all.

#include "core/tolva/database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sample_device.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>

namespace fs = std::filesystem;
using TestSupport::readFile;
using TestSupport::runProgram;

namespace {

const std::vector<std::string> qualifying = {"harbor-notes", "quiet-clock"};

struct Original {
    std::string content;
    fs::perms mode;
};

// Every regular file that rpm installed for `app`.
std::map<fs::path, Original> installedFiles(const std::string& app) {
    std::map<fs::path, Original> files;
    for (const auto& path : TestSupport::lines(runProgram({"rpm", "-ql", app}).out))
        if (fs::is_regular_file(fs::symlink_status(path)))
            files[path] = {readFile(path), fs::status(path).permissions()};
    return files;
}

// The launcher under the fault library, set by `fault` ("TOLVA_CRASH_...=value").
TestSupport::ProcessResult launchWith(const std::string& fault) {
    return runProgram({"env", "LD_PRELOAD=" TOLVA_FAULT_PRELOAD, fault, TOLVA_MIGRATE});
}

void installDevice(const std::vector<TestSupport::SampleApp>& apps) {
    TestSupport::installSampleDevice(apps);
    fs::create_directories("/var/lib/tolva");
}

std::vector<long> pointsToTry(long total) {
    const char* wanted = std::getenv("TOLVA_CRASH_POINTS");
    const long count = !wanted ? 10 : std::string(wanted) == "all" ? total : std::atol(wanted);
    std::vector<long> points;
    for (long i = 0; i < count && i < total; ++i)
        points.push_back(1 + i * total / std::min(count, total));
    return points;
}

// Kills a run at `point`, starts the launcher again until it is done, and checks every
// application; returns "installed" or "rpm" for each, in the order of `qualifying`.
std::string crashAndRecover(long point) {
    SCOPED_TRACE("killed at point " + std::to_string(point));
    std::map<std::string, std::map<fs::path, Original>> originals;
    for (const auto& app : qualifying)
        originals[app] = installedFiles(app);

    const auto killed = launchWith("TOLVA_CRASH_AT=" + std::to_string(point));
    EXPECT_FALSE(killed.exited) << killed.err;
    int starts = 0;
    for (; starts < 3 && !fs::exists("/var/lib/tolva/.migration_done"); ++starts)
        runProgram({TOLVA_MIGRATE});
    EXPECT_TRUE(fs::exists("/var/lib/tolva/.migration_done")) << "no stamp after " << starts;

    std::string outcome;
    std::vector<std::string> installed;
    for (const auto& app : qualifying) {
        const bool inRpm = runProgram({"rpm", "-q", app}).status == 0;
        const bool inTolva = fs::exists("/opt/app/" + app + "/current/velmor.pkg");
        EXPECT_NE(inRpm, inTolva) << app;
        if (inRpm) {
            EXPECT_EQ(runProgram({"rpm", "-V", app}).status, 0) << app;
        }
        if (inTolva) {
            installed.push_back(app);
            for (const auto& [path, original] : originals[app]) {
                EXPECT_EQ(readFile(path), original.content) << path;
                EXPECT_EQ(fs::status(path).permissions(), original.mode) << path;
            }
            const auto bound =
                runProgram({"sqlite3", "/var/lib/trusted-sources/db.sqlite3",
                            "select count(*) from packages where id = '" + app + "'"});
            EXPECT_EQ(bound.out, "1\n") << app;
        }
        outcome += inTolva ? " installed" : " rpm";
    }
    // The database passes its repair pass untouched, and nothing waits.
    std::vector<std::string> listed;
    const auto log = TestSupport::captureStderr([&] {
        for (const auto& data : Core::Tolva::Database().installedPackages())
            listed.push_back(data.at("general.id"));
    });
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, installed);
    EXPECT_EQ(log, "WARN: couldn't parse config file: /etc/tolva/tolva.conf\n");
    EXPECT_TRUE(fs::is_empty("/opt/tolva/tmp"));
    return outcome;
}

} // namespace

TEST(CrashCampaign, AKillAtAnyPointLosesNoApplication) {
    TestSupport::Scratch scratch;
    const auto apps = TestSupport::buildSampleApps(scratch.path());
    // How many file-changing calls an uninterrupted run of the device makes.
    SANDBOXED([&] {
        installDevice(apps);
        const auto run = launchWith("TOLVA_CRASH_COUNT=" + (scratch / "count").string());
        EXPECT_EQ(run.status, 0) << run.err;
    });
    const long total = std::atol(readFile(scratch / "count").c_str());
    ASSERT_GT(total, 100);
    const fs::path outcomes = scratch / "outcomes";
    const auto points = pointsToTry(total);
    for (const long point : points) {
        SANDBOXED([&] {
            installDevice(apps);
            const auto outcome = crashAndRecover(point);
            std::ofstream(outcomes, std::ios::app) << point << outcome << "\n";
        });
    }
    // Every point tried got to its end, and how each left the applications is told.
    const auto lines = TestSupport::lines(readFile(outcomes));
    EXPECT_EQ(lines.size(), points.size());
    std::map<std::string, int> tally;
    for (const auto& line : lines)
        ++tally[line.substr(line.find(' ') + 1)];
    std::cout << "crash points: " << points.size() << " of " << total << " tried;";
    for (const auto& [outcome, count] : tally)
        std::cout << " [" << outcome << "] " << count;
    std::cout << std::endl;
}
