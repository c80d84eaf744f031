#pragma once

// The packages that the RPM layer's tests read, erase and unpack.

#include "tests/support/rpm_fixtures.hpp"

#include <string>

namespace RpmTest {

using TestSupport::FixtureFile;
using TestSupport::FixturePackage;

inline const std::string sharedData = "one set of data, three names\n";
inline const std::string toolScript = "#!/bin/sh\necho tool\n";

// Over 128 KiB, so that data moves in more than one chunk.
inline std::string bigData() {
    std::string data;
    for (int i = 0; data.size() < 300000; ++i)
        data += "line " + std::to_string(i) + "\n";
    return data;
}

// Every kind of file a package can hold. In file-list order:
//   /etc/fixture-hook           %config, executable
//   /etc/fixture.conf           %config
//   /usr/bin/fixture-suid       04755
//   /usr/bin/fixture-tool       0755
//   /usr/share/fixture          directory 0750
//   /usr/share/fixture/a, b, c  one hard-link set
//   /usr/share/fixture/absolute -> /etc/fixture.conf
//   /usr/share/fixture/big      300,000 bytes
//   /usr/share/fixture/device   character device
//   /usr/share/fixture/empty    empty
//   /usr/share/fixture/relative -> big
//   /usr/share/fixture/x, y     a second hard-link set
// Named "every-" + compressor; `payload` as in %_binary_payload.
inline FixturePackage everyKind(const std::string& compressor = "gzip",
                                const std::string& payload = "w9.gzdio") {
    FixtureFile hook = TestSupport::file("/etc/fixture-hook", "#!/bin/sh\n", 0755);
    hook.config = true;
    FixtureFile conf = TestSupport::file("/etc/fixture.conf", "key=value\n");
    conf.config = true;
    return {"every-" + compressor,
            "2.0",
            "1",
            3,
            payload,
            {hook, conf, TestSupport::file("/usr/bin/fixture-suid", toolScript, 04755),
             TestSupport::file("/usr/bin/fixture-tool", toolScript, 0755),
             TestSupport::directory("/usr/share/fixture", 0750),
             TestSupport::file("/usr/share/fixture/a", sharedData),
             TestSupport::hardlink("/usr/share/fixture/b", "/usr/share/fixture/a"),
             TestSupport::hardlink("/usr/share/fixture/c", "/usr/share/fixture/a"),
             TestSupport::symlink("/usr/share/fixture/absolute", "/etc/fixture.conf"),
             TestSupport::file("/usr/share/fixture/big", bigData()),
             TestSupport::characterDevice("/usr/share/fixture/device"),
             TestSupport::file("/usr/share/fixture/empty", ""),
             TestSupport::symlink("/usr/share/fixture/relative", "big"),
             TestSupport::file("/usr/share/fixture/x", "second set\n"),
             TestSupport::hardlink("/usr/share/fixture/y", "/usr/share/fixture/x")}};
}

// A package with one file, for the database tests.
inline FixturePackage single(const std::string& name, const std::string& payload = {}) {
    return {name, "1.0",   "1",
            {},   payload, {TestSupport::file("/usr/share/" + name + "/readme", name)}};
}

} // namespace RpmTest
