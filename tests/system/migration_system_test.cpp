// The real launcher migrating a device whose applications rpm installed, in the sandbox.

#include "platform/package_signatures/certificate.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sample_device.hpp"
#include "tests/support/sandboxed_test.hpp"
#include "tests/support/signed_packages.hpp"
#include "tests/support/test_pki.hpp"

#include <SQLiteCpp/Database.h>
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>

namespace fs = std::filesystem;
using TestSupport::readFile;
using TestSupport::runProgram;
using namespace std::string_literals;

namespace {

constexpr const char* stamp = "/var/lib/tolva/.migration_done";
const fs::path notes = "/opt/app/harbor-notes/1.2.3-1";
const std::string notesBinary = "#!/bin/sh\necho notes\n", clockBinary = "#!/bin/sh\necho tick\n";
const std::vector<std::string> allRpms = {"harbor-notes", "loose-tool", "platform-settings",
                                          "quiet-clock"};
const std::vector<std::string> systemRpms = {"loose-tool", "platform-settings"};

TestSupport::ProcessResult launch() {
    return runProgram({TOLVA_MIGRATE});
}

// A start that completes the run and writes the stamp; what it logged is shown when it does not.
TestSupport::ProcessResult completedLaunch() {
    auto run = launch();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(fs::exists(stamp));
    return run;
}

// The launcher under the fault library, set by `fault` ("TOLVA_...=path").
TestSupport::ProcessResult launchWith(const std::string& fault) {
    return runProgram({"env", "LD_PRELOAD=" TOLVA_FAULT_PRELOAD, fault, TOLVA_MIGRATE});
}

// Whether `run` logged `text`; says what it logged when not.
testing::AssertionResult logged(const TestSupport::ProcessResult& run, const std::string& text) {
    if (run.err.find(text) != std::string::npos)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << text << "\" in:\n" << run.err;
}

// A start, under `fault` when one is given, that must stop short of done, having logged `line`.
TestSupport::ProcessResult failedLaunch(const std::string& line, const std::string& fault = {}) {
    auto run = fault.empty() ? launch() : launchWith(fault);
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(logged(run, line));
    EXPECT_FALSE(fs::exists(stamp));
    return run;
}

std::string keyId(const std::string& certificate) {
    return PackageSignatures::Certificate::fromPem(
               readFile(TestSupport::TestPki::shared().certificate(certificate)))
        ->keyId();
}

std::vector<std::string> installedRpms() {
    auto names = TestSupport::lines(runProgram({"rpm", "-qa", "--qf", "%{NAME}\n"}).out);
    std::sort(names.begin(), names.end());
    return names;
}

std::string sql(const std::string& query) {
    return runProgram({"sqlite3", "/var/lib/trusted-sources/db.sqlite3", query}).out;
}

struct Installed {
    std::string content;
    fs::perms mode;
    std::optional<std::string> ima;
};

// What rpm installed for the two applications that qualify, read before the migration.
std::map<fs::path, Installed> installedFiles() {
    std::map<fs::path, Installed> files;
    for (const auto& path :
         TestSupport::lines(runProgram({"rpm", "-ql", "harbor-notes", "quiet-clock"}).out))
        if (fs::is_regular_file(fs::symlink_status(path)))
            files[path] = {readFile(path), fs::status(path).permissions(),
                           TestSupport::attribute(path, "security.ima")};
    return files;
}

// Each file of `before` is mapped and reads through its path as it was, with its mode and
// "security.ima", and carries its package's "security.appid" (the %config file none).
void expectAsInstalled(const std::map<fs::path, Installed>& before) {
    for (const auto& [path, file] : before) {
        SCOPED_TRACE(path);
        const fs::path placed = fs::canonical(path);
        EXPECT_TRUE(fs::is_symlink(path) ||
                    TestSupport::attribute(path, "user.tolva.mapping.target").has_value());
        EXPECT_EQ(readFile(placed), file.content);
        EXPECT_EQ(fs::status(placed).permissions(), file.mode);
        EXPECT_EQ(TestSupport::attribute(placed, "security.ima"), file.ima);
        const auto id =
            path.string().find("quiet") == std::string::npos ? "harbor-notes" : "quiet-clock";
        EXPECT_EQ(TestSupport::attribute(placed, "security.appid"),
                  path.filename() == "notes.conf" ? std::nullopt : std::optional<std::string>(id));
    }
}

// The hard-link set of harbor-notes' data is one file of two names in the version directory
// `root`.
bool wordsShared(const fs::path& root) {
    return fs::equivalent(root / "data/data/words.db", root / "data/data/words-backup.db") &&
           fs::hard_link_count(root / "data/data/words.db") == 2;
}

// Installs the sample device inside the sandbox.
void installDevice(const std::vector<TestSupport::SampleApp>& apps) {
    TestSupport::installSampleDevice(apps);
    fs::create_directories("/var/lib/tolva");
}

// Runs `test` in a sandbox on the sample device.
void onSampleDevice(const std::function<void()>& test) {
    TestSupport::Scratch scratch;
    const auto apps = TestSupport::buildSampleApps(scratch.path());
    SANDBOXED([&] {
        installDevice(apps);
        test();
    });
}

} // namespace

