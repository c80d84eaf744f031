#include "platform/event_log/event_log.h"
#include "tests/support/journal_capture.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A journal socket that nobody reads any more: sending to it is refused.
void leaveAbandonedJournalSocket() {
    const int listener = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/run/systemd/journal/socket");
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(listener);
}

} // namespace

TEST(LogEvent, SendsLevelAsPriorityAndIsQuietWithoutAJournal) {
    SANDBOXED([] {
        // The sandbox's /run/systemd is empty: no journal to talk to.
        EXPECT_EQ(log_event(2, 7, "nobody listens"), 0);
        leaveAbandonedJournalSocket();
        EXPECT_EQ(log_event(2, 7, "nobody reads"), 0);

        TestSupport::JournalCapture journal;
        for (const auto& [level, priority] : {std::pair{1, "6"}, {2, "4"}, {8, "3"}}) {
            EXPECT_EQ(log_event(level, 7, "100% sure"), 0);
            auto entry = journal.receive();
            EXPECT_EQ(entry["MESSAGE"], "100% sure");
            EXPECT_EQ(entry["PRIORITY"], priority);
            EXPECT_EQ(entry["TOLVA_EVENT_CODE"], "7");
            EXPECT_EQ(entry["TOLVA_EVENT_LEVEL"], std::to_string(level));
            EXPECT_EQ(entry["SYSLOG_IDENTIFIER"], "tolva-migrate");
            EXPECT_EQ(entry.count("CODE_FILE"), 0u);
        }
    });
}
