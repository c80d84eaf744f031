// Mapping runs in the sandbox, into the real system directories.

#include "core/tolva/mappings.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <algorithm>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace Core::Tolva;
using namespace TestSupport;

namespace {

bool isLinkTo(const fs::path& path, const fs::path& target) {
    return fs::is_symlink(fs::symlink_status(path)) && fs::read_symlink(path) == target;
}

// A copy mapping: a regular file with the contents of `source` and the marker naming it.
void expectMarkedCopy(const fs::path& mappingPath, const fs::path& source) {
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(mappingPath))) << mappingPath;
    EXPECT_EQ(readFile(mappingPath), readFile(source)) << mappingPath;
    EXPECT_EQ(attribute(mappingPath, mappingMarkerAttribute), source.string()) << mappingPath;
}

// What a mapping run that must fail as a whole logs.
std::string failedRun(const fs::path& version, const std::string& id) {
    std::string message;
    const auto log = captureStderr([&] {
        message = errorOf([&] { createMappings(version, {id, {}, {}}); });
    });
    EXPECT_EQ(message, "couldn't create mappings");
    return log;
}

} // namespace

// An empty name would make /usr/share/common/ itself, or the organisation's directory, the
// package's own.
TEST(MappingTable, AnEmptyNameAddsNoOrganisationRow) {
    const auto rows = [](const PackageNames& names) { return mappingTable(names, false).size(); };
    const auto common = rows({"demo", {}, {}});
    EXPECT_EQ(rows({"demo", "", "notes"}), common);
    EXPECT_EQ(rows({"demo", "kelvo", ""}), common + 1);
}

TEST(CreateMappings, MapsEveryKindIntoTheSystemDirectories) {
    SANDBOXED([] {
        const fs::path v = "/opt/app/demo.notes/1.0-1";
        for (const char* file :
             {"bin/demo-notes", "manifest/demo.notes.desktop", "data/qml/main.qml",
              "data/a \"b\"\\c.qml", "icons/hicolor/86x86/apps/demo.notes.png",
              "3rdparty/plugins.d/p.so", "vendor-common/shared.conf", "common/app.conf",
              "unmapped/file"})
            writeFile(v / file, file);
        fs::create_directories(v / "data/empty");
        writeFile(v / "3rdparty/libfoo.so.1", std::string("\177ELF\0foo", 8));
        putAttribute(v / "3rdparty/libfoo.so.1", "security.appid", "demo.notes");
        fs::create_symlink("libfoo.so.1", v / "3rdparty/libfoo.so");
        fs::create_symlink("./libfoo.so.1", v / "3rdparty/libdot.so");
        fs::create_symlink(v / "3rdparty/libfoo.so.1", v / "3rdparty/libabs.so");
        fs::create_symlink("plugins.d", v / "3rdparty/plugins");
        EXPECT_EQ(captureStderr([&] { createMappings(v, {"demo.notes", "kelvo", "notes"}); }), "");

        // That every installed file reaches its place through its row is the migration runs'
        // check; here the organisation's rows.
        EXPECT_TRUE(isLinkTo("/usr/share/common/kelvo/notes/app.conf", v / "common/app.conf"));

        // Copies keep the package file's attributes and carry the marker. A dot- or slash-link
        // becomes a marked copy of what it points to.
        const fs::path lib = "/usr/lib/3rdparty/demo.notes";
        for (const char* name : {"libfoo.so.1", "libdot.so", "libabs.so", "plugins.d/p.so"})
            expectMarkedCopy(lib / name, v / "3rdparty" / name);
        EXPECT_EQ(attribute(lib / "libabs.so", "security.appid"), "demo.notes");
        for (const fs::path unmapped : {fs::path("/usr/share/demo.notes/empty"), lib / "plugins",
                                        fs::path("/usr/lib64/3rdparty/demo.notes")})
            EXPECT_FALSE(present(unmapped)) << unmapped;
        expectMarkedCopy("/usr/share/common/kelvo/shared.conf", v / "vendor-common/shared.conf");

        // Every mapping is listed once, as its plain path, the odd name too.
        auto listed = lines(readFile(v / "symlink.list"));
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(std::unique(listed.begin(), listed.end()) - listed.begin(), 12);
        for (const auto& path : listed)
            EXPECT_TRUE(isMapping(path)) << path;

        // On request the /usr/lib/ rows get /usr/lib64/ twins, listed after the other rows.
        const fs::path lib64 = "/opt/app/demo.lib/2-1";
        writeFile(lib64 / "connman/plugin/vpn.so", "vpn");
        writeFile(lib64 / "libexec/helper", "helper");
        EXPECT_EQ(captureStderr([&] { createMappings(lib64, {"demo.lib", {}, {}}, true); }), "");
        EXPECT_EQ(lines(readFile(lib64 / "symlink.list")),
                  (std::vector<std::string>{"/usr/lib/connman/plugins-vpn/vpn.so",
                                            "/usr/libexec/demo.lib/helper",
                                            "/usr/lib64/connman/plugins-vpn/vpn.so"}));
        expectMarkedCopy("/usr/lib64/connman/plugins-vpn/vpn.so", lib64 / "connman/plugin/vpn.so");
    });
}

