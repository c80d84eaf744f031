#include "tests/support/journal_capture.hpp"

#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace TestSupport {

namespace {

constexpr const char* journalSocket = "/run/systemd/journal/socket";

// Fields are "KEY=VALUE\n", or, for a value holding a line end, "KEY\n" followed by a 64-bit
// little-endian length, the bytes and "\n".
std::map<std::string, std::string> parseEntry(const std::string& data) {
    std::map<std::string, std::string> fields;
    size_t at = 0;
    while (at < data.size()) {
        const size_t end = data.find('\n', at);
        if (end == std::string::npos)
            throw std::runtime_error("truncated journal entry");
        const std::string line = data.substr(at, end - at);
        if (const size_t eq = line.find('='); eq != std::string::npos) {
            fields[line.substr(0, eq)] = line.substr(eq + 1);
            at = end + 1;
            continue;
        }
        std::uint64_t length = 0;
        if (end + 1 + 8 > data.size())
            throw std::runtime_error("truncated journal field");
        for (int i = 7; i >= 0; --i)
            length = (length << 8) | static_cast<unsigned char>(data[end + 1 + i]);
        fields[line] = data.substr(end + 9, length);
        at = end + 9 + length + 1;
    }
    return fields;
}

} // namespace

JournalCapture::JournalCapture() {
    socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, journalSocket, sizeof address.sun_path - 1);
    ::unlink(journalSocket);
    if (socket < 0 || ::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address))
        throw std::runtime_error(std::string("cannot bind the journal socket: ") +
                                 std::strerror(errno));
}

JournalCapture::~JournalCapture() {
    ::close(socket);
    ::unlink(journalSocket);
}

bool JournalCapture::pending() const {
    pollfd waiting{socket, POLLIN, 0};
    return ::poll(&waiting, 1, 0) == 1;
}

std::map<std::string, std::string> JournalCapture::receive() {
    pollfd waiting{socket, POLLIN, 0};
    if (::poll(&waiting, 1, 1000) != 1)
        throw std::runtime_error("no journal entry arrived");
    std::vector<char> buffer(1 << 20);
    const ssize_t n = ::recv(socket, buffer.data(), buffer.size(), 0);
    if (n < 0)
        throw std::runtime_error("cannot read the journal socket");
    return parseEntry(std::string(buffer.data(), static_cast<size_t>(n)));
}

} // namespace TestSupport
