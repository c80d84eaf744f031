#include "platform/event_log/event_log.h"
#include "tests/support/journal_capture.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(LogEvent, SendsLevelAsPriorityAndIsQuietWithoutAJournal) {
    SANDBOXED([] {
        // The sandbox's /run/systemd is empty: no journal to talk to.
        EXPECT_EQ(log_event(2, 7, "nobody listens"), 0);
        // A journal socket that nobody reads any more: sending to it is refused.
        ASSERT_EQ(::mknod("/run/systemd/journal/socket", S_IFSOCK | 0666, 0), 0);
        EXPECT_EQ(log_event(2, 7, "nobody reads"), 0);

        TestSupport::JournalCapture journal;
        for (const auto& [level, priority] : {std::pair{1, "6"}, {2, "4"}, {8, "3"}}) {
            EXPECT_EQ(log_event(level, 7, "100% sure\nb %s"), 0);
            auto entry = journal.receive();
            EXPECT_EQ(entry["MESSAGE"], "100% sure\nb %s");
            EXPECT_EQ(entry["PRIORITY"], priority);
            EXPECT_EQ(entry["TOLVA_EVENT_CODE"], "7");
            EXPECT_EQ(entry["TOLVA_EVENT_LEVEL"], std::to_string(level));
            EXPECT_EQ(entry["SYSLOG_IDENTIFIER"], "tolva-migrate");
            EXPECT_EQ(entry.count("CODE_FILE"), 0u);
        }
    });
}