TEST(CreateMappings, ReplacesLeftoverMappingsButNeverASystemFile) {
    SANDBOXED([] {
        const fs::path v = "/opt/app/demo.notes/2.0-1";
        for (const char* file : {"bin/demo-notes", "manifest/demo.notes.desktop",
                                 "3rdparty/libfoo.so.1", "data/a", "connman/plugin/vpn.so"})
            writeFile(v / file, "new");
        // What an earlier install left behind: links (one of them dangling) and marked copies,
        // one of them in the lib64 directory that this install does not map to.
        writeFile("/opt/app/demo.notes/1.0-1/bin/demo-notes", "old");
        fs::create_symlink("/opt/app/demo.notes/1.0-1/bin/demo-notes", "/usr/bin/demo-notes");
        fs::create_directories("/usr/share/applications");
        fs::create_symlink("/opt/app/demo.notes/0.9-1/manifest/demo.notes.desktop",
                           "/usr/share/applications/demo.notes.desktop");
        for (const fs::path lib :
             {"/usr/lib/3rdparty/demo.notes", "/usr/lib64/3rdparty/demo.notes"}) {
            writeFile(lib / "libfoo.so.1", "old");
            putAttribute(lib / "libfoo.so.1", mappingMarkerAttribute, "/opt/app/demo.notes/1.0-1");
        }
        writeFile("/usr/lib64/3rdparty/demo.notes/unrelated", "system");
        // A dangling link where no mapping is made counts as nothing there.
        fs::create_directories("/usr/lib64/connman/plugins-vpn");
        fs::create_symlink("/nowhere", "/usr/lib64/connman/plugins-vpn/vpn.so");

        EXPECT_EQ(captureStderr([&] { createMappings(v, {"demo.notes", {}, {}}); }), "");
        EXPECT_TRUE(isLinkTo("/usr/bin/demo-notes", v / "bin/demo-notes"));
        EXPECT_TRUE(isLinkTo("/usr/share/applications/demo.notes.desktop",
                             v / "manifest/demo.notes.desktop"));
        expectMarkedCopy("/usr/lib/3rdparty/demo.notes/libfoo.so.1", v / "3rdparty/libfoo.so.1");
        EXPECT_FALSE(present("/usr/lib64/3rdparty/demo.notes/libfoo.so.1"));
        EXPECT_EQ(readFile("/usr/lib64/3rdparty/demo.notes/unrelated"), "system");
        EXPECT_TRUE(isLinkTo("/usr/lib64/connman/plugins-vpn/vpn.so", "/nowhere"));
        EXPECT_EQ(lines(readFile(v / "symlink.list")),
                  (std::vector<std::string>{
                      "/usr/bin/demo-notes", "/usr/lib/connman/plugins-vpn/vpn.so",
                      "/usr/lib/3rdparty/demo.notes/libfoo.so.1", "/usr/share/demo.notes/a",
                      "/usr/share/applications/demo.notes.desktop"}));

        // A system file without the marker stops the run, at a lib64 place that is not mapped
        // too. That a stopped run takes back what it made is the next test's check.
        const fs::path clash = "/opt/app/demo.clash/1-1";
        writeFile(clash / "3rdparty/libz.so", "package");
        writeFile("/usr/lib64/3rdparty/demo.clash/libz.so", "system");
        putAttribute("/usr/lib64/3rdparty/demo.clash/libz.so", "user.other", "x");
        EXPECT_EQ(failedRun(clash, "demo.clash"),
                  "ERROR: attempt to override system file with package mapping: "
                  "/usr/lib64/3rdparty/demo.clash/libz.so\n"
                  "INFO: cleaning up created mappings\n");
        EXPECT_EQ(readFile("/usr/lib64/3rdparty/demo.clash/libz.so"), "system");

        // A directory on the way that is a link would take the mappings out of their place:
        // nothing is made through it.
        const fs::path away = "/opt/app/demo.away/1-1";
        writeFile(away / "data/job", "package");
        fs::create_directories("/etc/away");
        fs::create_symlink("/etc/away", "/usr/share/demo.away");
        EXPECT_EQ(failedRun(away, "demo.away"),
                  "ERROR: attempt to override system file with package mapping: "
                  "/usr/share/demo.away/job\n"
                  "INFO: cleaning up created mappings\n");
        EXPECT_TRUE(fs::is_empty("/etc/away"));
        // The platform's own directories are its layout, links or not.
        fs::create_directories("/usr/share/icons/moved");
        fs::create_directories("/usr/share/icons/hicolor/86x86");
        fs::create_directory_symlink("/usr/share/icons/moved",
                                     "/usr/share/icons/hicolor/86x86/apps");
        writeFile(away / "icons/hicolor/86x86/apps/away.png", "icon");
        fs::remove_all(away / "data");
        createMappings(away, {"demo.away", {}, {}});
        EXPECT_TRUE(isLinkTo("/usr/share/icons/moved/away.png",
                             away / "icons/hicolor/86x86/apps/away.png"));

        // A leftover that cannot be removed stops the run as well.
        const fs::path stuck = "/opt/app/demo.stuck/1-1";
        writeFile(stuck / "data/x", "package");
        mountFresh("tmpfs", "/usr/share/demo.stuck");
        fs::create_symlink("/opt/app/demo.stuck/0-1/data/x", "/usr/share/demo.stuck/x");
        makeAppendOnly("/usr/share/demo.stuck");
        EXPECT_EQ(failedRun(stuck, "demo.stuck"),
                  "ERROR: " + removalFailure("/usr/share/demo.stuck/x") + "\n" +
                      "ERROR: couldn't clean up existing mapping: /usr/share/demo.stuck/x\n" +
                      "INFO: cleaning up created mappings\n");
        EXPECT_TRUE(isLinkTo("/usr/share/demo.stuck/x", "/opt/app/demo.stuck/0-1/data/x"));
    });
}

