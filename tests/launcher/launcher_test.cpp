#include "launcher/launcher.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

namespace fs = std::filesystem;

TEST(Launcher, OnlyTheRunBodyIsHandledAndAFailedOneLeavesNoStamp) {
    SANDBOXED([] {
        fs::create_directories("/var/lib/tolva");
        EXPECT_THROW(Launcher::launch([]() -> Launcher::RunBody {
                         throw std::runtime_error("bad configuration");
                     }),
                     std::runtime_error);
        int status = -1;
        const auto err = TestSupport::captureStderr([&] {
            status = Launcher::launch(
                [] { return [] { throw std::runtime_error("couldn't open rpm database"); }; });
        });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(err, "ERROR: couldn't open rpm database\nERROR: coundn't migrate rpm packages\n");
        EXPECT_FALSE(fs::exists(Launcher::stampPath));
    });
}
