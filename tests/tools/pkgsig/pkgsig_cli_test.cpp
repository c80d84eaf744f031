// pkgsig as a user runs it: its help, its reports, its refusals, and its packages under the
// stock rpm tools in the sandbox.

#include "platform/package_signatures/certificate.hpp"
#include "platform/package_signatures/database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"
#include "tests/support/test_pki.hpp"
#include "tests/tools/pkgsig/test_packages.hpp"

#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
namespace PS = PackageSignatures;
using PkgsigTest::pkgsig;
using PkgsigTest::Scratch;
using TestSupport::TestPki;

std::string path(const std::string& name, bool key = false) {
    const auto& pki = TestPki::shared();
    return (key ? pki.key(name) : pki.certificate(name)).string();
}

std::string keyId(const std::string& name) {
    return PackageSignatures::Certificate::fromPem(TestSupport::readFile(path(name)))->keyId();
}

std::vector<std::string> signArguments(const fs::path& package, const std::string& developer,
                                       const std::string& client = "") {
    std::vector<std::string> arguments = {"sign",
                                          package.string(),
                                          "--developer-key",
                                          path(developer, true),
                                          "--developer-cert",
                                          path(developer)};
    if (!client.empty())
        arguments.insert(arguments.end(),
                         {"--client-key=" + path(client, true), "--client-cert=" + path(client)});
    return arguments;
}

