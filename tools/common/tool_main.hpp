#pragma once

// The frame that the project's command-line tools share: help text, one-line refusals and the
// exit status (0 done, 1 failed or refused, 2 wrong command line).

#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Tools {

// A command line that the tool cannot take.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Error texts may quote file contents or names from packages; keep the report on one line.
inline std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return text;
}

// Prints `help` when any argument asks for it; otherwise hands the arguments (at least one) to
// `run` and turns what it throws into a line "NAME: reason" on standard error.
inline int runTool(const char* name, const char* help, int argc, char** argv,
                   const std::function<void(const std::vector<std::string>&)>& run) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    for (const auto& argument : arguments)
        if (argument == "--help" || argument == "-h" || argument == "help") {
            std::cout << help;
            return 0;
        }
    if (arguments.empty()) {
        std::cerr << name << ": no command given (see " << name << " --help)\n";
        return 2;
    }
    try {
        run(arguments);
        return 0;
    } catch (const UsageError& error) {
        std::cerr << name << ": " << oneLine(error.what()) << " (see " << name << " --help)\n";
        return 2;
    } catch (const std::exception& error) {
        std::cerr << name << ": " << oneLine(error.what()) << "\n";
        return 1;
    }
}

} // namespace Tools
