#include "core/tolva/list_file.hpp"
#include "core/tolva/mappings.hpp"
#include "tests/support/file_checks.hpp"
#include "tests/support/sandboxed_test.hpp"

#include <algorithm>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace Core::Tolva;
using namespace TestSupport;
using enum MappingKind;

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

std::vector<std::string> sorted(std::vector<std::string> values) {
    std::sort(values.begin(), values.end());
    return values;
}

bool isLinkTo(const fs::path& path, const fs::path& target) {
    return fs::is_symlink(fs::symlink_status(path)) && fs::read_symlink(path) == target;
}

// A copy mapping: a regular file with the contents of `source` and the marker naming it.
void expectMarkedCopy(const fs::path& mappingPath, const fs::path& source) {
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(mappingPath))) << mappingPath;
    EXPECT_EQ(readFile(mappingPath), readFile(source)) << mappingPath;
    EXPECT_EQ(attribute(mappingPath, mappingMarkerAttribute), source.string()) << mappingPath;
}

bool absent(const fs::path& path) {
    return !fs::exists(fs::symlink_status(path));
}

void makeAppendOnly(const fs::path& directory) {
    fs::create_directories(directory);
    const auto chattr = runProgram({"chattr", "+a", directory.string()});
    if (chattr.status != 0)
        throw std::runtime_error("chattr +a " + directory.string() + ": " + chattr.err);
}

} // namespace

TEST(IsMapping, LinksAndMarkedRegularFilesOnly) {
    SANDBOXED([] {
        const fs::path dir = "/usr/share/applications";
        writeFile(dir / "marked.desktop", "[Desktop Entry]\n");
        putAttribute(dir / "marked.desktop", mappingMarkerAttribute, "/opt/app/demo/1-1/manifest");
        writeFile(dir / "empty-marker.desktop", "");
        putAttribute(dir / "empty-marker.desktop", mappingMarkerAttribute, "");
        writeFile(dir / "system.desktop", "[Desktop Entry]\n");
        putAttribute(dir / "system.desktop", "user.other", "x");
        fs::create_symlink(dir / "system.desktop", dir / "link.desktop");
        fs::create_symlink("/nowhere", dir / "dangling.desktop");
        fs::create_symlink("/usr/share", dir / "dir-link");
        fs::create_directory(dir / "marked-dir");
        putAttribute(dir / "marked-dir", mappingMarkerAttribute, "/opt/app/demo");

        EXPECT_TRUE(isMapping(dir / "marked.desktop"));
        EXPECT_TRUE(isMapping(dir / "empty-marker.desktop"));
        EXPECT_TRUE(isMapping(dir / "link.desktop"));
        EXPECT_TRUE(isMapping(dir / "dangling.desktop"));
        EXPECT_TRUE(isMapping(dir / "dir-link"));
        EXPECT_FALSE(isMapping(dir / "system.desktop"));
        EXPECT_FALSE(isMapping(dir / "marked-dir"));
        EXPECT_FALSE(isMapping(dir / "missing.desktop"));
        EXPECT_FALSE(isMapping(dir / "system.desktop" / "below"));
        EXPECT_FALSE(isMapping("/dev/null"));
    });
}

TEST(WriteListFile, OnePlainPathPerLineInPlaceOfTheOldList) {
    SANDBOXED([] {
        const fs::path list = "/opt/list/symlink.list";
        writeFile(list, "an older list that is longer than the new one\n");
        writeListFile(list, {"/usr/bin/tool", R"(/usr/share/a "b"\c d)", "relative"}, "open",
                      "write");
        EXPECT_EQ(readFile(list), "/usr/bin/tool\n/usr/share/a \"b\"\\c d\nrelative\n");
        writeListFile(list, {}, "open", "write");
        EXPECT_EQ(readFile(list), "");
        EXPECT_EQ(errorOf([] { writeListFile("/opt/missing/list", {"/x"}, "open failed", "w"); }),
                  "open failed");
    });
}

