// Copying package files with their extended attributes is the launcher's main cost. Times
// copyFileWithExtendedAttributes over a tree of a few thousand files of mixed sizes, and over
// one large file, against `cp -r --preserve=xattr` on the same data, alternating the two, and
// prints the medians and their ratios (ours / cp; below 1 is faster).
//
//   bench_copy_with_attributes [FILES] [LARGE_MIB] [ROUNDS]   (default 3000 1024 5)
//
// The data lives in a scratch directory under $TMPDIR (or /tmp), removed at the end.

#include "common/filesystem.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <string>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

void check(bool ok, const std::string& what) {
    if (!ok) {
        std::perror(what.c_str());
        std::exit(1);
    }
}

void writeFile(const fs::path& path, std::size_t size, std::mt19937& random) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    check(fd >= 0, "open " + path.string());
    std::vector<char> chunk(std::min<std::size_t>(size, 1 << 20));
    for (auto& byte : chunk)
        byte = static_cast<char>(random());
    for (std::size_t written = 0; written < size;) {
        const std::size_t n = std::min(chunk.size(), size - written);
        check(::write(fd, chunk.data(), n) == ssize_t(n), "write " + path.string());
        written += n;
    }
    ::close(fd);
}

void putAttribute(const fs::path& path, const char* name, const std::string& value) {
    check(::lsetxattr(path.c_str(), name, value.data(), value.size(), 0) == 0,
          std::string("lsetxattr ") + name);
}

// Sizes as a package has them: mostly small files, some medium, a few large ones.
std::size_t sizeOfFile(std::mt19937& random) {
    const unsigned bucket = random() % 100;
    if (bucket < 60)
        return random() % 4096;
    if (bucket < 90)
        return 4096 + random() % (60 << 10);
    return (64 << 10) + random() % (960 << 10);
}

void makeTree(const fs::path& root, int files, std::mt19937& random) {
    const bool privileged = ::geteuid() == 0;
    for (int i = 0; i < files; ++i) {
        const fs::path dir =
            root / ("dir" + std::to_string(i % 40)) / ("sub" + std::to_string(i % 3));
        fs::create_directories(dir);
        const fs::path file = dir / ("file" + std::to_string(i));
        writeFile(file, sizeOfFile(random), random);
        putAttribute(file, "user.tolva.mapping.target", file.string());
        if (i % 2 == 0)
            putAttribute(file, "user.TA.shdr", std::string(96, '\x5a'));
        if (privileged)
            putAttribute(file, "security.appid", "bench.package");
    }
}

double seconds(std::chrono::steady_clock::duration elapsed) {
    return std::chrono::duration<double>(elapsed).count();
}

double copyWithLibrary(const fs::path& from, const fs::path& to) {
    const auto start = std::chrono::steady_clock::now();
    for (const auto& entry : fs::recursive_directory_iterator(from))
        if (entry.is_regular_file())
            Common::copyFileWithExtendedAttributes(entry.path(),
                                                   to / entry.path().lexically_relative(from));
    return seconds(std::chrono::steady_clock::now() - start);
}

double copyWithCp(const fs::path& from, const fs::path& to) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
        ::execl("/bin/cp", "cp", "-r", "--preserve=xattr", from.c_str(), to.c_str(), nullptr);
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const double elapsed = seconds(std::chrono::steady_clock::now() - start);
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "cp");
    return elapsed;
}

// Every copy starts alike: no destination, and no dirty pages of the previous copy.
void reset(const fs::path& destination) {
    fs::remove_all(destination);
    ::sync();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Timing {
    std::vector<double> ours, cp;
};

Timing compare(const fs::path& source, const fs::path& destination, int rounds) {
    Timing timing;
    for (int round = 0; round < rounds; ++round) {
        // Alternate which one goes first, so neither always meets the other's leftovers.
        for (int turn = 0; turn < 2; ++turn) {
            reset(destination);
            if ((round + turn) % 2 == 0)
                timing.ours.push_back(copyWithLibrary(source, destination));
            else
                timing.cp.push_back(copyWithCp(source, destination));
        }
    }
    reset(destination);
    return timing;
}

void report(const char* what, const Timing& timing) {
    const double ours = median(timing.ours), cp = median(timing.cp);
    std::printf("%s\n  copyFileWithExtendedAttributes  median %7.3f s  (min %7.3f, max %7.3f)\n"
                "  cp -r --preserve=xattr          median %7.3f s  (min %7.3f, max %7.3f)\n"
                "  ratio of the medians %.2f\n",
                what, ours, *std::min_element(timing.ours.begin(), timing.ours.end()),
                *std::max_element(timing.ours.begin(), timing.ours.end()), cp,
                *std::min_element(timing.cp.begin(), timing.cp.end()),
                *std::max_element(timing.cp.begin(), timing.cp.end()), ours / cp);
}

} // namespace

int main(int argc, char** argv) {
    const int files = argc > 1 ? std::atoi(argv[1]) : 3000;
    const long largeMiB = argc > 2 ? std::atol(argv[2]) : 1024;
    const int rounds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;

    std::string pattern = (fs::temp_directory_path() / "bench-copy.XXXXXX").string();
    check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    const fs::path scratch = pattern;
    std::mt19937 random(20240601);

    makeTree(scratch / "tree", files, random);
    fs::create_directories(scratch / "large");
    const fs::path large = scratch / "large" / "payload.bin";
    writeFile(large, std::size_t(largeMiB) << 20, random);
    putAttribute(large, "user.tolva.mapping.target", large.string());

    std::printf("copy with attributes: %d files of mixed sizes, one file of %ld MiB, "
                "medians of %d rounds\n",
                files, largeMiB, rounds);
    const auto tree = compare(scratch / "tree", scratch / "tree-copy", rounds);
    report("tree of mixed files:", tree);
    const auto big = compare(scratch / "large", scratch / "large-copy", rounds);
    report("one large file:", big);

    fs::remove_all(scratch);
    return 0;
}
