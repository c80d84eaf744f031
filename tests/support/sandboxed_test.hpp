#pragma once

// GoogleTest glue for the sandbox: a test body that runs in a fresh sandbox of its own.

#include "tests/support/sandbox.hpp"

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace TestSupport {

struct SandboxOutcome {
    bool skipped = false;
    std::string reason;
};

// Runs `body` in a child process inside a fresh sandbox; its assertion failures are printed
// by the child and fail the calling test. Without a sandbox the test fails under CI=true and
// is otherwise reported as skipped (see SANDBOXED).
SandboxOutcome runInSandbox(const std::function<void()>& body);

// Runs `body` with standard error going to a buffer, and returns what it wrote.
std::string captureStderr(const std::function<void()>& body);

} // namespace TestSupport

#define SANDBOXED(...)                                                                             \
    do {                                                                                           \
        const auto sandboxOutcome = ::TestSupport::runInSandbox(__VA_ARGS__);                      \
        if (sandboxOutcome.skipped)                                                                \
            GTEST_SKIP() << sandboxOutcome.reason;                                                 \
    } while (false)
