#include "tests/support/sample_device.hpp"

#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/sandbox.hpp"
#include "tests/support/test_pki.hpp"

#include <stdexcept>

namespace fs = std::filesystem;

namespace TestSupport {

namespace {

std::string manifest(const std::string& orgName, const std::string& appName) {
    return "[Desktop Entry]\nType=Application\nName=" + appName + "\nExec=" + appName +
           "\n[X-Tolva-Application]\nOrganizationName=" + orgName + "\nApplicationName=" + appName +
           "\n";
}

FixturePackage harborNotes() {
    FixtureFile config = file("/usr/share/harbor-notes/notes.conf", "sync=on\n", 0644);
    config.config = true;
    FixtureFile words = file("/usr/share/harbor-notes/data/words.db", "");
    words.generate = "head -c 300000 /dev/zero | tr '\\0' 'w'";
    return {
        .name = "harbor-notes",
        .version = "1.2.3",
        .files = {
            directory("/usr/share/harbor-notes"), directory("/usr/share/harbor-notes/data", 0750),
            directory("/usr/libexec/harbor-notes"), directory("/usr/lib/3rdparty/harbor-notes"),
            file("/usr/bin/harbor-notes", "#!/bin/sh\necho notes\n", 0755),
            file("/usr/libexec/harbor-notes/sync-helper", "#!/bin/sh\necho sync\n", 0750),
            file("/usr/share/applications/harbor-notes.desktop", manifest("org.harbor", "Notes")),
            file("/usr/share/icons/hicolor/86x86/apps/harbor-notes.png", "icon 86"),
            file("/usr/share/icons/hicolor/128x128/apps/harbor-notes.png", "icon 128"),
            file("/usr/share/harbor-notes/main.qml", "Item {}\n"), config,
            file("/usr/lib/3rdparty/harbor-notes/libnotes.so.1", "not really ELF", 0755),
            symlink("/usr/lib/3rdparty/harbor-notes/libnotes.so", "libnotes.so.1"), words,
            hardlink("/usr/share/harbor-notes/data/words-backup.db",
                     "/usr/share/harbor-notes/data/words.db"),
            symlink("/usr/share/harbor-notes/default.qml", "./main.qml"),
            symlink("/usr/share/harbor-notes/helper", "/usr/libexec/harbor-notes/sync-helper")}};
}

FixturePackage quietClock() {
    return {.name = "quiet-clock",
            .version = "0.9",
            .release = "2",
            .files = {directory("/usr/share/quiet-clock"),
                      file("/usr/bin/quiet-clock", "#!/bin/sh\necho tick\n", 0755),
                      file("/usr/share/quiet-clock/face.svg", "<svg/>\n")},
            .preuninstall =
                "local keep = io.open(\"/etc/quiet-clock.keep\")\n"
                "if keep then\n"
                "  if keep:read(\"a\") == \"wipe\" then os.remove(\"/usr/bin/quiet-clock\") end\n"
                "  error(\"kept\")\n"
                "end"};
}

FixturePackage platformSettings() {
    return {.name = "platform-settings",
            .version = "3.1",
            .files = {file("/usr/bin/platform-settings", "#!/bin/sh\n", 0755),
                      file("/usr/share/applications/platform-settings.desktop",
                           manifest("org.platform", "Settings"))}};
}

FixturePackage looseTool() {
    return {.name = "loose-tool", .files = {file("/usr/bin/loose-tool", "#!/bin/sh\n", 0755)}};
}

void check(const ProcessResult& result, const std::string& what) {
    if (!result.exited || result.status != 0)
        throw std::runtime_error(what + " failed: " + result.err);
}

// Copies the package built from `package` to app.file and signs it as the app says.
void buildApp(const FixturePackage& package, const SampleApp& app) {
    fs::create_directories(app.file.parent_path());
    fs::copy_file(buildPackage(package), app.file, fs::copy_options::overwrite_existing);
    if (!app.signer.empty())
        check(signWithPkgsig(app.file, app.signer, app.client), "signing " + app.name);
}

} // namespace

std::vector<SampleApp> buildSampleApps(const fs::path& directory) {
    std::vector<SampleApp> apps = {{"harbor-notes", "developer", "client", {}},
                                   {"quiet-clock", "developer", "", {}},
                                   {"platform-settings", "developer-system", "", {}},
                                   {"loose-tool", "", "", {}}};
    const FixturePackage packages[] = {harborNotes(), quietClock(), platformSettings(),
                                       looseTool()};
    for (std::size_t i = 0; i < apps.size(); ++i) {
        apps[i].file = directory / (apps[i].name + ".rpm");
        buildApp(packages[i], apps[i]);
    }
    return apps;
}

SampleApp buildHarborNotesUpgrade(const fs::path& directory) {
    FixturePackage package = harborNotes();
    package.version = "1.3.0";
    std::erase_if(package.files, [](const FixtureFile& file) {
        return file.path == "/usr/share/icons/hicolor/128x128/apps/harbor-notes.png";
    });
    package.files.push_back(file("/usr/bin/harbor-notes-sync", "#!/bin/sh\necho sync 1.3\n", 0755));
    const SampleApp app{"harbor-notes", "developer", "client",
                        directory / "harbor-notes-1.3.0.rpm"};
    buildApp(package, app);
    return app;
}

void installSampleDevice(const std::vector<SampleApp>& apps) {
    trustTestCa();
    std::vector<fs::path> files;
    for (const auto& app : apps)
        files.push_back(app.file);
    installPackages(files);
    for (const auto& app : apps)
        if (!app.signer.empty())
            check(pkgsig({"import", app.file.string(), "--ca", "/etc/keys/packages/ca.pem"}),
                  "importing " + app.name);
}

} // namespace TestSupport
