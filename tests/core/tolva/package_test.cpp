// Package records read from signed package files, and unpacked into package trees, in the
// sandbox, where the platform's certificate authority is the test PKI's.

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
using namespace TestSupport;

namespace {

std::string manifest(const std::string& orgName, const std::string& appName) {
    return "[Desktop Entry]\nName=" + appName +
           "\n[X-Tolva-Application]\nOrganizationName=" + orgName + "\nApplicationName=" + appName +
           "\n";
}

// "foo" 2.0-1, epoch 4; `desktop` is the text of its own manifest, none when empty. Another
// application's manifest comes before it in the payload.
TestSupport::FixturePackage foo(const std::string& desktop) {
    using TestSupport::file;
    TestSupport::FixturePackage package{"foo", "2.0", "1", 4, {}, {}};
    package.files = {file("/usr/bin/foo", "#!/bin/sh\n", 0755),
                     file("/usr/share/applications/bar.desktop", manifest("org.bar", "Bar"))};
    if (!desktop.empty())
        package.files.push_back(file("/usr/share/applications/foo.desktop", desktop));
    return package;
}

// A signed copy of `package` in `scratch`; `developer` empty leaves it unsigned, "client-only"
// signs it as the client alone.
fs::path signedCopy(const TestSupport::Scratch& scratch, const std::string& name,
                    const TestSupport::FixturePackage& package, const std::string& developer,
                    const std::string& client = "") {
    const fs::path copy = scratch / (name + ".rpm");
    fs::copy_file(TestSupport::buildPackage(package), copy);
    if (developer == "client-only")
        TestSupport::signAsClientOnly(copy);
    else if (!developer.empty())
        TestSupport::signPackage(copy, developer, client);
    return copy;
}

TestSupport::FixturePackage tool() {
    using namespace TestSupport;
    TestSupport::FixturePackage package{"tool", "1.0", "1", std::nullopt, {}, {}};
    package.files = {
        directory("/usr/share/tool", 02775),
        file("/usr/bin/tool", "#!/bin/sh\n", 0755),
        {FixtureFile::Kind::File, "/usr/share/tool/tool.conf", "a=b\n", 0600, true, {}},
        file("/usr/lib/3rdparty/tool/libtool.so.1", "library"),
        TestSupport::symlink("/usr/bin/tool-library", "../lib/3rdparty/tool/libtool.so.1"),
        TestSupport::symlink("/usr/share/tool/settings", "tool.conf")};
    return package;
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

TEST(Package, ManifestNamesOrWarningsOnlyDeveloperSignedFilesAndEveryEntryUnpacked) {
    TestSupport::Scratch scratch;
    const fs::path tool = signedCopy(scratch, "tool", ::tool(), "developer");
    const auto good = foo(manifest("org.example", "Foo"));
    const auto both = signedCopy(scratch, "both", good, "developer", "client");
    const auto clientOnly = signedCopy(scratch, "client", good, "client-only");
    const auto unsignedPackage = signedCopy(scratch, "unsigned", good, "");
    // Manifests missing or lacking names: the warnings, then the names that are left.
    const std::string noManifest = "the package does not contain a manifest: ";
    const std::string noOrg = "The package does not contain a organization name: ";
    const std::string noApp = "The package does not contain a application name: ";
    const std::tuple<fs::path, std::vector<std::string>, std::optional<std::string>> cases[] = {
        {signedCopy(scratch, "none", foo(""), "developer"), {noManifest}, {}},
        {signedCopy(scratch, "text", foo("just text\n"), "developer"), {noManifest}, {}},
        {signedCopy(scratch, "no-org", foo(manifest("", "Foo")), "developer"), {noOrg}, "Foo"},
        {signedCopy(scratch, "no-names", foo(manifest("", "")), "developer"), {noOrg, noApp}, {}},
    };
    SANDBOXED([&] {
        TestSupport::trustTestCa();
        fs::remove_all("/var/lib/rpm");
        std::optional<Package> read;
        EXPECT_EQ(captureStderr([&] { read.emplace(Package::fromPath(both.string())); }), "");
        EXPECT_FALSE(fs::exists("/var/lib/rpm")); // reading leaves no RPM database behind
        EXPECT_EQ(read->orgName(), "org.example");
        EXPECT_EQ(read->appName(), "Foo");

        for (const auto& [path, warnings, appName] : cases) {
            std::string expected;
            for (const auto& warning : warnings)
                expected += "WARN: " + warning + "\"" + path.string() + "\"\n";
            EXPECT_EQ(captureStderr([&] { read.emplace(Package::fromPath(path)); }), expected);
            EXPECT_EQ(read->orgName(), std::nullopt);
            EXPECT_EQ(read->appName(), appName);
        }

        const auto refusal = [](const fs::path& path, ErrorCode code) {
            std::string message;
            captureStderr([&] { message = errorOf([&] { Package::fromPath(path); }, code); });
            return message;
        };
        EXPECT_EQ(refusal(clientOnly, ErrorCode::BadPackageSignature),
                  "package doesn't have developer signature");
        EXPECT_EQ(refusal(unsignedPackage, ErrorCode::BadPackage),
                  "couldn't open file for reading cmses");

        // Unpacked: every entry at its place, with its mode, its signatures and its links.
        const auto package = Package::fromPath(tool);
        const fs::path root = "/opt/tolva/tmp/tool", linkRoot = "/opt/app/tool/1.0-1";
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

        // The dot-relative target is resolved against the link's own directory, then placed.
        EXPECT_EQ(fs::read_symlink(root / "bin/tool-library"), linkRoot / "3rdparty/libtool.so.1");
        EXPECT_EQ(fs::read_symlink(root / "data/settings"), "tool.conf");

        // Links never replace what stands at their place.
        std::string message;
        const auto log =
            captureStderr([&] { message = errorOf([&] { package.extract(root, root); }); });
        EXPECT_TRUE(message == "couldn't extract symlink" || message == "couldn't extract hardlink")
            << message;
        EXPECT_TRUE(log.starts_with("ERROR: ") && log.find("File exists") != std::string::npos)
            << log;
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

// The tree's top holds the database's own files, and a package's link leads wherever the
// package chose: no entry is written at either.
TEST(Extraction, EntriesThatWouldWriteThroughTheTreeAreRefused) {
    using Common::Rpm::EntryType;
    Core::Tolva::TreeEntries entries;
    entries.addLink("data/sub");
    const std::tuple<fs::path, EntryType, std::string> refused[] = {
        {"velmor.pkg", EntryType::Symlink, "package file would stand among the database's own"},
        {"symlink.list", EntryType::RegularFile, "package file would stand among the database's"},
        {"data/sub", EntryType::Directory, "package path leads through a link of the package"},
        {"data/sub/deeper/x", EntryType::Hardlink, "package path leads through a link of the"},
    };
    for (const auto& [placed, type, message] : refused)
        EXPECT_EQ(errorOf([&] { entries.check(placed, type, "/from/rpm"); }, ErrorCode::BadPackage)
                      .rfind(message, 0),
                  0u)
            << placed;
    for (const fs::path placed : {"data/subway", "data/other/x", "bin/sub"})
        EXPECT_NO_THROW(entries.check(placed, EntryType::RegularFile, "/from/rpm")) << placed;
    EXPECT_NO_THROW(entries.check("data", EntryType::Directory, "/from/rpm"));

    // A link whose text climbs out of the tree is not made.
    TestSupport::FixturePackage climber = tool();
    climber.name = "climber";
    climber.files.push_back(TestSupport::symlink("/usr/share/tool/up", "a/../../../../../etc"));
    TestSupport::Scratch scratch;
    const fs::path file = signedCopy(scratch, "climber", climber, "developer");
    SANDBOXED([&] {
        TestSupport::trustTestCa();
        std::optional<Package> package;
        captureStderr([&] { package.emplace(Package::fromPath(file)); }); // it has no manifest
        std::string message;
        const auto log = captureStderr([&] {
            message = errorOf([&] { package->extract("/tmp/tree", "/opt/app/climber/1.0-1"); });
        });
        EXPECT_EQ(message, "couldn't extract symlink");
        EXPECT_NE(log.find("symlink leaves the package tree: /usr/share/tool/up -> "
                           "a/../../../../../etc"),
                  std::string::npos)
            << log;
        EXPECT_FALSE(fs::exists(fs::symlink_status("/tmp/tree/data/up")));
    });
}
