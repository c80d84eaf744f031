#include "tests/support/sandboxed_test.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {

SandboxOutcome runInSandbox(const std::function<void()>& body) {
    if (const auto& reason = sandboxUnavailableReason(); !reason.empty()) {
        if (const char* ci = std::getenv("CI"); ci && std::strcmp(ci, "true") == 0) {
            ADD_FAILURE() << "CI needs the sandbox, and " << reason;
            return {};
        }
        return {true, reason};
    }
    const auto scratch = makeSandboxScratch();
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            enterSandbox(scratch);
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "the sandboxed body threw: " << error.what();
        }
        std::cout.flush();
        std::fflush(nullptr);
        // exit(), not _exit(): the leak checker of the sanitizer build runs at exit.
        std::exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the sandboxed part of the test failed (its report is above)";
    return {};
}

std::string captureStderr(const std::function<void()>& body) {
    std::cerr.flush();
    const int buffer = ::memfd_create("stderr", 0);
    const int saved = ::dup(2);
    ::dup2(buffer, 2);
    std::exception_ptr thrown;
    try {
        body();
    } catch (...) {
        thrown = std::current_exception();
    }
    std::cerr.flush();
    ::dup2(saved, 2);
    ::close(saved);
    std::string text = readFromStart(buffer);
    ::close(buffer);
    if (thrown)
        std::rethrow_exception(thrown);
    return text;
}

} // namespace TestSupport
