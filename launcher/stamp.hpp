#pragma once

// The stamp that marks the migration as done and the line that says so, shared by the
// migrator and the front program that answers for it. Plain constants: the front links no
// C++ runtime.

namespace Launcher {

inline constexpr const char* stampPath = TOLVA_STAMP_PATH; // one spelling, set by the build

inline constexpr const char* alreadyDoneText =
    "package migration from RPM to Tolva is already done, skipping the migration";

} // namespace Launcher
