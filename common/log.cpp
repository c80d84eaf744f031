#include "common/log.hpp"

#include "platform/event_log/event_log.h"

namespace Common {

namespace {

const char* prefixOf(LogLevel level) {
    switch (level) {
    case LogLevel::Info:
        return "INFO: ";
    case LogLevel::Warning:
        return "WARN: ";
    case LogLevel::Error:
        return "ERROR: ";
    }
    return "";
}

} // namespace

void LogLine::writePrefix() {
    if (prefixPending) {
        std::cerr << prefixOf(level);
        prefixPending = false;
    }
}

LogLine::~LogLine() {
    // A null C string among the pieces leaves the stream failed; the next record must not
    // lose its text because of it.
    std::cerr.clear();
    if (endWithNewline)
        std::cerr << '\n';
}

void log(LogLevel level, const std::string& text) {
    LogLine(level) << text;
}

EventLogRecord::~EventLogRecord() {
    log_event(static_cast<std::uint8_t>(level), static_cast<std::uint32_t>(code),
              text.str().c_str());
}

} // namespace Common
