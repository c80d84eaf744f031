// pkgsig as a user runs it, and the package-signature library on the packages it signs: the
// reports, the refusals, and the stock rpm tools on its packages in the sandbox.

#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/package_layout.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"
#include "tests/support/signed_packages.hpp"

#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
namespace PS = PackageSignatures;
using TestSupport::FixtureFile;
using TestSupport::pkgsig;
using TestSupport::readFile;
using TestSupport::Scratch;
using TestSupport::TestPki;

// "hello" (gzip payload), file list in header order:
//   0 /etc/hello-hook        %config, executable       signed
//   1 /etc/hello.conf        %config                   signed only with %_ima_sign_config_files
//   2 /etc/hello.state       %ghost                    never (no content)
//   3 /usr/bin/hello         executable                signed
//   4 /usr/bin/hi            symbolic link             never
//   5 /usr/share/applications/hello.desktop            signed
//   6 /usr/share/hello       directory                 never
//   7 /usr/share/hello/data-link.txt   hard link to 8  signed
//   8 /usr/share/hello/data.txt                        signed
// "tiny": one file /usr/share/tiny/readme, a zstd payload.
TestSupport::FixturePackage hello() {
    using TestSupport::file;
    return {"hello",
            "1.0",
            "1",
            {},
            {},
            {file("/usr/bin/hello", "#!/bin/sh\necho hello\n", 0755),
             TestSupport::symlink("/usr/bin/hi", "hello"),
             TestSupport::directory("/usr/share/hello"),
             file("/usr/share/hello/data.txt", "data\n"),
             TestSupport::hardlink("/usr/share/hello/data-link.txt", "/usr/share/hello/data.txt"),
             {FixtureFile::Kind::File, "/etc/hello.conf", "conf\n", 0, true, {}},
             {FixtureFile::Kind::File, "/etc/hello-hook", "#!/bin/sh\n", 0755, true, {}},
             TestSupport::ghost("/etc/hello.state"),
             file("/usr/share/applications/hello.desktop",
                  "[Desktop Entry]\nName=Hello\n[X-Tolva-Application]\n"
                  "OrganizationName=org.example\nApplicationName=Hello\n")}};
}

TestSupport::FixturePackage tiny() {
    return {"tiny", "2.0",       "3",
            {},     "w3.zstdio", {TestSupport::file("/usr/share/tiny/readme", "tiny\n")}};
}

// A fresh copy of the package `name`, "hello" or "tiny", at `path`.
fs::path copyOfPackage(const std::string& name, const fs::path& path) {
    fs::create_directories(path.parent_path());
    fs::copy_file(TestSupport::buildPackage(name == "hello" ? hello() : tiny()), path,
                  fs::copy_options::overwrite_existing);
    return path;
}

std::string path(const std::string& name, bool key = false) {
    const auto& pki = TestPki::shared();
    return (key ? pki.key(name) : pki.certificate(name)).string();
}

std::string keyId(const std::string& name) {
    return TestSupport::pkiCertificate(name).keyId();
}