TEST(CreateMappings, AFailureInTheMiddleRemovesEveryMappingMadeSoFar) {
    SANDBOXED([] {
        const fs::path v = "/opt/app/demo.notes/1.0-1";
        for (const char* file :
             {"bin/tool", "data/locked/file", "data/free/file", "connman/config/sub/vpn.conf"})
            writeFile(v / file, "data");
        // The package's data directory does not let its mappings go; the VPN configuration
        // directory has room for the copy but not for its marker, and does not let it go.
        mountFresh("tmpfs", "/usr/share/demo.notes");
        makeAppendOnly("/usr/share/demo.notes/locked");
        mountFresh("tmpfs", "/etc/connman/vpn-plugin", "nr_inodes=3");
        makeAppendOnly("/etc/connman/vpn-plugin/sub");

        const std::string failed = "/etc/connman/vpn-plugin/sub/.vpn.conf.tolva-mapping";
        const std::string locked = "/usr/share/demo.notes/locked/file";
        const std::string copy = "\"" + (v / "connman/config/sub/vpn.conf").native() + "\"";
        const auto log = lines(failedRun(v, "demo.notes"));
        // Tried only now: each removal is one that the run could not make.
        const std::string failedCause = removalFailure(failed),
                          lockedCause = removalFailure(locked);
        EXPECT_EQ(
            log,
            (std::vector<std::string>{
                "WARN: couldn't remove prepared mapping: \"" + failed + "\": " + failedCause,
                "ERROR: couldn't create mapping " + copy +
                    " -> \"/etc/connman/vpn-plugin/sub/vpn.conf\"",
                "ERROR: couldn't attach user.tolva.mapping.target extended attribute to " + failed,
                "INFO: cleaning up created mappings",
                "WARN: couldn't clean up created mapping: \"" + locked + "\"",
                "WARN: " + lockedCause}));
        EXPECT_FALSE(present("/usr/bin/tool"));
        EXPECT_FALSE(present("/usr/share/demo.notes/free/file"));
        EXPECT_FALSE(present(v / "symlink.list"));
    });
}

