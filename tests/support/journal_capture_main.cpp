// tolva-journal-capture: inside a sandbox, stands in for journald and prints one line per
// record it receives (priority, event code and level, message) until it is stopped. Used by
// the demo.

#include "tests/support/journal_capture.hpp"

#include <csignal>
#include <exception>
#include <iostream>
#include <unistd.h>

namespace {
volatile std::sig_atomic_t stopping = 0;
}

int main() {
    try {
        TestSupport::JournalCapture journal;
        std::signal(SIGTERM, [](int) { stopping = 1; });
        std::cout << "listening" << std::endl; // the socket is bound: records can come
        while (!stopping) {
            if (!journal.pending()) {
                ::usleep(20000);
                continue;
            }
            auto record = journal.receive();
            std::cout << "PRIORITY=" << record["PRIORITY"]
                      << " TOLVA_EVENT_CODE=" << record["TOLVA_EVENT_CODE"]
                      << " TOLVA_EVENT_LEVEL=" << record["TOLVA_EVENT_LEVEL"]
                      << " SYSLOG_IDENTIFIER=" << record["SYSLOG_IDENTIFIER"]
                      << " MESSAGE=" << record["MESSAGE"] << std::endl;
        }
    } catch (const std::exception& error) {
        std::cerr << "tolva-journal-capture: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
