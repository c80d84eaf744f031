#include "platform/event_log/event_log.h"

#include "tests/support/journal_capture.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <gtest/gtest.h>

TEST(LogEvent, SendsLevelAsPriorityAndIsQuietWithoutAJournal) {
    SANDBOXED([] {
        // The sandbox's /run/systemd is empty: no journal to talk to.
        EXPECT_EQ(log_event(2, 7, "nobody listens"), 0);

        TestSupport::JournalCapture journal;
        EXPECT_EQ(log_event(2, 7, "100% sure"), 0);
        auto entry = journal.receive();
        EXPECT_EQ(entry["MESSAGE"], "100% sure");
        EXPECT_EQ(entry["PRIORITY"], "4");
        EXPECT_EQ(entry["TOLVA_EVENT_CODE"], "7");
        EXPECT_EQ(entry["TOLVA_EVENT_LEVEL"], "2");
    });
}
