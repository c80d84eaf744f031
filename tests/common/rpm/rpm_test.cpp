// Reading real packages built with rpmbuild: their tags, their file lists and their payloads,
// in the sandbox, whose RPM database is at /var/lib/rpm.

#include "common/error.hpp"
#include "common/rpm/file_iterator.hpp"
#include "common/rpm/reader.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <gtest/gtest.h>
#include <map>
#include <rpm/header.h>
#include <sstream>

namespace fs = std::filesystem;
using Common::ErrorCode;
using Common::Rpm::EntryType;
using Common::Rpm::ExtractFileIterator;
using Common::Rpm::FileIterator;
using Common::Rpm::IterationResult;
using Common::Rpm::Reader;
using TestSupport::captureStderr;
using TestSupport::errorOf;

namespace {

const std::string sharedData = "one set of data, three names\n";

// Over 128 KiB, so that data moves in more than one chunk.
std::string bigData() {
    std::string data;
    for (int i = 0; data.size() < 300000; ++i)
        data += "line " + std::to_string(i) + "\n";
    return data;
}

// Every kind of file a package can hold, as `fileList` shows it; named "every-" + compressor,
// `payload` as in %_binary_payload.
TestSupport::FixturePackage everyKind(const std::string& compressor = "gzip",
                                      const std::string& payload = "w9.gzdio") {
    using namespace TestSupport;
    FixtureFile hook = file("/etc/fixture-hook", "#!/bin/sh\n", 0755),
                conf = file("/etc/fixture.conf", "key=value\n");
    hook.config = conf.config = true;
    return {"every-" + compressor,
            "2.0",
            "1",
            3,
            payload,
            {hook, conf, file("/usr/bin/fixture-suid", "#!/bin/sh\n", 04755),
             file("/usr/bin/fixture-tool", "#!/bin/sh\n", 0755),
             directory("/usr/share/fixture", 0750), file("/usr/share/fixture/a", sharedData),
             hardlink("/usr/share/fixture/b", "/usr/share/fixture/a"),
             hardlink("/usr/share/fixture/c", "/usr/share/fixture/a"),
             TestSupport::symlink("/usr/share/fixture/absolute", "/etc/fixture.conf"),
             file("/usr/share/fixture/big", bigData()),
             characterDevice("/usr/share/fixture/device"), file("/usr/share/fixture/empty", ""),
             TestSupport::symlink("/usr/share/fixture/relative", "big"),
             file("/usr/share/fixture/x", "second set\n"),
             hardlink("/usr/share/fixture/y", "/usr/share/fixture/x")}};
}

// One line per entry: type, path, target, permissions in octal, needsSignature.
std::string describe(const FileIterator::Entry& entry) {
    static const char* types[] = {"dir", "file", "symlink", "hardlink"};
    std::ostringstream line;
    line << types[static_cast<int>(entry.type)] << ' ' << entry.path.string() << " ["
         << entry.target.string() << "] " << std::oct << entry.permissions
         << (entry.needsSignature ? " sign" : "");
    return line.str();
}

std::vector<std::string> listOf(const fs::path& package) {
    std::vector<std::string> lines;
    FileIterator(package.string()).forEach([&](const FileIterator::Entry& entry) {
        lines.push_back(describe(entry));
        return IterationResult::Continue;
    });
    return lines;
}

struct Extracted {
    std::vector<std::string> lines; // describe() plus " #index"
    std::map<fs::path, std::string> data;
};

// Answers Stop for the entry numbered `stopAt` (from 1), and for every later one unless `once`.
Extracted extract(const fs::path& package, int stopAt = 0, bool once = false) {
    Extracted result;
    ExtractFileIterator(package.string()).forEach([&](const ExtractFileIterator::Entry& entry) {
        result.lines.push_back(describe(entry) + " #" + std::to_string(entry.index));
        EXPECT_EQ(entry.content.has_value(), entry.type == EntryType::RegularFile);
        if (entry.content) {
            const auto bytes = entry.content->read();
            result.data[entry.path] = std::string(bytes.begin(), bytes.end());
        }
        const int number = int(result.lines.size());
        const bool stop = stopAt > 0 && (once ? number == stopAt : number >= stopAt);
        return stop ? IterationResult::Stop : IterationResult::Continue;
    });
    return result;
}

// Walks the payload of `package` and writes the data of its file `path` to `destination`.
void writeOut(const fs::path& package, const fs::path& path, const fs::path& destination) {
    captureStderr([&] {
        ExtractFileIterator(package.string()).forEach([&](const auto& entry) {
            if (entry.path == path)
                entry.content->writeTo(destination);
            return IterationResult::Continue;
        });
    });
}

const std::vector<std::string> fileList = {
    "file /etc/fixture-hook [] 755 sign",
    "file /etc/fixture.conf [] 644",
    "file /usr/bin/fixture-suid [] 755 sign",
    "file /usr/bin/fixture-tool [] 755 sign",
    "dir /usr/share/fixture [] 750 sign",
    "hardlink /usr/share/fixture/a [] 0 sign",
    "symlink /usr/share/fixture/absolute [/etc/fixture.conf] 0 sign",
    "hardlink /usr/share/fixture/b [] 0 sign",
    "file /usr/share/fixture/big [] 644 sign",
    "file /usr/share/fixture/c [] 644 sign",
    "file /usr/share/fixture/empty [] 644 sign",
    "symlink /usr/share/fixture/relative [big] 0 sign",
    "hardlink /usr/share/fixture/x [] 0 sign",
    "file /usr/share/fixture/y [] 644 sign",
};

// The payload keeps hard-link sets at its end; the set comes out data-carrying name first.
const std::vector<std::string> payloadOrder = {
    "file /etc/fixture-hook [] 755 sign #0",
    "file /etc/fixture.conf [] 644 #1",
    "file /usr/bin/fixture-suid [] 755 sign #2",
    "file /usr/bin/fixture-tool [] 755 sign #3",
    "dir /usr/share/fixture [] 750 sign #4",
    "symlink /usr/share/fixture/absolute [/etc/fixture.conf] 777 sign #6",
    "file /usr/share/fixture/big [] 644 sign #8",
    "file /usr/share/fixture/empty [] 644 sign #11",
    "symlink /usr/share/fixture/relative [big] 777 sign #12",
    "file /usr/share/fixture/a [] 644 sign #5",
    "hardlink /usr/share/fixture/b [/usr/share/fixture/a] 644 #7",
    "hardlink /usr/share/fixture/c [/usr/share/fixture/a] 644 #9",
    "file /usr/share/fixture/x [] 644 sign #13",
    "hardlink /usr/share/fixture/y [/usr/share/fixture/x] 644 #14",
};

const std::string deviceWarning = "WARN: unexpected entry type in rpm package\n";

} // namespace

