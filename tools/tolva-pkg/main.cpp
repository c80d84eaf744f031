// tolva-pkg: lists, installs, upgrades and removes the packages of the Tolva database.

#include "tools/common/tool_main.hpp"
#include "tools/tolva-pkg/commands.hpp"

#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* helpText = R"(Usage: tolva-pkg COMMAND [ARGUMENT]

Uses the Tolva package database (its root and temporary directory as /etc/tolva/tolva.conf
sets them, by default /opt/app and /opt/tolva/tmp) after the migration from RPM: lists the
installed packages, installs or upgrades a signed package file, removes a package. Every
command but help needs root.

Commands:
  list
      Runs the database's repair pass (a damaged package is removed), then prints one
      line per installed package, sorted by id:
      ID VERSION ORGANISATION/APPLICATION SOURCE-KEY-ID [SOURCE-SUBJECT]
      "-" stands for missing manifest names and for a package bound to no source.
  install FILE.rpm
      Checks the package's signatures against /etc/keys/packages/ca.pem (a developer
      signature is required, a client signature names its source) and installs it. A package
      that is installed already is upgraded: the new version is unpacked next to the
      installed one, prepared as "next" and made current; the old version's mappings and
      directory go. Refused: a bad signature, a system developer's package, a lower version
      than the installed one (a downgrade), the installed version itself, and a version no
      newer than an upgrade that is prepared already. The package is bound to its signing
      source in the trusted-sources store (/var/lib/trusted-sources/db.sqlite3); one without
      a client signature to ".no.source.apps", which switches the store's "required" off.
  remove ID
      Removes the package ID: its mappings in the system directories, the directories made
      for it there, its package directory, and its binding in the trusted-sources store.
  help, --help, -h
      Prints this text.

A command that fails changes nothing: a failed install leaves no trace of the new version,
and a failed upgrade leaves the installed version in place and mapped.

Exit status: 0 on success, 1 when the command fails or is refused (a one-line reason on
standard error, after the database's own log lines), 2 when the command line is wrong.
)";

using Tools::UsageError;

// Each command and whether it takes its one argument.
const std::map<std::string, bool> commands = {{"list", false}, {"install", true}, {"remove", true}};

void run(const std::vector<std::string>& arguments) {
    const auto found = commands.find(arguments.front());
    if (found == commands.end())
        throw UsageError("unknown command \"" + arguments.front() + "\"");
    const std::size_t expected = found->second ? 2 : 1;
    if (arguments.size() != expected)
        throw UsageError(found->first +
                         (found->second ? " takes one argument" : " takes no argument"));
    if (::geteuid() != 0)
        throw std::runtime_error("must be run as root");
    if (found->first == "list")
        TolvaPkg::list(std::cout);
    else if (found->first == "install")
        TolvaPkg::install(arguments[1], std::cout);
    else
        TolvaPkg::remove(arguments[1], std::cout);
}

} // namespace

int main(int argc, char** argv) {
    return Tools::runTool("tolva-pkg", helpText, argc, argv, run);
}
