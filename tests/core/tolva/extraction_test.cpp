// Unpacking a signed package file into a package tree, in the sandbox.

#include "common/error.hpp"
#include "core/tolva/package.hpp"
#include "core/tolva/path_checks.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"
#include "tests/support/signed_packages.hpp"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using Common::ErrorCode;
using Core::Tolva::Package;
using TestSupport::attribute;
using TestSupport::captureStderr;
using TestSupport::errorOf;

namespace {

TestSupport::FixturePackage tool() {
    using namespace TestSupport;
    return {"tool",
            "1.0",
            "1",
            std::nullopt,
            {},
            {directory("/usr/share/tool", 02775),
             file("/usr/bin/tool", "#!/bin/sh\n", 0755),
             {FixtureFile::Kind::File, "/usr/share/tool/tool.conf", "a=b\n", 0600, true, {}},
             file("/usr/share/tool/a.dat", "shared data"),
             hardlink("/usr/share/tool/b.dat", "/usr/share/tool/a.dat"),
             file("/usr/lib/3rdparty/tool/libtool.so.1", "library"),
             TestSupport::symlink("/usr/bin/tool-library", "../lib/3rdparty/tool/libtool.so.1"),
             TestSupport::symlink("/usr/share/tool/settings", "tool.conf")}};
}

std::string bytes(const PackageSignatures::Bytes& value) {
    return std::string(value.begin(), value.end());
}

std::uint32_t indexOf(const Package& package, const fs::path& path) {
    const auto& files = package.files();
    const auto found = std::find_if(files.begin(), files.end(),
                                    [&](const auto& entry) { return entry.path == path; });
    return std::uint32_t(found - files.begin());
}

} // namespace

TEST(Extraction, EveryEntryAtItsPlaceWithModesSignaturesAndLinks) {
    TestSupport::Scratch scratch;
    const fs::path file = scratch / "tool.rpm";
    fs::copy_file(TestSupport::buildPackage(tool()), file);
    TestSupport::signPackage(file, "developer");
    SANDBOXED([&] {
        TestSupport::trustTestCa();
        const auto package = Package::fromPath(file);
        const fs::path root = "/opt/app/tool/1.0-1";
        const fs::path& linkRoot = root;
        EXPECT_EQ(captureStderr([&] { package.extract(root, linkRoot); }), "");

        EXPECT_EQ(fs::status(root / "data").permissions(), fs::perms(0775));
        EXPECT_EQ(fs::status(root / "bin/tool").permissions(), fs::perms(0755));
        EXPECT_EQ(fs::status(root / "data/tool.conf").permissions(), fs::perms(0600));
        const auto& cms = package.developerCms();
        const auto index = indexOf(package, "/usr/bin/tool");
        EXPECT_EQ(attribute(root / "bin/tool", "security.ima"), bytes(cms.fileSignature(index)));
        EXPECT_EQ(attribute(root / "bin/tool", "user.TA.shdr"),
                  bytes(cms.trustletSignature(index)));
        EXPECT_EQ(attribute(root / "bin/tool", "security.appid"), "tool");
        EXPECT_EQ(TestSupport::attributeNames(root / "data/tool.conf"), std::vector<std::string>{});

        EXPECT_TRUE(fs::equivalent(root / "data/a.dat", root / "data/b.dat"));
        // The dot-relative target is resolved against the link's own directory, then placed.
        EXPECT_EQ(fs::read_symlink(root / "bin/tool-library"), linkRoot / "3rdparty/libtool.so.1");
        EXPECT_EQ(fs::read_symlink(root / "data/settings"), "tool.conf");

        // Links never replace what stands at their place.
        std::string message;
        const auto log =
            captureStderr([&] { message = errorOf([&] { package.extract(root, root); }); });
        EXPECT_TRUE(message == "couldn't extract symlink" || message == "couldn't extract hardlink")
            << message;
        EXPECT_NE(log.find("File exists"), std::string::npos) << log;
        EXPECT_EQ(log.substr(0, 7), "ERROR: ");
    });
}

TEST(Extraction, NamesThatCannotBeDirectoryNamesAreRefused) {
    const std::string refused[] = {
        "",          ".",    "..",    "a/b",   "../etc/cron.d", {"nul\0x", 5}, "line\nbreak",
        "tab\there", "\x7f", " lead", "trail "};
    for (const auto& name : refused) {
        SCOPED_TRACE(name);
        EXPECT_NE(errorOf([&] { Core::Tolva::checkPathComponent(name, "package id"); },
                          ErrorCode::BadPackage)
                      .find("package id is not a valid directory name: \""),
                  std::string::npos);
    }
    for (const std::string name : {"harbor-notes", "1.2.3-1", "org.example", "Notes App", "..."})
        EXPECT_NO_THROW(Core::Tolva::checkPathComponent(name, "package id")) << name;
}