std::set<std::string> namesIn(const fs::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

TEST(PkgsigCommand, HelpWhereverItIsAsked) {
    const auto help = pkgsig({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with("Usage: pkgsig COMMAND")) << help.out;
    EXPECT_EQ(pkgsig({"verify", "x.rpm", "-h"}).out, help.out);
}

TEST(PkgsigCommand, SignShowVerifyImportAndList) {
    Scratch scratch;
    const auto hello = PkgsigTest::copyOfPackage("hello", scratch / "hello.rpm");
    auto arguments = signArguments(hello, "developer", "client");
    arguments.insert(arguments.end(), {"--signing-time", "1590969600"});
    const auto signing = pkgsig(arguments);
    ASSERT_EQ(signing.status, 0) << signing.err;
    EXPECT_EQ(signing.out, "signed " + hello.string() +
                               " (hello-1.0-1.noarch): developer CN=Regular Developer,O=Example "
                               "Apps,C=FI, client " +
                               TestPki::clientSubject + ", 5 file signatures\n");

    const auto shown = pkgsig({"show", hello.string()});
    ASSERT_EQ(shown.status, 0) << shown.err;
    for (const std::string& line : std::vector<std::string>{
             "package: hello-1.0-1.noarch\nsignatures: 2\nsignature 1: developer\n",
             "  key id: " + keyId("developer") +
                 "\n  subject: CN=Regular Developer,O=Example "
                 "Apps,C=FI\n  subgroup: regular\n  system "
                 "developer: no\n  signing time: 2020-06-01T00:00:00Z\n",
             "  file signatures: 5\n    0 /etc/hello-hook\n    3 /usr/bin/hello\n"
             "    5 /usr/share/applications/hello.desktop\n    7 /usr/share/hello/data-link.txt\n"
             "    8 /usr/share/hello/data.txt\nsignature 2: client\n  key id: " +
                 keyId("client") + "\n",
             "  subgroup: unknown\n", "  file signatures: 0\n"})
        EXPECT_NE(shown.out.find(line), std::string::npos) << line << "\nin:\n" << shown.out;

    const auto verified = pkgsig({"verify", hello.string(), "--ca", path("ca")});
    EXPECT_EQ(verified.status, 0) << verified.err;
    EXPECT_EQ(verified.out, hello.string() +
                                ": signatures verified (developer CN=Regular Developer,O=Example "
                                "Apps,C=FI, client " +
                                TestPki::clientSubject + "; 5 file signatures)\n");

    const auto tiny = PkgsigTest::copyOfPackage("tiny-zstd", scratch / "tiny.rpm");
    ASSERT_EQ(pkgsig(signArguments(tiny, "developer-system")).status, 0);
    const std::string database = (scratch / "db").string();
    for (const auto& package : {tiny, hello}) {
        const auto imported =
            pkgsig({"import", package.string(), "--ca", path("ca"), "--database", database});
        EXPECT_EQ(imported.status, 0) << imported.err;
    }
    const auto listed = pkgsig({"list", "--database=" + database});
    EXPECT_EQ(listed.status, 0) << listed.err;
    const std::string helloLines = "hello developer " + keyId("developer") +
                                   " regular CN=Regular Developer,O=Example Apps,C=FI\n";
    EXPECT_EQ(listed.out, helloLines + "hello client " + keyId("client") + " unknown " +
                              TestPki::clientSubject + "\ntiny-zstd developer " +
                              keyId("developer-system") +
                              " system CN=System Developer,O=Example Apps,C=FI\n");

    // Signed again without a client, the package's client certificate is forgotten.
    ASSERT_EQ(pkgsig(signArguments(hello, "developer")).status, 0);
    const auto reimported =
        pkgsig({"import", hello.string(), "--ca", path("ca"), "--database", database});
    EXPECT_EQ(reimported.out,
              "imported hello into " + database + ": developer " + keyId("developer") + "\n");
    EXPECT_EQ(pkgsig({"list", "--database", database}).out,
              helloLines + "tiny-zstd developer " + keyId("developer-system") +
                  " system CN=System Developer,O=Example Apps,C=FI\n");
}

TEST(PkgsigCommand, BadInputGetsOneLineAndChangesNothing) {
    Scratch scratch;
    const auto package = PkgsigTest::copyOfPackage("hello", scratch / "hello.rpm");
    const auto signedPackage = PkgsigTest::copyOfPackage("tiny-xz", scratch / "signed.rpm");
    ASSERT_EQ(pkgsig(signArguments(signedPackage, "developer", "client")).status, 0);
    TestSupport::writeFile(scratch / "notes.rpm", "not a package\n");
    const std::string cut = TestSupport::readFile(package);
    TestSupport::writeFile(scratch / "cut.rpm", cut.substr(0, cut.size() - 40));
    // Its file signatures hold; its trustlet signatures are of other data.
    const auto tampered = PkgsigTest::copyOfPackage("hello", scratch / "tampered.rpm");
    const auto developer =
        PS::SigningIdentity::fromPemFiles(path("developer", true), path("developer"));
    PS::FileSignatures files;
    for (const auto& [index, digest] : Pkgsig::PackageFile(tampered).digestsOfFilesToSign())
        files[index] = {PS::imaFileSignature(developer, digest),
                        PS::trustletSignature(developer, PS::Bytes(32, 0x5a))};
    TestSupport::signWithLibrary(tampered, {{"developer", files}});

    const std::string missing = (scratch / "missing.rpm").string();
    const std::string database = (scratch / "db").string();
    auto sign = [&](const std::string& target, const std::string& key, const std::string& cert) {
        return std::vector<std::string>{
            "sign", target, "--developer-key", path(key, true), "--developer-cert", path(cert)};
    };
    auto withArguments = [](std::vector<std::string> arguments,
                            const std::vector<std::string>& more) {
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    };
    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    };
    const Case cases[] = {
        {{}, 2, "no command given"},
        {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
        {{"verify", signedPackage.string(), "--ca="}, 2, "--ca needs a value"},
        {{"verify", signedPackage.string(), "--ca", path("ca"), "--ca=" + path("ca")},
         2,
         "--ca is given twice"},
        {{"verify", tampered.string(), "--ca", path("ca")},
         1,
         "the trustlet signature of /etc/hello-hook does not hold"},
        {sign(package.string(), "developer-expired", "developer-expired"), 1,
         "is not valid at the signing time"},
        {sign(missing, "developer", "developer"), 1, "cannot open " + missing},
        {sign((scratch / "notes.rpm").string(), "developer", "developer"), 1,
         "is not an RPM package file: no RPM lead"},
        {sign((scratch / "cut.rpm").string(), "developer", "developer"), 1,
         "the payload of " + (scratch / "cut.rpm").string()},
        {sign(package.string(), "client", "developer"), 1,
         "the key " + path("client", true) + " does not belong to the certificate " +
             path("developer")},
        {sign(package.string(), "client", "client"), 1,
         path("client") + " is not a developer signing certificate"},
        {sign(package.string(), "developer", "developer-rsa"), 1, "does not belong"},
        {withArguments(sign(package.string(), "developer", "developer"), {"--ca", path("ca2")}), 1,
         "the new signature does not verify against " + path("ca2")},
        {withArguments(sign(package.string(), "developer", "developer"),
                       {"--client-key", path("client", true)}),
         1, "a client signature needs both --client-key and --client-cert"},
        {withArguments(sign(package.string(), "developer", "developer"),
                       {"--output", (scratch / "no/such/dir/out.rpm").string()}),
         1, "cannot create a temporary file next to"},
        {withArguments(sign(package.string(), "developer", "developer"),
                       {"--signing-time", "yesterday"}),
         2, "--signing-time takes seconds since 1970, not \"yesterday\""},
        {{"sign", package.string(), "--developer-key", path("developer", true)},
         2,
         "sign needs --developer-cert"},
        {withArguments(sign(package.string(), "developer", "developer"), {"--database", "x"}), 2,
         "sign takes no option --database"},
        {{"show", package.string(), signedPackage.string()}, 2, "show takes one package file"},
        {{"verify", signedPackage.string(), "--ca"}, 2, "--ca needs a value"},
        {{"verify", package.string(), "--ca", path("ca")}, 1, "carries no package signatures"},
        {{"verify", signedPackage.string(), "--ca", path("ca2")}, 1, "does not hold"},
        {{"import", signedPackage.string(), "--ca", path("ca2"), "--database", database},
         1,
         "does not hold"},
        {{"import", package.string(), "--ca", path("ca"), "--database", database},
         1,
         "carries no package signatures"},
        {{"show", (scratch / "notes.rpm").string()}, 1, "is not an RPM package file"},
        {{"list", "--database", package.string()}, 1, "cannot read the package signature database"},
    };
    const std::string before = TestSupport::readFile(package);
    const std::string signedBefore = TestSupport::readFile(signedPackage);
    const auto namesBefore = namesIn(scratch.path());
    for (const auto& [arguments, status, error] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto result = pkgsig(arguments);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(result.err.starts_with("pkgsig: ")) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_NE(result.err.find(error), std::string::npos) << result.err;
        EXPECT_EQ(TestSupport::readFile(package), before);
        EXPECT_EQ(TestSupport::readFile(signedPackage), signedBefore);
        EXPECT_EQ(namesIn(scratch.path()), namesBefore);
    }
}

TEST(PkgsigCommand, ConfigFilesAreSignedWhenTheMacroSaysSo) {
    Scratch scratch;
    const auto package = PkgsigTest::copyOfPackage("hello", scratch / "hello.rpm");
    TestSupport::writeFile(scratch / "home/.rpmmacros", "%_ima_sign_config_files 1\n");
    auto arguments = signArguments(package, "developer");
    arguments.insert(arguments.begin(), {"env", "HOME=" + (scratch / "home").string(),
                                         std::string(TOLVA_BINARY_DIR) + "/bin/pkgsig"});
    const auto signing = TestSupport::runProgram(arguments);
    ASSERT_EQ(signing.status, 0) << signing.err;
    EXPECT_NE(signing.out.find(", 6 file signatures"), std::string::npos) << signing.out;
    const auto shown = pkgsig({"show", package.string()});
    EXPECT_NE(
        shown.out.find("    0 /etc/hello-hook\n    1 /etc/hello.conf\n    3 /usr/bin/hello\n"),
        std::string::npos)
        << shown.out;
    EXPECT_EQ(pkgsig({"verify", package.string(), "--ca", path("ca")}).status, 0);
}

TEST(PkgsigCommand, OutputGoesToANewFileWithTheModeOfTheOriginal) {
    Scratch scratch;
    const auto package = PkgsigTest::copyOfPackage("tiny-zstd", scratch / "tiny.rpm");
    ASSERT_EQ(::chmod(package.c_str(), 0600), 0);
    auto arguments = signArguments(package, "developer-rsa");
    arguments.insert(arguments.end(), {"--output", (scratch / "signed.rpm").string()});
    const auto signing = pkgsig(arguments);
    ASSERT_EQ(signing.status, 0) << signing.err;
    EXPECT_EQ(TestSupport::readFile(package),
              TestSupport::readFile(PkgsigTest::builtPackage("tiny-zstd")));
    struct stat status {};
    ASSERT_EQ(::stat((scratch / "signed.rpm").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(pkgsig({"verify", (scratch / "signed.rpm").string(), "--ca", path("ca")}).status, 0);
    EXPECT_EQ(namesIn(scratch.path()), (std::set<std::string>{"signed.rpm", "tiny.rpm"}));
}

TEST(PkgsigCommand, SignedPackagesPassStockRpmAndImportIntoTheDeviceDatabase) {
    Scratch scratch;
    const auto hello = PkgsigTest::copyOfPackage("hello", scratch / "hello.rpm");
    const auto tiny = PkgsigTest::copyOfPackage("tiny-xz", scratch / "tiny.rpm");
    ASSERT_EQ(pkgsig(signArguments(hello, "developer", "client")).status, 0);
    ASSERT_EQ(pkgsig(signArguments(tiny, "developer-extended")).status, 0);
    SANDBOXED([&] {
        for (const auto& package : {hello, tiny}) {
            const auto checked = TestSupport::runProgram({"rpm", "-K", package.string()});
            EXPECT_EQ(checked.status, 0) << checked.err;
            EXPECT_EQ(checked.out, package.string() + ": digests OK\n");
        }
        const auto installed = TestSupport::runProgram(
            {"rpm", "-i", "--nodeps", "--force-debian", hello.string(), tiny.string()});
        EXPECT_EQ(installed.status, 0) << installed.err;
        EXPECT_EQ(TestSupport::readFile("/usr/bin/hello"), PkgsigTest::helloScript);
        EXPECT_EQ(TestSupport::readFile("/usr/share/hello/data-link.txt"), PkgsigTest::helloData);
        EXPECT_EQ(TestSupport::runProgram({"rpm", "-q", "hello", "tiny-xz"}).out,
                  "hello-1.0-1.noarch\ntiny-xz-2.0-3.noarch\n");

        for (const auto& package : {hello, tiny})
            EXPECT_EQ(pkgsig({"import", package.string(), "--ca", path("ca")}).status, 0);
        const PackageSignatures::Database database(PackageSignatures::Database::defaultPath);
        EXPECT_EQ(database.packages(), (std::vector<std::string>{"hello", "tiny-xz"}));
        EXPECT_EQ(database.packageCertificateWithGroup("hello", 3)->keyId(), keyId("client"));
        EXPECT_EQ(pkgsig({"list"}).out.substr(0, 16), "hello developer ");
    });
}

} // namespace
