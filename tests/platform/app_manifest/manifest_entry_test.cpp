#include "platform/app_manifest/manifest_entry.hpp"
#include "tests/support/file_checks.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using AppManifest::ManifestEntry;

// A desktop entry as applications ship it: translations, actions, comments, escapes.
const std::string desktopEntry = R"(# Installed by the weather package
[Desktop Entry]
Type=Application
Version=1.5
Name=Weather
Name[de]=Wetter
Name[fi]=Sää
Comment=Forecasts for your places
Exec=/usr/bin/weather %U
Icon=weather
Categories=Utility;Network;
Actions=refresh;

[Desktop Action refresh]
Name=Refresh now
Exec=/usr/bin/weather --refresh

[X-Tolva-Application]
OrganizationName[de]=Wetterdienst
OrganizationName=org.example.forecasts
ApplicationName[fi]=Sää
ApplicationName=Weather\sStation\\Pro
)";

std::string withCrlfLineEnds(const std::string& text) {
    std::string result;
    for (char c : text)
        result += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return result;
}

class ManifestFiles : public ::testing::Test {
protected:
    std::filesystem::path directory =
        std::filesystem::temp_directory_path() / ("manifest-test-" + std::to_string(::getpid()));
    void TearDown() override { std::filesystem::remove_all(directory); }

    std::string write(const std::string& name, const std::string& content) {
        TestSupport::writeFile(directory / name, content);
        return (directory / name).string();
    }
};

TEST_F(ManifestFiles, NamesComeUntranslatedAndUnescapedWhateverTheEncodingOfTheFile) {
    const std::string bom = "\xEF\xBB\xBF";
    const std::vector<std::pair<std::string, std::string>> variants = {
        {"plain", desktopEntry},
        {"bom", bom + desktopEntry},
        {"crlf", withCrlfLineEnds(desktopEntry)},
        {"bom+crlf", bom + withCrlfLineEnds(desktopEntry)},
    };
    for (const auto& [label, content] : variants) {
        SCOPED_TRACE(label);
        const auto fromFile = ManifestEntry::fromFilename(write(label + ".desktop", content));
        ASSERT_TRUE(fromFile.has_value());
        EXPECT_EQ(fromFile->appOrgname(), "org.example.forecasts");
        EXPECT_EQ(fromFile->appName(), "Weather Station\\Pro");

        const auto fromString = ManifestEntry::fromBytes(content);
        const auto fromChars =
            ManifestEntry::fromBytes(std::vector<char>(content.begin(), content.end()));
        const auto fromBytes =
            ManifestEntry::fromBytes(std::vector<unsigned char>(content.begin(), content.end()));
        for (const auto* entry : {&fromString, &fromChars, &fromBytes}) {
            ASSERT_TRUE(entry->has_value());
            EXPECT_EQ((*entry)->appOrgname(), "org.example.forecasts");
            EXPECT_EQ((*entry)->appName(), "Weather Station\\Pro");
        }
    }
}

TEST_F(ManifestFiles, AMissingOrUnreadableNameIsEmpty) {
    const auto onlyApplication = ManifestEntry::fromBytes(
        "[Desktop Entry]\nName=x\n[X-Tolva-Application]\nApplicationName=Notes\n");
    ASSERT_TRUE(onlyApplication.has_value());
    EXPECT_EQ(onlyApplication->appOrgname(), "");
    EXPECT_EQ(onlyApplication->appName(), "Notes");

    // Only a translation is there: the untranslated key is still missing.
    const auto onlyTranslated = ManifestEntry::fromBytes(
        "[Desktop Entry]\n[X-Tolva-Application]\nOrganizationName[de]=Firma\nApplicationName=\n");
    ASSERT_TRUE(onlyTranslated.has_value());
    EXPECT_EQ(onlyTranslated->appOrgname(), "");
    EXPECT_EQ(onlyTranslated->appName(), "");

    const auto notUtf8 = ManifestEntry::fromBytes(
        "[Desktop Entry]\n[X-Tolva-Application]\nOrganizationName=\xff\xfe\nApplicationName=a\n");
    ASSERT_TRUE(notUtf8.has_value());
    EXPECT_EQ(notUtf8->appOrgname(), "");
    EXPECT_EQ(notUtf8->appName(), "a");
}

TEST_F(ManifestFiles, AnythingButADesktopEntryWithTheApplicationGroupIsNoManifest) {
    const std::string groupMissing = "[Desktop Entry]\nType=Application\nName=Weather\n";
    const std::string notADesktopEntry =
        "[Unit]\nDescription=x\n[X-Tolva-Application]\nOrganizationName=o\nApplicationName=a\n";
    const std::string noGroupAtAll = "OrganizationName=o\nApplicationName=a\n";
    const std::string notKeyValue = "[Desktop Entry]\nthis line is no key\n[X-Tolva-Application]\n";
    for (const auto& content :
         {groupMissing, notADesktopEntry, noGroupAtAll, notKeyValue, std::string()}) {
        SCOPED_TRACE(content);
        EXPECT_FALSE(ManifestEntry::fromBytes(content).has_value());
        EXPECT_FALSE(ManifestEntry::fromFilename(write("other.desktop", content)).has_value());
    }
    EXPECT_FALSE(ManifestEntry::fromFilename((directory / "missing.desktop").string()));
    EXPECT_FALSE(ManifestEntry::fromFilename(directory.string())); // a directory
    const std::string binary("\x7f"
                             "ELF\0\0\0\x01\x02",
                             9);
    EXPECT_FALSE(ManifestEntry::fromBytes(binary).has_value());
}

} // namespace