TEST(MappingTable, RowsFollowTheNamesAndTheLib64Flag) {
    const auto plain = mappingTable({"demo", std::nullopt, std::nullopt}, false);
    ASSERT_EQ(plain.size(), 19u);
    EXPECT_EQ(plain[3], (MappingRule{"/usr/lib/3rdparty/demo/", "3rdparty", Copy}));
    EXPECT_EQ(plain[15], (MappingRule{"/usr/libexec/demo/", "libexec", Symlink}));
    std::vector<std::string> copied;
    for (const auto& rule : plain)
        if (rule.kind == Copy)
            copied.push_back(rule.packageSubdir);
    EXPECT_EQ(copied, (std::vector<std::string>{"connman/plugin", "3rdparty", "ventoral-vpn",
                                                "connman/config"}));

    const MappingRule vendorCommon{"/usr/share/common/kelvo/", "vendor-common", Copy};
    const MappingRule common{"/usr/share/common/kelvo/notes/", "common", Symlink};
    EXPECT_EQ(mappingTable({"demo", "", "notes"}, false), plain);
    EXPECT_EQ(mappingTable({"demo", std::nullopt, "notes"}, false), plain);
    for (const auto& appName : {std::optional<std::string>{}, std::optional<std::string>{""}}) {
        const auto withOrg = mappingTable({"demo", "kelvo", appName}, false);
        ASSERT_EQ(withOrg.size(), 20u);
        EXPECT_EQ(withOrg.back(), vendorCommon);
    }
    const auto both = mappingTable({"demo", "kelvo", "notes"}, false);
    ASSERT_EQ(both.size(), 21u);
    EXPECT_EQ(both[19], vendorCommon);
    EXPECT_EQ(both[20], common);
    EXPECT_TRUE(std::equal(plain.begin(), plain.end(), both.begin()));

    // The lib64 twins follow, in row order, for the /usr/lib/ rows alone (not /usr/libexec/).
    const auto lib64 = mappingTable({"demo", "kelvo", "notes"}, true);
    ASSERT_EQ(lib64.size(), 24u);
    EXPECT_TRUE(std::equal(both.begin(), both.end(), lib64.begin()));
    EXPECT_EQ(lib64[21], (MappingRule{"/usr/lib64/connman/plugins-vpn/", "connman/plugin", Copy}));
    EXPECT_EQ(lib64[22], (MappingRule{"/usr/lib64/qt5/qml/", "qt5/qml", Symlink}));
    EXPECT_EQ(lib64[23], (MappingRule{"/usr/lib64/3rdparty/demo/", "3rdparty", Copy}));
    EXPECT_EQ(mappingTable({"demo", std::nullopt, std::nullopt}, true).size(), 22u);

    // Read the other way, the table places installed files into the package tree.
    const auto rules = remapRules(both);
    EXPECT_EQ(Common::remapPath("/usr/share/applications/demo.desktop", rules),
              fs::path("manifest/demo.desktop"));
    EXPECT_EQ(Common::remapPath("/usr/lib/3rdparty/demo/libfoo.so.1", rules),
              fs::path("3rdparty/libfoo.so.1"));
    // The organisation's directory comes first and takes the application's files too.
    EXPECT_EQ(Common::remapPath("/usr/share/common/kelvo/notes/app.conf", rules),
              fs::path("vendor-common/notes/app.conf"));
}

