// tolva-sample-device DIR: inside a sandbox, builds the sample applications into DIR and
// installs them as a device would have them. Used by the demo.

#include "tests/support/sample_device.hpp"
#include "tests/support/sandbox.hpp"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2 || !TestSupport::insideSandbox()) {
        std::cerr << "usage: tolva-sandbox tolva-sample-device DIR\n";
        return 2;
    }
    try {
        TestSupport::installSampleDevice(TestSupport::buildSampleApps(argv[1]));
    } catch (const std::exception& error) {
        std::cerr << "tolva-sample-device: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
