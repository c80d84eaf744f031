#pragma once

// The one-shot launcher: the stamp test, the migration run, and the run's outcome turned into
// the stamp file and the exit status.

#include <functional>

namespace Launcher {

inline constexpr const char* stampPath = TOLVA_STAMP_PATH;

// The part of a run that stands inside the launcher's handler.
using RunBody = std::function<void()>;
// The first stage of a run, outside the handler: what it throws ends the process. It hands
// back the rest of the run.
using Run = std::function<RunBody()>;

// Tests the stamp, performs the run, writes the stamp; returns the exit status.
int launch(const Run& run);

// The migration run of the real launcher.
RunBody startMigration();

} // namespace Launcher
