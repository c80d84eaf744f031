// The package-signature library on real packages signed by pkgsig.

#include "platform/package_signatures/file_with_cmses.hpp"
#include "platform/package_signatures/package_layout.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/signed_packages.hpp"
#include "tests/tools/pkgsig/test_packages.hpp"

#include <gtest/gtest.h>

namespace {

using namespace PackageSignatures;
namespace fs = std::filesystem;
using PkgsigTest::Scratch;
using TestSupport::TestPki;

std::string ca(const std::string& name = "ca") {
    return TestPki::shared().certificate(name).string();
}

// Flips one byte of the file at `offset`.
void flipByte(const fs::path& file, std::uint64_t offset) {
    std::string bytes = TestSupport::readFile(file);
    bytes.at(offset) = static_cast<char>(bytes.at(offset) ^ 0x01);
    TestSupport::writeFile(file, bytes);
}

TEST(SignedPackage, OneChangedByteOrAnotherAuthorityFailsVerification) {
    Scratch scratch;
    const auto original = PkgsigTest::copyOfPackage("hello", scratch / "signed.rpm");
    TestSupport::signPackage(original, "developer", "client");
    const PackageLayout layout = readPackageLayout(original);

    const std::vector<std::pair<std::string, std::uint64_t>> places = {
        {"main header start", layout.contentOffset + 20},
        {"main header end", layout.payloadOffset - 1},
        {"payload start", layout.payloadOffset},
        {"payload end", layout.fileSize - 1},
    };
    for (const auto& [where, offset] : places) {
        SCOPED_TRACE(where);
        const auto changed = scratch / "changed.rpm";
        fs::copy_file(original, changed, fs::copy_options::overwrite_existing);
        flipByte(changed, offset);
        const auto file = FileWithCmses::fromPath(changed.string());
        ASSERT_TRUE(file);
        EXPECT_FALSE(file->verifyCmses(ca()));
    }

    const auto file = FileWithCmses::fromPath(original.string());
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->verifyCmses(ca()));
    EXPECT_FALSE(file->verifyCmses(ca("ca2")));
    EXPECT_FALSE(file->verifyCmses((scratch / "no-such-ca.pem").string()));
    EXPECT_FALSE(file->verifyCmses(TestPki::shared().key("developer").string()));

    // A developer of the other CA: refused under ours, accepted when both CAs are trusted.
    const auto foreign = PkgsigTest::copyOfPackage("hello", scratch / "foreign.rpm");
    TestSupport::signPackage(foreign, "developer-other-ca", "client");
    const auto foreignFile = FileWithCmses::fromPath(foreign.string());
    ASSERT_TRUE(foreignFile);
    EXPECT_FALSE(foreignFile->verifyCmses(ca()));
    TestSupport::writeFile(scratch / "both-cas.pem",
                           TestSupport::readFile(ca()) + TestSupport::readFile(ca("ca2")));
    EXPECT_TRUE(foreignFile->verifyCmses((scratch / "both-cas.pem").string()));

    // Every signature counts, the client's second one too.
    const auto clientElsewhere = PkgsigTest::copyOfPackage("hello", scratch / "elsewhere.rpm");
    TestSupport::signWithLibrary(clientElsewhere,
                                 {{"developer"}, {"client", {}, "another package's content"}});
    const auto elsewhereFile = FileWithCmses::fromPath(clientElsewhere.string());
    ASSERT_TRUE(elsewhereFile);
    EXPECT_EQ(elsewhereFile->cmses().size(), 2u);
    EXPECT_FALSE(elsewhereFile->verifyCmses(ca()));
}

TEST(SignedPackage, NoSignatureTagOrAMalformedOneGivesNull) {
    Scratch scratch;
    EXPECT_FALSE(FileWithCmses::fromPath(PkgsigTest::builtPackage("hello").string()));
    EXPECT_FALSE(FileWithCmses::fromPath((scratch / "missing.rpm").string()));
    TestSupport::writeFile(scratch / "text.rpm", "Name: hello\n");
    EXPECT_FALSE(FileWithCmses::fromPath((scratch / "text.rpm").string()));

    const auto signedPackage = PkgsigTest::copyOfPackage("hello", scratch / "signed.rpm");
    TestSupport::signPackage(signedPackage, "developer", "client");
    const auto tag = *readPackageLayout(signedPackage).signatureTag;
    const std::string bytes = TestSupport::readFile(signedPackage);
    const auto tagOffset = bytes.find(std::string(tag.begin(), tag.end()));
    ASSERT_NE(tagOffset, std::string::npos);

    // The first CMS's outer tag and length, the second CMS's outer tag; then a file cut in
    // the middle of the signature header.
    const std::size_t second =
        FileWithCmses::fromPath(signedPackage.string())->cmses()[0].der().size();
    const std::vector<std::pair<std::string, std::uint64_t>> damages = {
        {"outer tag", tagOffset}, {"length", tagOffset + 1}, {"second tag", tagOffset + second}};
    for (const auto& [what, offset] : damages) {
        SCOPED_TRACE(what);
        const auto damaged = scratch / "damaged.rpm";
        fs::copy_file(signedPackage, damaged, fs::copy_options::overwrite_existing);
        flipByte(damaged, offset);
        EXPECT_FALSE(FileWithCmses::fromPath(damaged.string()));
    }
    TestSupport::writeFile(scratch / "cut.rpm", bytes.substr(0, tagOffset + tag.size() / 2));
    EXPECT_FALSE(FileWithCmses::fromPath((scratch / "cut.rpm").string()));
}

} // namespace
