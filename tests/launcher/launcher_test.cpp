#include "launcher/launcher.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

namespace fs = std::filesystem;

// A failing run body is answered with status 1, its error and no stamp: the migration system
// tests see that from the real launcher. What goes wrong before the body exists is not handled.
TEST(Launcher, OnlyTheRunBodyIsHandled) {
    SANDBOXED([] {
        fs::create_directories("/var/lib/tolva");
        EXPECT_THROW(Launcher::launch([]() -> Launcher::RunBody {
                         throw std::runtime_error("bad configuration");
                     }),
                     std::runtime_error);
        EXPECT_FALSE(fs::exists(Launcher::stampPath));
    });
}
