#pragma once

// A private mount namespace in which the system trees are overlays: code under test works on
// the real fixed paths while the host never changes.

#include <filesystem>
#include <string>
#include <vector>

namespace TestSupport {

// Why no sandbox can be had on this machine; empty when one can.
const std::string& sandboxUnavailableReason();

// Turns the calling process into a sandboxed one: a private mount namespace with overlays on
// /usr, /etc, /var, /opt and /root (their upper layers under `scratch`), fresh tmpfs on /tmp
// and /run/systemd (with journal/ inside), RPM's database at /var/lib/rpm and HOME=/root.
// The project's source and build trees stay the host's own, at their paths, wherever they lie.
// There is no way back. The process must have one thread. Throws std::runtime_error.
void enterSandbox(const std::filesystem::path& scratch);

// Whether this process has entered a sandbox.
bool insideSandbox();

// A new scratch directory on the host for one sandbox.
std::filesystem::path
makeSandboxScratch(const std::filesystem::path& parent = std::filesystem::temp_directory_path());

struct ProcessResult {
    bool exited = false; // ended by exit() rather than a signal
    int status = -1;     // exit status, or the signal number when !exited
    std::string out;
    std::string err;
};

// What the file open as `fd` holds, read from its start.
std::string readFromStart(int fd);

// Runs a program to its end with the given standard input and collects what it printed.
ProcessResult runProgram(const std::vector<std::string>& argv, const std::string& input = {});

} // namespace TestSupport
