// The migration moves every app while the user waits. Builds devices of signed apps, installs
// them with rpm in a fresh sandbox for every run, and times on the same packages, alternating:
//   migration       the launcher (tolva-migrate) migrating them all
//   rpm -e + cp     `cp -a --parents --preserve=xattr` of their files into the temporary
//                   directory, `sync -f` of it, then `rpm -e` of the packages: copy first, make
//                   the copy durable, then erase, as the migration does
//   rpm -e          the erase alone
//   names alone     where the file system is shared: `cp -al` of the files into the temporary
//                   directory, `rpm -e`, then `cp -rs` of that tree back into place: the links
//                   and the per-file symlinks that any migration keeping its mappings makes, and
//                   nothing else (no lists, no attributes, no store, no flush but rpm -e's own,
//                   one per package where the migration's erase makes one in all)
// (rpm -e runs with --noplugins, as the migration's transaction does.) Each size runs twice:
// with the database and its temporary directory on the installed files' file system ("shared":
// /usr here) and on another one ("separate": /opt, the default). Prints the medians, the
// ratios (targets: migration at most 1.1 x rpm -e + cp everywhere, at most 1.3 x rpm -e where
// the file system is shared) and the launcher's peak resident memory (target under 64 MiB),
// then a table of wall time and memory against the number of packages and files. The ratios
// are also given round by round (the median of each round's own ratio): a second view where
// the host's disk makes single runs spread widely.
//
//   bench_migration [ROUNDS] [SIZE...]   SIZE: APPSxFILES, or large:MIB for one app holding a
//   file of MIB MiB; defaults 3 20x30 100x60 300x100 large:1024 (needs root)
//
// Packages are built, signed and imported into a signature database once per build tree.
// Sandboxes write to an overlay whose upper layers lie on a journalled ext4 file system of the
// bench's own (a loop-mounted image in the build tree), as a device's root would be: the host's
// file system may lack a journal, and ext4 without one scans every recently deleted inode when
// it allocates one, so each round would pay for the clean-up of the round before it. When no
// loop device can be had, the host's temporary directory is used and the header says so.
// Before each timed run nothing is dirty (sync).

#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandbox.hpp"
#include "tests/support/test_pki.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using TestSupport::FixtureFile;
using TestSupport::FixturePackage;

namespace {

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "bench_migration: %s\n", what.c_str());
    std::fflush(stderr);
    ::_exit(1);
}

void check(bool ok, const std::string& what) {
    if (!ok)
        die(what + " failed");
}

struct Size {
    int apps = 0;
    int files = 0;     // per app
    long largeMiB = 0; // one app with a file this large instead
    std::string label() const {
        return largeMiB ? "1 app, 1 file of " + std::to_string(largeMiB) + " MiB"
                        : std::to_string(apps) + " apps x " + std::to_string(files) + " files";
    }
};

// ---- the device: packages built, signed and imported once per build tree

const fs::path cache = fs::path(TOLVA_BINARY_DIR) / "bench-migration";

std::string manifest(const std::string& id) {
    return "[Desktop Entry]\nType=Application\nName=" + id + "\nExec=" + id +
           "\n[X-Tolva-Application]\nOrganizationName=org.bench\nApplicationName=" + id + "\n";
}

std::string bytes(std::size_t size, std::mt19937& random) {
    std::string data(size, '\0');
    for (auto& byte : data)
        byte = static_cast<char>("abcdefgh\n"[random() % 9]);
    return data;
}

// Sizes as apps have them: a few empty files, mostly small ones, some of tens of KiB.
std::size_t sizeOfFile(std::mt19937& random) {
    const unsigned pick = random() % 100;
    if (pick < 5)
        return 0;
    if (pick < 65)
        return 1 + random() % (4 << 10);
    if (pick < 95)
        return (4 << 10) + random() % (12 << 10);
    return (16 << 10) + random() % (48 << 10);
}