namespace {

const fs::path demoVersion = "/opt/app/demo.notes/1.0-1";
const PackageNames demoNames{"demo.notes", "kelvo", "notes"};

// A package version that uses every kind of mapping.
void makeDemoPackage() {
    const fs::path& v = demoVersion;
    writeFile(v / "bin/demo-notes", "#!/bin/sh\n");
    writeFile(v / "manifest/demo.notes.desktop", "[Desktop Entry]\n");
    writeFile(v / "data/qml/main.qml", "Item {}\n");
    fs::create_directories(v / "data/empty");
    writeFile(v / "icons/hicolor/86x86/apps/demo.notes.png", "png");
    writeFile(v / "3rdparty/libfoo.so.1", std::string("\177ELF\0foo", 8));
    putAttribute(v / "3rdparty/libfoo.so.1", "security.appid", "demo.notes");
    putAttribute(v / "3rdparty/libfoo.so.1", "user.TA.shdr", std::string("\0\1", 2));
    fs::create_symlink("libfoo.so.1", v / "3rdparty/libfoo.so");
    fs::create_symlink("./libfoo.so.1", v / "3rdparty/libdot.so");
    fs::create_symlink(v / "3rdparty/libfoo.so.1", v / "3rdparty/libabs.so");
    writeFile(v / "3rdparty/plugins.d/p.so", "plugin");
    fs::create_symlink("plugins.d", v / "3rdparty/plugins");
    writeFile(v / "vendor-common/shared.conf", "shared");
    writeFile(v / "common/app.conf", "app");
    writeFile(v / "unmapped/file", "stays inside");
}

} // namespace

TEST(CreateMappings, MapsEveryKindIntoTheSystemDirectories) {
    SANDBOXED([] {
        makeDemoPackage();
        const fs::path& v = demoVersion;
        EXPECT_EQ(captureStderr([] { createMappings(demoVersion, demoNames); }), "");

        EXPECT_TRUE(isLinkTo("/usr/bin/demo-notes", v / "bin/demo-notes"));
        EXPECT_TRUE(isLinkTo("/usr/share/applications/demo.notes.desktop",
                             v / "manifest/demo.notes.desktop"));
        EXPECT_TRUE(isLinkTo("/usr/share/demo.notes/qml/main.qml", v / "data/qml/main.qml"));
        EXPECT_TRUE(absent("/usr/share/demo.notes/empty"));
        EXPECT_TRUE(isLinkTo("/usr/share/icons/hicolor/86x86/apps/demo.notes.png",
                             v / "icons/hicolor/86x86/apps/demo.notes.png"));
        EXPECT_TRUE(absent("/usr/share/icons/hicolor/172x172/apps/demo.notes.png"));
        EXPECT_EQ(attribute("/usr/bin/demo-notes", mappingMarkerAttribute), std::nullopt);

        // Copies keep the package file's attributes and carry the marker.
        const fs::path lib = "/usr/lib/3rdparty/demo.notes";
        expectMarkedCopy(lib / "libfoo.so.1", v / "3rdparty/libfoo.so.1");
        EXPECT_EQ(attribute(lib / "libfoo.so.1", "security.appid"), "demo.notes");
        EXPECT_EQ(attribute(lib / "libfoo.so.1", "user.TA.shdr"), std::string("\0\1", 2));
        // A library's version link stays a link; a dot- or slash-link becomes a marked copy of
        // what it points to.
        EXPECT_TRUE(isLinkTo(lib / "libfoo.so", "libfoo.so.1"));
        EXPECT_EQ(attribute(lib / "libfoo.so", mappingMarkerAttribute), std::nullopt);
        expectMarkedCopy(lib / "libdot.so", v / "3rdparty/libdot.so");
        expectMarkedCopy(lib / "libabs.so", v / "3rdparty/libabs.so");
        EXPECT_EQ(attribute(lib / "libabs.so", "security.appid"), "demo.notes");
        expectMarkedCopy(lib / "plugins.d/p.so", v / "3rdparty/plugins.d/p.so");
        EXPECT_TRUE(absent(lib / "plugins"));
        EXPECT_TRUE(absent("/usr/lib64/3rdparty/demo.notes"));

        expectMarkedCopy("/usr/share/common/kelvo/shared.conf", v / "vendor-common/shared.conf");
        EXPECT_TRUE(isLinkTo("/usr/share/common/kelvo/notes/app.conf", v / "common/app.conf"));

        const auto listed = lines(readFile(v / "symlink.list"));
        EXPECT_EQ(sorted(listed),
                  sorted({"/usr/bin/demo-notes", (lib / "libfoo.so.1").string(),
                          (lib / "libfoo.so").string(), (lib / "libdot.so").string(),
                          (lib / "libabs.so").string(), (lib / "plugins.d/p.so").string(),
                          "/usr/share/demo.notes/qml/main.qml",
                          "/usr/share/applications/demo.notes.desktop",
                          "/usr/share/icons/hicolor/86x86/apps/demo.notes.png",
                          "/usr/share/common/kelvo/shared.conf",
                          "/usr/share/common/kelvo/notes/app.conf"}));
        ASSERT_FALSE(listed.empty());
        EXPECT_EQ(listed.front(), "/usr/bin/demo-notes");
        EXPECT_EQ(listed.back(), "/usr/share/common/kelvo/notes/app.conf");
        for (const auto& path : listed)
            EXPECT_TRUE(isMapping(path)) << path;
    });
}

