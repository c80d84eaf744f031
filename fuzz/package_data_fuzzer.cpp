// Fuzzes the reading of velmor.pkg: either the data with every required key, or
// Common::Error for a corrupted package, nothing else; a leading byte-order mark changes
// nothing.

#include "common/error.hpp"
#include "core/tolva/database.hpp"
#include "fuzz/fuzz_support.hpp"

#include <optional>

namespace {

// The data, or nothing for a corrupted package.
std::optional<Core::Tolva::PackageData> readPackageData(const std::string& name,
                                                        const std::string& bytes) {
    const auto file = Fuzz::writeScratchFile(name, bytes);
    try {
        auto data = Core::Tolva::Database::readPackageDataFile(file);
        for (const char* key :
             {"general.id", "general.version", "certificate.subgroup", "certificate.id"})
            Fuzz::require(data.contains(key), "read package data has the required keys");
        return data;
    } catch (const Common::Error& error) {
        Fuzz::require(error.code() == Common::ErrorCode::CorruptedInstalledPackage,
                      "a bad velmor.pkg is a corrupted package");
        return std::nullopt;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::requireByteOrderMarkChangesNothing(std::string(reinterpret_cast<const char*>(data), size),
                                             readPackageData);
    return 0;
}
