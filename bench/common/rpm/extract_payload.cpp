// Unpacking an RPM package's payload is the bulk of moving an app. Times our extraction
// (ExtractFileIterator with RpmFileContent::writeTo: directories made, files written, modes set,
// links made) against `rpm2cpio PKG | cpio -idm --quiet` on the same package, alternating the
// two, over a package of a few hundred mixed files and over one holding a single large file
// (compressible, zstd payload). Prints the medians, the throughput of unpacked data and the
// ratio of the throughputs (ours / theirs, target at least 0.90), then the peak resident memory
// of our extraction of the large package in a child of its own (target under 32 MiB).
//
//   bench_extract_payload [LARGE_MIB] [ROUNDS]   (defaults 1024 and 5; needs root)
//
// Everything runs in a sandbox. Extractions go to /var/tmp there (an overlay on disk, not RAM)
// and are removed after every round. Before each timed run nothing is dirty (sync) and the
// package file has just been read, so both sides start from the same cache. The mixed package
// gets four times ROUNDS, as one of its runs is short. The packages are built once per build tree.

#include "common/rpm/file_iterator.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandbox.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using Common::Rpm::EntryType;
using Common::Rpm::ExtractFileIterator;
using Common::Rpm::IterationResult;

namespace {

void check(bool ok, const std::string& what) {
    if (!ok) {
        std::fprintf(stderr, "bench_extract_payload: %s failed\n", what.c_str());
        std::exit(1);
    }
}

// Text-like or random bytes, so the payload compresses as a real app's does.
std::string contentOf(std::size_t size, std::mt19937& random) {
    std::string data(size, '\0');
    if (random() % 2 == 0) {
        static const std::string words = "lorem ipsum config value=42 path /opt/app\n";
        for (std::size_t i = 0; i < size; ++i)
            data[i] = words[(i + random() % 3) % words.size()];
    } else {
        for (auto& byte : data)
            byte = static_cast<char>(random());
    }
    return data;
}

// Sizes as an app package has them: a few empty files, mostly small ones (scripts, desktop
// files, icons), some medium and a few large (libraries, assets). {share in %, least, spread}.
struct SizeClass {
    unsigned percent;
    std::size_t least, spread;
};
constexpr SizeClass sizeClasses[] = {
    {5, 0, 1}, {55, 1, 4 << 10}, {30, 4 << 10, 60 << 10}, {10, 64 << 10, 128 << 10}};

std::size_t sizeOfFile(std::mt19937& random) {
    unsigned pick = random() % 100;
    for (const auto& size : sizeClasses) {
        if (pick < size.percent)
            return size.least + random() % size.spread;
        pick -= size.percent;
    }
    return 0;
}

TestSupport::FixturePackage mixedPackage() {
    std::mt19937 random(20240611);
    TestSupport::FixturePackage package{"bench-extract-mixed", "1.0", "1", {}, "w3.zstdio", {}};
    for (int i = 0; i < 300; ++i) {
        const std::string path = "/opt/bench-mixed/dir" + std::to_string(i % 24) + "/sub" +
                                 std::to_string(i % 3) + "/file" + std::to_string(i);
        package.files.push_back(TestSupport::file(path, contentOf(sizeOfFile(random), random),
                                                  i % 10 == 0 ? 0755 : 0644));
    }
    for (int i = 0; i < 10; ++i)
        package.files.push_back(TestSupport::symlink("/opt/bench-mixed/link" + std::to_string(i),
                                                     "dir" + std::to_string(i) + "/sub0"));
    return package;
}

TestSupport::FixturePackage largePackage(long mib) {
    TestSupport::FixturePackage package{"bench-extract-large", "1.0", "1", {}, "w3.zstdio", {}};
    auto payload = TestSupport::file("/opt/bench-large/payload.bin", "");
    payload.generate = "yes 'some text line 0123456789' | head -c " + std::to_string(mib << 20);
    package.files.push_back(payload);
    return package;
}

double seconds(std::chrono::steady_clock::duration elapsed) {
    return std::chrono::duration<double>(elapsed).count();
}

// What an unpacker does with each entry of the payload, under `root`.
void extractWithLibrary(const fs::path& package, const fs::path& root) {
    fs::create_directories(root);
    ExtractFileIterator(package.string()).forEach([&](const ExtractFileIterator::Entry& entry) {
        const fs::path target = root / entry.path.relative_path();
        switch (entry.type) {
        case EntryType::Directory:
            fs::create_directories(target);
            fs::permissions(target, fs::perms(entry.permissions));
            break;
        case EntryType::RegularFile:
            fs::create_directories(target.parent_path());
            entry.content->writeTo(target);
            fs::permissions(target, fs::perms(entry.permissions));
            break;
        case EntryType::Symlink:
            fs::create_directories(target.parent_path());
            fs::create_symlink(entry.target, target);
            break;
        case EntryType::Hardlink:
            fs::create_directories(target.parent_path());
            fs::create_hard_link(root / entry.target.relative_path(), target);
            break;
        }
        return IterationResult::Continue;
    });
}

double timeLibrary(const fs::path& package, const fs::path& root) {
    const auto start = std::chrono::steady_clock::now();
    extractWithLibrary(package, root);
    return seconds(std::chrono::steady_clock::now() - start);
}

// Runs `command` with /bin/sh in `directory`; returns the wait4 usage of the shell and its
// children.
rusage runShell(const std::string& command, const fs::path& directory) {
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
        if (::chdir(directory.c_str()) != 0)
            ::_exit(126);
        ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    check(::wait4(child, &status, 0, &usage) == child, "wait4");
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0, command);
    return usage;
}

std::string cpioCommand(const fs::path& package) {
    return "rpm2cpio '" + package.string() + "' | cpio -idm --quiet";
}

