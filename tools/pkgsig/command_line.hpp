#pragma once

// pkgsig's command line: the command, its options and its package operand, checked against
// what each command takes.

#include "tools/common/tool_main.hpp"
#include "tools/pkgsig/commands.hpp"

#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace Pkgsig {

using Tools::UsageError;

struct CommandLine {
    std::string command;
    std::map<std::string, std::string> options;
    std::vector<std::string> operands;

    // The value of the option `name`; "" when it is absent and not `required`.
    // Throws UsageError when it is absent and `required`.
    std::string option(const std::string& name, bool required = true) const;
};

// The arguments after the program name, at least one. Throws UsageError.
CommandLine parseCommandLine(const std::vector<std::string>& arguments);

// Refuses, before anything is read, a file named on the command line for reading (the package,
// keys, certificates) that is not a regular file: a FIFO or a device would be waited on, and a
// link would lead elsewhere. Throws std::runtime_error.
void requireRegularInputs(const CommandLine& line);

// What "sign" is asked to do. Throws UsageError for a missing key or certificate or a bad
// --signing-time.
SignOptions signOptions(const CommandLine& line);

} // namespace Pkgsig
