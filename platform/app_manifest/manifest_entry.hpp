#pragma once

// An application's manifest: a desktop entry whose [X-Tolva-Application] group names the
// organisation and the application.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace AppManifest {

class ManifestEntry {
public:
    // The manifest in the file at `path`; empty when the file cannot be read, is not a
    // desktop entry, or has no [X-Tolva-Application] group.
    static std::optional<ManifestEntry> fromFilename(const std::string& path);
    // The same for the file's bytes (a UTF-8 byte-order mark and CRLF line ends are fine).
    static std::optional<ManifestEntry> fromBytes(std::string_view bytes);
    static std::optional<ManifestEntry> fromBytes(const std::vector<char>& bytes);
    static std::optional<ManifestEntry> fromBytes(const std::vector<unsigned char>& bytes);

    // OrganizationName and ApplicationName, unescaped and untranslated; "" when missing.
    const std::string& appOrgname() const { return orgname; }
    const std::string& appName() const { return name; }

private:
    ManifestEntry(std::string orgname, std::string name)
        : orgname(std::move(orgname)), name(std::move(name)) {}

    std::string orgname;
    std::string name;
};

} // namespace AppManifest
