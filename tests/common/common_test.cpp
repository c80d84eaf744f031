// Copies that carry extended attributes, path placement and log lines. Attributes themselves
// are read and written with every extraction and mapping.

#include "common/filesystem.hpp"
#include "common/log.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

namespace fs = std::filesystem;
using Common::copyFileWithExtendedAttributes;
using namespace TestSupport;

TEST(CopyFileWithExtendedAttributes, EveryNonEmptyAttributeOrNothingBehind) {
    SANDBOXED([] {
        writeFile("/opt/copy/many", "data");
        for (const auto& [name, value] : {std::pair{"user.b", "2"},
                                          {"security.appid", "demo"},
                                          {"user.empty", ""},
                                          {"trusted.ta", "t"}})
            putAttribute("/opt/copy/many", name, value);
        auto names = attributeNames("/opt/copy/many");
        std::erase(names, "user.empty");
        copyFileWithExtendedAttributes("/opt/copy/many", "/opt/copy/new/many");
        EXPECT_EQ(attributeNames("/opt/copy/new/many"), names);
        EXPECT_EQ(attribute("/opt/copy/new/many", "trusted.ta"), "t");

        writeFile("/opt/copy/source", "new");
        putAttribute("/opt/copy/source", "user.a", "new");
        writeFile("/opt/copy/existing", "old");
        // ramfs keeps no extended attributes at all; the append-only directory on a file system
        // of three inodes has room for the copy but not for its attribute, and keeps the copy.
        mountFresh("ramfs", "/tmp/ramfs");
        mountFresh("tmpfs", "/tmp/full", "nr_inodes=3");
        const fs::path stuck = R"(/tmp/full/a "b"\c)";
        makeAppendOnly(stuck);
        const std::tuple<fs::path, fs::path, std::string> refused[] = {
            {"/opt/copy/source", "/opt/copy/existing",
             "couldn't copy file /opt/copy/source -> /opt/copy/existing"},
            {"/opt/copy/missing", "/opt/copy/sub/copy",
             "couldn't retrieve size of extended attributes: /opt/copy/missing"},
            {"/opt/copy/source", "/tmp/ramfs/sub/copy",
             "couldn't attach user.a extended attribute to /tmp/ramfs/sub/copy"},
            {"/opt/copy/source", stuck / "copy",
             R"(couldn't attach user.a extended attribute to /tmp/full/a "b"\c/copy)"},
        };
        std::vector<std::string> logs;
        for (const auto& [from, to, message] : refused)
            logs.push_back(captureStderr([&] {
                EXPECT_EQ(errorOf([&] { copyFileWithExtendedAttributes(from, to); }), message);
            }));
        // One error line with the cause, which names the kept destination.
        EXPECT_EQ(readFile("/opt/copy/existing"), "old");
        EXPECT_TRUE(logs[0].starts_with("ERROR: ") && std::ranges::count(logs[0], '\n') == 1 &&
                    logs[0].find("/opt/copy/existing") != std::string::npos)
            << logs[0];
        // A missing source is found out before anything is created.
        EXPECT_EQ(logs[1], "");
        EXPECT_FALSE(fs::exists("/opt/copy/sub"));
        EXPECT_EQ(logs[2], "");
        EXPECT_FALSE(fs::exists("/tmp/ramfs/sub/copy"));
        EXPECT_EQ(logs[3], "WARN: couldn't cleanup file: \"/tmp/full/a \\\"b\\\"\\\\c/copy\"\n"
                           "WARN: " +
                               removalFailure(stuck / "copy") + "\n");
    });
}

TEST(RemapPath, FirstMatchingRulePlacesThePath) {
    // Both /usr/share/ and /usr/share/demo/ match a path below the latter: the earlier rule
    // decides. A prefix without the trailing "/" matches on the leading characters alone.
    const std::vector<Common::RemapRule> rules{
        {"/usr/share/", "share-first"}, {"/usr/share/demo/", "data"}, {"/opt/ab", "ab"}};
    const std::pair<fs::path, fs::path> placed[] = {
        {"/usr/share/demo/x/y.qml", "share-first/demo/x/y.qml"},
        {"/opt/abc/x", "ab/c/x"},
        {"/usr/sharex", "usr/sharex"},
        {"relative/file", "relative/file"},
    };
    for (const auto& [path, place] : placed)
        EXPECT_EQ(Common::remapPath(path, rules), place) << path;
}

// Paths and pieces in log lines are checked with every message above.
TEST(LogLine, ANullCStringFailsTheStreamForItsOwnRecordOnly) {
    EXPECT_EQ(captureStderr([] {
                  Common::LogLine(Common::LogLevel::Info) << static_cast<const char*>(nullptr);
                  Common::logError("next");
              }),
              "INFO: \nERROR: next\n");
}

// Work done on several threads tells its story in the order of the work, not of the threads.
TEST(LogCapture, KeepsItsOwnThreadsLinesUntilTheyAreWritten) {
    std::string kept;
    const auto written = captureStderr([&] {
        {
            const Common::LogCapture capture(kept);
            Common::logWarning("kept");
            std::thread([] { Common::logInfo("another thread's"); }).join();
        }
        Common::logError("after");
        Common::writeCapturedLines(kept);
    });
    EXPECT_EQ(kept, "WARN: kept\n");
    EXPECT_EQ(written, "INFO: another thread's\nERROR: after\nWARN: kept\n");
}
