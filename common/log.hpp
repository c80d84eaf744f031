#pragma once

// One-line log records on standard error ("INFO: ", "WARN: ", "ERROR: "), and records for the
// platform log.

#include <cstdint>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <type_traits>

namespace Common {

enum class LogLevel : std::uint32_t { Info = 1, Warning = 2, Error = 8 };

// A console line under construction: the level's prefix before the first piece, the pieces
// as they stand, and the line end when the record goes out of scope. A level outside the
// three known ones writes no prefix. Paths appended as std::filesystem::path come out quoted.
class LogLine {
public:
    explicit LogLine(LogLevel level) : level(level) {}
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;
    ~LogLine();

    template <typename T>
    requires(!std::is_base_of_v<std::exception, T>) LogLine& operator<<(const T& piece) {
        writePrefix();
        destination() << piece;
        return *this;
    }
    LogLine& operator<<(const std::exception& error) { return *this << error.what(); }

private:
    static std::ostream& destination();
    void writePrefix();

    LogLevel level;
    bool prefixPending = true;
    bool endWithNewline = true;
};

// While it lives, the lines of its thread are kept instead of written, and then appended to
// `kept`: work done on several threads can still tell its story in the order of the work.
class LogCapture {
public:
    explicit LogCapture(std::string& kept);
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

private:
    std::string& kept;
    std::ostringstream lines;
    std::ostream* outer;
};

// Writes lines that a capture kept.
void writeCapturedLines(const std::string& lines);

// The shorthand for a line of one text.
void log(LogLevel level, const std::string& text);
inline void logInfo(const std::string& text) {
    log(LogLevel::Info, text);
}
inline void logWarning(const std::string& text) {
    log(LogLevel::Warning, text);
}
inline void logError(const std::string& text) {
    log(LogLevel::Error, text);
}

// Event codes that the package database sends to the platform log.
enum class EventCode : std::uint32_t { PackageUpgrade = 13, CorruptedPackageCleanup = 14 };

// A record for the platform log: the pieces are gathered in memory and sent as one event
// when the record goes out of scope. Writes nothing to standard error; its owner writes the
// console line for the same event. A failure of the platform log ends the process.
class EventLogRecord {
public:
    EventLogRecord(LogLevel level, EventCode code) : level(level), code(code) {}
    EventLogRecord(const EventLogRecord&) = delete;
    EventLogRecord& operator=(const EventLogRecord&) = delete;
    ~EventLogRecord();

    template <typename T> EventLogRecord& operator<<(const T& piece) {
        text << piece;
        return *this;
    }

private:
    LogLevel level;
    EventCode code;
    std::ostringstream text;
};

} // namespace Common
