#pragma once

// Stands in for journald inside a sandbox: binds the journal socket and reads the entries sent
// to it.

#include <map>
#include <string>

namespace TestSupport {

class JournalCapture {
public:
    JournalCapture(); // binds /run/systemd/journal/socket; throws std::runtime_error
    ~JournalCapture();
    JournalCapture(const JournalCapture&) = delete;
    JournalCapture& operator=(const JournalCapture&) = delete;

    // The next entry's fields; throws when none arrives within a second.
    std::map<std::string, std::string> receive();
    // Whether an entry is waiting.
    bool pending() const;

private:
    int socket = -1;
};

} // namespace TestSupport