TEST(CreateMappings, Lib64RowsOnRequest) {
    SANDBOXED([] {
        const fs::path v = "/opt/app/demo.lib/2-1";
        writeFile(v / "connman/plugin/vpn.so", "vpn");
        writeFile(v / "3rdparty/libx.so", "x");
        writeFile(v / "libexec/helper", "helper");
        EXPECT_EQ(captureStderr([&] { createMappings(v, {"demo.lib", {}, {}}, true); }), "");
        EXPECT_EQ(lines(readFile(v / "symlink.list")),
                  (std::vector<std::string>{
                      "/usr/lib/connman/plugins-vpn/vpn.so", "/usr/lib/3rdparty/demo.lib/libx.so",
                      "/usr/libexec/demo.lib/helper", "/usr/lib64/connman/plugins-vpn/vpn.so",
                      "/usr/lib64/3rdparty/demo.lib/libx.so"}));
        expectMarkedCopy("/usr/lib64/connman/plugins-vpn/vpn.so", v / "connman/plugin/vpn.so");
        expectMarkedCopy("/usr/lib64/3rdparty/demo.lib/libx.so", v / "3rdparty/libx.so");
        EXPECT_TRUE(isLinkTo("/usr/libexec/demo.lib/helper", v / "libexec/helper"));
        EXPECT_TRUE(absent("/usr/lib64exec"));
    });
}

