#include "common/log.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

using Common::LogLevel;
using Common::LogLine;
using TestSupport::captureStderr;

TEST(LogLine, OnePrefixPerRecordThenItsPiecesAndTheLineEnd) {
    const std::pair<std::function<void()>, std::string> records[] = {
        {[] {
             LogLine(LogLevel::Info) << "bound " << std::string("demo") << " (keyid=" << 42 << ")";
         },
         "INFO: bound demo (keyid=42)\n"},
        {[] { LogLine(LogLevel::Warning) << "file: " << std::filesystem::path(R"(/a "b"\c)"); },
         "WARN: file: \"/a \\\"b\\\"\\\\c\"\n"},
        // A null C string fails the stream for its own record only.
        {[] {
             LogLine(LogLevel::Info) << static_cast<const char*>(nullptr) << "lost";
             Common::logError("next");
         },
         "INFO: \nERROR: next\n"},
    };
    for (const auto& [record, text] : records)
        EXPECT_EQ(captureStderr(record), text);
}