TEST(Migration, MovesTheSignedApplicationsAndLeavesTheOthers) {
    onSampleDevice([&] {
        // The installed files' own attributes travel; a file deleted since its install, or
        // while it is copied, is only warned about.
        TestSupport::putAttribute("/usr/bin/harbor-notes", "security.ima", "ima-of-notes");
        fs::remove("/usr/share/icons/hicolor/128x128/apps/harbor-notes.png");
        const fs::path vanishing = "/usr/share/icons/hicolor/86x86/apps/harbor-notes.png";
        auto before = installedFiles();
        ASSERT_EQ(before.erase(vanishing), 1u);
        ASSERT_EQ(before.size(), 10u);

        const auto run = launchWith("TOLVA_VANISH=" + vanishing.string());
        EXPECT_EQ(run.status, 0);
        const std::string client = "(keyid=" + keyId("client") + ")";
        EXPECT_EQ(run.err,
                  "WARN: couldn't parse config file: /etc/tolva/tolva.conf\n"
                  "WARN: package loose-tool doesn't have developer certificate\n"
                  "WARN: attempt to copy a non-existent file during package migration: "
                  "\"/usr/share/icons/hicolor/128x128/apps/harbor-notes.png\"\n"
                  "WARN: attempt to copy a non-existent file during package migration: "
                  "\"/usr/share/icons/hicolor/86x86/apps/harbor-notes.png\"\n"
                  "warning: file harbor-notes.png: remove failed: No such file or directory\n"
                  "warning: file harbor-notes.png: remove failed: No such file or directory\n"
                  "INFO: package quiet-clock successfully migrated from RPM to Tolva\n"
                  "INFO: package harbor-notes successfully migrated from RPM to Tolva\n"
                  "INFO: successfully added trusted source " +
                      client +
                      "\n"
                      "INFO: successfully bound harbor-notes package to source " +
                      client +
                      "\n"
                      "WARN: couldn't parse config file: /etc/tolva/tolva.conf\n"
                      "INFO: successfully bound quiet-clock package to source "
                      "(keyid=.no.source.apps)\n");
        EXPECT_NE(run.out.find("harbor-notes-1.2.3-1"), std::string::npos) << run.out;

        EXPECT_EQ(installedRpms(), systemRpms);
        const auto verify = runProgram({"rpm", "-V", "loose-tool", "platform-settings"});
        EXPECT_EQ(verify.status, 0) << verify.out;

        // Every installed file is where it was, through its mapping, as it was.
        expectAsInstalled(before);
        EXPECT_FALSE(fs::exists("/usr/share/icons/hicolor/128x128/apps/harbor-notes.png"));
        EXPECT_FALSE(fs::exists(fs::symlink_status(vanishing)));

        EXPECT_EQ(readFile(notes / "velmor.pkg"), "[general]\nappname=Notes\nid=harbor-notes\n"
                                                  "orgname=org.harbor\nversion=1.2.3-1\n"
                                                  "[certificate]\nid=" +
                                                      keyId("developer") + "\nsubgroup=regular\n");
        EXPECT_EQ(fs::read_symlink("/opt/app/harbor-notes/current"), notes);
        EXPECT_EQ(readFile(notes / "generated.dir.list"),
                  "/usr/lib/3rdparty/harbor-notes\n/usr/libexec/harbor-notes\n"
                  "/usr/share/harbor-notes\n/usr/share/harbor-notes/data\n");
        EXPECT_EQ(readFile("/opt/app/quiet-clock/0.9-2/symlink.list"),
                  "/usr/bin/quiet-clock\n/usr/share/quiet-clock/face.svg\n");
        EXPECT_EQ(readFile("/opt/app/quiet-clock/0.9-2/velmor.pkg"),
                  "[general]\nid=quiet-clock\nversion=0.9-2\n[certificate]\nid=" +
                      keyId("developer") + "\nsubgroup=regular\n");

        // Links: relative, dot-relative and absolute resolve to the installed files; the
        // library link is copied as a link; the hard-link set is one file.
        EXPECT_EQ(readFile("/usr/share/harbor-notes/default.qml"), "Item {}\n");
        EXPECT_EQ(readFile("/usr/share/harbor-notes/helper"), "#!/bin/sh\necho sync\n");
        EXPECT_EQ(fs::read_symlink("/usr/lib/3rdparty/harbor-notes/libnotes.so"), "libnotes.so.1");
        EXPECT_TRUE(wordsShared(notes));
        EXPECT_EQ(fs::status(notes / "data/data").permissions(), fs::perms(0750));

        EXPECT_EQ(sql("select keyid, subject from sources order by keyid;"),
                  ".no.source.apps|\n" + keyId("client") + "|" +
                      TestSupport::TestPki::clientSubject + "\n");
        EXPECT_EQ(sql("select id, source_keyid from packages order by id;"),
                  "harbor-notes|" + keyId("client") + "\nquiet-clock|.no.source.apps\n");
        EXPECT_EQ(sql("select data from configuration where id = 'required';"), "0\n");

        EXPECT_TRUE(fs::exists(stamp));
        EXPECT_TRUE(fs::is_empty("/opt/tolva/tmp"));
        EXPECT_EQ(completedLaunch().err,
                  "INFO: package migration from RPM to Tolva is already done, skipping the "
                  "migration\n");
    });
}