// An app as the store ships one: its binary, manifest, icon, a library with its link, a
// %config file, and data files below /usr/share/<id>; `files` regular files in all.
FixturePackage app(int index, int files) {
    std::mt19937 random(1000 + index);
    const std::string id = "bench-app-" + std::to_string(index);
    const std::string data = "/usr/share/" + id;
    const std::string library = "/usr/lib/3rdparty/" + id;
    FixturePackage package{id, "1.0", "1", {}, "w3.zstdio", {}};
    auto& entries = package.files;
    entries = {TestSupport::directory(data),
               TestSupport::directory(library),
               TestSupport::file("/usr/bin/" + id, "#!/bin/sh\nexec true\n", 0755),
               TestSupport::file("/usr/share/applications/" + id + ".desktop", manifest(id)),
               TestSupport::file("/usr/share/icons/hicolor/86x86/apps/" + id + ".png",
                                 bytes(3000, random)),
               TestSupport::file(library + "/libapp.so.1", bytes(20000, random), 0755),
               TestSupport::symlink(library + "/libapp.so", "libapp.so.1")};
    auto config = TestSupport::file(data + "/app.conf", "value=1\n");
    config.config = true;
    entries.push_back(config);
    for (int i = 0; i < 4; ++i)
        entries.push_back(TestSupport::directory(data + "/part" + std::to_string(i)));
    for (int i = 5; i < files; ++i)
        entries.push_back(
            TestSupport::file(data + "/part" + std::to_string(i % 4) + "/file" + std::to_string(i),
                              bytes(sizeOfFile(random), random), i % 10 == 0 ? 0755 : 0644));
    return package;
}

FixturePackage largeApp(long mib) {
    FixturePackage package{"bench-large", "1.0", "1", {}, "w3.zstdio", {}};
    auto payload = TestSupport::file("/usr/share/bench-large/payload.bin", "");
    payload.generate = "yes 'some text line 0123456789' | head -c " + std::to_string(mib << 20);
    package.files = {
        TestSupport::directory("/usr/share/bench-large"),
        TestSupport::file("/usr/bin/bench-large", "#!/bin/sh\nexec true\n", 0755),
        TestSupport::file("/usr/share/applications/bench-large.desktop", manifest("bench-large")),
        payload};
    return package;
}

TestSupport::ProcessResult run(const std::vector<std::string>& argv) {
    return TestSupport::runProgram(argv);
}

void checkRun(const std::vector<std::string>& argv) {
    const auto result = run(argv);
    if (!result.exited || result.status != 0)
        die(argv.front() + " " + argv.at(1) + " failed: " + result.err);
}

const std::string pkgsig = std::string(TOLVA_BINARY_DIR) + "/bin/pkgsig";

// A signed copy of the built package, made once: every app is developer signed, every other
// one client signed too, so that both ways of binding a source are taken.
fs::path signedCopy(const fs::path& built, bool client) {
    const fs::path result = cache / "packages" / built.filename();
    if (fs::exists(result))
        return result;
    fs::create_directories(result.parent_path());
    const fs::path partial = result.string() + ".partial";
    fs::copy_file(built, partial, fs::copy_options::overwrite_existing);
    const auto signing = TestSupport::signWithPkgsig(partial, "developer", client ? "client" : "");
    if (!signing.exited || signing.status != 0)
        die("pkgsig sign failed: " + signing.err);
    fs::rename(partial, result);
    return result;
}

struct Device {
    Size size;
    std::vector<std::string> names;
    std::vector<fs::path> packages;
    fs::path signatures; // the device's signature database, to be copied into place
    std::size_t files = 0;
    std::uintmax_t bytes = 0;
};

// The signature database that `pkgsig import` makes for these packages, made once.
fs::path signatureDatabase(const Device& device) {
    std::string key;
    for (const auto& package : device.packages)
        key += package.filename().string() + '\n';
    std::ostringstream name;
    name << "signatures-" << std::hex << std::hash<std::string>{}(key);
    const fs::path result = cache / name.str();
    if (fs::exists(result))
        return result;
    const fs::path partial = result.string() + ".partial";
    fs::remove_all(partial);
    for (const auto& package : device.packages)
        checkRun({pkgsig, "import", package.string(), "--ca",
                  TestSupport::TestPki::shared().certificate("ca").string(), "--database",
                  partial.string()});
    fs::rename(partial, result);
    return result;
}