TEST(CreateMappings, ReplacesLeftoverMappingsButNeverASystemFile) {
    SANDBOXED([] {
        const fs::path v = "/opt/app/demo.notes/2.0-1";
        writeFile(v / "bin/demo-notes", "new");
        writeFile(v / "manifest/demo.notes.desktop", "new");
        writeFile(v / "3rdparty/libfoo.so.1", "new");
        writeFile(v / "data/a", "new");
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

        EXPECT_EQ(captureStderr([&] { createMappings(v, {"demo.notes", {}, {}}); }), "");
        EXPECT_TRUE(isLinkTo("/usr/bin/demo-notes", v / "bin/demo-notes"));
        EXPECT_TRUE(isLinkTo("/usr/share/applications/demo.notes.desktop",
                             v / "manifest/demo.notes.desktop"));
        expectMarkedCopy("/usr/lib/3rdparty/demo.notes/libfoo.so.1", v / "3rdparty/libfoo.so.1");
        EXPECT_TRUE(absent("/usr/lib64/3rdparty/demo.notes/libfoo.so.1"));
        EXPECT_EQ(readFile("/usr/lib64/3rdparty/demo.notes/unrelated"), "system");
        EXPECT_EQ(lines(readFile(v / "symlink.list")),
                  (std::vector<std::string>{
                      "/usr/bin/demo-notes", "/usr/lib/3rdparty/demo.notes/libfoo.so.1",
                      "/usr/share/demo.notes/a", "/usr/share/applications/demo.notes.desktop"}));

        // A system file without the marker stops the run; what was made before it goes again.
        const fs::path clash = "/opt/app/demo.clash/1-1";
        writeFile(clash / "bin/clash", "tool");
        writeFile(clash / "manifest/demo.clash.desktop", "package");
        writeFile("/usr/share/applications/demo.clash.desktop", "system");
        putAttribute("/usr/share/applications/demo.clash.desktop", "user.other", "x");
        std::string message;
        auto err = captureStderr([&] {
            message = errorOf([&] { createMappings(clash, {"demo.clash", {}, {}}); });
        });
        EXPECT_EQ(message, "couldn't create mappings");
        EXPECT_EQ(err, "ERROR: attempt to override system file with package mapping: "
                       "/usr/share/applications/demo.clash.desktop\n"
                       "INFO: cleaning up created mappings\n");
        EXPECT_EQ(readFile("/usr/share/applications/demo.clash.desktop"), "system");
        EXPECT_TRUE(absent("/usr/bin/clash"));
        EXPECT_TRUE(absent(clash / "symlink.list"));

        // The lib64 places are checked even when nothing is mapped there.
        const fs::path lib64Clash = "/opt/app/demo.lib64/1-1";
        writeFile(lib64Clash / "3rdparty/libz.so", "package");
        writeFile("/usr/lib64/3rdparty/demo.lib64/libz.so", "system");
        err = captureStderr([&] {
            message = errorOf([&] { createMappings(lib64Clash, {"demo.lib64", {}, {}}); });
        });
        EXPECT_EQ(message, "couldn't create mappings");
        EXPECT_EQ(err, "ERROR: attempt to override system file with package mapping: "
                       "/usr/lib64/3rdparty/demo.lib64/libz.so\n"
                       "INFO: cleaning up created mappings\n");
        EXPECT_TRUE(absent("/usr/lib/3rdparty/demo.lib64/libz.so"));
        EXPECT_EQ(readFile("/usr/lib64/3rdparty/demo.lib64/libz.so"), "system");

        // A leftover that cannot be removed stops the run as well.
        const fs::path stuck = "/opt/app/demo.stuck/1-1";
        writeFile(stuck / "bin/stuck", "tool");
        writeFile(stuck / "data/x", "package");
        mountFresh("tmpfs", "/usr/share/demo.stuck");
        fs::create_symlink("/opt/app/demo.stuck/0-1/data/x", "/usr/share/demo.stuck/x");
        makeAppendOnly("/usr/share/demo.stuck");
        err = captureStderr([&] {
            message = errorOf([&] { createMappings(stuck, {"demo.stuck", {}, {}}); });
        });
        EXPECT_EQ(message, "couldn't create mappings");
        const auto cause = removalFailure("/usr/share/demo.stuck/x");
        ASSERT_FALSE(cause.empty());
        EXPECT_EQ(err, "ERROR: " + cause + "\n" +
                           "ERROR: couldn't clean up existing mapping: /usr/share/demo.stuck/x\n" +
                           "INFO: cleaning up created mappings\n");
        EXPECT_TRUE(absent("/usr/bin/stuck"));
        EXPECT_TRUE(isLinkTo("/usr/share/demo.stuck/x", "/opt/app/demo.stuck/0-1/data/x"));
    });
}

