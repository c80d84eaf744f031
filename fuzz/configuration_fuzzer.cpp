// Fuzzes the reading of the configuration file: it never throws, and a file it cannot parse
// gives the warning and both defaults.

#include "core/tolva/database.hpp"
#include "fuzz/fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto file = Fuzz::writeScratchFile("tolva.conf", data, size);
    Fuzz::CapturedStderr log;
    const Core::Tolva::Database database(file);
    if (log.str().find("couldn't parse config file: " + file.string()) != std::string::npos)
        Fuzz::require(database.rootDirectory() == "/opt/app" &&
                          database.tempDirectory() == "/opt/tolva/tmp",
                      "an unparsable configuration gives the defaults");
    return 0;
}
