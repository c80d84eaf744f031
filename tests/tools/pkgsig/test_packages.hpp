#pragma once

// The packages that the signing tests sign: built with rpmbuild from the specs below once per
// build tree, and handed out as fresh copies.

#include "tests/support/sandbox.hpp"

#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

namespace PkgsigTest {

namespace fs = std::filesystem;

// Contents written by the specs, so that tests can compute the files' digests.
inline const std::string helloScript = "#!/bin/sh\necho hello\n";
inline const std::string helloData = "data\n";
inline const std::string helloHook = "#!/bin/sh\n";

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
inline std::string tinySpec(const std::string& name, const std::string& payload) {
    return "Name: " + name + "\nVersion: 2.0\nRelease: 3\nSummary: " + payload +
           " payload\nLicense: MIT\nBuildArch: noarch\n%define _binary_payload " + payload +
           "\n%description\n" + payload +
           " payload\n%install\nmkdir -p %{buildroot}/usr/share/tiny\n"
           "echo tiny > %{buildroot}/usr/share/tiny/readme\n%files\n/usr/share/tiny/readme\n";
}

inline const std::map<std::string, std::string>& specs() {
    static const std::map<std::string, std::string> all = {
        {"hello", R"(Name: hello
Version: 1.0
Release: 1
Summary: signing test
License: MIT
BuildArch: noarch
%description
signing test
%install
mkdir -p %{buildroot}/usr/bin %{buildroot}/usr/share/hello %{buildroot}/etc
mkdir -p %{buildroot}/usr/share/applications
printf '#!/bin/sh\necho hello\n' > %{buildroot}/usr/bin/hello
chmod 755 %{buildroot}/usr/bin/hello
echo data > %{buildroot}/usr/share/hello/data.txt
ln %{buildroot}/usr/share/hello/data.txt %{buildroot}/usr/share/hello/data-link.txt
echo conf > %{buildroot}/etc/hello.conf
printf '#!/bin/sh\n' > %{buildroot}/etc/hello-hook
chmod 755 %{buildroot}/etc/hello-hook
ln -s hello %{buildroot}/usr/bin/hi
printf '[Desktop Entry]\nName=Hello\n[X-Tolva-Application]\nOrganizationName=org.example\nApplicationName=Hello\n' > %{buildroot}/usr/share/applications/hello.desktop
%files
/usr/bin/hello
/usr/bin/hi
%dir /usr/share/hello
/usr/share/hello/data.txt
/usr/share/hello/data-link.txt
%config /etc/hello.conf
%config /etc/hello-hook
%ghost /etc/hello.state
/usr/share/applications/hello.desktop
)"},
        {"tiny-xz", tinySpec("tiny-xz", "w6.xzdio")},
        {"tiny-zstd", tinySpec("tiny-zstd", "w3.zstdio")},
    };
    return all;
}

// The built package `name` of this build tree (made on first use; keep it unchanged).
inline fs::path builtPackage(const std::string& name) {
    const fs::path cache = fs::path(TOLVA_BINARY_DIR) / "test-packages-pkgsig-v1";
    const fs::path package = cache / (name + ".rpm");
    if (fs::exists(package))
        return package;
    const fs::path work = cache / ("build." + name + "." + std::to_string(::getpid()));
    fs::create_directories(work);
    std::ofstream(work / "package.spec") << specs().at(name);
    // rpmbuild opens an RPM database under $HOME: keep it in the work directory.
    const auto result = TestSupport::runProgram(
        {"env", "HOME=" + work.string(), "rpmbuild", "-bb", "--quiet", "--define",
         "_topdir " + (work / "top").string(), "--define", "_tmppath " + (work / "tmp").string(),
         "--define", "debug_package %{nil}", (work / "package.spec").string()});
    if (!result.exited || result.status != 0)
        throw std::runtime_error("rpmbuild " + name + " failed: " + result.err);
    for (const auto& entry : fs::recursive_directory_iterator(work / "top/RPMS"))
        if (entry.path().extension() == ".rpm")
            fs::rename(entry.path(), package); // atomic: a concurrent build loses nothing
    fs::remove_all(work);
    if (!fs::exists(package))
        throw std::runtime_error("rpmbuild " + name + " made no package");
    return package;
}

// A fresh copy of the package `name` at `path`.
inline fs::path copyOfPackage(const std::string& name, const fs::path& path) {
    fs::create_directories(path.parent_path());
    fs::copy_file(builtPackage(name), path, fs::copy_options::overwrite_existing);
    return path;
}

} // namespace PkgsigTest

namespace PkgsigTest {

// A scratch directory in the build tree (visible inside the sandbox, unlike /tmp), removed
// with the object.
class Scratch {
public:
    Scratch() : root(fs::path(TOLVA_BINARY_DIR) / "pkgsig-scratch" / std::to_string(::getpid())) {
        fs::remove_all(root);
        fs::create_directories(root);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    fs::path operator/(const std::string& name) const { return root / name; }
    const fs::path& path() const { return root; }

private:
    fs::path root;
};

inline TestSupport::ProcessResult pkgsig(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::string(TOLVA_BINARY_DIR) + "/bin/pkgsig");
    return TestSupport::runProgram(arguments);
}

} // namespace PkgsigTest