double timeCpio(const fs::path& package, const fs::path& root) {
    const auto start = std::chrono::steady_clock::now();
    fs::create_directories(root);
    runShell(cpioCommand(package), root);
    return seconds(std::chrono::steady_clock::now() - start);
}

// Bytes of regular files under `root`: what was unpacked, and a check that both did it all.
std::uintmax_t unpackedBytes(const fs::path& root) {
    std::uintmax_t total = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        if (entry.symlink_status().type() == fs::file_type::regular)
            total += entry.file_size();
    return total;
}

// Reads the whole file, so it is in the page cache for whoever goes next.
void warm(const fs::path& package) {
    const int fd = ::open(package.c_str(), O_RDONLY | O_CLOEXEC);
    check(fd >= 0, "open " + package.string());
    std::vector<char> buffer(1 << 20);
    while (::read(fd, buffer.data(), buffer.size()) > 0) {
    }
    ::close(fd);
}

// Every run starts alike: no earlier tree, nothing dirty, the package cached.
void reset(const fs::path& root, const fs::path& package) {
    fs::remove_all(root);
    ::sync();
    warm(package);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Timing {
    std::vector<double> ours, theirs;
    std::uintmax_t bytes = 0;
};

Timing compare(const fs::path& package, const fs::path& root, int rounds) {
    Timing timing;
    for (int round = 0; round < rounds; ++round) {
        // Alternate which one goes first, so neither always meets the other's leftovers.
        for (int turn = 0; turn < 2; ++turn) {
            reset(root, package);
            const bool ours = (round + turn) % 2 == 0;
            if (ours)
                timing.ours.push_back(timeLibrary(package, root));
            else
                timing.theirs.push_back(timeCpio(package, root));
            const std::uintmax_t bytes = unpackedBytes(root);
            check(timing.bytes == 0 || bytes == timing.bytes,
                  std::string("same unpacked size from ") + (ours ? "ours" : "rpm2cpio | cpio"));
            timing.bytes = bytes;
        }
    }
    reset(root, package);
    return timing;
}

void report(const char* what, const Timing& timing) {
    const double ours = median(timing.ours), theirs = median(timing.theirs);
    const double mib = double(timing.bytes) / (1 << 20);
    std::printf(
        "%s (%.1f MiB unpacked)\n"
        "  ExtractFileIterator + writeTo  median %8.3f s  %8.1f MiB/s  (min %.3f, max %.3f)\n"
        "  rpm2cpio | cpio -idm           median %8.3f s  %8.1f MiB/s  (min %.3f, max %.3f)\n"
        "  throughput ours / theirs %.2f (target at least 0.90)\n",
        what, mib, ours, mib / ours, *std::min_element(timing.ours.begin(), timing.ours.end()),
        *std::max_element(timing.ours.begin(), timing.ours.end()), theirs, mib / theirs,
        *std::min_element(timing.theirs.begin(), timing.theirs.end()),
        *std::max_element(timing.theirs.begin(), timing.theirs.end()), theirs / ours);
}

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

// Peak resident memory (KiB) of one extraction of `package` in a forked child.
long peakOfOurs(const fs::path& package, const fs::path& root) {
    reset(root, package);
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
        try {
            extractWithLibrary(package, root);
            ::_exit(0);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "bench_extract_payload: %s\n", error.what());
            ::_exit(1);
        }
    }
    int status = 0;
    rusage usage{};
    check(::wait4(child, &status, 0, &usage) == child, "wait4");
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "extraction in a child");
    reset(root, package);
    return usage.ru_maxrss;
}

long peakOfTheirs(const fs::path& package, const fs::path& root) {
    reset(root, package);
    fs::create_directories(root);
    const long peak = runShell(cpioCommand(package), root).ru_maxrss;
    reset(root, package);
    return peak;
}

int run(long largeMiB, int rounds) {
    const fs::path mixed = TestSupport::buildPackage(mixedPackage());
    const fs::path large = TestSupport::buildPackage(largePackage(largeMiB));
    const fs::path root = "/var/tmp/bench-extract";

    // Measured first, while this process is small: a forked child starts with its pages.
    const long before = residentKiB();
    const long ours = peakOfOurs(large, root);
    const long theirs = peakOfTheirs(large, root);

    std::printf("payload extraction: our walk against rpm2cpio | cpio, medians of %d rounds "
                "(mixed) and %d rounds (large)\n",
                rounds * 4, rounds);
    report("mixed package, 300 files and 10 symlinks:", compare(mixed, root, rounds * 4));
    report(("one file of " + std::to_string(largeMiB) + " MiB:").c_str(),
           compare(large, root, rounds));
    std::printf("peak resident memory extracting the %ld MiB package: ours %.1f MiB "
                "(target under 32 MiB; %.1f MiB resident at fork), rpm2cpio | cpio %.1f MiB\n",
                largeMiB, ours / 1024.0, before / 1024.0, theirs / 1024.0);
    fs::remove_all(root);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const long largeMiB = argc > 1 ? std::max(1L, std::atol(argv[1])) : 1024;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
    if (const auto& reason = TestSupport::sandboxUnavailableReason(); !reason.empty()) {
        std::fprintf(stderr, "bench_extract_payload: %s\n", reason.c_str());
        return 77;
    }
    // The sandbox runs in a child, so its scratch (upper layers and all) can be removed after.
    const fs::path scratch = TestSupport::makeSandboxScratch();
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
        try {
            TestSupport::enterSandbox(scratch);
            const int result = run(largeMiB, rounds);
            std::fflush(stdout);
            ::_exit(result);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "bench_extract_payload: %s\n", error.what());
            ::_exit(1);
        }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::error_code ignored;
    fs::remove_all(scratch, ignored);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