TEST(CreateMappings, AFailedListRemovesTheMappingsAndKeepsTheOldList) {
    SANDBOXED([] {
        // The version directory lies on a file system that the old list and a filler fill;
        // the new list would need more than the old list's page.
        mountFresh("tmpfs", "/opt/app/demo.full", "size=8k");
        const fs::path v = "/opt/app/demo.full/1-1";
        writeFile(v / "symlink.list", "/usr/bin/old\n");
        writeFile(v / "filler", std::string(4096, 'f'));
        const std::string name(120, 't');
        for (int i = 0; i < 40; ++i)
            writeFile(v / "bin" / (name + std::to_string(i)), "");
        EXPECT_EQ(failedRun(v, "demo.full"), "ERROR: couldn't write lines to mapping list\n"
                                             "INFO: cleaning up created mappings\n");
        EXPECT_FALSE(present("/usr/bin/" + name + "0"));
        EXPECT_EQ(readFile(v / "symlink.list"), "/usr/bin/old\n");
        EXPECT_EQ(entries(v), (std::set<std::string>{"bin", "filler", "symlink.list"}));

        const fs::path other = "/opt/app/demo.dir/1-1";
        writeFile(other / "bin/other", "other");
        fs::create_directories(other / "symlink.list/inside");
        EXPECT_EQ(failedRun(other, "demo.dir"), "ERROR: couldn't open file to create mapping list\n"
                                                "INFO: cleaning up created mappings\n");
        EXPECT_FALSE(present("/usr/bin/other"));
        EXPECT_TRUE(fs::is_directory(other / "symlink.list/inside"));
    });
}

TEST(CreateMappings, ALinkThatCannotBeCopiedBecomesAMarkedCopy) {
    SANDBOXED([] {
        // A file system with 1 KiB blocks takes no link target longer than that.
        const auto mkfs =
            runProgram({"mkfs.ext2", "-q", "-F", "-b", "1024", "/tmp/ext2.img", "2048"});
        ASSERT_EQ(mkfs.status, 0) << mkfs.err;
        const fs::path lib = "/usr/lib/3rdparty/demo.long";
        fs::create_directories(lib);
        const auto mount = runProgram({"mount", "-o", "loop", "/tmp/ext2.img", lib.string()});
        ASSERT_EQ(mount.status, 0) << mount.err;

        const fs::path v = "/opt/app/demo.long/1-1";
        writeFile(v / "3rdparty/libfoo.so.1", "foo");
        fs::create_directories(v / "3rdparty/sub");
        std::string target;
        while (target.size() <= 1024)
            target += "sub/../";
        fs::create_symlink(target + "libfoo.so.1", v / "3rdparty/libfoo.so");

        const auto logged = lines(captureStderr([&] { createMappings(v, {"demo.long", {}, {}}); }));
        ASSERT_EQ(logged.size(), 2u);
        EXPECT_TRUE(logged[0].starts_with(
            "WARN: Coulnd't create copy of symlink during mappings generation: \"" + v.string() +
            "/3rdparty/libfoo.so\": "));
        EXPECT_NE(logged[0].find("File name too long"), std::string::npos) << logged[0];
        EXPECT_EQ(logged[1], "INFO: Trying to copy content of the symlink target");
        expectMarkedCopy(lib / "libfoo.so", v / "3rdparty/libfoo.so");
    });
}