Device makeDevice(const Size& size) {
    Device device{size, {}, {}, {}, 0, 0};
    std::vector<FixturePackage> packages;
    if (size.largeMiB)
        packages.push_back(largeApp(size.largeMiB));
    for (int i = 0; i < size.apps; ++i)
        packages.push_back(app(i, size.files));
    for (std::size_t i = 0; i < packages.size(); ++i) {
        std::fprintf(stderr, "\rbuilding and signing %s: %zu/%zu ", size.label().c_str(), i + 1,
                     packages.size());
        device.names.push_back(packages[i].name);
        device.packages.push_back(signedCopy(TestSupport::buildPackage(packages[i]), i % 2 == 0));
        for (const auto& file : packages[i].files) {
            if (file.kind != FixtureFile::Kind::File)
                continue;
            ++device.files;
            device.bytes += file.generate.empty() ? file.content.size() : size.largeMiB << 20;
        }
    }
    std::fprintf(stderr, "\r%*s\r", 60, "");
    device.signatures = signatureDatabase(device);
    return device;
}

// ---- one timed run, in a sandbox of its own

enum class Layout { Shared, Separate };
enum class Way { Migration, EraseAndCopy, Erase, NamesAlone };

std::vector<Way> waysFor(Layout layout) {
    if (layout == Layout::Shared)
        return {Way::Migration, Way::EraseAndCopy, Way::Erase, Way::NamesAlone};
    return {Way::Migration, Way::EraseAndCopy, Way::Erase};
}

fs::path rootOf(Layout layout) {
    return layout == Layout::Shared ? "/usr/tolva/app" : "/opt/app";
}

fs::path tempOf(Layout layout) {
    return layout == Layout::Shared ? "/usr/tolva/tmp" : "/opt/tolva/tmp";
}

void installDevice(const Device& device, Layout layout) {
    TestSupport::trustTestCa();
    TestSupport::installPackages(device.packages);
    fs::copy(device.signatures, "/var/lib/package-signatures", fs::copy_options::recursive);
    fs::create_directories("/var/lib/tolva");
    fs::create_directories("/etc/tolva");
    std::ofstream("/etc/tolva/tolva.conf")
        << "[database]\nroot_directory=" << rootOf(layout).string()
        << "\ntemp_directory=" << tempOf(layout).string() << "\n";
}

// The installed files that are not directories, relative to "/" and NUL-separated, for xargs.
std::size_t writeFileList(const Device& device, const fs::path& list) {
    std::vector<std::string> query = {"rpm", "-ql"};
    query.insert(query.end(), device.names.begin(), device.names.end());
    const auto listed = run(query);
    check(listed.exited && listed.status == 0, "rpm -ql");
    std::istringstream lines(listed.out);
    std::ofstream out(list, std::ios::binary);
    std::size_t count = 0;
    for (std::string path; std::getline(lines, path);) {
        if (fs::is_directory(fs::symlink_status(path)))
            continue;
        out << fs::path(path).relative_path().native() << '\0'; // cp --parents wants them so
        ++count;
    }
    return count;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names)
        text += " " + name;
    return text;
}

struct Outcome {
    double seconds = 0;
    long peakKiB = 0;
    long forkedKiB = 0; // this process when it forked the command, which counts in peakKiB too
};

long residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

Outcome timeCommand(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    // A forked child starts with this process's pages, and the kernel keeps that peak over
    // exec: hand back what building the packages left, so that the peak is the command's.
    ::malloc_trim(0);
    const long forkedKiB = residentKiB();
    ::sync();
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
        const int out = ::open("/tmp/out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open("/tmp/err", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(out, 1);
        ::dup2(err, 2);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    check(::wait4(child, &status, 0, &usage) == child, "wait4");
    const auto end = std::chrono::steady_clock::now();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::ifstream err("/tmp/err");
        std::ostringstream text;
        text << err.rdbuf();
        die(argv.front() + " failed: " + text.str().substr(0, 4000));
    }
    return {std::chrono::duration<double>(end - start).count(), usage.ru_maxrss, forkedKiB};
}

