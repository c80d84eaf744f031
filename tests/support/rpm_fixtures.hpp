#pragma once

// RPM packages for tests: described here, written out as spec files, built with rpmbuild once
// per build tree, and installed into the sandbox's RPM database with rpm itself.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace TestSupport {

struct FixtureFile {
    enum class Kind { Directory, File, Symlink, Hardlink, CharDevice, Ghost };
    Kind kind = Kind::File;
    std::string path;     // absolute installed path
    std::string content;  // File: the bytes; Symlink: the link text; Hardlink: the other name
    unsigned mode = 0;    // 0 keeps rpmbuild's choice (0644 files, 0755 directories)
    bool config = false;  // %config
    std::string generate; // File: a shell pipeline whose output replaces `content`
};

struct FixturePackage {
    std::string name;
    std::string version = "1.0";
    std::string release = "1";
    std::optional<unsigned> epoch = std::nullopt;
    std::string payload = {}; // "%_binary_payload", e.g. "w9.gzdio"; empty keeps the default
    std::vector<FixtureFile> files = {};
    std::string preuninstall = {}; // a %preun scriptlet in RPM's own Lua (needs no shell); or none
};

FixtureFile directory(std::string path, unsigned mode = 0);
FixtureFile file(std::string path, std::string content, unsigned mode = 0);
FixtureFile symlink(std::string path, std::string target);
FixtureFile hardlink(std::string path, std::string otherName);
FixtureFile characterDevice(std::string path);
FixtureFile ghost(std::string path);

// The package file built from `package`; the same description gives the same cached file, so
// keep it unchanged (copy it before signing).
std::filesystem::path buildPackage(const FixturePackage& package);

// Installs package files with rpm into the RPM database of the running (sandboxed) system.
void installPackages(const std::vector<std::filesystem::path>& packages);

// A scratch directory in the build tree (seen inside the sandbox too, unlike /tmp), removed
// with the object.
class Scratch {
public:
    Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch();
    std::filesystem::path operator/(const std::string& name) const { return root / name; }
    const std::filesystem::path& path() const { return root; }

private:
    std::filesystem::path root;
};

} // namespace TestSupport