TEST(RpmReader, ReadsPackagesLeavingNoRpmDatabaseAndWarnsWithoutAConfiguration) {
    const auto package = TestSupport::buildPackage(everyKind("xz", "w6.xzdio"));
    SANDBOXED([&] {
        fs::remove_all("/var/lib/rpm");
        const Reader reader(package.string());
        EXPECT_EQ(reader.stringTag(RPMTAG_NAME), "every-xz");
        EXPECT_EQ(errorOf([&] { reader.stringTag(RPMTAG_URL); }, ErrorCode::BadPackage),
                  "couldn't retrieve rpm tag from package (type=1020)");
        EXPECT_EQ(reader.stringTagOr(RPMTAG_URL, "none"), "none");
        EXPECT_EQ(reader.stringTagOr(RPMTAG_PAYLOADCOMPRESSOR, "gzip"), "xz");

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
    // Without a readable RPM configuration a reader warns, and goes on.
    SANDBOXED([&] {
        fs::rename("/usr/lib/rpm/rpmrc", "/usr/lib/rpm/rpmrc.away");
        std::string name;
        const auto log =
            captureStderr([&] { name = Reader(package.string()).stringTag(RPMTAG_NAME); });
        EXPECT_NE(log.find("WARN: cannot read RPM configuration files\n"), std::string::npos)
            << log;
        EXPECT_EQ(name, "every-xz");
    });
}

TEST(RpmFileIterator, FileListAndPayloadOfEveryKindInEachCompressionAndStoppedEarly) {
    const std::map<std::string, std::string> payloads = {
        {"gzip", "w9.gzdio"}, {"xz", "w6.xzdio"}, {"zstd", "w3.zstdio"}};
    std::map<std::string, fs::path> packages;
    for (const auto& [name, payload] : payloads)
        packages[name] = TestSupport::buildPackage(everyKind(name, payload));
    SANDBOXED([&] {
        std::vector<std::string> lines;
        EXPECT_EQ(captureStderr([&] { lines = listOf(packages.at("gzip")); }), deviceWarning);
        EXPECT_EQ(lines, fileList);
        for (const auto& [name, package] : packages) {
            SCOPED_TRACE(name);
            Extracted all;
            EXPECT_EQ(captureStderr([&] { all = extract(package); }), deviceWarning);
            EXPECT_EQ(all.lines, payloadOrder);
            EXPECT_TRUE(all.data.at("/usr/share/fixture/big") == bigData());
            EXPECT_EQ(all.data.at("/usr/share/fixture/x"), "second set\n");
        }

        // A walk stops early, but not before the further names of a data-carrying file.
        const auto& package = packages.at("gzip");
        const auto first = [](std::size_t count) {
            return std::vector<std::string>(payloadOrder.begin(), payloadOrder.begin() + count);
        };
        captureStderr([&] {
            EXPECT_EQ(extract(package, 1).lines, first(1));
            // Stop asked by the data-carrying file: its further names are still reported.
            EXPECT_EQ(extract(package, 10).lines, first(12));
            // Within a set the last answer decides.
            EXPECT_EQ(extract(package, 10, true).lines, first(14));
        });
    });
    // A configuration that asks for configuration files to be signed too.
    SANDBOXED([&] {
        TestSupport::writeFile("/etc/rpm/macros.imasign", "%_ima_sign_config_files 1\n");
        std::vector<std::string> lines;
        captureStderr([&] { lines = listOf(packages.at("gzip")); });
        EXPECT_EQ(lines.at(1), "file /etc/fixture.conf [] 644 sign");
    });
}

TEST(RpmFileIterator, WritesFilesToDiskAndSaysWhereItCannot) {
    const auto package = TestSupport::buildPackage(everyKind());
    SANDBOXED([&] {
        const std::pair<const char*, std::string> files[] = {
            {"big", bigData()}, {"empty", ""}, {"a", sharedData}};
        for (const auto& [name, data] : files) {
            TestSupport::writeFile("/tmp/out", "old content that is longer than the new one");
            writeOut(package, fs::path("/usr/share/fixture") / name, "/tmp/out");
            EXPECT_TRUE(TestSupport::readFile("/tmp/out") == data) << name;
        }

        // A package cut inside the big file's data: the header still reads, the data does not.
        fs::copy_file(package, "/tmp/cut.rpm");
        fs::resize_file("/tmp/cut.rpm", fs::file_size(package) / 2);
        // A file system that fills up in the middle of the big file, and is then too full for
        // the last bytes of a small one, which are written when the file is closed.
        TestSupport::mountFresh("tmpfs", "/tmp/full", "size=64k");
        const std::tuple<fs::path, const char*, const char*, ErrorCode, std::string> failures[] = {
            {package, "a", "/nowhere/a", ErrorCode::Filesystem,
             "couldn't open file for writing rpm content: /nowhere/a"},
            {"/tmp/cut.rpm", "big", "/tmp/big", ErrorCode::Internal,
             "couldn't read content from rpm package"},
            {package, "big", "/tmp/full/big", ErrorCode::Filesystem,
             "couldn't write rpm package content to /tmp/full/big"},
            {package, "a", "/tmp/full/a", ErrorCode::Filesystem,
             "couldn't write rpm package content to /tmp/full/a"},
        };
        for (const auto& [from, name, destination, code, message] : failures)
            EXPECT_EQ(
                errorOf([&] { writeOut(from, fs::path("/usr/share/fixture") / name, destination); },
                        code),
                message);
    });
}
