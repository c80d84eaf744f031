#include "launcher/launcher.hpp"

#include "common/error.hpp"
#include "common/filesystem.hpp"
#include "common/log.hpp"

#include <exception>
#include <filesystem>
#include <fstream>

namespace Launcher {

namespace {

// A status query that fails for any reason but absence throws, and nothing here catches it.
bool stampExists() {
    const auto type = std::filesystem::status(stampPath).type();
    return type != std::filesystem::file_type::not_found &&
           type != std::filesystem::file_type::unknown && type != std::filesystem::file_type::none;
}

// Whether the file really opened is not looked at: a missing stamp only means the next
// start runs again. The stamp is flushed after everything it vouches for; a flush that fails
// is as harmless as a stamp that is not there.
void writeStamp() {
    try {
        std::ofstream stamp(stampPath);
    } catch (const std::exception&) {
        Common::logWarning(std::string("couldn't create migration stamp: ") + stampPath);
    }
    try {
        Common::syncFileSystem(std::filesystem::path(stampPath).parent_path());
    } catch (const Common::Error&) {
    }
}

} // namespace

int launch(const Run& run) {
    if (stampExists()) {
        Common::logInfo(alreadyDoneText);
        return 0;
    }
    const RunBody body = run();
    try {
        body();
    } catch (const std::exception& error) {
        Common::LogLine(Common::LogLevel::Error) << error;
        Common::logError("coundn't migrate rpm packages");
        return 1;
    }
    writeStamp();
    return 0;
}

} // namespace Launcher
