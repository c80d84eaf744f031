#include "tools/pkgsig/command_line.hpp"

#include <set>
#include <sys/stat.h>

namespace Pkgsig {

namespace {

// Which options each command takes, and how many operands (the package).
const std::map<std::string, std::pair<std::set<std::string>, std::size_t>> commands = {
    {"sign",
     {{"--developer-key", "--developer-cert", "--client-key", "--client-cert", "--ca", "--output",
       "--signing-time"},
      1}},
    {"show", {{}, 1}},
    {"verify", {{"--ca"}, 1}},
    {"import", {{"--ca", "--database"}, 1}},
    {"list", {{"--database"}, 0}},
};

} // namespace

CommandLine parseCommandLine(const std::vector<std::string>& arguments) {
    CommandLine line;
    line.command = arguments.front();
    const auto found = commands.find(line.command);
    if (found == commands.end())
        throw UsageError("unknown command \"" + line.command + "\"");
    const auto& [allowed, operandCount] = found->second;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (!argument.starts_with("--") || argument == "--") {
            line.operands.push_back(argument);
            continue;
        }
        const auto equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        if (!allowed.contains(name))
            throw UsageError(line.command + " takes no option " + name);
        std::string value;
        if (equals != std::string::npos)
            value = argument.substr(equals + 1);
        else if (i + 1 < arguments.size())
            value = arguments[++i];
        else
            throw UsageError(name + " needs a value");
        if (value.empty())
            throw UsageError(name + " needs a value");
        if (!line.options.emplace(name, value).second)
            throw UsageError(name + " is given twice");
    }
    if (line.operands.size() != operandCount)
        throw UsageError(line.command +
                         (operandCount ? " takes one package file" : " takes no package file"));
    return line;
}

std::string CommandLine::option(const std::string& name, bool required) const {
    const auto found = options.find(name);
    if (found != options.end())
        return found->second;
    if (required)
        throw UsageError(command + " needs " + name);
    return "";
}

void requireRegularInputs(const CommandLine& line) {
    std::vector<std::string> inputs = line.operands;
    for (const char* name :
         {"--developer-key", "--developer-cert", "--client-key", "--client-cert", "--ca"})
        if (const auto value = line.option(name, false); !value.empty())
            inputs.push_back(value);
    for (const auto& input : inputs) {
        struct stat status {};
        if (::lstat(input.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
            throw std::runtime_error("not a regular file: " + input);
    }
}

namespace {

std::time_t parseSigningTime(const std::string& text) {
    std::size_t used = 0;
    long long seconds = -1;
    try {
        seconds = std::stoll(text, &used);
    } catch (const std::exception&) {
    }
    if (used != text.size() || seconds < 0)
        throw UsageError("--signing-time takes seconds since 1970, not \"" + text + "\"");
    return static_cast<std::time_t>(seconds);
}

} // namespace

SignOptions signOptions(const CommandLine& line) {
    SignOptions options{line.operands.front(),
                        line.option("--developer-key"),
                        line.option("--developer-cert"),
                        line.option("--client-key", false),
                        line.option("--client-cert", false),
                        line.option("--output", false),
                        line.option("--ca", false),
                        std::nullopt};
    if (const auto time = line.option("--signing-time", false); !time.empty())
        options.signingTime = parseSigningTime(time);
    return options;
}

} // namespace Pkgsig
