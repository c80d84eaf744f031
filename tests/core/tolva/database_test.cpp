#include "common/error.hpp"
#include "core/tolva/database.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace fs = std::filesystem;
using Core::Tolva::Database;
using Core::Tolva::PackageData;
using TestSupport::captureStderr;

namespace {

void writeText(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

std::string readText(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The message of the Common::Error that `work` throws, with its code.
std::pair<std::string, Common::ErrorCode> errorOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const Common::Error& error) {
        return {error.what(), error.code()};
    }
    ADD_FAILURE() << "no error thrown";
    return {};
}

} // namespace

TEST(DatabaseConfiguration, DefaultsForAMissingOrBadFileAndValuesAsTheyStand) {
    SANDBOXED([] {
        const auto warning = "WARN: couldn't parse config file: /etc/tolva/tolva.conf\n";
        fs::remove("/etc/tolva/tolva.conf");
        std::optional<Database> database;
        EXPECT_EQ(captureStderr([&] { database.emplace(); }), warning);
        EXPECT_EQ(database->rootDirectory(), "/opt/app");
        EXPECT_EQ(database->tempDirectory(), "/opt/tolva/tmp");

        writeText("/etc/tolva/tolva.conf",
                  "[database]\nroot_directory=/srv/apps\nroot_directory=/x\n");
        EXPECT_EQ(captureStderr([&] { database.emplace(); }), warning);
        EXPECT_EQ(database->rootDirectory(), "/opt/app");

        writeText("/etc/tolva/tolva.conf", "[database]\nroot_directory=/opt/apps\n"
                                           "temp_directory=\n");
        EXPECT_EQ(captureStderr([&] { database.emplace(); }), "");
        EXPECT_EQ(database->rootDirectory(), "/opt/apps");
        EXPECT_EQ(database->tempDirectory(), "");
        EXPECT_EQ(database->versionedDirectoryPath("demo.notes", "1.2.3-1"),
                  "/opt/apps/demo.notes/1.2.3-1");

        writeText("/opt/tolva/tmp/demo.notes/bin/notes", "#!/bin/sh\n");
        EXPECT_EQ(database->createVersionedDirectory("demo.notes", "1.2.3-1",
                                                     "/opt/tolva/tmp/demo.notes"),
                  "/opt/apps/demo.notes/1.2.3-1");
        EXPECT_EQ(readText("/opt/apps/demo.notes/1.2.3-1/bin/notes"), "#!/bin/sh\n");
        EXPECT_FALSE(fs::exists("/opt/tolva/tmp/demo.notes"));
        EXPECT_EQ(errorOf([&] {
                      database->createVersionedDirectory("demo.notes", "2-1",
                                                         "/opt/tolva/tmp/demo.notes");
                  }),
                  std::make_pair(std::string("extracted package directory doesn't exist: "
                                             "/opt/tolva/tmp/demo.notes"),
                                 Common::ErrorCode::Internal));
    });
}

TEST(PackageDataFile, WrittenInItsFixedOrderAndReadBack) {
    const auto directory = fs::temp_directory_path() / ("velmor-" + std::to_string(::getpid()));
    fs::create_directories(directory);
    const PackageData extra{{"certificate.subgroup", "regular"},
                            {"certificate.id", "a1b2"},
                            {"applicationdata.setupdata", "{\"a\": 1}"}};
    Database::writePackageDataFile({"demo.notes", "Demo Org", "Notes"}, "1.2.3-1", extra,
                                   directory);
    const auto file = directory / "velmor.pkg";
    EXPECT_EQ(readText(file), "[general]\nappname=Notes\nid=demo.notes\norgname=Demo Org\n"
                              "version=1.2.3-1\n[applicationdata]\nsetupdata={\"a\": 1}\n"
                              "[certificate]\nid=a1b2\nsubgroup=regular\n");
    auto data = Database::readPackageDataFile(file);
    EXPECT_EQ(data.size(), 7u);
    EXPECT_EQ(data["general.orgname"], "Demo Org");
    EXPECT_EQ(data["applicationdata.setupdata"], "{\"a\": 1}");

    Database::writePackageDataFile({"demo.clock", "Demo Org", std::nullopt}, "2.0-1", extra,
                                   directory);
    data = Database::readPackageDataFile(file);
    EXPECT_FALSE(data.contains("general.orgname"));
    EXPECT_FALSE(data.contains("general.appname"));
    EXPECT_EQ(data["general.id"], "demo.clock");

    writeText(file, "[general]\nid=x\nversion=1\nextra=kept\n[certificate]\nsubgroup=s\n"
                    "[vendor]\nnote=also kept\n");
    EXPECT_EQ(errorOf([&] { Database::readPackageDataFile(file); }),
              std::make_pair(std::string("package doesn't contains required key: certificate.id"),
                             Common::ErrorCode::CorruptedInstalledPackage));
    writeText(file, "[general]\nid=x\n[certificate]\nsubgroup=s\n");
    EXPECT_EQ(errorOf([&] { Database::readPackageDataFile(file); }).first,
              "package doesn't contains required key: general.version");
    writeText(file, "[general]\nid=x\nversion=1\nextra=kept\n[certificate]\nsubgroup=s\nid=c\n"
                    "[vendor]\nnote=also kept\n");
    data = Database::readPackageDataFile(file);
    EXPECT_EQ(data["general.extra"], "kept");
    EXPECT_EQ(data["vendor.note"], "also kept");

    writeText(file, "[general]\nid=x\nid=y\n");
    EXPECT_EQ(errorOf([&] { Database::readPackageDataFile(file); }).first,
              "couldn't parse velmor.pkg file: " + file.string());
    fs::remove(file);
    EXPECT_EQ(errorOf([&] { Database::readPackageDataFile(file); }).first,
              "velmor.pkg doesn't exist: " + file.string());

    EXPECT_EQ(errorOf([&] {
                  Database::writePackageDataFile({"x", {}, {}}, "1", {}, directory / "missing");
              }),
              std::make_pair("couldn't create velmor.pkg file " +
                                 (directory / "missing" / "velmor.pkg").string(),
                             Common::ErrorCode::Filesystem));
    fs::remove_all(directory);
}

// Editors on some systems start a UTF-8 text with a byte-order mark; a velmor.pkg that does
// must not read as corrupted, or the repair pass deletes the package.
TEST(DatabaseFiles, ALeadingByteOrderMarkIsSkipped) {
    const auto directory = fs::temp_directory_path() / ("bom-" + std::to_string(::getpid()));
    const std::string mark = "\xEF\xBB\xBF";
    writeText(directory / "tolva.conf", mark + "[database]\nroot_directory=/srv/apps\n");
    std::optional<Database> database;
    EXPECT_EQ(captureStderr([&] { database.emplace(directory / "tolva.conf"); }), "");
    EXPECT_EQ(database->rootDirectory(), "/srv/apps");
    EXPECT_EQ(database->tempDirectory(), "/opt/tolva/tmp");

    writeText(directory / "velmor.pkg",
              mark + "[general]\nid=demo.notes\nversion=1\n[certificate]\nid=c\nsubgroup=s\n");
    EXPECT_EQ(Database::readPackageDataFile(directory / "velmor.pkg").at("general.id"),
              "demo.notes");
    fs::remove_all(directory);
}
