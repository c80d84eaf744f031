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

thread_local std::ostream* capture = nullptr;

std::ostream& currentDestination() {
    return capture ? *capture : std::cerr;
}

} // namespace

std::ostream& LogLine::destination() {
    return currentDestination();
}

void LogLine::writePrefix() {
    if (prefixPending) {
        destination() << prefixOf(level);
        prefixPending = false;
    }
}

LogLine::~LogLine() {
    // A null C string among the pieces leaves the stream failed; the next record must not
    // lose its text because of it.
    destination().clear();
    if (endWithNewline)
        destination() << '\n';
}

LogCapture::LogCapture(std::string& kept) : kept(kept), outer(capture) {
    capture = &lines;
}

LogCapture::~LogCapture() {
    capture = outer;
    kept += lines.str();
}

void writeCapturedLines(const std::string& lines) {
    currentDestination() << lines;
}

void log(LogLevel level, const std::string& text) {
    LogLine(level) << text;
}

EventLogRecord::~EventLogRecord() {
    log_event(static_cast<std::uint8_t>(level), static_cast<std::uint32_t>(code),
              text.str().c_str());
}

} // namespace Common