// "pkgsig sign" with the key of `key`, the certificate of `cert` (by default the key's own) and
// `more`.
std::vector<std::string> signArguments(const fs::path& package, const std::string& key,
                                       const std::vector<std::string>& more = {},
                                       const std::string& cert = "") {
    std::vector<std::string> arguments = {
        "sign",          package.string(),   "--developer-key",
        path(key, true), "--developer-cert", path(cert.empty() ? key : cert)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

TEST(PkgsigCommand, SignShowVerifyAndImportPackagesThatStockRpmChecks) {
    Scratch scratch;
    const auto hello = copyOfPackage("hello", scratch / "hello.rpm");
    const auto signing =
        pkgsig(signArguments(hello, "developer",
                             {"--client-key=" + path("client", true),
                              "--client-cert=" + path("client"), "--signing-time", "1590969600"}));
    ASSERT_EQ(signing.status, 0) << signing.err;
    const std::string developer = "CN=Regular Developer,O=Example Apps,C=FI";
    const std::string client = TestPki::clientSubject;
    EXPECT_EQ(signing.out, "signed " + hello.string() + " (hello-1.0-1.noarch): developer " +
                               developer + ", client " + client + ", 5 file signatures\n");

    const auto shown = pkgsig({"show", hello.string()}).out;
    const std::string lines =
        "package: hello-1.0-1.noarch\nsignatures: 2\nsignature 1: developer\n  key id: " +
        keyId("developer") + "\n  subject: " + developer +
        "\n  subgroup: regular\n  system developer: no\n"
        "  signing time: 2020-06-01T00:00:00Z\n  file signatures: 5\n"
        "    0 /etc/hello-hook\n    3 /usr/bin/hello\n    5 /usr/share/applications/hello.desktop\n"
        "    7 /usr/share/hello/data-link.txt\n    8 /usr/share/hello/data.txt\n"
        "signature 2: client\n  key id: " +
        keyId("client") + "\n";
    EXPECT_TRUE(shown.starts_with(lines)) << shown;
    const auto verified = pkgsig({"verify", hello.string(), "--ca", path("ca")});
    EXPECT_EQ(verified.out, hello.string() + ": signatures verified (developer " + developer +
                                ", client " + client + "; 5 file signatures)\n");

    // Signed into a new file, which takes the original's mode; the original stays as it was.
    const auto original = copyOfPackage("tiny", scratch / "tiny.rpm");
    fs::permissions(original, fs::perms(0600));
    const fs::path tiny = scratch / "signed-tiny.rpm";
    TestSupport::signPackage(original, "developer-system", "", {"--output", tiny.string()});
    EXPECT_EQ(readFile(original), readFile(TestSupport::buildPackage(::tiny())));
    EXPECT_EQ(fs::status(tiny).permissions(), fs::perms(0600));
    EXPECT_EQ(TestSupport::entries(scratch.path()),
              (std::set<std::string>{"hello.rpm", "signed-tiny.rpm", "tiny.rpm"}));
    SANDBOXED([&] {
        // Stock rpm installs what pkgsig signs on every sample device of the system tests.
        for (const auto& package : {hello, tiny})
            EXPECT_EQ(TestSupport::runProgram({"rpm", "-K", package.string()}).out,
                      package.string() + ": digests OK\n");

        // Into the device's database, by default.
        for (const auto& package : {tiny, hello})
            EXPECT_EQ(pkgsig({"import", package.string(), "--ca", path("ca")}).status, 0);
        const std::string helloLine =
            "hello developer " + keyId("developer") + " regular " + developer + "\n";
        const std::string tinyLine = "tiny developer " + keyId("developer-system") +
                                     " system CN=System Developer,O=Example Apps,C=FI\n";
        EXPECT_EQ(pkgsig({"list"}).out, helloLine + "hello client " + keyId("client") +
                                            " unknown " + client + "\n" + tinyLine);
        // Signed again without a client, the package's client certificate is forgotten.
        TestSupport::signPackage(hello, "developer");
        EXPECT_EQ(pkgsig({"import", hello.string(), "--ca=" + path("ca")}).out,
                  "imported hello into /var/lib/package-signatures: developer " +
                      keyId("developer") + "\n");
        EXPECT_EQ(pkgsig({"list", "--database", "/var/lib/package-signatures"}).out,
                  helloLine + tinyLine);
    });
}

TEST(PkgsigCommand, HelpWhereverAskedAndBadInputGetsOneLineAndChangesNothing) {
    const auto help = pkgsig({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with("Usage: pkgsig COMMAND")) << help.out;
    EXPECT_EQ(pkgsig({"verify", "x.rpm", "-h"}).out, help.out);

    Scratch scratch;
    const auto package = copyOfPackage("hello", scratch / "hello.rpm");
    const auto signedPackage = copyOfPackage("tiny", scratch / "signed.rpm");
    TestSupport::signPackage(signedPackage, "developer", "client");
    TestSupport::writeFile(scratch / "notes.rpm", "not a package\n");
    const std::string cut = readFile(package);
    TestSupport::writeFile(scratch / "cut.rpm", cut.substr(0, cut.size() - 40));
    // Its file signatures hold; its trustlet signatures are of other data.
    const auto tampered = copyOfPackage("hello", scratch / "tampered.rpm");
    const auto developer = TestSupport::pkiIdentity("developer");
    PS::FileSignatures files;
    for (const auto& [index, digest] : Pkgsig::PackageFile(tampered).digestsOfFilesToSign())
        files[index] = {PS::imaFileSignature(developer, digest),
                        PS::trustletSignature(developer, PS::Bytes(32, 0x5a))};
    TestSupport::signWithLibrary(tampered, {{"developer", files}});

    // A FIFO would be waited on for ever, a link followed elsewhere.
    const std::string fifo = (scratch / "fifo.rpm").string(), link = (scratch / "ca.pem").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    fs::create_symlink(path("ca"), link);

    const std::string hello = package.string(), tiny = signedPackage.string();
    const std::string missing = (scratch / "missing.rpm").string();
    const std::string notes = (scratch / "notes.rpm").string();
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{}, 2, "no command given"},
        {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
        {{"verify", tiny, "--ca"}, 2, "--ca needs a value"},
        {{"verify", tiny, "--ca="}, 2, "--ca needs a value"},
        {{"verify", tiny, "--ca", path("ca"), "--ca=" + path("ca")}, 2, "--ca is given twice"},
        {{"show", hello, tiny}, 2, "show takes one package file"},
        {{"sign", hello, "--developer-key", path("developer", true)},
         2,
         "sign needs --developer-cert"},
        {signArguments(hello, "developer", {"--database", "x"}), 2,
         "sign takes no option --database"},
        {signArguments(hello, "developer", {"--signing-time", "yesterday"}), 2,
         "--signing-time takes seconds since 1970, not \"yesterday\""},
        {signArguments(missing, "developer"), 1, "cannot open " + missing},
        {signArguments(notes, "developer"), 1, "is not an RPM package file: no RPM lead"},
        {signArguments((scratch / "cut.rpm").string(), "developer"), 1,
         "the payload of " + (scratch / "cut.rpm").string()},
        {signArguments(hello, "client", {}, "developer"), 1,
         "the key " + path("client", true) + " does not belong to the certificate " +
             path("developer")},
        {signArguments(hello, "client"), 1,
         path("client") + " is not a developer signing certificate"},
        {signArguments(hello, "developer-expired"), 1, "is not valid at the signing time"},
        {signArguments(hello, "developer", {"--ca", path("ca2")}), 1,
         "the new signature does not verify against " + path("ca2")},
        {signArguments(hello, "developer", {"--client-key", path("client", true)}), 1,
         "a client signature needs both --client-key and --client-cert"},
        {signArguments(hello, "developer", {"--output", scratch.path() / "no/dir/out.rpm"}), 1,
         "cannot create a temporary file next to"},
        {{"verify", hello, "--ca", path("ca")}, 1, "carries no package signatures"},
        {{"verify", tiny, "--ca", path("ca2")}, 1, "does not hold"},
        {{"verify", tampered.string(), "--ca", path("ca")},
         1,
         "the trustlet signature of /etc/hello-hook does not hold"},
        {{"list", "--database", hello}, 1, "cannot read the package signature database"},
        {{"show", fifo}, 1, "not a regular file: " + fifo},
        {signArguments(hello, "developer", {"--ca", link}), 1, "not a regular file: " + link},
    };
    const std::string before = readFile(package);
    const std::string signedBefore = readFile(signedPackage);
    const auto namesBefore = TestSupport::entries(scratch.path());
    for (const auto& [arguments, status, error] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto result = pkgsig(arguments);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(result.err.starts_with("pkgsig: ")) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_NE(result.err.find(error), std::string::npos) << result.err;
        EXPECT_EQ(readFile(package), before);
        EXPECT_EQ(readFile(signedPackage), signedBefore);
        EXPECT_EQ(TestSupport::entries(scratch.path()), namesBefore);
    }
}

TEST(PkgsigCommand, ConfigFilesAreSignedWhenTheMacroSaysSo) {
    Scratch scratch;
    const auto package = copyOfPackage("hello", scratch / "hello.rpm");
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

TEST(SignedPackage, AnyChangedByteFailsAndADamagedSignatureTagIsNoSignature) {
    Scratch scratch;
    const auto original = copyOfPackage("hello", scratch / "signed.rpm");
    TestSupport::signPackage(original, "developer", "client");
    const PS::PackageLayout layout = PS::readPackageLayout(original);
    const std::string bytes = readFile(original);
    const auto& tag = *layout.signatureTag;
    const auto tagOffset = bytes.find(std::string(tag.begin(), tag.end()));
    ASSERT_NE(tagOffset, std::string::npos);
    const std::size_t second = PS::FileWithCmses::fromPath(original)->cmses()[0].der().size();

    // Within the signed content the signatures still read but no longer hold; within the tag
    // (the first CMS's outer tag and length, the second one's outer tag) they do not read.
    const std::tuple<const char*, std::uint64_t, bool> changes[] = {
        {"main header start", layout.contentOffset + 20, true},
        {"main header end", layout.payloadOffset - 1, true},
        {"payload start", layout.payloadOffset, true},
        {"payload end", layout.fileSize - 1, true},
        {"outer tag", tagOffset, false},
        {"length", tagOffset + 1, false},
        {"second tag", tagOffset + second, false},
    };
    for (const auto& [where, offset, readable] : changes) {
        std::string changed = bytes;
        changed.at(offset) ^= 0x01;
        TestSupport::writeFile(scratch / "changed.rpm", changed);
        const auto file = PS::FileWithCmses::fromPath(scratch / "changed.rpm");
        EXPECT_EQ(file != nullptr, readable) << where;
        EXPECT_FALSE(file && file->verifyCmses(path("ca"))) << where;
    }

    const auto file = PS::FileWithCmses::fromPath(original.string());
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->verifyCmses(path("ca")));
    EXPECT_FALSE(file->verifyCmses(scratch / "no-such-ca.pem"));

    // A developer of the other CA is accepted when both CAs are trusted.
    const auto foreign = copyOfPackage("hello", scratch / "foreign.rpm");
    TestSupport::signPackage(foreign, "developer-other-ca", "client");
    const auto foreignFile = PS::FileWithCmses::fromPath(foreign.string());
    ASSERT_TRUE(foreignFile);
    TestSupport::writeFile(scratch / "both-cas.pem", readFile(path("ca")) + readFile(path("ca2")));
    EXPECT_TRUE(foreignFile->verifyCmses(scratch / "both-cas.pem"));

    // Every signature counts, the client's second one too.
    const auto elsewhere = copyOfPackage("hello", scratch / "elsewhere.rpm");
    TestSupport::signWithLibrary(elsewhere,
                                 {{"developer"}, {"client", {}, "another package's content"}});
    const auto elsewhereFile = PS::FileWithCmses::fromPath(elsewhere.string());
    ASSERT_TRUE(elsewhereFile);
    EXPECT_FALSE(elsewhereFile->verifyCmses(path("ca")));
}

} // namespace