bool noneInstalled(const Device& device) {
    const auto all = run({"rpm", "-qa", "--qf", "%{NAME}\n"});
    return std::none_of(device.names.begin(), device.names.end(), [&](const std::string& name) {
        return all.out.find(name + "\n") != std::string::npos;
    });
}

Outcome timeInSandbox(const Device& device, Layout layout, Way way) {
    installDevice(device, layout);
    const std::string erase = "rpm -e --noplugins --nodeps" + joined(device.names);
    Outcome outcome;
    switch (way) {
    case Way::Migration: {
        outcome = timeCommand({TOLVA_MIGRATE});
        for (const auto& name : device.names)
            check(fs::exists(rootOf(layout) / name / "current/velmor.pkg"), "migrating " + name);
        check(fs::is_empty(tempOf(layout)), "an empty temporary directory after the migration");
        break;
    }
    case Way::EraseAndCopy: {
        const fs::path copy = tempOf(layout) / "copy";
        fs::create_directories(copy);
        const std::size_t files = writeFileList(device, "/tmp/files");
        outcome =
            timeCommand({"/bin/sh", "-c",
                         "cd / && xargs -0 cp -a --parents --preserve=xattr -t " + copy.string() +
                             " < /tmp/files && sync -f " + copy.string() + " && " + erase});
        std::size_t copied = 0;
        for (const auto& entry : fs::recursive_directory_iterator(copy))
            copied += !entry.is_directory(); // a symlink to a directory is not one
        check(copied == files, "copying every file");
        break;
    }
    case Way::Erase:
        outcome = timeCommand({"/bin/sh", "-c", erase});
        break;
    case Way::NamesAlone: {
        const fs::path tree = tempOf(layout) / "names";
        fs::create_directories(tree);
        writeFileList(device, "/tmp/files");
        outcome =
            timeCommand({"/bin/sh", "-c",
                         "cd / && xargs -0 cp -al --parents -t " + tree.string() +
                             " < /tmp/files && " + erase + " && cp -rs " + tree.string() + "/. /"});
        for (const auto& name : device.names)
            check(fs::is_symlink("/usr/bin/" + name), "a symlink in place of " + name);
        break;
    }
    }
    check(noneInstalled(device), "erasing every package");
    return outcome;
}

// The journalled file system that the sandboxes' scratch directories are made on.
class ScratchDisk {
public:
    ScratchDisk() {
        std::error_code ignored;
        fs::create_directories(mountPoint, ignored);
        ::umount2(mountPoint.c_str(), MNT_DETACH); // left by an interrupted bench
        mounted = succeeds({"truncate", "-s", "16G", image.string()}) &&
                  succeeds({"mkfs.ext4", "-q", "-F", "-E", "nodiscard", image.string()}) &&
                  succeeds({"mount", "-o", "loop", image.string(), mountPoint.string()});
        if (!mounted)
            fs::remove(image, ignored);
    }
    ~ScratchDisk() {
        if (mounted)
            run({"umount", mountPoint.string()});
        std::error_code ignored;
        fs::remove(image, ignored);
    }
    ScratchDisk(const ScratchDisk&) = delete;
    ScratchDisk& operator=(const ScratchDisk&) = delete;

    fs::path parent() const { return mounted ? mountPoint : fs::temp_directory_path(); }
    std::string description() const {
        return mounted ? "a journalled ext4 image of the bench's own"
                       : "the host's temporary directory (no loop device)";
    }

private:
    const fs::path image = cache / "scratch.img";
    const fs::path mountPoint = cache / "scratch";
    bool mounted = false;

    static bool succeeds(const std::vector<std::string>& argv) {
        const auto result = run(argv);
        return result.exited && result.status == 0;
    }
};

const ScratchDisk* scratchDisk = nullptr;

