#include "platform/app_manifest/manifest_entry.hpp"

#include <glib.h>
#include <memory>

namespace AppManifest {

namespace {

constexpr const char* desktopEntryGroup = "Desktop Entry";
constexpr const char* applicationGroup = "X-Tolva-Application";
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

struct KeyFileFree {
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
struct GFree {
    void operator()(void* memory) const { g_free(memory); }
};

std::string stringValue(GKeyFile* file, const char* key) {
    GError* rawError = nullptr;
    std::unique_ptr<char, GFree> value(
        g_key_file_get_string(file, applicationGroup, key, &rawError));
    std::unique_ptr<GError, ErrorFree> error(rawError);
    return value ? std::string(value.get()) : std::string();
}

} // namespace

std::optional<ManifestEntry> ManifestEntry::fromBytes(std::string_view bytes) {
    if (bytes.starts_with(byteOrderMark))
        bytes.remove_prefix(byteOrderMark.size());
    std::unique_ptr<GKeyFile, KeyFileFree> file(g_key_file_new());
    GError* rawError = nullptr;
    const bool loaded = g_key_file_load_from_data(file.get(), bytes.data(), bytes.size(),
                                                  G_KEY_FILE_KEEP_TRANSLATIONS, &rawError);
    std::unique_ptr<GError, ErrorFree> error(rawError);
    if (!loaded)
        return std::nullopt;
    std::unique_ptr<char, GFree> startGroup(g_key_file_get_start_group(file.get()));
    if (!startGroup || std::string_view(startGroup.get()) != desktopEntryGroup ||
        !g_key_file_has_group(file.get(), applicationGroup))
        return std::nullopt;
    return ManifestEntry(stringValue(file.get(), "OrganizationName"),
                         stringValue(file.get(), "ApplicationName"));
}

std::optional<ManifestEntry> ManifestEntry::fromBytes(const std::vector<char>& bytes) {
    return fromBytes(std::string_view(bytes.data(), bytes.size()));
}

std::optional<ManifestEntry> ManifestEntry::fromBytes(const std::vector<unsigned char>& bytes) {
    return fromBytes(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

std::optional<ManifestEntry> ManifestEntry::fromFilename(const std::string& path) {
    char* rawContents = nullptr;
    gsize size = 0;
    GError* rawError = nullptr;
    const bool read = g_file_get_contents(path.c_str(), &rawContents, &size, &rawError);
    std::unique_ptr<char, GFree> contents(rawContents);
    std::unique_ptr<GError, ErrorFree> error(rawError);
    if (!read)
        return std::nullopt;
    return fromBytes(std::string_view(contents.get(), size));
}

} // namespace AppManifest
