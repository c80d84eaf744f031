// Fuzzes the reading of velmor.pkg: either the data with every required key, or
// Common::Error for a corrupted package; nothing else.

#include "common/error.hpp"
#include "core/tolva/database.hpp"
#include "fuzz/fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto file = Fuzz::writeScratchFile("velmor.pkg", data, size);
    try {
        const auto packageData = Core::Tolva::Database::readPackageDataFile(file);
        for (const char* key :
             {"general.id", "general.version", "certificate.subgroup", "certificate.id"})
            Fuzz::require(packageData.contains(key), "read package data has the required keys");
    } catch (const Common::Error& error) {
        Fuzz::require(error.code() == Common::ErrorCode::CorruptedInstalledPackage,
                      "a bad velmor.pkg is a corrupted package");
    }
    return 0;
}
