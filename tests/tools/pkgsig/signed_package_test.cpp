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

TEST(SignedPackage, AnyChangedByteFailsAndADamagedSignatureTagIsNoSignature) {
    Scratch scratch;
    const auto original = PkgsigTest::copyOfPackage("hello", scratch / "signed.rpm");
    TestSupport::signPackage(original, "developer", "client");
    const PackageLayout layout = readPackageLayout(original);
    const std::string bytes = TestSupport::readFile(original);
    const auto& tag = *layout.signatureTag;
    const auto tagOffset = bytes.find(std::string(tag.begin(), tag.end()));
    ASSERT_NE(tagOffset, std::string::npos);
    const std::size_t second = FileWithCmses::fromPath(original)->cmses()[0].der().size();

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
        const auto file = FileWithCmses::fromPath(scratch / "changed.rpm");
        EXPECT_EQ(file != nullptr, readable) << where;
        EXPECT_FALSE(file && file->verifyCmses(ca())) << where;
    }
    TestSupport::writeFile(scratch / "cut.rpm", bytes.substr(0, tagOffset + tag.size() / 2));
    TestSupport::writeFile(scratch / "text.rpm", "Name: hello\n");
    for (const auto& notSigned : {PkgsigTest::builtPackage("hello"), scratch / "missing.rpm",
                                  scratch / "text.rpm", scratch / "cut.rpm"})
        EXPECT_FALSE(FileWithCmses::fromPath(notSigned)) << notSigned;

    const auto file = FileWithCmses::fromPath(original.string());
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->verifyCmses(ca()));
    EXPECT_FALSE(file->verifyCmses(scratch / "no-such-ca.pem"));

    // A developer of the other CA: refused under ours, accepted when both CAs are trusted.
    const auto foreign = PkgsigTest::copyOfPackage("hello", scratch / "foreign.rpm");
    TestSupport::signPackage(foreign, "developer-other-ca", "client");
    const auto foreignFile = FileWithCmses::fromPath(foreign.string());
    ASSERT_TRUE(foreignFile);
    EXPECT_FALSE(foreignFile->verifyCmses(ca()));
    TestSupport::writeFile(scratch / "both-cas.pem",
                           TestSupport::readFile(ca()) + TestSupport::readFile(ca("ca2")));
    EXPECT_TRUE(foreignFile->verifyCmses(scratch / "both-cas.pem"));

    // Every signature counts, the client's second one too.
    const auto elsewhere = PkgsigTest::copyOfPackage("hello", scratch / "elsewhere.rpm");
    TestSupport::signWithLibrary(elsewhere,
                                 {{"developer"}, {"client", {}, "another package's content"}});
    const auto elsewhereFile = FileWithCmses::fromPath(elsewhere.string());
    ASSERT_TRUE(elsewhereFile);
    EXPECT_EQ(elsewhereFile->cmses().size(), 2u);
    EXPECT_FALSE(elsewhereFile->verifyCmses(ca()));
}

} // namespace
