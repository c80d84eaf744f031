#include "platform/app_manifest/manifest_entry.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using AppManifest::ManifestEntry;

// A desktop entry as applications ship it: comments, translations, other groups, escapes.
const std::string desktopEntry = R"(# Installed by the weather package
[Desktop Entry]
Name=Weather

[Desktop Action refresh]
Name=Refresh now

[X-Tolva-Application]
OrganizationName[de]=Wetterdienst
OrganizationName=org.example.forecasts
ApplicationName[fi]=Sää
ApplicationName=Weather\sStation\\Pro
)";

const std::string crlfEntry = [] {
    std::string text;
    for (const char c : desktopEntry)
        text += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return text;
}();

TEST(ManifestEntry, NamesComeUntranslatedAndUnescapedOrEmptyAndOtherFilesAreNoManifest) {
    // Files are read by the start-up pass from the installed manifests.
    const std::string bom = "\xEF\xBB\xBF";
    for (const auto& content : {desktopEntry, bom + desktopEntry, crlfEntry, bom + crlfEntry}) {
        const auto entry = ManifestEntry::fromBytes(content);
        ASSERT_TRUE(entry.has_value()) << content;
        EXPECT_EQ(entry->appOrgname(), "org.example.forecasts");
        EXPECT_EQ(entry->appName(), "Weather Station\\Pro");
    }

    const std::tuple<std::string, std::string, std::string> names[] = {
        {"[Desktop Entry]\n[X-Tolva-Application]\nApplicationName=Notes\n", "", "Notes"},
        // Only a translation is there: the untranslated key is still missing.
        {"[Desktop Entry]\n[X-Tolva-Application]\nOrganizationName[de]=Firma\nApplicationName=\n",
         "", ""},
        {"[Desktop Entry]\n[X-Tolva-Application]\nOrganizationName=\xff\xfe\nApplicationName=a\n",
         "", "a"},
    };
    for (const auto& [content, orgName, appName] : names) {
        const auto entry = ManifestEntry::fromBytes(content);
        ASSERT_TRUE(entry.has_value()) << content;
        EXPECT_EQ(entry->appOrgname(), orgName);
        EXPECT_EQ(entry->appName(), appName);
    }

    const std::string notManifests[] = {
        "[Desktop Entry]\nType=Application\nName=Weather\n",
        "[Unit]\nDescription=x\n[X-Tolva-Application]\nOrganizationName=o\nApplicationName=a\n",
        "OrganizationName=o\nApplicationName=a\n",
        "[Desktop Entry]\nthis line is no key\n[X-Tolva-Application]\n",
        "",
        std::string("\x7f\x45LF\0\0\0\x01\x02", 9),
    };
    for (const auto& content : notManifests)
        EXPECT_FALSE(ManifestEntry::fromBytes(content).has_value()) << content;
    EXPECT_FALSE(ManifestEntry::fromFilename("/nowhere/missing.desktop"));
    EXPECT_FALSE(ManifestEntry::fromFilename("/")); // a directory
}

} // namespace
