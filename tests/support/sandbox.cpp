#include "tests/support/sandbox.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace TestSupport {

namespace {

constexpr std::array overlaidTrees{"/usr", "/etc", "/var", "/opt", "/root"};

// The project's own trees: tests and the demo run binaries and keep fixtures, scratch
// directories and sanitizer reports there, wherever the checkout lies (under /tmp too).
constexpr std::array projectTrees{TOLVA_SOURCE_DIR, TOLVA_BINARY_DIR};

bool entered = false; // by enterSandbox()

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void mountOrFail(const char* source, const std::string& target, const char* type,
                 unsigned long flags, const std::string& options) {
    if (::mount(source, target.c_str(), type, flags, options.empty() ? nullptr : options.c_str()))
        fail("mount " + std::string(type ? type : "") + " on " + target);
}

// Tries the whole recipe in a throw-away child, so the answer is the real one.
std::string probeSandbox() {
    if (::geteuid() != 0)
        return "the sandbox needs root (CAP_SYS_ADMIN for a mount namespace and overlays)";
    const auto scratch = makeSandboxScratch();
    const int report = ::memfd_create("sandbox-probe", 0);
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            enterSandbox(scratch);
            ::_exit(0);
        } catch (const std::exception& error) {
            const std::string text = error.what();
            [[maybe_unused]] auto written = ::write(report, text.data(), text.size());
            ::_exit(1);
        }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::string reason;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        reason = "cannot make a sandbox here: " + readFromStart(report);
    ::close(report);
    std::error_code ignored;
    fs::remove_all(scratch, ignored);
    return reason;
}

bool isWithin(const fs::path& tree, const fs::path& base) {
    const auto inside = tree.lexically_relative(base);
    return !inside.empty() && *inside.begin() != "..";
}

// An open handle on a directory that stays usable after a mount hides its path.
class DirectoryHandle {
public:
    explicit DirectoryHandle(const fs::path& path)
        : fd(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        if (fd < 0)
            fail("open " + path.string());
    }
    DirectoryHandle(DirectoryHandle&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    DirectoryHandle& operator=(DirectoryHandle&&) = delete;
    ~DirectoryHandle() {
        if (fd >= 0)
            ::close(fd);
    }
    std::string procPath() const { return "/proc/self/fd/" + std::to_string(fd); }

private:
    int fd;
};

using HeldTrees = std::vector<std::pair<fs::path, DirectoryHandle>>;

// A handle on each project tree, taken before the mounts below hide it; a tree inside another
// rides along with that one.
HeldTrees holdProjectTrees() {
    std::vector<fs::path> trees(projectTrees.begin(), projectTrees.end());
    std::sort(trees.begin(), trees.end()); // a tree sorts right before the trees inside it
    HeldTrees held;
    for (const auto& tree : trees)
        if (held.empty() || !isWithin(tree, held.back().first))
            held.emplace_back(tree, DirectoryHandle(tree));
    return held;
}

// Binds each held tree back at its own path, over the overlay or fresh tmpfs that now covers it.
void restoreProjectTrees(const HeldTrees& held) {
    for (const auto& [tree, handle] : held) {
        fs::create_directories(tree);
        mountOrFail(handle.procPath().c_str(), tree, nullptr, MS_BIND | MS_REC, {});
    }
}

} // namespace

std::string readFromStart(int fd) {
    std::string text;
    ::lseek(fd, 0, SEEK_SET);
    char buffer[65536];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

const std::string& sandboxUnavailableReason() {
    static const std::string reason = probeSandbox();
    return reason;
}

fs::path makeSandboxScratch(const fs::path& parent) {
    std::string pattern = (parent / "tolva-sandbox.XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        fail("mkdtemp");
    return pattern;
}

// A program that tolva-sandbox started did not enter the sandbox itself: it is known by a
// mount namespace other than the init process's.
bool insideSandbox() {
    std::error_code error;
    return entered || fs::read_symlink("/proc/self/ns/mnt", error) !=
                          fs::read_symlink("/proc/1/ns/mnt", error);
}

void enterSandbox(const fs::path& scratch) {
    if (::unshare(CLONE_NEWNS))
        fail("unshare(CLONE_NEWNS)");
    mountOrFail(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, {});
    const auto projectTreesHeld = holdProjectTrees();
    for (const std::string tree : overlaidTrees) {
        const auto upper = scratch / "upper" / tree.substr(1);
        const auto work = scratch / "work" / tree.substr(1);
        fs::create_directories(upper);
        fs::create_directories(work);
        mountOrFail("overlay", tree, "overlay", 0,
                    "lowerdir=" + tree + ",upperdir=" + upper.string() +
                        ",workdir=" + work.string());
    }
    mountOrFail("tmpfs", "/tmp", "tmpfs", 0, "mode=1777");
    const char* run = fs::is_directory("/run/systemd") ? "/run/systemd" : "/run";
    mountOrFail("tmpfs", run, "tmpfs", 0, "mode=755");
    fs::create_directories("/run/systemd/journal");
    restoreProjectTrees(projectTreesHeld);

    // A device keeps its RPM database in the system tree, not under the user's home.
    fs::create_directories("/etc/rpm");
    if (!(std::ofstream("/etc/rpm/macros.dbpath") << "%_dbpath /var/lib/rpm\n").flush())
        throw std::runtime_error("couldn't write /etc/rpm/macros.dbpath");
    ::setenv("HOME", "/root", 1);
    entered = true;
}

ProcessResult runProgram(const std::vector<std::string>& argv, const std::string& input) {
    const int in = ::memfd_create("stdin", 0);
    const int out = ::memfd_create("stdout", 0);
    const int err = ::memfd_create("stderr", 0);
    if (in < 0 || out < 0 || err < 0)
        fail("memfd_create");
    if (!input.empty() && ::write(in, input.data(), input.size()) != ssize_t(input.size()))
        fail("write stdin");
    ::lseek(in, 0, SEEK_SET);

    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);

    const pid_t child = ::fork();
    if (child < 0)
        fail("fork");
    if (child == 0) {
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ProcessResult result;
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    result.out = readFromStart(out);
    result.err = readFromStart(err);
    ::close(in);
    ::close(out);
    ::close(err);
    return result;
}

} // namespace TestSupport
