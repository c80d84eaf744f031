// pkgsig: signs packages and manages the device's package signature database.

#include "platform/package_signatures/database.hpp"
#include "tools/common/tool_main.hpp"
#include "tools/pkgsig/commands.hpp"

#include <iostream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* helpText = R"(Usage: pkgsig COMMAND [OPTIONS] [PACKAGE]

Signs RPM packages for the device and manages the device's record of the certificates that
signed each installed package. Signatures are CMS (SHA-256) signatures over the package's main
header and payload, kept in the package's signature header: a signed package still passes
"rpm -K" and installs with "rpm -i".

Commands:
  sign PACKAGE --developer-key KEY --developer-cert CERT
               [--client-key KEY --client-cert CERT] [--ca CA] [--output FILE]
               [--signing-time SECONDS]
      Signs PACKAGE with the developer key and, when given, the client (source) key,
      replacing any earlier signatures. Every payload file that needs one gets a file
      signature (IMA format) and a trustlet signature made with the developer key: every
      regular file that is not %config, and %config files that are executable or when the
      RPM macro %_ima_sign_config_files is non-zero.
        --developer-key, --client-key    unencrypted PEM private keys
        --developer-cert, --client-cert  PEM certificates, the signer's first, then any
                                         intermediate CA certificates to embed; they must
                                         carry the developer / client signing usage
        --ca CA           check the new signatures against the CA certificates in CA (PEM)
                          before anything is written
        --output FILE     write the signed package to FILE instead of replacing PACKAGE
        --signing-time SECONDS
                          record this time (seconds since 1970, UTC) as the signing time
                          instead of now; the certificates must be valid at that time
  show PACKAGE
      Prints each signature of PACKAGE: its role, the signer's key id, subject, subgroup and
      system developer flag, the signing time, and the files it signs (index and path).
  verify PACKAGE --ca CA
      Checks every signature of PACKAGE against the CA certificates in CA (PEM) at its signing
      time, that one of them is a developer signature, and that the file signatures match the
      payload. Prints one line on success.
  import PACKAGE --ca CA [--database DIR]
      Verifies PACKAGE like "verify" and records its developer certificate (group 1) and
      client certificate (group 3) under its RPM name in the signature database DIR
      (default /var/lib/package-signatures), as DIR/NAME/GROUP.pem. A client certificate
      recorded earlier is forgotten when the package has none.
  list [--database DIR]
      Prints one line per recorded certificate, packages sorted by name:
      NAME ROLE KEY-ID SUBGROUP SUBJECT
  help, --help, -h
      Prints this text.

Options take their value as the next argument or after "=" (--ca=ca.pem).

Files are replaced through a temporary file and a rename: a failed command leaves the package
and the database as they were.

Exit status: 0 on success, 1 when the command fails (a one-line reason on standard error),
2 when the command line is wrong.
)";

using Tools::UsageError;

struct CommandLine {
    std::string command;
    std::map<std::string, std::string> options;
    std::vector<std::string> operands;
};

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

CommandLine parse(const std::vector<std::string>& arguments) {
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

std::string option(const CommandLine& line, const std::string& name, bool required = true) {
    const auto found = line.options.find(name);
    if (found != line.options.end())
        return found->second;
    if (required)
        throw UsageError(line.command + " needs " + name);
    return "";
}

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

void run(const CommandLine& line) {
    const std::string database = option(line, "--database", false).empty()
                                     ? PackageSignatures::Database::defaultPath
                                     : option(line, "--database");
    if (line.command == "sign") {
        Pkgsig::SignOptions options{line.operands.front(),
                                    option(line, "--developer-key"),
                                    option(line, "--developer-cert"),
                                    option(line, "--client-key", false),
                                    option(line, "--client-cert", false),
                                    option(line, "--output", false),
                                    option(line, "--ca", false),
                                    std::nullopt};
        if (const auto time = option(line, "--signing-time", false); !time.empty())
            options.signingTime = parseSigningTime(time);
        Pkgsig::sign(options, std::cout);
    } else if (line.command == "show") {
        Pkgsig::show(line.operands.front(), std::cout);
    } else if (line.command == "verify") {
        Pkgsig::verify(line.operands.front(), option(line, "--ca"), std::cout);
    } else if (line.command == "import") {
        Pkgsig::importCertificates(line.operands.front(), option(line, "--ca"), database,
                                   std::cout);
    } else {
        Pkgsig::list(database, std::cout);
    }
}

} // namespace

int main(int argc, char** argv) {
    return Tools::runTool("pkgsig", helpText, argc, argv,
                          [](const auto& arguments) { run(parse(arguments)); });
}
