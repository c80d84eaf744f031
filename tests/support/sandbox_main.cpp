// tolva-sandbox COMMAND [ARGS...]: runs a command in a fresh sandbox and discards the sandbox
// afterwards. Exits with the command's status, or 77 when no sandbox can be had here.

#include "tests/support/sandbox.hpp"

#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: tolva-sandbox COMMAND [ARGS...]\n";
        return 2;
    }
    if (const auto& reason = TestSupport::sandboxUnavailableReason(); !reason.empty()) {
        std::cerr << "tolva-sandbox: " << reason << '\n';
        return 77;
    }
    const auto scratch = TestSupport::makeSandboxScratch();
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            TestSupport::enterSandbox(scratch);
        } catch (const std::exception& error) {
            std::cerr << "tolva-sandbox: " << error.what() << '\n';
            ::_exit(1);
        }
        ::execvp(argv[1], argv + 1);
        std::cerr << "tolva-sandbox: cannot run " << argv[1] << '\n';
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
