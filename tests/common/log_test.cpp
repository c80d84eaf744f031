#include "common/log.hpp"
#include "tests/support/journal_capture.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

using Common::LogLevel;
using Common::LogLine;
using TestSupport::captureStderr;

TEST(LogLine, OnePrefixPerRecordThenItsPiecesAndTheLineEndAndEventsToTheJournal) {
    const std::pair<std::function<void()>, std::string> records[] = {
        {[] {
             Common::logInfo("started");
             Common::logWarning("careful");
             Common::logError("broken");
         },
         "INFO: started\nWARN: careful\nERROR: broken\n"},
        {[] {
             LogLine(LogLevel::Info) << "bound " << std::string("demo") << " (keyid=" << 42 << ")";
         },
         "INFO: bound demo (keyid=42)\n"},
        {[] { LogLine(static_cast<LogLevel>(4)) << "no prefix"; }, "no prefix\n"},
        {[] { LogLine(LogLevel::Error) << "cause: " << std::runtime_error("disk full"); },
         "ERROR: cause: disk full\n"},
        {[] { LogLine(LogLevel::Warning) << "file: " << std::filesystem::path(R"(/a "b"\c)"); },
         "WARN: file: \"/a \\\"b\\\"\\\\c\"\n"},
        // A null C string fails the stream for its own record only.
        {[] {
             LogLine(LogLevel::Info) << static_cast<const char*>(nullptr) << "lost";
             Common::logInfo("next");
         },
         "INFO: \nINFO: next\n"},
    };
    for (const auto& [record, text] : records)
        EXPECT_EQ(captureStderr(record), text);

    // A record for the platform log goes to the journal alone.
    SANDBOXED([] {
        TestSupport::JournalCapture journal;
        EXPECT_EQ(
            captureStderr([] {
                Common::EventLogRecord(LogLevel::Error, Common::EventCode::CorruptedPackageCleanup)
                    << "/opt/app/" << 42 << "\nb %s";
            }),
            "");
        EXPECT_EQ(journal.receive()["MESSAGE"], "/opt/app/42\nb %s");
    });
}
