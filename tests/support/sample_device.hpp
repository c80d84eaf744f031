#pragma once

// A device with third-party applications installed by RPM, as the launcher meets it: two
// signed applications, a system package and an unsigned one. Used by the system tests and the
// demo.

#include <filesystem>
#include <string>
#include <vector>

namespace TestSupport {

struct SampleApp {
    std::string name;
    std::string signer; // a developer of the test PKI; empty when unsigned
    std::string client; // the test PKI's client, or empty
    std::filesystem::path file;
};

// Builds the sample applications' packages and signs copies of them in `directory`:
//   harbor-notes 1.2.3-1  developer and client signed; a manifest (org.harbor, Notes), a
//                         binary, icons, data, a helper, a library with its link, a hard-link
//                         set, relative, dot-relative and absolute links, a %config file
//   quiet-clock 0.9-2     developer signed, no manifest; RPM fails to erase it while
//                         /etc/quiet-clock.keep exists, after removing its binary when that
//                         file holds "wipe"
//   platform-settings 3.1-1  signed by a system developer
//   loose-tool 1.0-1      unsigned
std::vector<SampleApp> buildSampleApps(const std::filesystem::path& directory);

// harbor-notes 1.3.0-1, signed like 1.2.3-1, in `directory`: its 128x128 icon is gone, a
// command /usr/bin/harbor-notes-sync is new, everything else is as in 1.2.3-1.
SampleApp buildHarborNotesUpgrade(const std::filesystem::path& directory);

// Inside a sandbox: makes the test PKI's CA the platform's package authority, installs the
// packages with rpm and records the signed ones' certificates in the device's signature
// database with pkgsig. Throws std::runtime_error.
void installSampleDevice(const std::vector<SampleApp>& apps);

} // namespace TestSupport
