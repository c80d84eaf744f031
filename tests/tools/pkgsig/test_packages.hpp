#pragma once

// The packages that the signing tests sign, handed out as fresh copies.

#include "tests/support/rpm_fixtures.hpp"
#include "tests/support/signed_packages.hpp"

#include <filesystem>
#include <map>
#include <string>

namespace PkgsigTest {

namespace fs = std::filesystem;
using TestSupport::FixtureFile;
using TestSupport::pkgsig;
using TestSupport::Scratch;

// "hello" (gzip payload), file list in header order:
//   0 /etc/hello-hook        %config, executable       signed
//   1 /etc/hello.conf        %config                   signed only with %_ima_sign_config_files
//   2 /etc/hello.state       %ghost                    never (no content)
//   3 /usr/bin/hello         executable                signed
//   4 /usr/bin/hi            symbolic link             never
//   5 /usr/share/applications/hello.desktop            signed
//   6 /usr/share/hello       directory                 never
//   7 /usr/share/hello/data-link.txt   hard link to 8  signed
//   8 /usr/share/hello/data.txt                        signed
// "tiny-xz" and "tiny-zstd": one file /usr/share/tiny/readme, other payload compressors.
inline TestSupport::FixturePackage hello() {
    FixtureFile hook = TestSupport::file("/etc/hello-hook", "#!/bin/sh\n", 0755);
    hook.config = true;
    FixtureFile conf = TestSupport::file("/etc/hello.conf", "conf\n");
    conf.config = true;
    return {"hello",
            "1.0",
            "1",
            {},
            {},
            {TestSupport::file("/usr/bin/hello", "#!/bin/sh\necho hello\n", 0755),
             TestSupport::symlink("/usr/bin/hi", "hello"),
             TestSupport::directory("/usr/share/hello"),
             TestSupport::file("/usr/share/hello/data.txt", "data\n"),
             TestSupport::hardlink("/usr/share/hello/data-link.txt", "/usr/share/hello/data.txt"),
             conf, hook, TestSupport::ghost("/etc/hello.state"),
             TestSupport::file("/usr/share/applications/hello.desktop",
                               "[Desktop Entry]\nName=Hello\n[X-Tolva-Application]\n"
                               "OrganizationName=org.example\nApplicationName=Hello\n")}};
}

inline TestSupport::FixturePackage tiny(const std::string& name, const std::string& payload) {
    return {name, "2.0", "3", {}, payload, {TestSupport::file("/usr/share/tiny/readme", "tiny\n")}};
}

// The built package `name` of this build tree; keep it unchanged.
inline fs::path builtPackage(const std::string& name) {
    static const std::map<std::string, TestSupport::FixturePackage> all = {
        {"hello", hello()},
        {"tiny-xz", tiny("tiny-xz", "w6.xzdio")},
        {"tiny-zstd", tiny("tiny-zstd", "w3.zstdio")},
    };
    return TestSupport::buildPackage(all.at(name));
}

// A fresh copy of the package `name` at `path`.
inline fs::path copyOfPackage(const std::string& name, const fs::path& path) {
    fs::create_directories(path.parent_path());
    fs::copy_file(builtPackage(name), path, fs::copy_options::overwrite_existing);
    return path;
}

} // namespace PkgsigTest
