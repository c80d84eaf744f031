#include "common/log.hpp"
#include "tests/support/journal_capture.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

using Common::LogLevel;
using Common::LogLine;
using TestSupport::captureStderr;

TEST(LogLine, WritesOnePrefixPerRecordAndEndsTheLine) {
    EXPECT_EQ(captureStderr([] { Common::logInfo("started"); }), "INFO: started\n");
    EXPECT_EQ(captureStderr([] { Common::logWarning("careful"); }), "WARN: careful\n");
    EXPECT_EQ(captureStderr([] { Common::logError("broken"); }), "ERROR: broken\n");
    EXPECT_EQ(captureStderr([] {
                  LogLine(LogLevel::Info)
                      << "successfully bound " << std::string("demo.notes") << " package to source "
                      << "(keyid=" << 42 << ")";
              }),
              "INFO: successfully bound demo.notes package to source (keyid=42)\n");
    EXPECT_EQ(captureStderr([] {
                  Common::logInfo("one");
                  Common::logWarning("two");
              }),
              "INFO: one\nWARN: two\n");
}

TEST(LogLine, EdgeCasesOfLevelAndContent) {
    EXPECT_EQ(captureStderr([] { LogLine(static_cast<LogLevel>(4)) << "no prefix"; }),
              "no prefix\n");
    EXPECT_EQ(captureStderr([] { Common::logInfo(""); }), "INFO: \n");
    EXPECT_EQ(captureStderr([] { LogLine(LogLevel::Error) << std::runtime_error("cause"); }),
              "ERROR: cause\n");
    EXPECT_EQ(captureStderr([] {
                  LogLine(LogLevel::Warning)
                      << "couldn't cleanup file: " << std::filesystem::path(R"(/a "b"\c)");
              }),
              "WARN: couldn't cleanup file: \"/a \\\"b\\\"\\\\c\"\n");
    // A null C string fails the stream for its own record only.
    EXPECT_EQ(captureStderr([] {
                  LogLine(LogLevel::Info) << static_cast<const char*>(nullptr) << "lost";
                  Common::logInfo("next");
              }),
              "INFO: \nINFO: next\n");
}

TEST(EventLogRecord, ReachesTheJournalAndNotStandardError) {
    SANDBOXED([] {
        TestSupport::JournalCapture journal;
        const auto err = captureStderr([] {
            Common::EventLogRecord(LogLevel::Error, Common::EventCode::CorruptedPackageCleanup)
                << "/opt/app/"
                << "demo.notes";
        });
        EXPECT_EQ(err, "");
        auto entry = journal.receive();
        EXPECT_EQ(entry["MESSAGE"], "/opt/app/demo.notes");
        EXPECT_EQ(entry["PRIORITY"], "3");
        EXPECT_EQ(entry["TOLVA_EVENT_CODE"], "14");
        EXPECT_EQ(entry["TOLVA_EVENT_LEVEL"], "8");
        EXPECT_EQ(entry["SYSLOG_IDENTIFIER"], "tolva-migrate");
        EXPECT_EQ(entry.count("CODE_FILE"), 0u);

        { Common::EventLogRecord(LogLevel::Info, Common::EventCode::PackageUpgrade) << "a\nb %s"; }
        entry = journal.receive();
        EXPECT_EQ(entry["MESSAGE"], "a\nb %s");
        EXPECT_EQ(entry["PRIORITY"], "6");
        EXPECT_EQ(entry["TOLVA_EVENT_CODE"], "13");
        EXPECT_FALSE(journal.pending());
    });
}
