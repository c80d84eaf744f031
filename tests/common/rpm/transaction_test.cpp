// The installed-package walk and erasure through a transaction, on the RPM database of the
// sandbox with fixtures installed by rpm itself.

#include "common/error.hpp"
#include "common/rpm/file_iterator.hpp"
#include "common/rpm/transaction.hpp"
#include "tests/common/rpm/rpm_packages.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <gtest/gtest.h>
#include <rpm/rpmts.h>

namespace fs = std::filesystem;
using Common::Rpm::InstalledPackageIterator;
using Common::Rpm::IterationResult;
using Common::Rpm::Reader;
using Common::Rpm::Transaction;

namespace {

std::vector<std::string> installedNames(int stopAfter = -1) {
    std::vector<std::string> names;
    InstalledPackageIterator().forEach([&](const Reader& reader) {
        names.push_back(reader.stringTag(RPMTAG_NAME));
        return int(names.size()) == stopAfter ? IterationResult::Stop : IterationResult::Continue;
    });
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

TEST(RpmTransaction, WalksAndErasesInstalledPackages) {
    std::vector<fs::path> packages;
    for (const char* name : {"erase-one", "erase-two", "keep-three"})
        packages.push_back(TestSupport::buildPackage(RpmTest::single(name)));
    SANDBOXED([&] {
        EXPECT_EQ(installedNames(), std::vector<std::string>{});
        TestSupport::installPackages(packages);
        EXPECT_EQ(installedNames(),
                  (std::vector<std::string>{"erase-one", "erase-two", "keep-three"}));
        EXPECT_EQ(installedNames(1).size(), 1u);

        Transaction transaction;
        transaction.setFlags(RPMTRANS_FLAG_NOPLUGINS);
        transaction.setNotifyCallback();
        InstalledPackageIterator().forEach([&](const Reader& reader) {
            // The file list of a lent header is read within the step, as the migration does.
            std::vector<fs::path> files;
            Common::Rpm::FileIterator(reader).forEach([&](const auto& entry) {
                files.push_back(entry.path);
                return IterationResult::Continue;
            });
            const auto name = reader.stringTag(RPMTAG_NAME);
            EXPECT_EQ(files, std::vector<fs::path>{"/usr/share/" + name + "/readme"});
            if (name != "keep-three")
                transaction.addEraseElement(reader.header());
            return IterationResult::Continue;
        });
        transaction.run();

        EXPECT_EQ(installedNames(), std::vector<std::string>{"keep-three"});
        EXPECT_EQ(TestSupport::runProgram({"rpm", "-q", "erase-one"}).out,
                  "package erase-one is not installed\n");
        EXPECT_FALSE(fs::exists("/usr/share/erase-one/readme"));
        EXPECT_FALSE(fs::exists("/usr/share/erase-two/readme"));
        EXPECT_EQ(TestSupport::readFile("/usr/share/keep-three/readme"), "keep-three");

        // Nothing queued: nothing happens. Flags are only ever added. A package that is not
        // installed cannot be erased.
        Transaction again;
        again.run();
        EXPECT_EQ(installedNames(), std::vector<std::string>{"keep-three"});
        again.setFlags(RPMTRANS_FLAG_TEST);
        again.setFlags(RPMTRANS_FLAG_NOPLUGINS);
        EXPECT_EQ(rpmtsFlags(again.handle()), RPMTRANS_FLAG_TEST | RPMTRANS_FLAG_NOPLUGINS);
        EXPECT_EQ(TestSupport::errorOf(
                      [&] { again.addEraseElement(Reader(packages[0].string()).header()); },
                      Common::ErrorCode::Internal),
                  "couldn't add erase element to the RPM transaction");
    });
}
