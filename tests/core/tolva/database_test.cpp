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

TEST(Database, AVersionDirectoryIsMovedIntoPlaceButNeverOverAnExistingOne) {
    SANDBOXED([] {
        writeFile("/etc/tolva/tolva.conf", "");
        const Database database;
        writeFile("/opt/tolva/tmp/demo.notes/bin/notes", "#!/bin/sh\n");
        EXPECT_EQ(
            database.createVersionedDirectory("demo.notes", "1.2.3-1", "/opt/tolva/tmp/demo.notes"),
            "/opt/app/demo.notes/1.2.3-1");
        EXPECT_EQ(readFile("/opt/app/demo.notes/1.2.3-1/bin/notes"), "#!/bin/sh\n");
        EXPECT_FALSE(fs::exists("/opt/tolva/tmp/demo.notes"));
        EXPECT_EQ(errorOf(
                      [&] {
                          database.createVersionedDirectory("demo.notes", "2-1",
                                                            "/opt/tolva/tmp/demo.notes");
                      },
                      Common::ErrorCode::Internal),
                  "extracted package directory doesn't exist: /opt/tolva/tmp/demo.notes");
        // A version directory that is already there, with files in it, is not replaced.
        writeFile("/opt/tolva/tmp/demo.notes/bin/notes", "new");
        EXPECT_EQ(errorOf([&] {
                      database.createVersionedDirectory("demo.notes", "1.2.3-1",
                                                        "/opt/tolva/tmp/demo.notes");
                  }),
                  "couldn't create versioned directory: /opt/app/demo.notes/1.2.3-1");
        EXPECT_EQ(readFile("/opt/app/demo.notes/1.2.3-1/bin/notes"), "#!/bin/sh\n");
    });
}

TEST(PackageDataFile, WrittenInItsFixedOrderAndReadBackOrRefused) {
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
    EXPECT_EQ(Database::readPackageDataFile(file).at("applicationdata.setupdata"), "{\"a\": 1}");

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
    TestSupport::writeFile(directory / "tolva.conf",
                           mark + "[database]\nroot_directory=/srv/apps\n");
    std::optional<Database> database;
    EXPECT_EQ(captureStderr([&] { database.emplace(directory / "tolva.conf"); }), "");
    EXPECT_EQ(database->rootDirectory(), "/srv/apps");
    EXPECT_EQ(database->tempDirectory(), "/opt/tolva/tmp");

    TestSupport::writeFile(
        directory / "velmor.pkg",
        mark + "[general]\nid=demo.notes\nversion=1\n[certificate]\nid=c\nsubgroup=s\n");
    EXPECT_EQ(Database::readPackageDataFile(directory / "velmor.pkg").at("general.id"),
              "demo.notes");
}
