#define SD_JOURNAL_SUPPRESS_LOCATION
#include "platform/event_log/event_log.h"

#include <cerrno>
#include <systemd/sd-journal.h>

namespace {

int priorityOf(std::uint8_t level) {
    switch (level) {
    case 2:
        return 4; // LOG_WARNING
    case 8:
        return 3; // LOG_ERR
    default:
        return 6; // LOG_INFO
    }
}

} // namespace

int log_event(std::uint8_t level, std::uint32_t code, const char* text) {
    const int result =
        sd_journal_send("MESSAGE=%s", text ? text : "", "PRIORITY=%i", priorityOf(level),
                        "TOLVA_EVENT_CODE=%u", unsigned(code), "TOLVA_EVENT_LEVEL=%u",
                        unsigned(level), "SYSLOG_IDENTIFIER=%s", "tolva-migrate", nullptr);
    // No journal on this system: nothing to send to, which is not a failure.
    if (result == -ENOENT || result == -ECONNREFUSED)
        return 0;
    return result;
}