// Runs one way in a fresh sandbox in a child; its outcome comes back through a pipe.
Outcome timeOnce(const Device& device, Layout layout, Way way) {
    int channel[2];
    check(::pipe(channel) == 0, "pipe");
    const fs::path scratch = TestSupport::makeSandboxScratch(scratchDisk->parent());
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
        ::close(channel[0]);
        try {
            TestSupport::enterSandbox(scratch);
            const Outcome outcome = timeInSandbox(device, layout, way);
            check(::write(channel[1], &outcome, sizeof outcome) == sizeof outcome, "write");
            ::_exit(0);
        } catch (const std::exception& error) {
            die(error.what());
        }
    }
    ::close(channel[1]);
    Outcome outcome;
    const bool read = ::read(channel[0], &outcome, sizeof outcome) == sizeof outcome;
    ::close(channel[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    std::error_code ignored;
    fs::remove_all(scratch, ignored);
    check(read && WIFEXITED(status) && WEXITSTATUS(status) == 0, "a timed run");
    return outcome;
}

// ---- rounds and report

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Timings {
    std::map<Way, std::vector<double>> seconds;
    std::vector<double> peakMiB; // of the launcher
    long forkedKiB = 0;          // the most this process had when it forked the launcher
};

struct Row {
    Size size;
    std::size_t files;
    std::uintmax_t bytes;
    const char* layout;
    double migration, eraseAndCopy, erase, peakMiB;
};

const char* nameOf(Way way) {
    switch (way) {
    case Way::Migration:
        return "migration (tolva-migrate)";
    case Way::EraseAndCopy:
        return "cp -a + sync -f + rpm -e";
    case Way::Erase:
        break;
    case Way::NamesAlone:
        return "names alone";
    }
    return "rpm -e";
}

// Each round runs every way once, one after the other: a ratio per round compares runs made
// close together.
std::vector<double> pairedRatios(const Timings& timings, Way over) {
    const auto& migration = timings.seconds.at(Way::Migration);
    const auto& other = timings.seconds.at(over);
    std::vector<double> ratios;
    for (std::size_t round = 0; round < migration.size(); ++round)
        ratios.push_back(migration[round] / other[round]);
    return ratios;
}

Row report(const Device& device, Layout layout, const Timings& timings) {
    const bool shared = layout == Layout::Shared;
    std::printf("%s (%zu files, %.1f MiB), database on %s:\n", device.size.label().c_str(),
                device.files, double(device.bytes) / (1 << 20),
                shared ? "the installed files' file system" : "another file system");
    for (const Way way : waysFor(layout)) {
        const auto& values = timings.seconds.at(way);
        std::printf("  %-26s median %8.3f s  (min %.3f, max %.3f)\n", nameOf(way), median(values),
                    *std::min_element(values.begin(), values.end()),
                    *std::max_element(values.begin(), values.end()));
    }
    const double migration = median(timings.seconds.at(Way::Migration));
    const double eraseAndCopy = median(timings.seconds.at(Way::EraseAndCopy));
    const double erase = median(timings.seconds.at(Way::Erase));
    std::printf("  migration / (rpm -e + cp) %.2f (target at most 1.10)", migration / eraseAndCopy);
    if (shared)
        std::printf("; migration / rpm -e %.2f (target at most 1.30; names alone / rpm -e %.2f)",
                    migration / erase, median(timings.seconds.at(Way::NamesAlone)) / erase);
    const auto paired = [&](Way over) {
        const auto ratios = pairedRatios(timings, over);
        return std::make_tuple(median(ratios), *std::min_element(ratios.begin(), ratios.end()),
                               *std::max_element(ratios.begin(), ratios.end()));
    };
    const auto [againstPair, pairMin, pairMax] = paired(Way::EraseAndCopy);
    std::printf("\n  round by round: migration / (rpm -e + cp) median %.2f (min %.2f, max %.2f)",
                againstPair, pairMin, pairMax);
    if (shared) {
        const auto [againstErase, eraseMin, eraseMax] = paired(Way::Erase);
        std::printf("; migration / rpm -e median %.2f (min %.2f, max %.2f)", againstErase, eraseMin,
                    eraseMax);
    }
    const double peak = median(timings.peakMiB);
    std::printf("\n  launcher peak resident memory %.1f MiB (max %.1f; target under 64; the "
                "forking process had %.1f MiB)\n",
                peak, *std::max_element(timings.peakMiB.begin(), timings.peakMiB.end()),
                timings.forkedKiB / 1024.0);
    std::fflush(stdout);
    return {device.size, device.files, device.bytes, shared ? "shared" : "separate",
            migration,   eraseAndCopy, erase,        peak};
}

std::vector<Row> benchmark(const Size& size, int rounds) {
    const Device device = makeDevice(size);
    std::map<Layout, Timings> timings;
    for (int round = 0; round < rounds; ++round) {
        for (const Layout layout : {Layout::Shared, Layout::Separate}) {
            // Each way goes first in turn, so none always meets the others' leftovers.
            const auto ways = waysFor(layout);
            for (std::size_t turn = 0; turn < ways.size(); ++turn) {
                const Way way = ways[(round + turn) % ways.size()];
                const Outcome outcome = timeOnce(device, layout, way);
                timings[layout].seconds[way].push_back(outcome.seconds);
                if (way == Way::Migration) {
                    timings[layout].peakMiB.push_back(outcome.peakKiB / 1024.0);
                    timings[layout].forkedKiB =
                        std::max(timings[layout].forkedKiB, outcome.forkedKiB);
                }
            }
        }
    }
    return {report(device, Layout::Shared, timings[Layout::Shared]),
            report(device, Layout::Separate, timings[Layout::Separate])};
}

void printTable(const std::vector<Row>& rows) {
    std::printf("\n%5s %6s %9s  %-9s %11s %13s %9s %11s\n", "apps", "files", "data MiB", "database",
                "migration", "rpm -e + cp", "rpm -e", "peak RSS");
    for (const auto& row : rows)
        std::printf("%5d %6zu %9.1f  %-9s %9.3f s %11.3f s %7.3f s %7.1f MiB\n",
                    row.size.largeMiB ? 1 : row.size.apps, row.files, double(row.bytes) / (1 << 20),
                    row.layout, row.migration, row.eraseAndCopy, row.erase, row.peakMiB);
}

Size parseSize(const std::string& text) {
    Size size;
    if (text.rfind("large:", 0) == 0) {
        size.largeMiB = std::atol(text.c_str() + 6);
        check(size.largeMiB > 0, "reading size " + text);
        return size;
    }
    const auto x = text.find('x');
    check(x != std::string::npos, "reading size " + text + " (APPSxFILES or large:MIB)");
    size.apps = std::atoi(text.substr(0, x).c_str());
    size.files = std::atoi(text.substr(x + 1).c_str());
    check(size.apps > 0 && size.files >= 5, "reading size " + text + " (at least 5 files)");
    return size;
}

} // namespace

int main(int argc, char** argv) {
    int first = 1;
    int rounds = 3;
    if (argc > 1 && std::string(argv[1]).find_first_not_of("0123456789") == std::string::npos) {
        rounds = std::max(1, std::atoi(argv[1]));
        first = 2;
    }
    std::vector<Size> sizes;
    for (int i = first; i < argc; ++i)
        sizes.push_back(parseSize(argv[i]));
    if (sizes.empty())
        for (const char* text : {"20x30", "100x60", "300x100", "large:1024"})
            sizes.push_back(parseSize(text));
    if (const auto& reason = TestSupport::sandboxUnavailableReason(); !reason.empty()) {
        std::fprintf(stderr, "bench_migration: %s\n", reason.c_str());
        return 77;
    }
    const ScratchDisk disk;
    scratchDisk = &disk;
    std::printf("migration against rpm -e + cp and rpm -e alone, medians of %d rounds, every run "
                "in a fresh sandbox on %s\n",
                rounds, disk.description().c_str());
    std::fflush(stdout);
    std::vector<Row> rows;
    for (const auto& size : sizes)
        for (const auto& row : benchmark(size, rounds))
            rows.push_back(row);
    printTable(rows);
    return 0;
}