TEST(Migration, APackageThatFailsToInstallWaitsForTheNextStart) {
    onSampleDevice([&] {
        // A system file where the library would get its lib64 twin stops the install after
        // the erase.
        const fs::path blocker = "/usr/lib64/3rdparty/harbor-notes/libnotes.so.1";
        TestSupport::writeFile(blocker, "system file");

        const auto failed = failedLaunch(
            "ERROR: attempt to override system file with package mapping: " + blocker.string() +
            "\n");
        const std::string ending =
            "ERROR: package harbor-notes waits to be migrated at the next start\n"
            "ERROR: the migration from RPM to Tolva is not complete\n"
            "ERROR: coundn't migrate rpm packages\n";
        EXPECT_TRUE(failed.err.ends_with(ending)) << failed.err;
        for (const char* line :
             {"ERROR: failed to migrate harbor-notes package from RPM to Tolva\n",
              "INFO: package quiet-clock successfully migrated from RPM to Tolva\n",
              "INFO: successfully bound harbor-notes package to source"})
            EXPECT_TRUE(logged(failed, line));
        EXPECT_EQ(installedRpms(), systemRpms);
        // The only copy is back in the temporary directory, and nothing of it is mapped.
        EXPECT_EQ(readFile("/opt/tolva/tmp/harbor-notes/bin/harbor-notes"), notesBinary);
        EXPECT_FALSE(fs::exists("/opt/app/harbor-notes"));
        EXPECT_FALSE(fs::exists(fs::symlink_status("/usr/bin/harbor-notes")));
        EXPECT_EQ(readFile(blocker), "system file");
        EXPECT_TRUE(fs::exists("/opt/app/quiet-clock/current/velmor.pkg"));

        // A waiting tree that cannot be read is still the only copy: kept, never cleared.
        const fs::path data = "/opt/tolva/tmp/harbor-notes/velmor.pkg";
        fs::rename(data, "/opt/tolva/velmor.pkg");
        fs::create_directory(data);
        EXPECT_EQ(launch().status, 1);
        EXPECT_EQ(readFile("/opt/tolva/tmp/harbor-notes/bin/harbor-notes"), notesBinary);
        fs::remove(data);
        fs::rename("/opt/tolva/velmor.pkg", data);

        fs::remove(blocker);
        const auto resumed = completedLaunch();
        EXPECT_TRUE(logged(resumed, "INFO: package harbor-notes successfully migrated"));
        EXPECT_EQ(readFile("/usr/bin/harbor-notes"), notesBinary);
        EXPECT_TRUE(wordsShared(notes));
        EXPECT_TRUE(fs::is_empty("/opt/tolva/tmp"));
    });
}

