#include "common/error.hpp"
#include "core/tolva/database.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using Core::Tolva::Database;
using Core::Tolva::PackageData;
using TestSupport::captureStderr;
using TestSupport::errorOf;
using TestSupport::readFile;
using TestSupport::writeFile;

TEST(DatabaseConfiguration, DefaultsForAMissingOrBadFileAndValuesAsTheyStand) {
    SANDBOXED([] {
        const auto warning = "WARN: couldn't parse config file: /etc/tolva/tolva.conf\n";
        fs::remove("/etc/tolva/tolva.conf");
        std::optional<Database> database;
        EXPECT_EQ(captureStderr([&] { database.emplace(); }), warning);
        EXPECT_EQ(database->rootDirectory(), "/opt/app");
        EXPECT_EQ(database->tempDirectory(), "/opt/tolva/tmp");

        writeFile("/etc/tolva/tolva.conf",
                  "[database]\nroot_directory=/srv/apps\nroot_directory=/x\n");
        EXPECT_EQ(captureStderr([&] { database.emplace(); }), warning);
        EXPECT_EQ(database->rootDirectory(), "/opt/app");

        // A directory that is no place for the database is refused, and the default taken.
        writeFile("/etc/tolva/tolva.conf", "[database]\nroot_directory=/opt/apps\n"
                                           "temp_directory=\n");
        EXPECT_EQ(captureStderr([&] { database.emplace(); }),
                  "WARN: ignoring an unsafe directory in config file: "
                  "database.temp_directory=\"\"\n");
        EXPECT_EQ(database->rootDirectory(), "/opt/apps");
        EXPECT_EQ(database->tempDirectory(), "/opt/tolva/tmp");

        writeFile("/opt/tolva/tmp/demo.notes/bin/notes", "#!/bin/sh\n");
        EXPECT_EQ(database->createVersionedDirectory("demo.notes", "1.2.3-1",
                                                     "/opt/tolva/tmp/demo.notes"),
                  "/opt/apps/demo.notes/1.2.3-1");
        EXPECT_EQ(readFile("/opt/apps/demo.notes/1.2.3-1/bin/notes"), "#!/bin/sh\n");
        EXPECT_FALSE(fs::exists("/opt/tolva/tmp/demo.notes"));
        EXPECT_EQ(errorOf(
                      [&] {
                          database->createVersionedDirectory("demo.notes", "2-1",
                                                             "/opt/tolva/tmp/demo.notes");
                      },
                      Common::ErrorCode::Internal),
                  "extracted package directory doesn't exist: /opt/tolva/tmp/demo.notes");
        // A version directory that is already there, with files in it, is not replaced.
        writeFile("/opt/tolva/tmp/demo.notes/bin/notes", "new");
        EXPECT_EQ(errorOf([&] {
                      database->createVersionedDirectory("demo.notes", "1.2.3-1",
                                                         "/opt/tolva/tmp/demo.notes");
                  }),
                  "couldn't create versioned directory: /opt/apps/demo.notes/1.2.3-1");
        EXPECT_EQ(readFile("/opt/apps/demo.notes/1.2.3-1/bin/notes"), "#!/bin/sh\n");
    });
}

TEST(PackageDataFile, WrittenInItsFixedOrderAndReadBack) {
    const TestSupport::Scratch directory;
    const PackageData extra{{"certificate.subgroup", "regular"},
                            {"certificate.id", "a1b2"},
                            {"applicationdata.setupdata", "{\"a\": 1}"}};
    Database::writePackageDataFile({"demo.notes", "Demo Org", "Notes"}, "1.2.3-1", extra,
                                   directory.path());
    const auto file = directory / "velmor.pkg";
    EXPECT_EQ(readFile(file), "[general]\nappname=Notes\nid=demo.notes\norgname=Demo Org\n"
                              "version=1.2.3-1\n[applicationdata]\nsetupdata={\"a\": 1}\n"
                              "[certificate]\nid=a1b2\nsubgroup=regular\n");
    EXPECT_EQ(Database::readPackageDataFile(file).size(), 7u);
    // The manifest names only come in pairs.
    Database::writePackageDataFile({"demo.clock", "Demo Org", std::nullopt}, "2.0-1", {},
                                   directory.path());
    EXPECT_EQ(readFile(file), "[general]\nid=demo.clock\nversion=2.0-1\n");

    writeFile(file, "[general]\nid=x\nversion=1\nextra=kept\n[certificate]\nsubgroup=s\nid=c\n"
                    "[vendor]\nnote=also kept\n");
    auto data = Database::readPackageDataFile(file);
    EXPECT_EQ(data["general.extra"], "kept");
    EXPECT_EQ(data["vendor.note"], "also kept");

    const std::pair<std::string, std::string> bad[] = {
        {"[general]\nid=x\nversion=1\n[certificate]\nsubgroup=s\n",
         "package doesn't contains required key: certificate.id"},
        {"[general]\nid=x\n[certificate]\nsubgroup=s\n",
         "package doesn't contains required key: general.version"},
        {"[general]\nid=x\nid=y\n", "couldn't parse velmor.pkg file: " + file.string()},
    };
    for (const auto& [text, message] : bad) {
        writeFile(file, text);
        EXPECT_EQ(errorOf([&] { Database::readPackageDataFile(file); },
                          Common::ErrorCode::CorruptedInstalledPackage),
                  message);
    }
    fs::remove(file);
    EXPECT_EQ(errorOf([&] { Database::readPackageDataFile(file); },
                      Common::ErrorCode::CorruptedInstalledPackage),
              "velmor.pkg doesn't exist: " + file.string());
    EXPECT_EQ(
        errorOf([&] {
            Database::writePackageDataFile({"x", {}, {}}, "1", {}, directory.path() / "missing");
        }),
        "couldn't create velmor.pkg file " +
            (directory.path() / "missing" / "velmor.pkg").string());
}

// Editors on some systems start a UTF-8 text with a byte-order mark; a velmor.pkg that does
// must not read as corrupted, or the repair pass deletes the package.
TEST(DatabaseFiles, ALeadingByteOrderMarkIsSkipped) {
    TestSupport::Scratch scratch;
    const fs::path directory = scratch.path();
    const std::string mark = "\xEF\xBB\xBF";
    TestSupport::writeFile(directory / "tolva.conf", mark + "[database]\nroot_directory=/srv/apps\n");
    std::optional<Database> database;
    EXPECT_EQ(captureStderr([&] { database.emplace(directory / "tolva.conf"); }), "");
    EXPECT_EQ(database->rootDirectory(), "/srv/apps");
    EXPECT_EQ(database->tempDirectory(), "/opt/tolva/tmp");

    TestSupport::writeFile(directory / "velmor.pkg",
              mark + "[general]\nid=demo.notes\nversion=1\n[certificate]\nid=c\nsubgroup=s\n");
    EXPECT_EQ(Database::readPackageDataFile(directory / "velmor.pkg").at("general.id"),
              "demo.notes");
}
