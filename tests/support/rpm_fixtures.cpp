#include "tests/support/rpm_fixtures.hpp"

#include "tests/support/sandbox.hpp"

#include <atomic>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace TestSupport {

namespace fs = std::filesystem;

namespace {

std::string attributes(const FixtureFile& file) {
    std::ostringstream text;
    if (file.mode)
        text << "%attr(" << std::oct << file.mode << ",-,-) ";
    return text.str();
}

// Shell single-quoting, for paths and link texts in %install.
std::string quoted(const std::string& text) {
    std::string result = "'";
    for (char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

std::string installStep(const FixtureFile& file, std::size_t number) {
    const std::string target = "%{buildroot}" + quoted(file.path);
    const std::string parent = "mkdir -p \"$(dirname " + target + ")\"\n";
    switch (file.kind) {
    case FixtureFile::Kind::Directory:
        return "mkdir -p " + target + "\n";
    case FixtureFile::Kind::File:
        if (!file.generate.empty())
            return parent + "(" + file.generate + ") > " + target + "\n";
        return parent + "cp %{_sourcedir}/content." + std::to_string(number) + " " + target + "\n";
    case FixtureFile::Kind::Symlink:
        return parent + "ln -s " + quoted(file.content) + " " + target + "\n";
    case FixtureFile::Kind::Hardlink:
        return parent + "ln %{buildroot}" + quoted(file.content) + " " + target + "\n";
    case FixtureFile::Kind::CharDevice:
    case FixtureFile::Kind::Ghost:
        break;
    }
    return {};
}

std::string filesLine(const FixtureFile& file) {
    std::string prefix = attributes(file);
    if (file.config)
        prefix += "%config ";
    if (file.kind == FixtureFile::Kind::Directory)
        prefix += "%dir ";
    else if (file.kind == FixtureFile::Kind::CharDevice)
        prefix = "%dev(c,1,3) " + (file.mode ? prefix : "%attr(644,-,-) ");
    else if (file.kind == FixtureFile::Kind::Ghost)
        prefix += "%ghost ";
    return prefix + "\"" + file.path + "\"\n";
}

std::string specText(const FixturePackage& package) {
    std::string spec = "Name: " + package.name + "\nVersion: " + package.version +
                       "\nRelease: " + package.release + "\n";
    if (package.epoch)
        spec += "Epoch: " + std::to_string(*package.epoch) + "\n";
    spec += "Summary: test package\nLicense: MIT\nBuildArch: noarch\n";
    if (!package.payload.empty())
        spec += "%define _binary_payload " + package.payload + "\n";
    spec += "%description\ntest package\n%install\nmkdir -p %{buildroot}\n";
    for (std::size_t i = 0; i < package.files.size(); ++i)
        spec += installStep(package.files[i], i);
    if (!package.preuninstall.empty())
        spec += "%preun -p <lua>\n" + package.preuninstall + "\n";
    spec += "%files\n";
    for (const auto& file : package.files)
        spec += filesLine(file);
    return spec;
}

fs::path cacheDirectory() {
    return fs::path(TOLVA_BINARY_DIR) / "test-packages";
}

std::string cacheKey(const FixturePackage& package, const std::string& spec) {
    std::string all = spec;
    for (const auto& file : package.files)
        all += '\0' + file.content;
    std::ostringstream key;
    key << std::hex << std::hash<std::string>{}(all);
    return package.name + "-" + key.str();
}

// rpmbuild in a private work directory, the result renamed into place at once, so concurrent
// test processes building the same package lose nothing.
void runRpmbuild(const FixturePackage& package, const std::string& spec, const fs::path& result) {
    static std::atomic<unsigned> serial = 0;
    const fs::path work =
        cacheDirectory() / ("build." + std::to_string(::getpid()) + "." + std::to_string(serial++));
    fs::create_directories(work / "top/SOURCES");
    std::ofstream(work / "package.spec") << spec;
    for (std::size_t i = 0; i < package.files.size(); ++i)
        std::ofstream(work / "top/SOURCES" / ("content." + std::to_string(i)), std::ios::binary)
            << package.files[i].content;
    // rpmbuild opens an RPM database under $HOME: keep it in the work directory.
    const auto run = runProgram({"env", "HOME=" + work.string(), "rpmbuild", "-bb", "--quiet",
                                 "--define", "_topdir " + (work / "top").string(), "--define",
                                 "_tmppath " + (work / "tmp").string(), "--define",
                                 "debug_package %{nil}", (work / "package.spec").string()});
    if (!run.exited || run.status != 0)
        throw std::runtime_error("rpmbuild " + package.name + " failed: " + run.err);
    for (const auto& entry : fs::recursive_directory_iterator(work / "top/RPMS"))
        if (entry.path().extension() == ".rpm")
            fs::rename(entry.path(), result);
    fs::remove_all(work);
}

} // namespace

FixtureFile directory(std::string path, unsigned mode) {
    return {FixtureFile::Kind::Directory, std::move(path), {}, mode, false, {}};
}

FixtureFile file(std::string path, std::string content, unsigned mode) {
    return {FixtureFile::Kind::File, std::move(path), std::move(content), mode, false, {}};
}

FixtureFile symlink(std::string path, std::string target) {
    return {FixtureFile::Kind::Symlink, std::move(path), std::move(target), 0, false, {}};
}

FixtureFile hardlink(std::string path, std::string otherName) {
    return {FixtureFile::Kind::Hardlink, std::move(path), std::move(otherName), 0, false, {}};
}

FixtureFile characterDevice(std::string path) {
    return {FixtureFile::Kind::CharDevice, std::move(path), {}, 0, false, {}};
}

FixtureFile ghost(std::string path) {
    return {FixtureFile::Kind::Ghost, std::move(path), {}, 0, false, {}};
}

fs::path buildPackage(const FixturePackage& package) {
    const std::string spec = specText(package);
    const fs::path result = cacheDirectory() / (cacheKey(package, spec) + ".rpm");
    if (!fs::exists(result))
        runRpmbuild(package, spec, result);
    if (!fs::exists(result))
        throw std::runtime_error("rpmbuild made no package " + package.name);
    return result;
}

void installPackages(const std::vector<fs::path>& packages) {
    if (!insideSandbox())
        throw std::logic_error("fixtures are installed only inside the sandbox");
    std::vector<std::string> command = {"rpm", "-i", "--nodeps", "--force-debian"};
    for (const auto& package : packages)
        command.push_back(package.string());
    const auto run = runProgram(command);
    if (!run.exited || run.status != 0)
        throw std::runtime_error("rpm -i failed: " + run.err);
}

Scratch::Scratch() {
    static std::atomic<unsigned> serial = 0;
    root = fs::path(TOLVA_BINARY_DIR) / "test-scratch" /
           (std::to_string(::getpid()) + "." + std::to_string(serial++));
    fs::remove_all(root);
    fs::create_directories(root);
}

Scratch::~Scratch() {
    std::error_code ignored;
    fs::remove_all(root, ignored);
}

} // namespace TestSupport
