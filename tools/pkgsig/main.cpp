// pkgsig: signs packages and manages the device's package signature database.

#include "platform/package_signatures/database.hpp"
#include "tools/common/tool_main.hpp"
#include "tools/pkgsig/command_line.hpp"
#include "tools/pkgsig/commands.hpp"

#include <iostream>
#include <string>
#include <vector>

namespace {

using Pkgsig::CommandLine;

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

void run(const CommandLine& line) {
    Pkgsig::requireRegularInputs(line);
    const std::string database = line.option("--database", false).empty()
                                     ? PackageSignatures::Database::defaultPath
                                     : line.option("--database");
    if (line.command == "sign") {
        Pkgsig::sign(Pkgsig::signOptions(line), std::cout);
    } else if (line.command == "show") {
        Pkgsig::show(line.operands.front(), std::cout);
    } else if (line.command == "verify") {
        Pkgsig::verify(line.operands.front(), line.option("--ca"), std::cout);
    } else if (line.command == "import") {
        Pkgsig::importCertificates(line.operands.front(), line.option("--ca"), database, std::cout);
    } else {
        Pkgsig::list(database, std::cout);
    }
}

} // namespace

int main(int argc, char** argv) {
    return Tools::runTool("pkgsig", helpText, argc, argv,
                          [](const auto& arguments) { run(Pkgsig::parseCommandLine(arguments)); });
}
