// The launcher starts at every boot; with the stamp present it must cost next to nothing.
// Times that no-op start against /bin/true, alternating them, and prints the ratio. The
// migrator started directly with the stamp present runs in the same rotation, to show what
// the front saves by not loading the migration's libraries.
//
//   bench_noop_start [RUNS]   (default 2000; runs in a sandbox, so needs root)

#include "tests/support/sandbox.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <vector>

namespace {

double runOnce(const char* program) {
    char* argv[] = {const_cast<char*>(program), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawn(&child, program, &actions, nullptr, argv, environ) != 0) {
        std::perror(program);
        std::exit(1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const auto end = std::chrono::steady_clock::now();
    posix_spawn_file_actions_destroy(&actions);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "%s failed\n", program);
        std::exit(1);
    }
    return std::chrono::duration<double, std::micro>(end - start).count();
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::atoi(argv[1]) : 2000;
    if (const auto& reason = TestSupport::sandboxUnavailableReason(); !reason.empty()) {
        std::fprintf(stderr, "bench_noop_start: %s\n", reason.c_str());
        return 77;
    }
    const auto scratch = TestSupport::makeSandboxScratch();
    TestSupport::enterSandbox(scratch);
    std::filesystem::create_directories("/var/lib/tolva");
    std::ofstream("/var/lib/tolva/.migration_done");

    std::vector<double> launcher, migrator, truth;
    for (int i = 0; i < runs; ++i) {
        launcher.push_back(runOnce(TOLVA_MIGRATE));
        truth.push_back(runOnce("/bin/true"));
        migrator.push_back(runOnce(TOLVA_MIGRATOR));
    }
    const double l = median(launcher), m = median(migrator), t = median(truth);
    std::printf("no-op start over %d runs (median): tolva-migrate %.1f us, /bin/true %.1f us, "
                "ratio %.2f (at most 1.30)\n",
                runs, l, t, l / t);
    std::printf("  the migrator started directly: %.1f us, ratio %.2f\n", m, m / t);
    return 0;
}
