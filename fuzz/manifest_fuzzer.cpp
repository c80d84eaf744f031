// Fuzzes the manifest reader: a leading byte-order mark changes nothing.

#include "fuzz/fuzz_support.hpp"
#include "platform/app_manifest/manifest_entry.hpp"

#include <optional>
#include <utility>

namespace {

// The organisation and application names, or nothing when the bytes are no manifest.
std::optional<std::pair<std::string, std::string>> readManifest(const std::string&,
                                                                const std::string& bytes) {
    const auto entry = AppManifest::ManifestEntry::fromBytes(std::string_view(bytes));
    if (!entry)
        return std::nullopt;
    return std::make_pair(entry->appOrgname(), entry->appName());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::requireByteOrderMarkChangesNothing(std::string(reinterpret_cast<const char*>(data), size),
                                             readManifest);
    return 0;
}
