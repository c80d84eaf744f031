// The repair pass reads every installed package each time it is asked. Builds a database of
// PACKAGES installed packages with 20 mappings each (in a sandbox, at the real root) and times
// installedPackages with a warm cache.
//
//   bench_installed_packages [PACKAGES] [ROUNDS]   (defaults 1000 and 20; needs root)

#include "core/tolva/database.hpp"
#include "tests/support/sandbox.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

namespace fs = std::filesystem;

namespace {

void makePackage(const std::string& id) {
    const fs::path version = fs::path("/opt/app") / id / "1.0-1";
    fs::create_directories(version / "manifest");
    std::ofstream(version / "velmor.pkg")
        << "[general]\nappname=App\nid=" << id << "\norgname=Org\nversion=1.0-1\n"
        << "[applicationdata]\nsetupdata=\n[certificate]\nid=abcdef\nsubgroup=regular\n";
    std::ofstream list(version / "symlink.list");
    for (int i = 0; i < 20; ++i) {
        const fs::path mapping = "/usr/share/" + id + "/file" + std::to_string(i);
        fs::create_directories(mapping.parent_path());
        fs::create_symlink(version / "manifest" / "x", mapping);
        list << mapping.string() << '\n';
    }
    fs::create_directory_symlink(version, fs::path("/opt/app") / id / "current");
}

} // namespace

int main(int argc, char** argv) {
    const int packages = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 20;
    if (const auto& reason = TestSupport::sandboxUnavailableReason(); !reason.empty()) {
        std::fprintf(stderr, "bench_installed_packages: %s\n", reason.c_str());
        return 77;
    }
    TestSupport::enterSandbox(TestSupport::makeSandboxScratch());
    fs::create_directories("/etc/tolva");
    std::ofstream("/etc/tolva/tolva.conf") << "[database]\nroot_directory=/opt/app\n";
    for (int i = 0; i < packages; ++i)
        makePackage("org.example.app" + std::to_string(i));

    const Core::Tolva::Database database;
    std::vector<double> times;
    std::size_t found = 0;
    for (int round = 0; round <= rounds; ++round) {
        const auto start = std::chrono::steady_clock::now();
        found = database.installedPackages().size();
        const auto end = std::chrono::steady_clock::now();
        if (round > 0) // the first round warms the cache
            times.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    }
    std::sort(times.begin(), times.end());
    std::printf("installedPackages over %zu packages (20 mappings each), %d warm rounds: "
                "median %.1f ms, best %.1f ms, worst %.1f ms\n",
                found, rounds, times[times.size() / 2], times.front(), times.back());
    return found == std::size_t(packages) ? 0 : 1;
}