TEST(Migration, APackageThatCannotBePlacedWaitsWhileTheNextOneIsPlacedBesideIt) {
    onSampleDevice([&] {
        // A directory where quiet-clock's "current" goes stops it before its mappings, while
        // harbor-notes, after it, is already being placed.
        fs::create_directories("/opt/app/quiet-clock/current/kept");
        const auto failed = failedLaunch("ERROR: failed to migrate quiet-clock package");
        // Each line where one package after the other would have written it.
        std::size_t at = 0;
        for (const char* line : {"[/opt/app/quiet-clock/current]\n",
                                 "ERROR: failed to migrate quiet-clock package from RPM to Tolva\n",
                                 "ERROR: couldn't create current directory: "
                                 "/opt/app/quiet-clock/current\n",
                                 "INFO: package harbor-notes successfully migrated"}) {
            at = failed.err.find(line, at);
            ASSERT_NE(at, std::string::npos) << line << " in order in:\n" << failed.err;
        }
        EXPECT_TRUE(fs::exists("/opt/tolva/tmp/quiet-clock/velmor.pkg"));
        EXPECT_TRUE(fs::exists("/opt/app/harbor-notes/current/velmor.pkg"));

        fs::remove_all("/opt/app/quiet-clock");
        completedLaunch();
        EXPECT_EQ(readFile("/usr/bin/quiet-clock"), clockBinary);
    });
}

TEST(Migration, ALinkWhereAPackageGoesIsNeitherFollowedNorTheEndOfTheApp) {
    onSampleDevice([&] {
        fs::create_directories("/etc/away");
        fs::create_directories("/opt/app");
        fs::create_directory_symlink("/etc/away", "/opt/app/quiet-clock");
        failedLaunch("ERROR: couldn't create current directory: /opt/app/quiet-clock/current\n");
        EXPECT_TRUE(fs::is_empty("/etc/away"));
        EXPECT_TRUE(fs::exists("/opt/tolva/tmp/quiet-clock/velmor.pkg"));

        // The repair pass has cleared the link: the next start places the app.
        completedLaunch();
        EXPECT_TRUE(fs::is_empty("/etc/away"));
        EXPECT_EQ(readFile("/usr/bin/quiet-clock"), clockBinary);
    });
    onSampleDevice([&] {
        // A link where the version directory goes is not one that an earlier run moved there.
        TestSupport::writeFile("/etc/away/velmor.pkg", "not the app");
        fs::create_directories("/opt/app/quiet-clock");
        fs::create_directory_symlink("/etc/away", "/opt/app/quiet-clock/0.9-2");
        failedLaunch("ERROR: couldn't create versioned directory: /opt/app/quiet-clock/0.9-2\n");
        EXPECT_TRUE(fs::exists("/opt/tolva/tmp/quiet-clock/velmor.pkg"));

        completedLaunch();
        EXPECT_EQ(readFile("/etc/away/velmor.pkg"), "not the app");
        EXPECT_EQ(readFile("/usr/bin/quiet-clock"), clockBinary);
    });
}

TEST(Migration, AnErasureThatLeavesRpmListingAPackageWithoutItsFilesKeepsItsCopy) {
    onSampleDevice([&] {
        const auto before = installedFiles();
        // The database cannot grow: the erase removes the files, yet RPM still lists them.
        failedLaunch("ERROR: the RPM database did not take the erasure of the migrated packages\n",
                     "TOLVA_REFUSE_WRITES=/var/lib/rpm/rpmdb.sqlite-wal");
        EXPECT_EQ(installedRpms(), allRpms);
        EXPECT_FALSE(fs::exists("/usr/bin/harbor-notes"));
        EXPECT_EQ(readFile("/opt/tolva/tmp/harbor-notes/bin/harbor-notes"), notesBinary);

        completedLaunch();
        EXPECT_EQ(installedRpms(), systemRpms);
        expectAsInstalled(before);
    });
    onSampleDevice([&] {
        // quiet-clock's %preun removes its binary, then refuses the erase.
        TestSupport::writeFile("/etc/quiet-clock.keep", "wipe");
        failedLaunch("WARN: package quiet-clock is still installed by RPM after its erasure\n");
        EXPECT_FALSE(fs::exists("/usr/bin/quiet-clock"));

        fs::remove("/etc/quiet-clock.keep");
        completedLaunch();
        EXPECT_EQ(readFile("/usr/bin/quiet-clock"), clockBinary);
    });
}

