#pragma once

// What a callback of the RPM walks answers: go on, or end the walk.

#include <cstdint>

namespace Common::Rpm {

enum class IterationResult : std::uint32_t {
    Continue = 0,
    Stop = 1, // any non-zero value ends the walk
};

} // namespace Common::Rpm
