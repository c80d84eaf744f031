#include "platform/package_signatures/database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/signed_packages.hpp"
#include "tests/support/test_pki.hpp"

#include <filesystem>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using PackageSignatures::Certificate;
using PackageSignatures::ClientGroup;
using PackageSignatures::Database;
using PackageSignatures::DeveloperGroup;
using TestSupport::pkiCertificate;
using TestSupport::TestPki;

std::vector<std::string> filesBelow(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(directory))
        names.push_back(fs::relative(entry.path(), directory).string());
    std::sort(names.begin(), names.end());
    return names;
}

class SignatureDatabase : public ::testing::Test {
protected:
    TestSupport::Scratch scratch;
    fs::path root = scratch / "db";
};

TEST_F(SignatureDatabase, ImportedCertificatesAreListedAndFoundByGroup) {
    const Database database(root);
    EXPECT_TRUE(database.packages().empty()); // no root yet: an empty database

    database.setPackageCertificate("zeta-app", DeveloperGroup, pkiCertificate("developer"));
    database.setPackageCertificate("alpha.viewer+2", DeveloperGroup,
                                   pkiCertificate("developer-system"));
    database.setPackageCertificate("alpha.viewer+2", ClientGroup, pkiCertificate("client"));
    database.setPackageCertificate("Beta_1", ClientGroup, pkiCertificate("client"));
    EXPECT_EQ(database.packages(),
              (std::vector<std::string>{"Beta_1", "alpha.viewer+2", "zeta-app"}));
    EXPECT_EQ(filesBelow(root),
              (std::vector<std::string>{"Beta_1", "Beta_1/3.pem", "alpha.viewer+2",
                                        "alpha.viewer+2/1.pem", "alpha.viewer+2/3.pem", "zeta-app",
                                        "zeta-app/1.pem"}));
    EXPECT_EQ(fs::status(root / "zeta-app/1.pem").permissions(), fs::perms(0644));

    // A second instance reads what the first wrote.
    const Database again(root);
    EXPECT_EQ(again.packageCertificateWithGroup("alpha.viewer+2", ClientGroup)->subject(),
              TestPki::clientSubject);
    EXPECT_FALSE(again.packageCertificateWithGroup("zeta-app", ClientGroup));
    EXPECT_FALSE(again.packageCertificateWithGroup("unknown", DeveloperGroup));
    EXPECT_FALSE(again.packageCertificateWithGroup("zeta-app", 2));

    // Replacing leaves no temporary file behind.
    database.setPackageCertificate("zeta-app", DeveloperGroup,
                                   pkiCertificate("developer-extended"));
    EXPECT_EQ(again.packageCertificateWithGroup("zeta-app", DeveloperGroup)->keyId(),
              pkiCertificate("developer-extended").keyId());
    EXPECT_EQ(filesBelow(root / "zeta-app"), std::vector<std::string>{"1.pem"});

    // A package whose last certificate goes leaves no directory behind.
    database.removePackageCertificate("alpha.viewer+2", ClientGroup);
    database.removePackageCertificate("alpha.viewer+2", ClientGroup);
    EXPECT_EQ(filesBelow(root / "alpha.viewer+2"), std::vector<std::string>{"1.pem"});
    database.removePackageCertificate("alpha.viewer+2", DeveloperGroup);
    EXPECT_FALSE(fs::exists(root / "alpha.viewer+2"));
    EXPECT_EQ(database.packages(), (std::vector<std::string>{"Beta_1", "zeta-app"}));
}

TEST_F(SignatureDatabase, NamesThatWouldLeaveTheRootAndDamagedEntriesAreRefused) {
    const Database database(root);
    // A certificate sits where "../outside" would lead.
    TestSupport::writeFile(scratch / "outside/1.pem", pkiCertificate("developer").toPem());
    TestSupport::writeFile(root / "a/b/1.pem", pkiCertificate("developer").toPem());
    TestSupport::writeFile(root / ".hidden/1.pem", pkiCertificate("developer").toPem());
    for (const std::string& name :
         std::vector<std::string>{"../outside", "a/b", ".hidden", "-rf", "", ".", "..",
                                  "with space", "tab\there", std::string(256, 'x')}) {
        SCOPED_TRACE(name);
        EXPECT_THROW(
            database.setPackageCertificate(name, DeveloperGroup, pkiCertificate("developer")),
            std::invalid_argument);
        EXPECT_FALSE(database.packageCertificateWithGroup(name, DeveloperGroup));
    }
    EXPECT_THROW(database.setPackageCertificate("good", 2, pkiCertificate("developer")),
                 std::invalid_argument);
    // Nothing was written, and the odd directories are not packages.
    EXPECT_TRUE(database.packages().empty());
    EXPECT_EQ(filesBelow(root),
              (std::vector<std::string>{".hidden", ".hidden/1.pem", "a", "a/b", "a/b/1.pem"}));
    EXPECT_TRUE(fs::exists(scratch / "outside/1.pem"));

    // Damaged entries are reported, not guessed.
    TestSupport::writeFile(root / "broken/1.pem", "not a certificate\n");
    fs::create_directories(root / "empty-dir");
    TestSupport::writeFile(root / "stray-file", "");
    EXPECT_EQ(database.packages(), std::vector<std::string>{"broken"});
    EXPECT_THROW(database.packageCertificateWithGroup("broken", DeveloperGroup),
                 std::runtime_error);

    // A root that is a file cannot be read or written.
    TestSupport::writeFile(scratch / "file-root", "");
    const Database onFile(scratch / "file-root");
    EXPECT_THROW(onFile.packages(), std::runtime_error);
    EXPECT_THROW(onFile.setPackageCertificate("x", DeveloperGroup, pkiCertificate("developer")),
                 std::runtime_error);
    EXPECT_FALSE(onFile.packageCertificateWithGroup("x", DeveloperGroup));
}

} // namespace
