// Fuzzes the reading of the configuration file: it never throws, a file it cannot parse gives
// the warning and both defaults, and a leading byte-order mark changes nothing.

#include "core/tolva/database.hpp"
#include "fuzz/fuzz_support.hpp"

namespace {

struct Outcome {
    std::filesystem::path root;
    std::filesystem::path temp;
    bool unparsable;
    bool operator==(const Outcome&) const = default;
};

Outcome readConfiguration(const std::string& name, const std::string& bytes) {
    const auto file = Fuzz::writeScratchFile(name, bytes);
    Fuzz::CapturedStderr log;
    const Core::Tolva::Database database(file);
    const bool unparsable =
        log.str().find("couldn't parse config file: " + file.string()) != std::string::npos;
    if (unparsable)
        Fuzz::require(database.rootDirectory() == "/opt/app" &&
                          database.tempDirectory() == "/opt/tolva/tmp",
                      "an unparsable configuration gives the defaults");
    return {database.rootDirectory(), database.tempDirectory(), unparsable};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::requireByteOrderMarkChangesNothing(std::string(reinterpret_cast<const char*>(data), size),
                                             readConfiguration);
    return 0;
}
