// Package records read from signed package files in the sandbox, where the platform's
// certificate authority is the test PKI's.

#include "common/error.hpp"
#include "core/tolva/package.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"
#include "tests/support/signed_packages.hpp"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using Common::ErrorCode;
using Core::Tolva::Package;
using TestSupport::captureStderr;
using TestSupport::errorOf;

namespace {

std::string manifest(const std::string& orgName, const std::string& appName) {
    return "[Desktop Entry]\nName=" + appName +
           "\n[X-Tolva-Application]\nOrganizationName=" + orgName + "\nApplicationName=" + appName +
           "\n";
}

// "foo" 2.0-1, epoch 4; `desktop` is the text of its own manifest, none when empty. Another
// application's manifest comes before it in the payload.
TestSupport::FixturePackage foo(const std::string& desktop) {
    TestSupport::FixturePackage package{
        "foo",
        "2.0",
        "1",
        4,
        {},
        {TestSupport::file("/usr/bin/foo", "#!/bin/sh\n", 0755),
         TestSupport::file("/usr/share/applications/bar.desktop", manifest("org.bar", "Bar"))}};
    if (!desktop.empty())
        package.files.push_back(TestSupport::file("/usr/share/applications/foo.desktop", desktop));
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

} // namespace

TEST(Package, ManifestNamesOrWarningsAndOnlyDeveloperSignedFiles) {
    // A package known from installed data has no signature.
    const Package installed("foo", "1.0-2", {}, "org.example", std::nullopt);
    EXPECT_EQ(errorOf([&] { installed.developerCms(); }, ErrorCode::BadPackageSignature),
              "package doesn't have developer signature");

    TestSupport::Scratch scratch;
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
        std::optional<Package> package;
        EXPECT_EQ(captureStderr([&] { package.emplace(Package::fromPath(both.string())); }), "");
        EXPECT_FALSE(fs::exists("/var/lib/rpm")); // reading leaves no RPM database behind
        EXPECT_EQ(package->orgName(), "org.example");
        EXPECT_EQ(package->appName(), "Foo");
        EXPECT_EQ(package->files().size(), 3u);

        for (const auto& [path, warnings, appName] : cases) {
            std::string expected;
            for (const auto& warning : warnings)
                expected += "WARN: " + warning + "\"" + path.string() + "\"\n";
            EXPECT_EQ(captureStderr([&] { package.emplace(Package::fromPath(path)); }), expected);
            EXPECT_EQ(package->orgName(), std::nullopt);
            EXPECT_EQ(package->appName(), appName);
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
    });
}