TEST(Migration, AStoreThatCannotBeOpenedOrIsLockedStillCompletesTheRun) {
    // Either way the store fails when it is opened, and every operation says so.
    const auto storeFailure = [&] {
        const auto run = completedLaunch();
        for (const char* line :
             {"ERROR: failed to add client certificate for package harbor-notes"
              "trusted sources database not initialized\n",
              "ERROR: couldn't bind quiet-clock package to source "
              "(keyid=.no.source.apps)\n",
              "INFO: package quiet-clock successfully migrated from RPM to Tolva\n"})
            EXPECT_TRUE(logged(run, line));
        EXPECT_TRUE(fs::exists("/opt/app/harbor-notes/current/velmor.pkg"));
    };
    onSampleDevice([&] {
        fs::create_directories("/var/lib/trusted-sources/db.sqlite3");
        storeFailure();
    });
    onSampleDevice([&] {
        // Another connection holds the store's write lock for the whole run.
        fs::create_directories("/var/lib/trusted-sources");
        SQLite::Database holder("/var/lib/trusted-sources/db.sqlite3",
                                SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        holder.exec("CREATE TABLE t(x); BEGIN EXCLUSIVE; INSERT INTO t VALUES(1)");
        storeFailure();
    });
}

TEST(Migration, APreparationThatFailsAsAWholeErasesNothing) {
    onSampleDevice([&] {
        // A mount where the record of prepared packages belongs: it can be neither cleared
        // nor written.
        TestSupport::mountFresh("tmpfs", "/opt/tolva/tmp/.migration.prepared");
        const auto run = failedLaunch("ERROR: coundn't migrate rpm packages\n");
        EXPECT_TRUE(run.err.ends_with("ERROR: coundn't migrate rpm packages\n")) << run.err;
        EXPECT_EQ(run.err.find("successfully"), std::string::npos) << run.err;
        EXPECT_EQ(installedRpms(), allRpms);
        const auto verify = runProgram({"rpm", "-Va"});
        EXPECT_EQ(verify.status, 0) << verify.out;
        EXPECT_FALSE(fs::exists("/opt/app"));
    });
}

TEST(Migration, ATemporaryDirectoryOnAnotherFileSystem) {
    onSampleDevice([&] {
        TestSupport::mountFresh("tmpfs", "/opt/tolva/tmp");
        const auto before = installedFiles();
        // The copy behind a moved package that cannot all be removed: the package stays in
        // place, complete, and gets its mappings at the next start.
        failedLaunch("ERROR: package harbor-notes waits to be migrated",
                     "TOLVA_KEEP=/opt/tolva/tmp/harbor-notes/velmor.pkg");
        EXPECT_EQ(fs::read_symlink("/opt/app/harbor-notes/current"), notes);
        EXPECT_EQ(readFile(notes / "bin/harbor-notes"), notesBinary);
        completedLaunch();
        expectAsInstalled(before);
        EXPECT_TRUE(wordsShared(notes));
        EXPECT_EQ(std::distance(fs::directory_iterator("/opt/app/harbor-notes"), {}), 2);
        EXPECT_TRUE(fs::is_empty("/opt/tolva/tmp"));
    });
}

TEST(Migration, NamesFromTheDeviceNeverLeadOutOfTheirPlace) {
    using namespace TestSupport;
    // A signed application whose manifest names a system directory as its organisation.
    const FixturePackage cronWriter{
        "cron-writer",
        "1.0",
        "1",
        std::nullopt,
        {},
        {TestSupport::file("/usr/share/applications/cron-writer.desktop",
                           "[Desktop Entry]\nName=x\n[X-Tolva-Application]\n"
                           "OrganizationName=../../../etc/cron.d\nApplicationName=job\n"),
         TestSupport::file("/usr/share/common/job", "* * * * * root sh\n")}};
    // One whose link takes the place of the package's own velmor.pkg and leads out of its tree.
    const FixturePackage linkWriter{
        "link-writer",
        "1.0",
        "1",
        std::nullopt,
        {},
        {TestSupport::file("/usr/share/applications/link-writer.desktop", "[Desktop Entry]\n"),
         TestSupport::symlink("/velmor.pkg", "manifest/../../../../../../../etc/victim")}};
    Scratch scratch;
    std::vector<SampleApp> apps;
    for (const auto& package : {cronWriter, linkWriter}) {
        apps.push_back({package.name, "developer", "", scratch / (package.name + ".rpm")});
        fs::copy_file(buildPackage(package), apps.back().file);
        signPackage(apps.back().file, "developer");
    }
    SANDBOXED([&] {
        installDevice(apps);
        const auto run = completedLaunch();
        EXPECT_TRUE(logged(run, "ERROR: couldn't extract a package information required for "
                                "migration\nERROR: organization name is not a valid directory "
                                "name: \"../../../etc/cron.d\"\n"));
        EXPECT_TRUE(logged(run, "package file would stand among the database's own files: "
                                "/velmor.pkg\n"));
        EXPECT_FALSE(fs::exists("/etc/cron.d/job"));
        EXPECT_FALSE(fs::exists("/etc/victim"));
        EXPECT_EQ(installedRpms(), (std::vector<std::string>{"cron-writer", "link-writer"}));
        EXPECT_EQ(runProgram({"rpm", "-V", "cron-writer", "link-writer"}).status, 0);
        EXPECT_FALSE(fs::exists("/opt/app/cron-writer"));
        EXPECT_FALSE(fs::exists("/opt/app/link-writer"));
    });
}

TEST(Migration, ARootThatIsFullReadOnlyOrWithoutAttributesLosesNothingAndIsRetried) {
    onSampleDevice([&] {
        // A file system without extended attributes cannot hold "security.appid".
        TestSupport::mountFresh("ramfs", "/opt/app");
        const auto bare = failedLaunch("ERROR: the migration from RPM to Tolva is not complete\n");
        for (const std::string id : {"harbor-notes", "quiet-clock"}) {
            EXPECT_TRUE(
                logged(bare, "ERROR: package " + id + " waits to be migrated at the next start\n"));
            EXPECT_TRUE(fs::exists("/opt/tolva/tmp/" + id + "/velmor.pkg"));
        }
        EXPECT_EQ(installedRpms(), systemRpms);
        ASSERT_EQ(::umount("/opt/app"), 0);

        // Room for quiet-clock, not for harbor-notes' data.
        TestSupport::mountFresh("tmpfs", "/opt/app", "size=200k");
        const auto full =
            failedLaunch("ERROR: couldn't create versioned directory: " + notes.string());
        EXPECT_TRUE(logged(full, "INFO: package quiet-clock successfully migrated"));
        EXPECT_FALSE(fs::exists("/opt/app/harbor-notes"));
        EXPECT_EQ(readFile("/opt/tolva/tmp/harbor-notes/bin/harbor-notes"), notesBinary);

        ASSERT_EQ(::mount(nullptr, "/opt/app", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        failedLaunch("ERROR: failed to migrate harbor-notes package from RPM to Tolva\n");
        EXPECT_TRUE(fs::exists("/opt/tolva/tmp/harbor-notes/bin/harbor-notes"));

        ASSERT_EQ(::mount(nullptr, "/opt/app", nullptr, MS_REMOUNT, "size=10m"), 0);
        completedLaunch();
        EXPECT_EQ(readFile("/usr/bin/harbor-notes"), notesBinary);
        EXPECT_EQ(readFile("/usr/bin/quiet-clock"), clockBinary);
    });
}

TEST(Migration, OnTheInstalledFilesFileSystemLinksAndLeavesAPackageThatStaysUntouched) {
    onSampleDevice([&] {
        TestSupport::writeFile("/etc/tolva/tolva.conf",
                               "[database]\nroot_directory=/usr/tolva/app\n"
                               "temp_directory=/usr/tolva/tmp\n");
        // RPM refuses to erase quiet-clock after its files were linked: they stay RPM's, every
        // attribute byte for byte, an earlier "security.appid" too.
        TestSupport::writeFile("/etc/quiet-clock.keep", "");
        TestSupport::putAttribute("/usr/bin/quiet-clock", "security.appid", "older\0id"s);
        TestSupport::putAttribute("/usr/bin/harbor-notes", "security.ima", "ima-of-notes");
        const auto attributes = [](const fs::path& path) {
            std::vector<std::pair<std::string, std::optional<std::string>>> all;
            for (const auto& name : TestSupport::attributeNames(path))
                all.emplace_back(name, TestSupport::attribute(path, name));
            return all;
        };
        const fs::path clockFiles[] = {"/usr/bin/quiet-clock", "/usr/share/quiet-clock/face.svg"};
        std::map<fs::path, decltype(attributes(""))> clockBefore;
        for (const auto& path : clockFiles)
            clockBefore[path] = attributes(path);
        auto before = installedFiles();
        std::erase_if(before, [](const auto& file) {
            return file.first.string().find("clock") != std::string::npos;
        });
        struct stat binary {};
        ASSERT_EQ(::lstat("/usr/bin/harbor-notes", &binary), 0);

        const auto run =
            failedLaunch("WARN: package quiet-clock is still installed by RPM after its erasure\n");
        EXPECT_TRUE(logged(run, "ERROR: package quiet-clock waits to be migrated at the next "
                                "start\n"));
        EXPECT_EQ(installedRpms(),
                  (std::vector<std::string>{"loose-tool", "platform-settings", "quiet-clock"}));
        const auto verify = runProgram({"rpm", "-V", "quiet-clock"});
        EXPECT_EQ(verify.status, 0) << verify.out;
        for (const auto& path : clockFiles) {
            EXPECT_EQ(attributes(path), clockBefore[path]) << path;
            EXPECT_EQ(fs::hard_link_count(path), 1u) << path;
        }

        // harbor-notes moved without a copy of its data, and as a copy would have it.
        const fs::path moved = "/usr/tolva/app/harbor-notes/1.2.3-1";
        struct stat movedBinary {};
        ASSERT_EQ(::lstat((moved / "bin/harbor-notes").c_str(), &movedBinary), 0);
        EXPECT_EQ(movedBinary.st_ino, binary.st_ino);
        expectAsInstalled(before);
        EXPECT_TRUE(wordsShared(moved));

        // Once RPM lets it go, the next start moves it.
        fs::remove("/etc/quiet-clock.keep");
        completedLaunch();
        EXPECT_EQ(readFile("/usr/tolva/app/quiet-clock/0.9-2/bin/quiet-clock"), clockBinary);
        EXPECT_TRUE(fs::is_empty("/usr/tolva/tmp"));
    });
}

TEST(Migration, ACopyIsKeptWhileItsPackageCannotBePreparedAgainAndMissesFiles) {
    onSampleDevice([&] {
        // An erasure stopped part-way: RPM still lists quiet-clock, its binary is gone, and the
        // recorded copy holds it. The package cannot be prepared again today.
        const fs::path copy = "/opt/tolva/tmp/quiet-clock/bin/quiet-clock";
        fs::create_directories(copy.parent_path());
        fs::copy_file("/usr/bin/quiet-clock", copy);
        TestSupport::writeFile("/opt/tolva/tmp/.migration.prepared", "quiet-clock\n");
        fs::remove("/usr/bin/quiet-clock");
        TestSupport::writeFile("/var/lib/package-signatures/quiet-clock/1.pem", "garbage");
        failedLaunch("ERROR: package quiet-clock waits to be migrated at the next start\n");
        EXPECT_TRUE(fs::exists(copy));
        EXPECT_EQ(readFile("/opt/tolva/tmp/.migration.prepared"), "quiet-clock\n");
    });
}

TEST(Migration, ADamagedCertificateFileIsItsPackagesProblemOnly) {
    onSampleDevice([&] {
        // A FIFO is neither waited on nor followed; a file of garbage holds no certificate.
        const fs::path fifo = "/var/lib/package-signatures/quiet-clock/1.pem";
        const fs::path garbage = "/var/lib/package-signatures/harbor-notes/1.pem";
        fs::remove(fifo);
        ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
        TestSupport::writeFile(garbage, "garbage");
        const auto run = completedLaunch();
        for (const std::string& cause : {"cannot read " + fifo.string() + ": not a regular file",
                                         garbage.string() + " holds no PEM certificate"})
            EXPECT_TRUE(logged(run, "ERROR: couldn't extract a package information required for "
                                    "migration\nERROR: " +
                                        cause + "\n"));
        EXPECT_TRUE(logged(run, "INFO: successfully bound harbor-notes package to source"));
        EXPECT_EQ(installedRpms(), allRpms);
        EXPECT_EQ(runProgram({"rpm", "-V", "harbor-notes", "quiet-clock"}).status, 0);
    });
}
