// Opening package files and reading their tags with librpm, in the sandbox, whose RPM database
// is at /var/lib/rpm.

#include "common/error.hpp"
#include "common/rpm/file_iterator.hpp"
#include "common/rpm/reader.hpp"
#include "tests/common/rpm/rpm_packages.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <gtest/gtest.h>
#include <rpm/header.h>

using Common::ErrorCode;
using Common::Rpm::Reader;
using TestSupport::captureStderr;
using TestSupport::errorOf;

TEST(RpmReader, ReadsPackagesLeavingNoRpmDatabaseAndWarnsWithoutAConfiguration) {
    const auto package = TestSupport::buildPackage(RpmTest::single("reader-xz", "w6.xzdio"));
    SANDBOXED([&] {
        namespace fs = std::filesystem;
        fs::remove_all("/var/lib/rpm");
        const Reader reader(package.string());
        EXPECT_EQ(reader.stringTag(RPMTAG_NAME), "reader-xz");
        EXPECT_EQ(errorOf([&] { reader.stringTag(RPMTAG_EPOCH); }, ErrorCode::BadPackage),
                  "couldn't retrieve rpm tag from package (type=1003)");
        EXPECT_EQ(reader.stringTagOr(RPMTAG_EPOCH, "none"), "none");
        EXPECT_EQ(reader.stringTagOr(RPMTAG_PAYLOADCOMPRESSOR, "gzip"), "xz");
        // A lent header without the compressor tag; it outlives its reader, still ours to free.
        Header copy = headerCopy(reader.header().get());
        ASSERT_EQ(headerDel(copy, RPMTAG_PAYLOADCOMPRESSOR), 0);
        EXPECT_EQ(Reader(copy).stringTagOr(RPMTAG_PAYLOADCOMPRESSOR, "gzip"), "gzip");
        EXPECT_FALSE(Reader(copy).fd());
        EXPECT_EQ(Reader(copy).stringTag(RPMTAG_NAME), "reader-xz");
        headerFree(copy);

        EXPECT_EQ(errorOf([] { Reader("/nowhere/package.rpm"); }, ErrorCode::FileNotFound),
                  "couldn't open rpm package");
        TestSupport::writeFile("/tmp/not.rpm", "not a package at all\n");
        for (const char* path : {"/tmp/not.rpm", "/tmp"})
            captureStderr([&] { // librpm prints its own complaint
                EXPECT_EQ(errorOf([&] { Reader{path}; }, ErrorCode::BadPackage),
                          "couldn't read rpm package")
                    << path;
            });
        // Reading created no RPM database, nor its directory.
        EXPECT_FALSE(fs::exists("/var/lib/rpm"));
        fs::create_directories("/var/lib/rpm");
        Reader{package.string()};
        EXPECT_TRUE(fs::is_empty("/var/lib/rpm"));
    });
    // Without a readable RPM configuration every construction warns, and goes on.
    SANDBOXED([&] {
        std::filesystem::rename("/usr/lib/rpm/rpmrc", "/usr/lib/rpm/rpmrc.away");
        // librpm's own complaint comes first, then the warning.
        const std::string warning =
            "error: Unable to open /usr/lib/rpm/rpmrc for reading: No such "
            "file or directory.\nWARN: cannot read RPM configuration files\n";
        std::string name;
        const auto first =
            captureStderr([&] { name = Reader(package.string()).stringTag(RPMTAG_NAME); });
        // One from the reader, one from the transaction set it reads the package with.
        EXPECT_EQ(first, warning + warning);
        EXPECT_EQ(name, "reader-xz");
        // The file walks read the configuration before anything else, so the walk's warning
        // comes even when the package it opens is not there.
        const auto missing = [&](auto open) {
            return captureStderr([&] {
                EXPECT_EQ(errorOf(open, ErrorCode::FileNotFound), "couldn't open rpm package");
            });
        };
        EXPECT_EQ(missing([] { Common::Rpm::FileIterator("/nowhere.rpm"); }), warning + warning);
        EXPECT_EQ(missing([] { Common::Rpm::ExtractFileIterator("/nowhere.rpm"); }),
                  warning + warning);

        // Once read, the configuration is not read again.
        std::filesystem::rename("/usr/lib/rpm/rpmrc.away", "/usr/lib/rpm/rpmrc");
        EXPECT_EQ(captureStderr([&] { Reader{package.string()}; }), "");
        std::filesystem::rename("/usr/lib/rpm/rpmrc", "/usr/lib/rpm/rpmrc.away");
        EXPECT_EQ(captureStderr([&] { Reader{package.string()}; }), "");
    });
}
