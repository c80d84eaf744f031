// Fuzzes pkgsig's command line (the arguments separated by NUL bytes) up to the point where a
// command would run: a line that parses names a command with its operand and no empty option.

#include "fuzz/fuzz_support.hpp"
#include "tools/pkgsig/command_line.hpp"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments(1);
    for (std::size_t i = 0; i < size; ++i)
        if (data[i] == 0)
            arguments.emplace_back();
        else
            arguments.back() += static_cast<char>(data[i]);
    try {
        const auto line = Pkgsig::parseCommandLine(arguments);
        Fuzz::require(line.command == arguments.front(), "the command is the first argument");
        Fuzz::require(line.operands.size() == (line.command == "list" ? 0u : 1u),
                      "list takes no package, every other command one");
        for (const auto& [name, value] : line.options)
            Fuzz::require(name.starts_with("--") && !value.empty(), "options have values");
        if (line.command == "sign")
            Pkgsig::signOptions(line);
        else if (line.command == "verify" || line.command == "import")
            line.option("--ca");
    } catch (const Pkgsig::UsageError&) {
    }
    return 0;
}