TEST(CreateMappings, AFailureInTheMiddleRemovesEveryMappingMadeSoFar) {
    SANDBOXED([] {
        const fs::path v = "/opt/app/demo.notes/1.0-1";
        writeFile(v / "bin/tool", "tool");
        writeFile(v / "data/locked/file", "data");
        writeFile(v / "data/free/file", "data");
        writeFile(v / "connman/config/sub/vpn.conf", "config");
        // The package's data directory does not let its mappings go; the VPN configuration
        // directory has room for the copy but not for its marker, and does not let it go.
        mountFresh("tmpfs", "/usr/share/demo.notes");
        makeAppendOnly("/usr/share/demo.notes/locked");
        mountFresh("tmpfs", "/etc/connman/vpn-plugin", "nr_inodes=3");
        makeAppendOnly("/etc/connman/vpn-plugin/sub");

        const fs::path failed = "/etc/connman/vpn-plugin/sub/vpn.conf";
        std::string message;
        const auto err = captureStderr([&] {
            message = errorOf([&] { createMappings(v, {"demo.notes", {}, {}}); });
        });
        EXPECT_EQ(message, "couldn't create mappings");
        const auto cannotRemoveCopy = removalFailure(failed);
        const auto cannotRemoveLink = removalFailure("/usr/share/demo.notes/locked/file");
        ASSERT_FALSE(cannotRemoveCopy.empty());
        ASSERT_FALSE(cannotRemoveLink.empty());
        EXPECT_EQ(err, "WARN: couldn't remove prepared mapping: \"" + failed.string() +
                           "\": " + cannotRemoveCopy + "\n" + "ERROR: couldn't create mapping \"" +
                           (v / "connman/config/sub/vpn.conf").string() + "\" -> \"" +
                           failed.string() + "\"\n" +
                           "ERROR: couldn't attach user.tolva.mapping.target extended attribute "
                           "to " +
                           failed.string() + "\n" + "INFO: cleaning up created mappings\n" +
                           "WARN: couldn't clean up created mapping: "
                           "\"/usr/share/demo.notes/locked/file\"\n" +
                           "WARN: " + cannotRemoveLink + "\n");
        EXPECT_TRUE(absent("/usr/bin/tool"));
        EXPECT_TRUE(absent("/usr/share/demo.notes/free/file"));
        EXPECT_TRUE(absent(v / "symlink.list"));
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
        for (int i = 0; i < 40; ++i)
            writeFile(v / "bin" / (std::string(120, 't') + std::to_string(i)), "");
        std::string message;
        auto err = captureStderr([&] {
            message = errorOf([&] { createMappings(v, {"demo.full", {}, {}}); });
        });
        EXPECT_EQ(message, "couldn't create mappings");
        EXPECT_EQ(err, "ERROR: couldn't write lines to mapping list\n"
                       "INFO: cleaning up created mappings\n");
        EXPECT_TRUE(absent("/usr/bin/" + std::string(120, 't') + "0"));
        EXPECT_EQ(readFile(v / "symlink.list"), "/usr/bin/old\n");
        std::vector<std::string> left;
        for (const auto& entry : fs::directory_iterator(v))
            left.push_back(entry.path().filename());
        EXPECT_EQ(sorted(left), (std::vector<std::string>{"bin", "filler", "symlink.list"}));

        const fs::path other = "/opt/app/demo.dir/1-1";
        writeFile(other / "bin/other", "other");
        fs::create_directories(other / "symlink.list/inside");
        err = captureStderr([&] {
            message = errorOf([&] { createMappings(other, {"demo.dir", {}, {}}); });
        });
        EXPECT_EQ(message, "couldn't create mappings");
        EXPECT_EQ(err, "ERROR: couldn't open file to create mapping list\n"
                       "INFO: cleaning up created mappings\n");
        EXPECT_TRUE(absent("/usr/bin/other"));
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
        target += "libfoo.so.1";
        fs::create_symlink(target, v / "3rdparty/libfoo.so");

        const auto err = captureStderr([&] { createMappings(v, {"demo.long", {}, {}}); });
        const auto logged = lines(err);
        ASSERT_EQ(logged.size(), 2u) << err;
        const std::string warning =
            "WARN: Coulnd't create copy of symlink during mappings generation: \"" +
            (v / "3rdparty/libfoo.so").string() + "\": ";
        EXPECT_TRUE(logged[0].starts_with(warning) &&
                    logged[0].find("File name too long") != std::string::npos)
            << logged[0];
        EXPECT_EQ(logged[1], "INFO: Trying to copy content of the symlink target");
        expectMarkedCopy(lib / "libfoo.so", v / "3rdparty/libfoo.so");
        EXPECT_EQ(readFile(lib / "libfoo.so"), "foo");
        expectMarkedCopy(lib / "libfoo.so.1", v / "3rdparty/libfoo.so.1");
    });
}
