// Fuzzes the manifest reader: a leading byte-order mark changes nothing.

#include "fuzz/fuzz_support.hpp"
#include "platform/app_manifest/manifest_entry.hpp"

using AppManifest::ManifestEntry;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const auto entry = ManifestEntry::fromBytes(std::string_view(bytes));
    if (bytes.starts_with(mark))
        return 0;
    const auto marked = ManifestEntry::fromBytes(std::string(mark) + bytes);
    Fuzz::require(entry.has_value() == marked.has_value(),
                  "a byte-order mark does not change whether a manifest reads");
    if (entry)
        Fuzz::require(entry->appOrgname() == marked->appOrgname() &&
                          entry->appName() == marked->appName(),
                      "a byte-order mark does not change the names");
    return 0;
}
