#pragma once

// The platform log: one event (level, code, text) to the system journal.

#include <cstdint>

// Sends one journal entry. Level 1, 2 and 8 become the priorities info, warning and error.
// Returns 0 when the entry was sent, or when there is no journal to send it to; a negative
// errno value when sending failed.
int log_event(std::uint8_t level, std::uint32_t code, const char* text);
